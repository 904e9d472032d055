// Random histories on the grid: nothing is found in them; and what recording everything in time
// leaves is what recording it late and rebuilding leaves, to the last bit.

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "log_fixture.h"
#include "trend_repair.h"

using namespace toolkit::trend;

namespace {

using random_t = std::mt19937_64;

size_t below(random_t& random, size_t n) { return static_cast<size_t>(random() % n); }
bool once_in(random_t& random, size_t n) { return below(random, n) == 0; }

constexpr time_t START = 1514764800;  // 2018-01-01 00:00 UTC

// Minutes that are measured, and which of them come late.
struct history_t {
    std::vector<CPeriodProperties> _periods;
    std::vector<CParamProperties> _params;
    std::vector<CSnapshot> _rows;  // in order of time
    std::vector<bool> _late;

    time_t step() const { return static_cast<time_t>(_periods.front()._period * 60); }
    time_t longest() const { return static_cast<time_t>(_periods.back()._period * 60); }
};

double some_value(random_t& random)
{
    const double kinds[] = {0.0, 1.0, -0.25, 1e-300, 0.1, 1e15, -7.7};
    return once_in(random, 3) ? kinds[below(random, std::size(kinds))]
                              : std::ldexp(static_cast<double>(random() % 100000), -9) - 60.0;
}

CSnapshot some_row(random_t& random, time_t time, size_t params)
{
    CSnapshot row;
    row._time = time;
    row._percent_valid = once_in(random, 3) ? static_cast<double>(below(random, 1001)) / 10 : 100.0;
    row._samples.resize(params);
    for (CSample& sample : row._samples)
        for (COptVal CSample::*value :
             {&CSample::_min, &CSample::_max, &CSample::_avg, &CSample::_actual, &CSample::_sum})
            if (!once_in(random, 8)) sample.*value = some_value(random);
    row._samples[0]._avg = some_value(random);  // never a blank row
    return row;
}

history_t some_history(random_t& random, size_t rows)
{
    history_t history;
    const std::vector<std::vector<unsigned long>> chains = {{1},         {1, 2},  {1, 5, 15},
                                                            {1, 15, 60}, {5, 60}, {2, 6, 12, 60}};
    for (const unsigned long minutes : chains[below(random, chains.size())])
        history._periods.push_back({minutes, 5000});
    // In any order of type: which row gives the last value depends on it.
    for (int i = 0; i < 3; ++i) {
        CParamProperties param;
        param._path = "p" + std::to_string(i);
        param._type = once_in(random, 2) ? SAMPLE_TYPE_VALUE : SAMPLE_TYPE_PF;
        param._has_min = once_in(random, 2);
        param._has_max = once_in(random, 2);
        param._has_avg = i == 0 || once_in(random, 2);
        param._has_actual = i == 1 || once_in(random, 2);
        param._has_sum = i == 2 || once_in(random, 2);
        history._params.push_back(param);
    }
    const time_t step = history.step();
    time_t time = START + static_cast<time_t>(below(random, 50)) * step;
    for (size_t i = 0; i < rows; ++i) {
        time += step;
        if (once_in(random, 40)) time += static_cast<time_t>(below(random, 100)) * step;
        history._rows.push_back(some_row(random, time, history._params.size()));
        history._late.push_back(once_in(random, 12));
    }
    history._late.back() = false;
    return history;
}

// What a check finds, as text: nothing where all is as it should be.
std::string findings(CLog& log, time_t now)
{
    std::vector<CFinding> found;
    if (check_log(log, now, found) != 0) return "failed";
    std::string text;
    for (const CFinding& finding : found)
        if (finding._kind != FINDING_FREE_PAGES)
            text += std::string(finding_name(finding._kind)) + ": " + finding._text + "\n";
    return text;
}

// As the guide says: seeded at the boundary, gaps filled.
void record_on_grid(CLog& log, const history_t& history, const CDeviceParams& device,
                    const CSnapshot& row)
{
    time_t latest = -1;
    ASSERT_EQ(0, log.get_latest_timestamp(device._device, latest));
    if (latest == -1) {
        CSnapshot blank;
        blank._time =
            CLog::previous_interval_boundary(history._periods.back()._period, row._time - 1) +
            history.step();
        blank._samples.resize(device._params.size());
        if (blank._time < row._time) {
            ASSERT_EQ(0, log.add_trend_data(device, blank));
            latest = blank._time;
        }
    }
    if (latest != -1 && row._time - latest > history.step()) {
        ASSERT_EQ(0, log.fill_blank_values(device._device, row._time - history.step(), false));
    }
    ASSERT_EQ(0, log.add_trend_data(device, row));
}

class rebuilt_history : public testing::TestWithParam<int> {
protected:
    CDeviceParams set_up(CLog& log, const std::string& file, const history_t& history)
    {
        EXPECT_EQ(0, open_log(log, file));
        EXPECT_EQ(0, log.begin_transaction());
        for (const CPeriodProperties& period : history._periods)
            EXPECT_EQ(0, log.add_period(period));
        CDeviceParams device;
        device._device._path = "pump";
        device._params = history._params;
        EXPECT_EQ(0, log.add_device(device._device));
        EXPECT_EQ(0, log.add_params(device._device, device._params));
        return device;
    }

