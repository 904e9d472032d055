// What a rebuild works on: the configuration, the range, and the rows that are there.

#include <algorithm>
#include <limits>

#include "repair/grid.h"
#include "repair/numbers.h"
#include "repair/rebuild.h"
#include "report.h"
#include "sqlformat.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr int64_t FOR_EVER = std::numeric_limits<int64_t>::max();

}  // namespace

int CRebuild::read_configuration(const char* fn)
{
    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(_db, periods)) return failed;
    if (periods.empty()) return refuse(fn, "no configured periods");
    std::vector<unsigned long> ratios;
    if (const int failed = CLog::calc_period_ratios(periods, ratios)) return failed;
    if (const int failed = read_all_params(_db, _request._device, _params)) return failed;
    if (_params.empty()) return refuse(fn, "no configured parameters");

    for (size_t idx = 0; idx < periods.size(); ++idx) {
        level_t level;
        level._period = periods[idx];
        level._length = interval_length(periods[idx]);
        if (idx > 0) level._group = ratios[idx - 1];
        _levels.push_back(level);
    }
    return 0;
}

int CRebuild::find_rows()
{
    const level_t& finest = _levels.front();
    if (const int failed = newest_time(_db, _request._device, finest._period, _newest))
        return failed;
    for (level_t& level : _levels)
        if (const int failed = oldest_time(_db, _request._device, level._period, level._oldest))
            return failed;
    return 0;
}

int CRebuild::find_range(const char* fn)
{
    if (const int failed = find_rows()) return failed;
    for (const CSnapshot& row : _request._rows)
        if (row._time > _newest) return refuse(fn, "row newer than the newest one");
    if (_newest < 0) return 0;

    _newest_end = boundary_after(_newest, _levels.front()._length);
    int64_t first = _request._bounds.first;
    if (first == -1) {
        first = _newest;
        for (const level_t& level : _levels)
            if (level._oldest >= 0) first = std::min(first, level._oldest);
        for (const CSnapshot& row : _request._rows)
            first = std::min(first, int64_t(row._time));
    }
    const int64_t longest = _levels.back()._length;
    _from = boundary_before(first, longest);
    _to = _newest_end;
    if (_request._bounds.second != -1)
        _to = std::min(_to, boundary_after(_request._bounds.second, longest));
    if (_from >= _to) return 0;

    if (const int failed = extend_forwards(fn)) return failed;
    if (const int failed = extend_backwards(fn)) return failed;
    for (level_t& level : _levels)
        level._end = std::min(_to, _newest_end / level._length * level._length);
    _result._range = {stored_time(_from + 1), stored_time(_to)};
    return 0;
}

// Recording goes on counting from the coarse rows behind the range: where those are off the grid,
// they would leave out rows of the range or take them twice.
int CRebuild::extend_forwards(const char* fn)
{
    int64_t off_grid = 0;
    for (size_t idx = 1; idx < _levels.size() && _to < _newest_end; ++idx) {
        if (const int failed = count_off_grid(idx, _to, FOR_EVER, off_grid)) return failed;
        if (off_grid == 0) continue;
        if (_request._off_grid == OFF_GRID_REFUSE) return refuse(fn, "coarse rows off the grid");
        _to = _newest_end;
        _result._extended = true;
    }
    return 0;
}

// A coarse row off the grid that begins before the range would be replaced by one that does not
// know of what lies there. Where even the finest rows are gone, it stays anyway.
int CRebuild::extend_backwards(const char* fn)
{
    const int64_t longest = _levels.back()._length;
    const int64_t earliest = boundary_before(_levels.front()._oldest, longest);
    while (_from > earliest) {
        int64_t off_grid = 0;
        for (size_t idx = 1; idx < _levels.size() && off_grid == 0; ++idx) {
            const int64_t until = boundary_after(_from + 1, _levels[idx]._length);
            if (const int failed = count_off_grid(idx, _from, until, off_grid)) return failed;
        }
        if (off_grid == 0) return 0;
        if (_request._off_grid == OFF_GRID_REFUSE) return refuse(fn, "coarse rows off the grid");
        _from -= longest;
        _result._extended = true;
    }
    return 0;
}

int CRebuild::count_rows(size_t idx, int64_t after, int64_t until, int64_t& count)
{
    const tk_string sql = sql_text("SELECT count(*) FROM trends_", _request._device._index, "_",
                                   _levels[idx]._period._period, " WHERE time > ? AND time <= ?");
    std::array<int64_t, 1> numbers = {};
    if (const int failed = read_numbers(_db, sql, numbers, after, until)) return failed;
    count = numbers[0];
    return 0;
}

// A row is on the grid when it ends in the last interval of the finest period that its own has: so
// does every row of a device that is always recorded some seconds past the minute.
int CRebuild::count_off_grid(size_t idx, int64_t after, int64_t until, int64_t& count)
{
    const int64_t length = _levels[idx]._length;
    const tk_string sql =
        sql_text("SELECT count(*), min(time) FROM trends_", _request._device._index, "_",
                 _levels[idx]._period._period, " WHERE time > ? AND time <= ? AND (", length,
                 " - time % ", length, ") % ", length, " >= ", _levels.front()._length);
    std::array<int64_t, 2> numbers = {};
    if (const int failed = read_numbers(_db, sql, numbers, after, until)) return failed;
    count = numbers[0];
    if (count > 0 && numbers[1] <= after)
        return rows_out_of_order(_request._device._index, _levels[idx]._period._period);
    return 0;
}

int CRebuild::look_at_group(size_t idx, int64_t begin, unsigned long& rows)
{
    const level_t& fine = _levels[idx - 1];
    const level_t& coarse = _levels[idx];
    const tk_string sql =
        sql_text("SELECT count(*), count(DISTINCT (time - 1) / ", fine._length, "), coalesce(sum((",
                 fine._length, " - time % ", fine._length, ") % ", fine._length,
                 " >= ", _levels.front()._length, "), 0) FROM trends_", _request._device._index,
                 "_", fine._period._period, " WHERE time > ? AND time <= ?");
    std::array<int64_t, 3> numbers = {};
    if (const int failed = read_numbers(_db, sql, numbers, begin, begin + coarse._length))
        return failed;
    const auto [stored, intervals, off_grid] = numbers;
    const bool whole = intervals == static_cast<int64_t>(coarse._group) && off_grid == 0;
    rows = whole ? static_cast<unsigned long>(stored) : 0;
    return 0;
}

}  // namespace toolkit::trend
