// Files of older schema versions, brought up to date when they are opened.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "allocations.h"
#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "trace.h"
#include "trend_api.h"

namespace {

using namespace toolkit::trend;

const char* const FILE_NAME = "trend.db";

const char* const VERSION = "PRAGMA user_version";
const char* const DEVICES = "SELECT idx, path, guid FROM devices ORDER BY idx";
const char* const PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx";

// What an opening without WAL runs before it looks at the version, and after.
const texts_t BEFORE = {
    "PRAGMA page_size=4096",
    "BEGIN",
    "CREATE TABLE IF NOT EXISTS periods (period INTEGER PRIMARY KEY NOT NULL, max_entries INTEGER "
    "NOT NULL)",
    "CREATE TABLE IF NOT EXISTS devices (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT "
    "NULL, guid TEXT UNIQUE)",
    VERSION,
};
const texts_t FROM_0_TO_1 = {
    "CREATE TABLE tmp_table (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL, guid "
    "TEXT UNIQUE)",
    "INSERT INTO tmp_table SELECT idx, path, NULL FROM devices",
    "DROP TABLE devices",
    "ALTER TABLE tmp_table RENAME TO devices",
};
const texts_t FROM_1_TO_2 = {
    "SELECT * FROM devices",
    "ALTER TABLE params_1 ADD COLUMN has_sum INTEGER NOT NULL DEFAULT 0",
    "ALTER TABLE params_3 ADD COLUMN has_sum INTEGER NOT NULL DEFAULT 0",
};
const texts_t AFTER = {"PRAGMA user_version = 2", "COMMIT"};

texts_t joined(std::initializer_list<texts_t> parts)
{
    texts_t all;
    for (const texts_t& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// Without WAL, so that the file says how it is left, byte for byte.
int open_without_wal(CLog& log)
{
    open_args args;
    args._wal = false;
    return open_log(log, FILE_NAME, args);
}

// A file of an older version, made anew for each test.
class log_migration : public testing::TestWithParam<int> {
protected:
    void SetUp() override { make(GetParam()); }

    void make(int version)
    {
        std::remove(FILE_NAME);
        run_sql(FILE_NAME,
                "BEGIN;" + test_data("version_" + std::to_string(version) + ".sql") + "; COMMIT");
    }

    CLog _log;
};

class log_migration_from_0 : public log_migration {
protected:
    void SetUp() override { make(0); }
};

class log_migration_from_1 : public log_migration {
protected:
    void SetUp() override { make(1); }
};

INSTANTIATE_TEST_SUITE_P(from_version, log_migration, testing::Values(0, 1),
                         testing::PrintToStringParamName());

}  // namespace

// Both versions ------------------------------------------------------------------------------

TEST_P(log_migration, ends_at_the_current_version)
{
    EXPECT_EQ(rows(FILE_NAME, VERSION), std::to_string(GetParam()));
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, VERSION), "2");
    EXPECT_EQ(rows(FILE_NAME, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name"),
              "devices\nparams_1\nparams_3\nperiods\ntrends_1_1\ntrends_1_5\ntrends_3_1\n"
              "trends_3_5");
}

TEST_P(log_migration, gives_every_parameter_table_a_sum_flag_that_is_not_set)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, PARAMS_1), "1|u|0|1|1|1|0|0\n2|cosphi|1|0|0|1|1|0");
    EXPECT_EQ(rows(FILE_NAME,
                   "SELECT cid, name, type, \"notnull\" FROM pragma_table_info('params_3') "
                   "WHERE cid >= 6"),
              "6|has_actual|INTEGER|1\n7|has_sum|INTEGER|1");
}

TEST_P(log_migration, keeps_periods_and_rows)
{
    const std::string all = "SELECT * FROM trends_1_1 ORDER BY time";
    const std::string coarse = "SELECT * FROM trends_1_5";
    const std::string before = rows(FILE_NAME, all);
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, "SELECT * FROM periods ORDER BY period"), "1|1440\n5|288");
    EXPECT_EQ(rows(FILE_NAME, all), before);
    EXPECT_EQ(rows(FILE_NAME, coarse), "300|70.0|228.0|232.0|229.75|0.95|0.9");
    EXPECT_EQ(rows(FILE_NAME, "SELECT * FROM trends_3_1"), "60|100.0");
}

