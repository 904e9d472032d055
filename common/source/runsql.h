#pragma once

#include <cstddef>

#include "database.h"
#include "throwing.h"

namespace toolkit::trend {

// A text that is stored as NULL when it is empty.
struct text_or_null_t {
    const tk_string& _text;
};

inline int bind_value(CStatement& stmt, size_t idx, const text_or_null_t& value)
{
    return value._text.empty() ? stmt.bind(idx) : stmt.bind(idx, value._text);
}

inline int bind_value(CStatement& stmt, size_t idx, const bool& value)
{
    return stmt.bind(idx, int64_t(value));
}

template <typename Value>
int bind_value(CStatement& stmt, size_t idx, const Value& value)
{
    return stmt.bind(idx, value);
}

// Binds the values to parameters 1, 2, ... in order; the first failure ends it. Text is bound
// without a copy, so it must outlive the step: bind members of the caller's record, never a
// temporary. A number has to say its type, int64_t or double; a flag is stored as 0 or 1.
template <typename... Values>
int bind_all(CStatement& stmt, const Values&... values)
{
    size_t idx = 0;
    int failed = 0;
    static_cast<void>((((failed = bind_value(stmt, ++idx, values)) == 0) && ...));
    return failed;
}

// Steps a statement that changes rows. A row out of it would mean that the text is not what we
// think.
inline int run(CStatement& stmt)
{
    const int retval = stmt.step();
    TREND_ASSERT(retval<=0);
    return retval;
}

// The whole life of a statement used once: prepare or take from the pool, bind, run, reset.
template <typename... Values>
int run_once(CDatabase& db, const tk_string& sql, bool fresh, const Values&... values)
{
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, fresh));
    if (!stmt) return -1;
    if (const int failed = bind_all(*stmt, values...)) return failed;
    return run(*stmt);
}

}  // namespace toolkit::trend
