#pragma once

// A disk in memory behind SQLite's default VFS: the library opens its files here without knowing.
// It can fail the n-th call of a class, be copied and put back in no time, and write down what
// reaches it for a power cut. One thread; files, locks and shared memory serve any number of
// connections.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace disk {

// What SQLite asks of its VFS, by what can fail about it.
enum call_t {
    READ,
    WRITE,
    SHORT_WRITE,  // a write of which half arrives
    SYNC,
    TRUNCATE,
    OPEN,
    DELETE,
    SIZE,
    ACCESS,
    LOCK,
    UNLOCK,
    SHM_MAP,
    SHM_LOCK
};

// All files by name, as a crash of the process would leave them to the next one.
using image_t = std::map<std::string, std::string>;

// Makes the disk the default VFS. Before SQLite is used.
void install();

image_t image();
void restore(const image_t& files);

// Runs what a process does at its end, of which nothing reaches the disk: it has been killed.
void crash(const std::function<void()>& end);

// Puts files beside those that are there, and removes those whose names begin so.
void add(const image_t& files);
void remove_files(const std::string& prefix);

// The same files under other names: "trend.db-wal" becomes "copy.db-wal".
image_t renamed(const image_t& files, const std::string& from, const std::string& to);

// Handles that SQLite has not closed.
size_t open_files();

// Fails the n-th call from now, counting from 1, and with `persistent` all after it, with SQLite's
// `code`. Calls made while it is not armed are not counted.
void arm(call_t call, int code, size_t n, bool persistent);

// Ends that; how many calls failed.
size_t disarm();

// Leaves room for so many bytes more: a write that makes a file longer takes of it, and fails as on
// a full disk where there is not enough; what is truncated or deleted gives its room back. Until
// make_room() it counts for all files together, temporary ones too.
void leave_room(size_t bytes);
void make_room();

// What changes the disk, in order.
struct event_t {
    enum kind_t { WRITTEN, TRUNCATED, SYNCED, CREATED, DELETED, MARK };
    kind_t _kind;
    std::string _file;
    size_t _offset = 0;  // of the bytes written; the size after truncation; the number of a mark
    std::string _bytes;
    bool _durable = false;  // a deletion or sync with which all deletions have reached the medium
};

// Writes events down until stop_recording() hands them over. mark() puts a number among them.
void start_recording();
void mark(size_t number);
std::vector<event_t> stop_recording();

}  // namespace disk
