#include "changing.h"
#include "commands/commands.h"
#include "numbers.h"
#include "selection.h"
#include "talk.h"
#include "trend_repair.h"

namespace trendlog {

namespace {

std::string text_of(const CRebuildResult& result, const std::string& device, const CZone& zone)
{
    if (result._range.first == -1) return "'" + device + "': nothing to rebuild";
    return "'" + device + "' from " + zone.text(result._range.first) + " to " +
           zone.text(result._range.second) + ": " + counted(result._recomputed, "coarse row") +
           " made anew, " + std::to_string(result._kept) +
           " left as they are because finer rows are gone, " +
           counted(result._blanks, "blank row") + " put in" +
           (result._extended ? "; further than asked for, since rows were off the grid" : "");
}

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_CHANGE);
    std::vector<CDeviceProperties> devices;
    for (const std::string& name : arguments.words("DEVICE"))
        devices.push_back(file.device(name));
    if (devices.empty()) devices = file.devices();
    for (const CDeviceProperties& device : devices) {
        if (file.params(device).empty()) continue;
        CRebuildRequest request;
        request._device = device;
        request._bounds = bounds_of(select_window(arguments, zone, stored_bounds(file, device)));
        request._off_grid = arguments.has("--extend") ? OFF_GRID_EXTEND : OFF_GRID_REFUSE;
        request._dry_run = is_dry_run(arguments);
        CProgress progress(file.name() + ": steps");
        request._progress = [&](uint64_t done, uint64_t total) {
            progress.at(done,
                        total == 0 ? -1 : static_cast<double>(done) / static_cast<double>(total));
            return !is_interrupted();
        };
        CRebuildResult result;
        file.change([&] { return rebuild(file.log(), request, result); });
        tell_outcome(file, arguments, text_of(result, device._path, zone));
    }
    return EXIT_DONE;
}

}  // namespace

command_t rebuild_command()
{
    return {
        "rebuild",
        SECTION_CHANGE,
        "Make coarse rows anew from the finer ones, where these are still there",
        "For rows that came late or were corrected, and for what `check` finds. A window is "
        "extended to whole rows of the coarsest period. A device at a time is one transaction.",
        {{"FILE", "the log"}, {"DEVICE", "these devices alone", false, true}},
        window_options() +
            options_t{{"--extend", "", "also where rows are off the grid: then all that is newer"},
                      output_options()[1],
                      dry_run_options()[0]} +
            common_options(),
        {{"trendlog rebuild plant.db --from last-1w --dry-run", "What would be done"},
         {"trendlog rebuild house.db house", "All of a device"}},
        run};
}

}  // namespace trendlog
