#include <sqlite3.h>

#include <algorithm>
#include <ctime>

#include "repair/inspections.h"
#include "trend/access.h"
#include "trend/checks.h"
#include "trend/operation.h"

namespace toolkit::trend {

namespace {

int inspect_log(CInspector& inspector)
{
    if (const int ended = inspect_file(inspector)) return ended;
    const int damage = inspect_damage(inspector);  // what it cannot read others may
    if (damage && damage != LEFT_OUT) return damage;
    survey_t survey;
    if (const int ended = inspect_configuration(inspector, survey)) return ended;
    for (const CDeviceProperties& device : survey._devices) {
        const int ended = inspect_device(inspector, survey, device);
        if (ended && ended != LEFT_OUT) return ended;
    }
    return 0;
}

// How many pages of the write-ahead log no checkpoint has copied into the file. From the index that
// all connections share, whose format SQLite documents: a checkpoint would tell too, but it writes.
uint32_t pages_in_wal(sqlite3* db)
{
    constexpr int INDEX_SIZE = 32768;
    constexpr size_t LAST_FRAME = 16, FRAMES_COPIED = 96;
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK) return 0;
    if (!file->pMethods || file->pMethods->iVersion < 2) return 0;
    void volatile* index = nullptr;
    const int code = file->pMethods->xShmMap(file, 0, INDEX_SIZE, 0, &index);
    if (code != SQLITE_OK || !index) return 0;

    const auto number_at = [&](size_t offset) {
        return *reinterpret_cast<const volatile uint32_t*>(
            static_cast<const volatile char*>(index) + offset);
    };
    const uint32_t last = number_at(LAST_FRAME);
    const uint32_t copied = number_at(FRAMES_COPIED);
    return last > copied ? last - copied : 0;
}

// A number of SQLite's own.
int read_pragma(CInspector& inspector, const char* name, int64_t& number)
{
    return inspector.each(tk_string("PRAGMA ") + name, "The file", {}, [&](const CStatement& row) {
        number = number_of(row, 0);
        return 0;
    });
}

int inspect_wal(CInspector& inspector)
{
    tk_string mode;
    const int failed =
        inspector.each("PRAGMA journal_mode", "The file", {}, [&](const CStatement& row) {
            mode = text_of(row, 0);
            return 0;
        });
    if (failed) return failed;
    if (mode != "wal") return 0;

    // A commit that finds so many pages makes a checkpoint. A few times as many are there after a
    // large one, and where checkpoints have met a reader.
    constexpr int64_t DEFAULT_THRESHOLD = 1000, TIMES = 4;
    int64_t threshold = 0;
    if (const int ended = read_pragma(inspector, "wal_autocheckpoint", threshold)) return ended;
    if (threshold <= 0) threshold = DEFAULT_THRESHOLD;
    stretch_t pages;
    pages._count = pages_in_wal(*inspector.db());
    if (pages._count <= static_cast<uint64_t>(threshold * TIMES)) return 0;
    return inspector.found(FINDING_WRITE_AHEAD_LOG,
                           "Pages of the write-ahead log that no checkpoint has copied into the "
                           "file: " +
                               std::to_string(pages._count) + ".",
                           {}, pages);
}

}  // namespace

int inspect_damage(CInspector& inspector)
{
    return inspector.each(
        "PRAGMA integrity_check", "The whole of the file", {}, [&](const CStatement& row) {
            tk_string line = text_of(row, 0);
            if (line == "ok") return 0;
            std::replace(line.begin(), line.end(), '\n', ' ');
            return inspector.found(FINDING_DAMAGE, "SQLite's check says: " + line + ".");
        });
}

int inspect_file(CInspector& inspector)
{
    int64_t pages = 0;
    int64_t free_pages = 0;
    if (const int ended = read_pragma(inspector, "page_count", pages)) return ended;
    if (const int ended = read_pragma(inspector, "freelist_count", free_pages)) return ended;
    // Tables that are trimmed or rebuilt leave some and use them again.
    constexpr int64_t SHARE = 4, FEW = 16;
    if (free_pages >= FEW && free_pages >= pages / SHARE) {
        stretch_t stretch;
        stretch._count = static_cast<uint64_t>(free_pages);
        if (const int ended =
                inspector.found(FINDING_FREE_PAGES,
                                "Pages of the file that are free: " + std::to_string(free_pages) +
                                    " of " + std::to_string(pages) + ".",
                                {}, stretch))
            return ended;
    }
    return inspect_wal(inspector);
}

constexpr const char* CHECK_LOG =
    "int toolkit::trend::check_log(CLog&, time_t, const finding_visitor_t&)";

int check_log(CLog& log, time_t now, const finding_visitor_t& visit)
try {
    TREND_SIGNATURE(fn, CHECK_LOG);
    const std::shared_ptr<CDatabase>& db = log_access_t::connection(log);
    CTransCheck check(db);
    if (const int failed = check_open(fn, db)) return failed;
    if (now < -1) return refuse(fn, "invalid time");
    if (now == -1) {
        now = std::time(nullptr);
        if (now == -1) return refuse(fn, "can't get time");
    }
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;

    CInspector inspector(*db, now, visit);
    const int ended = inspect_log(inspector);
    if (ended && ended != LEFT_OUT) return ended == STOPPED ? STOPPED : -1;

    // On a damaged file a COMMIT may fail, although there is nothing to commit.
    return inspector.has_found_damage() ? 0 : level.end();
} catch (...) {
    return out_of_memory(CHECK_LOG);
}

int check_log(CLog& log, time_t now, std::vector<CFinding>& findings)
{
    findings.clear();
    return check_log(log, now, [&](const CFinding& finding) {
        findings.push_back(finding);
        return true;
    });
}

}  // namespace toolkit::trend
