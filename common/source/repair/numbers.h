#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "runsql.h"

namespace toolkit::trend {

// Values of a query that cannot be of another type: whoever asks has made sure of that. NULL is -1,
// or absent.
inline int64_t number_of(const CStatement& row, size_t col)
{
    int64_t number = -1;
    static_cast<void>(row.column(col, number, NULL_OK));
    return number;
}

inline COptVal value_of(const CStatement& row, size_t col)
{
    COptVal value;
    static_cast<void>(row.column(col, value));
    return value;
}

// Reads the whole numbers of a query that has exactly one row.
template <size_t N, typename... Values>
int read_numbers(CDatabase& db, const tk_string& sql, std::array<int64_t, N>& out,
                 const Values&... values)
{
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, STMT_POOLED));
    if (!stmt) return -1;
    if (const int failed = bind_all(*stmt, values...)) return failed;
    if (stmt->step() < 0) return -1;
    for (size_t i = 0; i < N; ++i)
        out[i] = number_of(*stmt, i);
    return 0;
}

}  // namespace toolkit::trend
