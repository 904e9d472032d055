#include "database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include "functions.h"
#include "report.h"
#include "sqlformat.h"
#include "throwing.h"
#include "transcheck.h"
#include "translevel.h"

namespace toolkit::trend {

namespace {

// Keeps what is created meanwhile from being writable for group and others. The mask belongs to the
// process, so this lasts as short as can be.
class CCreationMask {
public:
    CCreationMask() : _old(umask(S_IWGRP | S_IWOTH)) {}
    ~CCreationMask() { umask(_old); }

    CCreationMask(const CCreationMask&) = delete;
    CCreationMask& operator=(const CCreationMask&) = delete;

private:
    mode_t _old;
};

int open_file(const tk_string& name, sqlite3** db, bool read_only, bool create)
{
    int flags = SQLITE_OPEN_READWRITE;
    if (read_only)
        flags = SQLITE_OPEN_READONLY;
    else if (create)
        flags |= SQLITE_OPEN_CREATE;
    // One thread at a time is the contract, so SQLite need not lock out others at every call.
    flags |= SQLITE_OPEN_NOMUTEX;
    const CCreationMask mask;
    return sqlite3_open_v2(name.c_str(), db, flags, nullptr);
}

// Answers what an operation has caught, under the name `fn`.
int answer(const char* fn) noexcept
try {
    throw;
} catch (const cache_uninitialized&) {
    return refuse(fn, "invalid pool capacity");
} catch (...) {
    return out_of_memory(fn);
}

}  // namespace

CDatabase::~CDatabase() { close(); }

constexpr const char* OPEN =
    "int toolkit::trend::CDatabase::open(const tk_string&, size_t, bool, bool, bool, size_t, "
    "size_t, size_t, bool)";

int CDatabase::open(const tk_string& name, size_t pool_capacity, bool read_only, bool create,
                    bool temp_in_memory, size_t page_size, size_t cache_bytes, size_t heap_limit,
                    bool wal)
try {
    TREND_SIGNATURE(fn, OPEN);
    return CThrowing::open(*this, name, pool_capacity, read_only, create, temp_in_memory, page_size,
                           cache_bytes, heap_limit, wal);
} catch (...) {
    return answer(OPEN);
}

int CThrowing::open(CDatabase& db, const tk_string& name, size_t pool_capacity, bool read_only,
                    bool create, bool temp_in_memory, size_t page_size, size_t cache_bytes,
                    size_t heap_limit, bool wal)
{
    if (name.c_str()[0] == '\0') {  // SQLite would make a file of its own, gone at the end
        report("%s: empty DB name", OPEN);
        return -1;
    }

    db.close();
    db._pool = std::make_unique<CStatementPool>(db, pool_capacity);
    if (const int failed = open_file(name, &db._db, read_only, create)) {
        report("%s: can't open DB '%s'", OPEN, name.c_str());
        return failed;
    }
    sqlite3* const _db = db._db;  // what the assertion calls it
    TREND_ASSERT(_db!=__null);
    sqlite3_extended_result_codes(_db, 1);
    db._nest_lvl = 0;
    db._wal = !read_only && wal;

    // One or the other: whoever wants no temporary files keeps the journal mode of the file.
    if (temp_in_memory) {
        if (const int failed = exec(db, "PRAGMA temp_store = MEMORY", STMT_FRESH, ROW_NONE))
            return failed;
    } else if (db._wal) {
        if (const int failed = exec(db, "PRAGMA journal_mode = WAL", STMT_FRESH, ROW_OK))
            return failed;
    }

    const size_t page = page_size != 0 ? page_size : 4096;
    if (const int failed = exec(db, sql_text("PRAGMA page_size=", page), STMT_FRESH, ROW_NONE))
        return failed;
    if (cache_bytes != 0)
        if (const int failed = update_cache_size(db, cache_bytes)) return failed;
    if (heap_limit != 0) sqlite3_soft_heap_limit64(static_cast<sqlite3_int64>(heap_limit));
    return register_custom_functions(_db);
}

void CDatabase::close()
{
    _pool.reset();
    if (_db) static_cast<void>(sqlite3_close(_db));
    _db = nullptr;
    _nest_lvl = 0;
    _wal = false;
    _rollback_owed = false;
}

constexpr const char* STMT =
    "toolkit::trend::stmt_ptr_t toolkit::trend::CDatabase::stmt(const tk_string&, bool)";

stmt_ptr_t CDatabase::stmt(const tk_string& str, bool fresh)
try {
    TREND_SIGNATURE(fn, STMT);
    TREND_ASSERT(!str.empty());
    TREND_ASSERT(_pool.get());
    return CThrowing::stmt(*this, str, fresh);
} catch (...) {
    static_cast<void>(answer(STMT));
    return stmt_ptr_t();
}

stmt_ptr_t CThrowing::stmt(CDatabase& db, const tk_string& str, bool fresh)
{
    if (!fresh) return db._pool->get(str);

    stmt_ptr_t statement = std::allocate_shared<CStatement>(std::allocator<CStatement>(), str, db);
    if (!statement->is_prepared()) statement.reset();
    return statement;
}

constexpr const char* EXEC = "int toolkit::trend::CDatabase::exec(const tk_string&, bool, bool)";

int CDatabase::exec(const tk_string& str, bool fresh, bool row_ok)
try {
    TREND_SIGNATURE(fn, EXEC);
    TREND_ASSERT(!str.empty());
    TREND_ASSERT(_pool.get());
    return CThrowing::exec(*this, str, fresh, row_ok);
} catch (...) {
    return answer(EXEC);
}

int CThrowing::exec(CDatabase& db, const tk_string& str, bool fresh, bool row_ok)
{
    const stmt_wrapper_t statement(stmt(db, str, fresh));
    if (!statement) return -1;

    const int retval = statement->step();
    return row_ok && retval == 1 ? 0 : retval;
}

constexpr const char* GET_INTVAL =
    "int toolkit::trend::CDatabase::get_intval(const tk_string&, int64_t&, bool, bool)";

int CDatabase::get_intval(const tk_string& sql, int64_t& out, bool fresh, bool null_ok)
try {
    TREND_SIGNATURE(fn, GET_INTVAL);
    TREND_ASSERT(_pool.get());
    return CThrowing::get_intval(*this, sql, out, fresh, null_ok);
} catch (...) {
    return answer(GET_INTVAL);
}

int CThrowing::get_intval(CDatabase& db, const tk_string& sql, int64_t& out, bool fresh,
                          bool null_ok)
{
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;

    const stmt_wrapper_t statement(stmt(db, sql, fresh));
    if (!statement) return -1;

    int retval = 0;
    while ((retval = statement->step()) == 1)
        if (statement->column(0, out, null_ok) != 0) return retval;

    // A failing step ends the query as its last row does; what was read so far stands.
    return level.end();
}

constexpr const char* UPDATE_CACHE_SIZE =
    "int toolkit::trend::CDatabase::update_cache_size(size_t)";

int CDatabase::update_cache_size(size_t bytes)
try {
    TREND_SIGNATURE(fn, UPDATE_CACHE_SIZE);
    TREND_ASSERT(_pool.get());
    return CThrowing::update_cache_size(*this, bytes);
} catch (...) {
    return answer(UPDATE_CACHE_SIZE);
}

int CThrowing::update_cache_size(CDatabase& db, size_t bytes)
{
    int64_t page = 0;
    const int failed = get_intval(db, "PRAGMA page_size", page, STMT_FRESH, NULL_NOT_OK);
    if (page <= 0) return -1;
    if (failed) return failed;
    return exec(db, sql_text("PRAGMA cache_size=", bytes / static_cast<size_t>(page)), STMT_FRESH,
                ROW_NONE);
}

int CDatabase::begin_transaction()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CDatabase::begin_transaction()");
    TREND_ASSERT(_db!=__null);
    TREND_ASSERT(_pool.get());
    if (_nest_lvl == 0) {
        if (_rollback_owed && sqlite3_get_autocommit(_db) == 0) {
            roll_back();
            if (_rollback_owed) return -1;
        }
        _rollback_owed = false;
        _version_asked = false;
        if (const int failed = control(fn, "BEGIN")) return failed;
    }
    ++_nest_lvl;
    return 0;
}

