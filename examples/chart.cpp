#include <cstdio>
#include <cstdlib>

#include "trend_reader.h"

using namespace toolkit::trend;

// Prints the window as at most `n` points for a chart, one a line: from, to, minimum, average,
// maximum and percent valid, separated by commas; nothing between commas where there is no value.
int print_chart(const CLog& log, const CReadRequest& window, size_t n)
{
    std::puts("from,to,min,avg,max,percent_valid");
    return CReader(log).points(window, n, [](const CDeviceParams&, const CInterval& point) {
        std::printf("%jd,%jd", static_cast<intmax_t>(point._start),
                    static_cast<intmax_t>(point._time));
        const CSample& power = point._samples[0];
        for (const COptVal& value : {power._min, power._avg, power._max})
            value ? std::printf(",%.3f", *value) : std::printf(",");
        std::printf(",%.1f\n", point._percent_valid);
        return true;  // go on
    });
}

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
    if (log.add_period({1, 120}) != 0 || log.add_period({15, 96}) != 0) return EXIT_FAILURE;
    CReadRequest pump;
    pump._device._path = "pump";
    pump._params.resize(1);
    pump._params[0]._path = "power";
    pump._params[0]._has_min = pump._params[0]._has_avg = pump._params[0]._has_max = true;
    if (log.add_device(pump._device) != 0) return EXIT_FAILURE;
    if (log.add_params(pump._device, pump._params) != 0) return EXIT_FAILURE;
    for (int minute = 1; minute <= 360; ++minute) {  // two hours are kept as minutes
        CSnapshot snapshot;
        snapshot._time = minute * 60;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        CSample& power = snapshot._samples[0];
        power._min = power._avg = power._max = minute % 90;
        if (log.add_trend_data(pump, snapshot) != 0) return EXIT_FAILURE;
    }

    // Everything in twelve half hours, made of quarters; then half an hour of single minutes.
    if (print_chart(log, pump, 12) != 0) return EXIT_FAILURE;
    pump._bounds = {330 * 60 + 1, 360 * 60};
    if (print_chart(log, pump, 30) != 0) return EXIT_FAILURE;

    // When it was largest.
    std::vector<CExtremes> extremes;
    if (CReader(log).extremes(pump, extremes) != 0) return EXIT_FAILURE;
    return extremes[0]._max._time == 359 * 60 ? EXIT_SUCCESS : EXIT_FAILURE;
}
