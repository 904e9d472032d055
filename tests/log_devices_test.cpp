// Devices: adding, changing and removing them, with the tables that each one owns.

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

namespace {

using namespace toolkit::trend;

using log_add_device = log_fixture;
using log_modify_device = log_fixture;
using log_remove_device = log_fixture;
using log_create_param_table = log_fixture;
using log_remove_param_table = log_fixture;
using log_remove_trend_table = log_fixture;
using log_create_trend_tables_of_device = log_fixture;
using log_remove_trend_tables_of_device = log_fixture;

const std::string ADD = "int toolkit::trend::CLog::add_device(toolkit::trend::CDeviceProperties&)";
const std::string MODIFY =
    "int toolkit::trend::CLog::modify_device(const toolkit::trend::CDeviceProperties&)";
const std::string REMOVE =
    "int toolkit::trend::CLog::remove_device(const toolkit::trend::CDeviceProperties&)";

const char* const DEVICES = "SELECT * FROM devices ORDER BY idx";
const char* const TABLES =
    "SELECT name FROM sqlite_master WHERE type = 'table' AND name LIKE '%\\_%' ESCAPE '\\' "
    "ORDER BY name";

const char* const CREATE_PARAMS_1 =
    "CREATE TABLE params_1 (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL, "
    "type INTEGER NOT NULL, has_min INTEGER NOT NULL, has_max INTEGER NOT NULL, "
    "has_avg INTEGER NOT NULL, has_actual INTEGER NOT NULL, has_sum INTEGER NOT NULL)";

CDeviceProperties device(const std::string& path, const std::string& guid = "", int64_t index = -1)
{
    CDeviceProperties properties;
    properties._path = path;
    properties._guid = guid;
    properties._index = index;
    return properties;
}

// add_device -----------------------------------------------------------------------------------

TEST_F(log_add_device, refuses_a_closed_log_first)
{
    _log.close();
    CDeviceProperties nameless;
    EXPECT_REPORTS(_log.add_device(nameless), -1, ADD + ": Error: DB not open\n");
}

TEST_F(log_add_device, refuses_an_empty_path_before_any_statement)
{
    const std::string before = dump();
    CDeviceProperties nameless = device("", "guid", 5);
    const statement_trace trace;
    EXPECT_REPORTS(_log.add_device(nameless), -1, ADD + ": Error: empty device path\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(nameless._index, 5);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_add_device, gives_the_first_one_the_identifier_1_and_counts_on)
{
    CDeviceProperties pump = device("pump");
    CDeviceProperties fan = device("fan");
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_QUIET(_log.add_device(fan), 0);
    EXPECT_EQ(pump._index, 1);
    EXPECT_EQ(fan._index, 2);
}

TEST_F(log_add_device, ignores_the_identifier_that_it_is_given)
{
    CDeviceProperties pump = device("pump", "", 77);
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_EQ(pump._index, 1);
    EXPECT_EQ(rows("SELECT idx FROM devices"), "1");
}

TEST_F(log_add_device, uses_the_highest_identifier_again_once_it_is_free)
{
    add_device("pump");
    const CDeviceProperties fan = add_device("fan");
    ASSERT_EQ(_log.remove_device(fan), 0);

    CDeviceProperties valve = device("valve");
    EXPECT_QUIET(_log.add_device(valve), 0);
    EXPECT_EQ(valve._index, 2);
}

TEST_F(log_add_device, leaves_identifiers_below_the_highest_unused)
{
    const CDeviceProperties pump = add_device("pump");
    add_device("fan");
    ASSERT_EQ(_log.remove_device(pump), 0);

    CDeviceProperties valve = device("valve");
    EXPECT_QUIET(_log.add_device(valve), 0);
    EXPECT_EQ(valve._index, 3);
}

TEST_F(log_add_device, counts_in_64_bits)
{
    run_sql(_file, "INSERT INTO devices VALUES (5000000000, 'pump', NULL)");
    CDeviceProperties fan = device("fan");
    EXPECT_QUIET(_log.add_device(fan), 0);
    EXPECT_EQ(fan._index, 5000000001);
    EXPECT_EQ(rows(TABLES), "params_5000000001");
}

// Identifiers of stored devices are 0 or more. Among negative ones the new device's own is still
// negative and counts as 0.
TEST_F(log_add_device, takes_a_negative_highest_identifier_for_0)
{
    run_sql(_file, "INSERT INTO devices VALUES (-5, 'pump', NULL)");
    CDeviceProperties fan = device("fan");
    EXPECT_QUIET(_log.add_device(fan), 0);
    EXPECT_EQ(fan._index, 0);
    EXPECT_EQ(rows(DEVICES), "-5|pump|NULL\n-4|fan|NULL");
    EXPECT_EQ(rows(TABLES), "params_0");
}

TEST_F(log_add_device, stores_path_and_guid)
{
    CDeviceProperties pump = device("plant/pump 'a' \"b\" \xc3\xbc ?", "4be2 'x'");
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_EQ(rows(DEVICES), "1|plant/pump 'a' \"b\" \xc3\xbc ?|4be2 'x'");
    EXPECT_EQ(rows("SELECT typeof(path), typeof(guid) FROM devices"), "text|text");
}

TEST_F(log_add_device, stores_any_number_without_a_guid_as_null)
{
    CDeviceProperties pump = device("pump");
    CDeviceProperties fan = device("fan");
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_QUIET(_log.add_device(fan), 0);
    EXPECT_EQ(rows(DEVICES), "1|pump|NULL\n2|fan|NULL");

    std::vector<CDeviceProperties> devices;
    ASSERT_EQ(_log.get_devices(devices), 0);
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0]._guid, "");
    EXPECT_EQ(devices[1]._guid, "");
}

TEST_F(log_add_device, creates_its_parameter_table_and_a_bare_trend_table_per_period)
{
    add_periods({{15, 100}, {1, 100}});
    CDeviceProperties pump = device("pump");
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_EQ(rows(TABLES), "params_1\ntrends_1_1\ntrends_1_15");
    EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name = 'params_1'"), CREATE_PARAMS_1);
    EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name LIKE 'trends%' ORDER BY name"),
              "CREATE TABLE trends_1_1 (time INTEGER PRIMARY KEY NOT NULL, "
              "percent_valid REAL NOT NULL)\n"
              "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
              "percent_valid REAL NOT NULL)");
}

