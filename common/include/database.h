#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "stmt.h"
#include "stmtpool.h"
#include "trend_api.h"
#include "trend_base.h"

struct sqlite3;

namespace toolkit::trend {

// What the flags of CDatabase::stmt() and exec() mean at a call.
constexpr bool STMT_FRESH = true;    // prepared for this use
constexpr bool STMT_POOLED = false;  // kept in the pool for the next use
constexpr bool ROW_OK = true;        // a row is a success
constexpr bool ROW_NONE = false;     // a row is returned as 1
constexpr bool NULL_OK = true;       // NULL reads as the type's substitute
constexpr bool NULL_NOT_OK = false;  // NULL is a failure

// One SQLite connection with the settings of a trend log, its prepared statements and its nested
// transactions.
//
// Results are 0 on success, -1 after a reported failure, else the code of the call that failed.
// Everything but open(), close() and is_open() wants an open connection, which is asserted. One
// thread at a time; other processes may use the file, and a step that finds it locked waits.
//
// No exception leaves a connection. An operation that runs out of memory reports "Error: out of
// memory", also a pool that is too large to be had, and one that wants a statement from a pool of
// capacity 0 "Error: invalid pool capacity"; the result is -1, or an empty statement.
class TREND_EXPORT CDatabase {
public:
    CDatabase() = default;
    ~CDatabase();

    CDatabase(const CDatabase&) = delete;
    CDatabase& operator=(const CDatabase&) = delete;

    // Opens or reopens the file; see CLog::open() for the settings. A new file is not writable for
    // group and others. The aggregate functions are registered last. After a failure call open()
    // again or close(): a handle may be left, and is_open() be true. Reports "empty DB name" (-1)
    // and "can't open DB '...'", the latter with SQLite's code as the result.
    int open(const tk_string& name, size_t pool_capacity, bool read_only, bool create,
             bool temp_in_memory, size_t page_size, size_t cache_bytes, size_t heap_limit,
             bool wal);

    // Gives up the pool and the connection. Statements held elsewhere must have been released.
    void close();

    bool is_open() const { return _db != nullptr; }

    // A prepared statement of the first statement in `str`: from the pool, to be reset before the
    // same text is asked for again, or with `fresh` one of its own, for texts that are used once or
    // rarely. Empty when it cannot be made, which has been reported.
    stmt_ptr_t stmt(const tk_string& str, bool fresh);

    // Prepares the first statement in `str`, steps it once and resets it. 0 when done, 1 for a row
    // (0 with `row_ok`).
    int exec(const tk_string& str, bool fresh, bool row_ok);

    // Reads column 0 of the last row of a query as an integer, inside a transaction level. Without
    // a row, and when a step fails, `out` stays as it was and the result is 0 all the same, unless
    // the level cannot be ended: give it a value that tells. NULL reads as -1 with `null_ok`. 1 for
    // a column that is no integer.
    int get_intval(const tk_string& sql, int64_t& out, bool fresh, bool null_ok);

    // Sets the size of the page cache to `bytes`, rounded down to whole pages.
    int update_cache_size(size_t bytes);

    // Nested transactions: only the outermost level issues BEGIN, COMMIT and ROLLBACK. An inner
    // rollback leaves its work to the outer levels. A failed outermost end_transaction() has rolled
    // back and must not be followed by rollback_transaction(). A ROLLBACK that SQLite could not run
    // is made up for by the next begin: a host that ends that transaction on the raw handle must
    // not open one of its own there before.
    int begin_transaction();
    int end_transaction();
    void rollback_transaction();

    // Whether a level is open.
    bool in_transaction() const { return _nest_lvl > 0; }

    // Checkpoint of the write-ahead log, and the number of pages at which SQLite makes one itself
    // (0 or less: never). Without effect unless opened writable with `wal`. 1 on failure.
    int checkpoint();
    int checkpoint_config(int n);

    // The raw handle.
    sqlite3* operator*();

private:
    friend class CStatement;   // refuses to step in a dropped transaction, notes what disturbs
    friend class CTransCheck;  // compares nesting levels
    friend class CMemory;      // what recording remembers: proves it, for which it reads the notes
    friend struct CThrowing;   // these operations, for those that answer their exceptions

    // Whether SQLite has ended the transaction while its level still stands.
    bool transaction_dropped() const;

    // Issues ROLLBACK at level 0. What SQLite then still holds open is owed to the next begin.
    void roll_back() noexcept;

    // Runs BEGIN, COMMIT or ROLLBACK, and reports what that throws under the name `fn`, -1.
    int control(const char* fn, const char* sql) noexcept;

    sqlite3* _db = nullptr;
    int _nest_lvl = 0;
    std::unique_ptr<CStatementPool> _pool;
    bool _wal = false;
    bool _rollback_owed = false;  // an own transaction that could not be rolled back is still open
    bool _disturbed = false;      // something may have changed the file, or failed, or rolled back
    bool _version_asked = false;  // in this transaction, for commits of others
};

// Holds a statement for one use and resets it when done.
class TREND_EXPORT stmt_wrapper_t {
public:
    stmt_wrapper_t() = default;
    explicit stmt_wrapper_t(stmt_ptr_t p) : _stmt(std::move(p)) {}
    ~stmt_wrapper_t();

    stmt_wrapper_t(const stmt_wrapper_t&) = delete;
    stmt_wrapper_t& operator=(const stmt_wrapper_t&) = delete;

    // Resets the statement held before.
    stmt_wrapper_t& operator=(const stmt_ptr_t& p);

    explicit operator bool() const { return _stmt != nullptr; }
    CStatement* operator->() const { return _stmt.get(); }
    CStatement& operator*() const { return *_stmt; }
    const stmt_ptr_t& get() const { return _stmt; }

private:
    stmt_ptr_t _stmt;
};

}  // namespace toolkit::trend
