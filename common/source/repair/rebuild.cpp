#include "repair/rebuild.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "columns.h"
#include "repair/grid.h"
#include "repair/numbers.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "trend/access.h"
#include "trend/checks.h"
#include "trend/operation.h"
#include "trend/record.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr int64_t FOR_EVER = std::numeric_limits<int64_t>::max();

// The checks of a request that need no file.
int check_request(const char* fn, const CRebuildRequest& request)
{
    const timebounds_t& bounds = request._bounds;
    if (bounds.first < -1 || bounds.second < -1 ||
        (bounds.second != -1 && bounds.second < bounds.first))
        return refuse(fn, "invalid time range");
    if (request._rows.empty()) return 0;

    if (request._params.empty()) return refuse(fn, "empty param list");
    for (const CParamProperties& param : request._params)
        if (param._index < 0) return refuse(fn, "invalid param id");
    for (const CSnapshot& row : request._rows) {
        if (row._time < 0) return refuse(fn, "invalid timestamp");
        if (row._time < bounds.first || (bounds.second != -1 && row._time > bounds.second))
            return refuse(fn, "row outside the bounds");
        if (row._samples.size() != request._params.size()) return refuse(fn, "bad sample size");
        if (!std::isfinite(row._percent_valid)) return refuse(fn, "invalid percent_valid");
    }
    return 0;
}

}  // namespace

constexpr const char* REBUILD =
    "int toolkit::trend::rebuild("
    "CLog&, const CRebuildRequest&, CRebuildResult&)";

int rebuild(CLog& log, const CRebuildRequest& request, CRebuildResult& result)
try {
    TREND_SIGNATURE(fn, REBUILD);
    const std::shared_ptr<CDatabase>& db = log_access_t::connection(log);
    CTransCheck check(db);
    result = CRebuildResult();
    if (const int failed = check_device(fn, db, request._device)) return failed;
    if (const int failed = check_request(fn, request)) return failed;
    if (db->in_transaction()) {
        if (request._dry_run) return refuse(fn, "dry run inside a transaction");
        if (request._progress) return refuse(fn, "progress callback inside a transaction");
    }
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;

    CRebuild work(*db, request, result);
    if (const int ended = work.carry_out(fn)) return ended == GIVEN_UP ? 1 : -1;
    if (request._dry_run) return 0;  // which rolls it all back

    return level.end();
} catch (...) {
    return out_of_memory(REBUILD);
}

int CProgress::reach(uint64_t done)
{
    if (!_callback || done < _next) return 0;
    _next = done + std::max<uint64_t>(1, std::min(_total - done, _total / 200));
    return _callback(done, _total) ? 0 : GIVEN_UP;
}

int CRebuild::carry_out(const char* fn)
{
    if (const int failed = read_configuration(fn)) return failed;
    if (const int failed = find_range(fn)) return failed;

    uint64_t total = _request._rows.size();
    for (const level_t& level : _levels)
        total += intervals(level);
    _progress.expect(total);
    if (const int ended = _progress.reach(0)) return ended;
    if (_from >= _to) return 0;

    if (const int ended = merge_rows()) return ended;
    if (const int ended = fill_missing()) return ended;
    for (size_t idx = 1; idx < _levels.size(); ++idx)
        if (const int ended = recompute(idx)) return ended;
    return _progress.reach(total);
}

uint64_t CRebuild::intervals(const level_t& level) const
{
    return _from < _to ? static_cast<uint64_t>((_to - _from) / level._length) : 0;
}

int CRebuild::tell(size_t idx, int64_t time)
{
    uint64_t done = _request._rows.size();
    for (size_t finer = 0; finer < idx; ++finer)
        done += intervals(_levels[finer]);
    return _progress.reach(done + static_cast<uint64_t>((time - _from) / _levels[idx]._length));
}

// The finest table --------------------------------------------------------------------------------

int CRebuild::merge_rows()
{
    if (_request._rows.empty()) return 0;
    const tk_string sql = merge_sample_text(_request._device._index,
                                            _levels.front()._period._period, _request._params);
    for (size_t i = 0; i < _request._rows.size(); ++i) {
        if (const int failed = merge_row(_request._rows[i], sql)) return failed;
        if (const int ended = _progress.reach(i + 1)) return ended;
    }
    return 0;
}

