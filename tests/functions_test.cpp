// The aggregate SQL functions: what they give, how they are registered, and what stops them.

#include "functions.h"

#include <dlfcn.h>
#include <sqlite3.h>

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "allocations.h"
#include "expect.h"
#include "sqlite_memory.h"

namespace {

using step_t = void (*)(sqlite3_context*, int, sqlite3_value**);
using final_t = void (*)(sqlite3_context*);

// The arguments of one call of sqlite3_create_function().
struct registration {
    std::string _name;
    int _nargs;
    int _encoding;
    void* _user_data;
    bool _scalar;
    step_t _step;
    final_t _final;
};

// What the functions below, which stand before SQLite's own, have seen and are to do.
std::vector<registration> registrations;
std::vector<int> accumulator_sizes;
int accumulators_until_failure = 0;  // 0 for no failure
std::optional<double> read_as_nan;

// SQLite's own function of that name.
template <typename Function>
Function* real(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) std::abort();
    Function* function = nullptr;
    std::memcpy(&function, &symbol, sizeof function);
    return function;
}

}  // namespace

extern "C" int sqlite3_create_function(sqlite3* db, const char* name, int nargs, int encoding,
                                       void* data, step_t scalar, step_t step, final_t final)
{
    static const auto create = real<decltype(sqlite3_create_function)>("sqlite3_create_function");
    registrations.push_back({name, nargs, encoding, data, scalar != nullptr, step, final});
    return create(db, name, nargs, encoding, data, scalar, step, final);
}

extern "C" void* sqlite3_aggregate_context(sqlite3_context* ctx, int size)
{
    static const auto context =
        real<decltype(sqlite3_aggregate_context)>("sqlite3_aggregate_context");
    accumulator_sizes.push_back(size);
    if (accumulators_until_failure != 0 && --accumulators_until_failure == 0) return nullptr;
    return context(ctx, size);
}

extern "C" double sqlite3_value_double(sqlite3_value* value)
{
    static const auto read = real<decltype(sqlite3_value_double)>("sqlite3_value_double");
    const double number = read(value);
    return number == read_as_nan ? std::numeric_limits<double>::quiet_NaN() : number;
}

namespace {

using stmt_t = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

// A connection of a host's own, without the functions yet.
class raw_connection : public testing::Test {
protected:
    raw_connection()
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(":memory:", &_db));
        registrations.clear();  // SQLite has some of its own
    }

    ~raw_connection() override { EXPECT_EQ(SQLITE_OK, sqlite3_close(_db)); }

    stmt_t prepare(const std::string& sql)
    {
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(_db, sql.c_str(), -1, &stmt, nullptr))
            << sql << ": " << sqlite3_errmsg(_db);
        return {stmt, sqlite3_finalize};
    }

    void run(const std::string& sql)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, nullptr))
            << sql << ": " << sqlite3_errmsg(_db);
    }

    // SQLite's message about a text that it refuses to prepare.
    std::string refusal(const std::string& sql)
    {
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(SQLITE_ERROR, sqlite3_prepare_v2(_db, sql.c_str(), -1, &stmt, nullptr)) << sql;
        return sqlite3_errmsg(_db);
    }

    static std::optional<double> column(const stmt_t& stmt, int col)
    {
        if (sqlite3_column_type(stmt.get(), col) == SQLITE_NULL) return std::nullopt;
        EXPECT_EQ(SQLITE_FLOAT, sqlite3_column_type(stmt.get(), col));
        return sqlite3_column_double(stmt.get(), col);
    }

    // What the one row of a query holds in its one column: a REAL or NULL.
    std::optional<double> ask(const std::string& sql, std::initializer_list<double> bound = {})
    {
        const stmt_t stmt = prepare(sql);
        int idx = 0;
        for (const double number : bound)
            EXPECT_EQ(SQLITE_OK, sqlite3_bind_double(stmt.get(), ++idx, number));
        EXPECT_EQ(SQLITE_ROW, sqlite3_step(stmt.get())) << sql << ": " << sqlite3_errmsg(_db);
        const std::optional<double> out = column(stmt, 0);
        EXPECT_EQ(SQLITE_DONE, sqlite3_step(stmt.get())) << sql;
        return out;
    }

    sqlite3* _db = nullptr;
};

// A connection with the functions on it.
class functions : public raw_connection {
protected:
    functions() { EXPECT_EQ(0, register_custom_functions(_db)); }

    // A function of one argument over rows such as "(0.9), (NULL)".
    std::optional<double> over(const std::string& function, const std::string& rows)
    {
        return ask("SELECT " + function + "(column1) FROM (VALUES " + rows + ")");
    }

    // A function of value and weight over rows such as "(10, 100), (NULL, 50)".
    std::optional<double> weighted(const std::string& function, const std::string& rows)
    {
        return ask("SELECT " + function + "(column1, column2) FROM (VALUES " + rows + ")");
    }
};

using pfmin = functions;
using pfmax = functions;
using pfavg = functions;
using pfpctavg = functions;
using pctavg = functions;
using no_memory = functions;

}  // namespace

// pctavg -----------------------------------------------------------------------------------------

