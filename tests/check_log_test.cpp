// What a check finds: each kind planted, and nothing else.

#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "clock.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trend_repair.h"

namespace {

using namespace toolkit::trend;

constexpr time_t NEWEST = 1800;

// A log on the grid: two devices, half an hour, everything as the guide wants it.
class check_log : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 60}, {5, 20}, {15, 10}});
        _pump = add_device("pump", {param("u", "min max avg actual sum"), pf("cosphi", "min avg")});
        _fan = add_device("fan", {param("n", "avg")});
        ASSERT_EQ(_log.begin_transaction(), 0);
        for (time_t time = 60; time <= NEWEST; time += 60) {
            const double value = static_cast<double>(time % 700) / 7.0;
            record(_pump, time, {value, value / 100.0 - 0.5}, time % 180 == 0 ? 50.0 : 100.0);
            record(_fan, time, {value});
        }
        ASSERT_EQ(_log.end_transaction(), 0);
    }

    // Every finding as a line: severity, kind, device, period, first and last time, number; text.
    std::string found(time_t now = NEWEST)
    {
        std::vector<CFinding> findings;
        EXPECT_EQ(toolkit::trend::check_log(_log, now, findings), 0);
        std::string text;
        for (const CFinding& finding : findings) {
            text += severity_name(finding._severity) + std::string(" ") +
                    finding_name(finding._kind) + " " +
                    (finding._device.empty() ? "-" : finding._device) + " " +
                    std::to_string(finding._period) + " " +
                    std::to_string(intmax_t(finding._bounds.first)) + " " +
                    std::to_string(intmax_t(finding._bounds.second)) + " " +
                    std::to_string(finding._count) + "; " + finding._text + "\n";
            EXPECT_FALSE(finding._advice.empty());
        }
        return text;
    }

    // What is found after another program has made these changes.
    std::string found_after(const std::string& sql, time_t now = NEWEST)
    {
        run_sql(_file, "PRAGMA ignore_check_constraints = 1;" + sql);
        return found(now);
    }

    // The same where lines on standard error come with it.
    std::string found_aloud(const std::string& sql, std::string& said)
    {
        std::string text;
        said = capture_stderr([&] { text = found_after(sql); });
        return text;
    }

    CDeviceParams _pump;
    CDeviceParams _fan;
};

TEST_F(check_log, finds_nothing_in_a_log_on_the_grid_and_changes_nothing)
{
    const std::string before = dump();
    EXPECT_EQ(found(), "");
    EXPECT_EQ(before, dump());
    EXPECT_TRUE(at_level_0());
}

TEST_F(check_log, finds_nothing_in_an_empty_log)
{
    _log.close();
    ASSERT_EQ(open_log(_log, "empty.db"), 0);
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, finds_nothing_in_a_log_without_parameters_or_rows)
{
    add_device("bare");
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, works_on_a_log_that_is_open_for_reading)
{
    open_args args;
    args._read_only = true;
    reopen(args);
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, works_on_a_log_with_a_rollback_journal)
{
    _log.close();
    run_sql(_file, "PRAGMA journal_mode = DELETE");
    open_args args;
    args._wal = false;
    open(args);
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, sees_what_the_hosts_transaction_has_changed)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(_pump, NEWEST + 180, {1.0, 1.0});
    EXPECT_EQ(found(NEWEST + 180),
              "information holes pump 1 1860 1920 2; Intervals of trends_1_1 without a row: 2.\n");
    _log.rollback_transaction();
    EXPECT_EQ(found(), "");
}

// Errors ----------------------------------------------------------------------------------------

TEST_F(check_log, tells_what_sqlites_own_check_says)
{
    // An index that has one entry less than its table.
    EXPECT_EQ(found_after("PRAGMA writable_schema = ON; UPDATE sqlite_master SET sql = 'CREATE "
                          "TABLE other (a, b UNIQUE)' WHERE name = 'other'"),
              "");
    run_sql(_file,
            "CREATE TABLE other (a); INSERT INTO other VALUES (1); CREATE INDEX other_a ON other "
            "(a); PRAGMA writable_schema = ON; UPDATE sqlite_master SET sql = 'CREATE INDEX "
            "other_a ON other (a) WHERE a > 1' WHERE name = 'other_a'");
    _log.close();
    open();
    EXPECT_EQ(found(),
              "error damage - 0 -1 -1 0; SQLite's check says: wrong # of entries in index "
              "other_a.\n");
}

