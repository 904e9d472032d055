// Rolling fine rows up into coarser periods, and keeping each table to its size.

#include <algorithm>
#include <cmath>

#include "count_changes.h"
#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"

namespace {

using toolkit::trend::CSample;

const std::string COUNT_1_5 =
    "SELECT count(time), min(time) FROM trends_1_1 WHERE time > coalesce((SELECT max(time) FROM "
    "trends_1_5),0)";
const std::string COUNT_5_60 =
    "SELECT count(time), min(time) FROM trends_1_5 WHERE time > coalesce((SELECT max(time) FROM "
    "trends_1_60),0)";

// Of a device with one parameter that keeps its average.
const std::string ROLL_UP_1_5 =
    "INSERT INTO trends_1_5 SELECT max(time), avg(percent_valid), pctavg(param_1_avg, "
    "percent_valid) FROM (SELECT * FROM trends_1_1 WHERE time >= ? LIMIT 5 OFFSET ?)";

const std::string NEWEST_1_1 = "SELECT max(time) FROM trends_1_1";
const std::string OLDEST_1_1 = "SELECT min(time) FROM trends_1_1";
const std::string TRIM_1_1 = "DELETE FROM trends_1_1 WHERE time <= ?";

CSample sample(double min, double max, double avg, double actual, double sum)
{
    CSample all;
    all._min = min;
    all._max = max;
    all._avg = avg;
    all._actual = actual;
    all._sum = sum;
    return all;
}

CSample with_actual(CSample other, double actual)
{
    other._actual = actual;
    return other;
}

class rolling_log : public log_fixture {
protected:
    // One row a minute, its value the minute's number, in one transaction for speed.
    void record_minutes(const CDeviceParams& device, int first, int last)
    {
        ASSERT_EQ(_log.begin_transaction(), 0);
        for (int minute = first; minute <= last; ++minute)
            record(device, minute * 60, {double(minute)});
        ASSERT_EQ(_log.end_transaction(), 0);
    }

    // The call that recording makes, on periods of the test's choice or the stored ones.
    int roll_up(const CDeviceParams& device, const std::vector<CPeriodProperties>& periods)
    {
        std::vector<unsigned long> ratios;
        EXPECT_EQ(CLog::calc_period_ratios(periods, ratios), 0);
        return _log.propagate_recent_samples(device._device, periods, ratios, 0, device._params);
    }

    int roll_up(const CDeviceParams& device)
    {
        std::vector<CPeriodProperties> periods;
        EXPECT_EQ(_log.get_periods(periods), 0);
        return roll_up(device, periods);
    }

    // A device with eleven one-minute rows and an empty five-minute table.
    CDeviceParams with_eleven_stragglers()
    {
        add_period(1, 100);
        const CDeviceParams pump = add_device("pump", {param("u", "avg")});
        record_minutes(pump, 1, 11);
        add_period(5, 100);
        return pump;
    }

    CDeviceParams with_minutes(int last, std::initializer_list<CPeriodProperties> periods)
    {
        add_periods(periods);
        const CDeviceParams pump = add_device("pump", {param("u", "avg")});
        record_minutes(pump, 1, last);
        return pump;
    }
};

using propagate_recent_samples = rolling_log;

// Which rows make a coarse row ------------------------------------------------------------------

TEST_F(propagate_recent_samples, fifth_minute_completes_the_first_five_minute_row)
{
    const CDeviceParams pump = with_minutes(4, {{1, 100}, {5, 100}, {60, 100}});
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "");

    record_minutes(pump, 5, 5);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "300|100.0|3.0");
}

TEST_F(propagate_recent_samples, sixtieth_minute_completes_the_first_hour)
{
    const CDeviceParams pump = with_minutes(59, {{1, 100}, {5, 100}, {60, 100}});
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_5"), "11");
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "");

    // Of the averages 3, 8, ... 58.
    record_minutes(pump, 60, 60);
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "3600|100.0|30.5");
}

TEST_F(propagate_recent_samples, eleven_stragglers_give_two_groups_and_leave_one)
{
    const CDeviceParams pump = with_eleven_stragglers();
    EXPECT_QUIET(roll_up(pump), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "300|100.0|3.0\n600|100.0|8.0");

    // The one that was left is the first of the next group.
    record_minutes(pump, 12, 14);
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_5"), "2");
    record_minutes(pump, 15, 15);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5 WHERE time > 600"), "900|100.0|13.0");
}

TEST_F(propagate_recent_samples, nothing_to_do_changes_nothing)
{
    const CDeviceParams pump = with_minutes(7, {{1, 100}, {5, 100}});
    const std::string before = dump();
    EXPECT_QUIET(roll_up(pump), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(propagate_recent_samples, row_at_time_0_is_no_straggler)
{
    add_periods({{1, 100}, {5, 100}});
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    record_minutes(pump, 0, 4);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "");

    // The group begins after it: (1 + 2 + 3 + 4 + 5) / 5.
    record_minutes(pump, 5, 5);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "300|100.0|3.0");
}

