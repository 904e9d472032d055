#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <random>
#include <string>

#include "functions.h"
#include "sqlite_memory.h"

namespace {

// A connection to a database in memory: one with the module's functions, one with the library's.
class connection {
public:
    connection() { EXPECT_EQ(SQLITE_OK, sqlite3_open(":memory:", &_db)); }
    ~connection() { sqlite3_close(_db); }

    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    void load_module()
    {
        ASSERT_EQ(SQLITE_OK,
                  sqlite3_db_config(_db, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 1, nullptr));
        char* message = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_load_extension(_db, TREND_MODULE, nullptr, &message))
            << message;
        sqlite3_free(message);
    }

    void register_functions() { ASSERT_EQ(0, register_custom_functions(_db)); }

    // The message with which SQLite refuses to load the module.
    std::string refusal_of_module()
    {
        sqlite3_db_config(_db, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 1, nullptr);
        char* message = nullptr;
        EXPECT_EQ(SQLITE_ERROR, sqlite3_load_extension(_db, TREND_MODULE, nullptr, &message));
        const std::string text = message == nullptr ? "" : message;
        sqlite3_free(message);
        return text;
    }

    sqlite3* handle() { return _db; }

    void exec(const std::string& sql)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, nullptr))
            << sqlite3_errmsg(_db);
    }

    // The first column of all rows: reals with every bit, NULL as such, or the error's text.
    std::string query(const std::string& sql)
    {
        sqlite3_stmt* stmt = nullptr;
        std::string result;
        int state = sqlite3_prepare_v2(_db, sql.c_str(), -1, &stmt, nullptr);
        while (state == SQLITE_OK || state == SQLITE_ROW) {
            state = sqlite3_step(stmt);
            if (state == SQLITE_ROW) result += (result.empty() ? "" : " ") + column(stmt);
        }
        if (state != SQLITE_DONE) result = sqlite3_errmsg(_db);
        sqlite3_finalize(stmt);
        return result;
    }

private:
    static std::string column(sqlite3_stmt* stmt)
    {
        if (sqlite3_column_type(stmt, 0) == SQLITE_NULL) return "NULL";
        EXPECT_EQ(SQLITE_FLOAT, sqlite3_column_type(stmt, 0));
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", sqlite3_column_double(stmt, 0));
        return text;
    }

    sqlite3* _db = nullptr;
};

class sqlite_module : public testing::Test {
protected:
    void SetUp() override { _sql.load_module(); }

    // An aggregate over rows that are given as SQL values, "(10, 100), (20, 50)".
    std::string over(const std::string& call, const std::string& values)
    {
        return _sql.query("WITH t(x, w) AS (VALUES " + values + ") SELECT " + call + " FROM t");
    }

    connection _sql;
};

}  // namespace

TEST_F(sqlite_module, weighs_an_average_by_percentages)
{
    // 10 * 100 + 20 * 50 = 2000 over 150; NULL is skipped, a weight of 0 adds nothing.
    EXPECT_EQ("13.333333333333334",
              over("pctavg(x, w)", "(10, 100), (20, 50), (NULL, 100), (30, 0)"));
}

TEST_F(sqlite_module, clamps_weights_to_percentages)
{
    // 250 counts as 100 and -5 as 0: (1 * 100 + 4 * 50) / 150.
    EXPECT_EQ("2", over("pctavg(x, w)", "(1, 250), (4, 50), (9, -5)"));
    EXPECT_EQ("0.25", over("pfpctavg(x, w)", "(0, 250), (0.5, 100), (0.75, -5)"));
}

TEST_F(sqlite_module, runs_power_factors_through_unity)
{
    const std::string values = "(0.75, 100), (-0.5, 50), (NULL, 100)";
    EXPECT_EQ("0.75", over("pfmin(x)", values));
    EXPECT_EQ("-0.5", over("pfmax(x)", values));
    // 0.75 and 1.5 on the scale: 1.125 in the middle; (75 + 75) / 150 with weights.
    EXPECT_EQ("-0.875", over("pfavg(x)", values));
    EXPECT_EQ("1", over("pfpctavg(x, w)", values));
}

