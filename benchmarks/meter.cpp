#include "meter.h"

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>

namespace {

bool sync_is_off = false;

bool counts_allocations = false;
int64_t allocated = 0;
int64_t most_allocated = 0;

// What a block takes, with the word in front of it.
int64_t size_of(void* block)
{
    return static_cast<int64_t>(malloc_usable_size(block) + sizeof(size_t));
}

// The number after "name:" in a file of the process's own.
int64_t value_of(const char* file, const std::string& name)
{
    std::ifstream lines(file);
    for (std::string word; lines >> word;) {
        if (word != name) continue;
        int64_t value = 0;
        lines >> value;
        return value;
    }
    return 0;
}

int synchronise(long call, int fd) { return sync_is_off ? 0 : static_cast<int>(syscall(call, fd)); }

}  // namespace

// These stand before the C library's, SQLite's calls included.
extern "C" __attribute__((visibility("default"))) int fsync(int fd)
{
    return synchronise(SYS_fsync, fd);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd)
{
    return synchronise(SYS_fdatasync, fd);
}

// And these before the standard library's, whose other forms come here; a sanitizer has a
// non-throwing one of its own, whose blocks must not be freed here. Blocks of special alignment are
// not counted.
void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    void* const block = std::malloc(std::max<size_t>(size, 1));
    if (counts_allocations && block) {
        allocated += size_of(block);
        most_allocated = std::max(most_allocated, allocated);
    }
    return block;
}

void* operator new(size_t size)
{
    void* const block = operator new(size, std::nothrow);
    if (!block) throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept
{
    if (counts_allocations && block) allocated -= size_of(block);
    std::free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept { operator delete(block); }

allocations_t::allocations_t()
{
    allocated = most_allocated = 0;
    counts_allocations = true;
}

allocations_t::~allocations_t() { counts_allocations = false; }

int64_t allocations_t::most() const { return most_allocated; }

int64_t allocations_t::now() const { return allocated; }

int64_t peak_memory() { return value_of("/proc/self/status", "VmHWM:") * 1024; }

int64_t resident_memory() { return value_of("/proc/self/status", "VmRSS:") * 1024; }

void forget_peak_memory()
{
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
}

int64_t bytes_written() { return value_of("/proc/self/io", "wchar:"); }

without_sync::without_sync(bool active) : _before(sync_is_off) { sync_is_off = active; }

without_sync::~without_sync() { sync_is_off = _before; }