TEST_P(log_migration, happens_once)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    const std::string migrated = dump(FILE_NAME);
    const statement_trace trace;
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(trace.texts(), joined({BEFORE, {"COMMIT"}}));
    EXPECT_EQ(dump(FILE_NAME), migrated);
}

TEST_P(log_migration, gives_the_same_in_wal_mode)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    const std::string migrated = dump(FILE_NAME);
    _log.close();
    make(GetParam());
    EXPECT_QUIET(open_log(_log, FILE_NAME), 0);
    EXPECT_EQ(dump(FILE_NAME), migrated);
}

TEST_P(log_migration, does_not_happen_read_only_or_without_create)
{
    const std::string before = file_bytes(FILE_NAME);
    open_args args;
    args._wal = false;
    args._create = false;
    EXPECT_QUIET(open_log(_log, FILE_NAME, args), 0);
    args._create = true;
    args._read_only = true;
    EXPECT_QUIET(open_log(_log, FILE_NAME, args), 0);
    _log.close();
    EXPECT_EQ(file_bytes(FILE_NAME), before);
}

TEST_P(log_migration, leaves_a_log_that_lists_and_records)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    CDeviceParams pump;
    pump._device._path = "plant/pump";
    pump._device._index = 1;
    EXPECT_QUIET(_log.get_params(pump._device, pump._params), 0);
    ASSERT_EQ(pump._params.size(), 2U);
    EXPECT_FALSE(pump._params[0]._has_sum);

    CSnapshot snapshot;
    snapshot._time = 420;
    snapshot._percent_valid = 100.0;
    snapshot._samples = {CSample{229.0, 231.0, 230.0, {}, {}}, CSample{{}, {}, 0.9, 0.8, {}}};
    EXPECT_QUIET(_log.add_trend_data(pump, snapshot), 0);
    EXPECT_EQ(rows(FILE_NAME, "SELECT * FROM trends_1_1 WHERE time = 420"),
              "420|100.0|229.0|231.0|230.0|0.9|0.8");
}

// A failure leaves the old version ---------------------------------------------------------------

TEST_P(log_migration, that_fails_at_any_statement_leaves_the_file_as_it_was)
{
    const texts_t all = GetParam() == 0 ? joined({BEFORE, FROM_0_TO_1, FROM_1_TO_2, AFTER})
                                        : joined({BEFORE, FROM_1_TO_2, AFTER});
    const std::string before = dump(FILE_NAME);
    for (const std::string& text : all) {
        const deny_prepare fault(text);
        EXPECT_REPORTS(open_without_wal(_log), -1, prepare_report("no such column: denied"));
        EXPECT_TRUE(fault.struck()) << text;
        EXPECT_FALSE(_log.is_open()) << text;
        EXPECT_EQ(dump(FILE_NAME), before) << text;
    }
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, VERSION), "2");
}

// The pool has just enough for the three texts that stay in it: any other would have displaced one.
TEST_P(log_migration, prepares_afresh_what_changes_the_file)
{
    open_args args;
    args._wal = false;
    args._pool_capacity = 3;
    EXPECT_QUIET(open_log(_log, FILE_NAME, args), 0);

    std::vector<CDeviceProperties> devices;
    const statement_trace trace;
    EXPECT_QUIET(_log.get_devices(devices), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT * FROM devices", "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{});
}

TEST_P(log_migration, that_is_interrupted_leaves_the_file_as_it_was)
{
    const texts_t all =
        GetParam() == 0 ? joined({FROM_0_TO_1, FROM_1_TO_2, AFTER}) : joined({FROM_1_TO_2, AFTER});
    const std::string before = dump(FILE_NAME);
    for (const std::string& text : all) {
        const interrupt_step fault(text);
        int result = 0;
        EXPECT_NE(capture_stderr([&] { result = open_without_wal(_log); }), "") << text;
        EXPECT_EQ(result, -1) << text;
        EXPECT_TRUE(fault.struck()) << text;
        EXPECT_FALSE(_log.is_open()) << text;
        EXPECT_EQ(dump(FILE_NAME), before) << text;
    }
}

