#include <algorithm>
#include <cmath>

#include "output/chart.h"
#include "output/writer.h"

namespace trendlog {

namespace {

constexpr const char* MIDDLE_COLOUR = "\033[1;38;5;221m";
constexpr const char* BAND_COLOUR = "\033[38;5;67m";
constexpr const char* PARTIAL_COLOUR = "\033[38;5;245m";

enum pixel_t : char { EMPTY, BAND, MIDDLE };

// One column of the picture: what is known of its time.
struct column_data_t {
    point_t _point{};
    bool _has_point = false;
    std::vector<pixel_t> _pixels;  // from the top
};

// With two pixels in a character, one above the other, where the terminal has the blocks for it.
class CPanel {
public:
    CPanel(const chart_t& chart, const panel_t& panel, const text_style_t& style, size_t margin)
        : _chart(chart),
          _panel(panel),
          _style(style),
          _margin(margin),
          _width(style._columns - margin - 1),
          _pixels(style._lines * (style._has_utf8 ? 2 : 1)),
          _axis(value_axis(panel, std::max<size_t>(2, style._lines / 3)))
    {
    }

    std::string text(const std::vector<mark_t>& times)
    {
        fill();
        std::string text;
        for (size_t line = 0; line < _style._lines; ++line) {
            const std::string mark = mark_of(line);
            text += padded(mark, _margin, true);
            text += _style._has_utf8 ? (mark.empty() ? "│" : "┤") : (mark.empty() ? "|" : "+");
            text += cells(line) + "\n";
        }
        text += axis_line(times);
        text += padded("valid", _margin, true) + " " + validity() + "\n";
        return text;
    }

private:
    double share(double value) const { return (value - _axis._low) / (_axis._high - _axis._low); }

    // From the top; a value at the edge belongs to the last pixel.
    size_t pixel_of(double value) const
    {
        const double place = std::floor((1 - share(value)) * static_cast<double>(_pixels));
        return static_cast<size_t>(std::clamp(place, 0.0, static_cast<double>(_pixels - 1)));
    }

    void fill()
    {
        const double length =
            static_cast<double>(_chart._to - _chart._from) / static_cast<double>(_width);
        size_t first = 0;
        double before = NAN;
        for (size_t c = 0; c < _width; ++c) {
            const double begin =
                static_cast<double>(_chart._from) + length * static_cast<double>(c);
            column_data_t column;
            column._pixels.assign(_pixels, EMPTY);
            collect(column, begin, begin + length, first);
            before = column._has_point ? draw(column, before) : NAN;
            _columns.push_back(std::move(column));
        }
    }

    // The points that lie in the column for the greater part, or that it lies in.
    void collect(column_data_t& column, double begin, double end, size_t& first) const
    {
        const std::vector<point_t>& points = _panel._points;
        point_t& all = column._point;
        all._low = all._high = all._middle = NAN;
        double weights = 0, sum = 0;
        while (first < points.size() && static_cast<double>(points[first]._end) <= begin)
            ++first;
        for (size_t i = first; i < points.size(); ++i) {
            const point_t& point = points[i];
            const double from = static_cast<double>(point._start);
            const double to = static_cast<double>(point._end);
            if (from >= end) break;
            const double common = std::min(to, end) - std::max(from, begin);
            all._percent_valid += point._percent_valid * common / (end - begin);
            if (2 * common < std::min(to - from, end - begin)) continue;
            column._has_point = true;
            all._low = std::fmin(all._low, point._low);  // which pass over what is absent
            all._high = std::fmax(all._high, point._high);
            if (!std::isfinite(point._middle)) continue;
            const double weight = common * std::max(point._percent_valid, 1e-9);
            weights += weight;
            sum += weight * point._middle;
        }
        if (weights > 0) all._middle = sum / weights;
        constexpr double ROUNDING = 0.5;
        if (all._percent_valid > 100 - ROUNDING) all._percent_valid = 100;
    }

    // Gives the middle, with which the next column is joined where there is no band to do so.
    double draw(column_data_t& column, double before) const
    {
        const point_t& point = column._point;
        const bool has_band = std::isfinite(point._low) && std::isfinite(point._high);
        if (has_band)
            for (size_t p = pixel_of(point._high); p <= pixel_of(point._low); ++p)
                column._pixels[p] = BAND;
        if (!std::isfinite(point._middle)) return NAN;
        size_t from = pixel_of(point._middle), to = from;
        if (!has_band && std::isfinite(before)) {
            const size_t other = pixel_of(before);
            if (other + 1 < from) from = other + 1;
            if (other > to + 1) to = other - 1;
        }
        for (size_t p = from; p <= to; ++p)
            column._pixels[p] = MIDDLE;
        return point._middle;
    }

    std::string mark_of(size_t line) const
    {
        const size_t each = _pixels / _style._lines;
        for (const mark_t& mark : _axis._marks)
            if (pixel_of(mark._place) / each == line) return mark._text;
        return "";
    }

    std::string cells(size_t line) const
    {
        std::string text, colour;
        for (const column_data_t& column : _columns) {
            const pixel_t up = column._pixels[_style._has_utf8 ? line * 2 : line];
            const pixel_t down = column._pixels[_style._has_utf8 ? line * 2 + 1 : line];
            if (_style._has_colour) {
                const std::string wanted = colour_of(column, up, down);
                if (wanted != colour) text += "\033[0m" + wanted;
                colour = wanted;
            }
            text += cell_of(up, down);
        }
        if (_style._has_colour)
            text += "\033[0m";
        else
            text.erase(text.find_last_not_of(' ') + 1);
        return text;
    }

