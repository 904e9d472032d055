#include <algorithm>

#include "aggregates.h"
#include "reader/view.h"
#include "runsql.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "throwing.h"
#include "trend/checks.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr size_t HAS_VALUE = 2;  // columns: time, percent_valid, whether the row has any value

int cover_rows(CDatabase& db, const subject_t& subject, const window_t& window, CCoverage& coverage)
{
    const stmt_wrapper_t stmt(CThrowing::stmt(
        db, coverage_text(subject.index(), coverage._period._period, subject.params()),
        STMT_FRESH));
    if (!stmt) return -1;
    if (const int failed = bind_all(*stmt, window._first, window._last)) return failed;

    const int64_t length = interval_length(coverage._period);
    int64_t start = 0;
    int64_t previous = -1;
    double valid = 0.0;  // percent * seconds
    for (;;) {
        const int retval = stmt->step();
        if (retval < 0) return retval;
        if (retval == 0) break;
        int64_t time = 0;
        if (const int failed = stmt->column(0, time, NULL_NOT_OK)) return failed;
        double percent_valid = 0.0;
        if (const int failed = stmt->column(1, percent_valid, NULL_NOT_OK)) return failed;
        int64_t has_value = 0;
        static_cast<void>(stmt->column(HAS_VALUE, has_value, NULL_NOT_OK));  // 0 or 1 of SQLite's

        if (time <= previous) return rows_out_of_order(subject.index(), coverage._period._period);
        if (coverage._rows == 0) {
            start = previous = time - length;
            coverage._first = host_time(time);
        }
        if (time - length > previous) ++coverage._holes;
        valid += clamp_weight(percent_valid) *
                 static_cast<double>(time - std::max(previous, time - length));
        if (has_value == 0) ++coverage._blank_rows;
        ++coverage._rows;
        previous = time;
    }
    if (coverage._rows == 0) return 0;
    coverage._start = host_time(start);
    coverage._last = host_time(previous);
    coverage._percent_valid =
        clamp_weight(valid / (static_cast<double>(previous) - static_cast<double>(start)));
    return 0;
}

int count_bytes(CDatabase& db, const subject_t& subject, CCoverage& coverage)
{
    const tk_string sql = sql_text("SELECT sum(pgsize) FROM dbstat WHERE name = 'trends_",
                                   subject.index(), "_", coverage._period._period, "'");
    return read_intval(db, sql, STMT_FRESH, coverage._bytes);
}

}  // namespace

constexpr const char* COVERAGE =
    "int toolkit::trend::CReader::coverage(const toolkit::trend::CReadRequest&, "
    "std::vector<toolkit::trend::CCoverage>&)";

int CReader::coverage(const CReadRequest& request, std::vector<CCoverage>& coverage)
try {
    TREND_SIGNATURE(fn, COVERAGE);
    const std::shared_ptr<CDatabase> db = log_access_t::connection(*_log);
    CTransCheck check(db);
    coverage.clear();
    if (const int failed = check_request(fn, db, request)) return failed;
    CTransLevel level(*db);
    if (const int failed = level.begin()) return failed;
    subject_t subject(request);
    if (const int failed = read_subject(fn, *db, subject)) return failed;

    int64_t has_dbstat = 0;
    if (const int failed =
            read_intval(*db, "SELECT count(*) FROM pragma_module_list WHERE name = 'dbstat'",
                        STMT_FRESH, has_dbstat))
        return failed;
    const window_t window(request._bounds);
    for (const CPeriodProperties& period : subject._periods) {
        CCoverage& table = coverage.emplace_back();
        table._period = period;
        if (const int failed = cover_rows(*db, subject, window, table)) return failed;
        if (has_dbstat == 0) continue;
        if (const int failed = count_bytes(*db, subject, table)) return failed;
    }
    return level.end();
} catch (...) {
    return out_of_memory(COVERAGE);
}

}  // namespace toolkit::trend
