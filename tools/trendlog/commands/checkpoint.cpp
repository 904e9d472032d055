#include <sqlite3.h>

#include <algorithm>

#include "changing.h"
#include "commands/commands.h"
#include "disk.h"
#include "output/sink.h"

namespace trendlog {

namespace {

// What is left over is taken over by opening the file, so that a dry run does not.
exit_code_t run(const CArguments& arguments)
{
    const std::string name = arguments.text("FILE"), folder = folder_of(name);
    const int64_t log = std::max<int64_t>(0, file_size(name + "-wal"));
    const int64_t journal = file_size(name + "-journal");
    if (is_dry_run(arguments)) {
        if (file_size(name) < 0) throw failure_t(name + ": there is no such file");
        CSink sink;
        sink.add(name + ": dry run, nothing done: a write-ahead log of " + size_text(log) +
                 (journal > 0 ? " and a journal of " + size_text(journal) : "") + "; " +
                 size_text(std::max<int64_t>(0, free_space(folder))) + " are free in " + folder +
                 "\n");
        sink.flush();
        return EXIT_DONE;
    }
    if (log > 0) check_space(folder, log, "taking the write-ahead log into the file");
    CLogFile file(arguments, TO_CHANGE);
    std::string text;
    if (journal > 0 && file_size(name + "-journal") <= 0)
        text = "an unfinished transaction of a program that has crashed was undone; ";
    if (file.pragma_text("journal_mode") != "wal") {
        tell_outcome(file, arguments, text + "it has no write-ahead log");
        return EXIT_DONE;
    }

    int pages = -1, copied = -1;
    const int code = sqlite3_wal_checkpoint_v2(file.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                               &pages, &copied);
    if ((code & 0xff) == SQLITE_BUSY)
        file.fail(
            "somebody reads or writes it: " + std::to_string(std::max(0, copied)) + " of " +
                std::to_string(std::max(0, pages)) +
                " pages of the write-ahead log are in the file now; try again, or wait longer "
                "with --timeout",
            EXIT_BUSY);
    if (code != SQLITE_OK) file.fail_with_code(code);
    tell_outcome(
        file, arguments,
        text + (log == 0 ? "its write-ahead log is empty"
                         : "the write-ahead log of " + size_text(log) + " is in the file"));
    return EXIT_DONE;
}

}  // namespace

command_t checkpoint_command()
{
    return {"checkpoint",
            SECTION_DATA,
            "Take the write-ahead log into the file, and what a crash has left over",
            "Afterwards the file is whole by itself, for copying or for media that cannot be "
            "written.",
            {{"FILE", "the log"}},
            options_t{{"--dry-run", "", "say how much there is"}} + common_options(),
            {{"trendlog checkpoint plant.db --dry-run", "How much there is"},
             {"trendlog checkpoint plant.db", "Do it"}},
            run};
}

}  // namespace trendlog