TEST_F(check_log, tells_of_a_file_that_is_no_database)
{
    _log.close();
    std::ofstream("text.db") << std::string(4096, 'x');
    open_args args;
    args._create = args._wal = false;
    ASSERT_EQ(open_log(_log, "text.db", args), 0);
    std::string text;
    const std::string said = capture_stderr([&] { text = found(); });
    EXPECT_EQ(text, "error damage - 0 -1 -1 0; The file cannot be read: file is not a database.\n");
    EXPECT_EQ(said, prepare_report("file is not a database", 26));
}

TEST_F(check_log, goes_on_after_a_table_that_cannot_be_read)
{
    const std::string page = rows("SELECT rootpage FROM sqlite_master WHERE name = 'trends_1_5'");
    EXPECT_QUIET(_log.checkpoint(), 0);
    _log.close();
    {
        std::fstream file(_file, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp((std::stol(page) - 1) * 4096);
        file << std::string(4096, '\xff');
    }
    open();
    run_sql(_file, "UPDATE trends_2_1 SET percent_valid = 101 WHERE time = 60");
    std::string text;
    capture_stderr([&] { text = found(); });
    EXPECT_NE(text.find("error damage - 0 -1 -1 0; SQLite's check says: "), std::string::npos);
    EXPECT_NE(text.find("error damage pump 5 -1 -1 0; trends_1_5 cannot be read: database disk "
                        "image is malformed.\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("warning percent_valid fan 1 60 60 1; "), std::string::npos) << text;
}

TEST_F(check_log, tells_of_another_version)
{
    EXPECT_EQ(found_after("PRAGMA user_version = 1"),
              "error schema - 0 -1 -1 0; The schema version is 1 and should be 2.\n");
}

TEST_F(check_log, tells_of_a_missing_table)
{
    EXPECT_EQ(found_after("DROP TABLE trends_1_5"),
              "error schema pump 5 -1 -1 0; Table trends_1_5 is missing.\n");
    EXPECT_EQ(found_after("DROP TABLE params_2"),
              "error schema pump 5 -1 -1 0; Table trends_1_5 is missing.\n"
              "error schema fan 0 -1 -1 0; Table params_2 is missing.\n");
    EXPECT_EQ(found_after("DROP TABLE devices"),
              "error schema - 0 -1 -1 0; Table devices is missing.\n");
    EXPECT_EQ(found_after("DROP TABLE periods"),
              "error schema - 0 -1 -1 0; Table periods is missing.\n");
}

TEST_F(check_log, tells_of_tables_that_nothing_owns)
{
    EXPECT_EQ(found_after("CREATE TABLE trends_1_7 (a); CREATE TABLE params_9 (a); "
                          "CREATE TABLE tmp_table (a); CREATE TABLE mine (a)"),
              "error schema - 0 -1 -1 0; Table trends_1_7 belongs to no device and period.\n"
              "error schema - 0 -1 -1 0; Table params_9 belongs to no device and period.\n"
              "error schema - 0 -1 -1 0; Table tmp_table belongs to no device and period.\n");
}

TEST_F(check_log, tells_of_columns_that_the_parameters_deny)
{
    EXPECT_EQ(found_after("ALTER TABLE trends_2_1 DROP COLUMN param_1_avg"),
              "error schema fan 1 -1 -1 0; Column 3 of trends_2_1 is missing and should be "
              "'param_1_avg REAL'.\n");
    EXPECT_EQ(found_after("ALTER TABLE trends_2_1 ADD COLUMN param_1_avg TEXT"),
              "error schema fan 1 -1 -1 0; Column 3 of trends_2_1 is 'param_1_avg TEXT' and should "
              "be 'param_1_avg REAL'.\n");
    EXPECT_EQ(found_after("ALTER TABLE periods ADD COLUMN more"),
              "error schema - 0 -1 -1 0; Column 3 of periods is 'more ' and should be missing.\n");
}

TEST_F(check_log, tells_of_entries_that_no_log_writes)
{
    EXPECT_EQ(
        found_after("INSERT INTO periods VALUES (0, 5), (60, 'x'), (120, 0), (4294967296, 7)"),
        "error configuration - 0 -1 -1 4; Entries of periods that no log writes: 4.\n");
    EXPECT_EQ(
        found_after("DELETE FROM periods WHERE period NOT IN (1, 5, 15); UPDATE devices SET path = "
                    "'' WHERE idx = 2; INSERT INTO devices VALUES (-1, 'a', NULL), (7, x'00', "
                    "NULL), (8, 'b' || char(0), NULL), (9, 'c', ''), (10, 'd', 5)"),
        "error configuration - 0 -1 -1 5; Entries of devices that no log writes: 5.\n"
        "error schema d 0 -1 -1 0; Table params_10 is missing.\n");
}

TEST_F(check_log, tells_of_parameters_that_no_log_writes_and_leaves_their_device_out)
{
    EXPECT_EQ(found_after("UPDATE params_1 SET type = 2 WHERE idx = 1; UPDATE params_1 SET has_avg "
                          "= 'yes' WHERE idx = 2; UPDATE trends_1_1 SET percent_valid = 101"),
              "error configuration pump 0 -1 -1 2; Entries of params_1 that no log writes: 2.\n");
}

TEST_F(check_log, tells_of_values_that_no_log_writes)
{
    EXPECT_EQ(found_after("UPDATE trends_1_1 SET param_1_max = 'text', param_2_avg = x'00' WHERE "
                          "time IN (120, 300); UPDATE trends_1_1 SET percent_valid = 9e999 WHERE "
                          "time = 600; UPDATE trends_1_1 SET percent_valid = 'much' WHERE time = "
                          "660; UPDATE trends_1_1 SET time = -60 WHERE time = 60; UPDATE "
                          "trends_1_5 SET param_1_avg = 7.5"),
              "error values pump 1 120 300 2; Rows of trends_1_1 without a number in param_1_max: "
              "2.\n"
              "error values pump 1 120 300 2; Rows of trends_1_1 without a number in param_2_avg: "
              "2.\n"
              "error values pump 1 -60 -60 1; Rows of trends_1_1 with a time before 1970: 1.\n"
              "error values pump 1 600 660 2; Rows of trends_1_1 without a number in "
              "percent_valid: 2.\n"
              // Of what can still be read.
              "warning coarse_rows pump 15 900 1800 2; Rows of trends_1_15 that are not what their "
              "rows of trends_1_5 give: 2, the first in param_1_avg.\n");
}

TEST_F(check_log, tells_of_a_percent_valid_that_no_log_writes)
{
    EXPECT_EQ(found_after("UPDATE trends_1_1 SET percent_valid = -9e999 WHERE time = 60"),
              "error values pump 1 60 60 1; Rows of trends_1_1 without a number in percent_valid: "
              "1.\n");
}

// Warnings --------------------------------------------------------------------------------------

TEST_F(check_log, tells_of_views_and_triggers_that_name_trend_tables)
{
    EXPECT_EQ(found_after("CREATE VIEW v AS SELECT * FROM TRENDS_1_5; CREATE TRIGGER t AFTER "
                          "INSERT ON trends_2_1 BEGIN SELECT 1; END; CREATE VIEW w AS SELECT * "
                          "FROM devices; CREATE TABLE mine (a)"),
              "warning foreign_object - 0 -1 -1 0; The view v names a trend table: no parameter "
              "can be changed or removed.\n"
              "warning foreign_object - 0 -1 -1 0; The trigger t names a trend table: no parameter "
              "can be changed or removed.\n");
}

TEST_F(check_log, tells_of_a_period_that_is_no_multiple)
{
    add_period(40, 10);
    EXPECT_EQ(found(),
              "warning period_ratio - 40 -1 -1 0; The period of 40 minutes is no multiple of the "
              "one of 15.\n");
}

TEST_F(check_log, tells_of_a_table_shorter_than_two_groups)
{
    ASSERT_EQ(_log.modify_period({5, 5}), 0);
    EXPECT_EQ(found(),
              "warning short_table - 5 -1 -1 0; The period of 5 minutes keeps 5 rows, and 3 make "
              "one of the next coarser period.\n");
    ASSERT_EQ(_log.modify_period({5, 6}), 0);
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, tells_of_rows_of_the_future)
{
    EXPECT_EQ(found(NEWEST - 60), "");
    EXPECT_EQ(found(NEWEST - 130),
              "warning future_rows pump 1 1740 1800 2; Rows of trends_1_1 that end later than now: "
              "2.\n"
              "warning future_rows fan 1 1740 1800 2; Rows of trends_2_1 that end later than now: "
              "2.\n");
}

TEST_F(check_log, takes_the_present_where_no_time_is_given)
{
    {
        const fixed_clock clock(NEWEST);
        EXPECT_EQ(found(-1), "");
    }
    const fixed_clock clock(0);
    EXPECT_NE(found(-1), "");
}

TEST_F(check_log, tells_of_percent_valid_outside_0_to_100)
{
    record(_pump, NEWEST + 60, {1.0, 1.0}, 101.0);
    record(_pump, NEWEST + 120, {1.0, 1.0}, -1.0);
    EXPECT_EQ(found(NEWEST + 120),
              "warning percent_valid pump 1 1860 1920 2; Rows of trends_1_1 whose percent_valid is "
              "not in 0 to 100: 2.\n");
}

TEST_F(check_log, tells_of_late_rows_that_no_coarse_row_knows)
{
    // The groups go 300, ..., then 2160 of 1860, 1920 and 2040 to 2160, and there is a late row.
    for (const time_t time : {1860, 1920, 2040, 2100, 2160, 1980})
        record(_pump, time, {1.0, 1.0});
    EXPECT_EQ(found(2160),
              "information holes pump 5 2100 2100 1; Intervals of trends_1_5 without a row: 1.\n"
              "information off_grid pump 5 2160 2160 1; Rows of trends_1_5 that do not end at a "
              "boundary: 1.\n"
              "warning late_rows pump 5 2160 2160 1; Rows of trends_1_1 that came too late for "
              "their row of trends_1_5: 1.\n");
}

TEST_F(check_log, tells_of_late_rows_where_coarse_rows_are_missing)
{
    // The third group and its row are cleared, and two rows of it come again.
    ASSERT_EQ(_log.clear_trend_data(_pump._device, {601, 900}), 1);
    record(_pump, 660, {1.0, 1.0});
    record(_pump, 720, {1.0, 1.0});
    EXPECT_EQ(found(),
              "information holes pump 1 780 900 3; Intervals of trends_1_1 without a row: 3.\n"
              "information holes pump 5 900 900 1; Intervals of trends_1_5 without a row: 1.\n"
              "warning late_rows pump 5 1200 1200 2; Rows of trends_1_1 that came too late for "
              "their row of trends_1_5: 2.\n");
}

TEST_F(check_log, takes_a_gap_that_a_coarse_table_did_not_keep_for_a_hole)
{
    // The first 5 minutes are rolled up, three more rows make one group, then come the newest four.
    ASSERT_EQ(_log.modify_period({5, 4}), 0);
    ASSERT_EQ(_log.fill_blank_values(_pump._device, NEWEST + 3000, false), 0);
    EXPECT_EQ(found(NEWEST + 3000),
              "warning short_table - 5 -1 -1 0; The period of 5 minutes keeps 4 rows, and 3 make "
              "one of the next coarser period.\n"
              "information holes pump 5 3300 3600 2; Intervals of trends_1_5 without a row: 2.\n");
}

TEST_F(check_log, tells_of_coarse_rows_that_their_fine_rows_deny)
{
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_1_sum = param_1_sum + 0.001 WHERE time IN "
                          "(600, 1200); UPDATE trends_1_15 SET percent_valid = 99 WHERE time = "
                          "1800"),
              "warning coarse_rows pump 5 600 1200 2; Rows of trends_1_5 that are not what their "
              "rows of trends_1_1 give: 2, the first in param_1_sum.\n"
              "warning coarse_rows pump 15 900 1800 2; Rows of trends_1_15 that are not what their "
              "rows of trends_1_5 give: 2, the first in param_1_sum.\n");
}

TEST_F(check_log, tells_of_any_column_of_a_coarse_row)
{
    for (const std::string column : {"param_1_min", "param_1_max", "param_1_avg", "param_1_actual",
                                     "param_1_sum", "param_2_min", "param_2_avg"})
        for (const std::string value : {"0.123", "NULL", "9e999"}) {
            run_sql(_file, "CREATE TABLE kept AS SELECT * FROM trends_1_15");
            EXPECT_EQ(found_after("UPDATE trends_1_15 SET " + column + " = " + value +
                                  " WHERE time = 900"),
                      "warning coarse_rows pump 15 900 900 1; Rows of trends_1_15 that are not "
                      "what their rows of trends_1_5 give: 1, the first in " +
                          column + ".\n");
            run_sql(_file,
                    "DELETE FROM trends_1_15; INSERT INTO trends_1_15 SELECT * FROM kept; "
                    "DROP TABLE kept");
        }
}

TEST_F(check_log, finds_values_where_there_should_be_none)
{
    for (time_t time = NEWEST + 60; time <= NEWEST + 300; time += 60)
        record(_fan, time, {NAN});
    EXPECT_EQ(found(NEWEST + 300), "");
    EXPECT_EQ(found_after("UPDATE trends_2_5 SET param_1_avg = 1.0 WHERE time = 2100", 2100),
              "warning coarse_rows fan 5 2100 2100 1; Rows of trends_2_5 that are not what their "
              "rows of trends_2_1 give: 1, the first in param_1_avg.\n");
}

TEST_F(check_log, lets_rounding_pass)
{
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_1_avg = param_1_avg * (1 + 1e-12), "
                          "param_1_sum = param_1_sum * (1 + 1e-12), param_2_avg = param_2_avg * (1 "
                          "- 1e-12), percent_valid = percent_valid * (1 + 1e-12)"),
              "");
}