TEST_F(pctavg, weighs_each_value)
{
    // (10 * 100 + 20 * 50) / (100 + 50); no value in the third row, no weight in the fourth
    EXPECT_EQ(2000.0 / 150.0, weighted("pctavg", "(10, 100), (20, 50), (NULL, 100), (30, 0)"));
}

TEST_F(pctavg, of_one_value_is_that_value) { EXPECT_EQ(-12.5, weighted("pctavg", "(-12.5, 64)")); }

TEST_F(pctavg, averages_any_value_unclamped)
{
    EXPECT_EQ(-1000.0, weighted("pctavg", "(-3000, 50), (1000, 50)"));
    EXPECT_EQ(1e15, weighted("pctavg", "(1e15, 1)"));
}

TEST_F(pctavg, takes_integers_and_reals_and_gives_a_real)
{
    EXPECT_EQ(3.0, weighted("pctavg", "(2, 50), (4.0, 50.0)"));
    EXPECT_EQ(3.0, weighted("pctavg", "(2.0, 50), (4, 50.0)"));
}

TEST_F(pctavg, takes_a_weight_above_100_as_100)
{
    EXPECT_EQ(15.0, weighted("pctavg", "(10, 250), (20, 100)"));
    EXPECT_EQ(15.0, weighted("pctavg", "(10, 100.0001), (20, 9e999)"));
}

TEST_F(pctavg, takes_a_negative_weight_as_0)
{
    EXPECT_EQ(20.0, weighted("pctavg", "(10, -5), (20, 40)"));
    EXPECT_EQ(20.0, weighted("pctavg", "(10, -9e999), (20, 40)"));
}

TEST_F(pctavg, without_weight_is_null)
{
    EXPECT_EQ(std::nullopt, weighted("pctavg", "(10, 0), (20, 0.0)"));
    EXPECT_EQ(std::nullopt, weighted("pctavg", "(10, -1), (20, -100)"));
}

TEST_F(pctavg, lets_the_smallest_weight_count)
{
    EXPECT_EQ(8.0, weighted("pctavg", "(8, 1e-300), (9, 0)"));
}

TEST_F(pctavg, without_rows_is_null)
{
    EXPECT_EQ(std::nullopt, ask("SELECT pctavg(1, 1) WHERE 0"));
}

TEST_F(pctavg, of_nothing_but_null_is_null)
{
    EXPECT_EQ(std::nullopt, weighted("pctavg", "(NULL, 100), (NULL, 50)"));
}

TEST_F(pctavg, does_not_look_at_the_weight_of_a_null)
{
    EXPECT_EQ(5.0, weighted("pctavg", "(NULL, NULL), (NULL, 'text'), (5, 10)"));
}

TEST_F(pctavg, of_an_infinite_value_is_infinite)
{
    EXPECT_EQ(HUGE_VAL, weighted("pctavg", "(9e999, 10), (5, 100)"));
    EXPECT_EQ(-HUGE_VAL, weighted("pctavg", "(5, 100), (-9e999, 10), (6, 100)"));
}

TEST_F(pctavg, of_opposite_infinities_is_null)
{
    EXPECT_EQ(std::nullopt, weighted("pctavg", "(9e999, 10), (-9e999, 10), (5, 100)"));
}

TEST_F(pctavg, passes_over_an_infinite_value_without_weight)
{
    EXPECT_EQ(5.0, weighted("pctavg", "(9e999, 0), (5, 100), (-9e999, 0)"));
    EXPECT_EQ(5.0, weighted("pctavg", "(9e999, -1), (5, 100)"));
    EXPECT_EQ(std::nullopt, weighted("pctavg", "(9e999, 0), (-9e999, 0), (1, 0)"));
}

TEST_F(pctavg, rounds_product_and_sum_at_once)
{
    // With e = 2^-30: (1 + e) * (1 + e) - (1 + 2e) is e^2, but 0 when the product is rounded first,
    // because e^2 is less than its last bit. The weights add up to 2 + e.
    const double e = std::ldexp(1.0, -30);
    EXPECT_EQ(e * e / (2.0 + e), ask("SELECT pctavg(column1, column2) FROM (VALUES (?, 1), (?, ?))",
                                     {-(1.0 + 2.0 * e), 1.0 + e, 1.0 + e}));
}

// The scale of power factors ---------------------------------------------------------------------

TEST_F(pfmin, finds_the_value_farthest_before_unity)
{
    EXPECT_EQ(0.9, over("pfmin", "(0.9), (-0.9)"));
    EXPECT_EQ(0.25, over("pfmin", "(0.5), (0.25), (0.75)"));
    EXPECT_EQ(0.75, over("pfmin", "(-0.5), (0.75), (-0.25)"));
    EXPECT_EQ(0.0, over("pfmin", "(1), (0), (-0.5)"));
}

TEST_F(pfmin, of_negative_values_is_the_one_nearest_to_unity)
{
    EXPECT_EQ(-0.875, over("pfmin", "(-0.125), (-0.875), (-0.5)"));
}

