#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "trend_api.h"
#include "trend_base.h"

struct sqlite3_stmt;

namespace toolkit::trend {

class CDatabase;

// One prepared statement of one connection, which must outlive it.
//
// Results are 0 on success and -1 after a failure reported on standard error, except step(). A
// report carries SQLite's code and message. No exception leaves a statement: a text for which there
// is no memory is "Error: out of memory", -1. Every operation but prepare() wants a prepared
// statement, which is asserted. Parameters count from 1, columns from 0. One thread at a time.
class TREND_EXPORT CStatement {
public:
    // Prepares `sql`. A text that cannot be prepared has been reported and leaves a statement that
    // is good for nothing but is_prepared().
    CStatement(const tk_string& sql, CDatabase& db);
    ~CStatement();

    CStatement(const CStatement&) = delete;
    CStatement& operator=(const CStatement&) = delete;

    bool is_prepared() const { return _stmt != nullptr; }

    // Called by the constructor; asserts that there is no statement yet and that `str` holds one.
    int prepare(const tk_string& str);

    // Text is not copied: it must stay as it is until the statement has been stepped and reset, so
    // never bind a temporary. Without a value, and for an absent COptVal, NULL is bound.
    int bind(size_t idx, int64_t v);
    int bind(size_t idx, const tk_string& v);
    int bind(size_t idx, double v);
    int bind(size_t idx);
    int bind(size_t idx, const COptVal& v);

    // 1 for a row, 0 when done, -1 on failure; reset() after it in any case. A busy database (code
    // 5) is waited for, yielding the processor, without limit; an extended busy code is a failure.
    // A step inside a transaction level whose transaction SQLite has dropped meanwhile is refused
    // with code 516: on its own it would commit by itself.
    int step();

    // Makes ready for the next use, all parameters NULL. Repeats the failure of the last step; the
    // parameters then stay as they are.
    int reset();

    // The types are strict: an integer column is not read as a double, nor the other way round.
    // NULL gives -1, 0.0 or an empty text where `null_ok`, and an absent COptVal always. On failure
    // `out` stays as it was; a COptVal becomes absent. Text ends at its first zero byte.
    int column(size_t col, int64_t& out, bool null_ok) const;
    int column(size_t col, double& out, bool null_ok) const;
    int column(size_t col, tk_string& out, bool null_ok) const;
    int column(size_t col, COptVal& out) const;

private:
    friend struct CThrowing;  // the library's own way to read a text

    CDatabase& _db;
    sqlite3_stmt* _stmt;
};

// Empty when the statement could not be prepared, which has been reported.
using stmt_ptr_t = std::shared_ptr<CStatement>;

}  // namespace toolkit::trend