TEST_F(check_log, measures_rounding_by_what_was_added_up)
{
    // Large values that cancel: the sum is right to 1e-9 of them only.
    int i = 0;
    for (time_t time = NEWEST + 60; time <= NEWEST + 300; time += 60)
        record(_pump, time, {(++i % 2 != 0 ? 1.0 : -1.0) * 1e12, 1.0});
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_1_avg = param_1_avg + 10, param_1_sum = "
                          "param_1_sum + 10 WHERE time = 2100",
                          2100),
              "");
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_1_sum = param_1_sum + 10000 WHERE time = "
                          "2100",
                          2100),
              "warning coarse_rows pump 5 2100 2100 1; Rows of trends_1_5 that are not what their "
              "rows of trends_1_1 give: 1, the first in param_1_sum.\n");
}

TEST_F(check_log, takes_power_factors_at_both_ends_of_the_scale_for_the_same)
{
    // Unity is in the middle of the scale, where the sign changes.
    for (time_t time = NEWEST + 60; time <= NEWEST + 300; time += 60)
        record(_pump, time, {1.0, 1.0});
    EXPECT_EQ(
        found_after("UPDATE trends_1_5 SET param_2_avg = -0.9999999999 WHERE time = 2100", 2100),
        "");
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_2_avg = -0.99 WHERE time = 2100", 2100),
              "warning coarse_rows pump 5 2100 2100 1; Rows of trends_1_5 that are not what their "
              "rows of trends_1_1 give: 1, the first in param_2_avg.\n");
}

