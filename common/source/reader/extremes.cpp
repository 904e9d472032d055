#include <algorithm>
#include <deque>
#include <limits>

#include "aggregates.h"
#include "columns.h"
#include "reader/picker.h"
#include "reader/view.h"

namespace toolkit::trend {

namespace {

constexpr size_t VALUE = 2;  // columns: time, percent_valid, the value

// Looks for one extreme of one parameter.
class search_t {
public:
    search_t(CDatabase& db, const subject_t& subject, const window_t& window,
             const CParamProperties& param, COptVal CSample::*which)
        : _db(db),
          _subject(subject),
          _window(window),
          _edges{host_time(window._first - 1), host_time(window._last)},
          _buckets(_edges),
          _is_min(which == &CSample::_min),
          _is_pf(param._type == SAMPLE_TYPE_PF),
          _param(1)
    {
        // No other column is read.
        _param[0]._index = param._index;
        (_is_min ? _param[0]._has_min : _param[0]._has_max) = true;
        for (const CPeriodProperties& period : subject._periods)
            _finer.emplace_back(db, subject.index(), period, &_param);
    }

    int run(CExtreme& extreme)
    {
        picker_t picker(_db, _subject.index(), _subject._periods, _param, &_buckets);
        if (const int failed = picker.start(_window._first - 1)) return failed;
        for (;;) {
            piece_t piece;
            bool found = false;
            if (const int failed = picker.next(found, piece)) return failed;
            if (!found || piece._start >= _window._last) break;
            if (const int failed = picker.take(piece)) return failed;
            COptVal value;
            if (const int failed = picker.row(piece).column(VALUE, value)) return failed;
            if (!value) continue;
            if (const int failed = weigh(piece, *value)) return failed;
        }
        if (!_value) return 0;

        if (const int failed = refine(_place, *_value)) return failed;
        extreme._value = _value;
        extreme._period = _subject._periods[_place._period]._period;
        extreme._start = host_time(_place._row_start);
        extreme._time = host_time(_place._row_time);
        return 0;
    }

private:
    double on_scale(double value) const { return _is_pf ? wrap_power_factor(value) : value; }

    int weigh(const piece_t& piece, double value)
    {
        const double scaled = on_scale(value);
        const double best = _value ? on_scale(*_value) : 0.0;
        if (!_value || (_is_min ? scaled < best : scaled > best)) {
            _value = value;
            _place = piece;
            return 0;
        }
        if (scaled != best) return 0;

        // The same again: it is the one to tell if more of it is still stored.
        if (const int failed = refine(_place, *_value)) return failed;
        if (_place._period == 0) return 0;
        piece_t other = piece;
        if (const int failed = refine(other, value)) return failed;
        if (other._period < _place._period) _place = other;
        return 0;
    }

    // Goes from a row to the finest one within its interval, and the window, that holds its value.
    int refine(piece_t& place, double value)
    {
        for (size_t period = place._period; period-- > 0;) {
            scan_t& scan = _finer[period];
            int64_t moment = std::max<int64_t>(place._row_start, _window._first - 1);
            for (;;) {
                if (const int failed = scan.look(moment)) return failed;
                if (!scan.found() || scan.time() > place._row_time || scan.start() >= _window._last)
                    break;
                COptVal held;
                if (const int failed = scan.row().column(VALUE, held)) return failed;
                if (held && on_scale(*held) == on_scale(value)) {
                    place._period = period;
                    place._row_start = scan.start();
                    place._row_time = scan.time();
                    break;
                }
                moment = scan.time();
            }
        }
        return 0;
    }

    CDatabase& _db;
    const subject_t& _subject;
    const window_t& _window;
    const edges_t _edges;
    const buckets_t _buckets;
    const bool _is_min;
    const bool _is_pf;
    std::vector<CParamProperties> _param;
    std::deque<scan_t> _finer;
    COptVal _value;
    piece_t _place;
};

}  // namespace

constexpr const char* EXTREMES =
    "int toolkit::trend::CReader::extremes(const toolkit::trend::CReadRequest&, "
    "std::vector<toolkit::trend::CExtremes>&)";

int CReader::extremes(const CReadRequest& request, std::vector<CExtremes>& extremes)
try {
    TREND_SIGNATURE(fn, EXTREMES);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    extremes.clear();
    if (const int failed = check_request(fn, db, request)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    subject_t subject(request);
    if (const int failed = read_subject(fn, *db, subject)) return failed;

    const window_t window(request._bounds);
    for (const CParamProperties& param : subject.params()) {
        CExtremes& found = extremes.emplace_back();
        found._param = param;
        if (window.empty()) continue;
        if (param._has_min)
            if (const int failed =
                    search_t(*db, subject, window, param, &CSample::_min).run(found._min))
                return failed;
        if (param._has_max)
            if (const int failed =
                    search_t(*db, subject, window, param, &CSample::_max).run(found._max))
                return failed;
    }
    return level.end();
} catch (...) {
    return out_of_memory(EXTREMES);
}

}  // namespace toolkit::trend
