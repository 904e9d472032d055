#pragma once

#include <cstdint>

// What a process costs besides time.

// The most memory that was resident at once since the last call of forget_peak_memory(), in bytes;
// 0 where the system does not tell.
int64_t peak_memory();
void forget_peak_memory();
// What is resident now.
int64_t resident_memory();

// While one lives, counts what C++ code allocates: the most at once beyond what it had before, in
// bytes of memory blocks. What SQLite takes, its page cache most of all, is not in it. The same in
// every run, unlike the memory that is resident. For one thread, one at a time.
class allocations_t {
public:
    allocations_t();
    ~allocations_t();

    allocations_t(const allocations_t&) = delete;
    allocations_t& operator=(const allocations_t&) = delete;

    int64_t most() const;
    int64_t now() const;  // less than nothing where older blocks have been given back
};

// Bytes handed to write calls by this process so far, into memory maps not counted; 0 where the
// system does not tell.
int64_t bytes_written();

// While one lives, fsync() and fdatasync() do nothing: the time that a disk takes is not the
// program's.
class without_sync {
public:
    explicit without_sync(bool active = true);
    ~without_sync();

    without_sync(const without_sync&) = delete;
    without_sync& operator=(const without_sync&) = delete;

private:
    bool _before;
};