TEST_P(log_migration, that_runs_out_of_memory_leaves_the_file_as_it_was)
{
    const std::string before = dump(FILE_NAME);
    bool reached = true;
    for (size_t n = 1; reached; ++n) {
        SCOPED_TRACE(n);
        int result = 0;
        const std::string said = capture_stderr([&] {
            const allocations::fail_at fault(n);
            result = open_without_wal(_log);
            reached = fault.reached();
        });
        if (!reached) break;
        EXPECT_EQ(result, -1);
        EXPECT_THAT(said, testing::EndsWith(": Error: out of memory\n"));
        EXPECT_FALSE(_log.is_open());
        EXPECT_EQ(dump(FILE_NAME), before);
    }
    EXPECT_EQ(rows(FILE_NAME, VERSION), "2");
}

TEST_P(log_migration, whose_commit_is_refused_leaves_the_file_as_it_was)
{
    const std::string before = dump(FILE_NAME);
    const refuse_commit fault;
    EXPECT_REPORTS(open_without_wal(_log), -1,
                   step_and_reset_report(SQLITE_CONSTRAINT_COMMITHOOK, "constraint failed"));
    EXPECT_FALSE(_log.is_open());
    EXPECT_EQ(dump(FILE_NAME), before);
}

TEST_P(log_migration, does_not_start_when_the_version_cannot_be_read)
{
    const std::string before = dump(FILE_NAME);
    const interrupt_step fault(VERSION);
    const statement_trace trace;
    int result = 0;
    const std::string said = capture_stderr([&] { result = open_without_wal(_log); });
    EXPECT_NE(result, 0);
    EXPECT_EQ(said.rfind(step_and_reset_report(SQLITE_INTERRUPT, "interrupted"), 0), 0U) << said;
    EXPECT_EQ(trace.texts(), joined({BEFORE, {"ROLLBACK"}}));
    EXPECT_FALSE(_log.is_open());
    EXPECT_EQ(dump(FILE_NAME), before);
}

TEST_P(log_migration, wants_the_whole_list_of_devices)
{
    // The second device has been missed when the list ends early.
    const std::string before = dump(FILE_NAME);
    const interrupt_step fault("SELECT * FROM devices", 2);
    EXPECT_REPORTS(open_without_wal(_log), -1,
                   step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    EXPECT_TRUE(fault.struck());
    EXPECT_FALSE(_log.is_open());
    EXPECT_EQ(dump(FILE_NAME), before);
}

TEST_P(log_migration, fails_at_a_device_without_a_parameter_table)
{
    run_sql(FILE_NAME, "DROP TABLE params_3");
    const std::string before = dump(FILE_NAME);
    EXPECT_REPORTS(open_without_wal(_log), -1, prepare_report("no such table: params_3"));
    EXPECT_FALSE(_log.is_open());
    EXPECT_EQ(dump(FILE_NAME), before);
}

TEST_P(log_migration, stops_at_a_device_without_a_path)
{
    run_sql(FILE_NAME, "UPDATE devices SET path = '' WHERE idx = 3");
    EXPECT_STOPS(open_without_wal(_log), "!newprop._path.empty()");
}

TEST_P(log_migration, finds_tables_by_identifiers_of_any_width)
{
    run_sql(FILE_NAME,
            "INSERT INTO devices (idx, path) VALUES (9223372036854775807, 'plant/last');"
            "CREATE TABLE params_9223372036854775807 (idx INTEGER PRIMARY KEY NOT NULL)");
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, "SELECT name FROM pragma_table_info('params_9223372036854775807')"),
              "idx\nhas_sum");
}

// Version 0 ----------------------------------------------------------------------------------

TEST_F(log_migration_from_0, runs_these_statements)
{
    const statement_trace trace;
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(trace.texts(), joined({BEFORE, FROM_0_TO_1, FROM_1_TO_2, AFTER}));
}

TEST_F(log_migration_from_0, gives_devices_an_empty_guid)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, DEVICES), "1|plant/pump|NULL\n3|plant/mixer|NULL");
    std::vector<CDeviceProperties> devices;
    EXPECT_QUIET(_log.get_devices(devices), 0);
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[1]._path, "plant/mixer");
    EXPECT_EQ(devices[1]._guid, "");
    EXPECT_EQ(devices[1]._index, 3);
}