TEST_F(check_log, adds_power_factors_up_as_any_values)
{
    add_params(_pump._device, {pf("sum of cosphi", "sum")});
    EXPECT_EQ(found_after("UPDATE trends_1_1 SET param_3_sum = 0.5; UPDATE trends_1_5 SET "
                          "param_3_sum = 2.5; UPDATE trends_1_15 SET param_3_sum = 7.6"),
              "warning coarse_rows pump 15 900 1800 2; Rows of trends_1_15 that are not what their "
              "rows of trends_1_5 give: 2, the first in param_3_sum.\n");
}

TEST_F(check_log, lets_the_last_value_come_from_any_row_of_the_group)
{
    // Which one it comes from changes when the parameter gives up its extremes.
    CParamProperties changed = _pump._params[0];
    changed._has_min = changed._has_max = false;
    ASSERT_EQ(_log.modify_params(_pump._device, {changed}), 0);
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, compares_rows_that_are_off_the_grid_with_those_they_were_counted_from)
{
    _log.close();
    std::remove(_file.c_str());
    open();
    add_periods({{1, 60}, {5, 20}});
    _pump = add_device("pump", {param("u", "avg")});
    for (int minute = 3; minute <= 14; ++minute)
        record(_pump, minute * 60, {double(minute)});
    // The rows of 7 and 12 minutes; what the first one is made of cannot be told.
    const std::string off_grid =
        "information off_grid pump 5 420 720 2; Rows of trends_1_5 that do not end at a boundary: "
        "2.\n";
    EXPECT_EQ(found(), off_grid);
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_1_avg = 0"),
              off_grid +
                  "warning coarse_rows pump 5 720 720 1; Rows of trends_1_5 that are not what "
                  "their rows of trends_1_1 give: 1, the first in param_1_avg.\n");
}

