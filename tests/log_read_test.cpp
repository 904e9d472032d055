// Reading rows back, over one period or several.

#include <algorithm>
#include <cmath>

#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"

namespace {

using toolkit::trend::CDeviceData;
using toolkit::trend::CDeviceParams;
using toolkit::trend::CPeriodProperties;
using toolkit::trend::CSample;
using toolkit::trend::CSnapshot;

const std::string GET_TREND_DATA =
    "int toolkit::trend::CLog::get_trend_data(toolkit::trend::CDeviceData&, const "
    "toolkit::trend::CDeviceParams&, const std::vector<toolkit::trend::CPeriodProperties>&, const "
    "timebounds_t&, size_t, size_t, bool, bool)";

const std::string PERIODS = "SELECT * FROM periods";
const std::string PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx ASC";

// What is asked for besides the device and its parameters.
struct question_t {
    std::vector<CPeriodProperties> _periods;
    timebounds_t _bounds = {-1, -1};
    size_t _limit = 0;
    size_t _offset = 0;
    bool _ascending = true;
    bool _no_overlap = false;
};

question_t of(std::vector<CPeriodProperties> periods)
{
    question_t question;
    question._periods = std::move(periods);
    return question;
}

question_t within(time_t first, time_t second)
{
    question_t question;
    question._bounds = {first, second};
    return question;
}

question_t some(size_t limit, size_t offset)
{
    question_t question;
    question._limit = limit;
    question._offset = offset;
    return question;
}

question_t descending(question_t question = {})
{
    question._ascending = false;
    return question;
}

question_t stitched(question_t question = {})
{
    question._no_overlap = true;
    return question;
}

class get_trend_data : public log_fixture {
protected:
    // A device with the one parameter "u" that keeps its average.
    CDeviceParams pump(std::initializer_list<CPeriodProperties> periods)
    {
        add_periods(periods);
        return add_device("pump", {param("u", "avg")});
    }

    // Rows that come from nowhere: a period's table need not fit the finer ones here.
    void put(const std::string& table, std::initializer_list<long> times)
    {
        for (const long time : times)
            run_sql(_file, "INSERT INTO " + table + " VALUES (" + std::to_string(time) +
                               ", 100.0, " + std::to_string(time) + ".5)");
    }

    int get(CDeviceData& data, const CDeviceParams& request, const question_t& question = {})
    {
        return _log.get_trend_data(data, request, question._periods, question._bounds,
                                   question._limit, question._offset, question._ascending,
                                   question._no_overlap);
    }

    // The rows in order, each as its period and its time: "15@900 60@3600".
    static std::string rows_of(const CDeviceData& data)
    {
        std::string all;
        for (const CSnapshot& row : data._snapshots)
            all += (all.empty() ? "" : " ") + std::to_string(row._period) + "@" +
                   std::to_string(row._time);
        return all;
    }

    std::string read(const CDeviceParams& request, const question_t& question = {})
    {
        CDeviceData data;
        EXPECT_QUIET(get(data, request, question), 0);
        return rows_of(data);
    }

    // The query that a read runs, as its text or with its values.
    std::string query(const CDeviceParams& request, const question_t& question)
    {
        statement_trace trace;
        read(request, question);
        return *(trace.texts().end() - 2);
    }

    std::string expanded_query(const CDeviceParams& request, const question_t& question)
    {
        statement_trace trace;
        read(request, question);
        return *(trace.expanded().end() - 2);
    }

