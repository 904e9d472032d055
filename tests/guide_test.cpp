// What the host's guide says follows from the design.

#include <gtest/gtest.h>

#include <cmath>

#include "faults.h"
#include "log_fixture.h"

#define main keep_the_grid_main
#include "../examples/keep_the_grid.cpp"
#undef main

using namespace toolkit::trend;

namespace {

constexpr time_t MINUTE = 60;

class guide : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 1000}, {15, 1000}});
    }

    // One row a minute, from the first up to the last.
    void record_minutes(const CDeviceParams& device, time_t first, time_t last)
    {
        for (time_t minute = first; minute <= last; ++minute)
            record(device, minute * MINUTE, {1.0});
    }

    CDeviceParams add_pump() { return add_device("pump", {param("power", "avg")}); }

    std::string quarters() { return rows("SELECT time / 60 FROM trends_1_15 ORDER BY time"); }
};

}  // namespace

TEST_F(guide, one_lost_minute_shifts_every_later_coarse_row)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 20);
    record_minutes(pump, 22, 46);
    EXPECT_EQ("15\n31\n46", quarters());
}

TEST_F(guide, a_start_in_mid_interval_shifts_every_coarse_row)
{
    record_minutes(add_pump(), 727, 760);  // from 12:07 on
    EXPECT_EQ("741\n756", quarters());     // 12:21, 12:36
}

TEST_F(guide, filling_up_to_the_interval_before_keeps_the_grid_after_a_gap)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 20);
    ASSERT_EQ(0, _log.fill_blank_values(pump._device, 39 * MINUTE, false));
    record_minutes(pump, 40, 60);
    EXPECT_EQ("15\n30\n45\n60", quarters());
}

TEST_F(guide, a_seeded_blank_row_keeps_the_grid_at_a_first_start)
{
    const CDeviceParams pump = add_pump();
    const time_t first = 727 * MINUTE;
    record(pump, CLog::previous_interval_boundary(15, first - 1) + MINUTE, {NAN}, 0.0);
    ASSERT_EQ(0, _log.fill_blank_values(pump._device, first - MINUTE, false));
    record_minutes(pump, 727, 750);
    EXPECT_EQ("735\n750", quarters());
    EXPECT_EQ("735|60.0|1.0\n750|100.0|1.0",  // nine of fifteen minutes
              rows("SELECT time / 60, percent_valid, param_1_avg FROM trends_1_15 ORDER BY time"));
}

TEST_F(guide, a_row_older_than_the_newest_coarse_row_is_never_rolled_up)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 9);
    record_minutes(pump, 11, 16);
    record(pump, 10 * MINUTE, {99.0});
    record_minutes(pump, 17, 31);
    EXPECT_EQ("16\n31", quarters());
    EXPECT_EQ("1.0\n1.0", rows("SELECT param_1_avg FROM trends_1_15 ORDER BY time"));
    EXPECT_EQ("99.0", rows("SELECT param_1_avg FROM trends_1_1 WHERE time = 600"));
}

TEST_F(guide, a_row_from_the_future_makes_all_true_ones_late)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 14);
    record(pump, 500 * MINUTE, {1.0});
    record_minutes(pump, 15, 100);
    EXPECT_EQ("500", quarters());

    ASSERT_EQ(1, _log.clear_trend_data(pump._device, {101 * MINUTE, -1}));
    record_minutes(pump, 101, 101);
    EXPECT_EQ("15\n30\n45\n60\n75\n90", quarters());
}

// As a clock that is a year ahead for one reading: 1,454 true minutes, then 46 more.
class guide_after_a_year_ahead : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 1440}, {15, 1000}, {60, 1000}});
        _pump = add_device("pump", {param("power", "avg")});
        ASSERT_EQ(0, _log.begin_transaction());
        record_minutes(1, 1450);
        record(_pump, (1450 + 365 * 1440) * MINUTE, {1.0});
        record_minutes(1451, 1500);
        ASSERT_EQ(0, _log.end_transaction());
    }

    void record_minutes(time_t first, time_t last)
    {
        CSnapshot snapshot;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        for (time_t minute = first; minute <= last; ++minute) {
            snapshot._time = minute * MINUTE;
            ASSERT_EQ(0, record_on_grid(_log, _pump, snapshot));
        }
    }

    std::string late(const std::string& period)
    {
        return rows("SELECT time / 60 FROM trends_1_" + period +
                    " WHERE time > 1380 * 60 ORDER BY time");
    }

    CDeviceParams _pump;
};