TEST_F(pfmax, finds_the_value_farthest_behind_unity)
{
    // 0.9 stands at 0.9 and -0.9 at 1.1, which is a rounded number.
    EXPECT_DOUBLE_EQ(-0.9, over("pfmax", "(0.9), (-0.9)").value());
    EXPECT_EQ(-0.25, over("pfmax", "(-0.5), (0.75), (-0.25)"));
    EXPECT_EQ(-0.25, over("pfmax", "(0.9), (-0.25), (1)"));
}

TEST_F(pfmax, of_positive_values_is_the_one_nearest_to_unity)
{
    EXPECT_EQ(0.75, over("pfmax", "(0.5), (0.75), (0.25)"));
}

TEST_F(functions, extremes_of_one_power_factor_are_that_power_factor)
{
    for (const char* function : {"pfmin", "pfmax"})
        for (const double x : {0.0, 0.1, 0.25, 0.9, 1.0, -0.25, -0.5, -0.9999999999999998, 1e-300})
            EXPECT_EQ(x, ask(std::string("SELECT ") + function + "(?)", {x})) << function;
}

TEST_F(functions, unity_is_plus_1_and_never_minus_1)
{
    for (const char* function : {"pfmin", "pfmax", "pfavg"}) {
        EXPECT_EQ(1.0, over(function, "(1.0), (-1.0)")) << function;
        EXPECT_EQ(1.0, over(function, "(-1.0)")) << function;
        EXPECT_EQ(1.0, over(function, "(-1), (-1)")) << function;
    }
    EXPECT_EQ(1.0, weighted("pfpctavg", "(-1, 50)"));
}

TEST_F(functions, power_factors_beyond_unity_count_as_unity)
{
    for (const char* function : {"pfmin", "pfmax", "pfavg"})
        for (const char* rows : {"(1.7)", "(-1.7)", "(9e999)", "(-9e999)", "(1.0000000000000002)"})
            EXPECT_EQ(1.0, over(function, rows)) << function << rows;
    EXPECT_EQ(1.0, weighted("pfpctavg", "(1.7, 10), (-9e999, 20)"));
}

TEST_F(functions, power_factors_that_do_not_compare_count_as_unity)
{
    read_as_nan = 0.5;
    for (const char* function : {"pfmin", "pfmax", "pfavg"})
        EXPECT_EQ(1.0, over(function, "(0.5)")) << function;
    EXPECT_EQ(1.0, weighted("pfpctavg", "(0.5, 10)"));
    read_as_nan.reset();
}

TEST_F(functions, negative_power_factors_too_small_for_the_scale_become_0)
{
    // -1e-20 stands at 2, the very end.
    EXPECT_EQ(0.0, over("pfmax", "(-1e-20)"));
    EXPECT_EQ(0.0, over("pfavg", "(-1e-20), (-1e-20), (-1e-20)"));
    EXPECT_EQ(0.0, weighted("pfpctavg", "(-1e-20, 33.3), (-1e-20, 0.1), (-1e-20, 7)"));
    EXPECT_EQ(0.9, over("pfmin", "(-1e-20), (0.9)"));
}

TEST_F(pfavg, averages_across_unity)
{
    EXPECT_EQ(1.0, over("pfavg", "(0.9), (-0.9)"));
    EXPECT_EQ(1.0, over("pfavg", "(0.2), (-0.2)"));
    EXPECT_EQ(-0.875, over("pfavg", "(0.75), (-0.5)"));  // (0.75 + 1.5) / 2 = 1.125
    EXPECT_EQ(0.875, over("pfavg", "(0.5), (-0.75)"));   // (0.5 + 1.25) / 2
}

TEST_F(pfavg, averages_on_either_side_of_unity)
{
    EXPECT_EQ(0.375, over("pfavg", "(0.5), (0.25)"));
    EXPECT_EQ(-0.375, over("pfavg", "(-0.5), (-0.25)"));  // (1.5 + 1.75) / 2 = 1.625
    EXPECT_EQ(-0.25, over("pfavg", "(-0.25)"));
}

TEST_F(functions, power_factors_may_be_integers)
{
    EXPECT_EQ(0.0, over("pfmin", "(0), (1)"));
    EXPECT_EQ(1.0, over("pfmax", "(0), (1)"));
    EXPECT_EQ(0.5, over("pfavg", "(0), (1), (7), (0)"));
    EXPECT_EQ(0.25, weighted("pfpctavg", "(0, 75), (1, 25)"));
}

TEST_F(functions, power_factors_that_are_null_do_not_count)
{
    EXPECT_EQ(0.5, over("pfmin", "(NULL), (0.5), (NULL), (0.75)"));
    EXPECT_EQ(0.75, over("pfmax", "(NULL), (0.5), (NULL), (0.75)"));
    EXPECT_EQ(0.625, over("pfavg", "(NULL), (0.5), (NULL), (0.75)"));
    EXPECT_EQ(0.5, weighted("pfpctavg", "(NULL, 100), (0.5, 10), (NULL, NULL), (NULL, x'00')"));
}