TEST_F(propagate_recent_samples, row_older_than_the_newest_coarse_row_is_never_rolled_up)
{
    const CDeviceParams pump = with_minutes(5, {{1, 100}, {5, 100}});
    record(pump, 90, {1000.0});
    record_minutes(pump, 6, 9);
    EXPECT_EQ(rows("SELECT time FROM trends_1_5"), "300");

    record_minutes(pump, 10, 10);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5 WHERE time > 300"), "600|100.0|8.0");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "11");
}

TEST_F(propagate_recent_samples, rows_are_counted_and_not_clocked)
{
    // Minute 3 is missing: the group ends with minute 6, (1 + 2 + 4 + 5 + 6) / 5.
    const CDeviceParams pump = with_minutes(2, {{1, 100}, {5, 100}});
    record_minutes(pump, 4, 6);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "360|100.0|3.6");
}

TEST_F(propagate_recent_samples, row_from_the_future_makes_the_true_ones_late)
{
    const CDeviceParams pump = with_minutes(4, {{1, 100}, {5, 100}});
    record(pump, 6000, {0.0});
    EXPECT_EQ(rows("SELECT time FROM trends_1_5"), "6000");

    record_minutes(pump, 5, 20);
    EXPECT_EQ(rows("SELECT time FROM trends_1_5"), "6000");
}

TEST_F(propagate_recent_samples, period_added_later_takes_the_rows_that_are_there)
{
    const CDeviceParams pump = with_minutes(60, {{1, 100}, {5, 100}});
    add_period(60, 100);

    // Coarser periods are looked at when the finer one gains a row, minute 65.
    record_minutes(pump, 61, 64);
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "");
    record_minutes(pump, 65, 65);
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "3600|100.0|30.5");
}

TEST_F(propagate_recent_samples, devices_do_not_mix)
{
    const CDeviceParams pump = with_minutes(4, {{1, 100}, {5, 100}});
    const CDeviceParams fan = add_device("fan", {param("u", "avg")});
    record_minutes(fan, 1, 4);
    record_minutes(pump, 5, 5);
    EXPECT_EQ(rows("SELECT time FROM trends_1_5"), "300");
    EXPECT_EQ(rows("SELECT time FROM trends_2_5"), "");
}

TEST_F(propagate_recent_samples, starts_at_the_period_asked_for)
{
    const CDeviceParams pump = with_minutes(60, {{1, 100}, {5, 100}});
    add_period(60, 100);
    EXPECT_QUIET(_log.propagate_recent_samples(pump._device, {{1, 100}, {5, 100}, {60, 100}},
                                               {5, 12, 0}, 1, pump._params),
                 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_60"), "3600");
}

// What a coarse row holds -----------------------------------------------------------------------

TEST_F(propagate_recent_samples, quantity_is_aggregated_with_averages_weighted_by_validity)
{
    add_periods({{1, 100}, {5, 100}});
    const CDeviceParams pump = add_device("pump", {param("u", "min max avg sum")});
    record(pump, 60, {sample(4, 10, 6, NAN, 1)}, 100);
    record(pump, 120, {sample(2, 30, 12, NAN, 2)}, 50);
    record(pump, 180, {CSample()}, 0);
    record(pump, 240, {sample(3, 20, 9, NAN, 4)}, 100);
    record(pump, 300, {sample(5, 15, 7, NAN, 8)}, 100);

    // Validity (100 + 50 + 0 + 100 + 100) / 5, a blank row counting as 0; average
    // (600 + 600 + 900 + 700) / 350.
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "300|70.0|2.0|30.0|8.0|15.0");
}

TEST_F(propagate_recent_samples, power_factor_is_aggregated_on_its_own_scale)
{
    add_periods({{1, 100}, {5, 100}});
    const CDeviceParams pump = add_device("pump", {pf("cosphi", "min max avg sum")});
    record(pump, 60, {0.5}, 100);
    record(pump, 120, {-0.5}, 50);
    for (const time_t blank : {180, 240, 300})
        record(pump, blank, {NAN}, 0);

    // -0.5 is 1.5 there, beyond unity, and so the larger: average (50 + 75) / 150. The sum is the
    // plain one.
    EXPECT_EQ(rows("SELECT time, percent_valid, param_1_min, param_1_max, round(param_1_avg, 9), "
                   "param_1_sum FROM trends_1_5"),
              "300|30.0|0.5|-0.5|0.833333333|0.0");
}

TEST_F(propagate_recent_samples, power_factors_average_through_unity)
{
    add_periods({{1, 100}, {2, 100}});
    const CDeviceParams pump = add_device("pump", {pf("cosphi", "avg")});
    record(pump, 60, {0.75}, 100);
    record(pump, 120, {-0.5}, 100);

    // (0.75 + 1.5) / 2 = 1.125, that is -0.875.
    EXPECT_EQ(rows("SELECT param_1_avg FROM trends_1_2"), "-0.875");
}

