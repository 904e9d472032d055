#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "times.h"

// Pictures of points: what both kinds have in common, and the two kinds.

namespace trendlog {

struct point_t {
    int64_t _start;
    int64_t _end;
    // Where they are on the axis; NaN where there is none.
    double _low;
    double _high;
    double _middle;
    double _percent_valid;
    unsigned long _period;
};

// One parameter. Power factors are placed from 0 over 1, where +1 and -1 are one, to 2, which is
// -0.
struct panel_t {
    std::string _name;
    std::string _unit;
    bool _is_factor = false;
    const char* _middle_name = "avg";
    std::vector<point_t> _points;
};

struct chart_t {
    std::string _device;
    int64_t _from = 0;
    int64_t _to = 0;
    std::vector<panel_t> _panels;
};

// What an axis is marked with: a place and what stands there.
struct mark_t {
    double _place;
    std::string _text;
};

struct axis_t {
    double _low;
    double _high;
    std::vector<mark_t> _marks;
};

// The axis of a panel's values with about so many marks at round numbers; where there is no value,
// from 0 to 1 without marks.
axis_t value_axis(const panel_t& panel, size_t marks);

// Marks at round local times, at most so many.
std::vector<mark_t> time_marks(const chart_t& chart, const CZone& zone, size_t most);

// "plant/pump power, kW", and what is in the panel: "2018-12-31 to …, rows of 15m, 1h".
std::string panel_title(const chart_t& chart, const panel_t& panel);
std::string panel_rows(const panel_t& panel);
std::string chart_window(const chart_t& chart, const CZone& zone);

// The picture in so many columns and lines of a terminal.
struct text_style_t {
    size_t _columns;
    size_t _lines;  // of each panel's picture
    bool _has_utf8;
    bool _has_colour;
};
std::string text_chart(const chart_t& chart, const CZone& zone, const text_style_t& style);

std::string svg_chart(const chart_t& chart, const CZone& zone);

}  // namespace trendlog