    const char* cell_of(pixel_t up, pixel_t down) const
    {
        if (!_style._has_utf8) return up == MIDDLE ? "*" : up == BAND ? ":" : " ";
        if (up == MIDDLE && down == MIDDLE) return "█";
        if (up == MIDDLE) return "▀";
        if (down == MIDDLE) return "▄";
        if (!_style._has_colour) return up == BAND || down == BAND ? "░" : " ";
        if (up == BAND && down == BAND) return "█";
        return up == BAND ? "▀" : down == BAND ? "▄" : " ";
    }

    // The middle bright, the band blue, behind it grey where less than all is known.
    std::string colour_of(const column_data_t& column, pixel_t up, pixel_t down) const
    {
        const bool is_partial = column._has_point && column._point._percent_valid > 0 &&
                                column._point._percent_valid < 100;
        const bool has_middle = up == MIDDLE || down == MIDDLE;
        const bool has_band = up == BAND || down == BAND;
        std::string text;
        if (has_middle)
            text += MIDDLE_COLOUR;
        else if (has_band)
            text += is_partial ? PARTIAL_COLOUR : BAND_COLOUR;
        if (has_middle && has_band)
            text += is_partial ? "\033[48;5;245m" : "\033[48;5;67m";
        else if (is_partial)
            text += "\033[48;5;237m";
        return text;
    }

    std::string axis_line(const std::vector<mark_t>& times) const
    {
        const bool utf8 = _style._has_utf8;
        std::vector<bool> is_marked(_width, false);
        std::string labels;
        for (const mark_t& time : times) {
            const double place = (time._place - static_cast<double>(_chart._from)) /
                                 static_cast<double>(_chart._to - _chart._from) *
                                 static_cast<double>(_width);
            const size_t c = std::min(static_cast<size_t>(place), _width - 1);
            is_marked[c] = true;
            const size_t begin = _margin + 1 + c - std::min(c, time._text.size() / 2);
            if (!labels.empty() && begin < labels.size() + 1) continue;
            if (begin + time._text.size() > _style._columns) continue;
            labels = padded(labels, begin) + time._text;
        }
        std::string line;
        for (size_t c = 0; c < _width; ++c)
            line += utf8 ? (is_marked[c] ? "┬" : "─") : (is_marked[c] ? "+" : "-");
        return padded("", _margin) + (utf8 ? "└" : "+") + line + "\n" + labels + "\n";
    }

    std::string validity() const
    {
        constexpr const char* BLOCKS[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇"};
        std::string text;
        for (const column_data_t& column : _columns) {
            const double valid = column._has_point ? column._point._percent_valid : 0;
            if (valid <= 0)
                text += ' ';
            else if (valid >= 100)
                text += _style._has_utf8 ? "█" : "=";
            else
                text +=
                    _style._has_utf8 ? BLOCKS[std::min(6, static_cast<int>(valid * 0.07))] : "-";
        }
        text.erase(text.find_last_not_of(' ') + 1);
        return text;
    }

    const chart_t& _chart;
    const panel_t& _panel;
    const text_style_t& _style;
    size_t _margin;
    size_t _width;
    size_t _pixels;
    axis_t _axis;
    std::vector<column_data_t> _columns;
};

std::string legend(const chart_t& chart, const text_style_t& style)
{
    bool has_band = false, is_partial = false;
    for (const panel_t& panel : chart._panels)
        for (const point_t& point : panel._points) {
            has_band = has_band || (std::isfinite(point._low) && std::isfinite(point._high));
            is_partial = is_partial || (point._percent_valid > 0 && point._percent_valid < 100);
        }
    const auto key = [&](const char* blocks, const char* plain, const char* colour) {
        const std::string sign = style._has_utf8 ? blocks : plain;
        return style._has_colour ? colour + sign + "\033[0m " : sign + " ";
    };
    std::string text = key("▀", "*", MIDDLE_COLOUR) + chart._panels.front()._middle_name;
    if (has_band)
        text += "   " + key(style._has_colour ? "█" : "░", ":", BAND_COLOUR) + "min to max";
    if (is_partial && style._has_colour)
        text += "   " + key("█", ":", PARTIAL_COLOUR) + "known in part";
    return text + "   blank: not known\n";
}

}  // namespace

std::string text_chart(const chart_t& chart, const CZone& zone, const text_style_t& style)
{
    size_t margin = 5;  // "valid"
    for (const panel_t& panel : chart._panels)
        for (const mark_t& mark : value_axis(panel, std::max<size_t>(2, style._lines / 3))._marks)
            margin = std::max(margin, mark._text.size());
    const std::vector<mark_t> times = time_marks(chart, zone, style._columns / 10);
    std::string text;
    for (const panel_t& panel : chart._panels) {
        text += panel_title(chart, panel) + "\n";
        text += CPanel(chart, panel, style, margin).text(times);
    }
    text += chart_window(chart, zone) + ", " + panel_rows(chart._panels.front()) + "\n";
    return text + legend(chart, style);
}

}  // namespace trendlog