TEST_F(propagate_recent_samples, group_without_values_gives_none)
{
    add_periods({{1, 100}, {2, 100}});
    const CDeviceParams pump = add_device(
        "pump", {param("u", "min max avg actual sum"), pf("cosphi", "min max avg actual sum")});
    record(pump, 60, {NAN, NAN}, 100);
    record(pump, 120, {NAN, NAN}, 50);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"),
              "120|75.0|NULL|NULL|NULL|NULL|NULL|NULL|NULL|NULL|NULL|NULL");
}

TEST_F(propagate_recent_samples, average_without_any_weight_is_absent)
{
    add_periods({{1, 100}, {2, 100}});
    const CDeviceParams pump = add_device("pump", {param("u", "max avg"), pf("cosphi", "max avg")});
    record(pump, 60, {3.0, 0.5}, 0);
    record(pump, 120, {4.0, 0.25}, 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|0.0|4.0|NULL|0.5|NULL");
}

TEST_F(propagate_recent_samples, infinite_value_without_weight_does_not_stop_later_rollups)
{
    add_periods({{1, 100}, {2, 100}, {4, 100}});
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    record(pump, 60, {INFINITY}, 0);
    record(pump, 120, {8.0}, 100);
    record(pump, 180, {8.0}, 100);
    record(pump, 240, {8.0}, 100);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|50.0|8.0\n240|100.0|8.0");
    EXPECT_EQ(rows("SELECT * FROM trends_1_4"), "240|75.0|8.0");
}

TEST_F(propagate_recent_samples, columns_keep_their_order_after_a_parameter_was_removed)
{
    add_periods({{1, 100}, {2, 100}});
    CDeviceParams pump =
        add_device("pump", {param("a", "avg"), param("b", "max avg"), param("c", "min sum")});
    ASSERT_EQ(_log.remove_params(pump._device, {pump._params[0]}), 0);
    pump._params.erase(pump._params.begin());
    record(pump, 60, {1.0, 10.0});
    record(pump, 120, {3.0, 20.0});
    EXPECT_EQ(
        rows("SELECT param_2_max, param_2_avg, param_3_min, param_3_sum, time FROM trends_1_2"),
        "3.0|2.0|10.0|30.0|120");
}

// Which row the actual value comes from -----------------------------------------------------------

class actual_value : public rolling_log {
protected:
    // The actual values of the coarse row that five fine rows make.
    std::string of_group(std::vector<CParamProperties> params,
                         const std::vector<std::vector<CSample>>& group)
    {
        add_periods({{1, 100}, {5, 100}});
        const CDeviceParams pump = add_device("pump", std::move(params));
        std::string columns;
        for (const CParamProperties& stored : pump._params)
            columns += (columns.empty() ? "param_" : ", param_") + std::to_string(stored._index) +
                       "_actual";

        CSnapshot row;
        row._percent_valid = 100;
        for (const std::vector<CSample>& samples : group) {
            row._time += 60;
            row._samples = samples;
            EXPECT_QUIET(_log.add_trend_data(pump, row), 0);
        }
        return rows("SELECT " + columns + " FROM trends_1_5");
    }
};

TEST_F(actual_value, of_power_factors_is_that_of_the_latest_row)
{
    EXPECT_EQ(of_group({pf("cosphi", "min max avg actual")}, {{sample(0.1, 0.9, 0.5, 0.1, 0)},
                                                              {sample(0.0, 1.0, 0.5, 0.2, 0)},
                                                              {sample(0.2, -0.1, 0.5, 0.3, 0)},
                                                              {sample(0.3, 0.8, 0.5, 0.4, 0)},
                                                              {sample(0.3, 0.7, 0.5, 0.5, 0)}}),
              "0.5");
}

TEST_F(actual_value, of_quantities_that_keep_no_extremes_is_that_of_the_latest_row)
{
    EXPECT_EQ(of_group({param("u", "avg actual sum"), pf("cosphi", "max actual")},
                       {{sample(0, 0, 9, 1, 9), with_actual(max(-0.1), 0.1)},
                        {sample(0, 0, 1, 2, 1), with_actual(max(0.9), 0.2)},
                        {sample(0, 0, 8, 3, 8), with_actual(max(0.8), 0.3)},
                        {sample(0, 0, 2, 4, 2), with_actual(max(0.7), 0.4)},
                        {sample(0, 0, 5, 5, 5), with_actual(max(0.6), 0.5)}}),
              "5.0|0.5");
}

TEST_F(actual_value, comes_from_the_row_of_a_kept_minimum)
{
    EXPECT_EQ(of_group({param("u", "min actual")}, {{with_actual(min(4), 1)},
                                                    {with_actual(min(2), 2)},
                                                    {with_actual(min(9), 3)},
                                                    {with_actual(min(7), 4)},
                                                    {with_actual(min(8), 5)}}),
              "2.0");
}

TEST_F(actual_value, comes_from_the_first_row_of_a_kept_maximum)
{
    EXPECT_EQ(of_group({param("u", "max actual")}, {{with_actual(max(3), 1)},
                                                    {with_actual(max(8), 2)},
                                                    {with_actual(max(5), 3)},
                                                    {with_actual(max(8), 4)},
                                                    {with_actual(max(1), 5)}}),
              "2.0");
}

TEST_F(actual_value, comes_from_the_maximum_where_one_quantity_keeps_both)
{
    EXPECT_EQ(of_group({param("u", "min max actual")}, {{sample(5, 6, 0, 1, 0)},
                                                        {sample(1, 7, 0, 2, 0)},
                                                        {sample(6, 7, 0, 3, 0)},
                                                        {sample(2, 9, 0, 4, 0)},
                                                        {sample(3, 8, 0, 5, 0)}}),
              "4.0");
}

TEST_F(actual_value, of_all_parameters_comes_from_the_last_extreme_of_a_quantity)
{
    // The minimum of v decides, after the maximum of u; that of the power factor does not.
    EXPECT_EQ(
        of_group({param("u", "max actual"), param("v", "min actual"), pf("cosphi", "max actual")},
                 {{with_actual(max(9), 1), with_actual(min(5), 10), with_actual(max(0.1), 0.1)},
                  {with_actual(max(1), 2), with_actual(min(4), 20), with_actual(max(0.2), 0.2)},
                  {with_actual(max(2), 3), with_actual(min(1), 30), with_actual(max(0.3), 0.3)},
                  {with_actual(max(3), 4), with_actual(min(2), 40), with_actual(max(-0.4), 0.4)},
                  {with_actual(max(4), 5), with_actual(min(3), 50), with_actual(max(0.5), 0.5)}}),
        "3.0|30.0|0.3");
}

// Which statements run ----------------------------------------------------------------------------

TEST_F(propagate_recent_samples, text_names_every_kept_aggregate_in_order)
{
    const texts_t expected = {
        "INSERT INTO trends_1_5 SELECT max(time), avg(percent_valid), min(param_1_min), "
        "max(param_1_max), pctavg(param_1_avg, percent_valid), param_1_actual, sum(param_1_sum), "
        "pfmin(param_2_min), pfmax(param_2_max), pfpctavg(param_2_avg, percent_valid), "
        "param_2_actual, sum(param_2_sum), max(param_3_max), sum(param_3_sum) FROM (SELECT * FROM "
        "trends_1_1 WHERE time >= ? LIMIT 5 OFFSET ?)"};
    add_periods({{1, 100}, {5, 100}});
    const CDeviceParams pump =
        add_device("pump", {param("u", "min max avg actual sum"),
                            pf("cosphi", "min max avg actual sum"), param("v", "max sum")});
    for (time_t time = 60; time <= 240; time += 60)
        record(pump, time, {1.0, 0.5, 2.0});

    statement_trace trace;
    record(pump, 300, {1.0, 0.5, 2.0});
    EXPECT_EQ(trace.times_run(expected[0]), 1) << testing::PrintToString(trace.texts());
}

TEST_F(propagate_recent_samples, runs_these_statements_where_a_group_is_full)
{
    const CDeviceParams pump = with_minutes(4, {{1, 100}, {5, 100}, {60, 100}});
    have_others_commit();
    statement_trace trace;
    record(pump, 300, {5.0});
    EXPECT_EQ(trace.expanded(),
              (texts_t{"BEGIN", "PRAGMA data_version", "SELECT * FROM periods",
                       "SELECT * FROM params_1 ORDER BY idx ASC",
                       "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES "
                       "(300,100.0,5.0)",
                       COUNT_1_5, NEWEST_1_1, OLDEST_1_1,
                       "INSERT INTO trends_1_5 SELECT max(time), avg(percent_valid), "
                       "pctavg(param_1_avg, percent_valid) FROM (SELECT * FROM trends_1_1 WHERE "
                       "time >= 60 LIMIT 5 OFFSET 0)",
                       COUNT_5_60, "COMMIT"}));
}

TEST_F(propagate_recent_samples, stops_after_the_count_where_no_group_is_full)
{
    const CDeviceParams pump = with_minutes(3, {{1, 100}, {5, 100}, {60, 100}});
    statement_trace trace;
    EXPECT_EQ(roll_up(pump), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "SELECT * FROM periods", "COMMIT", "BEGIN", COUNT_1_5, "COMMIT"}));
}