TEST_F(sqlite_module, clamps_power_factors_and_reports_unity_as_positive)
{
    EXPECT_EQ("1", over("pfmin(x)", "(1.7, 0)"));
    EXPECT_EQ("1", over("pfmax(x)", "(-1.7, 0)"));
    EXPECT_EQ("1", over("pfavg(x)", "(0.25, 0), (-0.25, 0)"));
}

TEST_F(sqlite_module, gives_null_when_nothing_was_accumulated)
{
    for (const char* call :
         {"pfmin(x)", "pfmax(x)", "pfavg(x)", "pfpctavg(x, w)", "pctavg(x, w)"}) {
        EXPECT_EQ("NULL", over(call, "(NULL, 100), (NULL, NULL)")) << call;
        EXPECT_EQ("NULL", _sql.query(std::string("SELECT ") + call +
                                     " FROM (SELECT 1 AS x, 1 AS w WHERE 0)"))
            << call;
    }
    EXPECT_EQ("NULL", over("pctavg(x, w)", "(1, 0), (2, -3)"));
    EXPECT_EQ("NULL", over("pfpctavg(x, w)", "(1, 0), (0.5, -3)"));
}

TEST_F(sqlite_module, takes_infinite_values_without_complaint)
{
    EXPECT_EQ("inf", over("pctavg(x, w)", "(9e999, 50), (1, 50)"));
    EXPECT_EQ("1", over("pctavg(x, w)", "(9e999, 0), (1, 50)"));
    EXPECT_EQ("NULL", over("pctavg(x, w)", "(9e999, 50), (-9e999, 50)"));
    EXPECT_EQ("1", over("pfavg(x)", "(9e999, 0), (-9e999, 0)"));
}

TEST_F(sqlite_module, refuses_values_that_are_no_numbers)
{
    for (const char* value : {"'0.5'", "''", "x'00'"}) {
        const std::string values = std::string("(0.5, 1), (") + value + ", 1)";
        EXPECT_EQ("pfmin: the value must be a number or NULL", over("pfmin(x)", values));
        EXPECT_EQ("pfmax: the value must be a number or NULL", over("pfmax(x)", values));
        EXPECT_EQ("pfavg: the value must be a number or NULL", over("pfavg(x)", values));
        EXPECT_EQ("pfpctavg: the value must be a number or NULL", over("pfpctavg(x, w)", values));
        EXPECT_EQ("pctavg: the value must be a number or NULL", over("pctavg(x, w)", values));
    }
}

TEST_F(sqlite_module, refuses_weights_that_are_no_numbers)
{
    for (const char* weight : {"NULL", "'100'", "x'00'"}) {
        const std::string values = std::string("(0.5, 1), (0.5, ") + weight + ")";
        EXPECT_EQ("pfpctavg: the weight must be a number", over("pfpctavg(x, w)", values));
        EXPECT_EQ("pctavg: the weight must be a number", over("pctavg(x, w)", values));
    }
}

TEST_F(sqlite_module, refuses_a_wrong_number_of_arguments)
{
    EXPECT_EQ("wrong number of arguments to function pfmin()", _sql.query("SELECT pfmin(1, 2)"));
    EXPECT_EQ("wrong number of arguments to function pfmax()", _sql.query("SELECT pfmax()"));
    EXPECT_EQ("wrong number of arguments to function pfavg()", _sql.query("SELECT pfavg(1, 2)"));
    EXPECT_EQ("wrong number of arguments to function pfpctavg()", _sql.query("SELECT pfpctavg(1)"));
    EXPECT_EQ("wrong number of arguments to function pctavg()",
              _sql.query("SELECT pctavg(1, 2, 3)"));
}

TEST_F(sqlite_module, works_on_after_an_error)
{
    EXPECT_EQ("pfavg: the value must be a number or NULL", _sql.query("SELECT pfavg('')"));
    EXPECT_EQ("0.5", _sql.query("SELECT pfavg(0.5)"));
}