int CDatabase::end_transaction()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CDatabase::end_transaction()");
    TREND_ASSERT(_db!=__null);
    TREND_ASSERT(_pool.get());
    TREND_ASSERT(_nest_lvl>0);
    if (--_nest_lvl > 0) return 0;

    const int failed = control(fn, "COMMIT");
    // There is no level left for the caller to roll back, so a transaction that could not be
    // committed ends here.
    if (failed && sqlite3_get_autocommit(_db) == 0) roll_back();
    return failed;
}

void CDatabase::rollback_transaction()
{
    TREND_ASSERT(_db!=__null);
    TREND_ASSERT(_pool.get());
    TREND_ASSERT(_nest_lvl>0);
    _disturbed = true;
    if (--_nest_lvl == 0) roll_back();
}

void CDatabase::roll_back() noexcept
{
    _disturbed = true;  // after a COMMIT that could not be prepared no step has failed
    static_cast<void>(
        control("void toolkit::trend::CDatabase::rollback_transaction()", "ROLLBACK"));
    _rollback_owed = sqlite3_get_autocommit(_db) == 0;
}

int CDatabase::control(const char* fn, const char* sql) noexcept
try {
    return CThrowing::exec(*this, sql, STMT_POOLED, ROW_NONE);
} catch (...) {
    return answer(fn);
}

int CDatabase::checkpoint()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CDatabase::checkpoint()");
    TREND_ASSERT(_db!=__null);
    if (!_wal) return 0;
    if (sqlite3_wal_checkpoint(_db, nullptr) != SQLITE_OK) {
        report("%s: can't checkpoint database", fn);
        return 1;
    }
    return 0;
}

int CDatabase::checkpoint_config(int n)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CDatabase::checkpoint_config(int)");
    TREND_ASSERT(_db!=__null);
    if (!_wal) return 0;
    if (sqlite3_wal_autocheckpoint(_db, n) != SQLITE_OK) {
        report("%s: can't set autocheckpoint (%d)", fn, n);
        return 1;
    }
    return 0;
}

sqlite3* CDatabase::operator*()
{
    TREND_ASSERT(_db!=__null);
    return _db;
}

bool CDatabase::transaction_dropped() const
{
    return _nest_lvl > 0 && sqlite3_get_autocommit(_db) != 0;
}

stmt_wrapper_t::~stmt_wrapper_t()
{
    if (_stmt) static_cast<void>(_stmt->reset());
}

stmt_wrapper_t& stmt_wrapper_t::operator=(const stmt_ptr_t& p)
{
    if (_stmt) static_cast<void>(_stmt->reset());
    _stmt = p;
    return *this;
}

CTransCheck::CTransCheck(const std::shared_ptr<CDatabase>& db)
    : _db(db), _level(db ? db->_nest_lvl : 0)
{
}

CTransCheck::~CTransCheck()
{
    if (_db) TREND_ASSERT(_level==_db->_nest_lvl);
}

}  // namespace toolkit::trend