TEST_F(propagate_recent_samples, groups_are_read_at_growing_offsets_from_the_first_straggler)
{
    const CDeviceParams pump = with_eleven_stragglers();
    statement_trace trace;
    ASSERT_EQ(roll_up(pump), 0);

    const std::string group =
        "INSERT INTO trends_1_5 SELECT max(time), avg(percent_valid), pctavg(param_1_avg, "
        "percent_valid) FROM (SELECT * FROM trends_1_1 WHERE time >= 60 LIMIT 5 OFFSET ";
    EXPECT_EQ(trace.expanded(),
              (texts_t{"BEGIN", "SELECT * FROM periods", "COMMIT", "BEGIN", COUNT_1_5, NEWEST_1_1,
                       OLDEST_1_1, group + "0)", group + "5)", "SELECT max(time) FROM trends_1_5",
                       "SELECT min(time) FROM trends_1_5", "COMMIT"}));
}

TEST_F(propagate_recent_samples, prepares_nothing_the_second_time)
{
    // Minute 15 is the first to put a row out of the table.
    const CDeviceParams pump = with_minutes(15, {{1, 2}, {5, 100}, {60, 100}});

    statement_trace trace;
    record_minutes(pump, 16, 25);
    EXPECT_EQ(trace.prepared(), texts_t{});
    EXPECT_EQ(trace.times_run(ROLL_UP_1_5), 2);
    EXPECT_EQ(trace.times_run(TRIM_1_1), 2);
}

