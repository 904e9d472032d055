// What recording remembers: recalled where nothing has changed, forgotten where anything may have.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "allocations.h"
#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"

namespace {

using namespace toolkit::trend;

const std::string PERIODS = "SELECT * FROM periods";
const std::string VERSION = "PRAGMA data_version";
const std::string INSERT =
    "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES (?,?,?)";

sqlite3* newest_handle = nullptr;

extern "C" int note_handle(sqlite3* handle, char**, const sqlite3_api_routines*)
{
    newest_handle = handle;
    return SQLITE_OK;
}

// A device that has recorded long enough for everything to be remembered: the next row is the
// second of three that wait to be rolled up.
class remembering : public log_fixture {
protected:
    // Forgets the connection's handle at the end of the test.
    ~remembering() override
    {
        sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(note_handle));
    }

    void SetUp() override
    {
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(note_handle));
        open();
        _handle = newest_handle;
        add_periods({{1, 100}, {3, 100}});
        _pump = add_device("pump", {param("u", "avg")});
        for (time_t time = 60; time <= 420; time += 60)
            record(_pump, time, {1.0});
    }

    // What the next recording runs, by which it is seen what it remembers.
    texts_t statements_of_next()
    {
        statement_trace trace;
        record(_pump, _next, {1.0});
        _next += 60;
        return trace.texts();
    }

    static CSnapshot snapshot_at(time_t time)
    {
        CSnapshot snapshot;
        snapshot._time = time;
        snapshot._percent_valid = 100.0;
        snapshot._samples = {avg(1.0)};
        return snapshot;
    }

    int add(time_t time) { return _log.add_trend_data(_pump, snapshot_at(time)); }

    bool next_reads_afresh()
    {
        const texts_t texts = statements_of_next();
        return std::count(texts.begin(), texts.end(), PERIODS) == 1;
    }

    void run_on_handle(const std::string& sql)
    {
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(_handle, sql.c_str(), nullptr, nullptr, nullptr));
    }

    CDeviceParams _pump;
    time_t _next = 480;
    sqlite3* _handle = nullptr;
};

using recall = remembering;
using forgetting = remembering;
using bound = remembering;

}  // namespace

// Recalled ---------------------------------------------------------------------------------------

TEST_F(recall, leaves_an_insert_and_the_proof_of_a_snapshot)
{
    EXPECT_EQ(statements_of_next(), (texts_t{"BEGIN", VERSION, INSERT, "COMMIT"}));
}

TEST_F(recall, rolls_up_without_looking_at_the_rows)
{
    statements_of_next();
    EXPECT_EQ(statements_of_next(),
              (texts_t{"BEGIN", VERSION, INSERT,
                       "INSERT INTO trends_1_3 SELECT max(time), avg(percent_valid), "
                       "pctavg(param_1_avg, percent_valid) FROM (SELECT * FROM trends_1_1 WHERE "
                       "time >= ? LIMIT 3 OFFSET ?)",
                       "COMMIT"}));
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360\n540");
}

TEST_F(recall, asks_for_the_version_once_in_a_transaction)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_EQ(statements_of_next(), (texts_t{VERSION, INSERT}));
    _pump._params = {_pump._params[0]};
    statements_of_next();
    EXPECT_EQ(statements_of_next(), (texts_t{INSERT}));
    ASSERT_EQ(_log.end_transaction(), 0);
}

TEST_F(recall, trims_by_what_it_knows)
{
    ASSERT_EQ(_log.remove_period({3, 1}), 0);
    ASSERT_EQ(_log.modify_period({1, 5}), 0);
    statements_of_next();  // as many rows as there may be: five and ten to spare
    for (int i = 0; i < 10; ++i)
        statements_of_next();
    EXPECT_EQ(statements_of_next(), (texts_t{"BEGIN", VERSION, INSERT,
                                             "DELETE FROM trends_1_1 WHERE time <= ?", "COMMIT"}));
    EXPECT_EQ(rows("SELECT count(*), min(time), max(time) FROM trends_1_1"), "15|300|1140");

    // Nothing as old as the last trim took is there any more, and this row is not as old.
    _next = 290;
    EXPECT_EQ(statements_of_next(), (texts_t{"BEGIN", VERSION, INSERT, "COMMIT"}));
}

