#pragma once

#include <string>

struct sqlite3_stmt;

// Sees, while it lives, every statement that the library prepares, binds, steps and resets, on
// connections that are open already too. The test program's own functions of these names stand
// before SQLite's and pass each call on, so nothing in the connection or in its statements is
// touched. What SQLite does inside such a call, and what the tests' own connections do, is not
// seen.
class sqlite_watch {
public:
    sqlite_watch(const sqlite_watch&) = delete;
    sqlite_watch& operator=(const sqlite_watch&) = delete;

    // True makes the prepare fail with SQLite's code 1, "no such column: denied".
    virtual bool denies(const std::string& sql);

    // True makes the bind fail with SQLite's code 25, "column index out of range".
    virtual bool refuses_bind(sqlite3_stmt* stmt);

    // Before one call of sqlite3_reset().
    virtual void before_reset(sqlite3_stmt* stmt);

    // Around one call of sqlite3_step().
    virtual void before_step(sqlite3_stmt* stmt);
    virtual void after_step(sqlite3_stmt* stmt, int result);

protected:
    sqlite_watch();
    virtual ~sqlite_watch();
};

// While one lives, nothing is seen: for the tests' own use of SQLite.
class unwatched {
public:
    unwatched();
    ~unwatched();

    unwatched(const unwatched&) = delete;
    unwatched& operator=(const unwatched&) = delete;
};