TEST_F(propagate_recent_samples, single_period_is_only_trimmed)
{
    const CDeviceParams pump = with_minutes(3, {{1, 100}});
    statement_trace trace;
    EXPECT_EQ(roll_up(pump, {{1, 100}}), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", NEWEST_1_1, OLDEST_1_1, "COMMIT"}));
}

// Rolling up and trimming -------------------------------------------------------------------------

TEST_F(propagate_recent_samples, table_holds_its_entries_and_ten_more_after_each_row)
{
    const CDeviceParams pump = with_minutes(105, {{1, 100}});
    for (int minute = 106; minute <= 130; ++minute) {
        record_minutes(pump, minute, minute);
        EXPECT_EQ(rows("SELECT count(*), max(time) FROM trends_1_1"),
                  std::to_string(std::min(minute, 110)) + "|" + std::to_string(minute * 60));
    }
    EXPECT_EQ(rows("SELECT min(time) FROM trends_1_1"), "1260");

    EXPECT_QUIET(_log.trim_period_table(pump._device, {1, 100}, false), 0);
    EXPECT_EQ(rows("SELECT count(*), min(time) FROM trends_1_1"), "100|1860");
}

TEST_F(propagate_recent_samples, fine_table_is_not_trimmed_before_a_group_is_full)
{
    // 1 and ten spare rows are kept, but only when the hour is full.
    const CDeviceParams pump = with_minutes(59, {{1, 1}, {60, 100}});
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "59");
    record_minutes(pump, 60, 60);
    EXPECT_EQ(rows("SELECT count(*), min(time) FROM trends_1_1"), "11|3000");
}

TEST_F(propagate_recent_samples, group_of_a_table_shorter_than_it_stands_for_the_survivors)
{
    // Minutes 50 to 60.
    with_minutes(60, {{1, 1}, {60, 100}});
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "3600|100.0|55.0");
}

