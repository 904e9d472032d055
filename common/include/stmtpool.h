#pragma once

#include <cstddef>
#include <memory>

#include "cache.h"
#include "stmt.h"
#include "trend_api.h"
#include "trend_base.h"

namespace toolkit::trend {

// Where a pool keeps a statement: the way back to it without its text.
struct pool_place_t {
    CCache<tk_string, stmt_ptr_t>::handle_t _slot;  // its key is the text, while the pool keeps it
    std::weak_ptr<CStatement> _stmt;
};

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

    // As above, and the place where the pool keeps it from now on.
    stmt_ptr_t get(const tk_string& str, pool_place_t& place);

    // The statement of a place that this pool has given, as get() of its text would give it; empty,
    // without a report, when the pool keeps it no longer.
    stmt_ptr_t recall(const pool_place_t& place);

private:
    CDatabase* _db;
    CCache<tk_string, stmt_ptr_t> _cache;
};

}  // namespace toolkit::trend
