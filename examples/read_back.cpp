#include <cstdio>
#include <cstdlib>

#include "trend_api.h"

using namespace toolkit::trend;

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
    for (const CPeriodProperties& period : {CPeriodProperties(1, 5), CPeriodProperties(5, 100)})
        if (log.add_period(period) != 0) return EXIT_FAILURE;
    CDeviceParams pump;
    pump._device._path = "pump";
    pump._params.resize(1);
    pump._params[0]._path = "power";
    pump._params[0]._has_avg = true;
    if (log.add_device(pump._device) != 0) return EXIT_FAILURE;
    if (log.add_params(pump._device, pump._params) != 0) return EXIT_FAILURE;
    for (time_t time = 60; time <= 60 * 60; time += 60) {
        CSnapshot snapshot;
        snapshot._time = time;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        snapshot._samples[0]._avg = static_cast<double>(time);
        if (log.add_trend_data(pump, snapshot) != 0) return EXIT_FAILURE;
    }

    // Everything, each time once: minutes as far back as they are kept, groups of five before.
    CDeviceData data;
    const bool ascending = true, no_overlap = true;
    if (log.get_trend_data(data, pump, {}, {-1, -1}, 0, 0, ascending, no_overlap) != 0)
        return EXIT_FAILURE;
    for (const CSnapshot& row : data._snapshots)
        if (row._samples[0]._avg)  // absent in a blank row
            std::printf("%5jd s  %lu min  %6.1f\n", static_cast<intmax_t>(row._time), row._period,
                        *row._samples[0]._avg);
    if (data._snapshots.front()._period != 5 || data._snapshots.back()._period != 1)
        return EXIT_FAILURE;

    // The newest three rows of one period, newest first, and the next page of three.
    const std::vector<CPeriodProperties> fives = {CPeriodProperties(5, 100)};
    for (const size_t offset : {size_t(0), size_t(3)}) {
        if (log.get_trend_data(data, pump, fives, {-1, -1}, 3, offset, !ascending, !no_overlap) !=
            0)
            return EXIT_FAILURE;
        if (data._snapshots.size() != 3) return EXIT_FAILURE;
    }
    return data._snapshots.front()._time == 3600 - 3 * 300 ? EXIT_SUCCESS : EXIT_FAILURE;
}
