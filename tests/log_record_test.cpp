// Recording snapshots, and where to resume.

#include <sqlite3.h>

#include <cmath>
#include <thread>

#include "count_changes.h"
#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"
#include "widths.h"

namespace {

const std::string ADD_TREND_DATA =
    "int toolkit::trend::CLog::add_trend_data(const toolkit::trend::CDeviceParams&, const "
    "toolkit::trend::CSnapshot&)";
const std::string GET_LATEST_TIMESTAMP =
    "int toolkit::trend::CLog::get_latest_timestamp(const toolkit::trend::CDeviceProperties&, "
    "time_t&)";
const std::string CALC_PERIOD_RATIOS =
    "static int toolkit::trend::CLog::calc_period_ratios(const "
    "std::vector<toolkit::trend::CPeriodProperties>&, std::vector<long unsigned int>&)";

const std::string PERIODS = "SELECT * FROM periods";
const std::string PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx ASC";
const std::string NEWEST_1_1 = "SELECT max(time) FROM trends_1_1";

class recording_log : public log_fixture {
protected:
    static CSnapshot snapshot(time_t time, std::vector<CSample> samples, double percent_valid = 100)
    {
        CSnapshot made;
        made._time = time;
        made._percent_valid = percent_valid;
        made._samples = std::move(samples);
        return made;
    }

    int add(const CDeviceParams& data, time_t time, std::vector<CSample> samples)
    {
        return _log.add_trend_data(data, snapshot(time, std::move(samples)));
    }

    // A device with the one parameter "u" that keeps its average, and these periods.
    CDeviceParams pump(std::initializer_list<CPeriodProperties> periods)
    {
        add_periods(periods);
        return add_device("pump", {param("u", "avg")});
    }

    // Refused with one line by this operation, nothing left behind.
    void expect_refused(const CDeviceParams& data, const CSnapshot& row, const std::string& why,
                        const std::string& who = ADD_TREND_DATA)
    {
        const std::string before = dump();
        EXPECT_REPORTS(_log.add_trend_data(data, row), -1, who + ": Error: " + why + "\n");
        EXPECT_EQ(dump(), before);
        EXPECT_TRUE(at_level_0());
    }
};

using add_trend_data = recording_log;

// What is written -------------------------------------------------------------------------------

TEST_F(add_trend_data, stores_one_row_in_the_finest_table)
{
    const CDeviceParams device = pump({{15, 100}, {1, 100}, {60, 100}});
    EXPECT_QUIET(_log.add_trend_data(device, snapshot(60, {avg(2.5)}, 75)), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|75.0|2.5");
    EXPECT_EQ(rows("SELECT * FROM trends_1_15"), "");
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "");
}

TEST_F(add_trend_data, stores_each_kept_aggregate_in_its_column)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("u", "min max avg actual sum")});
    EXPECT_QUIET(add(device, 60, {{1.0, 2.0, 3.0, 4.0, 5.0}}), 0);
    EXPECT_EQ(rows("SELECT time, param_1_min, param_1_max, param_1_avg, param_1_actual, "
                   "param_1_sum FROM trends_1_1"),
              "60|1.0|2.0|3.0|4.0|5.0");
}

TEST_F(add_trend_data, ignores_values_that_are_not_kept)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("u", "max sum"), pf("phi", "actual")});
    EXPECT_QUIET(add(device, 60, {{1.0, 2.0, 3.0, 4.0, 5.0}, {0.1, 0.2, 0.3, 0.4, 0.5}}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|2.0|5.0|0.4");
}

TEST_F(add_trend_data, stores_absent_values_as_null)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("u", "min max avg"), param("v", "avg")});
    EXPECT_QUIET(add(device, 60, {max(2), avg(NAN)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|NULL|2.0|NULL|NULL");
}

TEST_F(add_trend_data, stores_any_number_as_a_real_to_the_last_bit)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("u", "min max avg actual sum")});
    EXPECT_QUIET(add(device, 60, {{0.1, -0.0, 4e-324, INFINITY, 1.0}}), 0);
    CDeviceData read;
    ASSERT_EQ(_log.get_trend_data(read, device, {}, {-1, -1}, 0, 0, true, false), 0);
    const CSample& sample = read._snapshots.at(0)._samples.at(0);
    EXPECT_EQ(*sample._min, 0.1);
    EXPECT_EQ(*sample._max, 0.0);
    EXPECT_EQ(*sample._avg, 4e-324);
    EXPECT_EQ(*sample._actual, INFINITY);
    EXPECT_EQ(rows("SELECT typeof(param_1_sum), typeof(percent_valid) FROM trends_1_1"),
              "real|real");
}