TEST_F(propagate_recent_samples, survivors_stay_at_the_offsets_of_the_count)
{
    // Of 20 stragglers the trim leaves minutes 10 to 20: groups 10 to 14, 15 to 19, 20, and none.
    const CDeviceParams pump = with_minutes(20, {{1, 100}});
    add_period(5, 100);
    EXPECT_QUIET(roll_up(pump, {{1, 1}, {5, 100}}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "840|100.0|12.0\n1140|100.0|17.0\n1200|100.0|20.0");
}

TEST_F(propagate_recent_samples, trim_that_takes_just_one_group_leaves_one_less)
{
    // Of 14 stragglers the trim leaves minutes 3 to 14.
    const CDeviceParams pump = with_minutes(14, {{1, 100}});
    add_period(2, 100);
    EXPECT_QUIET(roll_up(pump, {{1, 2}, {2, 100}}), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_2"), "240\n360\n480\n600\n720\n840");
}

TEST_F(propagate_recent_samples, groups_without_rows_are_passed_over_and_recording_goes_on)
{
    // The gap puts all but the newest of the 21 stragglers out of the table.
    const CDeviceParams pump = with_minutes(20, {{1, 20}});
    add_period(5, 100);
    record_minutes(pump, 1000, 1000);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "60000|100.0|1000.0");

    record_minutes(pump, 1001, 1005);
    EXPECT_EQ(rows("SELECT * FROM trends_1_5 WHERE time > 60000"), "60300|100.0|1003.0");
}

TEST_F(propagate_recent_samples, groups_without_rows_do_not_keep_from_coarser_periods)
{
    // Four groups of which three are empty, and eleven coarse rows that wait for this one.
    add_periods({{1, 20}, {5, 10000}});
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    record_minutes(pump, 1, 55);
    add_period(60, 100);
    _log.close();
    run_sql(_file,
            "DELETE FROM trends_1_1;"
            "WITH RECURSIVE m(n) AS (SELECT 56 UNION ALL SELECT n + 1 FROM m WHERE n < 75)"
            "INSERT INTO trends_1_1 SELECT n * 60, 100.0, n FROM m");
    open();

    record_minutes(pump, 1000, 1000);
    EXPECT_EQ(rows("SELECT time FROM trends_1_5 WHERE time > 3300"), "60000");
    EXPECT_EQ(rows("SELECT time FROM trends_1_60"), "60000");
}

TEST_F(propagate_recent_samples, coarsest_table_is_trimmed_with_every_row_it_gains)
{
    with_minutes(65, {{1, 100}, {5, 1}});
    EXPECT_EQ(rows("SELECT count(*), min(time), max(time) FROM trends_1_5"), "11|900|3900");
}

// Transactions
// --------------------------------------------------------------------------------------

TEST_F(propagate_recent_samples, belongs_to_the_transaction_of_the_host)
{
    const CDeviceParams pump = with_eleven_stragglers();
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(roll_up(pump), 0);
    EXPECT_EQ(dump(), before);
    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);

    // The same stragglers are found again.
    EXPECT_QUIET(roll_up(pump), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_5"), "300\n600");
}

// Failures
// ------------------------------------------------------------------------------------------

TEST_F(propagate_recent_samples, count_that_cannot_be_prepared_has_no_report_of_its_own)
{
    const CDeviceParams pump = with_eleven_stragglers();
    const std::string before = dump();
    deny_prepare denial(COUNT_1_5);
    EXPECT_REPORTS(roll_up(pump), -1, prepare_report("no such column: denied"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, count_that_fails_is_no_empty_table)
{
    const CDeviceParams pump = with_eleven_stragglers();
    const std::string before = dump();
    interrupt_step fault(COUNT_1_5);
    EXPECT_REPORTS(roll_up(pump), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, insert_that_cannot_be_prepared_is_reported_with_its_text)
{
    const CDeviceParams pump = with_eleven_stragglers();
    const std::string before = dump();
    deny_prepare denial(ROLL_UP_1_5);
    EXPECT_REPORTS(roll_up(pump), -1,
                   prepare_report("no such column: denied") + "Can't prepare SQL (2): '" +
                       ROLL_UP_1_5 + "'\n");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, group_that_cannot_be_stored_is_reported_with_its_place)
{
    const CDeviceParams pump = with_eleven_stragglers();
    run_sql(_file,
            "CREATE TRIGGER full BEFORE INSERT ON trends_1_5 WHEN NEW.time > 300 BEGIN SELECT "
            "RAISE(ABORT, 'refused'); END");
    const std::string before = dump();
    EXPECT_REPORTS(roll_up(pump), -1,
                   step_report(1811, "refused") + "Possible problem with SQL stmt: '" +
                       ROLL_UP_1_5 + "' (60, 5)\n" + reset_report(1811, "refused"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, group_that_returns_a_row_is_reported_too)
{
    const CDeviceParams pump = with_eleven_stragglers();
    const std::string before = dump();
    count_changes fault;
    EXPECT_REPORTS(roll_up(pump), 1,
                   "Possible problem with SQL stmt: '" + ROLL_UP_1_5 + "' (60, 0)\n");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, failure_in_a_coarser_period_takes_everything_back)
{
    const CDeviceParams pump = with_minutes(59, {{1, 100}, {5, 100}, {60, 100}});
    run_sql(_file,
            "CREATE TRIGGER full BEFORE INSERT ON trends_1_60 BEGIN SELECT RAISE(ABORT, "
            "'refused'); END");
    const std::string before = dump();
    CSnapshot last;
    last._time = 3600;
    last._percent_valid = 100;
    last._samples = {avg(60)};
    std::string text =
        "INSERT INTO trends_1_60 SELECT max(time), avg(percent_valid), "
        "pctavg(param_1_avg, percent_valid) FROM (SELECT * FROM trends_1_5 WHERE "
        "time >= ? LIMIT 12 OFFSET ?)";
    EXPECT_REPORTS(_log.add_trend_data(pump, last), -1,
                   step_report(1811, "refused") + "Possible problem with SQL stmt: '" + text +
                       "' (300, 0)\n" + reset_report(1811, "refused"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());

    // Nothing is lost: the next call finds the same rows again.
    run_sql(_file, "DROP TRIGGER full");
    record_minutes(pump, 60, 60);
    EXPECT_EQ(rows("SELECT * FROM trends_1_60"), "3600|100.0|30.5");
}

TEST_F(propagate_recent_samples, unread_newest_time_is_a_failure_and_not_an_empty_table)
{
    const CDeviceParams pump = with_eleven_stragglers();
    reopen();
    const std::string before = dump();
    interrupt_step fault(NEWEST_1_1);
    EXPECT_REPORTS(roll_up(pump), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, wrong_use_is_stopped_in_this_order)
{
    const CDeviceParams pump = with_eleven_stragglers();
    CDeviceProperties device;
    const auto call = [&](const std::vector<CPeriodProperties>& periods,
                          const std::vector<unsigned long>& ratios, size_t idx) {
        _log.propagate_recent_samples(device, periods, ratios, idx, {});
    };

    EXPECT_STOPS((_log.close(), call({}, {}, 9)), "_db");
    EXPECT_STOPS(call({}, {}, 9), "device._index>=0");
    device._index = 1;
    EXPECT_STOPS(call({}, {}, 9), "!device._path.empty()");
    device._path = "pump";
    EXPECT_STOPS(call({}, {}, 9), "!periods.empty()");
    EXPECT_STOPS(call({{0, 0}, {5, 0}}, {}, 2), "idx<periods.size()");
    EXPECT_STOPS(call({{0, 0}, {5, 0}}, {}, 0), "periods[idx]._period!=0");
    EXPECT_STOPS(call({{1, 0}, {5, 0}}, {}, 0), "ratios.size()==periods.size()");
    EXPECT_STOPS(call({{1, 0}, {5, 0}}, {1, 0}, 0), "(ratios[idx]>1) || (idx==(periods.size()-1))");
    EXPECT_STOPS(call({{1, 0}, {5, 0}}, {5, 0}, 0), "!params.empty()");
}

TEST_F(propagate_recent_samples, coarser_period_of_0_minutes_is_stopped)
{
    const CDeviceParams pump = with_eleven_stragglers();
    EXPECT_STOPS(
        _log.propagate_recent_samples(pump._device, {{1, 100}, {0, 100}}, {5, 0}, 0, pump._params),
        "periods[idx+1]._period!=0");
}

TEST_F(propagate_recent_samples, coarser_period_with_a_ratio_of_1_is_stopped_when_it_is_its_turn)
{
    const CDeviceParams pump = with_eleven_stragglers();
    EXPECT_STOPS(_log.propagate_recent_samples(pump._device, {{1, 100}, {5, 100}, {60, 100}},
                                               {5, 1, 0}, 0, pump._params),
                 "(ratios[idx]>1) || (idx==(periods.size()-1))");
}

TEST_F(propagate_recent_samples, parameter_that_is_not_stored_is_stopped_when_a_group_is_full)
{
    CDeviceParams pump = with_eleven_stragglers();
    pump._params[0]._index = -1;
    EXPECT_STOPS(roll_up(pump), "params[i]._index>=0");
}

TEST_F(propagate_recent_samples, finer_period_without_rows_to_keep_is_stopped)
{
    const CDeviceParams pump = with_eleven_stragglers();
    EXPECT_STOPS(roll_up(pump, {{1, 0}, {5, 100}}), "period._max_entries!=0");
}

TEST_F(propagate_recent_samples, fails_at_a_time_that_is_no_number)
{
    const CDeviceParams pump = with_minutes(2, {{1, 100}, {5, 100}});
    run_sql(_file,
            "DROP TABLE trends_1_1; CREATE TABLE trends_1_1 (time, percent_valid, param_1_avg); "
            "INSERT INTO trends_1_1 VALUES ('noon', 100.0, 1.0)");
    const std::string before = dump();
    EXPECT_REPORTS(roll_up(pump), -1,
                   "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: Column "
                   "type is non-int\n");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(propagate_recent_samples, straggler_at_the_time_that_means_none_is_stopped)
{
    const CDeviceParams pump = with_eleven_stragglers();
    run_sql(_file,
            "INSERT INTO trends_1_5 VALUES (-5, 0.0, NULL); INSERT INTO trends_1_1 VALUES (-1, "
            "0.0, NULL)");
    EXPECT_STOPS(roll_up(pump), "first_new_time!=static_cast<time_t>(-1)");
}

// Trimming
// ------------------------------------------------------------------------------------------

// Rows at minutes 1 to 20 in a table that would keep more.
class trim_period_table : public rolling_log {
protected:
    void SetUp() override
    {
        rolling_log::SetUp();
        _pump = with_minutes(20, {{1, 100}, {60, 100}});
    }

    std::string oldest() { return rows("SELECT min(time) FROM trends_1_1"); }

    CDeviceParams _pump;
};

TEST_F(trim_period_table, keeps_as_many_intervals_as_the_period_has_entries)
{
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {1, 3}, false), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "1080\n1140\n1200");
}

TEST_F(trim_period_table, keeps_ten_more_with_spare)
{
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {1, 3}, true), 0);
    EXPECT_EQ(rows("SELECT count(*), min(time), max(time) FROM trends_1_1"), "13|480|1200");
}

TEST_F(trim_period_table, row_right_at_the_cutoff_goes_and_the_next_second_stays)
{
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (1021, 0.0, NULL)");
    statement_trace trace;
    EXPECT_EQ(_log.trim_period_table(_pump._device, {1, 3}, false), 0);
    EXPECT_EQ(trace.expanded()[3], "DELETE FROM trends_1_1 WHERE time <= 1020");
    EXPECT_EQ(oldest(), "1021");
}

TEST_F(trim_period_table, deletes_when_the_cutoff_meets_the_oldest_row)
{
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {1, 19}, false), 0);
    EXPECT_EQ(oldest(), "120");
}

TEST_F(trim_period_table, cutoff_keeps_the_seconds_of_the_newest_row)
{
    // 20 intervals and a half less 20.
    run_sql(_file,
            "INSERT INTO trends_1_1 VALUES (20, 0.0, NULL), (40, 0.0, NULL), (1230, 0, NULL)");
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {1, 20}, false), 0);
    EXPECT_EQ(oldest(), "40");
}

TEST_F(trim_period_table, deletes_nothing_that_is_not_old_enough)
{
    statement_trace trace;
    EXPECT_EQ(_log.trim_period_table(_pump._device, {1, 20}, false), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", NEWEST_1_1, OLDEST_1_1, "COMMIT"}));
    EXPECT_EQ(oldest(), "60");
}

TEST_F(trim_period_table, counts_intervals_of_the_period_given)
{
    // 20 minutes less 3 times 5 minutes.
    run_sql(_file, "ALTER TABLE trends_1_1 RENAME TO trends_1_5");
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {5, 3}, false), 0);
    EXPECT_EQ(rows("SELECT count(*), min(time) FROM trends_1_5"), "15|360");
}

