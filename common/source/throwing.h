#pragma once

#include <cstddef>
#include <cstdint>

#include "database.h"

namespace toolkit::trend {

// What CDatabase and CStatement do, without the handler that theirs have: what is thrown when
// memory runs out passes through. For the operations of a log, each of which answers that once and
// under its own name. They want an open connection and a prepared statement.
struct CThrowing {
    static int open(CDatabase& db, const tk_string& name, size_t pool_capacity, bool read_only,
                    bool create, bool temp_in_memory, size_t page_size, size_t cache_bytes,
                    size_t heap_limit, bool wal);
    static stmt_ptr_t stmt(CDatabase& db, const tk_string& str, bool fresh);
    static int exec(CDatabase& db, const tk_string& str, bool fresh, bool row_ok);
    static int get_intval(CDatabase& db, const tk_string& sql, int64_t& out, bool fresh,
                          bool null_ok);
    static int update_cache_size(CDatabase& db, size_t bytes);

    static int column(const CStatement& stmt, size_t col, tk_string& out, bool null_ok);
    static sqlite3_stmt* handle(const CStatement& stmt) { return stmt._stmt; }
};

}  // namespace toolkit::trend
