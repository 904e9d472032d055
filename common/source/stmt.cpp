#include "stmt.h"

#include <sched.h>
#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>

#include "database.h"
#include "report.h"
#include "throwing.h"

namespace toolkit::trend {

namespace {

// SQLite counts in int. What does not fit stays too big for it, and is refused there.
int sqlite_int(size_t n) { return static_cast<int>(std::min<size_t>(n, INT_MAX)); }

// Reports the failure of an SQLite call, if it is one.
int check(int code, const char* fn, const char* call, CDatabase& db)
{
    if (code == SQLITE_OK) return 0;
    report("%s: %s: %d (%s)", fn, call, code, sqlite3_errmsg(*db));
    return -1;
}

int wrong_type(const char* fn, const char* wanted)
{
    report("%s: Column type is %s", fn, wanted);
    return -1;
}

}  // namespace

CStatement::CStatement(const tk_string& sql, CDatabase& db) : _db(db), _stmt(nullptr)
{
    static_cast<void>(prepare(sql));  // reported there, seen by is_prepared()
}

CStatement::~CStatement() { sqlite3_finalize(_stmt); }

int CStatement::prepare(const tk_string& str)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::prepare(const tk_string&)");
    TREND_ASSERT(_stmt==__null);
    TREND_ASSERT(!str.empty());

    const int code = sqlite3_prepare_v2(*_db, str.data(), sqlite_int(str.size()), &_stmt, nullptr);
    if (code != SQLITE_OK) {
        _stmt = nullptr;
        return check(code, fn, "sqlite3_prepare()", _db);
    }
    TREND_ASSERT(_stmt!=__null);
    return 0;
}

int CStatement::bind(size_t idx, int64_t v)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::bind(size_t, int64_t)");
    TREND_ASSERT(_stmt!=__null);
    return check(sqlite3_bind_int64(_stmt, sqlite_int(idx), v), fn, "sqlite3_bind_int64()", _db);
}

int CStatement::bind(size_t idx, const tk_string& v)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::bind(size_t, const tk_string&)");
    TREND_ASSERT(_stmt!=__null);
    return check(
        sqlite3_bind_text(_stmt, sqlite_int(idx), v.data(), sqlite_int(v.size()), SQLITE_STATIC),
        fn, "sqlite3_bind_text()", _db);
}

int CStatement::bind(size_t idx, double v)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::bind(size_t, double)");
    TREND_ASSERT(_stmt!=__null);
    return check(sqlite3_bind_double(_stmt, sqlite_int(idx), v), fn, "sqlite3_bind_double()", _db);
}

int CStatement::bind(size_t idx)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::bind(size_t)");
    TREND_ASSERT(_stmt!=__null);
    return check(sqlite3_bind_null(_stmt, sqlite_int(idx)), fn, "sqlite3_bind_null()", _db);
}

int CStatement::bind(size_t idx, const COptVal& v)
{
    TREND_SIGNATURE(fn,
                    "int toolkit::trend::CStatement::bind(size_t, const toolkit::trend::COptVal&)");
    TREND_ASSERT(_stmt!=__null);
    const int code = v ? sqlite3_bind_double(_stmt, sqlite_int(idx), *v)
                       : sqlite3_bind_null(_stmt, sqlite_int(idx));
    return check(code, fn, "sqlite3_bind", _db);  // one text for both binds, without parentheses
}

int CStatement::step()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::step()");
    TREND_ASSERT(_stmt!=__null);

    if (!sqlite3_stmt_readonly(_stmt)) _db._disturbed = true;
    if (_db.transaction_dropped()) {
        report("%s: sqlite3_step(): %d (%s)", fn, SQLITE_ABORT_ROLLBACK,
               sqlite3_errstr(SQLITE_ABORT_ROLLBACK));
        return -1;
    }

    for (;;) {
        const int code = sqlite3_step(_stmt);
        if (code == SQLITE_ROW) return 1;
        if (code == SQLITE_DONE) return 0;
        // Extended busy codes are failures: waiting would not help a stale snapshot.
        if (code != SQLITE_BUSY) {
            _db._disturbed = true;
            return check(code, fn, "sqlite3_step()", _db);
        }
        sched_yield();
    }
}

int CStatement::reset()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::reset()");
    TREND_ASSERT(_stmt!=__null);
    if (const int failed = check(sqlite3_reset(_stmt), fn, "sqlite3_reset()", _db)) return failed;
    return check(sqlite3_clear_bindings(_stmt), fn, "sqlite3_clear_bindings()", _db);
}

int CStatement::column(size_t col, int64_t& out, bool null_ok) const
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const");
    TREND_ASSERT(_stmt!=__null);
    const int type = sqlite3_column_type(_stmt, sqlite_int(col));
    if (type == SQLITE_INTEGER)
        out = sqlite3_column_int64(_stmt, sqlite_int(col));
    else if (type == SQLITE_NULL && null_ok)
        out = -1;
    else
        return wrong_type(fn, "non-int");
    return 0;
}

int CStatement::column(size_t col, double& out, bool null_ok) const
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CStatement::column(size_t, double&, bool) const");
    TREND_ASSERT(_stmt!=__null);
    const int type = sqlite3_column_type(_stmt, sqlite_int(col));
    if (type == SQLITE_FLOAT)
        out = sqlite3_column_double(_stmt, sqlite_int(col));
    else if (type == SQLITE_NULL && null_ok)
        out = 0.0;
    else
        return wrong_type(fn, "non-float");
    return 0;
}

constexpr const char* COLUMN_TEXT =
    "int toolkit::trend::CStatement::column(size_t, tk_string&, bool) const";

int CStatement::column(size_t col, tk_string& out, bool null_ok) const
try {
    TREND_SIGNATURE(fn, COLUMN_TEXT);
    TREND_ASSERT(_stmt!=__null);
    return CThrowing::column(*this, col, out, null_ok);
} catch (...) {
    return out_of_memory(COLUMN_TEXT);
}

int CThrowing::column(const CStatement& stmt, size_t col, tk_string& out, bool null_ok)
{
    const int type = sqlite3_column_type(stmt._stmt, sqlite_int(col));
    if (type == SQLITE_TEXT) {
        const unsigned char* text = sqlite3_column_text(stmt._stmt, sqlite_int(col));
        if (!text) return out_of_memory(COLUMN_TEXT);  // for its conversion from another encoding
        out.assign(reinterpret_cast<const char*>(text));
    } else if (type == SQLITE_NULL && null_ok) {
        out.clear();
    } else {
        return wrong_type(COLUMN_TEXT, "non-text");
    }
    return 0;
}

int CStatement::column(size_t col, COptVal& out) const
{
    TREND_SIGNATURE(
        fn, "int toolkit::trend::CStatement::column(size_t, toolkit::trend::COptVal&) const");
    TREND_ASSERT(_stmt!=__null);
    // The value is taken once, where type and number each would take SQLite's lock: a read has
    // hundreds of these in a row. One thread serves the connection, so nobody changes it meanwhile.
    sqlite3_value* value = sqlite3_column_value(_stmt, sqlite_int(col));
    const int type = sqlite3_value_type(value);
    if (type == SQLITE_FLOAT) {
        out._val = sqlite3_value_double(value);
        return 0;
    }
    out = COptVal();
    return type == SQLITE_NULL ? 0 : wrong_type(fn, "non-float");
}

}  // namespace toolkit::trend