    // The upper bound that the query gives each period of the question.
    std::string upper_bounds(const CDeviceParams& request, std::vector<CPeriodProperties> periods)
    {
        const std::string text = expanded_query(request, stitched(of(std::move(periods))));
        const std::string before = "(time < ";
        std::string bounds;
        for (size_t at = text.find(before); at != std::string::npos;
             at = text.find(before, at + 1)) {
            const size_t start = at + before.size();
            const std::string bound = text.substr(start, text.find(' ', start) - start);
            EXPECT_EQ(text.find(bound + " OR " + bound + " < 0)", start), start) << text;
            bounds += (bounds.empty() ? "" : " ") + bound;
        }
        return bounds;
    }
};

// What a row holds ------------------------------------------------------------------------------

TEST_F(get_trend_data, returns_the_device_its_parameters_and_its_rows)
{
    add_period(15, 100);
    const CDeviceParams device = add_device("pump", {param("u", "min max avg actual sum")});
    ASSERT_EQ(_log.add_trend_data(device, {0, 900, 75.0, {{1.0, 2.0, 3.0, 4.0, 5.0}}}), 0);

    CDeviceData data;
    EXPECT_QUIET(get(data, device), 0);
    EXPECT_EQ(data._device._index, device._device._index);
    EXPECT_EQ(data._device._path, "pump");
    ASSERT_EQ(data._params.size(), 1u);
    EXPECT_EQ(data._params[0]._path, "u");
    ASSERT_EQ(data._snapshots.size(), 1u);
    const CSnapshot& row = data._snapshots[0];
    EXPECT_EQ(row._period, 15u);
    EXPECT_EQ(row._time, 900);
    EXPECT_EQ(row._percent_valid, 75.0);
    ASSERT_EQ(row._samples.size(), 1u);
    EXPECT_EQ(*row._samples[0]._min, 1.0);
    EXPECT_EQ(*row._samples[0]._max, 2.0);
    EXPECT_EQ(*row._samples[0]._avg, 3.0);
    EXPECT_EQ(*row._samples[0]._actual, 4.0);
    EXPECT_EQ(*row._samples[0]._sum, 5.0);
}

TEST_F(get_trend_data, samples_follow_the_parameters_of_the_request)
{
    add_period(1, 100);
    const CDeviceParams device =
        add_device("pump", {param("u", "min avg"), param("v", "avg"), param("w", "max sum")});
    ASSERT_EQ(_log.add_trend_data(
                  device, {0, 60, 100.0, {{1.0, {}, 2.0, {}, {}}, avg(3), {{}, 4.0, {}, {}, 5.0}}}),
              0);

    CDeviceParams request = device;
    request._params = {device._params[2], device._params[0]};
    CDeviceData data;
    EXPECT_QUIET(get(data, request), 0);
    ASSERT_EQ(data._params.size(), 2u);
    EXPECT_EQ(data._params[0]._path, "w");
    EXPECT_EQ(data._params[1]._path, "u");
    const std::vector<CSample>& samples = data._snapshots.at(0)._samples;
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_EQ(*samples[0]._max, 4.0);
    EXPECT_EQ(*samples[0]._sum, 5.0);
    EXPECT_EQ(*samples[1]._min, 1.0);
    EXPECT_EQ(*samples[1]._avg, 2.0);
    EXPECT_FALSE(samples[0]._avg || samples[1]._max);
}

TEST_F(get_trend_data, empty_parameter_list_stands_for_all_of_the_device)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "avg"), pf("phi", "max")});
    record(device, 60, {2.0, 0.5});
    device._params.clear();

    CDeviceData data;
    EXPECT_QUIET(get(data, device), 0);
    ASSERT_EQ(data._params.size(), 2u);
    EXPECT_EQ(data._params[0]._index, 1);
    EXPECT_EQ(data._params[1]._index, 2);
    EXPECT_EQ(data._params[1]._type, toolkit::trend::SAMPLE_TYPE_PF);
    EXPECT_EQ(*data._snapshots.at(0)._samples.at(0)._avg, 2.0);
    EXPECT_EQ(*data._snapshots.at(0)._samples.at(1)._max, 0.5);
}

TEST_F(get_trend_data, reads_only_the_aggregates_that_the_request_names)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "min max avg")});
    record(device, 60, {2.0});
    device._params[0]._has_min = false;

    CDeviceData data;
    EXPECT_QUIET(get(data, device), 0);
    const CSample& sample = data._snapshots.at(0)._samples.at(0);
    EXPECT_FALSE(sample._min);
    EXPECT_EQ(*sample._max, 2.0);
    EXPECT_EQ(*sample._avg, 2.0);
}

TEST_F(get_trend_data, parameter_that_names_no_aggregate_has_an_absent_sample)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "avg"), param("v", "avg")});
    record(device, 60, {2.0, 3.0});
    device._params[0]._has_avg = false;

    statement_trace trace;
    CDeviceData data;
    EXPECT_EQ(get(data, device), 0);
    EXPECT_EQ(trace.times_run("SELECT ?, time, percent_valid, param_2_avg FROM trends_1_1 WHERE 1 "
                              "ORDER BY time ASC LIMIT ?"),
              1);
    const std::vector<CSample>& samples = data._snapshots.at(0)._samples;
    EXPECT_FALSE(samples.at(0)._min || samples.at(0)._avg || samples.at(0)._sum);
    EXPECT_EQ(*samples.at(1)._avg, 3.0);
}

