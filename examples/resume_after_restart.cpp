#include <cstdlib>

#include "trend_api.h"

using namespace toolkit::trend;

int record_minutes(const std::vector<time_t>& minutes)
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return -1;
    CDeviceParams device;
    std::vector<CDeviceProperties> devices;
    if (log.get_devices(devices) != 0 || devices.empty()) return -1;
    device._device = devices[0];
    if (log.get_params(device._device, device._params) != 0) return -1;

    // Whatever was acknowledged before the restart is there; what comes again is left out.
    time_t latest = -1;
    if (log.get_latest_timestamp(device._device, latest) != 0) return -1;
    int recorded = 0;
    for (const time_t time : minutes) {
        if (time <= latest) continue;
        // One period. With coarser ones fill as record_on_grid() does, or keep twice the rows that
        // one row of the next coarser period takes.
        if (latest != -1 && time - latest > 60)
            if (log.fill_blank_values(device._device, time - 60, false) != 0) return -1;
        CSnapshot snapshot;
        snapshot._time = latest = time;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(device._params.size());
        if (log.add_trend_data(device, snapshot) != 0) return -1;
        ++recorded;
    }
    return recorded;
}

int main()
{
    {
        CLog log;
        if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
        if (log.add_period(CPeriodProperties(1, 120)) != 0) return EXIT_FAILURE;
        CDeviceProperties device;
        device._path = "pump";
        std::vector<CParamProperties> params(1);
        params[0]._path = "power";
        params[0]._has_avg = true;
        if (log.add_device(device) != 0 || log.add_params(device, params) != 0) return EXIT_FAILURE;
    }
    if (record_minutes({60, 120, 180}) != 3) return EXIT_FAILURE;
    // After a restart the source sends its last rows again, and one minute is missing.
    return record_minutes({120, 180, 300}) == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
