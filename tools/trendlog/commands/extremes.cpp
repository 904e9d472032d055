#include "commands/commands.h"
#include "selection.h"

namespace trendlog {

namespace {

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);
    CReadRequest request;
    static_cast<CDeviceParams&>(request) = select_params(file, arguments);
    const timebounds_t stored = stored_bounds(file, request._device);
    request._bounds = bounds_of(select_window(arguments, zone, stored));
    std::vector<CExtremes> extremes;
    file.read([&] { return CReader(file.log()).extremes(request, extremes); });

    CSink sink;
    const writer_t writer = make_writer(arguments, sink, zone);
    writer->begin({{"param"},
                   {"extreme"},
                   {"value", COLUMN_NUMBER},
                   {"unit"},
                   {"start", COLUMN_NUMBER, "", true},
                   {"end", COLUMN_NUMBER, "", true},
                   {"time", COLUMN_TIME},
                   {"period", COLUMN_PERIOD}});
    for (const CExtremes& each : extremes) {
        const CLabel& label = file.label(request._device._path, each._param._path);
        struct side_t {
            const char* _name;
            const CExtreme& _extreme;
        };
        for (const side_t& side : {side_t{"min", each._min}, side_t{"max", each._max}}) {
            if (!side._extreme._value) continue;
            writer->row({cell_t(std::string_view(each._param._path)),
                         cell_t(std::string_view(side._name)), side._extreme._value,
                         cell_t::text(label._unit), int64_t(side._extreme._start),
                         int64_t(side._extreme._time), int64_t(side._extreme._time),
                         static_cast<int64_t>(side._extreme._period)});
        }
    }
    writer->end();
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t extremes_command()
{
    return {
        "extremes",
        SECTION_LOOK,
        "Say when the smallest and the largest values were",
        "Of the whole log, or of a window; the time is that of the finest row still there that "
        "holds the value, and the earliest of several. Power factors compare on the scale from "
        "0 over +1 = -1 to -0.",
        {{"FILE", "the log"},
         {"DEVICE", "its path"},
         {"PARAM", "these parameters alone", false, true}},
        window_options() + output_options() + common_options(),
        {{"trendlog extremes plant.db plant/steel active_energy_kwh", "When the peak was"},
         {"trendlog extremes plant.db plant/steel --from 2018-12-01", "Of a month, all of them"}},
        run};
}

}  // namespace trendlog