TEST_F(functions, power_factors_of_no_row_are_null)
{
    for (const char* call : {"pfmin(1)", "pfmax(1)", "pfavg(1)", "pfpctavg(1, 1)"})
        EXPECT_EQ(std::nullopt, ask(std::string("SELECT ") + call + " WHERE 0")) << call;
}

TEST_F(functions, power_factors_of_nothing_but_null_are_null)
{
    for (const char* function : {"pfmin", "pfmax", "pfavg"})
        EXPECT_EQ(std::nullopt, over(function, "(NULL), (NULL)")) << function;
    EXPECT_EQ(std::nullopt, weighted("pfpctavg", "(NULL, 100), (NULL, 0)"));
}

// pfpctavg ---------------------------------------------------------------------------------------

TEST_F(pfpctavg, weighs_each_power_factor)
{
    // (0.9 * 100 + 1.1 * 50) / 150
    EXPECT_DOUBLE_EQ(145.0 / 150.0, weighted("pfpctavg", "(0.9, 100), (-0.9, 50)").value());
    // (0.5 * 25 + 1.5 * 75) / 100 = 1.25
    EXPECT_EQ(-0.75, weighted("pfpctavg", "(0.5, 25), (-0.5, 75)"));
}

TEST_F(pfpctavg, clamps_weights_to_a_percentage)
{
    EXPECT_EQ(0.5, weighted("pfpctavg", "(0.25, 300), (0.75, 100)"));
    EXPECT_EQ(0.5, weighted("pfpctavg", "(0.25, 9e999), (0.75, 100)"));
    EXPECT_EQ(0.75, weighted("pfpctavg", "(0.25, -1), (0.75, 10)"));
    EXPECT_EQ(0.75, weighted("pfpctavg", "(0.25, -9e999), (0.75, 10)"));
}

TEST_F(pfpctavg, without_weight_is_null)
{
    EXPECT_EQ(std::nullopt, weighted("pfpctavg", "(0.5, 0), (-0.5, -3), (NULL, 100)"));
}

TEST_F(pfpctavg, leaves_out_what_has_no_weight)
{
    EXPECT_EQ(0.5, weighted("pfpctavg", "(0.25, 0), (0.5, 20), (9e999, 0)"));
}

TEST_F(pfpctavg, rounds_product_and_sum_at_once)
{
    // With e = 2^-30: -(1 - e) stands at 1 + e, and (1 + e) * (1 + e) = 1 + 2e + e^2. The first row
    // has brought 2^-53, half of the last bit, so the e^2 decides that the sum is rounded up, to
    // 1 + 2e + 2^-52; a product rounded first would lose it and the sum would be 1 + 2e. The
    // weights add up to 1 + e, and the quotients are 1 + e + 2^-52 and 1 + e.
    const double e = std::ldexp(1.0, -30);
    EXPECT_EQ(e + std::ldexp(1.0, -52) - 1.0,
              ask("SELECT pfpctavg(column1, column2) FROM (VALUES (1, ?), (?, ?))",
                  {std::ldexp(1.0, -53), -(1.0 - e), 1.0 + e}));
}

// In queries -------------------------------------------------------------------------------------

TEST_F(functions, work_group_by_group)
{
    run("CREATE TABLE t(k, x, pct); INSERT INTO t VALUES"
        " (1, 0.5, 100), (2, NULL, 100), (1, -0.5, 100), (3, 0.25, 0), (2, 0.75, 50), (4, NULL, "
        "9)");
    const stmt_t stmt = prepare(
        "SELECT pfmin(x), pfmax(x), pfavg(x), pfpctavg(x, pct), pctavg(x, pct) FROM t"
        " GROUP BY k ORDER BY k");
    const auto none = std::nullopt;
    const std::optional<double> expected[4][5] = {{0.5, -0.5, 1.0, 1.0, 0.0},
                                                  {0.75, 0.75, 0.75, 0.75, 0.75},
                                                  {0.25, 0.25, 0.25, none, none},
                                                  {none, none, none, none, none}};
    for (const auto& group : expected) {
        ASSERT_EQ(SQLITE_ROW, sqlite3_step(stmt.get()));
        for (int col = 0; col < 5; ++col)
            EXPECT_EQ(group[col], column(stmt, col)) << col;
    }
    EXPECT_EQ(SQLITE_DONE, sqlite3_step(stmt.get()));
}

TEST_F(functions, keep_calls_of_one_query_apart)
{
    const stmt_t stmt = prepare(
        "SELECT pctavg(column1, 100), pctavg(column1, column2), pfavg(column1), pfavg(column2)"
        " FROM (VALUES (0.5, 0.25), (0.25, 0.75))");
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(stmt.get()));
    EXPECT_EQ(0.375, column(stmt, 0));
    EXPECT_EQ(0.3125, column(stmt, 1));  // (0.125 + 0.1875) / 1
    EXPECT_EQ(0.375, column(stmt, 2));
    EXPECT_EQ(0.5, column(stmt, 3));
}

TEST_F(functions, start_anew_with_each_execution)
{
    const stmt_t stmt = prepare("SELECT pctavg(column1, ?) FROM (VALUES (2), (4))");
    for (int turn = 0; turn < 3; ++turn) {
        sqlite3_bind_double(stmt.get(), 1, 50.0);
        ASSERT_EQ(SQLITE_ROW, sqlite3_step(stmt.get()));
        EXPECT_EQ(3.0, column(stmt, 0)) << turn;
        sqlite3_reset(stmt.get());
    }
}

