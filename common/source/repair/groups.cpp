#include <algorithm>
#include <cmath>

#include "aggregates.h"
#include "columns.h"
#include "repair/inspections.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr double ROUNDING = 1e-9;  // of the size of what is added up

// The coarse rows of one table against the fine ones, in order of time.
class CComparison {
public:
    CComparison(CInspector& inspector, const CDeviceProperties& device,
                const CPeriodProperties& fine, const CPeriodProperties& coarse, int64_t group,
                const std::vector<CParamProperties>& params)
        : _inspector(inspector),
          _place{device._path, coarse._period},
          _fine(sql_text("trends_", device._index, "_", fine._period)),
          _coarse(sql_text("trends_", device._index, "_", coarse._period)),
          _length(interval_length(coarse)),
          _group(group),
          _params(params)
    {
    }

    int run(const tk_string& rows, const tk_string& rolled_up);

private:
    int take(const CStatement& row);
    int count(CStatement& stmt, int64_t after, int64_t until, int64_t& rows);
    int compare(const CStatement& row, int64_t after, int64_t until);
    int compare_value(const CParamProperties& param, const aggregate_t& aggregate, COptVal stored,
                      COptVal expected, int64_t after, int64_t until, bool& same);

    CInspector& _inspector;
    const place_t _place;
    const tk_string _fine;
    const tk_string _coarse;
    const int64_t _length;
    const int64_t _group;
    const std::vector<CParamProperties>& _params;

    stmt_wrapper_t _count;
    stmt_wrapper_t _count_measured;
    stmt_wrapper_t _rolled_up;
    int64_t _previous = -1;  // coarse row
    stretch_t _late;
    stretch_t _different;
    tk_string _first_column;  // that is different
};

int CComparison::run(const tk_string& rows, const tk_string& rolled_up)
{
    CDatabase& db = _inspector.db();
    _count = CThrowing::stmt(db, "SELECT count(*) FROM " + _fine + " WHERE time > ? AND time <= ?",
                             STMT_FRESH);
    if (!_count) return _inspector.unreadable(_fine, _place);
    _count_measured =
        CThrowing::stmt(db,
                        "SELECT count(*) FROM " + _fine +
                            " WHERE time > ? AND time <= ? AND percent_valid NOT IN (0, 1)",
                        STMT_FRESH);
    if (!_count_measured) return _inspector.unreadable(_fine, _place);
    _rolled_up = CThrowing::stmt(db, rolled_up, STMT_FRESH);
    if (!_rolled_up) return _inspector.unreadable(_fine, _place);
    const auto take_row = [&](const CStatement& row) { return take(row); };
    if (const int ended = _inspector.each(rows, _coarse, _place, take_row, int64_t(0)))
        return ended;

    if (_late._count > 0) {
        const tk_string text = "Rows of " + _fine + " that came too late for their row of " +
                               _coarse + ": " + std::to_string(_late._count) + ".";
        if (const int ended = _inspector.found(FINDING_LATE_ROWS, text, _place, _late))
            return ended;
    }
    if (_different._count == 0) return 0;
    const tk_string text = "Rows of " + _coarse + " that are not what their rows of " + _fine +
                           " give: " + std::to_string(_different._count) + ", the first in " +
                           _first_column + ".";
    return _inspector.found(FINDING_COARSE_ROWS, text, _place, _different);
}

// Recording makes a coarse row of so many rows after the coarse row before, whatever their times. A
// row on the grid stands for what ends in its own interval.
int CComparison::take(const CStatement& row)
{
    const int64_t time = number_of(row, 0);
    const int64_t begin = std::max<int64_t>(time - _length, 0);
    const bool on_grid = time % _length == 0;
    // What the oldest row is made of cannot be told unless it is on the grid.
    const bool oldest = _previous < 0;
    const int64_t previous = oldest ? begin : _previous;
    _previous = time;
    if (oldest && !on_grid) return 0;

    const int64_t after = on_grid ? std::max(begin, previous) : previous;
    int64_t rows = 0;
    if (const int ended = count(*_count, after, time, rows)) return ended;
    // Blank rows are there without a coarse one where a gap was longer than the coarse table keeps.
    int64_t before = 0;
    if (after > previous)
        if (const int ended = count(*_count_measured, previous, after, before)) return ended;
    if (rows + before > _group) {
        _late.add(time, time, static_cast<uint64_t>(rows + before - _group));
        return 0;
    }
    // Where there are fewer, some have been trimmed or cleared since.
    return rows == _group ? compare(row, after, time) : 0;
}

