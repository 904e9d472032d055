#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "changing.h"
#include "commands/commands.h"
#include "disk.h"
#include "new_file.h"
#include "talk.h"

namespace trendlog {

namespace {

using steady_t = std::chrono::steady_clock;

constexpr int PAGES = 64;                       // in a step
constexpr std::chrono::milliseconds SLICE(50);  // of keeping the one who writes from it
constexpr int TRIES = 5;

// In write-ahead mode nobody waits for a reader: one read lasts until it is done. Else others get
// their turn again and again, and when one of them has written it begins anew; after a few times
// they have to wait.
int copy_pages(CLogFile& file, sqlite3* copy, bool one_read)
{
    sqlite3_backup* const backup = sqlite3_backup_init(copy, "main", file.handle(), "main");
    if (!backup) return sqlite3_errcode(copy);
    CProgress progress(file.name() + ": pages");
    int code = SQLITE_OK, rest = INT32_MAX, begun = 0;
    while (code == SQLITE_OK) {
        if (is_interrupted()) break;
        const steady_t::time_point slice = steady_t::now();
        do {
            code = sqlite3_backup_step(backup, begun >= TRIES ? -1 : PAGES);
        } while (code == SQLITE_OK && steady_t::now() - slice < SLICE);
        const int left = sqlite3_backup_remaining(backup), all = sqlite3_backup_pagecount(backup);
        if (left > rest) ++begun;
        rest = left;
        progress.at(static_cast<uint64_t>(all - left), 1 - double(left) / double(std::max(1, all)));
        if (!one_read && code != SQLITE_DONE)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const int finished = sqlite3_backup_finish(backup);
    throw_if_interrupted();
    if (code == SQLITE_DONE) return finished;
    return code;
}

std::string check_of(sqlite3* db)
{
    sqlite3_stmt* statement = nullptr;
    int code = sqlite3_prepare_v2(db, "PRAGMA quick_check(1)", -1, &statement, nullptr);
    if (code == SQLITE_OK) code = sqlite3_step(statement);
    const std::string text = code == SQLITE_ROW
                                 ? reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))
                                 : sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    return text.substr(text.find_last_of('\n') + 1);  // the last of a few lines
}

exit_code_t run(const CArguments& arguments)
{
    const std::string name = arguments.text("COPY");
    CLogFile file(arguments, TO_LOOK);
    const int64_t size = file.pragma("page_count") * file.pragma("page_size");
    const std::string folder = folder_of(name);
    if (is_dry_run(arguments)) {
        tell_outcome(file, arguments,
                     size_text(size) + " would be copied to " + folder + ", where " +
                         size_text(free_space(folder)) + " are free");
        return EXIT_DONE;
    }
    if (file_size(folder) >= 0) check_space(folder, size, "the copy");
    CNewFile target(name);
    sqlite3* copy = nullptr;
    int code = sqlite3_open_v2(target.part().c_str(), &copy, SQLITE_OPEN_READWRITE, nullptr);
    std::string state;
    const bool is_wal = file.pragma_text("journal_mode") == "wal";
    try {
        const auto work = [&] {
            code = code == SQLITE_OK ? copy_pages(file, copy, is_wal) : code;
            return 0;
        };
        if (is_wal)
            file.read(work);
        else
            work();
        // Without write-ahead mode it can be read everywhere, also where nothing may be written.
        if (code == SQLITE_OK)
            code = sqlite3_exec(copy, "PRAGMA journal_mode = DELETE", nullptr, nullptr, nullptr);
        if (code == SQLITE_OK) state = check_of(copy);
    } catch (...) {
        sqlite3_close(copy);
        throw;
    }
    sqlite3_close(copy);
    if ((code & 0xff) == SQLITE_FULL || (code & 0xff) == SQLITE_IOERR)
        throw failure_t(name + ": " + sqlite3_errstr(code));
    if (code != SQLITE_OK) file.fail_with_code(code);
    target.keep();
    if (state != "ok")
        file.fail("copied, but it is damaged, and so is the copy (" + state +
                  "); `trendlog salvage` saves what can be read");
    tell_outcome(file, arguments, size_text(file_size(name)) + " copied to " + name);
    return EXIT_DONE;
}

}  // namespace

command_t backup_command()
{
    return {"backup",
            SECTION_DATA,
            "Make a whole copy of a log, also while somebody records",
            "The copy is as the file was at one moment, has been checked, and needs no companions. "
            "Nothing is ever written over.",
            {{"FILE", "the log"}, {"COPY", "the copy to make"}},
            options_t{{"--dry-run", "", "say how much would be copied, and whether it fits"}} +
                common_options(),
            {{"trendlog backup plant.db copy.db --dry-run", "Whether there is room for it"},
             {"trendlog backup plant.db copy.db", "Make it"}},
            run};
}

}  // namespace trendlog