TEST_F(check_log, compares_only_where_all_fine_rows_are_there)
{
    EXPECT_EQ(found_after("UPDATE trends_1_5 SET param_1_min = -1000 WHERE time = 300; DELETE FROM "
                          "trends_1_1 WHERE time = 60; DELETE FROM trends_1_15 WHERE time = 900"),
              "");
}

TEST_F(check_log, compares_no_coarse_row_with_rows_of_a_period_that_came_later)
{
    // Quarters of minutes; then fives of the minutes that are left, which begin off the boundary.
    _log.close();
    std::remove(_file.c_str());
    open();
    add_periods({{1, 100}, {15, 20}});
    _pump = add_device("pump", {param("u", "avg")});
    for (int minute = 1; minute <= 30; ++minute)
        record(_pump, minute * 60, {double(minute)});
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time <= 120");
    add_period(5, 20);
    record(_pump, 31 * 60, {31.0});
    EXPECT_EQ(rows("SELECT time/60, param_1_avg FROM trends_1_5 WHERE time > 900"),
              "17|15.0\n22|20.0\n27|25.0");
    EXPECT_EQ(rows("SELECT time/60, param_1_avg FROM trends_1_15"), "15|8.0\n30|23.0");
    EXPECT_EQ(found(),
              "information off_grid pump 5 420 1620 5; Rows of trends_1_5 that do not end "
              "at a boundary: 5.\n");
}