TEST_F(get_trend_data, null_comes_back_as_an_absent_value_and_not_as_that_of_the_row_before)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {5.0});
    record(device, 120, {NAN});
    record(device, 180, {6.0});

    CDeviceData data;
    EXPECT_QUIET(get(data, device), 0);
    ASSERT_EQ(data._snapshots.size(), 3u);
    EXPECT_EQ(*data._snapshots[0]._samples[0]._avg, 5.0);
    ASSERT_EQ(data._snapshots[1]._samples.size(), 1u);
    EXPECT_FALSE(data._snapshots[1]._samples[0]._avg);
    EXPECT_EQ(*data._snapshots[2]._samples[0]._avg, 6.0);
}

TEST_F(get_trend_data, replaces_what_the_result_held)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {5.0});
    CDeviceData data;
    data._device._path = "other";
    data._device._guid = "guid";
    data._device._index = 9;
    data._params.resize(3);
    data._snapshots.resize(4);
    EXPECT_QUIET(get(data, device), 0);
    EXPECT_EQ(data._device._path, "pump");
    EXPECT_EQ(data._device._guid, "");
    EXPECT_EQ(data._device._index, 1);
    EXPECT_EQ(data._params.size(), 1u);
    EXPECT_EQ(rows_of(data), "1@60");
}

TEST_F(get_trend_data, result_may_be_the_request)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {5.0});
    CDeviceData data;
    data._device = device._device;
    EXPECT_QUIET(get(data, data), 0);  // all parameters
    ASSERT_EQ(data._params.size(), 1u);
    EXPECT_EQ(rows_of(data), "1@60");
    EXPECT_QUIET(get(data, data), 0);  // these
    ASSERT_EQ(data._params.size(), 1u);
    EXPECT_EQ(data._device._path, "pump");
    EXPECT_EQ(rows_of(data), "1@60");
    EXPECT_EQ(*data._snapshots[0]._samples.at(0)._avg, 5.0);
}

TEST_F(get_trend_data, device_without_rows_reads_as_none)
{
    EXPECT_EQ(read(pump({{1, 100}, {15, 100}})), "");
}

// Which rows ------------------------------------------------------------------------------------

TEST_F(get_trend_data, rows_of_all_periods_are_ordered_by_time)
{
    const CDeviceParams device = pump({{60, 100}, {15, 100}, {1440, 100}});
    put("trends_1_15", {1000, 2000, 3000});
    put("trends_1_60", {500, 2500});
    put("trends_1_1440", {700});
    EXPECT_EQ(read(device), "60@500 1440@700 15@1000 15@2000 60@2500 15@3000");
    EXPECT_EQ(read(device, descending()), "15@3000 60@2500 15@2000 15@1000 1440@700 60@500");
}

TEST_F(get_trend_data, reads_the_periods_asked_for)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}, {1440, 100}});
    put("trends_1_15", {1000});
    put("trends_1_60", {2000});
    put("trends_1_1440", {3000});
    EXPECT_EQ(read(device, of({{60, 100}})), "60@2000");
    EXPECT_EQ(read(device, of({{1440, 1}, {15, 1}})), "15@1000 1440@3000");
}

TEST_F(get_trend_data, same_time_in_two_periods_is_returned_twice)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}});
    put("trends_1_15", {3600});
    put("trends_1_60", {3600});
    CDeviceData data;
    EXPECT_QUIET(get(data, device), 0);
    ASSERT_EQ(data._snapshots.size(), 2u);
    EXPECT_EQ(data._snapshots[0]._period + data._snapshots[1]._period, 75u);
}

TEST_F(get_trend_data, bounds_are_inclusive_and_minus_1_leaves_a_side_open)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    put("trends_1_1", {0, 60, 120, 180});
    put("trends_1_2", {120});
    const question_t finest = of({{1, 100}});
    EXPECT_EQ(read(device, within(60, 120)), "1@60 1@120 2@120");
    EXPECT_EQ(read(device, within(61, 119)), "");
    EXPECT_EQ(read(device, within(121, -1)), "1@180");
    EXPECT_EQ(read(device, within(-1, 60)), "1@0 1@60");
    EXPECT_EQ(read(device, within(0, 0)), "1@0");
    EXPECT_EQ(read(device, finest), "1@0 1@60 1@120 1@180");
}

TEST_F(get_trend_data, bounds_that_cross_yield_no_rows)
{
    const CDeviceParams device = pump({{1, 100}});
    put("trends_1_1", {60, 120});
    EXPECT_EQ(read(device, within(120, 60)), "");
}