TEST_F(log_add_device, runs_its_statements_in_one_transaction)
{
    add_periods({{15, 100}, {1, 100}});
    statement_trace trace;
    CDeviceProperties pump = device("pump", "4be2");
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "INSERT INTO devices VALUES ((SELECT max(idx)+1 FROM devices),?,?)",
                       "SELECT max(idx) FROM devices", CREATE_PARAMS_1, "SELECT * FROM periods",
                       "SELECT * FROM params_1 ORDER BY idx ASC",
                       "CREATE TABLE trends_1_1 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL)",
                       "SELECT * FROM params_1 ORDER BY idx ASC",
                       "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL)",
                       "COMMIT"}));
    EXPECT_EQ(trace.expanded()[1],
              "INSERT INTO devices VALUES ((SELECT max(idx)+1 FROM devices),'pump','4be2')");
}

TEST_F(log_add_device, prepares_afresh_all_but_the_listings)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    ASSERT_EQ(_log.remove_device(pump), 0);

    // The second one with the same texts: what is prepared again was not kept.
    const statement_trace trace;
    CDeviceProperties fan = device("fan");
    EXPECT_QUIET(_log.add_device(fan), 0);
    EXPECT_EQ(trace.prepared(),
              (texts_t{"INSERT INTO devices VALUES ((SELECT max(idx)+1 FROM devices),?,?)",
                       "SELECT max(idx) FROM devices", CREATE_PARAMS_1,
                       "CREATE TABLE trends_1_1 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL)"}));
}