TEST_F(check_log, tells_of_averages_that_a_period_in_between_weighs_otherwise)
{
    _log.close();
    std::remove(_file.c_str());
    open();
    add_periods({{1, 100}, {15, 20}});
    _pump = add_device("pump", {param("u", "avg")});
    for (int minute = 1; minute <= 15; ++minute)
        record(_pump, minute * 60, {minute <= 4 ? NAN : double(minute)});
    EXPECT_EQ(rows("SELECT param_1_avg FROM trends_1_15"), "10.0");  // 5 to 15
    EXPECT_EQ(found(), "");
    add_period(5, 20);
    record(_pump, 16 * 60, {16.0});
    // 5, 8 and 13 weigh the same now: 26 / 3.
    EXPECT_EQ(rows("SELECT param_1_avg FROM trends_1_5"), "5.0\n8.0\n13.0");
    EXPECT_EQ(found(),
              "warning coarse_rows pump 15 900 900 1; Rows of trends_1_15 that are not "
              "what their rows of trends_1_5 give: 1, the first in param_1_avg.\n");

    CRebuildRequest request;
    request._device = _pump._device;
    CRebuildResult result;
    ASSERT_EQ(rebuild(_log, request, result), 0);
    EXPECT_EQ(rows("SELECT round(param_1_avg, 9) FROM trends_1_15"), "8.666666667");
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, tells_of_a_write_ahead_log_that_no_checkpoint_empties)
{
    ASSERT_EQ(_log.checkpoint_config(2), 0);
    sqlite3* reader = nullptr;
    ASSERT_EQ(sqlite3_open(_file.c_str(), &reader), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(reader, "BEGIN; SELECT count(*) FROM periods", nullptr, nullptr, nullptr),
        SQLITE_OK);
    for (time_t time = NEWEST + 60; time <= NEWEST + 600; time += 60)
        record(_pump, time, {1.0, 1.0});
    const std::string text = found(NEWEST + 600);
    sqlite3_close(reader);

    // Each of ten rows has written one page at least, and more than four times two are too many.
    const std::string begins = "warning write_ahead_log - 0 -1 -1 ";
    EXPECT_EQ(text.substr(0, begins.size()), begins);
    const std::string pages = std::to_string(std::stoi(text.substr(begins.size())));
    EXPECT_GE(std::stoi(pages), 10);
    EXPECT_EQ(text.substr(begins.size()),
              pages +
                  "; Pages of the write-ahead log that no checkpoint has copied into the file: " +
                  pages + ".\n");
    EXPECT_QUIET(_log.checkpoint(), 0);
    EXPECT_EQ(found(NEWEST + 600), "");
}

