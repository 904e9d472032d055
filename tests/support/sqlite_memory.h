#pragma once

#include <sqlite3.h>

// While it lives, SQLite's memory comes through here. No connection may be open at either end.
class sqlite_memory {
public:
    sqlite_memory()
    {
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_GETMALLOC, &_real);
        sqlite3_mem_methods ours = _real;
        ours.xMalloc = allocate;
        ours.xRealloc = resize;
        sqlite3_config(SQLITE_CONFIG_MALLOC, &ours);
        sqlite3_initialize();
    }

    ~sqlite_memory()
    {
        _until_failure = 0;
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_MALLOC, &_real);
        sqlite3_initialize();
    }

    sqlite_memory(const sqlite_memory&) = delete;
    sqlite_memory& operator=(const sqlite_memory&) = delete;

    // Lets the n-th request from now fail, counting from 1, or none.
    void fail_at(int n) { _until_failure = n; }

private:
    static bool fails() { return _until_failure != 0 && --_until_failure == 0; }
    static void* allocate(int size) { return fails() ? nullptr : _real.xMalloc(size); }

    static void* resize(void* memory, int size)
    {
        return fails() ? nullptr : _real.xRealloc(memory, size);
    }

    static inline sqlite3_mem_methods _real{};
    static inline int _until_failure = 0;
};
