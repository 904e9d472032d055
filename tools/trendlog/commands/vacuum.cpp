#include "changing.h"
#include "commands/commands.h"
#include "disk.h"

namespace trendlog {

namespace {

exit_code_t run(const CArguments& arguments)
{
    CLogFile file(arguments, is_dry_run(arguments) ? TO_LOOK : TO_CHANGE);
    const std::string folder = folder_of(file.name()), temporary = temporary_folder();
    const int64_t page = file.pragma("page_size");
    const int64_t before = file.pragma("page_count") * page;
    const int64_t after = before - file.pragma("freelist_count") * page;
    const bool is_wal = file.pragma_text("journal_mode") == "wal";

    // A copy without free pages is made first. Then the file is written anew: through the
    // write-ahead log, or with a journal of what it was.
    const int64_t beside = is_wal ? after : before;
    const bool shared = on_one_disk(folder, temporary);
    const int64_t needed = shared ? beside + after : beside;
    const auto space = [](int64_t bytes) {
        return bytes == -1 ? std::string("unknown") : size_text(bytes);
    };
    if (is_dry_run(arguments)) {
        tell_outcome(file, arguments,
                     "about " + size_text(before - after) + " of " + size_text(before) +
                         " would be given back; it takes up to " + size_text(needed) + " in " +
                         folder + ", where " + space(free_space(folder)) + " are free" +
                         (shared ? ""
                                 : ", and " + size_text(after) + " in " + temporary + ", where " +
                                       space(free_space(temporary)) + " are"));
        return EXIT_DONE;
    }
    check_space(folder, needed, "writing the file anew");
    if (!shared) check_space(temporary, after, "writing the file anew");
    file.run("VACUUM");
    if (is_wal) file.run("PRAGMA wal_checkpoint(TRUNCATE)");
    tell_outcome(
        file, arguments,
        size_text(before) + " before, " + size_text(file.pragma("page_count") * page) + " now");
    return EXIT_DONE;
}

}  // namespace

command_t vacuum_command()
{
    return {
        "vacuum",
        SECTION_DATA,
        "Write the file anew without free space",
        "Whoever records has to wait meanwhile. Free pages are used again by themselves: this is "
        "for a file that has become much smaller for good. There must be room for a copy.",
        {{"FILE", "the log"}},
        options_t{{"--dry-run", "", "say how much it would give back, and how much it takes"}} +
            common_options(),
        {{"trendlog vacuum plant.db --dry-run", "Whether it is worth it"},
         {"trendlog vacuum plant.db", "Do it"}},
        run};
}

}  // namespace trendlog
