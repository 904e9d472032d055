#include "commands/commands.h"
#include "log_file.h"
#include "output/writer.h"

namespace trendlog {

namespace {

exit_code_t run(const CArguments& arguments)
{
    const CZone zone;
    CLogFile file(arguments, TO_LOOK);
    CSink sink;
    const writer_t writer = make_writer(arguments, sink, zone);
    writer->begin({{"device"}, {"params", COLUMN_NUMBER}, {"guid"}, {"label"}});
    for (const CDeviceProperties& device : file.devices()) {
        const auto params = static_cast<int64_t>(file.params(device).size());
        writer->row({cell_t(std::string_view(device._path)), params, cell_t::text(device._guid),
                     cell_t::text(file.label(device._path)._label)});
    }
    writer->end();
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t devices_command()
{
    return {"devices",
            SECTION_LOOK,
            "List the devices",
            "With their number of parameters, GUID and label.",
            {{"FILE", "the log"}},
            options_t{output_options()[0]} + common_options(),
            {{"trendlog devices plant.db", "Which devices there are"},
             {"trendlog devices plant.db --format json", "The same for a program"}},
            run};
}

}  // namespace trendlog
