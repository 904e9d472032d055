// Views of random histories against what the long way gives: see support/reader_reference.h.

#include <sqlite3.h>

#include <random>

#include "log_fixture.h"
#include "reader_reference.h"
#include "trend_reader.h"

using namespace toolkit::trend;

namespace {

class random_history : public log_fixture {
protected:
    using generator_t = std::mt19937;

    int number(int from, int to) { return std::uniform_int_distribution<int>(from, to)(_random); }
    bool chance(int percent) { return number(1, 100) <= percent; }

    void make_log(unsigned seed)
    {
        SCOPED_TRACE(seed);
        _random.seed(seed);
        const std::vector<std::vector<unsigned long>> choices = {
            {1, 3, 12}, {1, 5, 15, 60}, {2, 6}, {1}, {3, 12, 24}};
        _periods = choices[static_cast<size_t>(number(0, 4))];
        for (const unsigned long period : _periods)
            add_period(period, static_cast<size_t>(number(4, 40)));
        std::vector<CParamProperties> params = {param("power", "min max avg actual sum"),
                                                pf("cosphi", "min max avg actual"),
                                                param("energy", "sum")};
        _device = log_fixture::add_device("pump", params);
    }

    void execute(const std::string& sql)
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(_file.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    std::string value(double from, double to)
    {
        if (chance(15)) return "NULL";
        return std::to_string(std::uniform_real_distribution<double>(from, to)(_random));
    }

    // Rows on and off the grid, each table by itself.
    void fill_tables()
    {
        std::string sql = "BEGIN;";
        const int end = number(10, 120);  // minutes
        for (const unsigned long period : _periods) {
            const int length = static_cast<int>(period) * 3;  // steps
            int time = chance(50) ? 0 : number(0, 3 * end / 2);
            const int to = chance(50) ? 3 * end : number(0, 3 * end);
            const bool gaps = chance(50), dense = chance(20), shifted = chance(40);
            if (shifted) time += number(1, length);
            while (time <= to) {
                time += dense ? number(1, length) : length;
                if (gaps && chance(15)) time += number(1, 4 * length);
                sql += "INSERT INTO trends_1_" + std::to_string(period) + " VALUES(" +
                       std::to_string(time * reference::STEP) + "," +
                       (chance(20) ? "0.0" : std::to_string(number(1, 1000) / 10.0));
                for (int i = 0; i < 5; ++i)
                    sql += "," + value(-50, 50);
                for (int i = 0; i < 4; ++i)
                    sql += "," + value(-1.1, 1.1);
                sql += "," + value(0, 9) + ");";
            }
        }
        execute(sql + "COMMIT;");
    }

    // Rows as a host records them, with all that can happen to them.
    void record_history()
    {
        time_t time = static_cast<time_t>(60 * number(0, 30));
        const time_t step = static_cast<time_t>(60 * _periods.front());
        for (int i = number(10, 150); i > 0; --i) {
            time += chance(90) ? step : static_cast<time_t>(20 * number(1, 60));
            const double x = number(-100, 100) / 10.0;
            record(_device, time, {x, x / 10.0, 1.0}, chance(80) ? 100.0 : number(0, 100));
            if (chance(3)) {
                ASSERT_EQ(_log.fill_blank_values(_device._device, time + 40 * step, false), 0);
            }
            time_t latest = -1;
            ASSERT_EQ(_log.get_latest_timestamp(_device._device, latest), 0);
            time = std::max(time, latest);
            if (chance(1)) {
                const time_t from = std::max<time_t>(time - number(0, 100) * 60, 0);
                ASSERT_GE(_log.clear_trend_data(_device._device, {from, from + 600}), 0);
            }
            if (chance(1)) {
                const unsigned long period =
                    _periods[static_cast<size_t>(number(0, static_cast<int>(_periods.size()) - 1))];
                ASSERT_EQ(_log.modify_period({period, static_cast<size_t>(number(3, 30))}), 0);
            }
            if (chance(2))
                execute("DELETE FROM trends_1_" + std::to_string(_periods.front()) +
                        " WHERE time % 7 = 0");
        }
    }

    void make_history(unsigned seed)
    {
        make_log(seed);
        if (chance(60))
            fill_tables();
        else
            record_history();
        _history = reference::load(_file, _device, _periods);
    }

    interval_visitor_t keep(std::vector<CInterval>& intervals)
    {
        return [&intervals](const CDeviceParams&, const CInterval& interval) {
            intervals.push_back(interval);
            return true;
        };
    }

    CReadRequest request(int64_t first, int64_t last)
    {
        CReadRequest request;
        request._device = _device._device;
        request._bounds = {static_cast<time_t>(first), static_cast<time_t>(last)};
        return request;
    }

    std::string text(const std::vector<CInterval>& intervals)
    {
        return reference::text(_device._params, intervals);
    }

    // A window with one end in four open.
    void choose_window(int64_t& first, int64_t& last)
    {
        const int end = static_cast<int>(_history.newest()) + 600;
        first = number(0, end);
        last = number(static_cast<int>(first), end);
        if (chance(25)) first = -1;
        if (chance(25)) last = -1;
    }

    std::mt19937 _random;
    std::vector<unsigned long> _periods;
    CDeviceParams _device;
    reference::history_t _history;
};

class best_rows_of : public random_history, public testing::WithParamInterface<unsigned> {};

TEST_P(best_rows_of, a_random_history_are_those_of_every_moment)
{
    make_history(GetParam());
    const std::vector<reference::piece_t> pieces =
        reference::pick(_history, [](const reference::row_t&) { return false; });
    for (int i = 0; i < 6; ++i) {
        int64_t first = -1, last = -1;
        if (i > 0) choose_window(first, last);
        std::vector<CInterval> expected;
        for (const reference::piece_t& piece : pieces) {
            if (first != -1 && piece._end < first) continue;
            if (last != -1 && piece._start >= last) continue;
            CInterval row;
            row._period = piece._row->_period;
            row._start = static_cast<time_t>(piece._start);
            row._time = static_cast<time_t>(piece._end);
            row._percent_valid = piece._row->_percent_valid;
            row._samples = piece._row->_samples;
            expected.push_back(row);
        }
        std::vector<CInterval> got;
        CReader reader(_log);
        EXPECT_QUIET(reader.best_rows(request(first, last), keep(got)), 0);
        ASSERT_TRUE(reference::same(_device._params, expected, got))
            << text(expected) << "is expected, and not\n"
            << text(got) << "window " << first << " to " << last;
    }
}

INSTANTIATE_TEST_SUITE_P(random_history, best_rows_of, testing::Range(1U, 61U));

class points_of : public random_history, public testing::WithParamInterface<unsigned> {};

TEST_P(points_of, a_random_history_between_random_edges)
{
    make_history(GetParam());
    for (int i = 0; i < 6; ++i) {
        // Edges on the grid of some period, and any.
        std::vector<int64_t> edges = {chance(50) ? 0 : number(0, 60) * reference::STEP};
        const int grid =
            3 *
            static_cast<int>(
                _periods[static_cast<size_t>(number(0, static_cast<int>(_periods.size()) - 1))]);
        for (int n = number(1, 20); n > 0; --n)
            edges.push_back(edges.back() +
                            reference::STEP * (i % 2 == 0 ? grid * 2 : number(1, 2 * grid)));
        int64_t first = -1, last = -1;
        if (chance(40)) choose_window(first, last);
        size_t first_bucket = 0, last_bucket = edges.size() - 2;
        if (first != -1)
            while (first_bucket < edges.size() - 1 && edges[first_bucket + 1] < first)
                ++first_bucket;
        if (last != -1)
            while (last_bucket < edges.size() && edges[last_bucket] >= last)
                --last_bucket;
        const bool any = first_bucket < edges.size() - 1 && last_bucket < edges.size() &&
                         first_bucket <= last_bucket;

        std::vector<CInterval> expected;
        if (any) expected = reference::points(_history, edges, first_bucket, last_bucket);
        std::vector<CInterval> got;
        CReader reader(_log);
        const edges_t given(edges.begin(), edges.end());
        EXPECT_QUIET(reader.buckets(request(first, last), given, keep(got)), 0);
        ASSERT_TRUE(reference::same(_device._params, expected, got))
            << text(expected) << "is expected, and not\n"
            << text(got) << "window " << first << " to " << last << ", edges "
            << testing::PrintToString(edges);
    }
}

TEST_P(points_of, a_random_history_on_the_grid_are_at_most_as_many_as_asked_for)
{
    make_history(GetParam());
    if (_history.newest() == 0) return;
    for (int i = 0; i < 6; ++i) {
        int64_t first = -1, last = -1;
        choose_window(first, last);
        const int n = number(1, 40);
        std::vector<CInterval> got;
        CReader reader(_log);
        EXPECT_QUIET(reader.points(request(first, last), static_cast<size_t>(n), keep(got)), 0);
        EXPECT_LE(got.size(), static_cast<size_t>(n));

        // The grid by the header's words, with edges from 0 far beyond the newest row.
        int64_t oldest = std::numeric_limits<int64_t>::max();
        for (const auto& table : _history._tables)
            if (!table.empty())
                oldest = std::min(
                    oldest, table.front()._time - 60 * static_cast<int64_t>(table.front()._period));
        if (first == -1) first = std::max<int64_t>(oldest + 1, 0);
        if (last == -1) last = _history.newest();
        if (first > last) continue;
        std::vector<CInterval> expected;
        for (const int64_t minutes :
             {1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440, 2880, 10080}) {
            if (minutes % static_cast<int64_t>(_periods.front()) != 0) continue;
            const int64_t length = 60 * minutes;
            const int64_t from = (std::max<int64_t>(first, 1) - 1) / length;
            const int64_t to = (std::max<int64_t>(last, 1) - 1) / length;
            if (to - from + 1 > n) continue;
            std::vector<int64_t> edges;
            const int64_t end = std::max(last, _history.newest()) + 2 * length;
            for (int64_t edge = 0; edge < end; edge += length)
                edges.push_back(edge);
            const bool open_front = true;
            const auto from_index = static_cast<size_t>(from), to_index = static_cast<size_t>(to);
            expected = reference::points(_history, edges, from_index, to_index, open_front);
            // With room for rows at both ends that are points besides those of the buckets.
            int64_t most = to - from + 1;
            for (const CInterval& point : expected) {
                if (point._rows != 1 || point._time - point._start <= length) continue;
                const bool reaches_back = from > 0 && point._start < edges[from_index];
                const bool reaches_on = point._time > edges[to_index + 1];
                if ((reaches_back && point._time < edges[from_index + 1]) ||
                    (reaches_on && point._start > edges[to_index]))
                    ++most;
            }
            if (most <= n) break;
        }
        ASSERT_TRUE(reference::same(_device._params, expected, got))
            << text(expected) << "is expected, and not\n"
            << text(got) << "window " << first << " to " << last << ", " << n;
    }
}

TEST_P(points_of, a_random_history_in_one_bucket_have_its_extremes)
{
    make_history(GetParam());
    for (int i = 0; i < 6; ++i) {
        int64_t first = -1, last = -1;
        choose_window(first, last);
        std::vector<CExtremes> got;
        EXPECT_QUIET(CReader(_log).extremes(request(first, last), got), 0);
        ASSERT_EQ(_device._params.size(), got.size());

        const int64_t from = std::max<int64_t>(first, 0) - 1;
        const int64_t to = last != -1 ? last : std::numeric_limits<int64_t>::max() / 2;
        const std::vector<reference::piece_t> pieces =
            reference::pick(_history, [&](const reference::row_t& row) {
                return 60 * static_cast<int64_t>(row._period) <= to - from &&
                       (row._time <= from || row._start >= to ||
                        (row._start >= from && row._time <= to));
            });
        for (const COptVal CSample::*which : {&CSample::_min, &CSample::_max}) {
            const bool is_min = which == &CSample::_min;
            COptVal expected;  // of the first parameter
            for (const reference::piece_t& piece : pieces) {
                const COptVal& value = piece._row->_samples[0].*which;
                if (piece._end <= from || piece._start >= to || !value) continue;
                if (!expected || (is_min ? *value < *expected : *value > *expected))
                    expected = value;
            }
            const CExtreme& told = is_min ? got[0]._min : got[0]._max;
            ASSERT_EQ(!expected, !told._value);
            if (!expected) continue;
            EXPECT_EQ(*expected, *told._value);
            bool is_stored = false;
            for (const auto& table : _history._tables)
                for (const reference::row_t& row : table)
                    is_stored =
                        is_stored || (row._period == told._period && row._time == told._time &&
                                      row._start == told._start && row._samples[0].*which &&
                                      *(row._samples[0].*which) == *expected);
            EXPECT_TRUE(is_stored);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(random_history, points_of, testing::Range(1U, 61U));

}  // namespace
