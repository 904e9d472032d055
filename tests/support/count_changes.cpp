#include "count_changes.h"

#include <sqlite3.h>

#include <stdexcept>

void count_changes::before_step(sqlite3_stmt* stmt)
{
    if (_done || std::string(sqlite3_sql(stmt)).rfind(_from, 0) != 0) return;
    _done = true;

    const unwatched own;
    sqlite3* const db = sqlite3_db_handle(stmt);
    if (sqlite3_exec(db, "PRAGMA count_changes = 1", nullptr, nullptr, nullptr) != SQLITE_OK)
        throw std::runtime_error(sqlite3_errmsg(db));
}
