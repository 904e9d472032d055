#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "runsql.h"

namespace toolkit::trend {

// Reads the whole numbers of a query that has exactly one row; NULL reads as -1.
template <size_t N, typename... Values>
int read_numbers(CDatabase& db, const tk_string& sql, std::array<int64_t, N>& out,
                 const Values&... values)
{
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, STMT_POOLED));
    if (!stmt) return -1;
    if (const int failed = bind_all(*stmt, values...)) return failed;
    if (stmt->step() < 0) return -1;
    for (size_t i = 0; i < N; ++i)
        if (const int failed = stmt->column(i, out[i], NULL_OK)) return failed;
    return 0;
}

}  // namespace toolkit::trend