TEST_F(functions, fold_in_many_rows)
{
    const std::string rows =
        " FROM (WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < 100000)"
        " SELECT i FROM n)";
    EXPECT_EQ(50000.5, ask("SELECT pctavg(i, 1)" + rows));
    // Half of the rows at 0.75 and half at 1.5 make 1.125.
    EXPECT_EQ(-0.875, ask("SELECT pfavg(CASE WHEN i % 2 THEN 0.75 ELSE -0.5 END)" + rows));
    EXPECT_EQ(-0.875, ask("SELECT pfpctavg(CASE WHEN i % 2 THEN 0.75 ELSE -0.5 END, 3)" + rows));
    EXPECT_EQ(0.00001, ask("SELECT pfmin(i / 100000.0)" + rows));
    EXPECT_EQ(-0.0625, ask("SELECT pfmax(-i / 16.0)" + rows));
}

TEST_F(functions, are_aggregates_only)
{
    for (const char* call : {"pfmin(1)", "pfmax(1)", "pfavg(1)", "pfpctavg(1, 1)", "pctavg(1, 1)"})
        EXPECT_THAT(refusal(std::string("SELECT 1 WHERE ") + call + " > 0"),
                    testing::StartsWith("misuse of aggregate"));
}

TEST_F(functions, take_no_other_number_of_arguments)
{
    for (const char* name : {"pfmin", "pfmax", "pfavg", "pfpctavg", "pctavg"}) {
        const bool two = std::strstr(name, "pct") != nullptr;
        for (const char* arguments : {"()", two ? "(1)" : "(1, 2)", "(1, 2, 3)"})
            EXPECT_EQ(std::string("wrong number of arguments to function ") + name + "()",
                      refusal(std::string("SELECT ") + name + arguments));
    }
}

TEST_F(raw_connection, gives_the_functions_whatever_its_text_encoding)
{
    run("PRAGMA encoding = 'UTF-16le'; CREATE TABLE t(x); INSERT INTO t VALUES (0.5), (-0.25)");
    EXPECT_QUIET(register_custom_functions(_db), 0);
    EXPECT_EQ(-0.25, ask("SELECT pfmax(x) FROM t"));
    EXPECT_EQ(0.125, ask("SELECT pctavg(x, 100) FROM t"));
}

TEST_F(functions, allocate_nothing_of_their_own)
{
    const stmt_t stmt = prepare(
        "SELECT pfmin(column1), pfmax(column1), pfavg(column1), pfpctavg(column1, 50),"
        " pctavg(column1, 50) FROM (VALUES (0.5), (0.25), (-0.5))");
    accumulator_sizes.reserve(1000);
    EXPECT_EQ(0u, allocations::in([&] { EXPECT_EQ(SQLITE_ROW, sqlite3_step(stmt.get())); }));
}

// Registration -----------------------------------------------------------------------------------

TEST_F(functions, are_registered_in_their_order_as_five_aggregates)
{
    const char* const names[] = {"pfmin", "pfmax", "pfavg", "pfpctavg", "pctavg"};
    const int nargs[] = {1, 1, 1, 2, 2};
    ASSERT_EQ(5u, registrations.size());
    for (size_t i = 0; i < 5; ++i) {
        const registration& one = registrations[i];
        EXPECT_EQ(names[i], one._name);
        EXPECT_EQ(nargs[i], one._nargs) << one._name;
        EXPECT_EQ(SQLITE_ANY, one._encoding) << one._name;
        EXPECT_FALSE(one._scalar) << one._name;
    }
}

TEST_F(functions, carry_the_number_of_their_kind)
{
    ASSERT_EQ(5u, registrations.size());
    for (unsigned int i = 0; i < 5; ++i) {
        unsigned int kind = 99;
        ASSERT_NE(nullptr, registrations[i]._user_data);
        std::memcpy(&kind, registrations[i]._user_data, sizeof kind);
        EXPECT_EQ(i, kind) << registrations[i]._name;
    }
}

TEST_F(functions, share_the_callbacks_of_power_factors)
{
    ASSERT_EQ(5u, registrations.size());
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(registrations[0]._step, registrations[i]._step) << registrations[i]._name;
        EXPECT_EQ(registrations[0]._final, registrations[i]._final) << registrations[i]._name;
    }
    EXPECT_NE(registrations[0]._step, registrations[4]._step);
    EXPECT_NE(registrations[0]._final, registrations[4]._final);
}

TEST_F(functions, carry_constants_that_all_connections_share)
{
    ASSERT_EQ(5u, registrations.size());
    const std::vector<registration> first = registrations;
    registrations.clear();
    EXPECT_QUIET(register_custom_functions(_db), 0);  // again on the same one will do
    ASSERT_EQ(5u, registrations.size());
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(first[i]._user_data, registrations[i]._user_data);
}

