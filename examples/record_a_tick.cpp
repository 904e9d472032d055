#include <cstdlib>

#include "trend_transaction.h"

using namespace toolkit::trend;

// Records the snapshots of all devices in one transaction: one wait for the disk instead of one per
// device, and either all of them are stored or none.
int record_tick(CLog& log, const std::vector<CDeviceParams>& devices,
                const std::vector<CSnapshot>& snapshots)
{
    CTransaction tick(log);
    if (const int failed = tick.failed()) return failed;
    for (size_t i = 0; i < devices.size(); ++i)
        if (const int failed = log.add_trend_data(devices[i], snapshots[i])) return failed;
    return tick.commit();
}

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
    if (log.add_period(CPeriodProperties(1, 120)) != 0) return EXIT_FAILURE;

    std::vector<CDeviceParams> devices(3);
    std::vector<CSnapshot> tick(3);
    for (size_t i = 0; i < devices.size(); ++i) {
        devices[i]._device._path = "pump " + std::to_string(i);
        if (log.add_device(devices[i]._device) != 0) return EXIT_FAILURE;
        devices[i]._params.resize(1);
        devices[i]._params[0]._path = "power";
        devices[i]._params[0]._has_actual = true;
        if (log.add_params(devices[i]._device, devices[i]._params) != 0) return EXIT_FAILURE;
        tick[i]._time = 60;
        tick[i]._percent_valid = 100.0;
        tick[i]._samples.resize(1);
        tick[i]._samples[0]._actual = 5.0;
    }
    if (record_tick(log, devices, tick) != 0) return EXIT_FAILURE;

    // The last device has this time already: nothing of the second tick is stored.
    tick[0]._time = tick[1]._time = 120;
    if (record_tick(log, devices, tick) == 0) return EXIT_FAILURE;
    time_t latest = -1;
    if (log.get_latest_timestamp(devices[0]._device, latest) != 0) return EXIT_FAILURE;
    return latest == 60 ? EXIT_SUCCESS : EXIT_FAILURE;
}
