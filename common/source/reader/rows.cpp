#include "reader/picker.h"
#include "reader/point.h"
#include "reader/view.h"
#include "sqltext.h"
#include "throwing.h"
#include "trend/checks.h"
#include "trend/fetch.h"
#include "trend/lists.h"
#include "trend/values.h"

namespace toolkit::trend {

constexpr const char* ROWS =
    "int toolkit::trend::CReader::rows(const toolkit::trend::CReadRequest&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, bool, bool, "
    "const toolkit::trend::interval_visitor_t&)";

int CReader::rows(const CReadRequest& request, const std::vector<CPeriodProperties>& periods,
                  bool ascending, bool no_overlap, const interval_visitor_t& visit)
try {
    TREND_SIGNATURE(fn, ROWS);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    if (const int failed = check_request(fn, db, request)) return failed;
    for (const CPeriodProperties& period : periods)
        if (!is_storable(period._period)) return refuse(fn, "invalid period");
    if (const int failed = check_visitor(fn, visit)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    subject_t subject(request);
    for (const CPeriodProperties& period : periods)
        subject._periods.emplace_back(period._period, 1);  // how many it keeps does not matter
    if (const int failed = read_subject(fn, *db, subject)) return failed;

    std::vector<long long> upper_bounds;
    if (no_overlap)
        if (const int failed =
                oldest_finer_times(*db, request._device, subject._periods, upper_bounds))
            return failed;
    const stmt_wrapper_t stmt(
        CThrowing::stmt(*db,
                        read_text(subject.index(), subject._periods, subject.params(),
                                  request._bounds, no_overlap, ascending, false),
                        STMT_FRESH));
    if (!stmt) return -1;
    if (const int failed =
            bind_read(*stmt, subject._periods, request._bounds, no_overlap, upper_bounds, 0, 0))
        return failed;

    CInterval interval;
    bool more = true;
    while (more) {
        const int retval = stmt->step();
        if (retval < 0) return retval;
        if (retval == 0) break;
        if (const int failed = decode_row(*stmt, interval, subject.params())) return failed;
        interval._start =
            host_time(interval._time - interval_length(CPeriodProperties(interval._period, 1)));
        if (const int failed = hand_over(fn, visit, subject.device(), interval, more))
            return failed;
    }
    return level.end();
} catch (...) {
    return out_of_memory(ROWS);
}

constexpr const char* BEST_ROWS =
    "int toolkit::trend::CReader::best_rows(const toolkit::trend::CReadRequest&, "
    "const toolkit::trend::interval_visitor_t&)";

int CReader::best_rows(const CReadRequest& request, const interval_visitor_t& visit)
try {
    TREND_SIGNATURE(fn, BEST_ROWS);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    if (const int failed = check_request(fn, db, request)) return failed;
    if (const int failed = check_visitor(fn, visit)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    subject_t subject(request);
    if (const int failed = read_subject(fn, *db, subject)) return failed;
    const window_t window(request._bounds);
    if (window.empty()) return level.end();

    picker_t picker(*db, subject.index(), subject._periods, subject.params(), nullptr);
    if (const int failed = picker.start(window._first - 1)) return failed;
    point_t row(subject.params());
    bool more = true;
    while (more) {
        piece_t piece;
        bool found = false;
        if (const int failed = picker.next(found, piece)) return failed;
        if (!found || piece._start >= window._last) break;
        if (const int failed = picker.take(piece)) return failed;
        row.clear();
        if (const int failed =
                row.add(picker.row(piece), subject._periods[piece._period]._period, piece))
            return failed;
        if (const int failed =
                hand_over(fn, visit, subject.device(), row.finish(piece._start, piece._end), more))
            return failed;
    }
    return level.end();
} catch (...) {
    return out_of_memory(BEST_ROWS);
}

constexpr const char* LATEST =
    "int toolkit::trend::CReader::latest(const toolkit::trend::interval_visitor_t&)";

int CReader::latest(const interval_visitor_t& visit)
try {
    TREND_SIGNATURE(fn, LATEST);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    if (const int failed = check_open(fn, db)) return failed;
    if (const int failed = check_visitor(fn, visit)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    std::vector<CDeviceProperties> devices;
    if (const int failed = read_all_devices(*db, devices)) return failed;
    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*db, periods)) return failed;

    CDeviceParams device;
    bool more = true;
    for (size_t i = 0; more && i < devices.size(); ++i) {
        device._device = devices[i];
        if (const int failed = read_all_params(*db, device._device, device._params)) return failed;
        if (device._params.empty()) continue;
        const CPeriodProperties* newest_period = nullptr;
        int64_t newest = -1;
        for (const CPeriodProperties& period : periods) {
            int64_t time = -1;
            if (const int failed = table_end(*db, device._device._index, period, "max", time))
                return failed;
            if (time <= newest) continue;
            newest = time;
            newest_period = &period;
        }
        if (!newest_period) continue;

        scan_t scan(*db, device._device._index, *newest_period, &device._params);
        if (const int failed = scan.look(newest - 1)) return failed;
        const piece_t piece = {0, scan.start(), scan.time(), scan.start(), scan.time()};
        point_t row(device._params);
        if (const int failed = row.add(scan.row(), scan.period(), piece)) return failed;
        if (const int failed =
                hand_over(fn, visit, device, row.finish(piece._start, piece._end), more))
            return failed;
    }
    return level.end();
} catch (...) {
    return out_of_memory(LATEST);
}

}  // namespace toolkit::trend
