// Periods: adding, changing and removing them, with the tables of every device.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "trace.h"
#include "trend_api.h"
#include "widths.h"

namespace {

using namespace toolkit::trend;

using log_add_period = log_fixture;
using log_modify_period = log_fixture;
using log_remove_period = log_fixture;
using log_create_trend_tables_of_period = log_fixture;
using log_remove_trend_tables_of_period = log_fixture;

const std::string ADD =
    "int toolkit::trend::CLog::add_period(const toolkit::trend::CPeriodProperties&)";
const std::string MODIFY =
    "int toolkit::trend::CLog::modify_period(const toolkit::trend::CPeriodProperties&)";
const std::string REMOVE =
    "int toolkit::trend::CLog::remove_period(const toolkit::trend::CPeriodProperties&)";

const char* const PERIODS = "SELECT * FROM periods ORDER BY period";
const char* const TREND_TABLES =
    "SELECT name FROM sqlite_master WHERE name LIKE 'trends%' ORDER BY name";

#if TREND_WIDE_SIZES
const auto TWO_TO_THE_32 = static_cast<unsigned long long>(1) << 32;
const auto LONG_BEYOND = static_cast<unsigned long>(TWO_TO_THE_32);
const auto SIZE_BEYOND = static_cast<size_t>(TWO_TO_THE_32);
#endif

// The refusals that all three operations share, in the order in which they are looked for: nothing
// is run for them.
#define EXPECT_REFUSES_BEFORE_ANY_STATEMENT(operation, period, signature, why) \
    do {                                                                       \
        const std::string before_here = dump();                                \
        const statement_trace trace_here;                                      \
        EXPECT_REPORTS(_log.operation(period), -1, signature + why);           \
        EXPECT_EQ(trace_here.texts(), texts_t{});                              \
        EXPECT_EQ(dump(), before_here);                                        \
    } while (false)

// add_period -----------------------------------------------------------------------------------

TEST_F(log_add_period, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.add_period(CPeriodProperties(0, 0)), -1, ADD + ": Error: DB not open\n");
}

TEST_F(log_add_period, refuses_a_length_of_zero_before_it_looks_at_the_rows)
{
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(add_period, CPeriodProperties(0, 0), ADD,
                                        ": Error: invalid period\n");
}

TEST_F(log_add_period, refuses_a_period_without_rows)
{
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(add_period, CPeriodProperties(15, 0), ADD,
                                        ": Error: invalid max_entries\n");
}

#if TREND_WIDE_SIZES
TEST_F(log_add_period, refuses_a_length_beyond_32_bits)
{
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(add_period, CPeriodProperties(LONG_BEYOND, 100), ADD,
                                        ": Error: invalid period\n");
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(add_period, CPeriodProperties(LONG_BEYOND + 15, 100), ADD,
                                        ": Error: invalid period\n");
}

TEST_F(log_add_period, refuses_rows_beyond_32_bits)
{
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(add_period, CPeriodProperties(15, SIZE_BEYOND), ADD,
                                        ": Error: invalid max_entries\n");
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(add_period, CPeriodProperties(15, SIZE_BEYOND + 100), ADD,
                                        ": Error: invalid max_entries\n");
}
#endif

TEST_F(log_add_period, takes_the_largest_numbers_of_32_bits)
{
    EXPECT_QUIET(_log.add_period(CPeriodProperties(4294967295UL, 4294967295UL)), 0);
    EXPECT_EQ(rows(PERIODS), "4294967295|4294967295");

    std::vector<CPeriodProperties> periods;
    ASSERT_EQ(_log.get_periods(periods), 0);
    ASSERT_EQ(periods.size(), 1U);
    EXPECT_EQ(periods[0]._period, 4294967295UL);
    EXPECT_EQ(periods[0]._max_entries, 4294967295UL);
}

TEST_F(log_add_period, stores_minutes_and_rows)
{
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 96)), 0);
    EXPECT_QUIET(_log.add_period(CPeriodProperties(1, 60)), 0);
    EXPECT_EQ(rows("SELECT period, max_entries, typeof(period), typeof(max_entries) FROM periods"),
              "1|60|integer|integer\n15|96|integer|integer");
}

