#include "output/chart.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "numbers.h"

namespace trendlog {

namespace {

// 1, 2 or 5 times a power of ten, so that about `n` of them fill the range.
double round_step(double range, size_t n)
{
    const double rough = range / static_cast<double>(std::max<size_t>(1, n));
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    for (const double times : {1.0, 2.0, 5.0})
        if (rough <= times * power * 1.0001) return times * power;
    return 10 * power;
}

std::string value_text(double value, double step)
{
    if (std::fabs(value) < step / 1e6) return "0";
    const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
    if (std::fabs(value) >= 1e7 || decimals > 6) return short_number(value, 5);
    char text[64];
    return std::string(
        text,
        std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals).ptr);
}

axis_t factor_axis(double low, double high, size_t marks)
{
    const double step = std::max(0.01, round_step(high - low, marks));
    axis_t axis{std::max(0.0, std::floor(low / step) * step),
                std::min(2.0, std::ceil(high / step) * step),
                {}};
    if (axis._high - axis._low < step) axis._low -= step;
    for (auto i = std::llround(axis._low / step); i <= std::llround(axis._high / step); ++i) {
        const double place = static_cast<double>(i) * step;
        const bool is_end = std::fabs(place - 2) < step / 2;
        axis._marks.push_back(
            {place, is_end ? "-0" : value_text(place > 1 ? place - 2 : place, step)});
    }
    return axis;
}

}  // namespace

axis_t value_axis(const panel_t& panel, size_t marks)
{
    double low = HUGE_VAL, high = -HUGE_VAL;
    for (const point_t& point : panel._points)
        for (const double value : {point._low, point._high, point._middle}) {
            if (!std::isfinite(value)) continue;
            low = std::min(low, value);
            high = std::max(high, value);
        }
    if (low > high) return {0, 1, {}};
    if (panel._is_factor) return factor_axis(low, high, marks);
    // From zero where that is not far: else what it varies by.
    if (low > 0 && low < high / 2) low = 0;
    if (high < 0 && high > low / 2) high = 0;
    if (high - low < std::max(std::fabs(low), std::fabs(high)) * 1e-9 || low == high) {
        const double around = low == 0 ? 1 : std::fabs(low) / 10;
        low -= around;
        high += around;
    }
    const double step = round_step(high - low, marks);
    constexpr double AIR = 0.04;  // so that nothing is drawn on the frame
    axis_t axis{
        low == 0 ? 0 : low - AIR * (high - low), high == 0 ? 0 : high + AIR * (high - low), {}};
    for (auto i = std::llround(std::ceil(axis._low / step));
         static_cast<double>(i) * step <= axis._high; ++i) {
        const double place = static_cast<double>(i) * step;
        axis._marks.push_back({place, value_text(place, step)});
    }
    return axis;
}

std::vector<mark_t> time_marks(const chart_t& chart, const CZone& zone, size_t most)
{
    constexpr const char* STEPS[] = {"1m", "2m", "5m",    "10m",    "15m",    "30m",
                                     "1h", "2h", "3h",    "6h",     "12h",    "1d",
                                     "2d", "1w", "month", "3month", "6month", "year"};
    std::vector<mark_t> marks;
    for (const char* const name : STEPS) {
        const CSteps steps(name, zone);
        const bool is_last = std::string(name) == "year";
        marks.clear();
        int64_t time = steps.at_or_before(chart._from);
        if (time < chart._from) time = steps.after(time);
        for (; time <= chart._to && (is_last || marks.size() <= most); time = steps.after(time)) {
            const std::string text = zone.short_text(time);  // 2018-12-31 00:00
            const bool is_midnight = text.substr(11) == "00:00";
            const bool of_months = std::string(name).find_first_of("oy") != std::string::npos;
            marks.push_back({static_cast<double>(time), of_months     ? text.substr(0, 7)
                                                        : is_midnight ? text.substr(5, 5)
                                                                      : text.substr(11)});
        }
        if (marks.size() <= most) break;
    }
    return marks;
}

std::string panel_title(const chart_t& chart, const panel_t& panel)
{
    return chart._device + " " + panel._name + (panel._unit.empty() ? "" : ", " + panel._unit);
}

std::string panel_rows(const panel_t& panel)
{
    std::set<unsigned long> periods;
    for (const point_t& point : panel._points)
        periods.insert(point._period);
    std::string text;
    for (const unsigned long period : periods)
        text += (text.empty() ? "" : ", ") + duration_text(static_cast<int64_t>(period) * 60);
    return text.empty() ? "no rows" : "made of rows of " + text;
}

std::string chart_window(const chart_t& chart, const CZone& zone)
{
    return zone.short_text(chart._from) + " to " + zone.short_text(chart._to) + " " + zone.name();
}

}  // namespace trendlog
