#include "commands/commands.h"
#include "log_file.h"
#include "output/writer.h"
#include "selection.h"

namespace trendlog {

namespace {

std::string kept_by(const CParamProperties& param)
{
    std::string text;
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
        if (param.*aggregate._kept)
            text += (text.empty() ? "" : ",") + std::string(aggregate._name);
    return text;
}

exit_code_t run(const CArguments& arguments)
{
    const CZone zone;
    CLogFile file(arguments, TO_LOOK);
    std::vector<CDeviceProperties> devices = file.devices();
    if (arguments.has("DEVICE")) devices = {file.device(arguments.text("DEVICE"))};

    CSink sink;
    const writer_t writer = make_writer(arguments, sink, zone);
    writer->begin({{"device"}, {"param"}, {"type"}, {"keeps"}, {"unit"}, {"label"}});
    for (const CDeviceProperties& device : devices)
        for (const CParamProperties& param : file.params(device)) {
            const CLabel& label = file.label(device._path, param._path);
            const std::string kept = kept_by(param);
            const char* const type = param._type == SAMPLE_TYPE_PF ? "pf" : "value";
            writer->row({cell_t(std::string_view(device._path)),
                         cell_t(std::string_view(param._path)), cell_t(std::string_view(type)),
                         cell_t(std::string_view(kept)), cell_t::text(label._unit),
                         cell_t::text(label._label)});
        }
    writer->end();
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t params_command()
{
    return {
        "params",
        SECTION_LOOK,
        "List the parameters of all devices, or of one",
        "With what is kept of each, its unit and its label. The type is value, or pf for a power "
        "factor.",
        {{"FILE", "the log"}, {"DEVICE", "of this device alone", false}},
        options_t{output_options()[0]} + common_options(),
        {{"trendlog params plant.db", "What is measured"},
         {"trendlog params plant.db plant/steel --format csv", "Of one device, for a program"}},
        run};
}

}  // namespace trendlog