int CComparison::count(CStatement& stmt, int64_t after, int64_t until, int64_t& rows)
{
    const auto take_count = [&](const CStatement& row) {
        rows = number_of(row, 0);
        return 0;
    };
    return _inspector.step_through(stmt, _fine, _place, take_count, after, until);
}

int CComparison::compare(const CStatement& row, int64_t after, int64_t until)
{
    const auto compare_row = [&](const CStatement& expected) {
        // A coarse row has the time of the last row that it is made of: these are others, of a
        // period that has been added since.
        if (number_of(expected, 0) != until) return 0;
        tk_string column;
        if (std::fabs(value_of(row, 1)._val - value_of(expected, 1)._val) > 100.0 * ROUNDING)
            column = "percent_valid";
        size_t col = 2;
        for (const CParamProperties& param : _params)
            for (const aggregate_t& aggregate : AGGREGATES) {
                if (!(param.*aggregate._kept)) continue;
                bool same = true;
                if (const int ended = compare_value(param, aggregate, value_of(row, col),
                                                    value_of(expected, col), after, until, same))
                    return ended;
                if (!same && column.empty())
                    column = sql_text("param_", param._index, "_").append(aggregate._name);
                ++col;
            }
        if (column.empty()) return 0;
        if (_different._count == 0) _first_column = column;
        _different.add(until);
        return 0;
    };
    return _inspector.step_through(*_rolled_up, _fine, _place, compare_row, after, until);
}

// Only where the two are not the same at once has the group to be looked at again.
int CComparison::compare_value(const CParamProperties& param, const aggregate_t& aggregate,
                               COptVal stored, COptVal expected, int64_t after, int64_t until,
                               bool& same)
{
    if (!stored && !expected) return 0;
    const tk_string column = sql_text("param_", param._index, "_").append(aggregate._name);
    if (aggregate._name == "actual") {
        // Which row gives it depends on what else was kept at that time.
        if (stored && expected && *stored == *expected) return 0;
        const auto take_any = [&](const CStatement& found) {
            same = number_of(found, 0) > 0;
            return 0;
        };
        return _inspector.each("SELECT count(*) FROM " + _fine +
                                   " WHERE time > ? AND time <= ? AND " + column + " IS ?",
                               _fine, _place, take_any, after, until, stored);
    }
    same = false;
    if (!stored || !expected) return 0;
    same = *stored == *expected;
    if (same) return 0;
    if (param._type == SAMPLE_TYPE_PF && aggregate._name != "sum") {
        // The ends of the scale meet.
        const double difference =
            std::fabs(wrap_power_factor(*stored) - wrap_power_factor(*expected));
        same = std::min(difference, 2.0 - difference) <= 2.0 * ROUNDING;
        return 0;
    }
    const auto take_verdict = [&](const CStatement& found) {
        same = number_of(found, 0) > 0;
        return 0;
    };
    const double difference = std::fabs(*stored - *expected);
    return _inspector.each("SELECT ? <= 1e-9 * total(abs(" + column + ")) FROM " + _fine +
                               " WHERE time > ? AND time <= ?",
                           _fine, _place, take_verdict, difference, after, until);
}

}  // namespace

int inspect_groups(CInspector& inspector, const CDeviceProperties& device,
                   const CPeriodProperties& fine, const CPeriodProperties& coarse, int64_t group,
                   const std::vector<CParamProperties>& params)
{
    CComparison comparison(inspector, device, fine, coarse, group, params);
    return comparison.run(scan_text(device._index, coarse._period, &params),
                          rolled_up_text(device._index, fine._period, params));
}

}  // namespace toolkit::trend
