#include "trend_labels.h"

#include "runsql.h"
#include "trend/access.h"
#include "trend/checks.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// Not to be asked of the table itself: where there is none, that would be a failure.
int has_table(CDatabase& db, bool& found)
{
    const char* sql =
        "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'trend_labels'";
    int64_t count = 0;
    if (const int failed = read_intval(db, sql, STMT_FRESH, count)) return failed;
    found = count > 0;
    return 0;
}

int read_row(const CStatement& row, CLabel& label)
{
    if (const int failed = CThrowing::column(row, 0, label._device, NULL_NOT_OK)) return failed;
    if (const int failed = CThrowing::column(row, 1, label._param, NULL_NOT_OK)) return failed;
    if (const int failed = CThrowing::column(row, 2, label._unit, NULL_OK)) return failed;
    return CThrowing::column(row, 3, label._label, NULL_OK);
}

}  // namespace

constexpr const char* READ_LABELS =
    "int toolkit::trend::read_labels(const CLog&, std::vector<CLabel>&)";

int read_labels(const CLog& log, std::vector<CLabel>& labels)
try {
    TREND_SIGNATURE(fn, READ_LABELS);
    const std::shared_ptr<CDatabase>& db = log_access_t::connection(log);
    CTransCheck check(db);
    if (const int failed = check_open(fn, db)) return failed;

    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    labels.clear();
    bool found = false;
    if (const int failed = has_table(*db, found)) return failed;
    if (found) {
        const char* sql =
            "SELECT device, param, unit, label FROM trend_labels ORDER BY device, param";
        const stmt_wrapper_t stmt(CThrowing::stmt(*db, sql, STMT_FRESH));
        if (!stmt) return -1;
        int retval = 0;
        while ((retval = stmt->step()) == 1) {
            CLabel label;
            if (const int failed = read_row(*stmt, label)) return failed;
            labels.push_back(std::move(label));
        }
        if (retval != 0) return retval;
    }
    return level.end();
} catch (...) {
    return out_of_memory(READ_LABELS);
}

constexpr const char* WRITE_LABEL = "int toolkit::trend::write_label(CLog&, const CLabel&)";

int write_label(CLog& log, const CLabel& label)
try {
    TREND_SIGNATURE(fn, WRITE_LABEL);
    const std::shared_ptr<CDatabase>& db = log_access_t::connection(log);
    CTransCheck check(db);
    if (const int failed = check_open(fn, db)) return failed;
    if (is_empty_path(label._device)) return refuse(fn, "empty device path");
    const CLabel stored = {stored_text(label._device), stored_text(label._param),
                           stored_text(label._unit), stored_text(label._label)};

    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    bool found = false;
    if (const int failed = has_table(*db, found)) return failed;
    const bool is_empty = stored._unit.empty() && stored._label.empty();
    if (!found && !is_empty) {
        const char* sql =
            "CREATE TABLE trend_labels (device TEXT NOT NULL, param TEXT NOT NULL, unit TEXT, "
            "label TEXT, PRIMARY KEY (device, param))";
        if (const int failed = CThrowing::exec(*db, sql, STMT_FRESH, ROW_NONE)) return failed;
    }
    if (!is_empty) {
        const char* sql =
            "INSERT OR REPLACE INTO trend_labels (device, param, unit, label) VALUES (?, ?, ?, ?)";
        if (const int failed =
                run_once(*db, sql, STMT_FRESH, stored._device, stored._param,
                         text_or_null_t{stored._unit}, text_or_null_t{stored._label}))
            return failed;
    } else if (found) {
        const char* sql = "DELETE FROM trend_labels WHERE device = ? AND param = ?";
        if (const int failed = run_once(*db, sql, STMT_FRESH, stored._device, stored._param))
            return failed;
    }

    return level.end();
} catch (...) {
    return out_of_memory(WRITE_LABEL);
}

}  // namespace toolkit::trend
