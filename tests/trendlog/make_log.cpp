// Makes a log for the tests of trendlog, or adds a device to one, by the library alone:
//
//     make_log FILE DEVICE READINGS.csv PERIODS KEEP MODE
//
// PERIODS are like 15:2976,60:2000, finest first; KEEP like min,max,avg; MODE is wal or rollback.
// The readings are those of examples/readings.h; a column named power_factor becomes one. An
// interval without a reading gets a blank row, and a reading whose row has a column `percent_valid`
// has that.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "../../examples/readings.h"
#include "trend_api.h"
#include "trend_labels.h"
#include "trend_transaction.h"

using namespace toolkit::trend;

namespace {

void check(int result)
{
    if (result != 0) std::exit(EXIT_FAILURE);
}

bool keeps(const std::string& list, const char* name)
{
    const std::vector<std::string> names = split(list);
    for (const std::string& each : names)
        if (each == name) return true;
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 7) return EXIT_FAILURE;
    const std::string file = argv[1], keep = argv[5];
    const readings_t readings = readings_from_csv(argv[3]);
    if (readings._rows.empty()) return EXIT_FAILURE;

    CLog log;
    check(log.open(file, false, true, 100, false, 0, 0, 0, std::strcmp(argv[6], "wal") == 0));
    CTransaction transaction(log);
    std::vector<CPeriodProperties> periods;
    check(log.get_periods(periods));
    if (periods.empty())
        for (const std::string& each : split(argv[4])) {
            const size_t colon = each.find(':');
            periods.emplace_back(std::stoul(each), std::stoul(each.substr(colon + 1)));
            check(log.add_period(periods.back()));
        }

    CDeviceParams device;
    device._device._path = argv[2];
    check(log.add_device(device._device));
    size_t valid = readings._quantities.size();
    for (size_t i = 0; i < readings._quantities.size(); ++i) {
        if (readings._quantities[i] == "percent_valid") {
            valid = i;
            continue;
        }
        CParamProperties param;
        param._path = readings._quantities[i];
        param._type = param._path == "power_factor" ? SAMPLE_TYPE_PF : SAMPLE_TYPE_VALUE;
        param._has_min = keeps(keep, "min");
        param._has_max = keeps(keep, "max");
        param._has_avg = keeps(keep, "avg");
        param._has_actual = keeps(keep, "actual");
        param._has_sum = keeps(keep, "sum");
        device._params.push_back(param);
    }
    check(log.add_params(device._device, device._params));

    // The first row is a blank one at a boundary of the coarsest period, so that all rows end
    // there.
    const time_t step = static_cast<time_t>(readings._minutes * 60);
    const time_t first = readings._rows.front()._time;
    CSnapshot seed;
    seed._time = CLog::previous_interval_boundary(periods.back()._period, first - 1) + step;
    seed._samples.resize(device._params.size());
    if (seed._time < first) {
        check(log.add_trend_data(device, seed));
        check(log.fill_blank_values(device._device, first - step, false));
    }

    time_t latest = first - step;
    for (const reading_t& reading : readings._rows) {
        if (reading._time - latest > step)
            check(log.fill_blank_values(device._device, reading._time - step, false));
        CSnapshot snapshot;
        snapshot._time = reading._time;
        snapshot._percent_valid = 100.0;
        for (size_t i = 0; i < reading._values.size(); ++i) {
            if (i == valid) {
                snapshot._percent_valid = reading._values[i];
                continue;
            }
            CSample sample;
            sample._min = sample._max = sample._avg = sample._actual = sample._sum =
                reading._values[i];
            snapshot._samples.push_back(sample);
        }
        check(log.add_trend_data(device, snapshot));
        latest = reading._time;
    }

    check(write_label(log, {argv[2], "", "", "Label of " + std::string(argv[2])}));
    check(write_label(log, {argv[2], device._params[0]._path, "kW", "First quantity"}));
    check(transaction.commit());
    return EXIT_SUCCESS;
}
