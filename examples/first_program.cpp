#include <cstdio>

#include "trend_api.h"

using namespace toolkit::trend;

int main()
{
    CLog log;  // a new file, with a table per minute and one per quarter of an hour
    if (log.open("trend.db", false, true, 16, false, 0, 0, 0, true) != 0) return 1;
    if (log.add_period({1, 1440}) != 0 || log.add_period({15, 2880}) != 0) return 1;

    CDeviceParams pump;
    pump._device._path = "plant/pump";
    pump._params.resize(1);
    pump._params[0]._path = "power";
    pump._params[0]._has_avg = pump._params[0]._has_max = true;
    if (log.add_device(pump._device) != 0) return 1;
    if (log.add_params(pump._device, pump._params) != 0) return 1;

    for (int minute = 1; minute <= 30; ++minute) {
        CSample power;
        power._avg = power._max = 10.0 + minute;
        CSnapshot snapshot;
        snapshot._time = minute * 60;
        snapshot._percent_valid = 100.0;
        snapshot._samples = {power};
        if (log.add_trend_data(pump, snapshot) != 0) return 1;
    }

    CDeviceData data;  // the quarters, which the library has made from the minutes
    if (log.get_trend_data(data, pump, {{15, 2880}}, {-1, -1}, 0, 0, true, false) != 0) return 1;
    for (const CSnapshot& row : data._snapshots)
        std::printf("%ld s: average %.1f, at most %.1f\n", static_cast<long>(row._time),
                    *row._samples[0]._avg, *row._samples[0]._max);
}