TEST_F(check_log, allows_a_write_ahead_log_a_few_checkpoints_of_the_default_size)
{
    ASSERT_EQ(_log.checkpoint_config(0), 0);
    for (time_t time = NEWEST + 60; time <= NEWEST + 300; time += 60)
        record(_pump, time, {1.0, 1.0});
    EXPECT_EQ(found(NEWEST + 300), "");
}

// Information -----------------------------------------------------------------------------------

TEST_F(check_log, tells_of_holes)
{
    record(_pump, NEWEST + 240, {1.0, 1.0});
    record(_pump, NEWEST + 360, {1.0, 1.0});
    EXPECT_EQ(found(NEWEST + 360),
              "information holes pump 1 1860 2100 4; Intervals of trends_1_1 without a row: 4.\n");
}

TEST_F(check_log, tells_of_rows_off_the_grid)
{
    record(_pump, NEWEST + 61, {1.0, 1.0});
    record(_pump, NEWEST + 150, {1.0, 1.0});
    EXPECT_EQ(found(NEWEST + 150),
              "information holes pump 1 1860 1860 1; Intervals of trends_1_1 without a row: 1.\n"
              "information off_grid pump 1 1861 1950 2; Rows of trends_1_1 that do not end at a "
              "boundary: 2.\n");
}

TEST_F(check_log, tells_of_rows_that_the_period_no_longer_keeps)
{
    // 60 and ten spare rows, and 5 that wait for their coarse row: 75 intervals before the newest.
    run_sql(_file, "UPDATE periods SET max_entries = 14 WHERE period = 1");
    EXPECT_EQ(found(), "");
    EXPECT_EQ(found_after("UPDATE periods SET max_entries = 12 WHERE period = 1"),
              "information old_rows pump 1 60 120 2; Rows of trends_1_1 that are older than what "
              "the period keeps: 2.\n"
              "information old_rows fan 1 60 120 2; Rows of trends_2_1 that are older than what "
              "the period keeps: 2.\n");
}

TEST_F(check_log, tells_of_free_pages)
{
    const std::string text = found_after(
        "CREATE TABLE mine (a); INSERT INTO mine VALUES (zeroblob(100000)); DROP TABLE "
        "mine");
    // 24 pages of 4092 bytes and a part of the first.
    EXPECT_EQ(text, "information free_pages - 0 -1 -1 25; Pages of the file that are free: 25 of " +
                        rows("PRAGMA page_count") + ".\n");
    EXPECT_QUIET(_log.vacuum(), 0);
    EXPECT_EQ(found(), "");
}

TEST_F(check_log, takes_a_few_free_pages_for_nothing)
{
    EXPECT_EQ(found_after("CREATE TABLE mine (a); INSERT INTO mine VALUES (zeroblob(100000)); "
                          "CREATE TABLE other (a); INSERT INTO other VALUES (zeroblob(1000000)); "
                          "DROP TABLE mine"),
              "");
}

// The call --------------------------------------------------------------------------------------

TEST_F(check_log, ends_when_the_visitor_has_had_enough)
{
    run_sql(_file, "CREATE TABLE trends_1_7 (a); CREATE TABLE params_9 (a)");
    int calls = 0;
    const finding_visitor_t once = [&](const CFinding&) {
        ++calls;
        return false;
    };
    EXPECT_QUIET(toolkit::trend::check_log(_log, NEWEST, once), 1);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(at_level_0());
}