TEST_F(guide_after_a_year_ahead, the_trim_has_deleted_the_true_rows)
{
    // At the 1,454th minute a quarter is full, and the newest time counts. The rest is late.
    EXPECT_EQ("47|1455", rows("SELECT count(*), min(time) / 60 FROM trends_1_1"));
    EXPECT_EQ("1395\n1410\n1425\n1440\n527050", late("15"));
}

TEST_F(guide_after_a_year_ahead, clearing_what_is_ahead_leaves_the_coarse_rows_off_the_grid)
{
    ASSERT_EQ(1, _log.clear_trend_data(_pump._device, {1501 * MINUTE, -1}));
    record_minutes(1501, 1560);
    EXPECT_EQ("1395\n1410\n1425\n1440\n1469\n1484\n1499\n1514\n1529\n1544\n1559", late("15"));
    EXPECT_EQ("1440\n1514", late("60"));
}

TEST_F(guide_after_a_year_ahead, clearing_from_the_boundary_before_it_brings_the_grid_back)
{
    // 1440 is the last end of an hour, the coarsest period, before the accident. The minutes begin
    // anew after 1500, and the quarters that are missing are filled from those that are there.
    ASSERT_EQ(0, _log.clear_trend_data(_pump._device, {1440 * MINUTE + 1, -1}));
    record_minutes(1507, 1570);
    EXPECT_EQ("1395\n1410\n1425\n1440\n1455\n1470\n1485\n1500\n1515\n1530\n1545\n1560", late("15"));
    EXPECT_EQ("1440\n1500\n1560", late("60"));
}

TEST_F(guide, a_row_from_the_future_does_no_harm_when_it_is_cleared_before_a_coarse_row_is_made)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 20);
    record(pump, 500000 * MINUTE, {1.0});
    record_minutes(pump, 21, 25);
    ASSERT_EQ(1, _log.clear_trend_data(pump._device, {26 * MINUTE, -1}));
    record_minutes(pump, 26, 31);
    EXPECT_EQ("15\n30", quarters());
    EXPECT_EQ("31", rows("SELECT count(*) FROM trends_1_1"));
}

TEST_F(guide, a_period_added_between_two_others_shifts_the_coarser_one)
{
    ASSERT_EQ(0, _log.modify_period(CPeriodProperties(1, 60)));
    add_period(60, 100);
    ASSERT_EQ(0, _log.remove_period(CPeriodProperties(15, 1000)));
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 125);  // the minutes from 51 on are left
    add_period(15, 100);
    record_minutes(pump, 126, 240);
    // Of the 76 minutes 57 to 126 are left after the trim: four quarters and one of ten minutes.
    EXPECT_EQ("71\n86\n101\n116\n126\n141\n156\n171\n186\n201\n216\n231", quarters());
    EXPECT_EQ("60\n120\n171\n231", rows("SELECT time / 60 FROM trends_1_60 ORDER BY time"));
}

TEST_F(guide, without_percent_valid_a_coarse_average_is_absent)
{
    const CDeviceParams pump = add_device("pump", {param("power", "min max avg actual sum")});
    for (int minute = 1; minute <= 15; ++minute) {
        CSnapshot snapshot;  // its _percent_valid as it is
        snapshot._time = minute * MINUTE;
        snapshot._samples.resize(1);
        CSample& power = snapshot._samples[0];
        power._min = power._max = power._avg = power._actual = power._sum = 1.0;
        ASSERT_EQ(0, _log.add_trend_data(pump, snapshot));
    }
    EXPECT_EQ("0.0|1.0|1.0|NULL|1.0|15.0",
              rows("SELECT percent_valid, param_1_min, param_1_max, param_1_avg, param_1_actual, "
                   "param_1_sum FROM trends_1_15"));
}

