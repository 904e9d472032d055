// The recipe that keeps coarse rows on the clock, on random histories: periods, retentions, starts,
// gaps and restarts. Whether a row is on its boundary is judged by its time alone.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "rows.h"
#include "trend_api.h"
#include "trend_repair.h"
#include "widths.h"

// The examples themselves, so that they are what is tried here.
#define main keep_the_grid_main
#include "../examples/keep_the_grid.cpp"
#undef main
#define main add_a_period_main
#include "../examples/add_a_period.cpp"
#undef main

// SQLite waits for no disk here: what a power cut may take is tested elsewhere.
extern "C" int fsync(int) { return 0; }
extern "C" int fdatasync(int) { return 0; }

namespace {

constexpr time_t MINUTE = 60;

using recipe_t = int (*)(CLog&, const CDeviceParams&, const CSnapshot&);

// The recipe with a gap filled by one call.
int record_after_one_fill(CLog& log, const CDeviceParams& device, const CSnapshot& snapshot)
{
    std::vector<CPeriodProperties> periods;
    if (const int failed = log.get_periods(periods)) return failed;
    const time_t step = static_cast<time_t>(periods.front()._period) * MINUTE;
    time_t latest = -1;
    if (const int failed = log.get_latest_timestamp(device._device, latest)) return failed;
    if (latest == -1) return record_on_grid(log, device, snapshot);
    if (snapshot._time - latest > step)
        if (const int failed = log.fill_blank_values(device._device, snapshot._time - step, false))
            return failed;
    return log.add_trend_data(device, snapshot);
}

struct history_t {
    std::vector<CPeriodProperties> _periods;
    time_t _start = 0;
    std::vector<unsigned long> _runs;  // so many rows, so many missing ones, rows, missing ones ...
    size_t _late = 0;                  // which of the periods is added later, 0 for none,
    size_t _late_at = 0;               // before which run of rows
};

// `kept` says how many rows a period keeps of which `ratio` make one of the next.
template <typename Kept>
history_t random_history(unsigned int seed, Kept kept)
{
    std::mt19937 random(seed);
    const auto from_to = [&](unsigned long from, unsigned long to) {
        return from + random() % (to - from + 1);
    };
    history_t history;
    unsigned long period = from_to(1, 3) * (from_to(0, 1) ? 1 : 5);
    const unsigned long finest = period;
    for (unsigned long levels = from_to(2, 4); levels > 1; --levels) {
        const unsigned long ratio = from_to(2, levels > 3 ? 10 : 40);
        history._periods.emplace_back(period, kept(random, ratio));
        period *= ratio;
    }
    history._periods.emplace_back(period, from_to(1, 100));
    history._start = static_cast<time_t>(finest * from_to(1, 100000)) * MINUTE;
    for (unsigned long runs = from_to(1, 8); runs > 0; --runs) {
        history._runs.push_back(from_to(1, 150));
        // From gaps of a few rows to some that are longer than is kept anywhere.
        const unsigned long longest[] = {5, 50, 500, 5000};
        history._runs.push_back(from_to(1, longest[random() % 4]));
    }
    return history;
}

constexpr const char* LOG = "grid.db";

// How a period is added. A failure means that it is too early.
using add_t = int (*)(CLog&, const CPeriodProperties&);

int add_plainly(CLog& log, const CPeriodProperties& period) { return log.add_period(period); }

// Records the history, with the log opened anew at each gap. Whether all went well.
bool replay(const history_t& history, recipe_t record, add_t add = add_plainly)
{
    for (const char* tail : {"", "-wal", "-shm"})
        std::remove((std::string(LOG) + tail).c_str());
    CDeviceParams device;
    device._device._path = "pump";
    device._params.resize(1);
    device._params[0]._path = "power";
    device._params[0]._has_avg = true;

    const time_t step = static_cast<time_t>(history._periods.front()._period) * MINUTE;
    CSnapshot snapshot;
    snapshot._time = history._start;
    snapshot._percent_valid = 100.0;
    snapshot._samples.resize(1);
    bool awaited = history._late != 0;
    for (size_t i = 0; i < history._runs.size(); ++i) {
        if (i % 2 == 1) {
            snapshot._time += static_cast<time_t>(history._runs[i]) * step;
            continue;
        }
        CLog log;
        if (log.open(LOG, false, true, 100, false, 0, 0, 0, true) != 0) return false;
        if (log.begin_transaction() != 0) return false;
        if (i == 0) {
            for (size_t k = 0; k < history._periods.size(); ++k)
                if (history._late == 0 || k != history._late)
                    if (log.add_period(history._periods[k]) != 0) return false;
            if (log.add_device(device._device) != 0) return false;
            if (log.add_params(device._device, device._params) != 0) return false;
        }
        for (unsigned long row = 0; row < history._runs[i]; ++row, snapshot._time += step) {
            if (awaited && i >= history._late_at) {
                if (log.end_transaction() != 0) return false;
                awaited = add(log, history._periods[history._late]) != 0;
                if (log.begin_transaction() != 0) return false;
            }
            snapshot._samples[0]._avg = static_cast<double>(snapshot._time / MINUTE % 17);
            if (record(log, device, snapshot) != 0) return false;
        }
        if (log.end_transaction() != 0) return false;
    }
    return true;
}

// How many coarse rows there are, and how many of them do not end on a boundary.
struct count_t {
    size_t _rows = 0;
    size_t _off = 0;
};

bool has_table(const std::string& name)
{
    return rows(LOG, "SELECT count(*) FROM sqlite_master WHERE name = '" + name + "'") == "1";
}

count_t count_rows(const history_t& history)
{
    count_t count;
    for (size_t i = 1; i < history._periods.size(); ++i) {
        const unsigned long minutes = history._periods[i]._period;
        const std::string table = "trends_1_" + std::to_string(minutes);
        if (!has_table(table)) continue;
        const std::string times = rows(LOG, "SELECT group_concat(time, ' ') FROM " + table);
        for (size_t at = 0; at < times.size() && times != "NULL";) {
            size_t length = 0;
            const long long time = std::stoll(times.substr(at), &length);
            ++count._rows;
            if (time % (static_cast<long long>(minutes) * MINUTE) != 0) ++count._off;
            at += length + 1;
        }
    }
    return count;
}

// What a check warns of, but for tables that are short on purpose here.
std::string warnings()
{
    CLog log;
    if (log.open(LOG, true, false, 100, false, 0, 0, 0, true) != 0) return "can't be opened";
    std::vector<CFinding> findings;
    const time_t last = std::stol(rows(
        LOG, "SELECT max(time) FROM trends_1_" + rows(LOG, "SELECT min(period) FROM periods")));
    if (check_log(log, last, findings) != 0) return "can't be checked";
    std::string text;
    for (const CFinding& finding : findings)
        if (finding._severity != SEVERITY_INFORMATION && finding._kind != FINDING_SHORT_TABLE)
            text += finding._text + "\n";
    return text;
}

std::string text(unsigned int seed, const history_t& history)
{
    std::string result = "seed " + std::to_string(seed) + ": periods";
    for (const CPeriodProperties& period : history._periods)
        result += " {" + std::to_string(period._period) + ", " +
                  std::to_string(period._max_entries) + "}";
    result += ", first row at " + std::to_string(history._start) + ", rows and gaps";
    for (const unsigned long run : history._runs)
        result += " " + std::to_string(run);
    if (history._late != 0)
        result += ", period " + std::to_string(history._late) + " added before run " +
                  std::to_string(history._late_at);
    return result;
}

// How many of the random histories there are: a fifth on 32-bit targets, which are emulated.
constexpr unsigned int SHARE = TREND_WIDE_SIZES ? 1 : 5;

// Of a hundred random histories, those that left the grid.
template <typename Kept>
size_t count_strays(recipe_t recipe, Kept kept)
{
    size_t strays = 0;
    for (unsigned int seed = 1; seed <= 100 / SHARE; ++seed) {
        const history_t history = random_history(seed, kept);
        EXPECT_TRUE(replay(history, recipe)) << text(seed, history);
        strays += count_rows(history)._off != 0;
    }
    return strays;
}

}  // namespace

