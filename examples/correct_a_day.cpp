#include <cstdio>
#include <cstdlib>

#include "trend_repair.h"

using namespace toolkit::trend;

constexpr time_t MIDNIGHT = 1514764800;  // 2018-01-01 00:00 UTC

CSnapshot minute_of_day(int minute, double power)
{
    CSnapshot snapshot;
    snapshot._time = MIDNIGHT + minute * 60;
    snapshot._percent_valid = 100.0;
    snapshot._samples.resize(1);
    snapshot._samples[0]._avg = power;
    return snapshot;
}

// The average of the day, from its one coarse row.
double average_of_day(CLog& log, const CDeviceParams& device)
{
    CDeviceData data;
    const std::vector<CPeriodProperties> days = {CPeriodProperties(1440, 3650)};
    if (log.get_trend_data(data, device, days, {-1, -1}, 0, 0, true, false) != 0 ||
        data._snapshots.size() != 1)
        std::exit(EXIT_FAILURE);
    return *data._snapshots[0]._samples[0]._avg;
}

int main()
{
    CLog log;
    if (log.open("trend.db", false, true, 100, false, 0, 0, 0, true) != 0) return EXIT_FAILURE;
    for (const CPeriodProperties& period :
         {CPeriodProperties(1, 2880), CPeriodProperties(15, 2976), CPeriodProperties(1440, 3650)})
        if (log.add_period(period) != 0) return EXIT_FAILURE;
    CDeviceParams meter;
    meter._device._path = "meter";
    meter._params.resize(1);
    meter._params[0]._path = "power";
    meter._params[0]._has_avg = true;
    if (log.add_device(meter._device) != 0) return EXIT_FAILURE;
    if (log.add_params(meter._device, meter._params) != 0) return EXIT_FAILURE;

    // A day at 6 kW. From 08:00 to 10:00 the line was down, and from 20:00 to 21:00 the meter was
    // off by a factor of ten.
    if (log.begin_transaction() != 0) return EXIT_FAILURE;
    for (int minute = 1; minute <= 1440; ++minute) {
        if (minute > 480 && minute <= 600) continue;
        if (minute == 601 && log.fill_blank_values(meter._device, MIDNIGHT + 600 * 60, false) != 0)
            return EXIT_FAILURE;
        const bool wrong = minute > 1200 && minute <= 1260;
        if (log.add_trend_data(meter, minute_of_day(minute, wrong ? 60.0 : 6.0)) != 0)
            return EXIT_FAILURE;
    }
    if (log.end_transaction() != 0) return EXIT_FAILURE;
    std::printf("Average as recorded: %.3f kW\n", average_of_day(log, meter));

    // The meter's own memory gives the missing hours and the wrong one.
    CRebuildRequest request;
    request._device = meter._device;
    request._params = meter._params;
    for (int minute = 1; minute <= 1440; ++minute)
        if ((minute > 480 && minute <= 600) || (minute > 1200 && minute <= 1260))
            request._rows.push_back(minute_of_day(minute, 6.0));
    request._bounds = {request._rows.front()._time, request._rows.back()._time};
    request._replace = true;  // the wrong rows have values

    CRebuildResult result;
    request._dry_run = true;  // look first
    if (rebuild(log, request, result) != 0) return EXIT_FAILURE;
    std::printf("Would fill %ju minutes and replace %ju\n", static_cast<uintmax_t>(result._merged),
                static_cast<uintmax_t>(result._replaced));
    if (result._merged != 120 || result._replaced != 60) return EXIT_FAILURE;
    request._dry_run = false;
    if (rebuild(log, request, result) != 0) return EXIT_FAILURE;
    std::printf("Average as corrected: %.3f kW\n", average_of_day(log, meter));

    // What else there is to say about the file.
    std::vector<CFinding> findings;
    if (check_log(log, MIDNIGHT + 1440 * 60, findings) != 0) return EXIT_FAILURE;
    for (const CFinding& finding : findings)
        std::printf("%s: %s %s\n", severity_name(finding._severity), finding._text.c_str(),
                    finding._advice.c_str());
    return average_of_day(log, meter) == 6.0 && findings.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
