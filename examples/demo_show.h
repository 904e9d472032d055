#pragma once

// What demo.cpp shows of a log.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "chart.h"
#include "readings.h"
#include "trend_reader.h"

using namespace toolkit::trend;

constexpr const char* MINUTE = "%Y-%m-%d %H:%M";

// Every failure has been reported on standard error by the time a call returns.
inline void check(int result)
{
    if (result != 0) std::exit(EXIT_FAILURE);
}

// The rows of the levels, in the order of time.
inline std::vector<CSnapshot> read(CLog& log, const CDeviceParams& device,
                                   const std::vector<CPeriodProperties>& levels)
{
    CDeviceData data;
    const timebounds_t always(-1, -1);
    const size_t no_limit = 0, no_offset = 0;
    const bool ascending = true, no_overlap = true;
    check(log.get_trend_data(data, device, levels, always, no_limit, no_offset, ascending,
                             no_overlap));
    return data._snapshots;
}

inline void print_row(const CSnapshot& row)
{
    const CSample& sample = row._samples[0];
    std::printf("  %-8s  %s  %5.1f %%", level_name(row._period).c_str(),
                time_text(row._time, MINUTE).c_str(), row._percent_valid);
    if (sample._avg)
        std::printf("  %9.4f %9.4f %9.4f\n", *sample._min, *sample._avg, *sample._max);
    else
        std::printf("  %9s %9s %9s\n", "-", "-", "-");
}

// Each level goes on where the finer one has no rows any more.
inline void print_levels(CLog& log, const CDeviceParams& device)
{
    std::printf(
        "\nOne read gives every moment once, at the finest level that still has it:\n\n"
        "  %-8s  %5s  %-16s    %-16s  %9s %9s\n",
        "level", "rows", "first row to", "last row to", "lowest", "highest");
    CReadRequest everything;
    everything._device = device._device;
    std::vector<CSnapshot> rows;
    check(CReader(log).best_rows(everything, [&](const CDeviceParams&, const CInterval& row) {
        rows.push_back(row);
        return true;  // go on
    }));
    for (size_t begin = 0, end = 0; begin < rows.size(); begin = end) {
        double low = HUGE_VAL, high = -HUGE_VAL;
        for (; end < rows.size() && rows[end]._period == rows[begin]._period; ++end)
            if (const CSample& sample = rows[end]._samples[0]; sample._avg) {
                low = std::min(low, *sample._min);
                high = std::max(high, *sample._max);
            }
        std::printf("  %-8s  %5zu  %s .. %s", level_name(rows[begin]._period).c_str(), end - begin,
                    time_text(rows[begin]._time, MINUTE).c_str(),
                    time_text(rows[end - 1]._time, MINUTE).c_str());
        if (low <= high)
            std::printf("  %9.3f %9.3f\n", low, high);
        else
            std::printf("  %9s %9s\n", "-", "-");
    }
}

inline void print_charts(CLog& log, const CDeviceParams& device,
                         const std::vector<CPeriodProperties>& levels)
{
    std::printf(
        "\n%s, the newest rows of each level. A column is a row: %s up to its minimum,\n"
        "%s to its average, %s to its maximum. The line below: - known, ~ in part, . not.\n",
        device._params[0]._path.c_str(), marks()._min, marks()._avg, marks()._max);
    for (const CPeriodProperties& level : levels)
        print_chart(read(log, device, {level}));
}

inline void print_gap(CLog& log, const CDeviceParams& device,
                      const std::vector<CPeriodProperties>& levels, const timebounds_t& gap)
{
    std::printf(
        "\nThe readings from %s to %s were kept back, to have a gap. Blank rows fill it, and a "
        "row\n"
        "that is made of them says how much of its time is known, and averages that:\n\n",
        time_text(gap.first, "%H:%M").c_str(), time_text(gap.second, "%H:%M").c_str());
    std::printf("  %-8s  %-16s  %7s  %9s %9s %9s\n", "level", "to", "valid", "min", "avg", "max");
    const size_t groups = levels[1]._period / levels[0]._period;
    const time_t step = static_cast<time_t>(levels[0]._period * 60);
    for (const CSnapshot& row : read(log, device, {levels[0]}))
        if (row._time >= gap.first && row._time <= gap.first + 2 * step) print_row(row);
    std::printf("  ...\n");
    for (const CSnapshot& row : read(log, device, {levels[1]}))
        if (row._time > gap.first && row._time < gap.second + static_cast<time_t>(groups) * step)
            print_row(row);
}

// A coarse row whose readings are lagging and leading (negative) in turns, all of them good: there
// a plain mean says nothing.
inline void print_power_factor(CLog& log, const CDeviceParams& device,
                               const CPeriodProperties& level, const readings_t& readings)
{
    const auto is_factor = [](const std::string& name) { return name == "power_factor"; };
    const auto found =
        std::find_if(readings._quantities.begin(), readings._quantities.end(), is_factor);
    if (found == readings._quantities.end()) return;
    const size_t column = static_cast<size_t>(found - readings._quantities.begin());

    double best = 0.5, sum = 0;
    CSnapshot shown;
    std::vector<double> factors;
    for (const CSnapshot& row : read(log, device, {level})) {
        if (row._percent_valid < 100 || !row._samples[column]._avg) continue;
        const time_t start = row._time - static_cast<time_t>(row._period * 60);
        std::vector<double> group;
        double weakest = 1, total = 0;
        bool lagging = false, leading = false;
        for (const reading_t& reading : readings._rows) {
            if (reading._time <= start || reading._time > row._time) continue;
            const double factor = reading._values[column];
            group.push_back(factor);
            total += factor;
            weakest = std::isnan(factor) ? 0 : std::min(weakest, std::fabs(factor));
            (factor < 0 ? leading : lagging) = true;
        }
        if (!lagging || !leading || weakest <= best) continue;
        best = weakest, sum = total, shown = row, factors = group;
    }
    if (factors.empty()) return;

    std::printf("\nPower factors, negative where leading, of the %s to %s:\n\n ",
                level_name(level._period).c_str(), time_text(shown._time, MINUTE).c_str());
    for (size_t i = 0; i < factors.size(); ++i)
        std::printf("%s %+.4f", i > 0 && i % 10 == 0 ? "\n " : "", factors[i]);
    std::printf(
        "\n\n"
        "  their plain mean    %+.4f\n"
        "  libtrend's average  %+.4f  on a scale that runs from 0 to +1 = -1 and on to -0\n",
        sum / static_cast<double>(factors.size()), *shown._samples[column]._avg);
}
