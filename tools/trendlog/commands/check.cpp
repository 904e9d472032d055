#include <unistd.h>

#include "commands/commands.h"
#include "log_file.h"
#include "numbers.h"
#include "output/writer.h"
#include "talk.h"
#include "trend_repair.h"

namespace trendlog {

namespace {

const char* colour_of(severity_t severity)
{
    switch (severity) {
        case SEVERITY_ERROR:
            return "\033[1;31m";
        case SEVERITY_WARNING:
            return "\033[1;33m";
        default:
            return "\033[1m";
    }
}

// For people: where and when in a line, what and what to do below it.
std::string finding_text(const CFinding& finding, const CZone& zone)
{
    const bool colour = wants_colour(STDOUT_FILENO);
    std::string text = colour ? colour_of(finding._severity) : "";
    text += severity_name(finding._severity);
    text += colour ? "\033[0m" : "";
    if (!finding._device.empty()) text += "  " + finding._device;
    if (finding._period != 0)
        text += "  " + duration_text(static_cast<int64_t>(finding._period) * 60);
    if (finding._bounds.first != -1) {
        text += "  " + zone.text(finding._bounds.first);
        if (finding._bounds.second != finding._bounds.first)
            text += " to " + zone.text(finding._bounds.second);
    }
    text += "\n  " + finding._text + "\n";
    if (!finding._advice.empty()) text += "  -> " + finding._advice + "\n";
    return text;
}

cells_t finding_cells(const CFinding& finding)
{
    const auto time = [](time_t value) {
        return value == -1 ? cell_t::absent() : cell_t(int64_t(value));
    };
    return {cell_t(std::string_view(severity_name(finding._severity))),
            cell_t(std::string_view(finding_name(finding._kind))),
            cell_t::text(finding._device),
            finding._period == 0 ? cell_t::absent() : cell_t(static_cast<int64_t>(finding._period)),
            time(finding._bounds.first),
            time(finding._bounds.second),
            static_cast<int64_t>(finding._count),
            cell_t(std::string_view(finding._text)),
            cell_t::text(finding._advice)};
}

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);
    CSink sink;
    const bool for_people = output_format(arguments) == "table";
    const writer_t writer = make_writer(arguments, sink, zone);
    if (!for_people)
        writer->begin({{"severity"},
                       {"kind"},
                       {"device"},
                       {"period", COLUMN_PERIOD},
                       {"first", COLUMN_NUMBER},
                       {"last", COLUMN_NUMBER},
                       {"count", COLUMN_NUMBER},
                       {"text"},
                       {"advice"}});

    int found[SEVERITY_ERROR + 1] = {};
    sink.hold(true);
    file.read([&] {
        return check_log(file.log(), -1, [&](const CFinding& finding) {
            ++found[finding._severity];
            if (for_people)
                sink.add(finding_text(finding, zone));
            else
                writer->row(finding_cells(finding));
            return true;
        });
    });
    sink.hold(false);

    const int errors = found[SEVERITY_ERROR], warnings = found[SEVERITY_WARNING];
    if (for_people)
        sink.add(file.name() + ": " + counted(static_cast<uint64_t>(errors), "error") + ", " +
                 counted(static_cast<uint64_t>(warnings), "warning") + ", " +
                 counted(static_cast<uint64_t>(found[SEVERITY_INFORMATION]), "remark") + "\n");
    else
        writer->end();
    sink.flush();
    return errors + warnings > 0 ? EXIT_FINDINGS : EXIT_DONE;
}

}  // namespace

command_t check_command()
{
    return {
        "check",
        SECTION_LOOK,
        "Find what is wrong in the file",
        "Reads every row several times: SQLite's own check, the values, and each coarse row "
        "against its finer ones. The exit code is 3 when there is a warning or an error. Without "
        "write-ahead mode the one who writes has to wait.",
        {{"FILE", "the log"}},
        options_t{{"--json", "", "the same as --format json"}} + output_options() +
            common_options(),
        {{"trendlog check plant.db --format table", "What is wrong, and what to do"},
         {"trendlog check plant.db --json", "The same for a program"}},
        run};
}

}  // namespace trendlog
