#include <algorithm>
#include <functional>
#include <limits>

#include "reader/picker.h"
#include "reader/point.h"
#include "reader/view.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// The buckets that are read, both ends included.
struct range_t {
    int64_t _first;
    int64_t _last;
};

// Where a piece belongs: in a bucket, or nowhere but in a point of its own.
struct place_t {
    int64_t _bucket = 0;
    bool _alone = false;
};

bool has(const range_t& range, int64_t bucket)
{
    return range._first <= bucket && bucket <= range._last;
}

int64_t length_of(const buckets_t& buckets, int64_t bucket)
{
    return buckets.end(bucket) - buckets.start(bucket);
}

place_t place_of(const piece_t& piece, const buckets_t& buckets, const range_t& range)
{
    const int64_t first = buckets.number(piece._start + 1);
    const int64_t last = buckets.number(piece._end);
    if (first == last) return {first, false};

    // In the order of what is cheap to say: three buckets, a whole one, beyond the range.
    if (last - first > 1) return {last, true};
    const bool fills_first = piece._start <= buckets.start(first);
    const bool fills_last = piece._end == buckets.end(last);
    if (fills_first || fills_last) return {last, true};
    const int64_t length = piece._end - piece._start;
    if (first < range._first && length > length_of(buckets, last)) return {last, true};
    if (last > range._last && length > length_of(buckets, first)) return {first, true};
    const int64_t edge = buckets.end(first);
    return {edge - piece._start >= piece._end - edge ? first : last, false};
}

// Makes points of the pieces of a range and hands them over.
class plotter_t {
public:
    plotter_t(const char* fn, CDatabase& db, const subject_t& subject, const buckets_t& buckets,
              const range_t& range, const interval_visitor_t& visit)
        : _fn(fn),
          _subject(subject),
          _buckets(buckets),
          _range(range),
          _visit(visit),
          _picker(db, subject.index(), subject._periods, subject.params(), &buckets),
          _point(subject.params())
    {
    }

    int run()
    {
        const int64_t end = _buckets.end(_range._last);
        if (const int failed = _picker.start(_buckets.start(_range._first))) return failed;
        bool more = true;
        for (;;) {
            piece_t piece;
            bool found = false;
            if (const int failed = _picker.next(found, piece)) return failed;
            if (!found || piece._start >= end) return hand_over_until(end, more);

            const place_t place = place_of(piece, _buckets, _range);
            if (place._alone || place._bucket != _place._bucket || _place._alone)
                if (const int failed = hand_over_until(piece._start, more)) return failed;
            if (!more) return 0;
            if (place._alone || has(_range, place._bucket))
                if (const int failed = add(piece, place)) return failed;
            _end = piece._end;
        }
    }

private:
    int add(const piece_t& piece, const place_t& place)
    {
        if (_point.empty()) {
            _place = place;
            const int64_t start = _buckets.start(place._bucket);
            _is_inside = piece._start >= start && piece._end <= _buckets.end(place._bucket);
            _start = place._alone || piece._start < start ? piece._start : std::max(start, _end);
            _row_start = piece._start;
        }
        if (const int failed = _picker.take(piece)) return failed;
        return _point.add(_picker.row(piece), _subject._periods[piece._period]._period, piece);
    }

    // Gives the point that is ready, if there is one, now that another piece begins at `next`.
    int hand_over_until(int64_t next, bool& more)
    {
        if (_point.empty()) return 0;
        int64_t end = std::max(_end, std::min(_buckets.end(_place._bucket), next));
        // A single row that is longer than its bucket has its own bounds.
        if (_point.rows() == 1 && !_is_inside &&
            (_place._alone || _end - _row_start > length_of(_buckets, _place._bucket))) {
            _start = _row_start;
            end = _end;
        }
        const CInterval& point = _point.finish(_start, end);
        const int failed = hand_over(_fn, _visit, _subject.device(), point, more);
        _point.clear();
        return failed;
    }

    const char* const _fn;
    const subject_t& _subject;
    const buckets_t& _buckets;
    const range_t _range;
    const interval_visitor_t& _visit;
    picker_t _picker;
    point_t _point;
    // Of the point that is being made, and of its first row.
    place_t _place;
    int64_t _start = 0;
    int64_t _row_start = 0;
    bool _is_inside = false;
    int64_t _end = std::numeric_limits<int64_t>::min();  // of the last piece
};