int CRebuild::merge_row(const CSnapshot& row, const tk_string& merging)
{
    // Older than everything there is, and so old that the next roll-up would delete it.
    const level_t& finest = _levels.front();
    const uint64_t age = static_cast<uint64_t>((_newest - row._time) / finest._length);
    if (row._time < finest._oldest &&
        age >= uint64_t(finest._period._max_entries) + SPARE_INTERVALS) {
        ++_result._too_old;
        return 0;
    }

    bool values = false;
    if (const int failed = has_values(row._time, values)) return failed;
    if (values && !_request._replace) {
        ++_result._refused;
        return 0;
    }

    const stmt_wrapper_t stmt(CThrowing::stmt(_db, merging, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (5): '%s'", merging.c_str());
        return -1;
    }
    if (const int failed = bind_row(*stmt, _request._params, row)) return failed;
    if (const int failed = run(*stmt)) return failed;
    ++(values ? _result._replaced : _result._merged);
    return 0;
}

// Whether there is a row of this time that is no blank one.
int CRebuild::has_values(int64_t time, bool& values)
{
    const tk_string sql =
        scan_text(_request._device._index, _levels.front()._period._period, &_params);
    const stmt_wrapper_t stmt(CThrowing::stmt(_db, sql, STMT_POOLED));
    if (!stmt) return -1;
    if (const int failed = bind_all(*stmt, time - 1)) return failed;
    const int retval = stmt->step();
    if (retval <= 0) return retval;

    if (number_of(*stmt, 0) != time) return 0;
    size_t col = 2;
    for (const CParamProperties& param : _params)
        for (const aggregate_t& aggregate : AGGREGATES) {
            if (!(param.*aggregate._kept)) continue;
            COptVal value;
            if (const int failed = stmt->column(col++, value)) return failed;
            if (value) values = true;
        }
    return 0;
}

// After which time intervals without a row are filled.
int64_t CRebuild::first_to_fill(int64_t oldest) const
{
    // The device's rows may begin anywhere. Back to the boundary of the coarsest period they are
    // filled like the rest, so that groups begin there; but not where a coarse row knows of older
    // rows, which have been trimmed: blank rows in their place would be taken for the truth.
    const level_t& finest = _levels.front();
    const int64_t begin = boundary_before(finest._oldest, finest._length);
    bool trimmed = false;
    for (size_t idx = 1; idx < _levels.size(); ++idx)
        if (_levels[idx]._oldest >= 0 && _levels[idx]._oldest - _levels[idx]._length < begin)
            trimmed = true;
    const int64_t first = trimmed ? begin : boundary_before(oldest, _levels.back()._length);

    // No more than the table holds before it is trimmed.
    const int64_t group = _levels.size() > 1 ? static_cast<int64_t>(_levels[1]._group) : 0;
    const int64_t kept =
        static_cast<int64_t>(finest._period._max_entries) + SPARE_INTERVALS + group;
    const int64_t passed = interval_of(_newest, finest._length) - kept;
    return std::max({first, _from, passed > 0 ? passed * finest._length : 0});
}

int CRebuild::fill_missing()
{
    const level_t& finest = _levels.front();
    const int64_t until = _levels.size() > 1 ? _levels[1]._end : finest._end;
    int64_t oldest = -1;
    if (const int failed = oldest_time(_db, _request._device, finest._period, oldest))
        return failed;
    const int64_t first = first_to_fill(oldest);

    const tk_string blank = sql_text("INSERT INTO trends_", _request._device._index, "_",
                                     finest._period._period, " (time, percent_valid) VALUES (?,0)");
    const stmt_wrapper_t rows(CThrowing::stmt(
        _db,
        sql_text("SELECT time FROM trends_", _request._device._index, "_", finest._period._period,
                 " WHERE time > ? AND time <= ? ORDER BY time"),
        STMT_POOLED));
    if (!rows) return -1;
    if (const int failed = bind_all(*rows, first, until)) return failed;

    // Blank rows go where the reading of the table has been, which does not meet them again.
    int64_t missing = first / finest._length + 1;
    const auto fill_up_to = [&](int64_t interval) {
        for (; missing < interval; ++missing, ++_result._blanks) {
            const int64_t time = missing * finest._length;
            if (const int failed = run_once(_db, blank, STMT_POOLED, time)) return failed;
            if (const int ended = tell(0, time)) return ended;
        }
        return 0;
    };
    int64_t previous = first;
    int retval = 0;
    while ((retval = rows->step()) == 1) {
        const int64_t time = number_of(*rows, 0);
        if (time <= previous)
            return rows_out_of_order(_request._device._index, finest._period._period);
        previous = time;
        const int64_t interval = interval_of(time, finest._length);
        if (const int ended = fill_up_to(interval)) return ended;
        missing = interval + 1;
        if (const int ended = tell(0, time)) return ended;
    }
    if (retval < 0) return retval;
    return fill_up_to(until / finest._length + 1);
}

// The coarser tables ------------------------------------------------------------------------------

int CRebuild::recompute(size_t idx)
{
    const level_t& fine = _levels[idx - 1];
    const level_t& coarse = _levels[idx];
    const bool to_newest = _to == _newest_end;
    int64_t stored = 0;
    if (const int failed = count_rows(idx, _from, to_newest ? FOR_EVER : _to, stored))
        return failed;
    _result._kept += static_cast<uint64_t>(stored);  // those that go are taken off again

    const tk_string roll_up = roll_up_text(_request._device._index, fine._period._period,
                                           coarse._period._period, coarse._group, _params);
    const tk_string next_sql = sql_text("SELECT min(time) FROM trends_", _request._device._index,
                                        "_", fine._period._period, " WHERE time > ? AND time <= ?");
    // From one group that has rows to the next: a table may have long holes.
    for (int64_t begin = _from;;) {
        std::array<int64_t, 1> next = {};
        if (const int failed = read_numbers(_db, next_sql, next, begin, coarse._end)) return failed;
        if (next[0] < 0) break;
        if (next[0] <= begin)
            return rows_out_of_order(_request._device._index, fine._period._period);
        begin = boundary_before(next[0], coarse._length);
        if (const int failed = recompute_group(idx, begin, roll_up)) return failed;
        begin += coarse._length;
        if (const int ended = tell(idx, begin)) return ended;
    }
    if (to_newest)
        if (const int failed = drop_beyond_groups(idx)) return failed;
    return 0;
}

int CRebuild::recompute_group(size_t idx, int64_t begin, const tk_string& roll_up)
{
    const level_t& fine = _levels[idx - 1];
    const level_t& coarse = _levels[idx];
    const int64_t end = begin + coarse._length;
    unsigned long rows = 0;
    if (const int failed = look_at_group(idx, begin, rows)) return failed;
    if (rows == 0) return 0;

    // What has been trimmed here, while the finer table keeps it, does not come back.
    const uint64_t age = static_cast<uint64_t>((_newest_end - end) / coarse._length);
    if ((coarse._oldest < 0 || end < coarse._oldest) &&
        age >= uint64_t(coarse._period._max_entries) + SPARE_INTERVALS)
        return 0;

    // A coarse row off the grid is made of rows of the group before as well.
    int64_t off_grid = 0;
    if (const int failed = count_off_grid(idx, begin, end, off_grid)) return failed;
    if (off_grid > 0 && begin > 0) {
        unsigned long before = 0;
        if (const int failed = look_at_group(idx, begin - coarse._length, before)) return failed;
        if (before == 0) return 0;
    }

    if (const int failed = delete_rows(idx, begin, end)) return failed;
    ++_result._recomputed;
    // More than one row in an interval: they are the group's all the same.
    if (rows != coarse._group)
        return run_once(_db,
                        roll_up_text(_request._device._index, fine._period._period,
                                     coarse._period._period, rows, _params),
                        STMT_FRESH, begin + 1, int64_t(0));
    return run_once(_db, roll_up, STMT_POOLED, begin + 1, int64_t(0));
}

// Rows that have been counted together beyond the last group of the clock are left to be rolled up
// when that one is complete.
int CRebuild::drop_beyond_groups(size_t idx)
{
    const level_t& coarse = _levels[idx];
    int64_t last = 0;
    if (const int failed =
            count_rows(idx, coarse._end - _levels.front()._length, coarse._end, last))
        return failed;
    return last == 0 ? 0 : delete_rows(idx, coarse._end, FOR_EVER);
}

int CRebuild::delete_rows(size_t idx, int64_t after, int64_t until)
{
    const tk_string sql = sql_text("DELETE FROM trends_", _request._device._index, "_",
                                   _levels[idx]._period._period, " WHERE time > ? AND time <= ?");
    if (const int failed = run_once(_db, sql, STMT_POOLED, after, until)) return failed;
    _result._kept -= static_cast<uint64_t>(sqlite3_changes(*_db));
    return 0;
}

}  // namespace toolkit::trend
