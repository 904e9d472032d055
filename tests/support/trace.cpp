#include "trace.h"

#include <sqlite3.h>

#include <algorithm>

int statement_trace::times_prepared(const std::string& sql) const
{
    return static_cast<int>(std::count(_prepared.begin(), _prepared.end(), sql));
}

int statement_trace::times_run(const std::string& sql) const
{
    return static_cast<int>(std::count(_texts.begin(), _texts.end(), sql));
}

void statement_trace::clear()
{
    _texts.clear();
    _expanded.clear();
    _texts_and_resets.clear();
    _prepared.clear();
}

bool statement_trace::denies(const std::string& sql)
{
    _prepared.push_back(sql);
    return false;
}

void statement_trace::before_reset(sqlite3_stmt* stmt)
{
    _texts_and_resets.push_back("reset " + std::string(sqlite3_sql(stmt)));
}

void statement_trace::before_step(sqlite3_stmt* stmt)
{
    // Between two rows the statement is busy.
    if (sqlite3_stmt_busy(stmt) != 0 || stmt == _busy) return;

    _texts.emplace_back(sqlite3_sql(stmt));
    _texts_and_resets.emplace_back(sqlite3_sql(stmt));
    char* const expanded = sqlite3_expanded_sql(stmt);
    _expanded.emplace_back(expanded == nullptr ? "" : expanded);
    sqlite3_free(expanded);
}

void statement_trace::after_step(sqlite3_stmt* stmt, int result)
{
    _busy = result == SQLITE_BUSY ? stmt : nullptr;
}

texts_t rolled_back_after(const std::string& sql)
{
    return {"BEGIN", "reset BEGIN", sql, "reset " + sql, "ROLLBACK", "reset ROLLBACK"};
}
