#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "commands/commands.h"
#include "output/chart.h"
#include "selection.h"
#include "talk.h"

namespace trendlog {

namespace {

double place_of(const COptVal& value, bool is_factor)
{
    if (!value) return NAN;
    return is_factor && *value < 0 ? *value + 2 : *value;
}

std::vector<panel_t> make_panels(CLogFile& file, const CDeviceParams& device)
{
    std::vector<panel_t> panels;
    for (const CParamProperties& param : device._params) {
        panel_t panel;
        panel._name = param._path;
        panel._unit = file.label(device._device._path, param._path)._unit;
        panel._is_factor = param._type == SAMPLE_TYPE_PF;
        panel._middle_name = param._has_avg ? "avg" : param._has_actual ? "actual" : "sum";
        panels.push_back(panel);
    }
    return panels;
}

void add_point(const CDeviceParams& device, const CInterval& row, std::vector<panel_t>& panels)
{
    for (size_t i = 0; i < panels.size(); ++i) {
        const CSample& sample = row._samples[i];
        const CParamProperties& param = device._params[i];
        const bool is_factor = panels[i]._is_factor;
        const COptVal middle = param._has_avg      ? sample._avg
                               : param._has_actual ? sample._actual
                                                   : sample._sum;
        panels[i]._points.push_back({int64_t(row._start), int64_t(row._time),
                                     place_of(sample._min, is_factor),
                                     place_of(sample._max, is_factor), place_of(middle, is_factor),
                                     row._percent_valid, row._period});
    }
}

void write_file(const std::string& name, const std::string& text)
{
    FILE* const stream = std::fopen(name.c_str(), "w");
    const bool written = stream && std::fwrite(text.data(), 1, text.size(), stream) == text.size();
    const int error = errno;
    if (!stream || std::fclose(stream) != 0 || !written)
        throw failure_t(name + ": cannot be written: " + std::strerror(stream ? errno : error));
}

exit_code_t run(const CArguments& arguments)
{
    const std::string out = arguments.text("--out");
    constexpr const char* SUFFIX = ".svg";
    if (!out.empty() && (out.size() < 4 || out.substr(out.size() - 4) != SUFFIX))
        throw usage_t("--out: the name must end in .svg");
    text_style_t style{};
    style._columns =
        static_cast<size_t>(arguments.integer("--width", terminal_columns(), 30, 1000));
    const size_t params = std::max<size_t>(1, arguments.words("PARAM").size());
    const int64_t room = terminal_lines() - 4 - 4 * static_cast<int64_t>(params);
    const int64_t fits = std::clamp<int64_t>(room / static_cast<int64_t>(params), 6, 16);
    style._lines = static_cast<size_t>(arguments.integer("--height", fits, 3, 200));
    style._has_utf8 = has_utf8() && !arguments.has("--ascii");
    style._has_colour = wants_colour(STDOUT_FILENO);

    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);
    CReadRequest request;
    static_cast<CDeviceParams&>(request) = select_params(file, arguments);
    const timebounds_t stored = stored_bounds(file, request._device);
    if (stored.second == -1) file.fail("device '" + request._device._path + "' has no rows");
    moments_t window = select_window(arguments, zone, stored);
    if (window._from == -1 && window._to == -1)
        window._from = std::max<int64_t>(0, int64_t(stored.second) - 86400);
    if (window._from == -1) window._from = stored.first;
    if (window._to == -1) window._to = stored.second;
    if (window._from >= window._to) file.fail("no rows there");
    request._bounds = bounds_of(window);

    chart_t chart;
    chart._device = request._device._path;
    chart._from = window._from;
    chart._to = window._to;
    chart._panels = make_panels(file, request);
    constexpr size_t SVG_POINTS = 880;
    const size_t points = out.empty() ? 4 * style._columns : SVG_POINTS;
    file.read([&] {
        return CReader(file.log())
            .points(request, points, [&](const CDeviceParams& device, const CInterval& row) {
                add_point(device, row, chart._panels);
                return true;
            });
    });
    if (chart._panels.front()._points.empty()) file.fail("no rows there");

    CSink sink;
    if (out.empty())
        sink.add(text_chart(chart, zone, style));
    else
        write_file(out, svg_chart(chart, zone));
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t plot_command()
{
    const options_t own = {
        {"--out", "FILE.svg", "as a picture, instead of in the terminal"},
        {"--width", "N", "columns, those of the terminal unless given"},
        {"--height", "N", "lines of each parameter's picture"},
        {"--ascii", "", "no characters beyond ASCII"},
        output_options()[1],
    };
    return {
        "plot",
        SECTION_LOOK,
        "Draw parameters of a device over time",
        "A line for the average, a band from the smallest to the largest value; blank where "
        "nothing is known, grey where a part is. Without a window, the newest day.",
        {{"FILE", "the log"}, {"DEVICE", "its path"}, {"PARAM", "which, one or more", true, true}},
        window_options() + own + common_options(),
        {{"trendlog plot house.db house active_power_kw voltage_v", "The newest day"},
         {"trendlog plot plant.db plant/steel power_factor --from first --out year.svg",
          "All there is, as a picture"}},
        run};
}

}  // namespace trendlog
