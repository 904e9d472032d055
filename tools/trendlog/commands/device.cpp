#include "changing.h"
#include "commands/commands.h"
#include "numbers.h"

namespace trendlog {

namespace {

// Texts are compared as the file compares them.
int refuse_taken(CLogFile& file, const std::string& path, const std::string& guid, int64_t except)
{
    if (path.empty()) file.fail("the path of a device is not empty");
    std::vector<CDeviceProperties> devices;
    if (const int failed = file.log().get_devices(devices)) return failed;
    for (const CDeviceProperties& device : devices) {
        if (device._index == except) continue;
        if (device._path == path) file.fail("there is a device '" + path + "' already");
        if (!guid.empty() && device._guid == guid)
            file.fail("device '" + device._path + "' has the GUID '" + guid + "'");
    }
    return 0;
}

exit_code_t run_add(const CArguments& arguments)
{
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        device._path = arguments.text("PATH");
        device._guid = arguments.text("--guid");
        if (const int failed = refuse_taken(file, device._path, device._guid, -1)) return failed;
        if (const int failed = log.add_device(device)) return failed;
        if (arguments.has("--label"))
            if (const int failed =
                    write_label(log, {device._path, "", "", arguments.text("--label")}))
                return failed;
        outcome._text =
            "device '" + device._path + "' added; `trendlog param add` gives it parameters";
        return 0;
    });
}

exit_code_t run_rename(const CArguments& arguments)
{
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        const std::string old = device._path;
        device._path = arguments.text("PATH");
        if (arguments.has("--guid")) device._guid = arguments.text("--guid");
        if (const int failed = refuse_taken(file, device._path, device._guid, device._index))
            return failed;
        if (const int failed = log.modify_device(device)) return failed;
        if (device._path != old)
            if (const int failed = move_labels(log, old, device._path)) return failed;
        outcome._text = "device '" + old + "' is now '" + device._path + "'";
        if (arguments.has("--guid"))
            outcome._text += device._guid.empty() ? ", without a GUID"
                                                  : ", with the GUID '" + device._guid + "'";
        return 0;
    });
}

exit_code_t run_remove(const CArguments& arguments)
{
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        std::vector<CParamProperties> params;
        std::vector<CCoverage> tables;
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        if (const int failed = log.get_params(device, params)) return failed;
        if (const int failed = look_at_tables(log, device, {}, {-1, -1}, tables)) return failed;
        if (const int failed = log.remove_device(device)) return failed;
        if (const int failed = move_labels(log, device._path, "")) return failed;
        outcome._dropped = rows_of(tables);
        outcome._text = "device '" + device._path + "' removed with its " +
                        counted(params.size(), "parameter") + ", " +
                        counted(outcome._dropped, "row") + " dropped";
        return 0;
    });
}

}  // namespace

command_t device_add_command()
{
    return {"device add",
            SECTION_CHANGE,
            "Add a device",
            "It has no parameters yet.",
            {{"FILE", "the log"}, {"PATH", "what it is called, plant/pump"}},
            options_t{{"--guid", "GUID", "what else it is known by"},
                      {"--label", "TEXT", "what people call it"},
                      dry_run_options()[0]} +
                common_options(),
            {{"trendlog device add plant.db plant/pump --label 'Cooling water pump'", "A device"},
             {"trendlog device add plant.db meter/7 --guid 6d0f4e9a-7c1b", "With a GUID"}},
            run_add};
}

command_t device_rename_command()
{
    return {"device rename",
            SECTION_CHANGE,
            "Give a device another path or GUID",
            "Its rows, units and labels stay with it.",
            {{"FILE", "the log"}, {"DEVICE", "its path"}, {"PATH", "its new path"}},
            options_t{{"--guid", "GUID", "its new GUID, '' for none"}, dry_run_options()[0]} +
                common_options(),
            {{"trendlog device rename plant.db plant/steel plant/mill", "Another path"},
             {"trendlog device rename house.db house house --guid 4711", "A GUID alone"}},
            run_rename};
}

command_t device_remove_command()
{
    return {"device remove",
            SECTION_CHANGE,
            "Remove a device with its parameters and all its rows",
            "Units and labels of it go as well.",
            {{"FILE", "the log"}, {"DEVICE", "its path"}},
            dry_run_options() + common_options(),
            {{"trendlog device remove two.db house --dry-run", "How many rows would go"},
             {"trendlog device remove two.db house -y", "Without being asked"}},
            run_remove};
}

}  // namespace trendlog
