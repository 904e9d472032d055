#pragma once

#include <sys/types.h>

#include <string>

#include "sqlite_watch.h"

// Real failures of SQLite at a chosen call, once each. All count from their construction, and none
// changes the connection before it strikes.

// Makes the n-th prepare (from 1) of any text, or of one text, fail with code 1 and the message
// "no such column: denied". Statements that come from the pool are not prepared.
class deny_prepare : public sqlite_watch {
public:
    explicit deny_prepare(int n);
    explicit deny_prepare(std::string sql, int n = 1);

    // Whether it has struck: when an operation has had no n-th prepare, a sweep is over.
    bool struck() const { return _left == 0; }

    bool denies(const std::string& sql) override;

private:
    std::string _sql;  // empty for any
    int _left;
};

// Makes the n-th bind (from 1) of any value fail with code 25 and the message "column index out of
// range".
class refuse_bind : public sqlite_watch {
public:
    explicit refuse_bind(int n) : _left(n) {}

    bool struck() const { return _left == 0; }

    bool refuses_bind(sqlite3_stmt* stmt) override;

private:
    int _left;
};

// Makes the n-th reset (from 1) of the statement with this text fail with code 9, "interrupted", by
// a step that is interrupted before it: a reset only repeats what a step has said. The statement
// must write, and SQLite ends the transaction by itself.
class fail_reset : public sqlite_watch {
public:
    explicit fail_reset(std::string sql, int n = 1);

    bool struck() const { return _left == 0; }

    void before_reset(sqlite3_stmt* stmt) override;

private:
    std::string _sql;
    int _left;
};

// Makes the n-th step (from 1) of the statement with this text fail with code 9, "interrupted".
// When the statement is one that writes, SQLite ends the transaction by itself; when it reads, the
// transaction stays, and when it is a COMMIT or ROLLBACK, it stays open with what it has written.
class interrupt_step : public sqlite_watch {
public:
    explicit interrupt_step(std::string sql, int n = 1);

    bool struck() const { return _left == 0; }

    void before_step(sqlite3_stmt* stmt) override;
    void after_step(sqlite3_stmt* stmt, int result) override;

private:
    std::string _sql;
    int _left;
};

// Makes the next COMMIT fail: with code 531, "constraint failed", when there is something to
// commit, and SQLite rolls back by itself; else with code 9, "interrupted", and the transaction
// stays open. For one that stays open with something written, interrupt_step("COMMIT").
class refuse_commit : public sqlite_watch {
public:
    bool struck() const { return _struck; }

    void before_step(sqlite3_stmt* stmt) override;
    void after_step(sqlite3_stmt* stmt, int result) override;

private:
    bool _struck = false;
};

// Holds a lock on a log's file from another process until release(), the end of the object, or at
// the latest for so many milliseconds. The file must not be locked against it.
class busy_lock {
public:
    enum kind_t {
        WRITER,        // other processes may read only
        CHECKPOINTER,  // nobody else may checkpoint; the file must be in WAL mode and open
        EVERYBODY      // others may not even read; the file must be in rollback mode
    };

    busy_lock(const std::string& file, kind_t kind, int milliseconds = 10000);
    ~busy_lock();

    busy_lock(const busy_lock&) = delete;
    busy_lock& operator=(const busy_lock&) = delete;

    void release();

private:
    pid_t _holder = -1;
    int _release_fd = -1;  // the holder goes when it closes
};