TEST_F(guide, opening_with_create_makes_tables_in_any_file_of_version_0)
{
    const char* const tables =
        "SELECT group_concat(name) FROM (SELECT name FROM sqlite_master "
        "WHERE type = 'table' ORDER BY name)";
    run_sql("orders.db",
            "CREATE TABLE orders(id INTEGER PRIMARY KEY); INSERT INTO orders VALUES(7)");
    CLog log;
    open_args args;
    args._create = false;
    ASSERT_EQ(0, open_log(log, "orders.db", args));
    log.close();
    EXPECT_EQ("orders|0",
              ::rows("orders.db", tables) + "|" + ::rows("orders.db", "PRAGMA user_version"));

    ASSERT_EQ(0, open_log(log, "orders.db"));
    log.close();
    EXPECT_EQ("devices,orders,periods|2",
              ::rows("orders.db", tables) + "|" + ::rows("orders.db", "PRAGMA user_version"));
    EXPECT_EQ("7", ::rows("orders.db", "SELECT id FROM orders"));
}

TEST_F(guide, opening_with_create_leaves_a_file_of_an_unknown_version_alone)
{
    run_sql("orders.db", "CREATE TABLE orders(id INTEGER PRIMARY KEY); PRAGMA user_version = 3");
    CLog log;
    EXPECT_REPORTS(open_log(log, "orders.db"), 1, "Unrecognized table schema version: 3\n");
    EXPECT_EQ("orders", ::rows("orders.db", "SELECT group_concat(name) FROM sqlite_master"));
}

TEST_F(guide, a_stitched_read_drops_a_coarse_row_that_ends_after_the_first_fine_row)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 45);
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time <= 20 * 60");

    CDeviceData data;
    ASSERT_EQ(0, _log.get_trend_data(data, pump, {}, {-1, -1}, 0, 0, true, true));
    ASSERT_EQ(26u, data._snapshots.size());
    EXPECT_EQ(15 * MINUTE, data._snapshots[0]._time);  // then nothing until
    EXPECT_EQ(21 * MINUTE, data._snapshots[1]._time);
    EXPECT_EQ(1u, data._snapshots[1]._period);
}

TEST_F(guide, a_late_coarse_period_is_made_of_what_the_finer_one_still_holds)
{
    ASSERT_EQ(0, _log.modify_period(CPeriodProperties(15, 4)));
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 20 * 15);
    EXPECT_EQ("14", rows("SELECT count(*) FROM trends_1_15"));  // four and ten spare ones
    add_period(30, 100);
    record_minutes(pump, 20 * 15 + 1, 21 * 15);
    // Fourteen rows and the new one, less the oldest, which the trim takes first: quarters 8 to 21
    // make seven pairs.
    EXPECT_EQ("7|135", rows("SELECT count(*), min(time) / 60 FROM trends_1_30"));
}

TEST_F(guide, the_actual_value_is_that_of_the_latest_row_without_ordinary_extremes)
{
    const CDeviceParams pump =
        add_device("pump", {param("level", "actual"), pf("cosphi", "min max")});
    for (int minute = 1; minute <= 15; ++minute)
        record(pump, minute * MINUTE, {double(minute), 0.5});
    EXPECT_EQ("15.0", rows("SELECT param_1_actual FROM trends_1_15"));
}

TEST_F(guide, the_actual_value_is_that_of_the_last_ordinary_extreme)
{
    const CDeviceParams pump =
        add_device("pump", {param("level", "actual"), param("power", "min max")});
    for (int minute = 1; minute <= 15; ++minute)
        record(pump, minute * MINUTE, {double(minute), minute == 7 ? 9.0 : 1.0});
    EXPECT_EQ("7.0", rows("SELECT param_1_actual FROM trends_1_15"));
}