TEST_F(get_trend_data, limit_and_offset_count_rows_of_all_periods_together)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    put("trends_1_1", {60, 180, 300});
    put("trends_1_2", {120, 240});
    EXPECT_EQ(read(device, some(3, 0)), "1@60 2@120 1@180");
    EXPECT_EQ(read(device, some(2, 1)), "2@120 1@180");
    EXPECT_EQ(read(device, some(0, 3)), "2@240 1@300");
    EXPECT_EQ(read(device, some(9, 4)), "1@300");
    EXPECT_EQ(read(device, some(9, 5)), "");
    EXPECT_EQ(read(device, some(0, 0)), "1@60 2@120 1@180 2@240 1@300");
    EXPECT_EQ(read(device, descending(some(1, 1))), "2@240");
}

TEST_F(get_trend_data, longest_period_reads_back_as_such)
{
    const CDeviceParams device = pump({{4294967295, 100}});
    put("trends_1_4294967295", {60});
    EXPECT_EQ(read(device), "4294967295@60");
    EXPECT_EQ(expanded_query(device, {}),
              "SELECT 4294967295, time, percent_valid, param_1_avg FROM trends_1_4294967295 WHERE "
              "1 ORDER BY time ASC LIMIT -1");
}

// Without overlap -------------------------------------------------------------------------------

TEST_F(get_trend_data, upper_bound_is_the_oldest_time_of_any_finer_period_in_every_order)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}, {1440, 100}});
    put("trends_1_15", {1000, 2000});
    put("trends_1_60", {0, 3600});
    const std::vector<CPeriodProperties> all = {{15, 100}, {60, 100}, {1440, 100}};
    const std::vector<std::string> expected = {"-1", "1000", "0"};

    std::vector<size_t> order = {0, 1, 2};
    do {
        EXPECT_EQ(upper_bounds(device, {all[order[0]], all[order[1]], all[order[2]]}),
                  expected[order[0]] + " " + expected[order[1]] + " " + expected[order[2]]);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(get_trend_data, empty_finer_periods_bound_nothing)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}, {1440, 100}});
    const std::vector<CPeriodProperties> all = {{15, 100}, {60, 100}, {1440, 100}};
    EXPECT_EQ(upper_bounds(device, all), "-1 -1 -1");
    put("trends_1_1440", {100});
    EXPECT_EQ(upper_bounds(device, all), "-1 -1 -1");
    put("trends_1_60", {500});
    EXPECT_EQ(upper_bounds(device, all), "-1 -1 500");
}

TEST_F(get_trend_data, upper_bound_stays_with_the_oldest_of_several_finer_periods)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}, {1440, 100}});
    put("trends_1_15", {1000});
    put("trends_1_60", {2000});
    EXPECT_EQ(upper_bounds(device, {{15, 100}, {60, 100}, {1440, 100}}), "-1 1000 1000");
}

TEST_F(get_trend_data, upper_bound_reaches_over_an_empty_period)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}, {1440, 100}});
    put("trends_1_15", {1000});
    put("trends_1_1440", {500});
    EXPECT_EQ(upper_bounds(device, {{15, 100}, {60, 100}, {1440, 100}}), "-1 1000 1000");
}

// Without the bound it would return coarse rows over fine ones.
TEST_F(get_trend_data, fails_when_the_oldest_time_of_a_period_is_not_read)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}});
    put("trends_1_15", {1000});
    put("trends_1_60", {500, 3600});
    {
        interrupt_step fault("SELECT min(time) FROM trends_1_15");
        CDeviceData data;
        EXPECT_REPORTS(get(data, device, stitched()), -1, step_and_reset_report(9, "interrupted"));
    }
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, only_the_periods_asked_for_bound_one_another)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}, {1440, 100}});
    put("trends_1_15", {1000});
    put("trends_1_60", {2000});
    EXPECT_EQ(upper_bounds(device, {{1440, 100}, {60, 100}}), "2000 -1");
    EXPECT_EQ(upper_bounds(device, {{1440, 100}}), "-1");
}

TEST_F(get_trend_data, period_asked_for_twice_does_not_bound_itself)
{
    const CDeviceParams device = pump({{15, 100}});
    put("trends_1_15", {1000});
    EXPECT_EQ(read(device, stitched(of({{15, 100}, {15, 100}}))), "15@1000 15@1000");
}