// Every period keeps at least as many rows as make one of the next: exactly so many in every other.
TEST(record_on_grid, keeps_coarse_rows_on_their_boundaries)
{
    size_t coarse_rows = 0;
    for (unsigned int seed = 1; seed <= 200 / SHARE; ++seed) {
        const history_t history =
            random_history(seed, [](std::mt19937& random, unsigned long ratio) {
                return random() % 2 ? ratio : ratio + random() % ratio;
            });
        ASSERT_TRUE(replay(history, record_on_grid)) << text(seed, history);
        const count_t count = count_rows(history);
        ASSERT_EQ(0U, count._off) << text(seed, history);
        ASSERT_EQ("", warnings()) << text(seed, history);
        coarse_rows += count._rows;
    }
    EXPECT_GT(coarse_rows, 5000U / SHARE);
}

TEST(record_on_grid, leaves_the_grid_where_a_period_keeps_fewer_rows_than_one_coarse_row_takes)
{
    EXPECT_GT(
        count_strays(record_on_grid, [](std::mt19937& random,
                                        unsigned long ratio) { return 1 + random() % ratio / 2; }),
        10U / SHARE);
}

// Why the recipe fills a gap in steps. The rows that wait and the first blank ones are up to two
// groups less one row; the table keeps ten rows more than is asked of it, or the roll-up would
// lose the first ones.
TEST(record_on_grid, would_leave_the_grid_with_a_single_fill_below_two_groups)
{
    const auto below_two_groups = [](std::mt19937& random, unsigned long ratio) {
        return ratio + random() % (std::max(ratio, 12UL) - 11);
    };
    EXPECT_GT(count_strays(record_after_one_fill, below_two_groups), 5U / SHARE);
    EXPECT_EQ(count_strays(record_on_grid, below_two_groups), 0U);
}