TEST_F(raw_connection, must_be_there)
{
    EXPECT_STOPS(register_custom_functions(nullptr), "pdb!=((void *)0)");
}

namespace {

void other_step(sqlite3_context*, int, sqlite3_value**) {}
void other_final(sqlite3_context* ctx) { sqlite3_result_double(ctx, 77.0); }

struct obstacle {
    const char* _name;
    int _nargs;
    size_t _position;
};

class registration_failure : public raw_connection, public testing::WithParamInterface<obstacle> {};

std::string name_of(const testing::TestParamInfo<obstacle>& info) { return info.param._name; }

}  // namespace

// SQLite replaces no function while a statement runs, so a function of the same name stands in the
// way; those that have no such obstacle can be created all the same.
TEST_P(registration_failure, is_reported_and_stops_there)
{
    const obstacle& other = GetParam();
    ASSERT_EQ(SQLITE_OK, sqlite3_create_function(_db, other._name, other._nargs, SQLITE_UTF8,
                                                 nullptr, nullptr, other_step, other_final));
    stmt_t running = prepare("VALUES (1), (2)");
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(running.get()));
    registrations.clear();

    EXPECT_REPORTS(register_custom_functions(_db), -1,
                   std::string("Error: create_function(") + other._name + ") failed\n");

    EXPECT_EQ(other._position + 1, registrations.size()) << "later ones are not tried";
    running.reset();
    const char* const calls[] = {"pfmin(0.5)", "pfmax(0.5)", "pfavg(0.5)", "pfpctavg(0.5, 1)",
                                 "pctavg(0.5, 1)"};
    for (size_t i = 0; i < 5; ++i) {
        const std::string sql = std::string("SELECT ") + calls[i];
        if (i < other._position)
            EXPECT_EQ(0.5, ask(sql)) << "registered before";
        else if (i == other._position)
            EXPECT_EQ(77.0, ask(sql)) << "the other function is still there";
        else
            EXPECT_THAT(refusal(sql), testing::StartsWith("no such function: "));
    }
}

INSTANTIATE_TEST_SUITE_P(of, registration_failure,
                         testing::Values(obstacle{"pfmin", 1, 0}, obstacle{"pfmax", 1, 1},
                                         obstacle{"pfavg", 1, 2}, obstacle{"pfpctavg", 2, 3},
                                         obstacle{"pctavg", 2, 4}),
                         name_of);

// Out of memory ----------------------------------------------------------------------------------

TEST_F(functions, keep_two_doubles_for_each_group)
{
    for (const char* call :
         {"pfmin(column1)", "pfavg(column1)", "pfpctavg(column1, 100)", "pctavg(column1, 100)"}) {
        accumulator_sizes.clear();
        EXPECT_EQ(0.5, ask(std::string("SELECT ") + call + " FROM (VALUES (0.5), (0.5))"));
        const int size = 2 * static_cast<int>(sizeof(double));
        EXPECT_EQ(accumulator_sizes, (std::vector<int>{size, size, size}))
            << "two rows, one result";
    }
}

TEST_F(no_memory, for_a_row_leaves_the_row_out)
{
    const auto ask_without_first = [&](const std::string& call) {
        accumulators_until_failure = 1;
        return ask("SELECT " + call + " FROM (VALUES (0.25), (0.5), (0.75))");
    };
    EXPECT_EQ(0.5, ask_without_first("pfmin(column1)"));
    EXPECT_EQ(0.625, ask_without_first("pfavg(column1)"));
    EXPECT_EQ(0.625, ask_without_first("pfpctavg(column1, 10)"));
    EXPECT_EQ(0.625, ask_without_first("pctavg(column1, 10)"));
}

TEST_F(no_memory, for_the_result_is_an_error_of_the_statement)
{
    for (const char* call : {"pfmin(1)", "pfmax(1)", "pfavg(1)", "pfpctavg(1, 1)", "pctavg(1, 1)"})
        for (const bool empty : {true, false}) {
            const std::string sql = std::string("SELECT ") + call + (empty ? " WHERE 0" : "");
            const stmt_t stmt = prepare(sql);
            accumulators_until_failure = empty ? 1 : 2;  // a row asks for one as well
            EXPECT_EQ(SQLITE_NOMEM, sqlite3_step(stmt.get())) << sql;
            EXPECT_STREQ("out of memory", sqlite3_errmsg(_db)) << sql;
        }
}

TEST(memory_running_out, during_a_query_gives_an_error_or_the_right_result)
{
    const char* const sql =
        "SELECT column1 % 2 AS k, pctavg(column1, 50), pfavg(column1), pfmin(column1)"
        " FROM (VALUES (1), (2), (3), (4)) GROUP BY k ORDER BY k DESC";
    sqlite_memory memory;
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(":memory:", &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_db_config(db, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0));
    ASSERT_EQ(0, register_custom_functions(db));

    int result = SQLITE_NOMEM;
    int n = 1;
    for (; result != SQLITE_ROW; ++n) {
        ASSERT_LT(n, 1000) << "the query should succeed at last";
        sqlite3_stmt* stmt = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr));
        memory.fail_at(n);
        result = sqlite3_step(stmt);
        memory.fail_at(0);
        if (result == SQLITE_ROW)
            EXPECT_EQ(2.0, sqlite3_column_double(stmt, 1)) << "of 1 and 3";
        else
            EXPECT_EQ(SQLITE_NOMEM, result) << n;
        sqlite3_finalize(stmt);
    }
    EXPECT_GT(n, 2);
    EXPECT_EQ(SQLITE_OK, sqlite3_close(db));
}