TEST_F(get_trend_data, stitched_read_takes_the_best_resolution_that_is_still_there)
{
    // The fine table holds minutes 46 to 60, the coarse one everything.
    const CDeviceParams device = pump({{1, 5}, {5, 100}});
    ASSERT_EQ(_log.begin_transaction(), 0);
    for (time_t time = 60; time <= 3600; time += 60)
        record(device, time, {1.0});
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(read(device, stitched()),
              "5@300 5@600 5@900 5@1200 5@1500 5@1800 5@2100 5@2400 5@2700 1@2760 1@2820 1@2880 "
              "1@2940 1@3000 1@3060 1@3120 1@3180 1@3240 1@3300 1@3360 1@3420 1@3480 1@3540 "
              "1@3600");
}

TEST_F(get_trend_data, coarse_row_that_ends_with_or_after_the_first_fine_row_is_dropped)
{
    // So the seam is empty from 3600 to 5400.
    const CDeviceParams device = pump({{15, 100}, {60, 100}});
    put("trends_1_60", {3600, 7200, 10800});
    put("trends_1_15", {6300, 7200, 8100});
    EXPECT_EQ(read(device, stitched()), "60@3600 15@6300 15@7200 15@8100");
    put("trends_1_15", {3600});
    EXPECT_EQ(read(device, stitched()), "15@3600 15@6300 15@7200 15@8100");
}

TEST_F(get_trend_data, fine_row_at_time_0_suppresses_every_coarse_row)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}});
    put("trends_1_15", {0});
    put("trends_1_60", {3600});
    EXPECT_EQ(read(device, stitched()), "15@0");
}

TEST_F(get_trend_data, bounds_of_the_question_do_not_move_the_seam)
{
    const CDeviceParams device = pump({{15, 100}, {60, 100}});
    put("trends_1_15", {6300, 7200});
    put("trends_1_60", {3600, 7200});
    question_t question = stitched(within(7000, -1));
    EXPECT_EQ(read(device, question), "15@7200");
    question = stitched(within(-1, 6000));
    EXPECT_EQ(read(device, question), "60@3600");
}

// Which query runs --------------------------------------------------------------------------------

TEST_F(get_trend_data, query_is_composed_piece_by_piece)
{
    add_periods({{15, 100}, {60, 100}});
    add_device("first");
    CDeviceParams device = add_device(
        "second", {param("a", "avg"), param("b", "avg"), param("c", "min max avg"),
                   param("d", "avg"), param("e", "avg"), param("f", "avg"), param("g", "actual")});
    device._params = {device._params[2], device._params[6]};
    run_sql(_file, "INSERT INTO trends_2_15 (time, percent_valid) VALUES (2000, 0.0)");

    question_t question = stitched(of({{15, 100}, {60, 100}}));
    question._bounds = {1000, 9000};
    question._limit = 100;
    question._offset = 20;
    const std::string head =
        "SELECT ?, time, percent_valid, param_3_min, param_3_max, param_3_avg, param_7_actual";
    const std::string filter = " WHERE 1 AND time >= ? AND time <= ? AND (time < ? OR ? < 0) ";
    EXPECT_EQ(query(device, question), head + " FROM trends_2_15" + filter + "UNION ALL " + head +
                                           " FROM trends_2_60" + filter +
                                           "ORDER BY time ASC LIMIT ? OFFSET ?");

    const std::string values =
        ", time, percent_valid, param_3_min, param_3_max, param_3_avg, "
        "param_7_actual FROM trends_2_";
    EXPECT_EQ(expanded_query(device, question),
              "SELECT 15" + values +
                  "15 WHERE 1 AND time >= 1000 AND time <= 9000 AND (time < -1 OR -1 < 0) UNION "
                  "ALL SELECT 60" +
                  values +
                  "60 WHERE 1 AND time >= 1000 AND time <= 9000 AND (time < 2000 OR 2000 < 0) "
                  "ORDER BY time ASC LIMIT 100 OFFSET 20");
}

TEST_F(get_trend_data, each_piece_of_the_filter_is_there_when_it_is_needed)
{
    const CDeviceParams device = pump({{1, 100}});
    const std::string head = "SELECT 1, time, percent_valid, param_1_avg FROM trends_1_1 WHERE 1 ";
    const std::string tail = "ORDER BY time ASC LIMIT -1";
    EXPECT_EQ(expanded_query(device, {}), head + tail);
    EXPECT_EQ(expanded_query(device, within(5, -1)), head + "AND time >= 5 " + tail);
    EXPECT_EQ(expanded_query(device, within(-1, 7)), head + "AND time <= 7 " + tail);
    EXPECT_EQ(expanded_query(device, stitched()), head + "AND (time < -1 OR -1 < 0) " + tail);
    EXPECT_EQ(expanded_query(device, stitched(within(0, 0))),
              head + "AND time >= 0 AND time <= 0 AND (time < -1 OR -1 < 0) " + tail);
}