    // What recording everything in time leaves.
    std::string in_order(const history_t& history)
    {
        CLog log;
        const CDeviceParams device = set_up(log, "in_order.db", history);
        for (const CSnapshot& row : history._rows)
            record_on_grid(log, history, device, row);
        EXPECT_EQ(0, log.end_transaction());
        EXPECT_EQ("", findings(log, history._rows.back()._time));
        log.close();
        return dump("in_order.db");
    }
};

}  // namespace

TEST_P(rebuilt_history, with_late_rows_in_place_of_blank_ones_is_that_in_order)
{
    random_t random(static_cast<uint64_t>(GetParam()));
    const history_t history = some_history(random, 60 + below(random, 900));

    CLog log;
    const CDeviceParams device = set_up(log, "late.db", history);
    CRebuildRequest request;
    request._device = device._device;
    request._params = device._params;
    for (size_t i = 0; i < history._rows.size(); ++i)
        if (history._late[i])
            request._rows.push_back(history._rows[i]);
        else
            record_on_grid(log, history, device, history._rows[i]);
    ASSERT_EQ(0, log.end_transaction());
    std::shuffle(request._rows.begin(), request._rows.end(), random);

    // In parts, some with just the bounds that they need.
    while (!request._rows.empty()) {
        CRebuildRequest part = request;
        part._rows.resize(1 + below(random, request._rows.size()));
        request._rows.erase(request._rows.begin(),
                            request._rows.begin() + static_cast<long>(part._rows.size()));
        if (once_in(random, 2)) {
            part._bounds = {part._rows[0]._time, part._rows[0]._time};
            for (const CSnapshot& row : part._rows) {
                part._bounds.first = std::min(part._bounds.first, row._time);
                part._bounds.second = std::max(part._bounds.second, row._time);
            }
        }
        CRebuildResult result;
        ASSERT_EQ(0, rebuild(log, part, result));
        EXPECT_EQ(part._rows.size(), result._merged);
        EXPECT_EQ(0u, result._replaced + result._refused + result._too_old + result._kept);
    }
    EXPECT_EQ("", findings(log, history._rows.back()._time));
    log.close();
    EXPECT_EQ(in_order(history), dump("late.db"));
}

