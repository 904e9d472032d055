#include <cstdlib>

#include "trend_transaction.h"

using namespace toolkit::trend;

// Finds the device, or registers it with its parameters: a host runs this at every start.
CDeviceParams set_up(CLog& log, const tk_string& path, std::vector<CParamProperties> params)
{
    CDeviceParams device;
    std::vector<CDeviceProperties> devices;
    if (log.get_devices(devices) != 0) std::exit(EXIT_FAILURE);
    for (const CDeviceProperties& stored : devices)
        if (stored._path == path) device._device = stored;

    if (device._device._index < 0) {
        device._device._path = path;
        CTransaction whole(log);
        if (whole.failed() || log.add_device(device._device) != 0 ||
            log.add_params(device._device, params) != 0 || whole.commit() != 0)
            std::exit(EXIT_FAILURE);
    }
    if (log.get_params(device._device, device._params) != 0) std::exit(EXIT_FAILURE);
    return device;
}

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;

    // All periods or none: after a power cut between two of them the next start would miss one.
    std::vector<CPeriodProperties> periods;
    if (log.get_periods(periods) != 0) return EXIT_FAILURE;
    if (periods.empty()) {
        CTransaction all(log);
        if (all.failed() || log.add_period({1, 2880}) != 0 || log.add_period({15, 2976}) != 0 ||
            log.add_period({1440, 3650}) != 0 || all.commit() != 0)
            return EXIT_FAILURE;
    }

    CParamProperties power;
    power._path = "active_power_kw";
    power._has_min = power._has_max = power._has_avg = true;
    CParamProperties power_factor;
    power_factor._path = "power_factor";
    power_factor._type = SAMPLE_TYPE_PF;
    power_factor._has_avg = power_factor._has_actual = true;

    const CDeviceParams first = set_up(log, "plant/pump", {power, power_factor});
    const CDeviceParams again = set_up(log, "plant/pump", {power, power_factor});
    return first._params.size() == 2 && again._device._index == first._device._index ? EXIT_SUCCESS
                                                                                     : EXIT_FAILURE;
}
