#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

#include "trend_api.h"
#include "trend_base.h"

// Reading windows of a log: rows one at a time, every moment once, points for a chart.

namespace toolkit::trend {

// What every view is asked for: the device, the parameters (all of the device's when empty) and the
// window. The window's ends are moments, both included: a whole day is {midnight + 1, midnight a
// day later}, since the moment of midnight belongs to the interval that ends there.
struct CReadRequest : CDeviceParams {
    timebounds_t _bounds = {-1, -1};  // -1 leaves that end open
};

// A row, or a point made of rows, with the time that it stands for: from after `_start` up to and
// including `_time`.
struct CInterval : CSnapshot {
    time_t _start = 0;  // seconds since the Unix epoch; may be negative where a log begins near 0
    size_t _rows = 1;   // stored rows that it was made of
};

// Takes what a view gives: the device with the parameters that the samples follow, and one row or
// point. true goes on; false ends the view, whose result is 0. Both arguments are good for the call
// only. It runs inside the view's transaction: it may read the log, with a view of any reader too,
// but must not change, close or reopen it. One that throws ends the view as a failure.
using interval_visitor_t = std::function<bool(const CDeviceParams&, const CInterval&)>;

// Moments in ascending order, each later than the one before: the ends of buckets.
using edges_t = std::vector<time_t>;

// The smallest or the largest value of a window and when it was.
struct CExtreme {
    COptVal _value;             // absent when no row of the window has one
    unsigned long _period = 0;  // of the row that holds it, minutes
    time_t _start = 0;          // that row's interval, see CInterval
    time_t _time = 0;
};

struct CExtremes {
    CParamProperties _param;
    CExtreme _min;
    CExtreme _max;
};

// What one table of a device holds within a window.
struct CCoverage {
    CPeriodProperties _period;
    int64_t _rows = 0;
    int64_t _blank_rows = 0;      // without any value of the parameters
    int64_t _holes = 0;           // stretches without a row between the first row and the last
    time_t _start = -1;           // where the first row's interval begins; -1 without rows
    time_t _first = -1;           // time of the first row; -1 without rows
    time_t _last = -1;            // time of the last row; -1 without rows
    double _percent_valid = 0.0;  // of the time from `_start` to `_last`, holes counted as 0
    int64_t _bytes = -1;          // pages of the whole table; -1 where SQLite has no table `dbstat`
};

// Reads windows of a log. A row of period P (minutes) with time t stands for the time after
// t - 60 * P up to t; where two rows of one period overlap, the later begins where the earlier
// ends.
//
// A reader is a view of the log that it was made for, which must outlive it, and costs nothing to
// make. Everything said of CLog's results, reports, devices and threads holds here too. Each call
// sees one moment of the file, inside the host's transaction if there is one, whatever other
// processes write meanwhile. It streams: beside SQLite's own memory it needs that of a few rows,
// however long the window. A read that breaks off is a failure; what the visitor has had by then
// are rows of that moment all the same.
//
// Every view reports "Error: DB not open", "Error: empty device path", "Error: invalid device id",
// "Error: invalid time range" (a bound below -1), "Error: empty parameter list" (the device has
// none), "Error: invalid param id" (negative), "Error: empty period list", "Error: no visitor" (an
// empty function), "Error: the visitor has thrown"; -1. Of a damaged file also "Rows of '...' are
// out of order: the file is damaged". A parameter or aggregate that is not stored is SQLite's "no
// such column", -1. A window whose first end is later than its second is empty.
class TREND_EXPORT CReader {
public:
    explicit CReader(const CLog& log) : _log(&log) {}

    // Rows --------------------------------------------------------------------------------------

    // The rows of CLog::get_trend_data(), one at a time: those of `periods` (every period when
    // empty) whose time is within the window, ordered by time, all periods together; with
    // `no_overlap` of coarser periods only the rows older than everything in the finer ones. The
    // visitor counts if it wants a limit or an offset. Intervals are those of the table: with
    // several periods they overlap. Reports "Error: invalid period" (0).
    int rows(const CReadRequest& request, const std::vector<CPeriodProperties>& periods,
             bool ascending, bool no_overlap, const interval_visitor_t& visit);