TEST_F(add_trend_data, follows_the_order_of_the_callers_parameters)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "min avg"), param("v", "avg")});
    std::swap(device._params[0], device._params[1]);
    EXPECT_QUIET(add(device, 60, {avg(9), {1.0, {}, 2.0, {}, {}}}), 0);
    EXPECT_EQ(rows("SELECT param_1_min, param_1_avg, param_2_avg FROM trends_1_1"), "1.0|2.0|9.0");
}

TEST_F(add_trend_data, leaves_parameters_that_are_not_named_absent)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "avg"), param("v", "min max")});
    device._params.pop_back();
    EXPECT_QUIET(add(device, 60, {avg(1)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|1.0|NULL|NULL");
}

TEST_F(add_trend_data, leaves_aggregates_that_are_not_named_absent)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "min max avg")});
    device._params[0]._has_max = false;
    EXPECT_QUIET(add(device, 60, {{1.0, 2.0, 3.0, {}, {}}}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|1.0|NULL|3.0");
}

TEST_F(add_trend_data, ignores_the_period_of_the_snapshot)
{
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    CSnapshot row = snapshot(60, {avg(1)});
    row._period = 15;
    EXPECT_QUIET(_log.add_trend_data(device, row), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60");
    EXPECT_EQ(rows("SELECT time FROM trends_1_15"), "");
}

TEST_F(add_trend_data, takes_time_0)
{
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    EXPECT_QUIET(add(device, 0, {avg(1)}), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "0");
}

// The cutoff does not go below 0, and the row at the cutoff goes.
TEST_F(add_trend_data, time_0_is_trimmed_at_once_from_the_coarsest_period)
{
    const CDeviceParams device = pump({{1, 100}});
    EXPECT_QUIET(add(device, 0, {avg(1)}), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "");
}

// No log gives this number, but it is a number like any other.
TEST_F(add_trend_data, identifier_0_is_one)
{
    CDeviceParams device = pump({{1, 100}, {15, 100}});
    run_sql(_file,
            "UPDATE devices SET idx = 0; "
            "UPDATE params_1 SET idx = 0; "
            "ALTER TABLE params_1 RENAME TO params_0; "
            "ALTER TABLE trends_1_1 RENAME TO trends_0_1; "
            "ALTER TABLE trends_0_1 RENAME COLUMN param_1_avg TO param_0_avg; "
            "ALTER TABLE trends_1_15 RENAME TO trends_0_15; "
            "ALTER TABLE trends_0_15 RENAME COLUMN param_1_avg TO param_0_avg");
    device._device._index = 0;
    device._params[0]._index = 0;
    EXPECT_QUIET(add(device, 60, {avg(1)}), 0);
    EXPECT_QUIET(_log.fill_blank_values(device._device, 120, false), 0);
    CDeviceData data;
    EXPECT_QUIET(_log.get_trend_data(data, device, {}, {-1, -1}, 0, 0, true, true), 0);
    ASSERT_EQ(data._snapshots.size(), 2U);
    EXPECT_EQ(*data._snapshots[0]._samples[0]._avg, 1.0);
    EXPECT_QUIET(_log.modify_params(device._device, {device._params}), 0);
    EXPECT_QUIET(_log.clear_trend_data(device._device, {-1, -1}), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM trends_0_1"), "0");
}

#if TREND_WIDE_TIMES
TEST_F(add_trend_data, takes_times_beyond_32_bits)
{
    const CDeviceParams device = pump({{1, 100}});
    EXPECT_QUIET(add(device, static_cast<time_t>(int64_t{5000000000}), {avg(1)}), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "5000000000");
}
#endif

TEST_F(add_trend_data, takes_a_time_before_the_newest_one)
{
    const CDeviceParams device = pump({{1, 100}});
    EXPECT_QUIET(add(device, 120, {avg(2)}), 0);
    EXPECT_QUIET(add(device, 60, {avg(1)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|1.0\n120|100.0|2.0");
}

TEST_F(add_trend_data, does_not_fill_gaps)
{
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    EXPECT_QUIET(add(device, 60, {avg(1)}), 0);
    EXPECT_QUIET(add(device, 600, {avg(2)}), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n600");
}

TEST_F(add_trend_data, writes_to_the_device_named_only)
{
    add_period(1, 100);
    const CDeviceParams first = add_device("pump", {param("u", "avg")});
    const CDeviceParams second = add_device("fan", {param("u", "avg")});
    EXPECT_QUIET(add(second, 60, {avg(7)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "");
    EXPECT_EQ(rows("SELECT * FROM trends_2_1"), "60|100.0|7.0");
}

TEST_F(add_trend_data, rolls_up_the_stored_parameters_and_not_the_callers)
{
    add_periods({{1, 100}, {2, 100}});
    const CDeviceParams both = add_device("pump", {param("u", "avg"), param("v", "max")});
    CDeviceParams first = both;
    first._params.pop_back();
    EXPECT_QUIET(add(both, 60, {avg(1), max(5)}), 0);
    EXPECT_QUIET(add(first, 120, {avg(3)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|100.0|2.0|5.0");
}

TEST_F(add_trend_data, follows_the_configuration_from_one_snapshot_to_the_next)
{
    CDeviceParams device = pump({{2, 100}});
    EXPECT_QUIET(add(device, 120, {avg(1)}), 0);

    // A finer period takes over, and a second parameter has no value in the older row.
    add_period(1, 100);
    device._params.push_back(add_params(device._device, {param("v", "sum")})._params[0]);
    EXPECT_QUIET(add(device, 180, {avg(3), sum(4)}), 0);
    EXPECT_QUIET(add(device, 240, {avg(5), sum(6)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "180|100.0|3.0|4.0\n240|100.0|5.0|6.0");
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|100.0|1.0|NULL\n240|100.0|4.0|10.0");

    device._params.erase(device._params.begin());
    ASSERT_EQ(_log.remove_period({1, 100}), 0);
    EXPECT_QUIET(add(device, 360, {sum(7)}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2 WHERE time > 240"), "360|100.0|NULL|7.0");
}

// Which statements run ----------------------------------------------------------------------------

TEST_F(add_trend_data, insert_names_the_columns_of_the_callers_parameters)
{
    add_period(1, 100);
    for (const char* path : {"first", "second", "third"})
        add_device(path);
    const CDeviceParams device = add_device("fourth", {param("u", "min max"), param("v", "sum")});

    statement_trace trace;
    EXPECT_EQ(add(device, 60, {{1.0, 2.0, {}, {}, {}}, sum(3)}), 0);
    const std::string text =
        "INSERT INTO trends_4_1 (time, percent_valid, param_1_min, param_1_max, param_2_sum) "
        "VALUES (?,?,?,?,?)";
    EXPECT_EQ(trace.times_run(text), 1) << testing::PrintToString(trace.texts());
}

TEST_F(add_trend_data, insert_has_one_placeholder_for_a_single_aggregate)
{
    add_period(15, 100);
    const CDeviceParams device = add_device("pump", {param("u", "sum")});
    statement_trace trace;
    EXPECT_EQ(add(device, 900, {sum(3)}), 0);
    EXPECT_EQ(trace.times_run("INSERT INTO trends_1_15 (time, percent_valid, param_1_sum) VALUES "
                              "(?,?,?)"),
              1)
        << testing::PrintToString(trace.texts());
}

TEST_F(add_trend_data, insert_binds_values_in_order)
{
    add_period(1, 100);
    const CDeviceParams device =
        add_device("pump", {param("u", "min max avg actual sum"), pf("phi", "min actual")});
    statement_trace trace;
    EXPECT_EQ(add(device, 60, {{1.5, 2.5, 3.5, {}, 5.5}, {-0.5, {}, {}, 0.25, {}}}), 0);
    EXPECT_EQ(trace.expanded().at(3),
              "INSERT INTO trends_1_1 (time, percent_valid, param_1_min, param_1_max, param_1_avg, "
              "param_1_actual, param_1_sum, param_2_min, param_2_actual) VALUES "
              "(60,100.0,1.5,2.5,3.5,NULL,5.5,-0.5,0.25)");
}

TEST_F(add_trend_data, runs_one_transaction)
{
    const CDeviceParams device = pump({{1, 100}});
    statement_trace trace;
    EXPECT_EQ(add(device, 60, {avg(1)}), 0);
    EXPECT_EQ(
        trace.texts(),
        (texts_t{"BEGIN", PERIODS, PARAMS_1,
                 "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES (?,?,?)",
                 NEWEST_1_1, "SELECT min(time) FROM trends_1_1", "PRAGMA data_version", "COMMIT"}));
}

TEST_F(add_trend_data, prepares_nothing_the_second_time)
{
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    EXPECT_EQ(add(device, 60, {avg(1)}), 0);
    statement_trace trace;
    EXPECT_EQ(add(device, 120, {avg(2)}), 0);
    EXPECT_EQ(trace.prepared(), texts_t{});
}

TEST_F(add_trend_data, each_selection_of_parameters_has_its_own_statement_in_the_pool)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceParams both = add_device("pump", {param("u", "avg"), param("v", "avg")});
    CDeviceParams first = both;
    first._params.pop_back();

    statement_trace trace;
    for (time_t time = 60; time <= 480; time += 120) {
        EXPECT_EQ(add(both, time, {avg(1), avg(2)}), 0);
        EXPECT_EQ(add(first, time + 60, {avg(1)}), 0);
    }
    const std::string insert = "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg";
    EXPECT_EQ(trace.times_prepared(insert + ", param_2_avg) VALUES (?,?,?,?)"), 1);
    EXPECT_EQ(trace.times_prepared(insert + ") VALUES (?,?,?)"), 1);
    EXPECT_EQ(trace.times_run(insert + ") VALUES (?,?,?)"), 4);
}

// Refusals
// ------------------------------------------------------------------------------------------

TEST_F(add_trend_data, checks_its_arguments_in_order_before_it_touches_the_file)
{
    CDeviceParams data;
    CSnapshot row = snapshot(-2, {avg(1), avg(2)});
    const auto refused = [&](const std::string& why) {
        statement_trace trace;
        EXPECT_REPORTS(_log.add_trend_data(data, row), -1,
                       ADD_TREND_DATA + ": Error: " + why + "\n");
        EXPECT_EQ(trace.texts(), texts_t{});
        EXPECT_EQ(trace.prepared(), texts_t{});
    };

    _log.close();
    refused("DB not open");
    open();
    refused("empty param list");
    data._params.resize(3);
    refused("empty device path");
    data._device._path = "pump";
    refused("invalid device id");
    data._device._index = 0;
    refused("invalid timestamp");
    row._time = -1;
    refused("invalid timestamp");
    row._time = 0;
    refused("bad sample size");
    row._samples.resize(4);
    refused("bad sample size");
}

TEST_F(add_trend_data, checks_the_configuration_in_order_within_its_transaction)
{
    CDeviceParams data;
    data._device = add_device("pump");
    data._params.resize(1);
    const CSnapshot row = snapshot(60, {avg(1)});
    expect_refused(data, row, "no configured periods");

    add_periods({{10, 100}, {15, 100}});
    expect_refused(data, row, "period ratio too low", CALC_PERIOD_RATIOS);
    add_period(4, 100);
    ASSERT_EQ(_log.remove_period({15, 100}), 0);
    expect_refused(data, row, "oddball period ratio", CALC_PERIOD_RATIOS);
    ASSERT_EQ(_log.remove_period({4, 100}), 0);
    expect_refused(data, row, "no configured parameters");

    add_params(data._device, {param("u", "avg")});
    expect_refused(data, row, "invalid param id");
}

TEST_F(add_trend_data, rolls_back_when_a_parameter_is_not_stored)
{
    CDeviceParams device = pump({{1, 100}});
    device._params.push_back(param("v", "avg"));
    statement_trace trace;
    EXPECT_REPORTS(add(device, 60, {avg(1), avg(2)}), -1,
                   ADD_TREND_DATA + ": Error: invalid param id\n");
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", PERIODS, PARAMS_1, "ROLLBACK"}));
}

TEST_F(add_trend_data, reports_the_text_of_an_insert_that_cannot_be_prepared)
{
    CDeviceParams device = pump({{1, 100}});
    device._params[0]._index = 99;
    const std::string before = dump();
    EXPECT_REPORTS(add(device, 60, {avg(1)}), -1,
                   prepare_report("table trends_1_1 has no column named param_99_avg") +
                       "Can't prepare SQL (1): 'INSERT INTO trends_1_1 (time, percent_valid, "
                       "param_99_avg) VALUES (?,?,?)'\n");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(add_trend_data, refuses_an_aggregate_that_the_stored_parameter_does_not_keep)
{
    CDeviceParams device = pump({{1, 100}});
    device._params[0]._has_max = true;
    EXPECT_REPORTS(add(device, 60, {avg(1)}), -1,
                   prepare_report("table trends_1_1 has no column named param_1_max") +
                       "Can't prepare SQL (1): 'INSERT INTO trends_1_1 (time, percent_valid, "
                       "param_1_max, param_1_avg) VALUES (?,?,?,?)'\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(add_trend_data, device_that_is_not_stored_has_no_parameters_to_read)
{
    CDeviceParams device = pump({{1, 100}});
    device._device._index = 2;
    EXPECT_REPORTS(add(device, 60, {avg(1)}), -1, prepare_report("no such table: params_2"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(add_trend_data, refuses_a_time_that_is_stored_and_leaves_nothing_of_the_call)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    record(device, 60, {1.0});
    record(device, 120, {2.0});
    const std::string before = dump();
    EXPECT_REPORTS(add(device, 120, {avg(3)}), -1,
                   step_and_reset_report(1555, "UNIQUE constraint failed: trends_1_1.time"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(add_trend_data, is_usable_after_a_refused_time)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {1.0});
    capture_stderr([&] { EXPECT_EQ(add(device, 60, {avg(2)}), -1); });
    record(device, 120, {3.0});
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|1.0\n120|100.0|3.0");
}

TEST_F(add_trend_data, passes_on_an_insert_that_returns_a_row)
{
    const CDeviceParams device = pump({{1, 100}});
    const std::string before = dump();
    count_changes fault;
    EXPECT_QUIET(add(device, 60, {avg(1)}), 1);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(add_trend_data, leaves_no_fine_row_when_the_rollup_fails)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    record(device, 60, {1.0});
    run_sql(_file,
            "CREATE TRIGGER full BEFORE INSERT ON trends_1_2 BEGIN SELECT RAISE(ABORT, 'full'); "
            "END");
    const std::string before = dump();
    capture_stderr([&] { EXPECT_EQ(add(device, 120, {avg(2)}), -1); });
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(add_trend_data, leaves_nothing_when_the_commit_is_refused)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    record(device, 60, {1.0});
    const std::string before = dump();
    {
        refuse_commit refusal;
        EXPECT_REPORTS(add(device, 120, {avg(2)}), -1,
                       step_and_reset_report(531, "constraint failed"));
    }
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
    record(device, 120, {2.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_2"), "120");
}

TEST_F(add_trend_data, fails_rather_than_follow_a_list_that_was_cut_short)
{
    // With the first period only it would store the row and forget the coarser table.
    CDeviceParams device = pump({{1, 100}, {2, 100}});
    device._params.push_back(add_params(device._device, {param("v", "avg")})._params[0]);
    record(device, 60, {1.0, 1.0});
    const std::string before = dump();
    for (const std::string& list : {PERIODS, PARAMS_1})
        for (int at_row = 1; at_row <= 3; ++at_row) {
            have_others_commit();
            interrupt_step fault(list, at_row);
            SCOPED_TRACE(list + " at row " + std::to_string(at_row));
            EXPECT_REPORTS(add(device, 120, {avg(2), avg(2)}), -1,
                           step_and_reset_report(9, "interrupted"));
            EXPECT_EQ(dump(), before);
        }
    EXPECT_TRUE(at_level_0());
}

// Within a host's own transaction
// -------------------------------------------------------------------

TEST_F(add_trend_data, rows_of_one_host_transaction_appear_together)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    for (time_t time = 60; time <= 240; time += 60)
        record(device, time, {1.0});
    EXPECT_EQ(dump(), before);
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n120\n180\n240");
    EXPECT_EQ(rows("SELECT time FROM trends_1_2"), "120\n240");
}

TEST_F(add_trend_data, host_can_configure_and_record_in_one_transaction_and_give_it_all_up)
{
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {1.0});
    add_period(2, 100);
    const CDeviceParams fan = add_device("fan", {param("u", "max")});
    record(fan, 60, {5.0});
    record(device, 120, {2.0});
    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
}

TEST_F(add_trend_data, host_can_configure_and_record_in_one_transaction_and_keep_it)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {1.0});
    add_period(2, 100);
    const CDeviceParams fan = add_device("fan", {param("u", "max")});
    record(fan, 60, {5.0});
    record(device, 120, {2.0});
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|100.0|1.5");
    EXPECT_EQ(rows("SELECT * FROM trends_2_1"), "60|100.0|5.0");
}

TEST_F(add_trend_data, inner_rollback_keeps_the_outer_work)
{
    const CDeviceParams device = pump({{1, 100}});
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 60, {1.0});
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 120, {2.0});
    _log.rollback_transaction();
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n120");
}

TEST_F(add_trend_data, refusal_within_a_host_transaction_leaves_its_level_and_its_work)
{
    const CDeviceParams device = pump({{1, 100}});
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 60, {1.0});
    statement_trace trace;
    EXPECT_REPORTS(add(device, 60, {avg(2)}), -1,
                   step_and_reset_report(1555, "UNIQUE constraint failed: trends_1_1.time"));
    EXPECT_EQ(trace.times_run("ROLLBACK"), 0);
    record(device, 120, {3.0});
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|1.0\n120|100.0|3.0");
}

TEST_F(add_trend_data, host_that_commits_after_a_failure_keeps_half_of_the_call)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    record(device, 60, {1.0});
    run_sql(_file,
            "CREATE TRIGGER full BEFORE INSERT ON trends_1_2 BEGIN SELECT RAISE(ABORT, 'full'); "
            "END");
    ASSERT_EQ(_log.begin_transaction(), 0);
    capture_stderr([&] { EXPECT_EQ(add(device, 120, {avg(2)}), -1); });
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n120");
    EXPECT_EQ(rows("SELECT time FROM trends_1_2"), "");
}

TEST_F(add_trend_data, refuses_to_go_on_in_a_transaction_that_sqlite_has_dropped)
{
    const CDeviceParams device = pump({{1, 100}});
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 60, {1.0});
    {
        interrupt_step fault(
            "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES (?,?,?)");
        EXPECT_REPORTS(add(device, 120, {avg(2)}), -1, step_and_reset_report(9, "interrupted"));
    }

    // Recorded by itself, this row would be in the file at once.
    EXPECT_REPORTS(add(device, 180, {avg(3)}), -1, step_report(516, "abort due to ROLLBACK"));
    capture_stderr([&] { EXPECT_NE(_log.end_transaction(), 0); });
    EXPECT_EQ(dump(), before);

    EXPECT_TRUE(at_level_0());
    record(device, 240, {4.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "240");
}

// Where to resume
// -------------------------------------------------------------------------------------

TEST_F(add_trend_data, refuses_an_infinite_share_of_validity)
{
    const CDeviceParams device = pump({{1, 100}});
    for (const double infinite : {INFINITY, -INFINITY})
        expect_refused(device, snapshot(60, {avg(1.0)}, infinite), "invalid percent_valid");
}

// Two logs in two threads at once, as different as they can be: neither sees the other's lists.
TEST_F(add_trend_data, of_two_logs_goes_on_in_two_threads)
{
    const auto record_all = [](const std::string& file, size_t params, unsigned long coarse) {
        CLog log;
        int failed = open_log(log, file);
        failed |= log.add_period(CPeriodProperties(1, 1000));
        failed |= log.add_period(CPeriodProperties(coarse, 1000));
        CDeviceParams device;
        device._device._path = "pump";
        failed |= log.add_device(device._device);
        for (size_t i = 0; i < params; ++i)
            device._params.push_back(param("parameter number " + std::to_string(i), "avg"));
        failed |= log.add_params(device._device, device._params);
        failed |= log.begin_transaction();
        for (int minute = 1; minute <= 300; ++minute) {
            CSnapshot row;
            row._time = minute * 60;
            row._samples.assign(params, avg(1.0));
            row._percent_valid = 100.0;
            failed |= log.add_trend_data(device, row);
        }
        return failed | log.end_transaction();
    };
    int few = -1;
    std::thread other([&] { few = record_all("few.db", 1, 2); });
    const int many = record_all("many.db", 30, 50);
    other.join();

    EXPECT_EQ(few, 0);
    EXPECT_EQ(many, 0);
    EXPECT_EQ(::rows("few.db", "SELECT count(param_1_avg) FROM trends_1_2"), "150");
    EXPECT_EQ(::rows("many.db", "SELECT count(param_30_avg) FROM trends_1_50"), "6");
}

// Records into another log while the first one's row is on its way, as a host can from a callback
// of SQLite's.
class record_inside : public sqlite_watch {
public:
    record_inside(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& device)
        : _log(log), _device(device)
    {
    }

    void before_step(sqlite3_stmt* stmt) override
    {
        const std::string sql = sqlite3_sql(stmt);
        if (_done || sql.rfind("INSERT INTO trends_1_1 ", 0) != 0) return;
        _done = true;
        const unwatched inside;
        toolkit::trend::CSnapshot row;
        row._time = 120;
        row._percent_valid = 100.0;
        row._samples = {avg(7.0), avg(8.0)};
        EXPECT_QUIET(_log.add_trend_data(_device, row), 0);
    }

private:
    toolkit::trend::CLog& _log;
    const toolkit::trend::CDeviceParams& _device;
    bool _done = false;
};

TEST_F(add_trend_data, inside_that_of_another_log_has_lists_of_its_own)
{
    CLog other;
    ASSERT_EQ(open_log(other, "other.db"), 0);
    ASSERT_EQ(other.add_period(CPeriodProperties(2, 100)), 0);
    CDeviceParams fan;
    fan._device._path = "fan";
    fan._params = {param("n", "avg"), param("m", "avg")};
    ASSERT_EQ(other.add_device(fan._device), 0);
    ASSERT_EQ(other.add_params(fan._device, fan._params), 0);
    const CDeviceParams device = pump({{1, 100}, {3, 100}});
    record(device, 60, {1.0});
    record(device, 120, {2.0});
    {
        const record_inside watch(other, fan);
        EXPECT_QUIET(add(device, 180, {avg(3.0)}), 0);
    }
    EXPECT_EQ(rows("SELECT * FROM trends_1_3"), "180|100.0|2.0");
    EXPECT_EQ(::rows("other.db", "SELECT * FROM trends_1_2"), "120|100.0|7.0|8.0");
}

class get_latest_timestamp : public recording_log {
protected:
    time_t latest(const CDeviceProperties& device)
    {
        time_t timestamp = 4711;
        EXPECT_QUIET(_log.get_latest_timestamp(device, timestamp), 0);
        return timestamp;
    }
};

TEST_F(get_latest_timestamp, is_minus_1_for_an_empty_table)
{
    EXPECT_EQ(latest(pump({{1, 100}})._device), -1);
}

TEST_F(get_latest_timestamp, is_the_newest_time_whatever_was_recorded_last)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {1.0});
    record(device, 180, {3.0});
    record(device, 120, {2.0});
    EXPECT_EQ(latest(device._device), 180);
}

TEST_F(get_latest_timestamp, looks_at_the_finest_period_only)
{
    CDeviceParams device = pump({{2, 100}});
    record(device, 120, {1.0});
    EXPECT_EQ(latest(device._device), 120);
    add_period(1, 100);
    EXPECT_EQ(latest(device._device), -1);
}

TEST_F(get_latest_timestamp, needs_no_parameters)
{
    add_period(1, 100);
    EXPECT_EQ(latest(add_device("pump")), -1);
}

TEST_F(get_latest_timestamp, lets_a_host_resume_after_a_restart)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    for (time_t time = 60; time <= 180; time += 60)
        record(device, time, {1.0});
    reopen();

    std::vector<CDeviceProperties> devices;
    ASSERT_EQ(_log.get_devices(devices), 0);
    CDeviceParams found;
    found._device = devices.at(0);
    ASSERT_EQ(_log.get_params(found._device, found._params), 0);
    const time_t last = latest(found._device);
    EXPECT_EQ(last, 180);
    record(found, last + 60, {2.0});
    record(found, last + 120, {2.0});
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "5");
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "300|100.0|1.4");
}

TEST_F(get_latest_timestamp, runs_these_statements_from_the_pool)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    latest(device._device);
    statement_trace trace;
    latest(device._device);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", PERIODS, NEWEST_1_1, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{});
}

TEST_F(get_latest_timestamp, sees_what_the_hosts_transaction_has_recorded)
{
    const CDeviceParams device = pump({{1, 100}});
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 60, {1.0});
    EXPECT_EQ(latest(device._device), 60);
    _log.rollback_transaction();
    EXPECT_EQ(latest(device._device), -1);
}

TEST_F(get_latest_timestamp, checks_its_arguments_in_order_before_it_touches_the_file)
{
    CDeviceProperties device;
    time_t timestamp = 4711;
    const auto refused = [&](const std::string& why) {
        statement_trace trace;
        EXPECT_REPORTS(_log.get_latest_timestamp(device, timestamp), -1,
                       GET_LATEST_TIMESTAMP + ": Error: " + why + "\n");
        EXPECT_EQ(trace.texts(), texts_t{});
    };

    _log.close();
    refused("DB not open");
    open();
    refused("empty device path");
    device._path = "pump";
    refused("invalid device id");
}

TEST_F(get_latest_timestamp, refuses_a_log_without_periods)
{
    const CDeviceProperties device = add_device("pump");
    time_t timestamp = 4711;
    EXPECT_REPORTS(_log.get_latest_timestamp(device, timestamp), -1,
                   GET_LATEST_TIMESTAMP + ": Error: no configured periods\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_latest_timestamp, fails_for_a_device_that_is_not_stored)
{
    CDeviceParams device = pump({{1, 100}});
    device._device._index = 0;
    time_t timestamp = 4711;
    EXPECT_REPORTS(_log.get_latest_timestamp(device._device, timestamp), -1,
                   prepare_report("no such table: trends_0_1"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_latest_timestamp, passes_on_a_time_that_is_no_number)
{
    const CDeviceParams device = pump({{1, 100}});
    run_sql(_file, "DROP TABLE trends_1_1; CREATE VIEW trends_1_1 AS SELECT 'noon' AS time");
    time_t timestamp = 4711;
    EXPECT_REPORTS(_log.get_latest_timestamp(device._device, timestamp), 1,
                   "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: Column "
                   "type is non-int\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_latest_timestamp, unread_time_is_a_failure_and_not_an_empty_table)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {1.0});
    time_t timestamp = 4711;
    interrupt_step fault(NEWEST_1_1);
    EXPECT_REPORTS(_log.get_latest_timestamp(device._device, timestamp), -1,
                   step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_latest_timestamp, fails_rather_than_follow_a_list_that_was_cut_short)
{
    // Periods come as they are stored; the finest is known with the last one only.
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    reopen();
    time_t timestamp = 4711;
    for (int at_row = 1; at_row <= 3; ++at_row) {
        SCOPED_TRACE(at_row);
        interrupt_step fault(PERIODS, at_row);
        EXPECT_REPORTS(_log.get_latest_timestamp(device._device, timestamp), -1,
                       step_and_reset_report(9, "interrupted"));
    }
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_latest_timestamp, passes_on_a_refused_commit)
{
    const CDeviceParams device = pump({{1, 100}});
    time_t timestamp = 4711;
    {
        refuse_commit refusal;
        EXPECT_REPORTS(_log.get_latest_timestamp(device._device, timestamp), -1,
                       step_and_reset_report(9, "interrupted"));
    }
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(latest(device._device), -1);
}

TEST_F(get_latest_timestamp, period_of_0_minutes_is_stopped)
{
    // Stored periods are read as their low 32 bits.
    const CDeviceParams device = pump({{1, 100}});
    run_sql(_file, "UPDATE periods SET period = 4294967296");
    time_t timestamp = 0;
    EXPECT_STOPS(_log.get_latest_timestamp(device._device, timestamp), "periods[0]._period!=0");
}

TEST_F(get_latest_timestamp, newest_row_before_the_epoch_is_stopped)
{
    const CDeviceParams device = pump({{1, 100}});
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (-5, 0.0, NULL)");
    time_t timestamp = 0;
    EXPECT_STOPS(_log.get_latest_timestamp(device._device, timestamp),
                 "timestamp>=static_cast<time_t>(-1)");
}

}  // namespace
