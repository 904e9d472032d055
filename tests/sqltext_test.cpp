#include "sqltext.h"

#include <gtest/gtest.h>

#include "expect.h"

using namespace toolkit::trend;

namespace {

// A parameter that keeps the named aggregates, "min max avg actual sum".
CParamProperties param(int64_t index, const std::string& kept,
                       sample_type_t type = SAMPLE_TYPE_VALUE)
{
    const auto has = [&](const char* name) { return kept.find(name) != std::string::npos; };
    CParamProperties made;
    made._index = index;
    made._type = type;
    made._has_min = has("min");
    made._has_max = has("max");
    made._has_avg = has("avg");
    made._has_actual = has("actual");
    made._has_sum = has("sum");
    return made;
}

constexpr bool TEMP = true;

}  // namespace

TEST(create_trend_table_text, has_only_the_fixed_columns_without_parameters)
{
    EXPECT_EQ(
        "CREATE TABLE trends_4_15 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL "
        "NOT NULL)",
        create_trend_table_text(4, 15, {}, !TEMP));
}

TEST(create_trend_table_text, has_a_real_column_for_everything_that_is_kept)
{
    EXPECT_EQ(
        "CREATE TABLE trends_4_15 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL "
        "NOT NULL, param_1_min REAL, param_1_avg REAL, param_2_sum REAL)",
        create_trend_table_text(4, 15, {param(1, "min avg"), param(2, "sum")}, !TEMP));
}

TEST(create_trend_table_text, names_a_temporary_table)
{
    EXPECT_EQ(
        "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT "
        "NULL, param_7_actual REAL)",
        create_trend_table_text(4, 15, {param(7, "actual")}, TEMP));
}

TEST(insert_sample_text, has_one_placeholder_per_column)
{
    EXPECT_EQ(
        "INSERT INTO trends_4_1 (time, percent_valid, param_1_min, param_1_max, "
        "param_2_sum) VALUES (?,?,?,?,?)",
        insert_sample_text(4, 1, {param(1, "min max"), param(2, "sum")}));
}

TEST(insert_sample_text, follows_the_order_of_the_parameters)
{
    EXPECT_EQ(
        "INSERT INTO trends_4_1 (time, percent_valid, param_9_actual, param_2_avg) VALUES "
        "(?,?,?,?)",
        insert_sample_text(4, 1, {param(9, "actual"), param(5, ""), param(2, "avg")}));
}

TEST(insert_sample_text, carries_the_largest_numbers_whole)
{
    EXPECT_EQ(
        "INSERT INTO trends_9223372036854775807_4294967295 (time, percent_valid, "
        "param_9223372036854775807_min, param_9223372036854775807_max, "
        "param_9223372036854775807_avg, param_9223372036854775807_actual, "
        "param_9223372036854775807_sum) VALUES (?,?,?,?,?,?,?)",
        insert_sample_text(INT64_MAX, 4294967295UL, {param(INT64_MAX, "min max avg actual sum")}));
}

TEST(roll_up_text, takes_each_aggregate_by_its_own_function)
{
    EXPECT_EQ(
        "INSERT INTO trends_4_15 SELECT max(time), avg(percent_valid), min(param_1_min), "
        "max(param_1_max), pctavg(param_1_avg, percent_valid), param_1_actual, "
        "sum(param_1_sum) FROM (SELECT * FROM trends_4_1 WHERE time >= ? LIMIT 15 OFFSET ?)",
        roll_up_text(4, 1, 15, 15, {param(1, "min max avg actual sum")}));
}

TEST(roll_up_text, takes_power_factors_by_theirs)
{
    EXPECT_EQ(
        "INSERT INTO trends_4_1440 SELECT max(time), avg(percent_valid), pfmin(param_2_min), "
        "pfmax(param_2_max), pfpctavg(param_2_avg, percent_valid), param_2_actual, "
        "sum(param_2_sum) FROM (SELECT * FROM trends_4_15 WHERE time >= ? LIMIT 96 OFFSET ?)",
        roll_up_text(4, 15, 1440, 96, {param(2, "min max avg actual sum", SAMPLE_TYPE_PF)}));
}

TEST(roll_up_text, stops_at_a_parameter_without_identifier)
{
    EXPECT_STOPS(roll_up_text(4, 1, 15, 15, {param(-1, "min")}), "params[i]._index>=0");
}

TEST(copy_rows_text, copies_every_column_without_an_old_list)
{
    EXPECT_EQ(
        "INSERT INTO tmp_table SELECT time, percent_valid, param_1_min, param_1_sum FROM "
        "trends_4_15",
        copy_rows_text(4, 15, {param(1, "min sum")}, {}));
}

TEST(copy_rows_text, fills_new_columns_with_null)
{
    EXPECT_EQ(
        "INSERT INTO tmp_table SELECT time, percent_valid, param_1_min, NULL, param_2_avg "
        "FROM trends_4_15",
        copy_rows_text(4, 15, {param(1, "min max"), param(2, "avg")},
                       {param(1, "min actual"), param(2, "avg sum")}));
}

TEST(copy_rows_text, stops_at_lists_that_do_not_match)
{
    EXPECT_STOPS(copy_rows_text(4, 15, {param(1, "min")}, {param(2, "min")}),
                 "old_params[i]._index==params[i]._index");
}

