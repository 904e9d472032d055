#include "commands/commands.h"
#include "numbers.h"
#include "selection.h"
#include "talk.h"

namespace trendlog {

namespace {

edges_t select_edges(const CArguments& arguments, const CZone& zone, const moments_t& window)
{
    constexpr size_t MOST = 1000000;
    const CSteps steps(arguments.text("--every"), zone);
    edges_t edges = {static_cast<time_t>(std::max<int64_t>(0, steps.at_or_before(window._from)))};
    for (int64_t edge = steps.at_or_before(window._from); edges.back() < window._to;) {
        edge = steps.after(edge);
        edges.push_back(static_cast<time_t>(edge));
        if (edges.size() > MOST) throw usage_t("--every: more than " + counted(MOST, "point"));
    }
    return edges;
}

exit_code_t run(const CArguments& arguments)
{
    int ways = 0;
    for (const char* const way : {"--period", "--points", "--every", "--best"})
        ways += arguments.has(way) ? 1 : 0;
    if (ways > 1) throw usage_t("--period, --points, --every and --best exclude one another");
    const bool in_points = arguments.has("--points") || arguments.has("--every");
    if (in_points && arguments.has("--reverse"))
        throw usage_t("--reverse is for rows, not for points");

    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);
    row_source_t source;
    static_cast<CDeviceParams&>(source._request) = select_params(file, arguments);
    source._newest_first = arguments.has("--reverse");
    source._periods = select_periods(file, arguments);

    // Without a word about the window: the newest day. Points want a window with both ends.
    const timebounds_t stored = stored_bounds(file, source._request._device);
    moments_t window = select_window(arguments, zone, stored);
    const bool says_nothing = window._from == -1 && window._to == -1;
    if (says_nothing && !arguments.has("--limit") && stored.second != -1)
        window._from = std::max<int64_t>(0, int64_t(stored.second) - 86400);
    if (in_points && stored.second != -1) {
        if (window._from == -1) window._from = stored.first;
        if (window._to == -1) window._to = stored.second;
    }
    source._request._bounds = bounds_of(window);

    CSink sink;
    const writer_t writer = make_writer(arguments, sink, zone);
    CRowShape shape(false);
    shape.add(file, source._request);
    writer->begin(shape.columns());

    const int64_t limit = arguments.integer("--limit", INT64_MAX, 1);
    const double least_valid = arguments.number("--min-valid", 0, 0, 100);
    int64_t rows = 0;
    const row_visitor_t visit = [&](const CDeviceParams& device, const CInterval& row) {
        if (arguments.has("--min-valid") && row._percent_valid < least_valid) return true;
        writer->row(shape.cells(device, row));
        return ++rows < limit;
    };

    if (!in_points) {
        for_each_row(file, source, sink, visit);
    } else if (stored.second != -1 && window._from < window._to) {
        sink.hold(true);
        CReader reader(file.log());
        if (arguments.has("--points")) {
            const int64_t n = arguments.integer("--points", 0, 1, 1000000);
            file.read(
                [&] { return reader.points(source._request, static_cast<size_t>(n), visit); });
        } else {
            const edges_t edges = select_edges(arguments, zone, window);
            file.read([&] { return reader.buckets(source._request, edges, visit); });
        }
        sink.hold(false);
    }
    writer->end();
    sink.flush();
    if (rows == 0) remark(file.name() + ": no rows there");
    return EXIT_DONE;
}

}  // namespace

command_t read_command()
{
    const options_t own = {
        {"--best", "", "each moment once, by the finest row still there (unless said else)"},
        {"--period", "P,...", "the rows of these periods: 15 (minutes), 15m, 1h, 1d"},
        {"--points", "N", "at most so many points, for a chart"},
        {"--every", "STEP", "a point for each 15m, 1h, 1d, 1w, month or year of --tz"},
        {"--agg", "A,...", "only these of min, max, avg, actual, sum"},
        {"--min-valid", "PERCENT", "leave out what is less valid"},
        {"--limit", "N", "at most so many"},
        {"--reverse", "", "newest first"},
    };
    return {"read",
            SECTION_LOOK,
            "Give out rows or points of a device",
            "Without a window or a limit, the newest day that is stored.",
            {{"FILE", "the log"},
             {"DEVICE", "its path"},
             {"PARAM", "these parameters alone", false, true}},
            window_options() + own + output_options() + common_options(),
            {{"trendlog read plant.db plant/steel power_factor --every 1d --from last-1w",
              "A week by the day"},
             {"trendlog read house.db house --period 1 --format csv",
              "The newest day by the minute, as CSV"}},
            run};
}

}  // namespace trendlog