TEST_F(check_log, ends_at_any_finding_of_any_part)
{
    record(_fan, NEWEST + 180, {1.0});
    run_sql(_file,
            "CREATE TABLE params_9 (a); CREATE VIEW v AS SELECT * FROM trends_1_5; INSERT INTO "
            "periods VALUES (40, 1), (80, 'x'); UPDATE periods SET max_entries = 1 WHERE period = "
            "1; UPDATE devices SET guid = '' WHERE idx = 2; UPDATE trends_1_1 SET param_1_avg = "
            "'x', percent_valid = 200 WHERE time = 60; UPDATE trends_1_15 SET param_1_avg = 9e99; "
            "DELETE FROM trends_1_5 WHERE time = 1200; CREATE TABLE mine (a); INSERT INTO mine "
            "VALUES (zeroblob(100000)); DROP TABLE mine; INSERT INTO devices VALUES (3, 'new', "
            "NULL)");
    size_t all = 0;
    for (size_t last = 1; last <= all + 1; ++last) {
        size_t calls = 0;
        const int result = toolkit::trend::check_log(
            _log, NEWEST, [&](const CFinding&) { return ++calls != last; });
        EXPECT_EQ(result, calls == last ? 1 : 0);
        if (result == 0) {
            all = calls;
            break;
        }
        all = last;
    }
    EXPECT_GT(all, 12u);
}

TEST_F(check_log, ends_at_the_first_finding_whatever_it_is)
{
    const finding_visitor_t no_more = [](const CFinding&) { return false; };
    for (const time_t time : {1860, 1920, 2040, 2100, 2160, 1980})
        record(_pump, time, {1.0, 1.0});
    const finding_visitor_t until_late = [](const CFinding& finding) {
        return finding._kind != FINDING_LATE_ROWS;
    };
    EXPECT_QUIET(toolkit::trend::check_log(_log, 2160, until_late), 1);
    run_sql(_file, "DROP TABLE trends_2_5");
    const finding_visitor_t until_fan = [](const CFinding& finding) {
        return finding._device != "fan";
    };
    EXPECT_QUIET(toolkit::trend::check_log(_log, 2160, until_fan), 1);
    run_sql(_file, "PRAGMA user_version = 1");
    EXPECT_QUIET(toolkit::trend::check_log(_log, 2160, no_more), 1);
}

TEST_F(check_log, replaces_what_the_list_holds)
{
    std::vector<CFinding> findings(3);
    EXPECT_QUIET(toolkit::trend::check_log(_log, NEWEST, findings), 0);
    EXPECT_TRUE(findings.empty());
}

TEST_F(check_log, refuses_a_closed_log_and_a_time_that_is_none)
{
    const std::string fn = "int toolkit::trend::check_log(CLog&, time_t, const finding_visitor_t&)";
    std::vector<CFinding> findings;
    EXPECT_REPORTS(toolkit::trend::check_log(_log, -2, findings), -1,
                   fn + ": Error: invalid time\n");
    {
        const fixed_clock clock(-1);
        EXPECT_REPORTS(toolkit::trend::check_log(_log, -1, findings), -1,
                       fn + ": Error: can't get time\n");
    }
    _log.close();
    EXPECT_REPORTS(toolkit::trend::check_log(_log, 0, findings), -1, fn + ": Error: DB not open\n");
}

TEST(finding, has_a_name_for_every_kind_and_severity)
{
    std::string names;
    for (int kind = 0; kind < FINDING_LISTEND; ++kind)
        names += std::string(finding_name(static_cast<finding_kind_t>(kind))) + " ";
    EXPECT_EQ(names,
              "damage schema configuration values foreign_object period_ratio short_table "
              "future_rows percent_valid late_rows coarse_rows write_ahead_log holes off_grid "
              "old_rows free_pages ");
    EXPECT_STREQ(severity_name(SEVERITY_INFORMATION), "information");
    EXPECT_STREQ(severity_name(SEVERITY_WARNING), "warning");
    EXPECT_STREQ(severity_name(SEVERITY_ERROR), "error");
    EXPECT_STOPS(finding_name(FINDING_LISTEND), "kind>=0 && kind<FINDING_LISTEND");
    EXPECT_STOPS(finding_name(static_cast<finding_kind_t>(-1)), "kind>=0 && kind<FINDING_LISTEND");
    EXPECT_STOPS(severity_name(static_cast<severity_t>(3)),
                 "severity>=SEVERITY_INFORMATION && severity<=SEVERITY_ERROR");
    EXPECT_STOPS(severity_name(static_cast<severity_t>(-1)),
                 "severity>=SEVERITY_INFORMATION && severity<=SEVERITY_ERROR");
}

}  // namespace