TEST_F(guide, a_host_that_commits_after_a_failed_call_keeps_half_of_it)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 14);
    const std::string roll_up =
        "INSERT INTO trends_1_15 SELECT max(time), avg(percent_valid), pctavg(param_1_avg, "
        "percent_valid) FROM (SELECT * FROM trends_1_1 WHERE time >= ? LIMIT 15 OFFSET ?)";
    CSnapshot snapshot;
    snapshot._time = 15 * MINUTE;
    snapshot._samples.resize(1);

    ASSERT_EQ(0, _log.begin_transaction());
    capture_stderr([&] {
        deny_prepare denied(roll_up);
        EXPECT_NE(0, _log.add_trend_data(pump, snapshot));
    });
    ASSERT_EQ(0, _log.end_transaction());
    EXPECT_EQ("15|0", rows("SELECT (SELECT count(*) FROM trends_1_1), count(*) FROM trends_1_15"));
}

TEST_F(guide, a_host_that_rolls_back_after_a_failed_call_keeps_nothing_of_it)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 14);
    const std::string before = dump();
    CSnapshot snapshot;
    snapshot._time = 14 * MINUTE;
    snapshot._samples.resize(1);

    ASSERT_EQ(0, _log.begin_transaction());
    record(pump, 15 * MINUTE, {1.0});
    capture_stderr([&] { EXPECT_NE(0, _log.add_trend_data(pump, snapshot)); });
    _log.rollback_transaction();
    EXPECT_EQ(before, dump());
}

TEST_F(guide, a_failed_outermost_end_must_not_be_followed_by_a_rollback)
{
    const CDeviceParams pump = add_pump();
    const std::string before = dump();
    ASSERT_EQ(0, _log.begin_transaction());
    record(pump, MINUTE, {1.0});
    capture_stderr([&] {
        refuse_commit refused;
        EXPECT_NE(0, _log.end_transaction());
    });
    EXPECT_EQ(before, dump());
    EXPECT_STOPS(_log.rollback_transaction(), "_nest_lvl>0");
}

TEST_F(guide, a_filled_time_is_taken)
{
    const CDeviceParams pump = add_pump();
    record_minutes(pump, 1, 3);
    ASSERT_EQ(0, _log.fill_blank_values(pump._device, 5 * MINUTE, true));
    CSnapshot snapshot;
    snapshot._time = 5 * MINUTE;
    snapshot._samples.resize(1);
    capture_stderr([&] { EXPECT_EQ(-1, _log.add_trend_data(pump, snapshot)); });
    EXPECT_EQ("NULL|1.0",
              rows("SELECT param_1_avg, percent_valid FROM trends_1_1 WHERE time = 300"));
}

TEST_F(guide, the_identifier_of_a_removed_last_device_is_given_again)
{
    add_device("pump");
    const CDeviceProperties last = add_device("fan");
    ASSERT_EQ(0, _log.remove_device(last));
    EXPECT_EQ(last._index, add_device("press")._index);
}

using guide_without_periods = log_fixture;

TEST_F(guide_without_periods, parameters_stop_the_process)
{
    const CDeviceProperties pump = add_device("pump");
    std::vector<CParamProperties> params{param("power", "avg")};
    EXPECT_STOPS(_log.add_params(pump, params), "!periods.empty()");
}

TEST_F(guide_without_periods, filling_stops_the_process)
{
    const CDeviceProperties pump = add_device("pump");
    EXPECT_STOPS(_log.fill_blank_values(pump, 60, false), "!periods.empty()");
}

TEST_F(guide_without_periods, periods_that_do_not_divide_are_found_when_recording)
{
    add_periods({{10, 100}, {25, 100}});
    const CDeviceParams pump = add_device("pump", {param("power", "avg")});
    CSnapshot snapshot;
    snapshot._time = 600;
    snapshot._samples.resize(1);
    EXPECT_REPORTS(_log.add_trend_data(pump, snapshot), -1,
                   "static int toolkit::trend::CLog::calc_period_ratios("
                   "const std::vector<toolkit::trend::CPeriodProperties>&, "
                   "std::vector<long unsigned int>&): Error: oddball period ratio\n");
}