    // Every moment of the window that any stored row covers, once, at the finest resolution stored,
    // in ascending order. From finest to coarsest period: a row counts only where the finer ones
    // leave a part of its interval uncovered. Then it takes the place of those that lie wholly
    // inside it, and its interval, never its values, is clipped by those that reach beyond it. So
    // intervals never overlap, and neighbours meet exactly. The first and the last row may reach
    // beyond the window: a moment has the same row whatever the window.
    int best_rows(const CReadRequest& request, const interval_visitor_t& visit);

    // Points ------------------------------------------------------------------------------------

    // One point for each bucket between neighbouring edges that has rows and a moment of the
    // window, in ascending order. A moment that is an edge belongs to the bucket that ends there.
    //
    // For each stretch of time the coarsest stored period is read whose rows lie wholly inside a
    // bucket, finer rows elsewhere. Rows that lie in no bucket count by the rule of best_rows():
    // where these leave a part of their interval uncovered. Such a row is never split. One that is
    // longer than the bucket, and covers it or reaches beyond the first or the last bucket of the
    // window, is a point with its own bounds in place of the buckets that it covers. Any other
    // belongs to the bucket that has its greater part (the earlier of two equal ones). A point's
    // bounds are those of its bucket, moved to those of such a row, so that points never overlap.
    //
    // What a point has, per parameter and aggregate kept, of the rows that it is made of; values
    // that are absent are left aside:
    //   _min, _max      the smallest and largest; power factors on their own scale, as rolled up
    //   _avg            the average weighted by percent valid * minutes
    //   _actual         the newest; of a coarse row it may be the value at an extreme, see guide.md
    //   _sum            the sum
    //   _percent_valid  sum of percent valid * minutes over the length of the point, 0 to 100
    //   _period         the coarsest period that it was made of
    // A point made of exactly one row has that row's values, to the last bit.
    //
    // Reports "Error: invalid edges" (fewer than two, not ascending, or below 0).
    int buckets(const CReadRequest& request, const edges_t& edges, const interval_visitor_t& visit);

    // At most `n` points of the window: buckets() on a grid that is locked to absolute time, so
    // that peaks stand still while the window moves. The window is widened to whole buckets of the
    // smallest length of which `n` are enough, together with the rows that reach beyond the first
    // or the last bucket as points of their own: 1, 2, 5, 10, 15, 30 minutes, 1, 2, 3, 6, 12 hours,
    // 1, 2, 7, 14, 28 days, then twice the one before; only multiples of the finest period (where
    // there is none, these numbers of finest periods instead of minutes). Open ends of the window
    // are those of the stored rows. Reports "Error: invalid number of points" (0).
    int points(const CReadRequest& request, size_t n, const interval_visitor_t& visit);

    // Summaries ---------------------------------------------------------------------------------

    // For each parameter the smallest stored minimum and the largest stored maximum of the window,
    // and the finest row still stored that holds it, the earliest of several. Found in the rows
    // that buckets() reads for the window as one bucket, so in the coarsest that lie inside it.
    // Power factors compare on their own scale. Absent for an aggregate that is not kept. Replaces
    // what `extremes` holds; after a failure it must not be used.
    int extremes(const CReadRequest& request, std::vector<CExtremes>& extremes);

    // What each of the device's tables holds, finest period first: the rows whose time is within
    // the window. Replaces what `coverage` holds; after a failure it must not be used.
    int coverage(const CReadRequest& request, std::vector<CCoverage>& coverage);

    // The newest row of every device that has parameters and rows, of all its periods, the finest
    // of several that end at once. In the order of the table of devices.
    int latest(const interval_visitor_t& visit);

private:
    const CLog* _log;
};

}  // namespace toolkit::trend