TEST_F(log_add_period, creates_the_table_of_every_device)
{
    add_device("pump");
    add_device("fan");
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(rows(TREND_TABLES), "trends_1_15\ntrends_2_15");
}

TEST_F(log_add_period, gives_each_table_the_columns_of_its_device)
{
    add_period(1, 100);
    add_device("pump", {param("u", "min avg"), param("i", "sum")});
    add_device("fan", {pf("cosphi", "actual")});
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name LIKE 'trends_%_15' ORDER BY name"),
              "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
              "percent_valid REAL NOT NULL, param_1_min REAL, param_1_avg REAL, param_2_sum REAL)\n"
              "CREATE TABLE trends_2_15 (time INTEGER PRIMARY KEY NOT NULL, "
              "percent_valid REAL NOT NULL, param_1_actual REAL)");
}

TEST_F(log_add_period, runs_its_statements_in_one_transaction)
{
    add_period(1, 100);
    add_device("pump");
    add_device("fan");
    statement_trace trace;
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 96)), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "INSERT INTO periods VALUES (?,?)", "SELECT * FROM devices",
                       "SELECT * FROM params_1 ORDER BY idx ASC",
                       "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL)",
                       "SELECT * FROM params_2 ORDER BY idx ASC",
                       "CREATE TABLE trends_2_15 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL)",
                       "COMMIT"}));
    EXPECT_EQ(trace.expanded()[1], "INSERT INTO periods VALUES (15,96)");
}

TEST_F(log_add_period, prepares_afresh_what_changes_the_file)
{
    add_period(1, 100);
    add_device("pump");
    const statement_trace trace;
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 96)), 0);
    EXPECT_EQ(trace.prepared(), (texts_t{"INSERT INTO periods VALUES (?,?)",
                                         "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT "
                                         "NULL, percent_valid REAL NOT NULL)"}));
}

TEST_F(log_add_period, refuses_one_that_exists_and_leaves_no_new_table)
{
    add_period(15, 100);
    add_device("pump");
    run_sql(_file, "DROP TABLE trends_1_15");
    const std::string before = dump();

    EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 200)), -1,
                   step_and_reset_report(1555, "UNIQUE constraint failed: periods.period"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_period, rolls_everything_back_when_a_table_is_there_already)
{
    add_device("pump");
    add_device("fan");
    run_sql(_file, "CREATE TABLE trends_2_15 (time)");
    const std::string before = dump();

    EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 100)), -1,
                   prepare_report("table trends_2_15 already exists"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_period, resets_before_it_rolls_back)
{
    add_period(15, 100);
    const statement_trace trace;
    capture_stderr([&] { EXPECT_EQ(_log.add_period(CPeriodProperties(15, 200)), -1); });
    EXPECT_EQ(trace.texts_and_resets(), rolled_back_after("INSERT INTO periods VALUES (?,?)"));
}

TEST_F(log_add_period, fails_when_the_devices_cannot_all_be_read)
{
    add_device("pump");
    add_device("fan");
    const std::string before = dump();
    const interrupt_step second_device("SELECT * FROM devices", 2);

    EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 100)), -1,
                   step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_device.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_period, fails_when_the_parameters_cannot_all_be_read)
{
    add_period(1, 100);
    add_device("pump", {param("u", "avg"), param("i", "avg")});
    const std::string before = dump();
    const interrupt_step second_param("SELECT * FROM params_1 ORDER BY idx ASC", 2);

    EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 100)), -1,
                   step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_param.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_period, is_part_of_the_callers_transaction)
{
    add_device("pump");
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    const statement_trace trace;
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(trace.times_run("BEGIN") + trace.times_run("COMMIT"), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_period, allows_any_length_and_leaves_the_ratio_to_recording)
{
    EXPECT_QUIET(_log.add_period(CPeriodProperties(10, 100)), 0);
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(rows(PERIODS), "10|100\n15|100");
}

TEST_F(log_add_period, starts_empty_and_is_filled_by_the_next_rows)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    for (time_t time = 60; time <= 120; time += 60)
        record(pump, time, {10.0});

    EXPECT_QUIET(_log.add_period(CPeriodProperties(3, 100)), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_3"), "");

    record(pump, 180, {40.0});  // the third minute: (10 + 10 + 40) / 3
    EXPECT_EQ(rows("SELECT time, param_1_avg FROM trends_1_3"), "180|20.0");
}

// modify_period --------------------------------------------------------------------------------

TEST_F(log_modify_period, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.modify_period(CPeriodProperties(0, 0)), -1,
                   MODIFY + ": Error: DB not open\n");
}