TEST_F(log_add_device, refuses_a_path_that_is_taken)
{
    add_period(1, 100);
    add_device("pump", "4be2");
    const std::string before = dump();
    CDeviceProperties again = device("pump", "77aa");

    EXPECT_REPORTS(_log.add_device(again), -1,
                   step_and_reset_report(2067, "UNIQUE constraint failed: devices.path"));
    EXPECT_EQ(again._index, -1);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_device, refuses_a_guid_that_is_taken)
{
    add_period(1, 100);
    add_device("pump", "4be2");
    const std::string before = dump();
    CDeviceProperties fan = device("fan", "4be2");

    EXPECT_REPORTS(_log.add_device(fan), -1,
                   step_and_reset_report(2067, "UNIQUE constraint failed: devices.guid"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_device, resets_before_it_rolls_back)
{
    add_device("pump");
    CDeviceProperties again = device("pump");
    const statement_trace trace;
    capture_stderr([&] { EXPECT_EQ(_log.add_device(again), -1); });
    EXPECT_EQ(
        trace.texts_and_resets(),
        rolled_back_after("INSERT INTO devices VALUES ((SELECT max(idx)+1 FROM devices),?,?)"));
}

TEST_F(log_add_device, takes_a_path_that_differs_in_case_only)
{
    add_device("pump");
    CDeviceProperties upper = device("PUMP");
    EXPECT_QUIET(_log.add_device(upper), 0);
    EXPECT_EQ(upper._index, 2);
}

TEST_F(log_add_device, may_have_written_the_identifier_when_a_later_step_fails)
{
    run_sql(_file, "CREATE TABLE params_1 (idx)");
    const std::string before = dump();
    CDeviceProperties pump = device("pump", "4be2", 77);

    EXPECT_REPORTS(_log.add_device(pump), -1, prepare_report("table params_1 already exists"));
    EXPECT_EQ(pump._index, 1);
    EXPECT_EQ(pump._path, "pump");
    EXPECT_EQ(pump._guid, "4be2");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_device, rolls_everything_back_when_a_trend_table_is_there_already)
{
    add_periods({{1, 100}, {15, 100}});
    run_sql(_file, "CREATE TABLE trends_1_15 (time)");
    const std::string before = dump();
    CDeviceProperties pump = device("pump");

    EXPECT_REPORTS(_log.add_device(pump), -1, prepare_report("table trends_1_15 already exists"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_device, fails_when_its_identifier_cannot_be_read)
{
    const std::string before = dump();
    const interrupt_step reading("SELECT max(idx) FROM devices");
    CDeviceProperties pump = device("pump", "", 77);

    EXPECT_REPORTS(_log.add_device(pump), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(reading.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_device, fails_when_the_periods_cannot_all_be_read)
{
    add_periods({{1, 100}, {15, 100}});
    const std::string before = dump();
    const interrupt_step second_period("SELECT * FROM periods", 2);
    CDeviceProperties pump = device("pump");

    EXPECT_REPORTS(_log.add_device(pump), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_period.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_device, is_part_of_the_callers_transaction)
{
    add_period(1, 100);
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    CDeviceProperties pump = device("pump");
    const statement_trace trace;
    EXPECT_QUIET(_log.add_device(pump), 0);
    EXPECT_EQ(trace.times_run("BEGIN") + trace.times_run("COMMIT"), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// modify_device --------------------------------------------------------------------------------

TEST_F(log_add_device, stores_texts_up_to_their_first_zero_byte)
{
    CDeviceProperties device;
    device._path = std::string("pump\0x", 6);
    device._guid = std::string("\0x", 2);
    EXPECT_QUIET(_log.add_device(device), 0);
    EXPECT_EQ(rows("SELECT hex(path), guid FROM devices"), "70756D70|NULL");
    device._path = "pump";
    capture_stderr([&] { EXPECT_EQ(_log.add_device(device), -1); });
}

TEST_F(log_add_device, takes_a_path_that_begins_with_a_zero_byte_for_an_empty_one)
{
    CDeviceProperties device;
    device._path = std::string("\0pump", 5);
    EXPECT_REPORTS(_log.add_device(device), -1, ADD + ": Error: empty device path\n");
}

TEST_F(log_modify_device, stores_texts_up_to_their_first_zero_byte)
{
    CDeviceProperties device = add_device("pump");
    device._path = std::string("fan\0x", 5);
    device._guid = std::string("g\0x", 3);
    EXPECT_QUIET(_log.modify_device(device), 0);
    EXPECT_EQ(rows("SELECT hex(path), hex(guid) FROM devices"), "66616E|67");
}

TEST_F(log_modify_device, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.modify_device(device("")), -1, MODIFY + ": Error: DB not open\n");
}

TEST_F(log_modify_device, refuses_an_empty_path_before_it_looks_at_the_identifier)
{
    add_device("pump");
    const std::string before = dump();
    const statement_trace trace;
    EXPECT_REPORTS(_log.modify_device(device("", "", -1)), -1,
                   MODIFY + ": Error: empty device path\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_modify_device, refuses_a_negative_identifier_before_any_statement)
{
    add_device("pump");
    const std::string before = dump();
    const statement_trace trace;
    EXPECT_REPORTS(_log.modify_device(device("fan", "", -1)), -1,
                   MODIFY + ": Error: invalid device id\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_modify_device, changes_path_and_guid_of_this_device_only)
{
    add_device("pump", "4be2");
    add_device("fan", "77aa");
    EXPECT_QUIET(_log.modify_device(device("blower", "9c01", 2)), 0);
    EXPECT_EQ(rows(DEVICES), "1|pump|4be2\n2|blower|9c01");
}

TEST_F(log_modify_device, stores_an_empty_guid_as_null)
{
    add_device("pump", "4be2");
    add_device("fan", "77aa");
    EXPECT_QUIET(_log.modify_device(device("pump", "", 1)), 0);
    EXPECT_QUIET(_log.modify_device(device("fan", "", 2)), 0);
    EXPECT_EQ(rows(DEVICES), "1|pump|NULL\n2|fan|NULL");
}

TEST_F(log_modify_device, keeps_the_tables_and_their_rows)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    record(pump, 60, {10.0});
    EXPECT_QUIET(_log.modify_device(device("renamed", "", 1)), 0);
    EXPECT_EQ(rows(TABLES), "params_1\ntrends_1_1");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0");
}

TEST_F(log_modify_device, takes_the_device_of_identifier_0)
{
    run_sql(_file, "INSERT INTO devices VALUES (0, 'pump', NULL)");
    EXPECT_QUIET(_log.modify_device(device("fan", "", 0)), 0);
    EXPECT_EQ(rows(DEVICES), "0|fan|NULL");
}

TEST_F(log_modify_device, of_an_unknown_identifier_changes_nothing_and_succeeds)
{
    add_device("pump");
    const std::string before = dump();
    EXPECT_QUIET(_log.modify_device(device("fan", "77aa", 2)), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_modify_device, runs_one_fresh_statement)
{
    add_device("pump");
    ASSERT_EQ(_log.modify_device(device("pump", "", 1)), 0);

    statement_trace trace;
    EXPECT_QUIET(_log.modify_device(device("fan", "77aa", 1)), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "UPDATE devices SET path = ?, guid = ? WHERE idx = ?", "COMMIT"}));
    EXPECT_EQ(trace.expanded()[1], "UPDATE devices SET path = 'fan', guid = '77aa' WHERE idx = 1");
    EXPECT_EQ(trace.prepared(), (texts_t{"UPDATE devices SET path = ?, guid = ? WHERE idx = ?"}));
}

TEST_F(log_modify_device, refuses_the_path_of_another_device)
{
    add_device("pump");
    add_device("fan");
    const std::string before = dump();
    EXPECT_REPORTS(_log.modify_device(device("pump", "", 2)), -1,
                   step_and_reset_report(2067, "UNIQUE constraint failed: devices.path"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_modify_device, refuses_the_guid_of_another_device)
{
    add_device("pump", "4be2");
    add_device("fan");
    const std::string before = dump();
    EXPECT_REPORTS(_log.modify_device(device("fan", "4be2", 2)), -1,
                   step_and_reset_report(2067, "UNIQUE constraint failed: devices.guid"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_modify_device, resets_before_it_rolls_back)
{
    add_device("pump");
    add_device("fan");
    const statement_trace trace;
    capture_stderr([&] { EXPECT_EQ(_log.modify_device(device("pump", "", 2)), -1); });
    EXPECT_EQ(trace.texts_and_resets(),
              rolled_back_after("UPDATE devices SET path = ?, guid = ? WHERE idx = ?"));
}

TEST_F(log_modify_device, is_part_of_the_callers_transaction)
{
    add_device("pump");
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(_log.modify_device(device("fan", "", 1)), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// remove_device --------------------------------------------------------------------------------

TEST_F(log_remove_device, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.remove_device(device("")), -1, REMOVE + ": Error: DB not open\n");
}

TEST_F(log_remove_device, wants_a_path_although_only_the_identifier_is_used)
{
    add_device("pump");
    const std::string before = dump();
    const statement_trace trace;
    EXPECT_REPORTS(_log.remove_device(device("", "", 1)), -1,
                   REMOVE + ": Error: empty device path\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_remove_device, looks_at_the_path_before_the_identifier)
{
    EXPECT_REPORTS(_log.remove_device(device("", "", -1)), -1,
                   REMOVE + ": Error: empty device path\n");
}

TEST_F(log_remove_device, refuses_a_negative_identifier_before_any_statement)
{
    add_device("pump");
    const std::string before = dump();
    const statement_trace trace;
    EXPECT_REPORTS(_log.remove_device(device("pump", "", -1)), -1,
                   REMOVE + ": Error: invalid device id\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_remove_device, deletes_the_device_and_all_its_tables)
{
    add_periods({{1, 100}, {15, 100}});
    add_device("pump", {param("u", "avg")});
    add_device("fan", {param("n", "avg")});
    EXPECT_QUIET(_log.remove_device(device("pump", "", 1)), 0);
    EXPECT_EQ(rows(DEVICES), "2|fan|NULL");
    EXPECT_EQ(rows(TABLES), "params_2\ntrends_2_1\ntrends_2_15");
}

TEST_F(log_remove_device, goes_by_the_identifier_alone)
{
    add_device("pump");
    add_device("fan");
    EXPECT_QUIET(_log.remove_device(device("fan", "no such", 1)), 0);
    EXPECT_EQ(rows(DEVICES), "2|fan|NULL");
}

TEST_F(log_remove_device, runs_its_statements_in_one_transaction)
{
    add_periods({{15, 100}, {1, 100}});
    add_device("pump");
    statement_trace trace;
    EXPECT_QUIET(_log.remove_device(device("pump", "", 1)), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "DELETE FROM devices WHERE idx = ?", "DROP TABLE params_1",
                       "SELECT * FROM periods", "DROP TABLE trends_1_1", "DROP TABLE trends_1_15",
                       "COMMIT"}));
    EXPECT_EQ(trace.expanded()[1], "DELETE FROM devices WHERE idx = 1");
}

TEST_F(log_remove_device, prepares_afresh_what_changes_the_file)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    ASSERT_EQ(_log.remove_device(pump), 0);
    add_device("pump");

    const statement_trace trace;
    EXPECT_QUIET(_log.remove_device(pump), 0);
    EXPECT_EQ(trace.prepared(), (texts_t{"DELETE FROM devices WHERE idx = ?", "DROP TABLE params_1",
                                         "DROP TABLE trends_1_1"}));
}

TEST_F(log_remove_device, resets_before_it_rolls_back)
{
    const CDeviceProperties pump = add_device("pump");
    run_sql(_file,
            "CREATE TRIGGER t BEFORE DELETE ON devices BEGIN SELECT RAISE(ABORT, 'no'); END");
    const statement_trace trace;
    EXPECT_REPORTS(_log.remove_device(pump), -1, step_and_reset_report(1811, "no"));
    EXPECT_EQ(trace.texts_and_resets(), rolled_back_after("DELETE FROM devices WHERE idx = ?"));
}

TEST_F(log_remove_device, of_an_unknown_identifier_fails_at_its_parameter_table)
{
    add_device("pump");
    const std::string before = dump();
    EXPECT_REPORTS(_log.remove_device(device("pump", "", 7)), -1,
                   prepare_report("no such table: params_7"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_device, rolls_everything_back_when_a_trend_table_is_missing)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    run_sql(_file, "DROP TABLE trends_1_15");
    const std::string before = dump();

    EXPECT_REPORTS(_log.remove_device(pump), -1, prepare_report("no such table: trends_1_15"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// A table left behind would be met by the next device that gets the identifier.
TEST_F(log_remove_device, fails_when_the_periods_cannot_all_be_read)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    const interrupt_step second_period("SELECT * FROM periods", 2);

    EXPECT_REPORTS(_log.remove_device(pump), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_period.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_device, is_part_of_the_callers_transaction)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(_log.remove_device(pump), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// The tables of one device ---------------------------------------------------------------------

TEST_F(log_create_param_table, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.create_param_table(device("pump", "", 1)), "_db");
}

TEST_F(log_create_param_table, runs_one_fresh_statement)
{
    const statement_trace trace;
    EXPECT_QUIET(_log.create_param_table(device("pump", "", 1)), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", CREATE_PARAMS_1, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), (texts_t{CREATE_PARAMS_1}));
    EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name = 'params_1'"), CREATE_PARAMS_1);
}

TEST_F(log_create_param_table, holds_the_longest_identifier)
{
    EXPECT_QUIET(_log.create_param_table(device("pump", "", INT64_MAX)), 0);
    EXPECT_EQ(rows(TABLES), "params_9223372036854775807");
}

TEST_F(log_create_param_table, fails_when_it_is_there)
{
    ASSERT_EQ(_log.create_param_table(device("pump", "", 1)), 0);
    const std::string before = dump();
    EXPECT_REPORTS(_log.create_param_table(device("pump", "", 1)), -1,
                   prepare_report("table params_1 already exists"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_param_table, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.remove_param_table(device("pump", "", 1)), "_db");
}

TEST_F(log_remove_param_table, runs_one_fresh_statement)
{
    const CDeviceProperties pump = add_device("pump");
    add_device("fan");
    const statement_trace trace;
    EXPECT_QUIET(_log.remove_param_table(pump), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "DROP TABLE params_1", "COMMIT"}));
    EXPECT_EQ(trace.prepared(), (texts_t{"DROP TABLE params_1"}));
    EXPECT_EQ(rows(TABLES), "params_2");
}

TEST_F(log_remove_param_table, fails_when_there_is_none)
{
    const std::string before = dump();
    EXPECT_REPORTS(_log.remove_param_table(device("pump", "", 1)), -1,
                   prepare_report("no such table: params_1"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_trend_table, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.remove_trend_table(CPeriodProperties(1, 100), device("pump", "", 1)), "_db");
}

TEST_F(log_remove_trend_table, runs_one_fresh_statement)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    add_device("fan");
    const statement_trace trace;
    EXPECT_QUIET(_log.remove_trend_table(CPeriodProperties(15, 100), pump), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "DROP TABLE trends_1_15", "COMMIT"}));
    EXPECT_EQ(trace.prepared(), (texts_t{"DROP TABLE trends_1_15"}));
    EXPECT_EQ(rows(TABLES), "params_1\nparams_2\ntrends_1_1\ntrends_2_1\ntrends_2_15");
}

TEST_F(log_remove_trend_table, fails_when_there_is_none)
{
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    EXPECT_REPORTS(_log.remove_trend_table(CPeriodProperties(4294967295UL, 100), pump), -1,
                   prepare_report("no such table: trends_1_4294967295"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_create_trend_tables_of_device, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.create_trend_tables(device("pump", "", 1)), "_db");
}

TEST_F(log_create_trend_tables_of_device, without_periods_does_nothing)
{
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    EXPECT_QUIET(_log.create_trend_tables(pump), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_create_trend_tables_of_device, creates_one_for_each_period_finest_first)
{
    add_periods({{15, 100}, {1, 100}});
    const CDeviceParams pump = add_device("pump", {param("u", "max")});
    run_sql(_file, "DROP TABLE trends_1_1; DROP TABLE trends_1_15");

    const statement_trace trace;
    EXPECT_QUIET(_log.create_trend_tables(pump._device), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "SELECT * FROM periods", "SELECT * FROM params_1 ORDER BY idx ASC",
                       "CREATE TABLE trends_1_1 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL, param_1_max REAL)",
                       "SELECT * FROM params_1 ORDER BY idx ASC",
                       "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
                       "percent_valid REAL NOT NULL, param_1_max REAL)",
                       "COMMIT"}));
}

TEST_F(log_create_trend_tables_of_device, stops_at_the_first_failure_and_rolls_back)
{
    add_periods({{1, 100}, {15, 100}, {60, 100}});
    const CDeviceProperties pump = add_device("pump");
    run_sql(_file, "DROP TABLE trends_1_1; DROP TABLE trends_1_60");
    const std::string before = dump();

    const statement_trace trace;
    EXPECT_REPORTS(_log.create_trend_tables(pump), -1,
                   prepare_report("table trends_1_15 already exists"));
    EXPECT_EQ(trace.texts().back(), "ROLLBACK");
    EXPECT_EQ(trace.times_run("SELECT * FROM params_1 ORDER BY idx ASC"), 2);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_remove_trend_tables_of_device, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.remove_trend_tables(device("pump", "", 1)), "_db");
}

TEST_F(log_remove_trend_tables_of_device, drops_one_for_each_period_finest_first)
{
    add_periods({{15, 100}, {1, 100}});
    const CDeviceProperties pump = add_device("pump");
    const statement_trace trace;
    EXPECT_QUIET(_log.remove_trend_tables(pump), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT * FROM periods", "DROP TABLE trends_1_1",
                                      "DROP TABLE trends_1_15", "COMMIT"}));
    EXPECT_EQ(rows(TABLES), "params_1");
    EXPECT_EQ(rows(DEVICES), "1|pump|NULL");
}

TEST_F(log_remove_trend_tables_of_device, stops_at_the_first_failure_and_rolls_back)
{
    add_periods({{1, 100}, {15, 100}, {60, 100}});
    const CDeviceProperties pump = add_device("pump");
    run_sql(_file, "DROP TABLE trends_1_15");
    const std::string before = dump();

    const statement_trace trace;
    EXPECT_REPORTS(_log.remove_trend_tables(pump), -1,
                   prepare_report("no such table: trends_1_15"));
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "SELECT * FROM periods", "DROP TABLE trends_1_1", "ROLLBACK"}));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

}  // namespace