TEST_F(log_migration_from_0, keeps_paths_and_makes_guids_unique)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    _log.close();
    EXPECT_THROW(run_sql(FILE_NAME, "INSERT INTO devices VALUES (4, 'plant/pump', NULL)"),
                 std::runtime_error);
    run_sql(FILE_NAME, "INSERT INTO devices VALUES (4, 'plant/fan', 'guid')");
    EXPECT_THROW(run_sql(FILE_NAME, "INSERT INTO devices VALUES (5, 'plant/oven', 'guid')"),
                 std::runtime_error);
}

TEST_F(log_migration_from_0, fails_when_its_intermediate_table_is_there_already)
{
    run_sql(FILE_NAME, "CREATE TABLE tmp_table(a)");
    const std::string before = dump(FILE_NAME);
    EXPECT_REPORTS(open_without_wal(_log), -1, prepare_report("table tmp_table already exists"));
    EXPECT_EQ(dump(FILE_NAME), before);
}

// Version 1 ----------------------------------------------------------------------------------

TEST_F(log_migration_from_1, runs_these_statements)
{
    const statement_trace trace;
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(trace.texts(), joined({BEFORE, FROM_1_TO_2, AFTER}));
}

TEST_F(log_migration_from_1, keeps_guids)
{
    EXPECT_QUIET(open_without_wal(_log), 0);
    EXPECT_EQ(rows(FILE_NAME, DEVICES),
              "1|plant/pump|6d0f4e9a-7c1b-4b7e-9d55-0f3f6d1f2a11\n3|plant/mixer|NULL");
}

TEST_F(log_migration_from_1, fails_at_a_parameter_table_that_has_the_flag_already)
{
    run_sql(FILE_NAME, "ALTER TABLE params_3 ADD COLUMN has_sum INTEGER NOT NULL DEFAULT 0");
    const std::string before = dump(FILE_NAME);
    EXPECT_REPORTS(open_without_wal(_log), -1, prepare_report("duplicate column name: has_sum"));
    EXPECT_FALSE(_log.is_open());
    EXPECT_EQ(dump(FILE_NAME), before);
}

// Unknown versions ---------------------------------------------------------------------------

TEST(log_of_unknown_version, is_refused_and_left_byte_for_byte)
{
    run_sql(FILE_NAME, test_data("version_1.sql") + "PRAGMA user_version = 7");
    const std::string before = file_bytes(FILE_NAME);
    CLog log;
    EXPECT_REPORTS(open_without_wal(log), 1, "Unrecognized table schema version: 7\n");
    EXPECT_FALSE(log.is_open());
    EXPECT_EQ(file_bytes(FILE_NAME), before);
}

TEST(log_of_unknown_version, keeps_its_content_and_version_in_wal_mode)
{
    run_sql(FILE_NAME, test_data("version_1.sql") + "PRAGMA user_version = 7");
    const std::string before = dump(FILE_NAME);
    CLog log;
    EXPECT_REPORTS(open_log(log, FILE_NAME), 1, "Unrecognized table schema version: 7\n");
    EXPECT_FALSE(log.is_open());
    EXPECT_EQ(dump(FILE_NAME), before);
}

TEST(log_of_unknown_version, gets_no_tables)
{
    run_sql(FILE_NAME, "CREATE TABLE t(a); PRAGMA user_version = 3");
    const std::string before = file_bytes(FILE_NAME);
    CLog log;
    EXPECT_REPORTS(open_without_wal(log), 1, "Unrecognized table schema version: 3\n");
    EXPECT_EQ(file_bytes(FILE_NAME), before);
}

TEST(log_of_unknown_version, may_be_negative)
{
    run_sql(FILE_NAME, "CREATE TABLE t(a); PRAGMA user_version = -2147483648");
    CLog log;
    EXPECT_REPORTS(open_without_wal(log), 1, "Unrecognized table schema version: -2147483648\n");
    EXPECT_EQ(rows(FILE_NAME, VERSION), "-2147483648");
}
