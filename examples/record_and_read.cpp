// The library's main job from end to end: record readings, roll them up, close a gap, and read them
// back at the best resolution that is still there.
//
//     record_and_read [readings.csv]
//
// It makes its log in the present folder, as trend.db, which must not be there yet.
//
// The CSV file has a column `time` (seconds since 1970, UTC) and one column per quantity; one named
// power_factor is recorded as such. Without a file the machine itself is measured.

#include <cstdio>
#include <cstdlib>

#include "readings.h"
#include "trend_transaction.h"

using namespace toolkit::trend;

namespace {

// Every failure has been reported on standard error by the time a call returns.
void check(int result)
{
    if (result != 0) std::exit(EXIT_FAILURE);
}

// Finest first, and each a multiple of the one before. Few rows are kept here, so that a short
// recording already shows all three resolutions; a year of hours would be {60, 8760}.
std::vector<CPeriodProperties> choose_periods(unsigned long minutes)
{
    if (minutes == 1) return {{1, 120}, {15, 96}, {1440, 3650}};
    if (minutes < 360 && 1440 % (minutes * 4) == 0)
        return {{minutes, 96}, {minutes * 4, 24 * 14}, {1440, 3650}};
    return {{minutes, 96}, {minutes * 4, 24 * 14}, {minutes * 40, 3650}};
}

CParamProperties make_param(const std::string& name)
{
    CParamProperties param;
    param._path = name;
    param._type = name == "power_factor" ? SAMPLE_TYPE_PF : SAMPLE_TYPE_VALUE;
    param._has_min = param._has_max = param._has_avg = param._has_actual = true;
    return param;
}

// One instantaneous reading is minimum, maximum, average and actual value of its interval at once.
// A NaN is absent.
CSnapshot make_snapshot(const reading_t& reading)
{
    CSnapshot snapshot;
    snapshot._time = reading._time;
    snapshot._percent_valid = 100.0;
    for (const double value : reading._values) {
        CSample sample;
        sample._min = sample._max = sample._avg = sample._actual = value;
        snapshot._samples.push_back(sample);
    }
    return snapshot;
}

// Coarse rows are made of so many fine rows, whatever their times. Starting with blank rows from
// the last boundary on makes them end on the hour and at midnight.
void align(CLog& log, const CDeviceParams& device, const std::vector<CPeriodProperties>& periods,
           time_t first)
{
    const time_t step = static_cast<time_t>(periods.front()._period * 60);
    CSnapshot blank;
    blank._time = CLog::previous_interval_boundary(periods.back()._period, first - 1) + step;
    blank._samples.resize(device._params.size());
    if (blank._time >= first) return;
    check(log.add_trend_data(device, blank));
    check(log.fill_blank_values(device._device, first - step, false));
}

void record(CLog& log, const CDeviceParams& device, const std::vector<reading_t>& readings,
            time_t step)
{
    // Every call is a transaction of its own and would wait for the disk; one around many calls
    // waits once.
    CTransaction all(log);
    check(all.failed());
    time_t latest = 0;
    check(log.get_latest_timestamp(device._device, latest));
    for (const reading_t& reading : readings) {
        // After a gap, blanks up to the interval before the new row keep the rows on their grid.
        if (latest != -1 && reading._time - latest > step)
            check(log.fill_blank_values(device._device, reading._time - step, false));
        check(log.add_trend_data(device, make_snapshot(reading)));
        latest = reading._time;
    }
    check(all.commit());
}

void print_row(const CSnapshot& row)
{
    char when[sizeof "2007-02-01 00:15"];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::gmtime(&row._time));
    std::printf("%s  %5lu min  %5.1f %%", when, row._period, row._percent_valid);
    for (const CSample& sample : row._samples) {
        if (sample._avg)
            std::printf("  %9.2f %9.2f", *sample._avg, *sample._max);
        else
            std::printf("  %9s %9s", "-", "-");
    }
    std::printf("\n");
}

// The first and last rows of each resolution.
void print_rows(const CDeviceData& data)
{
    std::printf("%-16s  %9s  %7s", "end of interval", "length", "valid");
    for (const CParamProperties& param : data._params)
        std::printf("  %19.19s", param._path.c_str());
    std::printf("\n%-16s  %9s  %7s", "(UTC)", "", "");
    for (size_t i = 0; i < data._params.size(); ++i)
        std::printf("  %9s %9s", "average", "maximum");
    std::printf("\n");

    constexpr size_t SHOWN = 4;
    const std::vector<CSnapshot>& rows = data._snapshots;
    for (size_t begin = 0, end = 0; begin < rows.size(); begin = end) {
        while (end < rows.size() && rows[end]._period == rows[begin]._period)
            ++end;
        for (size_t i = begin; i < end; ++i) {
            if (i < begin + SHOWN || i + SHOWN >= end)
                print_row(rows[i]);
            else if (i == begin + SHOWN)
                std::printf("  ... %zu more rows of %lu min ...\n", end - begin - 2 * SHOWN,
                            rows[begin]._period);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    readings_t readings =
        argc > 1 ? readings_from_csv(argv[1]) : readings_from_machine(2 * 24 * 60);
    if (readings._rows.empty()) {
        std::fprintf(stderr, "%s: no readings in '%s'\n", argv[0], argc > 1 ? argv[1] : "/proc");
        return EXIT_FAILURE;
    }

    // A log is one file. It is created, or brought up to date, when it is opened like this.
    const bool read_only = false, create = true, temp_in_memory = false, wal = true;
    const size_t pool_capacity = 100, page_size = 0, cache_bytes = 0, heap_limit = 0;
    CLog log;
    check(log.open("trend.db", read_only, create, pool_capacity, temp_in_memory, page_size,
                   cache_bytes, heap_limit, wal));

    // Periods before parameters: a parameter gets its columns in the tables of every period.
    const std::vector<CPeriodProperties> periods = choose_periods(readings._minutes);
    for (const CPeriodProperties& period : periods)
        check(log.add_period(period));

    CDeviceParams device;
    device._device._path = readings._device;
    check(log.add_device(device._device));
    for (const std::string& name : readings._quantities)
        device._params.push_back(make_param(name));
    check(log.add_params(device._device, device._params));

    // An hour's silence, or one missing reading, before the last two: to have a gap to fill.
    const time_t step = static_cast<time_t>(readings._minutes * 60);
    std::vector<reading_t>& rows = readings._rows;
    const std::ptrdiff_t silent =
        static_cast<std::ptrdiff_t>(readings._minutes < 60 ? 60 / readings._minutes : 1);
    if (rows.size() > static_cast<size_t>(silent) + 2)
        rows.erase(rows.end() - 2 - silent, rows.end() - 2);

    align(log, device, periods, rows.front()._time);
    record(log, device, rows, step);

    // All parameters of all periods, each stretch of time once, at the best resolution there is.
    const timebounds_t always(-1, -1);
    const size_t no_limit = 0, no_offset = 0;
    const bool ascending = true, no_overlap = true;
    CDeviceData data;
    check(log.get_trend_data(data, device, {}, always, no_limit, no_offset, ascending, no_overlap));

    std::printf(
        "%zu readings of %s, %lu min each, with a gap before the last two:\n"
        "%zu rows to read.\n\n",
        rows.size(), readings._device.c_str(), readings._minutes, data._snapshots.size());
    print_rows(data);
    log.close();
    return EXIT_SUCCESS;
}