TEST_F(trim_period_table, runs_these_statements_from_the_pool)
{
    ASSERT_EQ(_log.trim_period_table(_pump._device, {1, 15}, false), 0);
    statement_trace trace;
    EXPECT_EQ(_log.trim_period_table(_pump._device, {1, 3}, false), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", NEWEST_1_1, OLDEST_1_1, TRIM_1_1, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{});
}

TEST_F(trim_period_table, empty_table_is_looked_at_once)
{
    run_sql(_file, "DELETE FROM trends_1_1");
    statement_trace trace;
    EXPECT_EQ(_log.trim_period_table(_pump._device, {1, 3}, false), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", NEWEST_1_1, "COMMIT"}));
}

TEST_F(trim_period_table, cutoff_before_the_epoch_takes_the_row_at_time_0_only)
{
    record(_pump, 0, {0.0});
    record(_pump, 1, {0.0});
    statement_trace trace;
    EXPECT_EQ(_log.trim_period_table(_pump._device, {1, 100}, true), 0);
    EXPECT_EQ(trace.expanded()[3], "DELETE FROM trends_1_1 WHERE time <= 0");
    EXPECT_EQ(oldest(), "1");
}

TEST_F(trim_period_table, retention_beyond_32_bits_of_seconds_is_computed_whole)
{
    // 71582789 minutes are 2^32 + 44 seconds.
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {1, 71582789}, false), 0);
    EXPECT_EQ(oldest(), "60");
}

