#pragma once

#include <cstddef>

#include "cache.h"
#include "stmt.h"
#include "trend_api.h"
#include "trend_base.h"

namespace toolkit::trend {

// Prepared statements of one connection, kept by their SQL text, the least recently used one given
// up when `capacity` of them are held. A statement given up stays usable for whoever holds it.
class TREND_EXPORT CStatementPool {
public:
    CStatementPool(CDatabase& db, size_t capacity);

    CStatementPool(const CStatementPool&) = delete;
    CStatementPool& operator=(const CStatementPool&) = delete;

    // The statement for `str`, which must not be empty (asserted): the same object for the same
    // text while the pool keeps it. Whoever had it before must have reset it. Empty when it cannot
    // be prepared; that is reported and not remembered. Throws cache_uninitialized for a new text
    // when the capacity is 0.
    stmt_ptr_t get(const tk_string& str);

private:
    CDatabase* _db;
    CCache<tk_string, stmt_ptr_t> _cache;
};

}  // namespace toolkit::trend
