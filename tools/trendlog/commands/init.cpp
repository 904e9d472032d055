#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "changing.h"
#include "commands/commands.h"
#include "output/sink.h"
#include "times.h"
#include "trend_transaction.h"

namespace trendlog {

namespace {

int add_periods(CLog& log, const std::vector<CPeriodProperties>& periods)
{
    CTransaction transaction(log);
    if (const int failed = transaction.failed()) return failed;
    for (const CPeriodProperties& period : periods)
        if (const int failed = log.add_period(period)) return failed;
    return transaction.commit();
}

exit_code_t run(const CArguments& arguments)
{
    const std::string name = arguments.text("FILE");
    const auto refuse = [&](const std::string& cause) { throw failure_t(name + ": " + cause); };
    const std::vector<CPeriodProperties> periods =
        parse_periods(arguments.text("--periods", "1:2880,15:2976,1440:3650"));
    std::string text = "log made, with the periods ";
    for (const CPeriodProperties& period : periods)
        text += (&period == &periods.front() ? "" : ", ") +
                duration_text(static_cast<int64_t>(period._period) * 60) + " for " +
                duration_text(static_cast<int64_t>(period._period * period._max_entries) * 60);

    struct stat status {};
    if (stat(name.c_str(), &status) == 0 && (!S_ISREG(status.st_mode) || status.st_size > 0))
        refuse("there is something of that name already; `trendlog period` changes a log");
    const size_t slash = name.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : name.substr(0, slash + 1);
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        refuse("cannot be made: " + std::string(std::strerror(errno)));

    // In memory nothing is left of it.
    CArguments target = arguments;
    if (is_dry_run(arguments)) target._values["FILE"] = {":memory:"};
    CLogFile file(target, TO_CREATE);
    try {
        if (add_periods(file.log(), periods) != 0) file.fail_with_library_line();
    } catch (...) {
        if (!is_dry_run(arguments)) unlink(name.c_str());
        throw;
    }
    CSink sink;
    sink.add(name + ": " + (is_dry_run(arguments) ? "dry run, nothing done: " : "") + text + "\n");
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t init_command()
{
    const options_t own = {
        {"--periods", "P:N,...",
         "minutes and how many rows are kept, finest first; 1:2880,15:2976,1440:3650 unless given"},
        dry_run_options()[0],
    };
    return {"init",
            SECTION_CHANGE,
            "Make a new log",
            "Each period is a multiple of the one before, which keeps the rows that two of its are "
            "made of. `record` makes its log by itself.",
            {{"FILE", "the log to make"}},
            own + common_options(),
            {{"trendlog init new.db --periods 1m:2880,15m:2976", "Two days by the minute"},
             {"trendlog init new.db --dry-run", "What the periods are without a word about them"}},
            run};
}

}  // namespace trendlog