TEST_F(trim_period_table, longest_retention_keeps_everything)
{
    run_sql(_file, "ALTER TABLE trends_1_1 RENAME TO trends_1_4294967295");
    EXPECT_QUIET(_log.trim_period_table(_pump._device, {4294967295, 4294967295}, true), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_4294967295"), "20");
}

TEST_F(trim_period_table, table_that_is_not_there_is_a_failure)
{
    EXPECT_REPORTS(_log.trim_period_table(_pump._device, {7, 3}, false), -1,
                   prepare_report("no such table: trends_1_7"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(trim_period_table, delete_that_cannot_be_prepared_has_no_report_of_its_own)
{
    const std::string before = dump();
    deny_prepare denial(TRIM_1_1);
    EXPECT_REPORTS(_log.trim_period_table(_pump._device, {1, 3}, false), -1,
                   prepare_report("no such column: denied"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(trim_period_table, delete_that_fails_is_returned)
{
    run_sql(_file,
            "CREATE TRIGGER kept BEFORE DELETE ON trends_1_1 BEGIN SELECT RAISE(ABORT, 'kept'); "
            "END");
    const std::string before = dump();
    EXPECT_REPORTS(_log.trim_period_table(_pump._device, {1, 3}, false), -1,
                   step_and_reset_report(1811, "kept"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(trim_period_table, unread_times_are_failures_and_not_an_empty_table)
{
    const std::string before = dump();
    for (const std::string& unread : {NEWEST_1_1, OLDEST_1_1}) {
        interrupt_step fault(unread);
        EXPECT_REPORTS(_log.trim_period_table(_pump._device, {1, 3}, false), -1,
                       step_and_reset_report(9, "interrupted"));
        EXPECT_EQ(dump(), before);
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(trim_period_table, wrong_use_is_stopped_in_this_order)
{
    CDeviceProperties device;
    EXPECT_STOPS((_log.close(), _log.trim_period_table(device, {0, 0}, false)), "_db");
    EXPECT_STOPS(_log.trim_period_table(device, {0, 0}, false), "device._index>=0");
    device._index = 1;
    EXPECT_STOPS(_log.trim_period_table(device, {0, 0}, false), "!device._path.empty()");
    device._path = "pump";
    EXPECT_STOPS(_log.trim_period_table(device, {0, 0}, false), "period._period!=0");
    EXPECT_STOPS(_log.trim_period_table(device, {1, 0}, false), "period._max_entries!=0");
}

TEST_F(trim_period_table, row_before_the_epoch_is_stopped)
{
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (-5, 0.0, NULL)");
    EXPECT_STOPS(_log.trim_period_table(_pump._device, {1, 3}, false), "first_time>=0");
}

TEST_F(trim_period_table, delete_that_returns_a_row_is_stopped)
{
    count_changes fault;
    EXPECT_STOPS(_log.trim_period_table(_pump._device, {1, 3}, false), "retval<=0");
}

}  // namespace
