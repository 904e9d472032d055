#include "stmtpool.h"

#include "database.h"

namespace toolkit::trend {

CStatementPool::CStatementPool(CDatabase& db, size_t capacity) : _db(&db), _cache(capacity) {}

stmt_ptr_t CStatementPool::get(const tk_string& str)
{
    TREND_ASSERT(!str.empty());
    try {
        const stmt_ptr_t& retval = _cache.lookup(str);
        TREND_ASSERT(retval);
        return retval;
    } catch (const cache_entry_not_found&) {
        stmt_ptr_t statement =
            std::allocate_shared<CStatement>(std::allocator<CStatement>(), str, *_db);
        if (!statement->is_prepared()) return stmt_ptr_t();
        _cache.add_raw(str, statement);
        return statement;
    }
}

}  // namespace toolkit::trend