TEST_F(get_trend_data, order_limit_and_offset_close_the_query)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    const std::string head =
        "SELECT ?, time, percent_valid, param_1_avg FROM trends_1_5 WHERE 1 UNION ALL SELECT ?, "
        "time, percent_valid, param_1_avg FROM trends_1_1 WHERE 1 ";
    question_t question = of({{5, 100}, {1, 100}});
    EXPECT_EQ(query(device, question), head + "ORDER BY time ASC LIMIT ?");
    EXPECT_EQ(query(device, descending(question)), head + "ORDER BY time DESC LIMIT ?");
    question._limit = 5;
    EXPECT_EQ(query(device, question), head + "ORDER BY time ASC LIMIT ?");
    question._offset = 3;
    EXPECT_EQ(query(device, question), head + "ORDER BY time ASC LIMIT ? OFFSET ?");
    question._limit = 0;
    const std::string expanded = expanded_query(device, question);
    EXPECT_EQ(expanded.substr(expanded.find("LIMIT")), "LIMIT -1 OFFSET 3");
}

TEST_F(get_trend_data, runs_one_transaction_with_the_lists_that_it_needs)
{
    CDeviceParams device = pump({{1, 100}, {5, 100}});
    statement_trace trace;
    read(device, of({{1, 100}}));
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN",
                       "SELECT ?, time, percent_valid, param_1_avg FROM trends_1_1 WHERE 1 ORDER "
                       "BY time ASC LIMIT ?",
                       "COMMIT"}));

    device._params.clear();
    trace.clear();
    read(device, stitched());
    ASSERT_EQ(trace.texts().size(), 7u);
    EXPECT_EQ(texts_t(trace.texts().begin(), trace.texts().begin() + 5),
              (texts_t{"BEGIN", PARAMS_1, PERIODS, "SELECT min(time) FROM trends_1_1",
                       "SELECT min(time) FROM trends_1_5"}));
    EXPECT_EQ(trace.texts()[6], "COMMIT");
}

TEST_F(get_trend_data, query_is_prepared_each_time_and_the_rest_comes_from_the_pool)
{
    CDeviceParams device = pump({{1, 100}, {5, 100}});
    device._params.clear();
    const std::string text = query(device, stitched());
    statement_trace trace;
    read(device, stitched());
    read(device, stitched());
    EXPECT_EQ(trace.prepared(), (texts_t{text, text}));
}

// State -------------------------------------------------------------------------------------------

TEST_F(get_trend_data, changes_nothing)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    put("trends_1_1", {60, 120});
    put("trends_1_5", {30});
    const std::string before = dump();
    read(device, stitched());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, reads_what_the_hosts_transaction_has_written)
{
    const CDeviceParams device = pump({{1, 100}});
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 60, {1.0});
    EXPECT_EQ(read(device), "1@60");
    _log.rollback_transaction();
    EXPECT_EQ(read(device), "");
}

TEST_F(get_trend_data, reads_a_log_that_was_opened_for_reading_only)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 60, {1.0});
    open_args args;
    args._read_only = true;
    reopen(args);
    EXPECT_EQ(read(device), "1@60");
}

// Refusals
// ------------------------------------------------------------------------------------------

TEST_F(get_trend_data, checks_its_arguments_in_order_before_it_touches_anything)
{
    CDeviceParams request;
    question_t question;
    CDeviceData data;
    data._snapshots.resize(2);
    data._params.resize(3);
    data._device._index = 4;
    const auto refused = [&](const std::string& why) {
        statement_trace trace;
        EXPECT_REPORTS(get(data, request, question), -1, GET_TREND_DATA + ": Error: " + why + "\n");
        EXPECT_EQ(trace.texts(), texts_t{});
        EXPECT_EQ(data._snapshots.size(), 2u);
        EXPECT_EQ(data._params.size(), 3u);
        EXPECT_EQ(data._device._index, 4);
    };

    question._bounds = {-2, -2};
    _log.close();
    refused("DB not open");
    open();
    refused("empty device path");
    request._device._path = "pump";
    refused("invalid device id");
    request._device._index = 1;
    refused("invalid time range");
    question._bounds = {-2, 0};
    refused("invalid time range");
    question._bounds = {0, -2};
    refused("invalid time range");
}