TEST_F(recall, takes_a_late_row_for_what_it_is)
{
    // One row waits, at 420; a late one is no part of its group, and one before it may be.
    record(_pump, 400, {7.0});
    record(_pump, 350, {7.0});
    record(_pump, 480, {1.0});
    EXPECT_EQ(rows("SELECT time, param_1_avg FROM trends_1_3"), "180|1.0\n360|1.0\n480|3.0");
}

TEST_F(recall, takes_a_late_row_for_what_it_is_where_the_rows_that_wait_were_read)
{
    have_others_commit();
    record(_pump, 480, {1.0});  // 420 waits too
    record(_pump, 350, {7.0});  // no newer than the newest coarse row
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
    record(_pump, 400, {7.0});
    EXPECT_EQ(rows("SELECT time, param_1_avg FROM trends_1_3"), "180|1.0\n360|1.0\n480|3.0");
}

TEST_F(recall, rolls_up_the_parameters_of_the_device_whose_turn_it_is)
{
    const CDeviceParams fan = add_device("fan", {param("w", "min"), param("x", "min")});
    record(_pump, 480, {1.0});
    for (time_t time = 60; time <= 120; time += 60)
        record(fan, time, {2.0, 3.0});  // the list that has been read last is the fan's
    record(_pump, 540, {1.0});
    EXPECT_EQ(rows("SELECT * FROM trends_1_3 WHERE time > 360"), "540|100.0|1.0");
    record(fan, 180, {2.0, 3.0});
    EXPECT_EQ(rows("SELECT * FROM trends_2_3"), "180|100.0|2.0|3.0");
}

TEST_F(recall, asks_for_the_version_late_where_nothing_is_remembered)
{
    reopen();
    texts_t texts = statements_of_next();
    EXPECT_EQ(texts.at(1), PERIODS);
    EXPECT_EQ(texts.at(texts.size() - 2), VERSION);

    // And so after a failure.
    capture_stderr([&] { EXPECT_EQ(add(60), -1); });
    texts = statements_of_next();
    EXPECT_EQ(texts.at(1), PERIODS);
    EXPECT_EQ(texts.at(texts.size() - 2), VERSION);
}

TEST_F(recall, goes_on_when_more_than_one_group_is_full)
{
    // Rows that others have left: seven wait, two groups and one row.
    run_sql(_file, "DELETE FROM trends_1_3 WHERE time > 180");
    for (int i = 0; i < 5; ++i)
        statements_of_next();
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360\n540\n720");
}

TEST_F(recall, keeps_the_pool_within_its_capacity)
{
    open_args args;
    args._create = false;
    args._pool_capacity = 2;
    reopen(args);
    _handle = newest_handle;
    for (int i = 0; i < 7; ++i)
        statements_of_next();
    int statements = 0;
    for (sqlite3_stmt* stmt = nullptr; (stmt = sqlite3_next_stmt(_handle, stmt)) != nullptr;)
        ++statements;
    EXPECT_EQ(statements, 2 + 1);  // those of the pool, and the one that asks for the version
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360\n540\n720");
}

TEST_F(recall, prepares_nothing_in_a_pool_of_three_statements_a_device)
{
    const size_t devices = 4;
    ASSERT_EQ(_log.modify_period({1, 5}), 0);
    add_period(300, 100);
    std::vector<CDeviceParams> plant;
    for (size_t i = 0; i < devices; ++i)
        plant.push_back(add_device("fan" + std::to_string(i), {param("u", "avg")}));
    const auto record_minutes = [&](time_t first, time_t last) {
        for (time_t minute = first; minute <= last; ++minute)
            for (const CDeviceParams& device : plant)
                record(device, 60 * minute, {1.0});
    };
    record_minutes(1, 60);  // long enough for the finest table to be trimmed
    open_args args;
    args._create = false;
    args._pool_capacity = 3 * devices + 2;
    reopen(args);
    record_minutes(61, 72);
    statement_trace trace;
    record_minutes(73, 102);
    EXPECT_EQ(trace.prepared(), texts_t{});
}

