#include "changing.h"
#include "commands/commands.h"
#include "numbers.h"
#include "selection.h"

namespace trendlog {

namespace {

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_CHANGE);
    const timebounds_t stored = stored_bounds(file, file.device(arguments.text("DEVICE")));
    const timebounds_t bounds = bounds_of(select_window(arguments, zone, stored));
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CDeviceProperties device;
        std::vector<CCoverage> tables;
        if (const int failed = find_device(file, arguments.text("DEVICE"), device)) return failed;
        if (const int failed = look_at_tables(log, device, {}, bounds, tables)) return failed;
        const int cleared = log.clear_trend_data(device, bounds);
        if (cleared < 0) return cleared;
        outcome._dropped = rows_of(tables);
        outcome._text = counted(outcome._dropped, "row") + " of '" + device._path + "' dropped";
        int64_t first = -1, last = -1;
        char between = ':';
        for (const CCoverage& table : tables) {
            if (table._rows == 0) continue;
            outcome._text += std::string(1, between) + " " + std::to_string(table._rows) + " of " +
                             duration_text(static_cast<int64_t>(table._period._period) * 60);
            between = ',';
            if (first == -1 || table._first < first) first = table._first;
            if (table._last > last) last = table._last;
        }
        if (first != -1)
            outcome._text += ", that end from " + zone.text(first) + " to " + zone.text(last);
        return 0;
    });
}

}  // namespace

command_t clear_command()
{
    return {
        "clear",
        SECTION_CHANGE,
        "Drop the rows of a device, all or of a window",
        "Of all periods, each row by its end. What is gone stays gone: `backup` comes before.",
        {{"FILE", "the log"}, {"DEVICE", "its path"}},
        window_options() + options_t{output_options()[1]} + dry_run_options() + common_options(),
        {{"trendlog clear house.db house --to first+1d --dry-run", "How much there is"},
         {"trendlog clear house.db house --from last-1h -y", "The newest hour goes"}},
        run};
}

}  // namespace trendlog