TEST_F(log_modify_period, refuses_a_length_of_zero_before_it_looks_at_the_rows)
{
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(modify_period, CPeriodProperties(0, 0), MODIFY,
                                        ": Error: invalid period\n");
}

TEST_F(log_modify_period, refuses_a_period_without_rows)
{
    add_period(15, 100);
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(modify_period, CPeriodProperties(15, 0), MODIFY,
                                        ": Error: invalid max_entries\n");
}

#if TREND_WIDE_SIZES
TEST_F(log_modify_period, refuses_a_length_beyond_32_bits)
{
    add_period(15, 100);
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(modify_period, CPeriodProperties(LONG_BEYOND + 15, 100),
                                        MODIFY, ": Error: invalid period\n");
}

TEST_F(log_modify_period, refuses_rows_beyond_32_bits)
{
    add_period(15, 100);
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(modify_period, CPeriodProperties(15, SIZE_BEYOND + 50),
                                        MODIFY, ": Error: invalid max_entries\n");
}
#endif

TEST_F(log_modify_period, stores_the_rows_of_this_period_only)
{
    add_periods({{1, 60}, {15, 96}});
    EXPECT_QUIET(_log.modify_period(CPeriodProperties(15, 200)), 0);
    EXPECT_EQ(rows(PERIODS), "1|60\n15|200");
}

TEST_F(log_modify_period, takes_the_largest_number_of_32_bits)
{
    add_period(15, 100);
    EXPECT_QUIET(_log.modify_period(CPeriodProperties(15, 4294967295UL)), 0);
    EXPECT_EQ(rows(PERIODS), "15|4294967295");
}

TEST_F(log_modify_period, keeps_exactly_so_many_rows_in_every_devices_table)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    const CDeviceParams fan = add_device("fan", {param("n", "avg")});
    for (time_t time = 60; time <= 300; time += 60) {
        record(pump, time, {10.0});
        record(fan, time + 600, {20.0});
    }

    EXPECT_QUIET(_log.modify_period(CPeriodProperties(1, 3)), 0);

    // No spare intervals here: each table keeps three, counted from its own newest row.
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "180\n240\n300");
    EXPECT_EQ(rows("SELECT time FROM trends_2_1"), "780\n840\n900");
}

TEST_F(log_modify_period, leaves_the_tables_of_other_periods_alone)
{
    add_periods({{1, 100}, {2, 100}});
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    for (time_t time = 60; time <= 240; time += 60)
        record(pump, time, {10.0});

    EXPECT_QUIET(_log.modify_period(CPeriodProperties(2, 1)), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_2"), "240");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "4");
}

TEST_F(log_modify_period, deletes_nothing_when_it_allows_more)
{
    add_period(1, 3);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    for (time_t time = 60; time <= 180; time += 60)
        record(pump, time, {10.0});

    EXPECT_QUIET(_log.modify_period(CPeriodProperties(1, 4)), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n120\n180");
}

TEST_F(log_modify_period, runs_its_statements_in_one_transaction)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    add_device("fan");
    for (time_t time = 60; time <= 180; time += 60)
        record(pump, time, {10.0});

    statement_trace trace;
    EXPECT_QUIET(_log.modify_period(CPeriodProperties(1, 2)), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "UPDATE periods SET max_entries = ? WHERE period = ?",
                       "SELECT * FROM devices", "SELECT max(time) FROM trends_1_1",
                       "SELECT min(time) FROM trends_1_1", "DELETE FROM trends_1_1 WHERE time <= ?",
                       "SELECT max(time) FROM trends_2_1", "COMMIT"}));
    EXPECT_EQ(trace.expanded()[1], "UPDATE periods SET max_entries = 2 WHERE period = 1");
    EXPECT_EQ(trace.expanded()[5], "DELETE FROM trends_1_1 WHERE time <= 60");
}