// Narrows an open window to what the device's tables hold, to an empty one when they hold nothing.
int close_window(CDatabase& db, const subject_t& subject, window_t& window,
                 const timebounds_t& bounds)
{
    if (bounds.first != -1 && bounds.second != -1) return 0;
    int64_t first = std::numeric_limits<int64_t>::max();
    int64_t last = -1;
    for (const CPeriodProperties& period : subject._periods) {
        int64_t time = -1;
        if (const int failed = table_end(db, subject.index(), period, "min", time)) return failed;
        if (time != -1) first = std::min(first, time - interval_length(period) + 1);
        if (const int failed = table_end(db, subject.index(), period, "max", time)) return failed;
        last = std::max(last, time);
    }
    if (bounds.first == -1) window._first = std::max<int64_t>(first, 0);
    if (bounds.second == -1) window._last = last;
    return 0;
}

constexpr size_t MOST_OVERHANGS = 2;  // one at each end

// How many rows longer than a bucket reach beyond the ends of the range, in addition to points of
// the buckets there: they have points of their own.
int count_overhangs(CDatabase& db, const subject_t& subject, const buckets_t& buckets,
                    const range_t& range, size_t& overhangs)
{
    overhangs = 0;
    if (interval_length(subject._periods.back()) <= buckets.longest()) return 0;
    picker_t picker(db, subject.index(), subject._periods, subject.params(), &buckets);
    const int64_t start = buckets.start(range._first);
    const int64_t end = buckets.end(range._last);
    for (const int64_t moment : {start, end - 1}) {
        piece_t piece;
        bool found = false;
        if (const int failed = picker.start(moment)) return failed;
        if (const int failed = picker.next(found, piece)) return failed;
        if (!found || piece._end - piece._start <= buckets.longest()) continue;
        // One that fills a bucket is the point of that.
        if (moment == start ? buckets.number(piece._start + 1) < range._first &&
                                  piece._end < buckets.end(range._first)
                            : piece._end > end && piece._start < end &&
                                  piece._start > buckets.start(range._last))
            ++overhangs;
    }
    return 0;
}

}  // namespace

constexpr const char* BUCKETS =
    "int toolkit::trend::CReader::buckets(const toolkit::trend::CReadRequest&, "
    "const toolkit::trend::edges_t&, const toolkit::trend::interval_visitor_t&)";

int CReader::buckets(const CReadRequest& request, const edges_t& edges,
                     const interval_visitor_t& visit)
try {
    TREND_SIGNATURE(fn, BUCKETS);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    if (const int failed = check_request(fn, db, request)) return failed;
    const bool is_ascending =
        std::adjacent_find(edges.begin(), edges.end(), std::greater_equal<time_t>()) == edges.end();
    if (edges.size() < 2 || !is_ascending || edges.front() < 0) return refuse(fn, "invalid edges");
    if (const int failed = check_visitor(fn, visit)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    subject_t subject(request);
    if (const int failed = read_subject(fn, *db, subject)) return failed;

    const window_t window(request._bounds);
    const buckets_t buckets(edges);
    const range_t range = {std::max<int64_t>(buckets.number(window._first), 0),
                           std::min(buckets.number(window._last), buckets.count() - 1)};
    if (!window.empty() && range._first <= range._last) {
        plotter_t plotter(fn, *db, subject, buckets, range, visit);
        if (const int failed = plotter.run()) return failed;
    }
    return level.end();
} catch (...) {
    return out_of_memory(BUCKETS);
}

constexpr const char* POINTS =
    "int toolkit::trend::CReader::points(const toolkit::trend::CReadRequest&, size_t, "
    "const toolkit::trend::interval_visitor_t&)";

int CReader::points(const CReadRequest& request, size_t n, const interval_visitor_t& visit)
try {
    TREND_SIGNATURE(fn, POINTS);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    if (const int failed = check_request(fn, db, request)) return failed;
    if (n == 0) return refuse(fn, "invalid number of points");
    if (const int failed = check_visitor(fn, visit)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    subject_t subject(request);
    if (const int failed = read_subject(fn, *db, subject)) return failed;
    window_t window(request._bounds);
    if (const int failed = close_window(*db, subject, window, request._bounds)) return failed;
    if (window.empty()) return level.end();

    const int64_t finest = interval_length(subject._periods.front());
    for (int64_t length = 0;;) {
        length = grid_length(finest, window._first, window._last, n, length);
        const buckets_t buckets(length);
        const range_t range = {buckets.number(window._first), buckets.number(window._last)};
        const size_t spare = n - static_cast<size_t>(range._last - range._first + 1);
        size_t overhangs = 0;
        if (spare < MOST_OVERHANGS)
            if (const int failed = count_overhangs(*db, subject, buckets, range, overhangs))
                return failed;
        if (overhangs > spare) continue;

        plotter_t plotter(fn, *db, subject, buckets, range, visit);
        if (const int failed = plotter.run()) return failed;
        return level.end();
    }
} catch (...) {
    return out_of_memory(POINTS);
}

}  // namespace toolkit::trend
