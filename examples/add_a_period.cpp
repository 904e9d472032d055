#include <algorithm>
#include <cstdlib>

#include "trend_transaction.h"

using namespace toolkit::trend;

// Cuts the rows of `finer`, the table that `period` is to be made of, so that they begin just after
// a boundary of `period`: coarse rows are counted from the oldest fine row that is there. What goes
// is what lies beyond `_max_entries`, and less than one row of `period`.
int cut_to_boundary(CLog& log, const CDeviceProperties& device, const CPeriodProperties& finer,
                    const CPeriodProperties& period)
{
    CDeviceData oldest, newest;
    CDeviceParams request;
    request._device = device;
    if (const int failed =
            log.get_trend_data(oldest, request, {finer}, {-1, -1}, 1, 0, true, false))
        return failed;
    if (oldest._snapshots.empty()) {
        time_t latest = -1;
        if (const int failed = log.get_latest_timestamp(device, latest)) return failed;
        return latest == -1 ? 0 : -1;  // a device without any row begins on a boundary
    }
    if (const int failed =
            log.get_trend_data(newest, request, {finer}, {-1, -1}, 1, 0, false, false))
        return failed;
    if (newest._snapshots.empty()) return -1;

    const time_t step = static_cast<time_t>(finer._period * 60);
    const time_t last = newest._snapshots[0]._time;
    const time_t kept = static_cast<time_t>(finer._max_entries) * step;
    const time_t start = std::max<time_t>({oldest._snapshots[0]._time - step, last - kept, 0});
    const time_t length = static_cast<time_t>(period._period * 60);
    const time_t boundary = CLog::previous_interval_boundary(period._period, start + length - 1);
    if (last - boundary < step) return -1;  // no row after it
    const size_t entries = static_cast<size_t>((last - boundary) / step);
    return log.trim_period_table(device, {finer._period, entries}, false);
}

// Adds a period to a log that records on the grid, such that its rows, and those of all coarser
// ones, end at their boundaries. It is made of the stored rows at once. -1 while some device has no
// row of the next finer period after a boundary of the new one: call it again later.
int add_period_on_grid(CLog& log, const CPeriodProperties& period)
{
    CTransaction whole(log);
    if (const int failed = whole.failed()) return failed;
    if (const int failed = log.add_period(period)) return failed;
    std::vector<CPeriodProperties> periods;
    if (const int failed = log.get_periods(periods)) return failed;
    if (periods.empty()) return -1;  // the read broke off
    std::vector<unsigned long> ratios;
    if (const int failed = CLog::calc_period_ratios(periods, ratios)) return failed;
    const auto added = std::lower_bound(periods.begin(), periods.end(), period);
    if (added == periods.begin()) return whole.commit();  // the finest one begins empty
    const size_t finer = static_cast<size_t>(added - periods.begin()) - 1;

    std::vector<CDeviceProperties> devices;
    if (const int failed = log.get_devices(devices)) return failed;
    for (const CDeviceProperties& device : devices) {
        std::vector<CParamProperties> params;
        if (const int failed = log.get_params(device, params)) return failed;
        if (params.empty()) continue;
        if (const int failed = cut_to_boundary(log, device, periods[finer], period)) return failed;
        if (const int failed = log.propagate_recent_samples(device, periods, ratios, finer, params))
            return failed;
    }
    return whole.commit();
}

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
    if (log.add_period({1, 120}) != 0 || log.add_period({60, 48}) != 0) return EXIT_FAILURE;
    CDeviceParams device;
    device._device._path = "pump";
    if (log.add_device(device._device) != 0) return EXIT_FAILURE;
    device._params.resize(1);
    device._params[0]._path = "power";
    device._params[0]._has_avg = true;
    if (log.add_params(device._device, device._params) != 0) return EXIT_FAILURE;

    // Quarters of an hour come to the hours after five hours and seven minutes.
    for (int minute = 1; minute <= 8 * 60; ++minute) {
        if (minute == 5 * 60 + 8 && add_period_on_grid(log, {15, 96}) != 0) return EXIT_FAILURE;
        CSnapshot snapshot;
        snapshot._time = minute * 60;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        snapshot._samples[0]._avg = 5.0;
        if (log.add_trend_data(device, snapshot) != 0) return EXIT_FAILURE;
    }

    CDeviceData data;
    const std::vector<CPeriodProperties> coarse = {{15, 96}, {60, 48}};
    if (log.get_trend_data(data, device, coarse, {-1, -1}, 0, 0, true, false) != 0)
        return EXIT_FAILURE;
    for (const CSnapshot& row : data._snapshots)
        if (row._time % static_cast<time_t>(row._period * 60) != 0) return EXIT_FAILURE;
    return data._snapshots.size() > 8 ? EXIT_SUCCESS : EXIT_FAILURE;
}
