#pragma once

// Columns of text for the rows of a trend log.

#include <langinfo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "trend_api.h"

constexpr size_t CHART_COLUMNS = 90;
constexpr int CHART_LINES = 6;

struct marks_t {
    const char* _min;
    const char* _avg;
    const char* _max;
};

// Blocks where the terminal has them.
inline marks_t marks()
{
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0) return {"█", "▒", "░"};
    return {"#", "+", ":"};
}

inline std::string time_text(time_t time, const char* format)
{
    char text[32];
    text[std::strftime(text, sizeof text, format, std::gmtime(&time))] = '\0';
    return text;
}

inline std::string level_name(unsigned long period)
{
    switch (period) {
        case 1:
            return "minute";
        case 15:
            return "quarter";
        case 60:
            return "hour";
        case 1440:
            return "day";
        case 10080:
            return "week";
        default:
            return std::to_string(period) + " min";
    }
}

// The first parameter of the newest rows: a column each, the axis, and some of their times.
inline void print_chart(std::vector<toolkit::trend::CSnapshot> rows)
{
    const size_t all = rows.size(), shown = std::min(all, CHART_COLUMNS);
    rows.erase(rows.begin(), rows.end() - static_cast<std::ptrdiff_t>(shown));

    double low = 0, high = 0, least = HUGE_VAL;
    for (const auto& row : rows) {
        if (!row._samples[0]._avg) continue;
        least = std::min(least, *row._samples[0]._min);
        high = std::max(high, *row._samples[0]._max);
    }
    if (least > high) return;  // there is no value

    if (least < 0 || least > high / 2) low = least;  // a voltage: what it varies by
    const double step = (high - low) / CHART_LINES;

    const unsigned long period = rows.front()._period;
    const std::string name = level_name(period);
    std::printf("\n%8s, %zu of %zu\n", (name + (name.back() == 'n' ? "" : "s")).c_str(), shown,
                all);
    for (int line = CHART_LINES; line > 0; --line) {
        const double middle = low + (line - 0.5) * step;
        std::string text;
        for (const auto& row : rows) {
            const toolkit::trend::CSample& sample = row._samples[0];
            const char* mark = " ";
            if (sample._avg && *sample._max >= middle) mark = marks()._max;
            if (sample._avg && *sample._avg >= middle) mark = marks()._avg;
            if (sample._avg && *sample._min >= middle) mark = marks()._min;
            text += mark;
        }
        std::printf("%8.2f %s\n", low + line * step, text.c_str());
    }

    std::string axis, times;
    for (size_t i = 0; i < rows.size(); ++i) {
        const double valid = rows[i]._percent_valid;
        axis += valid <= 0 ? '.' : valid < 100 ? '~' : '-';
        if (i % 18 != 0 || i + 18 > std::max<size_t>(rows.size(), 18)) continue;
        times.resize(i, ' ');
        times += "^" + time_text(rows[i]._time, period < 1440 ? "%m-%d %H:%M" : "%Y-%m-%d");
    }
    std::printf("%8.2f %s\n%8s %s\n", low, axis.c_str(), "", times.c_str());
}