namespace {

void other_step(sqlite3_context*, int, sqlite3_value**) {}
void other_final(sqlite3_context* ctx) { sqlite3_result_double(ctx, 77.0); }

// What the query says at last when each request for memory has failed in turn, and before that
// nothing but that there is none.
std::string after_every_failure(const std::string& sql)
{
    sqlite_memory memory;
    connection db;
    sqlite3_db_config(db.handle(), SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0);
    db.load_module();
    db.query(sql);  // SQLite reads the schema once
    std::string result = "out of memory";
    int n = 0;
    while (result == "out of memory" && ++n < 1000) {
        memory.fail_at(n);
        result = db.query(sql);
        memory.fail_at(0);
    }
    EXPECT_GT(n, 5) << "memory has been asked for";
    return result;
}

}  // namespace

TEST(sqlite_module_without_memory, says_so_or_gives_the_right_result)
{
    EXPECT_EQ("0.5", after_every_failure("SELECT pfmin(0.5)"));
    EXPECT_EQ("25", after_every_failure("SELECT pctavg(25, 50)"));
}

TEST(sqlite_module_without_memory, for_an_error_says_so)
{
    EXPECT_EQ("pfmax: the value must be a number or NULL",
              after_every_failure("SELECT pfmax('high')"));
}

// SQLite replaces no function while a statement runs.
TEST(sqlite_module_beside_another_function, is_not_loaded)
{
    for (const char* name : {"pfmin", "pfavg"}) {
        connection sql;
        ASSERT_EQ(SQLITE_OK, sqlite3_create_function(sql.handle(), name, 1, SQLITE_UTF8, nullptr,
                                                     nullptr, other_step, other_final));
        sqlite3_stmt* running = nullptr;
        ASSERT_EQ(SQLITE_OK,
                  sqlite3_prepare_v2(sql.handle(), "VALUES (1), (2)", -1, &running, nullptr));
        ASSERT_EQ(SQLITE_ROW, sqlite3_step(running));
        EXPECT_EQ(std::string("error during initialization: can't create function ") + name,
                  sql.refusal_of_module());
        sqlite3_finalize(running);
        EXPECT_EQ("77", sql.query(std::string("SELECT ") + name + "(0.5)"));
    }
}

TEST_F(sqlite_module, serves_views_of_an_untrusted_file)
{
    _sql.exec("PRAGMA trusted_schema = OFF");
    _sql.exec("CREATE VIEW v AS SELECT pfavg(column1) FROM (VALUES (0.5), (-0.5))");
    EXPECT_EQ("1", _sql.query("SELECT * FROM v"));
}

TEST_F(sqlite_module, agrees_with_the_library_to_the_last_bit)
{
    connection library;
    library.register_functions();

    std::mt19937 random(20);
    std::uniform_real_distribution<double> value(-1.25, 1.25);
    std::uniform_real_distribution<double> weight(-10.0, 120.0);
    std::string rows;
    for (int row = 0; row < 500; ++row) {
        const std::string x = row % 7 == 0 ? "NULL" : std::to_string(value(random));
        rows += (row == 0 ? "(" : ", (") + std::to_string(row % 20) + ", " + x + ", " +
                std::to_string(weight(random)) + ")";
    }
    for (connection* sql : {&library, &_sql}) {
        sql->exec("CREATE TABLE t (g, x, w)");
        sql->exec("INSERT INTO t VALUES " + rows);
    }
    for (const char* call :
         {"pfmin(x)", "pfmax(x)", "pfavg(x)", "pfpctavg(x, w)", "pctavg(x, w)"}) {
        const std::string sql = std::string("SELECT ") + call + " FROM t GROUP BY g ORDER BY g";
        EXPECT_EQ(library.query(sql), _sql.query(sql)) << call;
        EXPECT_GT(_sql.query(sql).size(), 20u) << call;
    }
}