TEST_P(rebuilt_history, with_rows_recorded_in_any_order_is_that_in_order)
{
    random_t random(static_cast<uint64_t>(GetParam()));
    history_t history = some_history(random, 60 + below(random, 900));
    // Nothing is begun behind the last whole group, so no row may be missing there.
    const time_t newest = history._rows.back()._time;
    for (size_t i = 0; i < history._rows.size(); ++i)
        history._rows[i]._time =
            newest - static_cast<time_t>(history._rows.size() - 1 - i) * history.step();

    CLog log;
    const CDeviceParams device = set_up(log, "late.db", history);
    for (const bool late : {false, true})
        for (size_t i = 0; i < history._rows.size(); ++i)
            if (history._late[i] == late) {
                ASSERT_EQ(0, log.add_trend_data(device, history._rows[i]));
            }
    ASSERT_EQ(0, log.end_transaction());

    CRebuildRequest request;
    request._device = device._device;
    request._off_grid = OFF_GRID_EXTEND;
    if (once_in(random, 2)) request._bounds = {history._rows[0]._time, history._rows[0]._time};
    CRebuildResult result;
    ASSERT_EQ(0, rebuild(log, request, result));
    EXPECT_EQ(0u, result._kept);
    EXPECT_EQ("", findings(log, history._rows.back()._time));
    log.close();
    EXPECT_EQ(in_order(history), dump("late.db"));
}

// A log that is configured anew now and then, whose tables are trimmed, with gaps that they can
// hold.
TEST_P(rebuilt_history, on_the_grid_gives_nothing_to_find)
{
    random_t random(static_cast<uint64_t>(GetParam()));
    history_t history = some_history(random, 400 + below(random, 1500));
    const size_t count = history._periods.size();
    for (size_t i = 0; i < count; ++i) {
        const size_t group =
            i + 1 < count ? history._periods[i + 1]._period / history._periods[i]._period : 1;
        history._periods[i]._max_entries = 2 * group + 10 + below(random, 200);
    }
    CLog log;
    CDeviceParams device = set_up(log, "trend.db", history);
    ASSERT_EQ(0, log.end_transaction());
    ASSERT_EQ(0, log.begin_transaction());
    // A gap that every table can hold, together with what is cleared before it.
    constexpr int CLEARED = 7;
    time_t longest_gap = 0;
    for (const CPeriodProperties& period : history._periods) {
        const auto held = static_cast<time_t>(period._period * 60 * period._max_entries);
        longest_gap = longest_gap == 0 ? held : std::min(longest_gap, held);
    }
    longest_gap -= (CLEARED + 1) * history.step();
    time_t skipped = 0;
    time_t last = 0;
    for (size_t i = 0; i < history._rows.size(); ++i) {
        CSnapshot row = history._rows[i];
        if (last != 0 && row._time - skipped - last > longest_gap)
            skipped = row._time - last - longest_gap / history.step() * history.step();
        row._time -= skipped;
        last = row._time;
        record_on_grid(log, history, device, row);
        if (once_in(random, 300)) {
            const time_t far = std::min<time_t>(40, longest_gap / history.step() + 1);
            const auto steps = static_cast<time_t>(below(random, static_cast<size_t>(far)));
            ASSERT_EQ(0, log.fill_blank_values(device._device, row._time + steps * history.step(),
                                               false));
            time_t latest = 0;
            ASSERT_EQ(0, log.get_latest_timestamp(device._device, latest));
            skipped -= latest - last;
            last = latest;
        }
        if (once_in(random, 300)) {
            CParamProperties& changed = device._params[below(random, device._params.size())];
            changed._has_min = !changed._has_min;
            changed._has_max = !changed._has_max;
            changed._has_sum = true;
            ASSERT_EQ(0, log.modify_params(device._device, {changed}));
        }
        if (once_in(random, 300)) {
            CParamProperties added;
            added._path = "added " + std::to_string(i);
            added._has_max = added._has_actual = true;
            std::vector<CParamProperties> list = {added};
            ASSERT_EQ(0, log.add_params(device._device, list));
        }
        if (once_in(random, 300)) {
            ASSERT_EQ(0, log.modify_period(history._periods[below(random, count)]));
        }
        if (once_in(random, 400)) {
            ASSERT_GE(log.clear_trend_data(device._device, {last - CLEARED * history.step(), -1}),
                      0);
        }
        if (once_in(random, 200)) {
            ASSERT_EQ("", findings(log, last)) << "after row " << i;
        }
    }
    ASSERT_EQ(0, log.end_transaction());
    EXPECT_EQ("", findings(log, last));
}

INSTANTIATE_TEST_SUITE_P(seeds, rebuilt_history, testing::Range(1, 41));