TEST_F(log_modify_period, prepares_afresh_what_changes_the_period)
{
    add_period(15, 100);
    capture_stderr([&] { _log.modify_period(CPeriodProperties(15, 50)); });
    const statement_trace trace;
    EXPECT_QUIET(_log.modify_period(CPeriodProperties(15, 60)), 0);
    EXPECT_EQ(trace.prepared(), (texts_t{"UPDATE periods SET max_entries = ? WHERE period = ?"}));
}

TEST_F(log_modify_period, of_an_unknown_period_without_devices_changes_nothing)
{
    add_period(1, 100);
    const std::string before = dump();
    EXPECT_QUIET(_log.modify_period(CPeriodProperties(15, 50)), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_modify_period, of_an_unknown_period_fails_at_the_first_missing_table)
{
    add_period(1, 100);
    add_device("pump");
    const std::string before = dump();

    EXPECT_REPORTS(_log.modify_period(CPeriodProperties(15, 50)), -1,
                   prepare_report("no such table: trends_1_15"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_modify_period, of_an_unknown_period_trims_the_tables_that_are_there)
{
    add_device("pump");
    ASSERT_EQ(_log.create_trend_tables(CPeriodProperties(1, 100)), 0);
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (60, 100.0), (120, 100.0), (180, 100.0)");

    EXPECT_QUIET(_log.modify_period(CPeriodProperties(1, 1)), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "180");
    EXPECT_EQ(rows(PERIODS), "");
}

TEST_F(log_modify_period, stops_at_the_first_failing_trim_and_rolls_back)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    add_device("fan");
    add_device("valve");
    for (time_t time = 60; time <= 180; time += 60)
        record(pump, time, {10.0});
    run_sql(_file, "DROP TABLE trends_2_1");
    const std::string before = dump();

    const statement_trace trace;
    EXPECT_REPORTS(_log.modify_period(CPeriodProperties(1, 1)), -1,
                   prepare_report("no such table: trends_2_1"));
    EXPECT_EQ(trace.times_run("DELETE FROM trends_1_1 WHERE time <= ?"), 1);
    EXPECT_EQ(trace.times_run("SELECT max(time) FROM trends_3_1"), 0);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_modify_period, resets_before_it_rolls_back)
{
    add_period(15, 100);
    run_sql(_file,
            "CREATE TRIGGER t BEFORE UPDATE ON periods BEGIN SELECT RAISE(ABORT, 'no'); END");
    const statement_trace trace;
    EXPECT_REPORTS(_log.modify_period(CPeriodProperties(15, 50)), -1,
                   step_and_reset_report(1811, "no"));
    EXPECT_EQ(trace.texts_and_resets(),
              rolled_back_after("UPDATE periods SET max_entries = ? WHERE period = ?"));
}

TEST_F(log_modify_period, fails_when_the_devices_cannot_all_be_read)
{
    add_period(1, 100);
    add_device("pump");
    add_device("fan");
    const std::string before = dump();
    const interrupt_step second_device("SELECT * FROM devices", 2);

    EXPECT_REPORTS(_log.modify_period(CPeriodProperties(1, 50)), -1,
                   step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_device.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// Trimming reads the newest and the oldest time. One that could not be read must neither pass for
// an empty table nor for a row at the start of time.
TEST_F(log_modify_period, fails_when_a_time_cannot_be_read)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    for (time_t time = 60; time <= 180; time += 60)
        record(pump, time, {10.0});
    const std::string before = dump();

    for (const char* const sql :
         {"SELECT max(time) FROM trends_1_1", "SELECT min(time) FROM trends_1_1"}) {
        const interrupt_step reading(sql);
        EXPECT_REPORTS(_log.modify_period(CPeriodProperties(1, 1)), -1,
                       step_and_reset_report(9, "interrupted"));
        EXPECT_TRUE(reading.struck()) << sql;
        EXPECT_EQ(dump(), before) << sql;
        EXPECT_TRUE(at_level_0()) << sql;
    }
}

// remove_period --------------------------------------------------------------------------------

TEST_F(log_remove_period, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.remove_period(CPeriodProperties(0, 0)), -1,
                   REMOVE + ": Error: DB not open\n");
}

TEST_F(log_remove_period, refuses_a_length_of_zero_before_it_looks_at_the_rows)
{
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(remove_period, CPeriodProperties(0, 0), REMOVE,
                                        ": Error: invalid period\n");
}

TEST_F(log_remove_period, wants_rows_although_they_are_not_used)
{
    add_period(15, 100);
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(remove_period, CPeriodProperties(15, 0), REMOVE,
                                        ": Error: invalid max_entries\n");
}

#if TREND_WIDE_SIZES
TEST_F(log_remove_period, refuses_a_length_beyond_32_bits)
{
    add_period(15, 100);
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(remove_period, CPeriodProperties(LONG_BEYOND + 15, 100),
                                        REMOVE, ": Error: invalid period\n");
}

TEST_F(log_remove_period, refuses_rows_beyond_32_bits)
{
    add_period(15, 100);
    EXPECT_REFUSES_BEFORE_ANY_STATEMENT(remove_period, CPeriodProperties(15, SIZE_BEYOND), REMOVE,
                                        ": Error: invalid max_entries\n");
}
#endif

TEST_F(log_remove_period, deletes_the_period_and_the_table_of_every_device)
{
    add_periods({{1, 60}, {15, 96}});
    add_device("pump", {param("u", "avg")});
    add_device("fan");
    EXPECT_QUIET(_log.remove_period(CPeriodProperties(1, 60)), 0);
    EXPECT_EQ(rows(PERIODS), "15|96");
    EXPECT_EQ(rows(TREND_TABLES), "trends_1_15\ntrends_2_15");
}

TEST_F(log_remove_period, goes_by_the_length_alone)
{
    add_period(15, 96);
    EXPECT_QUIET(_log.remove_period(CPeriodProperties(15, 1)), 0);
    EXPECT_EQ(rows(PERIODS), "");
}

TEST_F(log_remove_period, runs_its_statements_in_one_transaction)
{
    add_period(15, 100);
    add_device("pump");
    add_device("fan");
    statement_trace trace;
    EXPECT_QUIET(_log.remove_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "DELETE FROM periods WHERE period = ?", "SELECT * FROM devices",
                       "DROP TABLE trends_1_15", "DROP TABLE trends_2_15", "COMMIT"}));
    EXPECT_EQ(trace.expanded()[1], "DELETE FROM periods WHERE period = 15");
}

