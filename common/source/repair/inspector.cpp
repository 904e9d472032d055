#include "repair/inspector.h"

#include <sqlite3.h>

#include <array>
#include <new>

#include "database.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

struct kind_t {
    const char* _name;
    severity_t _severity;
    const char* _advice;
};

// In the order of finding_kind_t.
constexpr std::array<kind_t, FINDING_LISTEND> KINDS = {{
    {"damage", SEVERITY_ERROR,
     "Restore the file from a backup, or save what can be read with .recover of the sqlite3 "
     "shell."},
    {"schema", SEVERITY_ERROR,
     "Open an older version writable with create; what else differs was changed by another "
     "program: undo that, or restore the file from a backup."},
    {"configuration", SEVERITY_ERROR,
     "Correct or delete the entries with the sqlite3 shell while no log is open."},
    {"values", SEVERITY_ERROR,
     "Set the values to NULL, or delete the rows, with the sqlite3 shell while no log is open."},
    {"foreign_object", SEVERITY_WARNING,
     "Drop it, or make it a temporary one of the connection that needs it."},
    {"period_ratio", SEVERITY_WARNING,
     "Remove one of the two periods: nothing is recorded as long as both are there."},
    {"short_table", SEVERITY_WARNING,
     "Let the period keep twice as many rows as one row of the next coarser period is made of."},
    {"future_rows", SEVERITY_WARNING,
     "If the clock is right, clear the time from now on with clear_trend_data()."},
    {"percent_valid", SEVERITY_WARNING, "Let the host record shares of 0 to 100."},
    {"late_rows", SEVERITY_WARNING, "Make the coarse rows anew with rebuild()."},
    {"coarse_rows", SEVERITY_WARNING, "Make the coarse rows anew with rebuild()."},
    {"write_ahead_log", SEVERITY_WARNING,
     "Look for a reader that does not end its transaction, and call checkpoint()."},
    {"holes", SEVERITY_INFORMATION, "Fill gaps with fill_blank_values() before the next row."},
    {"off_grid", SEVERITY_INFORMATION,
     "Record at the boundaries of the finest period and fill gaps; rebuild() puts coarse rows on "
     "the grid."},
    {"old_rows", SEVERITY_INFORMATION, "Nothing: the next roll-up deletes them."},
    {"free_pages", SEVERITY_INFORMATION,
     "Nothing: later rows use them; vacuum() gives them back to the file system."},
}};

}  // namespace

const char* finding_name(finding_kind_t kind)
{
    TREND_ASSERT(kind>=0 && kind<FINDING_LISTEND);
    return KINDS[static_cast<size_t>(kind)]._name;
}

const char* severity_name(severity_t severity)
{
    constexpr std::array<const char*, 3> NAMES = {"information", "warning", "error"};
    TREND_ASSERT(severity>=SEVERITY_INFORMATION && severity<=SEVERITY_ERROR);
    return NAMES[static_cast<size_t>(severity)];
}

tk_string text_of(const CStatement& row, size_t col)
{
    tk_string text;
    // It is a text or NULL, so this can only be the memory for its conversion.
    if (CThrowing::column(row, col, text, NULL_OK) != 0) throw std::bad_alloc();
    return text;
}

int CInspector::found(finding_kind_t kind, const tk_string& text, const place_t& place,
                      const stretch_t& stretch)
{
    if (kind == FINDING_DAMAGE) _damage = true;
    const kind_t& known = KINDS[static_cast<size_t>(kind)];
    CFinding finding;
    finding._kind = kind;
    finding._severity = known._severity;
    finding._device = place._device;
    finding._period = place._period;
    finding._bounds = {stored_time(stretch._first), stored_time(stretch._last)};
    finding._count = stretch._count;
    finding._text = text;
    finding._advice = known._advice;
    return _visit(finding) ? 0 : STOPPED;
}

int CInspector::found_unusable(finding_kind_t kind, const tk_string& text, const place_t& place)
{
    const int stopped = found(kind, text, place);
    return stopped ? stopped : LEFT_OUT;
}

int CInspector::unreadable(const tk_string& what, const place_t& place)
{
    const int code = sqlite3_errcode(*_db) & 0xff;
    if (code != SQLITE_CORRUPT && code != SQLITE_NOTADB && code != SQLITE_ERROR) return -1;
    const tk_string why = sqlite3_errmsg(*_db);
    return found_unusable(FINDING_DAMAGE, what + " cannot be read: " + why + ".", place);
}

}  // namespace toolkit::trend
