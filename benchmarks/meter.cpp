#include "meter.h"

#include <malloc.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

bool sync_is_off = false;

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

bool configure(int threading_mode)
{
    return sqlite3_shutdown() == SQLITE_OK && sqlite3_config(threading_mode) == SQLITE_OK;
}

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

without_locks::without_locks()
{
    if (!configure(SQLITE_CONFIG_MULTITHREAD)) throw std::runtime_error("SQLite keeps its locks");
}

without_locks::~without_locks() { configure(SQLITE_CONFIG_SERIALIZED); }
