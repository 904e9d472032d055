#include <cstdarg>

#include "trend/checks.h"
#include "trend/memory.h"
#include "trend/operation.h"

namespace toolkit::trend {

constexpr const char* OPEN =
    "int toolkit::trend::CLog::open(const tk_string&, bool, bool, size_t, bool, "
    "size_t, size_t, size_t, bool)";

int CLog::open(const tk_string& name, bool read_only, bool create, size_t pool_capacity,
               bool temp_in_memory, size_t page_size, size_t cache_bytes, size_t heap_limit,
               bool wal)
try {
    TREND_SIGNATURE(fn, OPEN);
    _db.reset();
    // The pool would throw at its first statement. An empty name is refused by the connection.
    if (pool_capacity == 0 && !is_empty_path(name)) return refuse(fn, "invalid pool capacity");

    _db = std::make_shared<CLogDatabase>();
    int failed = CThrowing::open(*_db, name, pool_capacity, read_only, create, temp_in_memory,
                                 page_size, cache_bytes, heap_limit, wal);
    if (!failed && !read_only && create) failed = init_basic_tables();
    if (failed) _db.reset();
    return failed;
} catch (...) {
    _db.reset();
    return out_of_memory(OPEN);
}

void CLog::close() { _db.reset(); }

bool CLog::is_open() const { return _db && _db->is_open(); }

// Transactions ---------------------------------------------------------------------------------

int CLog::begin_transaction()
{
    TREND_ASSERT(_db);
    return _db->begin_transaction();
}

int CLog::end_transaction()
{
    TREND_ASSERT(_db);
    return _db->end_transaction();
}

void CLog::rollback_transaction()
{
    TREND_ASSERT(_db);
    _db->rollback_transaction();
}

// Housekeeping ---------------------------------------------------------------------------------

int CLog::checkpoint()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CLog::checkpoint()");
    if (const int failed = check_open(fn, _db)) return failed;
    return _db->checkpoint();
}

int CLog::checkpoint_config(int n)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CLog::checkpoint_config(int)");
    if (const int failed = check_open(fn, _db)) return failed;
    return _db->checkpoint_config(n);
}

constexpr const char* VACUUM = "int toolkit::trend::CLog::vacuum()";

int CLog::vacuum()
try {
    TREND_SIGNATURE(fn, VACUUM);
    if (const int failed = check_open(fn, _db)) return failed;
    return CThrowing::exec(*_db, "VACUUM", STMT_POOLED, ROW_NONE);
} catch (...) {
    return out_of_memory(VACUUM);
}

void CLog::err(unsigned int, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    report_list(fmt, args);
    va_end(args);
}

}  // namespace toolkit::trend