TEST_F(get_trend_data, refuses_a_device_without_parameters)
{
    add_period(1, 100);
    CDeviceParams request;
    request._device = add_device("pump");
    CDeviceData data;
    data._snapshots.resize(2);
    EXPECT_REPORTS(get(data, request), -1, GET_TREND_DATA + ": Error: empty parameter list\n");
    EXPECT_TRUE(data._snapshots.empty());
    EXPECT_EQ(data._device._path, "pump");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, refuses_a_log_without_periods)
{
    CDeviceParams request = pump({{1, 100}});
    ASSERT_EQ(_log.remove_period({1, 100}), 0);
    CDeviceData data;
    EXPECT_REPORTS(get(data, request), -1, GET_TREND_DATA + ": Error: empty period list\n");
    EXPECT_TRUE(at_level_0());

    // Parameters are looked at first.
    ASSERT_EQ(_log.remove_params(request._device, request._params), 0);
    request._params.clear();
    EXPECT_REPORTS(get(data, request), -1, GET_TREND_DATA + ": Error: empty parameter list\n");
}

TEST_F(get_trend_data, refuses_a_parameter_that_is_not_stored)
{
    CDeviceParams request = pump({{1, 100}});
    request._params.push_back(param("v", "avg"));
    CDeviceData data;
    EXPECT_REPORTS(get(data, request, of({{1, 100}})), -1,
                   GET_TREND_DATA + ": Error: invalid param id\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, parameter_that_is_not_stored_is_stopped_where_no_periods_are_named)
{
    CDeviceParams request = pump({{1, 100}});
    request._params.push_back(param("v", "avg"));
    CDeviceData data;
    EXPECT_STOPS(get(data, request), "!periods.empty()");
}

TEST_F(get_trend_data, period_without_minutes_or_entries_is_stopped_where_rows_must_not_overlap)
{
    const CDeviceParams device = pump({{1, 100}});
    CDeviceData data;
    EXPECT_STOPS(get(data, device, stitched(of({{1, 1}, {0, 1}}))), "periods[i]._period!=0");
    EXPECT_STOPS(get(data, device, stitched(of({{1, 0}}))), "periods[i]._max_entries!=0");
    EXPECT_EQ(read(device, of({{1, 0}})), "");
}

TEST_F(get_trend_data, row_of_a_period_of_0_minutes_is_stopped)
{
    const CDeviceParams device = pump({{1, 100}});
    run_sql(_file, "ALTER TABLE trends_1_1 RENAME TO trends_1_0");
    put("trends_1_0", {60});
    CDeviceData data;
    EXPECT_STOPS(get(data, device, of({{0, 100}})), "ival>0");
}

TEST_F(get_trend_data, seam_before_the_epoch_is_stopped)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (-5, 0.0, NULL)");
    CDeviceData data;
    EXPECT_STOPS(get(data, device, stitched()), "upper_bounds[i]>=-1");
}

// Failures
// ------------------------------------------------------------------------------------------

TEST_F(get_trend_data, query_that_cannot_be_prepared_has_no_report_of_its_own)
{
    CDeviceParams device = pump({{1, 100}});
    CDeviceData data;
    EXPECT_REPORTS(get(data, device, of({{7, 100}})), -1,
                   prepare_report("no such table: trends_1_7"));
    EXPECT_REPORTS(get(data, device, stitched(of({{7, 100}}))), -1,
                   prepare_report("no such table: trends_1_7"));
    device._params[0]._index = 99;
    EXPECT_REPORTS(get(data, device), -1, prepare_report("no such column: param_99_avg"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, list_that_cannot_be_prepared_is_passed_on)
{
    CDeviceParams device = pump({{1, 100}});
    device._params.clear();
    reopen();
    for (const std::string& list : {PARAMS_1, PERIODS}) {
        deny_prepare denial(list);
        CDeviceData data;
        EXPECT_REPORTS(get(data, device), -1, prepare_report("no such column: denied"));
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(get_trend_data, value_that_cannot_be_decoded_returns_1_with_the_rows_before)
{
    const CDeviceParams device = pump({{1, 100}});
    put("trends_1_1", {60, 120, 180});
    run_sql(_file, "UPDATE trends_1_1 SET param_1_avg = 'much' WHERE time = 120");
    CDeviceData data;
    EXPECT_REPORTS(get(data, device), 1,
                   "int toolkit::trend::CStatement::column(size_t, toolkit::trend::COptVal&) "
                   "const: Column type is non-float\n");
    EXPECT_EQ(rows_of(data), "1@60");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, validity_that_cannot_be_decoded_returns_1)
{
    const CDeviceParams device = pump({{1, 100}});
    put("trends_1_1", {60});
    run_sql(_file, "UPDATE trends_1_1 SET percent_valid = 'all'");
    CDeviceData data;
    EXPECT_REPORTS(get(data, device), 1,
                   "int toolkit::trend::CStatement::column(size_t, double&, bool) const: Column "
                   "type is non-float\n");
    EXPECT_EQ(rows_of(data), "");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, failing_step_ends_the_rows_without_failing_the_read)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    put("trends_1_1", {60, 120, 180, 240});
    const std::string text = query(device, of({{1, 100}}));
    interrupt_step fault(text, 3);
    CDeviceData data;
    EXPECT_REPORTS(get(data, device, of({{1, 100}})), 0, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(rows_of(data), "1@60 1@120");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, failing_step_of_the_periods_shortens_the_list)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    put("trends_1_1", {60});
    put("trends_1_5", {300});
    reopen();
    CDeviceData data;
    {
        interrupt_step fault(PERIODS, 2);
        EXPECT_REPORTS(get(data, device), 0, step_and_reset_report(9, "interrupted"));
        EXPECT_EQ(rows_of(data), "1@60");
    }
    interrupt_step fault(PERIODS, 1);
    EXPECT_REPORTS(
        get(data, device), -1,
        step_and_reset_report(9, "interrupted") + GET_TREND_DATA + ": Error: empty period list\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, failing_step_of_the_parameters_shortens_the_list)
{
    add_period(1, 100);
    CDeviceParams device = add_device("pump", {param("u", "avg"), param("v", "avg")});
    record(device, 60, {1.0, 2.0});
    device._params.clear();
    interrupt_step fault(PARAMS_1, 2);
    CDeviceData data;
    EXPECT_REPORTS(get(data, device), 0, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(data._params.size(), 1u);
    EXPECT_EQ(data._snapshots.at(0)._samples.size(), 1u);
}

// Of two periods with both bounds and the seam: the period, the bounds and twice the seam each,
// then limit and offset.
TEST_F(get_trend_data, fails_at_any_value_that_cannot_be_bound)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    question_t question = stitched(within(0, 9000));
    question._limit = 10;
    question._offset = 1;
    for (int n = 1; n <= 2 * 5 + 2; ++n) {
        SCOPED_TRACE(n);
        const refuse_bind refusal(n);
        CDeviceData data;
        EXPECT_REPORTS(get(data, device, question), -1,
                       "int toolkit::trend::CStatement::bind(size_t, int64_t): "
                       "sqlite3_bind_int64(): 25 (column index out of range)\n");
        EXPECT_TRUE(at_level_0());
    }
    const refuse_bind none(2 * 5 + 3);
    EXPECT_EQ(read(device, question), "");
}

TEST_F(get_trend_data, fails_at_a_time_that_is_no_number)
{
    const CDeviceParams device = pump({{1, 100}});
    run_sql(_file,
            "DROP TABLE trends_1_1; CREATE TABLE trends_1_1 (time, percent_valid, param_1_avg); "
            "INSERT INTO trends_1_1 VALUES ('noon', 100.0, 1.0)");
    CDeviceData data;
    EXPECT_REPORTS(get(data, device), 1,
                   "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: Column "
                   "type is non-int\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_trend_data, fails_at_a_row_without_time_or_percentage)
{
    const CDeviceParams device = pump({{1, 100}});
    for (const char* row : {"NULL, 100.0, 1.0", "60, NULL, 1.0"}) {
        run_sql(_file, std::string("DROP TABLE trends_1_1; "
                                   "CREATE TABLE trends_1_1 (time, percent_valid, param_1_avg); "
                                   "INSERT INTO trends_1_1 VALUES (") +
                           row + ")");
        CDeviceData data;
        EXPECT_EQ(get(data, device), 1) << row;
        EXPECT_TRUE(data._snapshots.empty());
    }
}

TEST_F(get_trend_data, passes_on_a_refused_commit)
{
    const CDeviceParams device = pump({{1, 100}});
    {
        refuse_commit refusal;
        CDeviceData data;
        EXPECT_REPORTS(get(data, device), -1, step_and_reset_report(9, "interrupted"));
    }
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(read(device), "");
}

TEST_F(get_trend_data, failure_within_a_host_transaction_leaves_its_level_and_its_work)
{
    const CDeviceParams device = pump({{1, 100}});
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 60, {1.0});
    CDeviceData data;
    EXPECT_REPORTS(get(data, device, of({{7, 100}})), -1,
                   prepare_report("no such table: trends_1_7"));
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60");
}

}  // namespace