TEST_F(recall, tells_selections_apart_by_identifier_and_aggregates)
{
    CDeviceParams more = add_params(_pump._device, {param("v", "min avg")});
    for (const char* kept : {"min avg", "avg", "min", "min avg"}) {
        const CParamProperties selected = param("v", kept);
        more._params[0]._has_min = selected._has_min;
        more._params[0]._has_avg = selected._has_avg;
        record(more, _next, {CSample{2.0, {}, 3.0, {}, {}}});
        _next += 60;
    }
    record(_pump, _next, {4.0});
    EXPECT_EQ(
        rows("SELECT param_1_avg, param_2_min, param_2_avg FROM trends_1_1 WHERE time >= 480"),
        "NULL|2.0|3.0\nNULL|NULL|3.0\nNULL|2.0|NULL\nNULL|2.0|3.0\n4.0|NULL|NULL");
}

// A selection keeps identifiers with five bits more.
TEST_F(recall, records_a_parameter_whose_identifier_is_too_large_to_be_kept)
{
    const auto renumber = [&](int64_t index) {
        const std::string number = std::to_string(intmax_t(index));
        for (const char* period : {"1", "3"})
            run_sql(_file, "ALTER TABLE trends_1_" + std::string(period) + " RENAME COLUMN param_" +
                               std::to_string(intmax_t(_pump._params[0]._index)) +
                               "_avg TO param_" + number + "_avg");
        run_sql(_file, "UPDATE params_1 SET idx = " + number);
        _pump._params[0]._index = index;
    };
    constexpr int64_t LARGEST = INT64_MAX >> 5;
    for (const int64_t index : {LARGEST + 1, LARGEST}) {
        renumber(index);
        for (int i = 0; i < 3; ++i)
            record(_pump, _next + 60 * i, {static_cast<double>(i + 5)});
        _next += 180;
    }
    const std::string column = "param_" + std::to_string(intmax_t(LARGEST)) + "_avg";
    EXPECT_EQ(rows("SELECT time, " + column + " FROM trends_1_1 WHERE time >= 480"),
              "480|5.0\n540|6.0\n600|7.0\n660|5.0\n720|6.0\n780|7.0");
    // 420 with 480 and 540; 600 to 720.
    EXPECT_EQ(rows("SELECT time, " + column + " FROM trends_1_3 WHERE time > 360"),
              "540|4.0\n720|6.0");
}

TEST_F(recall, tells_a_selection_from_one_that_begins_like_it)
{
    const CDeviceParams more = add_params(_pump._device, {param("v", "avg")});
    CDeviceParams both = _pump;
    both._params.push_back(more._params[0]);
    record(_pump, 480, {1.0});
    record(both, 540, {2.0, 3.0});
    have_others_commit();
    record(both, 600, {4.0, 5.0});
    _next = 660;
    EXPECT_EQ(statements_of_next().at(2), INSERT);
    EXPECT_EQ(rows("SELECT param_1_avg, param_2_avg FROM trends_1_1 WHERE time >= 480"),
              "1.0|NULL\n2.0|3.0\n4.0|5.0\n1.0|NULL");
}

TEST_F(recall, finds_a_statement_again_that_the_pool_has_given_up)
{
    open_args args;
    args._create = false;
    args._pool_capacity = 3;  // BEGIN, INSERT and COMMIT
    reopen(args);
    add_period(300, 100);  // so large a ratio that nothing is rolled up
    ASSERT_EQ(_log.remove_period({3, 1}), 0);
    const auto made = [&] {
        const CSnapshot snapshot = snapshot_at(_next);
        _next += 60;
        return allocations::in([&] { EXPECT_EQ(_log.add_trend_data(_pump, snapshot), 0); });
    };
    made();
    made();
    EXPECT_EQ(made(), 0U);

    std::vector<CDeviceProperties> devices;
    ASSERT_EQ(_log.get_devices(devices), 0);  // takes the place of the INSERT
    EXPECT_GT(made(), 0U);
    EXPECT_EQ(made(), 0U);
}

