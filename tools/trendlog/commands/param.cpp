#include <algorithm>

#include "changing.h"
#include "commands/commands.h"
#include "numbers.h"
#include "selection.h"

namespace trendlog {

namespace {

std::string kept_by(const CParamProperties& param)
{
    std::string text;
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
        if (param.*aggregate._kept) text += std::string(text.empty() ? "" : ", ") + aggregate._name;
    return text;
}

// Rows of all tables that have a value of these parameters and aggregates.
int count_values(CLog& log, const CDeviceProperties& device,
                 const std::vector<CParamProperties>& params, uint64_t& rows)
{
    std::vector<CCoverage> tables;
    if (const int failed = look_at_tables(log, device, params, {-1, -1}, tables)) return failed;
    rows = 0;
    for (const CCoverage& table : tables)
        rows += static_cast<uint64_t>(table._rows - table._blank_rows);
    return 0;
}

std::string quoted(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "'" : ", '") + name + "'";
    return text;
}

exit_code_t run_add(const CArguments& arguments)
{
    const CRecipe recipe(arguments);
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        std::vector<CPeriodProperties> periods;
        std::vector<CParamProperties> stored, added;
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        if (const int failed = log.get_periods(periods)) return failed;
        if (periods.empty()) file.fail("there are no periods; `trendlog period add` adds them");
        if (const int failed = log.get_params(device, stored)) return failed;
        const std::vector<std::string> names = arguments.words("PARAM");
        for (const std::string& name : names) {
            if (name.empty()) file.fail("the path of a parameter is not empty");
            const auto is_it = [&](const CParamProperties& each) { return each._path == name; };
            if (std::any_of(stored.begin(), stored.end(), is_it) ||
                std::any_of(added.begin(), added.end(), is_it))
                file.fail("device '" + device._path + "' has a parameter '" + name + "' already");
            added.push_back(recipe.make(name));
        }
        if (const int failed = log.add_params(device, added)) return failed;
        outcome._text =
            counted(added.size(), "parameter") + " added to '" + device._path + "', keeping ";
        outcome._text += kept_by(added.front());
        for (const CParamProperties& param : added)
            if (kept_by(param) != kept_by(added.front()))
                outcome._text += "; of '" + param._path + "' " + kept_by(param);
        return 0;
    });
}

// The aggregates of --keep in place of those that the parameter has; `lost` has those that go.
void keep_what_is_said(const CArguments& arguments, CParamProperties& param, CParamProperties& lost)
{
    lost = param;
    const CParamProperties wanted = CRecipe(arguments).make(param._path);
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES) {
        lost.*aggregate._kept = param.*aggregate._kept && !(wanted.*aggregate._kept);
        param.*aggregate._kept = wanted.*aggregate._kept;
    }
}

exit_code_t run_set(const CArguments& arguments)
{
    if (!arguments.has("--keep") && !arguments.has("--name"))
        throw usage_t("--keep or --name says what to change");
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        CParamProperties param, lost;
        const std::string old = arguments.text("PARAM");
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        if (const int failed = find_param(file, device, old, param)) return failed;
        outcome._text = "parameter '" + old + "'";
        if (arguments.has("--keep")) {
            keep_what_is_said(arguments, param, lost);
            if (!kept_by(lost).empty())
                if (const int failed = count_values(log, device, {lost}, outcome._dropped))
                    return failed;
        }
        if (arguments.has("--name")) {
            param._path = arguments.text("--name");
            std::vector<CParamProperties> params;
            if (const int failed = log.get_params(device, params)) return failed;
            for (const CParamProperties& each : params)
                if (each._path == param._path && each._index != param._index)
                    file.fail("device '" + device._path + "' has a parameter '" + param._path +
                              "' already");
            if (param._path.empty()) file.fail("the path of a parameter is not empty");
        }
        if (const int failed = log.modify_params(device, {param})) return failed;
        if (param._path != old) {
            if (const int failed = move_labels(log, device._path, old, param._path)) return failed;
            outcome._text += " is now '" + param._path + "'";
        }
        outcome._text += (param._path != old ? " and keeps " : " keeps ") + kept_by(param);
        if (!kept_by(lost).empty())
            outcome._text +=
                ", " + kept_by(lost) + " dropped from " + counted(outcome._dropped, "row");
        return 0;
    });
}

exit_code_t run_remove(const CArguments& arguments)
{
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        std::vector<CParamProperties> params;
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        const std::vector<std::string> names = arguments.words("PARAM");
        for (const std::string& name : names) {
            params.emplace_back();
            if (const int failed = find_param(file, device, name, params.back())) return failed;
        }
        if (const int failed = count_values(log, device, params, outcome._dropped)) return failed;
        if (const int failed = log.remove_params(device, params)) return failed;
        for (const std::string& name : names)
            if (const int failed = move_labels(log, device._path, name, "")) return failed;
        outcome._text = "removed " + quoted(names) + " of '" + device._path + "', " +
                        counted(outcome._dropped, "row") + " with values of " +
                        (names.size() == 1 ? "it" : "them") + " lost those";
        return 0;
    });
}

}  // namespace

command_t param_add_command()
{
    return {"param add",
            SECTION_CHANGE,
            "Add parameters to a device",
            "Rows that are there have no values of them. Of counters and totals the sum is kept, "
            "unless --keep says else.",
            {{"FILE", "the log"},
             {"DEVICE", "its path"},
             {"PARAM", "what they are called", true, true}},
            recipe_options() + options_t{dry_run_options()[0]} + common_options(),
            {{"trendlog param add plant.db plant/steel t1 t2 --keep min,max,avg", "Two quantities"},
             {"trendlog param add house.db house pf2 water --kind pf2=pf,water=counter",
              "A power factor and a counter"}},
            run_add};
}

command_t param_set_command()
{
    return {"param set",
            SECTION_CHANGE,
            "Change what a parameter keeps, or its name",
            "What it keeps no longer is dropped from all rows; what it keeps anew has no values in "
            "rows that are there. Every table of the device is written anew. Its unit and label "
            "stay with it.",
            {{"FILE", "the log"}, {"DEVICE", "its path"}, {"PARAM", "the parameter"}},
            options_t{{"--keep", "A,...", "all that it keeps from now on"},
                      {"--name", "PARAM", "its new name"}} +
                dry_run_options() + common_options(),
            {{"trendlog param set plant.db plant/steel power_factor --name cos_phi", "A new name"},
             {"trendlog param set house.db house voltage_v --keep min,max --dry-run",
              "How many rows would lose their average"}},
            run_set};
}

command_t param_remove_command()
{
    return {"param remove",
            SECTION_CHANGE,
            "Remove parameters of a device with their values",
            "Every table of the device is written anew. Their units and labels go as well.",
            {{"FILE", "the log"}, {"DEVICE", "its path"}, {"PARAM", "the parameters", true, true}},
            dry_run_options() + common_options(),
            {{"trendlog param remove house.db house voltage_v --dry-run",
              "How many rows would lose a value"},
             {"trendlog param remove house.db house voltage_v -y", "Without being asked"}},
            run_remove};
}

}  // namespace trendlog