// A period added later -------------------------------------------------------------------------

namespace {

// A history in which one period, not the finest, comes later: in between or as the coarsest. The
// one below keeps enough for the next one at either time.
history_t history_with_late_period(unsigned int seed)
{
    history_t history =
        random_history(seed, [](std::mt19937&, unsigned long ratio) { return ratio; });
    std::mt19937 random(seed);
    std::vector<CPeriodProperties>& periods = history._periods;
    history._late = 1 + random() % (periods.size() - 1);
    if (history._late + 1 < periods.size())
        periods[history._late - 1]._max_entries =
            periods[history._late + 1]._period / periods[history._late - 1]._period;
    history._runs.insert(history._runs.end(), {100 + random() % 100, 1 + random() % 50, 300, 1});
    history._late_at = 2 * (1 + random() % (history._runs.size() / 2 - 1));
    return history;
}

}  // namespace

TEST(add_period_on_grid, keeps_all_coarse_rows_on_their_boundaries)
{
    size_t added = 0;
    for (unsigned int seed = 1; seed <= 150 / SHARE; ++seed) {
        const history_t history = history_with_late_period(seed);
        ASSERT_TRUE(replay(history, record_on_grid, add_period_on_grid)) << text(seed, history);
        ASSERT_EQ(0U, count_rows(history)._off) << text(seed, history);
        ASSERT_EQ("", warnings()) << text(seed, history);
        added += has_table("trends_1_" + std::to_string(history._periods[history._late]._period));
    }
    EXPECT_GT(added, 100U / SHARE);  // the others end before a boundary of the new period
}

TEST(add_period_on_grid, does_what_adding_alone_does_not)
{
    size_t strays = 0;
    for (unsigned int seed = 1; seed <= 150 / SHARE; ++seed) {
        const history_t history = history_with_late_period(seed);
        ASSERT_TRUE(replay(history, record_on_grid, add_plainly)) << text(seed, history);
        strays += count_rows(history)._off != 0;
    }
    EXPECT_GT(strays, 50U / SHARE);
}
