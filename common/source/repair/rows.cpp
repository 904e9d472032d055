#include "columns.h"
#include "repair/grid.h"
#include "repair/inspections.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// One table, seen row by row.
class CTimes {
public:
    CTimes(const CPeriodProperties& period, int64_t group, int64_t newest, int64_t now)
        : _length(interval_length(period)),
          // One group more than the trim leaves: it is made when a coarse row is.
          _kept(static_cast<int64_t>(period._max_entries) + SPARE_INTERVALS + group),
          _newest(newest),
          _now(now)
    {
    }

    // `percent` says whether percent_valid is one that a log writes, and within 0 to 100.
    enum percent_t : int64_t { GOOD = 0, OUTSIDE = 1, IMPOSSIBLE = 2 };
    void take(int64_t time, int64_t percent)
    {
        if (percent == OUTSIDE) _outside.add(time);
        if (percent == IMPOSSIBLE) _impossible.add(time);
        if (time < 0) {
            _negative.add(time);
            return;
        }
        const int64_t interval = interval_of(time, _length);
        if (_last >= 0 && interval - _last > 1)
            _holes.add((_last + 1) * _length, (interval - 1) * _length,
                       static_cast<uint64_t>(interval - _last - 1));
        _last = interval;
        if (time % _length != 0) _off_grid.add(time);
        // A host may be early by a moment.
        if (time - _length > _now) _future.add(time);
        if ((_newest - time) / _length > _kept) _old.add(time);
    }

    const int64_t _length;
    const int64_t _kept;
    const int64_t _newest;
    const int64_t _now;
    int64_t _last = -1;  // interval with a row
    stretch_t _outside, _impossible, _negative, _holes, _off_grid, _future, _old;
};

// Values that are neither a number nor absent, for each column that has some.
int inspect_values(CInspector& inspector, const tk_string& table, const place_t& place,
                   const std::vector<CParamProperties>& params, bool& bad)
{
    std::vector<tk_string> columns;
    for (const CParamProperties& param : params)
        for (tk_string& name : column_list(param))
            columns.push_back(std::move(name));
    if (columns.empty()) return 0;

    std::vector<tk_string> found;
    int ended =
        inspector.each(wrong_types_text(table, columns), table, place, [&](const CStatement& row) {
            for (size_t i = 0; i < columns.size(); ++i)
                if (number_of(row, i) > 0) found.push_back(columns[i]);
            return 0;
        });
    for (size_t i = 0; i < found.size() && !ended; ++i) {
        bad = true;
        ended = inspector.each("SELECT count(*), min(time), max(time) FROM " + table +
                                   " WHERE typeof(" + found[i] + ") NOT IN ('real', 'null')",
                               table, place, [&](const CStatement& row) {
                                   stretch_t stretch;
                                   stretch._count = static_cast<uint64_t>(number_of(row, 0));
                                   stretch._first = number_of(row, 1);
                                   stretch._last = number_of(row, 2);
                                   return inspector.found(
                                       FINDING_VALUES,
                                       "Rows of " + table + " without a number in " + found[i] +
                                           ": " + std::to_string(stretch._count) + ".",
                                       place, stretch);
                               });
    }
    return ended;
}

}  // namespace

int inspect_rows(CInspector& inspector, const CDeviceProperties& device,
                 const CPeriodProperties& period, int64_t group,
                 const std::vector<CParamProperties>& params)
{
    const place_t place = {device._path, period._period};
    const tk_string table = sql_text("trends_", device._index, "_", period._period);
    int64_t newest = -1;
    int ended =
        inspector.each("SELECT max(time) FROM " + table, table, place, [&](const CStatement& row) {
            newest = number_of(row, 0);
            return 0;
        });
    if (ended) return ended;

    CTimes times(period, group, newest, inspector.now());
    // An infinite number is told by its difference from itself, which is none. The largest number
    // would not do: not every target's SQLite reads it as it is written.
    ended = inspector.each(
        "SELECT time, CASE WHEN typeof(percent_valid) <> 'real' OR percent_valid - percent_valid "
        "IS NULL THEN 2 WHEN percent_valid NOT BETWEEN 0 AND 100 THEN 1 ELSE 0 END "
        "FROM " +
            table + " ORDER BY time",
        table, place, [&](const CStatement& row) {
            times.take(number_of(row, 0), number_of(row, 1));
            return 0;
        });
    if (ended) return ended;

    bool bad = times._negative._count > 0 || times._impossible._count > 0;
    if (const int failed = inspect_values(inspector, table, place, params, bad)) return failed;

    const struct {
        finding_kind_t _kind;
        const stretch_t& _stretch;
        const char* _what;
        const char* _how;
    } findings[] = {
        {FINDING_VALUES, times._negative, "Rows of ", " with a time before 1970"},
        {FINDING_VALUES, times._impossible, "Rows of ", " without a number in percent_valid"},
        {FINDING_FUTURE_ROWS, times._future, "Rows of ", " that end later than now"},
        {FINDING_PERCENT_VALID, times._outside, "Rows of ",
         " whose percent_valid is not in 0 to 100"},
        {FINDING_HOLES, times._holes, "Intervals of ", " without a row"},
        {FINDING_OFF_GRID, times._off_grid, "Rows of ", " that do not end at a boundary"},
        {FINDING_OLD_ROWS, times._old, "Rows of ", " that are older than what the period keeps"},
    };
    for (const auto& finding : findings) {
        if (finding._stretch._count == 0) continue;
        const tk_string text = finding._what + table + finding._how + ": " +
                               std::to_string(finding._stretch._count) + ".";
        if (const int stopped = inspector.found(finding._kind, text, place, finding._stretch))
            return stopped;
    }
    return bad ? LEFT_OUT : 0;
}

int inspect_device(CInspector& inspector, const survey_t& survey, const CDeviceProperties& device)
{
    std::vector<CParamProperties> params;
    if (const int ended = inspect_params(inspector, device, params)) return ended;

    bool finer_is_sound = false;
    for (size_t i = 0; i < survey._periods.size(); ++i) {
        const CPeriodProperties& period = survey._periods[i];
        int ended = inspect_columns(inspector, device, period, params);
        if (!ended) ended = inspect_rows(inspector, device, period, survey._groups[i], params);
        if (ended && ended != LEFT_OUT) return ended;
        const bool sound = ended == 0;
        if (sound && finer_is_sound && survey._groups[i - 1] > 0 && !params.empty())
            ended = inspect_groups(inspector, device, survey._periods[i - 1], period,
                                   survey._groups[i - 1], params);
        if (ended && ended != LEFT_OUT) return ended;
        finer_is_sound = sound;
    }
    return 0;
}

}  // namespace toolkit::trend