TEST_F(recall, judges_the_identifiers_of_an_unknown_selection)
{
    _pump._params[0]._index = -1;
    EXPECT_REPORTS(add(_next), -1,
                   "int toolkit::trend::CLog::add_trend_data(const "
                   "toolkit::trend::CDeviceParams&, const toolkit::trend::CSnapshot&): Error: "
                   "invalid param id\n");
}

TEST_F(recall, takes_no_large_identifier_for_a_small_one)
{
    // Identifier and aggregates are remembered in one number: these would run over into one that
    // is known.
    const int64_t index = _pump._params[0]._index;
    for (const int bit : {59, 60, 62}) {
        _pump._params[0]._index = index + (int64_t{1} << bit);
        capture_stderr([&] { EXPECT_EQ(add(_next), -1); });
    }
    _pump._params[0]._index = index;
    statements_of_next();
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1 WHERE param_1_avg IS NULL"), "0");
}

TEST_F(recall, takes_no_small_identifier_for_a_large_one)
{
    // As above, where the large one is stored and has been recorded before.
    const int64_t index = _pump._params[0]._index;
    const int64_t large = index + (int64_t{1} << 59);
    run_sql(_file, "ALTER TABLE trends_1_1 ADD COLUMN param_" + std::to_string(large) +
                       "_avg REAL DEFAULT NULL");
    _pump._params[0]._index = large;
    record(_pump, 480, {2.0});
    _pump._params[0]._index = index;
    record(_pump, 540, {3.0});
    EXPECT_EQ(rows("SELECT param_1_avg FROM trends_1_1 WHERE time >= 480"), "NULL\n3.0");
}

// Forgotten --------------------------------------------------------------------------------------

TEST_F(forgetting, follows_what_others_commit)
{
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time = 420");
    record(_pump, 480, {1.0});
    record(_pump, 540, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
    record(_pump, 600, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360\n600");
}

TEST_F(forgetting, asks_again_in_every_transaction)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(next_reads_afresh());
        have_others_commit();
        EXPECT_TRUE(next_reads_afresh());
    }
}

TEST_F(forgetting, follows_what_others_commit_before_a_transaction_reads)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    have_others_commit();
    EXPECT_EQ(statements_of_next().at(1), PERIODS);
    ASSERT_EQ(_log.end_transaction(), 0);
}

TEST_F(forgetting, follows_a_configuration_that_others_change)
{
    run_sql(_file, "DELETE FROM periods");
    EXPECT_REPORTS(add(_next), -1,
                   "int toolkit::trend::CLog::add_trend_data(const "
                   "toolkit::trend::CDeviceParams&, const toolkit::trend::CSnapshot&): Error: no "
                   "configured periods\n");
    run_sql(_file, "INSERT INTO periods VALUES (1, 100), (3, 100); DELETE FROM params_1");
    EXPECT_REPORTS(add(_next), -1,
                   "int toolkit::trend::CLog::add_trend_data(const "
                   "toolkit::trend::CDeviceParams&, const toolkit::trend::CSnapshot&): Error: no "
                   "configured parameters\n");
}