TEST(read_text, joins_the_periods_with_the_same_head_and_filter)
{
    EXPECT_EQ(
        "SELECT ?, time, percent_valid, param_3_min, param_3_max, param_3_avg, "
        "param_7_actual FROM trends_2_15 WHERE 1 AND time >= ? AND time <= ? AND (time < ? "
        "OR ? < 0) UNION ALL SELECT ?, time, percent_valid, param_3_min, param_3_max, "
        "param_3_avg, param_7_actual FROM trends_2_60 WHERE 1 AND time >= ? AND time <= ? "
        "AND (time < ? OR ? < 0) ORDER BY time ASC LIMIT ? OFFSET ?",
        read_text(2, {{15, 10}, {60, 10}}, {param(3, "min max avg"), param(7, "actual")},
                  {1000, 2000}, true, true, true));
}

TEST(read_text, leaves_out_what_is_not_asked_for)
{
    EXPECT_EQ(
        "SELECT ?, time, percent_valid, param_3_sum FROM trends_2_15 WHERE 1 ORDER BY time "
        "DESC LIMIT ?",
        read_text(2, {{15, 10}}, {param(3, "sum")}, {-1, -1}, false, false, false));
}

TEST(read_text, filters_by_the_bounds_that_are_given)
{
    const std::string head = "SELECT ?, time, percent_valid FROM trends_2_15";
    EXPECT_EQ(head + " WHERE 1 AND time >= ? ORDER BY time ASC LIMIT ?",
              read_text(2, {{15, 10}}, {}, {0, -1}, false, true, false));
    EXPECT_EQ(head + " WHERE 1 AND time <= ? ORDER BY time ASC LIMIT ?",
              read_text(2, {{15, 10}}, {}, {-1, 0}, false, true, false));
    EXPECT_EQ(head + " WHERE 1 AND (time < ? OR ? < 0) ORDER BY time ASC LIMIT ?",
              read_text(2, {{15, 10}}, {}, {-1, -1}, true, true, false));
}

TEST(merge_sample_text, inserts_or_changes_the_named_columns)
{
    EXPECT_EQ(
        "INSERT INTO trends_4_1 (time, percent_valid, param_1_min, param_1_max, param_2_sum) "
        "VALUES (?,?,?,?,?) ON CONFLICT (time) DO UPDATE SET percent_valid = "
        "excluded.percent_valid, param_1_min = excluded.param_1_min, param_1_max = "
        "excluded.param_1_max, param_2_sum = excluded.param_2_sum",
        merge_sample_text(4, 1, {param(1, "min max"), param(2, "sum")}));
}

TEST(rolled_up_text, computes_what_the_roll_up_inserts)
{
    const std::vector<CParamProperties> params = {param(1, "min max avg actual sum"),
                                                  param(2, "min avg actual", SAMPLE_TYPE_PF)};
    const std::string roll_up = roll_up_text(4, 1, 15, 15, params);
    const size_t select = roll_up.find("SELECT");
    EXPECT_EQ(roll_up.substr(select, roll_up.find(" FROM (") - select) +
                  " FROM trends_4_1 WHERE time > ? AND time <= ?",
              rolled_up_text(4, 1, params));
}

TEST(wrong_types_text, counts_in_each_column)
{
    EXPECT_EQ(
        "SELECT sum(typeof(param_1_min) NOT IN ('real', 'null')), sum(typeof(param_2_sum) NOT IN "
        "('real', 'null')) FROM trends_4_15",
        wrong_types_text("trends_4_15", {"param_1_min", "param_2_sum"}));
}

TEST(scan_text, reads_times_alone_or_whole_rows)
{
    EXPECT_EQ("SELECT time FROM trends_2_15 WHERE time > ? ORDER BY time",
              scan_text(2, 15, nullptr));
    const std::vector<CParamProperties> params = {param(3, "min avg"), param(7, "sum")};
    EXPECT_EQ(
        "SELECT time, percent_valid, param_3_min, param_3_avg, param_7_sum FROM trends_2_15 "
        "WHERE time > ? ORDER BY time",
        scan_text(2, 15, &params));
}

TEST(coverage_text, asks_for_any_value_in_groups_that_sqlite_takes)
{
    EXPECT_EQ(
        "SELECT time, percent_valid, 0 OR coalesce(NULL, param_3_min, param_3_avg) IS NOT "
        "NULL FROM trends_2_15 WHERE time >= ? AND time <= ? ORDER BY time",
        coverage_text(2, 15, {param(3, "min avg")}));
    EXPECT_EQ(
        "SELECT time, percent_valid, 0 FROM trends_2_15 WHERE time >= ? AND time <= ? ORDER "
        "BY time",
        coverage_text(2, 15, {}));

    std::vector<CParamProperties> params(91, param(3, "min"));
    const std::string text = coverage_text(2, 15, params);
    EXPECT_NE(std::string::npos, text.find(", param_3_min) IS NOT NULL OR coalesce(NULL, "
                                           "param_3_min) IS NOT NULL FROM"));
}

TEST(clear_text, carries_the_bounds_as_numbers)
{
    EXPECT_EQ("DELETE FROM trends_4_15 WHERE time >= 1000 AND time <= 2000",
              clear_text(4, 15, {1000, 2000}));
    EXPECT_EQ("DELETE FROM trends_4_15 WHERE time >= 0", clear_text(4, 15, {0, -1}));
    EXPECT_EQ("DELETE FROM trends_4_15 WHERE time <= 2000", clear_text(4, 15, {-1, 2000}));
    EXPECT_EQ("DELETE FROM trends_4_15", clear_text(4, 15, {-1, -1}));
}

TEST(clear_text, carries_the_largest_time_whole)
{
    const time_t largest = std::numeric_limits<time_t>::max();
    EXPECT_EQ("DELETE FROM trends_9223372036854775807_4294967295 WHERE time >= " +
                  std::to_string(largest),
              clear_text(INT64_MAX, 4294967295UL, {largest, -1}));
}
