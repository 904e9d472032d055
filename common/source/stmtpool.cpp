#include "stmtpool.h"

#include "database.h"

namespace toolkit::trend {

CStatementPool::CStatementPool(CDatabase& db, size_t capacity) : _db(&db), _cache(capacity) {}

stmt_ptr_t CStatementPool::get(const tk_string& str)
{
    pool_place_t place;
    return get(str, place);
}

stmt_ptr_t CStatementPool::get(const tk_string& str, pool_place_t& place)
{
    TREND_ASSERT(!str.empty());
    stmt_ptr_t retval;
    try {
        place._slot = _cache.lookup_raw(str);
        retval = place._slot.ptr->val;
        TREND_ASSERT(retval);
    } catch (const cache_entry_not_found&) {
        retval = std::allocate_shared<CStatement>(std::allocator<CStatement>(), str, *_db);
        if (!retval->is_prepared()) return stmt_ptr_t();
        place._slot = _cache.add_raw(str, retval);
    }
    place._stmt = retval;
    return retval;
}

stmt_ptr_t CStatementPool::recall(const pool_place_t& place)
{
    // Its address is its own for as long as there is a weak pointer to it. A slot that has another
    // statement by now is not the place any more, even if somebody still holds the one sought.
    stmt_ptr_t retval = place._stmt.lock();
    if (!retval || place._slot.ptr->val != retval) return stmt_ptr_t();
    _cache.touch(place._slot);
    return retval;
}

}  // namespace toolkit::trend
