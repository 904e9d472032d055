// Records readings, rolls them up, closes a gap, and shows what can be read back then.
//
//     demo READINGS.csv...
//
// Each file has a column `time` (seconds since 1970, UTC, evenly spaced by whole minutes) and one
// column per quantity; one named power_factor is recorded as such. The charts show the first one.
// The log is made in the present folder, named as the file is, and must not be there yet.

#include <chrono>
#include <clocale>
#include <filesystem>

#include "demo_show.h"
#include "readings.h"
#include "trend_api.h"
#include "trend_transaction.h"

using namespace toolkit::trend;

namespace {

void open(CLog& log, const std::string& file, bool read_only)
{
    // The pool holds the prepared statements; trend_api.h says how many they are.
    const bool create = !read_only, temp_in_memory = false, wal = true;
    const size_t pool_capacity = 100, page_size = 0, cache_bytes = 0, heap_limit = 0;
    check(log.open(file, read_only, create, pool_capacity, temp_in_memory, page_size, cache_bytes,
                   heap_limit, wal));
}

// Finest first, each a multiple of the one before. Few rows are kept, so that two days show already
// how one level goes on where the finer one ends; a host keeps as many as its disk has room for.
std::vector<CPeriodProperties> choose_levels(const readings_t& readings)
{
    std::vector<CPeriodProperties> levels = {{readings._minutes, 180}};
    const size_t minutes = readings._rows.size() * readings._minutes;
    using level = CPeriodProperties;
    for (const level& next : {level(15, 96), level(60, 168), level(1440, 90), level(10080, 520)}) {
        const unsigned long finer = levels.back()._period;
        if (next._period > finer && next._period % finer == 0 && minutes >= 12 * next._period)
            levels.push_back(next);
    }
    if (levels.size() == 1) levels.push_back({readings._minutes * 4, 1000});
    return levels;
}

CParamProperties make_param(const std::string& name)
{
    CParamProperties param;
    param._path = name;
    param._type = name == "power_factor" ? SAMPLE_TYPE_PF : SAMPLE_TYPE_VALUE;
    param._has_min = param._has_max = param._has_avg = true;
    return param;
}

// One reading is minimum, maximum and average of its interval at once. A NaN is absent.
CSnapshot make_snapshot(const reading_t& reading)
{
    CSnapshot snapshot;
    snapshot._time = reading._time;
    snapshot._percent_valid = 100.0;
    for (const double value : reading._values) {
        CSample sample;
        sample._min = sample._max = sample._avg = value;
        snapshot._samples.push_back(sample);
    }
    return snapshot;
}

// Coarse rows are made of so many fine rows, whatever their times. Starting with blank rows from
// the last boundary on makes them end on the hour and at midnight.
void align(CLog& log, const CDeviceParams& device, const std::vector<CPeriodProperties>& levels,
           time_t first)
{
    const time_t step = static_cast<time_t>(levels.front()._period * 60);
    CSnapshot blank;
    blank._time = CLog::previous_interval_boundary(levels.back()._period, first - 1) + step;
    blank._samples.resize(device._params.size());
    if (blank._time >= first) return;
    check(log.add_trend_data(device, blank));
    check(log.fill_blank_values(device._device, first - step, false));
}

// Makes the log and stores all readings in it.
CDeviceParams record(const std::string& file, const readings_t& readings,
                     const std::vector<CPeriodProperties>& levels)
{
    CLog log;
    open(log, file, false);
    CDeviceParams device;
    device._device._path = readings._device;
    for (const std::string& name : readings._quantities)
        device._params.push_back(make_param(name));

    // Every call is a transaction of its own; one around many calls waits for the disk once.
    CTransaction transaction(log);
    for (const CPeriodProperties& level : levels)
        check(log.add_period(level));
    check(log.add_device(device._device));
    check(log.add_params(device._device, device._params));

    const time_t step = static_cast<time_t>(readings._minutes * 60);
    time_t latest = readings._rows.front()._time - step;
    align(log, device, levels, readings._rows.front()._time);
    for (const reading_t& reading : readings._rows) {
        // After a gap, blanks up to the interval before the new row keep the rows on their grid.
        // For any gap that wants levels of twice the rows that the next one takes; see
        // docs/guide.md.
        if (reading._time - latest > step)
            check(log.fill_blank_values(device._device, reading._time - step, false));
        check(log.add_trend_data(device, make_snapshot(reading)));
        latest = reading._time;
    }
    check(transaction.commit());
    return device;
}

// Takes some readings out near the end: a silence. Its first and last moment.
timebounds_t make_gap(readings_t& readings)
{
    std::vector<reading_t>& rows = readings._rows;
    const std::ptrdiff_t silent = readings._minutes == 1 ? 20 : 6;
    if (rows.size() < 8 * static_cast<size_t>(silent)) return {-1, -1};
    const auto begin = rows.end() - 2 * silent;
    const timebounds_t gap(begin->_time, (begin + silent - 1)->_time);
    rows.erase(begin, begin + silent);
    return gap;
}

void demonstrate(readings_t& readings)
{
    const std::string file = readings._device + ".db";
    std::printf("== %s: %zu readings, %lu min each; quantities: %zu\n\n", readings._device.c_str(),
                readings._rows.size(), readings._minutes, readings._quantities.size());
    const timebounds_t gap = make_gap(readings);
    const std::vector<CPeriodProperties> levels = choose_levels(readings);

    const auto start = std::chrono::steady_clock::now();
    const CDeviceParams device = record(file, readings, levels);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf(
        "Recorded, rolled up and committed in %.2f s: %.0f readings a second.\n"
        "The file has %ju KB and stays small: each level keeps its newest rows only.\n",
        took.count(), static_cast<double>(readings._rows.size()) / took.count(),
        static_cast<uintmax_t>(std::filesystem::file_size(file) / 1024));

    CLog log;  // as another process would, that only looks
    open(log, file, true);
    print_levels(log, device);
    print_charts(log, device, levels);
    if (gap.first != -1) print_gap(log, device, levels, gap);
    print_power_factor(log, device, levels[1], readings);
}

}  // namespace

int main(int argc, char** argv)
{
    std::setlocale(LC_CTYPE, "");  // which characters the terminal has
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s READINGS.csv...\n", argv[0]);
        return EXIT_FAILURE;
    }
    for (int i = 1; i < argc; ++i) {
        readings_t readings = readings_from_csv(argv[i]);
        if (readings._rows.empty()) {
            std::fprintf(stderr,
                         "%s: no readings in '%s': it must begin with a line \"time,NAME,...\" and "
                         "have rows of numbers,\nthe time in seconds and by whole minutes\n",
                         argv[0], argv[i]);
            return EXIT_FAILURE;
        }
        if (i > 1) std::printf("\n\n");
        demonstrate(readings);
    }
    return EXIT_SUCCESS;
}