TEST_F(forgetting, follows_what_the_log_itself_writes)
{
    ASSERT_EQ(_log.clear_trend_data(_pump._device, {420, 420}), 1);
    record(_pump, 480, {1.0});
    record(_pump, 540, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
    _next = 600;
    EXPECT_FALSE(next_reads_afresh());
    ASSERT_EQ(_log.modify_device(_pump._device), 0);
    EXPECT_TRUE(next_reads_afresh());
}

TEST_F(forgetting, follows_tables_that_the_log_itself_makes_anew)
{
    // SQLite counts no rows of a table that is dropped. Seven rows and the next one wait then.
    ASSERT_EQ(_log.remove_trend_table({3, 100}, _pump._device), 0);
    ASSERT_EQ(_log.create_trend_table({3, 100}, _pump._device, {}, false), 0);
    record(_pump, 480, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
}

TEST_F(forgetting, follows_a_row_of_another_device_no_more_than_it_must)
{
    const CDeviceParams fan = add_device("fan", {param("u", "avg")});
    record(fan, 60, {1.0});
    record(_pump, 480, {1.0});
    record(fan, 120, {1.0});
    _next = 540;
    EXPECT_FALSE(next_reads_afresh());
}

TEST_F(forgetting, follows_a_rollback)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(_pump, 480, {1.0});
    _log.rollback_transaction();
    record(_pump, 480, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
    record(_pump, 540, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360\n540");
}

TEST_F(forgetting, follows_a_rollback_of_an_inner_level)
{
    // What is read before a refusal must not be taken for known: these have no ratio.
    run_sql(_file, "INSERT INTO periods VALUES (4, 100)");
    ASSERT_EQ(_log.begin_transaction(), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_REPORTS(add(_next), -1,
                       "static int toolkit::trend::CLog::calc_period_ratios(const "
                       "std::vector<toolkit::trend::CPeriodProperties>&, std::vector<long unsigned "
                       "int>&): Error: period ratio too low\n");
    _log.rollback_transaction();
}

TEST_F(forgetting, follows_a_commit_that_is_refused)
{
    {
        refuse_commit refusal;
        EXPECT_REPORTS(add(480), -1, step_and_reset_report(531, "constraint failed"));
    }
    record(_pump, 480, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
}

TEST_F(forgetting, follows_a_commit_that_is_interrupted)
{
    {
        interrupt_step fault("COMMIT");
        EXPECT_REPORTS(add(480), -1, step_and_reset_report(9, "interrupted"));
    }
    record(_pump, 480, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
}

TEST_F(forgetting, follows_a_commit_that_cannot_be_prepared)
{
    open_args args;
    args._create = false;
    args._pool_capacity = 1;
    reopen(args);
    record(_pump, 480, {1.0});
    record(_pump, 540, {1.0});
    record(_pump, 600, {1.0});
    {
        deny_prepare denial("COMMIT");
        capture_stderr([&] { EXPECT_EQ(add(660), -1); });
        EXPECT_TRUE(denial.struck());
    }
    record(_pump, 660, {1.0});
    EXPECT_EQ(rows("SELECT max(time) FROM trends_1_3"), "540");
    record(_pump, 720, {1.0});
    EXPECT_EQ(rows("SELECT max(time) FROM trends_1_3"), "720");
}

TEST_F(forgetting, follows_a_roll_up_whose_parameters_cannot_be_read)
{
    open_args args;
    args._create = false;
    args._pool_capacity = 1;  // which keeps no roll-up
    reopen(args);
    record(_pump, 480, {1.0});
    {
        deny_prepare denial("SELECT * FROM params_1 ORDER BY idx ASC");
        EXPECT_REPORTS(add(540), -1,
                       "int toolkit::trend::CStatement::prepare(const tk_string&): "
                       "sqlite3_prepare(): 1 (no such column: denied)\n");
    }
    EXPECT_EQ(rows("SELECT max(time) FROM trends_1_1"), "480");
    record(_pump, 540, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360\n540");
}

// The last of the rows in the order of the file has a time before 1970, as only a damaged file has.
TEST_F(forgetting, follows_a_group_whose_table_has_no_newest_row)
{
    add_period(12, 100);
    ASSERT_EQ(_log.remove_period({3, 1}), 0);
    run_sql(_file,
            "DELETE FROM trends_1_1 WHERE time > 120; INSERT INTO trends_1_1 VALUES "
            "(9223372036854775807, 100.0, 1.0)");
    for (time_t time = 130; time < 210; time += 10)
        run_sql(_file, "INSERT INTO trends_1_1 VALUES (" + std::to_string(time) + ", 100.0, 1.0)");
    _log.close();
    std::string bytes = file_bytes(_file);
    const std::string largest = "\xbf\xff\xff\xff\xff\xff\xff\xff\xff";
    const size_t at = bytes.rfind(largest);
    ASSERT_NE(at, std::string::npos);
    bytes[at] = '\xff';  // with the last byte the sign and the value: -2
    bytes[at + 8] = '\xfe';
    std::ofstream(_file, std::ios::binary) << bytes;
    open();
    // 60, 120, eight rows, the one of -2, and the new one.
    EXPECT_QUIET(add(65), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_12"), "200");
}

TEST_F(forgetting, follows_rows_changed_on_the_raw_handle)
{
    run_on_handle("DELETE FROM trends_1_1 WHERE time = 420");
    record(_pump, 480, {1.0});
    record(_pump, 540, {1.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");

    ASSERT_EQ(_log.begin_transaction(), 0);
    run_on_handle("DELETE FROM trends_1_1 WHERE time = 540");
    record(_pump, 600, {1.0});
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_3"), "180\n360");
}

TEST_F(forgetting, fails_as_the_first_read_would_where_the_version_cannot_be_read)
{
    const std::string before = dump();
    interrupt_step fault(VERSION);
    EXPECT_REPORTS(add(_next), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
    EXPECT_TRUE(next_reads_afresh());
}

TEST_F(forgetting, leaves_nothing_where_the_version_of_the_first_snapshot_cannot_be_read)
{
    reopen();
    const std::string before = dump();
    {
        deny_prepare denial(VERSION);
        EXPECT_REPORTS(add(_next), -1,
                       "int toolkit::trend::CStatement::prepare(const tk_string&): "
                       "sqlite3_prepare(): 1 (no such column: denied)\n");
    }
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(next_reads_afresh());
    EXPECT_FALSE(next_reads_afresh());
}

TEST_F(forgetting, follows_memory_that_runs_out_anywhere)
{
    bool reached = true;
    for (size_t n = 1; reached; ++n) {
        have_others_commit();
        const CSnapshot snapshot = snapshot_at(_next);
        int code = 0;
        capture_stderr([&] {
            const allocations::fail_at fault(n);
            code = _log.add_trend_data(_pump, snapshot);
            reached = fault.reached();
        });
        EXPECT_EQ(code, reached ? -1 : 0);
        if (reached) record(_pump, _next, {1.0});
        _next += 60;
    }
    EXPECT_GT(_next, 480 + 5 * 60);
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_3"), std::to_string((_next - 60) / 60 / 3));
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_3 WHERE time % 180 != 0"), "0");
}

// Bounded ----------------------------------------------------------------------------------------

TEST_F(bound, four_selections_of_a_device_are_remembered)
{
    const CDeviceParams all =
        add_params(_pump._device, {param("a", "avg"), param("b", "avg"), param("c", "avg"),
                                   param("d", "avg"), param("e", "avg")});
    // One after the other, then again: five are one too many, and a text has to be made each time.
    const auto texts_made = [&](size_t selections) {
        size_t largest = 0;
        for (int turn = 0; turn < 3; ++turn)
            for (size_t i = 0; i < selections; ++i) {
                CDeviceParams one = _pump;
                one._params = {all._params[i]};
                const CSnapshot snapshot = snapshot_at(_next);
                _next += 60;
                const size_t made =
                    allocations::in([&] { EXPECT_EQ(_log.add_trend_data(one, snapshot), 0); });
                if (turn == 2) largest = std::max(largest, made);
            }
        return largest;
    };
    EXPECT_EQ(texts_made(4), 0U);
    EXPECT_GT(texts_made(5), 0U);
}

TEST_F(bound, the_oldest_selection_makes_room)
{
    const CDeviceParams all =
        add_params(_pump._device, {param("a", "avg"), param("b", "avg"), param("c", "avg"),
                                   param("d", "avg"), param("e", "avg")});
    const auto made = [&](size_t i) {
        CDeviceParams one = _pump;
        one._params = {all._params[i]};
        const CSnapshot snapshot = snapshot_at(_next);
        _next += 60;
        return allocations::in([&] { EXPECT_EQ(_log.add_trend_data(one, snapshot), 0); });
    };
    for (size_t i = 0; i < 5; ++i)
        made(i);
    for (size_t i = 1; i < 5; ++i)
        EXPECT_EQ(made(i), 0U) << i;
    EXPECT_GT(made(0), 0U);
}
