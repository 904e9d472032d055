#include <algorithm>
#include <cstdlib>

#include "trend_transaction.h"

using namespace toolkit::trend;

// Records one snapshot such that coarse rows go on ending at their boundaries, whenever the device
// starts and however long it is silent.
int record_on_grid(CLog& log, const CDeviceParams& device, const CSnapshot& snapshot)
{
    CTransaction whole(log);
    if (const int failed = whole.failed()) return failed;
    std::vector<CPeriodProperties> periods;
    if (const int failed = log.get_periods(periods)) return failed;
    if (periods.empty()) return -1;  // none configured, or the read broke off
    const time_t step = static_cast<time_t>(periods.front()._period * 60);
    const time_t last_blank = snapshot._time - step;
    time_t latest = -1;
    if (const int failed = log.get_latest_timestamp(device._device, latest)) return failed;

    if (latest == -1) {
        // A first start: one blank row just after the last boundary of the coarsest period.
        CSnapshot blank;
        blank._time =
            CLog::previous_interval_boundary(periods.back()._period, snapshot._time - 1) + step;
        blank._samples.resize(device._params.size());
        if (blank._time < snapshot._time) {
            if (const int failed = log.add_trend_data(device, blank)) return failed;
            latest = blank._time;
        }
    }
    if (latest != -1 && latest < last_blank) {
        // The coarse rows that the gap has cut short are completed first, the finest one first:
        // a roll-up of them together with the blank rows of a long gap would trim their beginning.
        for (size_t i = 1; i < periods.size(); ++i) {
            const time_t end = CLog::next_interval_boundary(periods[i]._period, latest);
            if (const int failed =
                    log.fill_blank_values(device._device, std::min(end, last_blank), false))
                return failed;
        }
        if (const int failed = log.fill_blank_values(device._device, last_blank, false))
            return failed;
    }
    if (const int failed = log.add_trend_data(device, snapshot)) return failed;
    return whole.commit();
}

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
    if (log.add_period(CPeriodProperties(1, 120)) != 0) return EXIT_FAILURE;
    if (log.add_period(CPeriodProperties(15, 96)) != 0) return EXIT_FAILURE;
    CDeviceParams device;
    device._device._path = "pump";
    if (log.add_device(device._device) != 0) return EXIT_FAILURE;
    device._params.resize(1);
    device._params[0]._path = "power";
    device._params[0]._has_avg = true;
    if (log.add_params(device._device, device._params) != 0) return EXIT_FAILURE;

    // From 12:07 on, with nothing from 12:20 to 12:49.
    const time_t noon = 1514764800 + 12 * 3600;
    for (int minute = 7; minute <= 60; ++minute) {
        if (minute >= 20 && minute < 50) continue;
        CSnapshot snapshot;
        snapshot._time = noon + minute * 60;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        snapshot._samples[0]._avg = 5.0;
        if (record_on_grid(log, device, snapshot) != 0) return EXIT_FAILURE;
    }

    CDeviceData data;
    const std::vector<CPeriodProperties> quarters = {CPeriodProperties(15, 96)};
    if (log.get_trend_data(data, device, quarters, {-1, -1}, 0, 0, true, false) != 0)
        return EXIT_FAILURE;
    for (const CSnapshot& row : data._snapshots)
        if (row._time % (15 * 60) != 0) return EXIT_FAILURE;
    return data._snapshots.size() == 4 ? EXIT_SUCCESS : EXIT_FAILURE;
}
