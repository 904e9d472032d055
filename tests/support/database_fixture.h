#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "database.h"
#include "expect.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "sqlite_watch.h"

// A text without its blanks: compilers set them differently in a signature.
inline std::string dense(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

MATCHER_P2(StopsIn, function, condition,
           "a line that names " + std::string(function) + " and " + std::string(condition))
{
    return names_condition(arg, condition) &&
           dense(arg).find(":" + dense(function) + ":") != std::string::npos;
}

// The statement stops the process with this condition in this function, named by its signature.
#define EXPECT_STOPS_IN(statement, function, condition)                         \
    EXPECT_EXIT(static_cast<void>(statement), testing::KilledBySignal(SIGABRT), \
                StopsIn(function, condition))

// Runs statements on a raw connection and gives the values of the last row, "1|a". Throws when
// SQLite fails.
inline std::string run_raw(sqlite3* db, const std::string& sql)
{
    const unwatched inside;
    std::string row;
    const auto take_row = [](void* out, int count, char** values, char**) {
        std::string& line = *static_cast<std::string*>(out);
        line.clear();
        for (int i = 0; i < count; ++i) {
            if (i > 0) line += '|';
            line += values[i] == nullptr ? "NULL" : values[i];
        }
        return 0;
    };
    if (sqlite3_exec(db, sql.c_str(), take_row, &row, nullptr) != SQLITE_OK)
        throw std::runtime_error(sql + ": " + sqlite3_errmsg(db));
    return row;
}

// A test of an open connection on a fresh file in WAL mode.
class database_fixture : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(open(), 0); }

    int open(const open_args& args = {}) { return open(_file, args); }

    int open(const std::string& file, const open_args& args = {})
    {
        return _db.open(file, args._pool_capacity, args._read_only, args._create,
                        args._temp_in_memory, args._page_size, args._cache_bytes, args._heap_limit,
                        args._wal);
    }

    // Past the library, on its connection: what a host may do with the raw handle.
    std::string raw(const std::string& sql) { return run_raw(*_db, sql); }
    bool in_transaction() { return sqlite3_get_autocommit(*_db) == 0; }

    // What is committed, seen through another connection.
    std::string rows(const std::string& sql) const { return ::rows(_file, sql); }

    const std::string _file = "trend.db";  // in the test's own folder
    toolkit::trend::CDatabase _db;
};