TEST_F(log_remove_period, prepares_afresh_what_changes_the_file)
{
    add_period(15, 100);
    add_device("pump");
    ASSERT_EQ(_log.remove_period(CPeriodProperties(15, 100)), 0);
    add_period(15, 100);

    const statement_trace trace;
    EXPECT_QUIET(_log.remove_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(trace.prepared(),
              (texts_t{"DELETE FROM periods WHERE period = ?", "DROP TABLE trends_1_15"}));
}

TEST_F(log_remove_period, of_an_unknown_period_without_devices_changes_nothing)
{
    add_period(1, 100);
    const std::string before = dump();
    EXPECT_QUIET(_log.remove_period(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_remove_period, rolls_everything_back_when_a_table_is_missing)
{
    add_period(15, 100);
    add_device("pump");
    add_device("fan");
    run_sql(_file, "DROP TABLE trends_2_15");
    const std::string before = dump();

    EXPECT_REPORTS(_log.remove_period(CPeriodProperties(15, 100)), -1,
                   prepare_report("no such table: trends_2_15"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_period, resets_before_it_rolls_back)
{
    add_period(15, 100);
    run_sql(_file,
            "CREATE TRIGGER t BEFORE DELETE ON periods BEGIN SELECT RAISE(ABORT, 'no'); END");
    const statement_trace trace;
    EXPECT_REPORTS(_log.remove_period(CPeriodProperties(15, 100)), -1,
                   step_and_reset_report(1811, "no"));
    EXPECT_EQ(trace.texts_and_resets(), rolled_back_after("DELETE FROM periods WHERE period = ?"));
}

TEST_F(log_remove_period, fails_when_the_devices_cannot_all_be_read)
{
    add_period(15, 100);
    add_device("pump");
    add_device("fan");
    const std::string before = dump();
    const interrupt_step second_device("SELECT * FROM devices", 2);

    EXPECT_REPORTS(_log.remove_period(CPeriodProperties(15, 100)), -1,
                   step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_device.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_period, is_part_of_the_callers_transaction)
{
    add_period(15, 100);
    add_device("pump");
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(_log.remove_period(CPeriodProperties(15, 100)), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// create_trend_tables, of a period -------------------------------------------------------------

TEST_F(log_create_trend_tables_of_period, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.create_trend_tables(CPeriodProperties(15, 100)), "_db");
}

TEST_F(log_create_trend_tables_of_period, without_devices_does_nothing)
{
    const std::string before = dump();
    EXPECT_QUIET(_log.create_trend_tables(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_create_trend_tables_of_period, creates_one_for_each_device_in_the_order_of_the_list)
{
    add_period(1, 100);
    add_device("pump", {param("u", "max")});
    add_device("fan");
    const statement_trace trace;
    EXPECT_QUIET(_log.create_trend_tables(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "SELECT * FROM devices", "SELECT * FROM params_1 ORDER BY idx ASC",
                       "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL, param_1_max REAL)",
                       "SELECT * FROM params_2 ORDER BY idx ASC",
                       "CREATE TABLE trends_2_15 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL)",
                       "COMMIT"}));
}

TEST_F(log_create_trend_tables_of_period, stops_at_the_first_failure_and_rolls_back)
{
    add_device("pump");
    add_device("fan");
    add_device("valve");
    run_sql(_file, "CREATE TABLE trends_2_15 (time)");
    const std::string before = dump();

    const statement_trace trace;
    EXPECT_REPORTS(_log.create_trend_tables(CPeriodProperties(15, 100)), -1,
                   prepare_report("table trends_2_15 already exists"));
    EXPECT_EQ(trace.times_run("SELECT * FROM params_3 ORDER BY idx ASC"), 0);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// remove_trend_tables, of a period -------------------------------------------------------------

TEST_F(log_remove_trend_tables_of_period, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.remove_trend_tables(CPeriodProperties(15, 100)), "_db");
}

TEST_F(log_remove_trend_tables_of_period, drops_one_for_each_device_and_keeps_the_period)
{
    add_periods({{1, 100}, {15, 100}});
    add_device("pump");
    add_device("fan");
    const statement_trace trace;
    EXPECT_QUIET(_log.remove_trend_tables(CPeriodProperties(15, 100)), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT * FROM devices", "DROP TABLE trends_1_15",
                                      "DROP TABLE trends_2_15", "COMMIT"}));
    EXPECT_EQ(rows(TREND_TABLES), "trends_1_1\ntrends_2_1");
    EXPECT_EQ(rows(PERIODS), "1|100\n15|100");
}

TEST_F(log_remove_trend_tables_of_period, stops_at_the_first_failure_and_rolls_back)
{
    add_period(15, 100);
    add_device("pump");
    add_device("fan");
    add_device("valve");
    run_sql(_file, "DROP TABLE trends_2_15");
    const std::string before = dump();

    const statement_trace trace;
    EXPECT_REPORTS(_log.remove_trend_tables(CPeriodProperties(15, 100)), -1,
                   prepare_report("no such table: trends_2_15"));
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "SELECT * FROM devices", "DROP TABLE trends_1_15", "ROLLBACK"}));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

}  // namespace
