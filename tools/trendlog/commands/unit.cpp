#include "changing.h"
#include "commands/commands.h"

namespace trendlog {

namespace {

int find_label(CLog& log, const std::string& device, const std::string& param, CLabel& label)
{
    label = {device, param, "", ""};
    std::vector<CLabel> labels;
    if (const int failed = read_labels(log, labels)) return failed;
    for (const CLabel& each : labels)
        if (each._device == device && each._param == param) label = each;
    return 0;
}

exit_code_t run(const CArguments& arguments)
{
    const std::string path = arguments.text("PARAM");
    if (!arguments.has("--unit") && !arguments.has("--label"))
        throw usage_t("--unit or --label says what to change");
    if (arguments.has("--unit") && path.empty())
        throw usage_t("--unit is of a parameter, which is missing");
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        CParamProperties param;
        CLabel label;
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        if (!path.empty())
            if (const int failed = find_param(file, device, path, param)) return failed;
        if (const int failed = find_label(log, device._path, path, label)) return failed;
        label._unit = arguments.text("--unit", label._unit);
        label._label = arguments.text("--label", label._label);
        if (const int failed = write_label(log, label)) return failed;
        const auto said = [](const std::string& text, const std::string& what) {
            return text.empty() ? "no " + what : "the " + what + " '" + text + "'";
        };
        outcome._text = path.empty() ? "device '" + device._path + "'" : "parameter '" + path + "'";
        outcome._text += " has " + (path.empty() ? "" : said(label._unit, "unit") + " and ") +
                         said(label._label, "label");
        return 0;
    });
}

}  // namespace

command_t unit_command()
{
    return {"unit",
            SECTION_CHANGE,
            "Give a parameter a unit, or a parameter or a device a label",
            "They are for display alone. An empty text takes it away.",
            {{"FILE", "the log"}, {"DEVICE", "its path"}, {"PARAM", "the parameter", false}},
            options_t{{"--unit", "UNIT", "kW, °C, %"},
                      {"--label", "TEXT", "what people call it"},
                      dry_run_options()[0]} +
                common_options(),
            {{"trendlog unit plant.db plant/steel active_energy_kwh --unit kWh", "A unit"},
             {"trendlog unit plant.db plant/steel --label 'Rolling mill'", "A device's label"}},
            run};
}

}  // namespace trendlog