// Assertions -------------------------------------------------------------------------------------

// The statement stops the process in this function of functions.cpp, at this condition.
#define EXPECT_STOPS_IN(function, statement, condition)                         \
    EXPECT_EXIT(static_cast<void>(statement), testing::KilledBySignal(SIGABRT), \
                testing::AllOf(testing::HasSubstr("source/functions.cpp:"),     \
                               testing::HasSubstr(function "("), StopsAt(condition)))

namespace {

constexpr const char* first_is_a_number =
    "sqlite3_value_type(args[0])==1 || sqlite3_value_type(args[0])==2";
constexpr const char* second_is_a_number =
    "sqlite3_value_type(args[1])==1 || sqlite3_value_type(args[1])==2";

// The callback that misuse() calls behind its back.
step_t misused_step = nullptr;

// SQL misuse(count, val, ...): puts these two into the accumulator and passes on the rest.
void misuse(sqlite3_context* ctx, int nargs, sqlite3_value** args)
{
    auto* const accumulator =
        static_cast<double*>(sqlite3_aggregate_context(ctx, 2 * int(sizeof(double))));
    accumulator[0] = sqlite3_value_double(args[0]);
    accumulator[1] = sqlite3_value_double(args[1]);
    if (misused_step != nullptr) misused_step(ctx, nargs - 2, args + 2);
}

// A connection on which the library's callbacks can be called in ways that its own functions rule
// out: with other argument counts, other user data and other accumulators.
class misused_callbacks : public functions {
protected:
    enum kind_t : size_t { PFMIN, PFMAX, PFAVG, PFPCTAVG, PCTAVG };

    misused_callbacks() : _own(registrations) {}

    step_t step_of(kind_t kind) const { return _own.at(kind)._step; }
    final_t final_of(kind_t kind) const { return _own.at(kind)._final; }
    void* data_of(kind_t kind) const { return _own.at(kind)._user_data; }

    // SQL odd(...), of any number of arguments.
    void create_odd(step_t step, final_t final, void* data)
    {
        ASSERT_EQ(SQLITE_OK,
                  sqlite3_create_function(_db, "odd", -1, SQLITE_UTF8, data, nullptr, step, final));
    }

    // SQL odd(count, val, ...), which goes on with the step and final of that kind.
    void create_misuse(kind_t kind, bool with_step)
    {
        misused_step = with_step ? step_of(kind) : nullptr;
        create_odd(misuse, final_of(kind), data_of(kind));
    }

private:
    const std::vector<registration> _own;
};

}  // namespace

TEST_F(misused_callbacks, pf_xstep_wants_numbers)
{
    for (const char* function : {"pfmin", "pfmax", "pfavg"})
        for (const char* rows : {"('0.5')", "(x'30')", "('')"})
            EXPECT_STOPS_IN("pf_xstep", over(function, rows), first_is_a_number);
    EXPECT_STOPS_IN("pf_xstep", weighted("pfpctavg", "('0.5', 100)"), first_is_a_number);
}

TEST_F(misused_callbacks, pf_xstep_wants_a_weight)
{
    for (const char* rows : {"(0.5, NULL)", "(0.5, '100')", "(0.5, x'30')"})
        EXPECT_STOPS_IN("pf_xstep", weighted("pfpctavg", rows), second_is_a_number);
}

TEST_F(misused_callbacks, pct_xstep_wants_numbers)
{
    for (const char* rows : {"('5', 100)", "(x'30', 100)"})
        EXPECT_STOPS_IN("pct_xstep", weighted("pctavg", rows), first_is_a_number);
}

TEST_F(misused_callbacks, pct_xstep_wants_a_weight)
{
    for (const char* rows : {"(5, NULL)", "(5, '100')", "(5, x'30')"})
        EXPECT_STOPS_IN("pct_xstep", weighted("pctavg", rows), second_is_a_number);
}

TEST_F(misused_callbacks, want_a_context)
{
    const char* condition = "ctx!=((void *)0)";
    EXPECT_STOPS_IN("pf_xstep", step_of(PFMIN)(nullptr, 1, nullptr), condition);
    EXPECT_STOPS_IN("pf_xfinal", final_of(PFMIN)(nullptr), condition);
    EXPECT_STOPS_IN("pct_xstep", step_of(PCTAVG)(nullptr, 2, nullptr), condition);
    EXPECT_STOPS_IN("pct_xfinal", final_of(PCTAVG)(nullptr), condition);
}

