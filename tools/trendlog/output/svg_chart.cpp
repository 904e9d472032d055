#include <cmath>

#include "numbers.h"
#include "output/chart.h"
#include "output/writer.h"

namespace trendlog {

namespace {

constexpr double WIDTH = 960, LEFT = 64, RIGHT = 16, TOP = 34, PANEL = 200, BETWEEN = 46;
constexpr double BOTTOM = 44;
constexpr double INNER = WIDTH - LEFT - RIGHT;

std::string escaped(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (static_cast<unsigned char>(c) >= 0x20)
            out += c;
    }
    return out;
}

// Tenths of a pixel are enough.
std::string place(double value)
{
    std::string text;
    append_number(text, std::round(value * 10) / 10);
    return text;
}

// Of many rectangles in one path.
std::string piece(double x, double y, double width, double height)
{
    return "M" + place(x) + " " + place(y) + "h" + place(width) + "v" + place(height) + "h" +
           place(-width) + "z";
}

std::string pieces(const std::string& path, const char* style)
{
    return path.empty() ? "" : "<path d=\"" + path + "\" class=\"" + style + "\"/>\n";
}

std::string rectangle(double x, double y, double width, double height, const char* style)
{
    return "<rect x=\"" + place(x) + "\" y=\"" + place(y) + "\" width=\"" + place(width) +
           "\" height=\"" + place(height) + "\" class=\"" + style + "\"/>\n";
}

std::string words(double x, double y, const char* style, const std::string& text)
{
    return "<text x=\"" + place(x) + "\" y=\"" + place(y) + "\" class=\"" + style + "\">" +
           escaped(text) + "</text>\n";
}

class CPanel {
public:
    CPanel(const chart_t& chart, const panel_t& panel, double top)
        : _chart(chart), _panel(panel), _top(top), _axis(value_axis(panel, 5))
    {
    }

    std::string text(const std::vector<mark_t>& times) const
    {
        std::string text = words(LEFT, _top - 12, "title", panel_title(_chart, _panel));
        text += words(WIDTH - RIGHT, _top - 12, "end", panel_rows(_panel));
        text += rectangle(LEFT, _top, INNER, PANEL, "frame");
        text += grid(times);
        // A row is drawn over its own interval, all rows of a kind together.
        std::string unknown, partial, band;
        for (const point_t& point : _panel._points) {
            const double x = x_of(point._start), width = x_of(point._end) - x;
            if (point._percent_valid < 100)
                (point._percent_valid <= 0 ? unknown : partial) += piece(x, _top, width, PANEL);
            if (std::isfinite(point._low) && std::isfinite(point._high)) {
                const double high = y_of(point._high), low = y_of(point._low);
                band += piece(x, high - 0.4, width, low - high + 0.8);
            }
        }
        return text + pieces(unknown, "unknown") + pieces(partial, "partial") +
               pieces(band, "band") + "<path d=\"" + middle_line() + "\" class=\"middle\"/>\n";
    }

private:
    double x_of(int64_t time) const
    {
        const double share = static_cast<double>(time - _chart._from) /
                             static_cast<double>(_chart._to - _chart._from);
        return LEFT + INNER * std::fmin(1, std::fmax(0, share));
    }

    double y_of(double value) const
    {
        return _top + PANEL * (1 - (value - _axis._low) / (_axis._high - _axis._low));
    }

    std::string grid(const std::vector<mark_t>& times) const
    {
        std::string text;
        for (const mark_t& mark : _axis._marks) {
            const std::string y = place(y_of(mark._place));
            text += "<path d=\"M" + place(LEFT) + " " + y + "H" + place(LEFT + INNER) +
                    "\" class=\"grid\"/>\n";
            text += words(LEFT - 6, y_of(mark._place) + 4, "end", mark._text);
        }
        for (const mark_t& time : times) {
            const double x = x_of(static_cast<int64_t>(time._place));
            text += "<path d=\"M" + place(x) + " " + place(_top) + "V" + place(_top + PANEL + 4) +
                    "\" class=\"grid\"/>\n";
            constexpr double HALF_WORD = 24;  // a mark at the edge stays within the picture
            text += words(std::fmin(x, WIDTH - HALF_WORD), _top + PANEL + 17, "mark", time._text);
        }
        return text;
    }

    // Steps, joined where one point meets the next.
    std::string middle_line() const
    {
        std::string text;
        int64_t end = -1;
        for (const point_t& point : _panel._points) {
            if (!std::isfinite(point._middle)) {
                end = -1;
                continue;
            }
            const std::string y = place(y_of(point._middle));
            text += point._start == end ? "V" + y : "M" + place(x_of(point._start)) + " " + y;
            text += "H" + place(x_of(point._end));
            end = point._end;
        }
        return text;
    }

    const chart_t& _chart;
    const panel_t& _panel;
    double _top;
    axis_t _axis;
};

}  // namespace

std::string svg_chart(const chart_t& chart, const CZone& zone)
{
    const double panels = static_cast<double>(chart._panels.size());
    const double height = TOP + panels * (PANEL + BETWEEN) - BETWEEN + BOTTOM;
    std::string text = "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + place(WIDTH) +
                       " " + place(height) + "\" width=\"" + place(WIDTH) + "\" height=\"" +
                       place(height) + "\" role=\"img\">\n<title>" +
                       escaped(chart._device + ", " + chart_window(chart, zone)) +
                       "</title>\n"
                       "<style>\n"
                       "text { font: 12px sans-serif; fill: #444 }\n"
                       ".title { font-weight: bold; fill: #111 }\n"
                       ".end { text-anchor: end }\n"
                       ".mark { text-anchor: middle }\n"
                       ".frame { fill: #fff; stroke: #bbb }\n"
                       ".grid { stroke: #e4e4e4; fill: none }\n"
                       ".unknown, .partial, .band { shape-rendering: crispEdges }\n"
                       ".band { fill: #9ec3e6 }\n"
                       ".middle { stroke: #0b4f8a; stroke-width: 1.4; fill: none }\n"
                       ".partial { fill: #f3e2c2 }\n"
                       ".unknown { fill: #e9e9e9 }\n"
                       "</style>\n"
                       "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    const std::vector<mark_t> times = time_marks(chart, zone, 12);
    double top = TOP;
    for (const panel_t& panel : chart._panels) {
        text += CPanel(chart, panel, top).text(times);
        top += PANEL + BETWEEN;
    }

    // What is what.
    const double y = height - 10;
    text += words(LEFT, y, "", chart_window(chart, zone));
    double x = WIDTH - RIGHT - 400;
    const auto key = [&](const char* style, const std::string& name, double width) {
        text += rectangle(x, y - 10, 14, 11, style);
        text += words(x + 19, y, "", name);
        x += width;
    };
    text += "<path d=\"M" + place(x) + " " + place(y - 4) + "h14\" class=\"middle\"/>\n";
    text += words(x + 19, y, "", chart._panels.front()._middle_name);
    x += 80;
    key("band", "min to max", 110);
    key("partial", "known in part", 120);
    key("unknown", "not known", 90);
    return text + "</svg>\n";
}

}  // namespace trendlog