TEST_F(misused_callbacks, want_user_data)
{
    const char* condition = "func_type!=((void *)0)";
    create_odd(step_of(PFMIN), final_of(PFMIN), nullptr);
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(0.5)"), condition);
    EXPECT_STOPS_IN("pf_xfinal", ask("SELECT odd(0.5) WHERE 0"), condition);

    create_odd(step_of(PCTAVG), final_of(PCTAVG), nullptr);
    EXPECT_STOPS_IN("pct_xstep", ask("SELECT odd(5, 100)"), condition);
    EXPECT_STOPS_IN("pct_xfinal", ask("SELECT odd(5, 100) WHERE 0"), condition);
}

TEST_F(misused_callbacks, pf_xstep_wants_one_argument_or_two)
{
    create_odd(step_of(PFPCTAVG), final_of(PFPCTAVG), data_of(PFPCTAVG));
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd()"), "nargs>=1");
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(0.5, 100, 1)"), "nargs==2");
    EXPECT_EQ(0.5, ask("SELECT odd(0.5, 100)"));
}

TEST_F(misused_callbacks, pf_xstep_wants_the_weighted_kind_for_two_arguments)
{
    for (const kind_t kind : {PFMIN, PFMAX, PFAVG, PCTAVG}) {
        create_odd(step_of(PFMIN), final_of(PFMIN), data_of(kind));
        EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(0.5, 100)"), "*func_type==AGGREGATE_PFPCTAVG");
    }
}

TEST_F(misused_callbacks, pf_xstep_knows_no_other_kind)
{
    create_odd(step_of(PFMIN), final_of(PFMIN), data_of(PCTAVG));
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(0.5)"), "*func_type==AGGREGATE_PFPCTAVG");
}

TEST_F(misused_callbacks, pct_xstep_wants_two_arguments)
{
    create_odd(step_of(PCTAVG), final_of(PCTAVG), data_of(PCTAVG));
    for (const char* sql : {"SELECT odd()", "SELECT odd(5)", "SELECT odd(5, 100, 1)"})
        EXPECT_STOPS_IN("pct_xstep", ask(sql), "nargs==2");
}

TEST_F(misused_callbacks, pct_ones_want_their_own_kind)
{
    const char* condition = "*func_type==AGGREGATE_PCTAVG";
    for (const kind_t kind : {PFMIN, PFPCTAVG}) {
        create_odd(step_of(PCTAVG), final_of(PCTAVG), data_of(kind));
        EXPECT_STOPS_IN("pct_xstep", ask("SELECT odd(5, 100)"), condition);
        EXPECT_STOPS_IN("pct_xfinal", ask("SELECT odd(5, 100) WHERE 0"), condition);
    }
}

TEST_F(misused_callbacks, pf_xstep_wants_an_accumulator_in_order)
{
    create_misuse(PFAVG, true);
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(0, 1, 0.5)"), "accum->val==0.0");
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(1, -1, 0.5)"), "accum->val>=0.0");
    EXPECT_STOPS_IN("pf_xstep", ask("SELECT odd(1, -1, NULL)"), "accum->val>=0.0");
    EXPECT_EQ(0.75, ask("SELECT odd(1, 1, 0.5)"));
}

TEST_F(misused_callbacks, pf_xfinal_wants_an_accumulator_in_order)
{
    create_misuse(PFMAX, false);
    EXPECT_STOPS_IN("pf_xfinal", ask("SELECT odd(-1, 0)"), "accum->count>=0.0");
    EXPECT_STOPS_IN("pf_xfinal", ask("SELECT odd(1, -0.5)"), "accum->val>=0.0");
    EXPECT_STOPS_IN("pf_xfinal", ask("SELECT odd(2, 2.5)"), "accum->val<=2.0");
    EXPECT_EQ(-0.5, ask("SELECT odd(3, 1.5)")) << "an extreme is not divided";
}

TEST_F(misused_callbacks, pf_xfinal_judges_the_average)
{
    for (const kind_t kind : {PFAVG, PFPCTAVG}) {
        create_misuse(kind, false);
        EXPECT_STOPS_IN("pf_xfinal", ask("SELECT odd(2, 4.5)"), "accum->val<=2.0");
        EXPECT_EQ(-0.5, ask("SELECT odd(3, 4.5)"));
    }
}

TEST_F(misused_callbacks, pct_xstep_wants_an_accumulator_in_order)
{
    create_misuse(PCTAVG, true);
    EXPECT_STOPS_IN("pct_xstep", ask("SELECT odd(-1, 0, 5, 100)"), "accum->count>=0.0");
    EXPECT_STOPS_IN("pct_xstep", ask("SELECT odd(0, 1, 5, 100)"), "accum->val==0.0");
    EXPECT_STOPS_IN("pct_xstep", ask("SELECT odd(0, 1, NULL, 100)"), "accum->val==0.0");
    EXPECT_EQ(2.0, ask("SELECT odd(1, -1, 5, 1)")) << "a negative sum is in order";
}

TEST_F(misused_callbacks, pct_xfinal_wants_an_accumulator_in_order)
{
    create_misuse(PCTAVG, false);
    EXPECT_STOPS_IN("pct_xfinal", ask("SELECT odd(-1, 0)"), "accum->count>=0.0");
    EXPECT_EQ(-25.0, ask("SELECT odd(2, -50)"));
}
