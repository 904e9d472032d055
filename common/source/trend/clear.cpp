#include "sqltext.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"

namespace toolkit::trend {

constexpr const char* CLEAR_TREND_DATA =
    "int toolkit::trend::CLog::clear_trend_data("
    "const toolkit::trend::CDeviceProperties&, const timebounds_t&)";

int CLog::clear_trend_data(const CDeviceProperties& device, const timebounds_t& bounds)
{
    TREND_SIGNATURE(fn, CLEAR_TREND_DATA);
    CTransCheck check(_db);
    if (const int failed = check_owner_of_rows(fn, _db, device)) return failed;
    if (bounds.first < -1 || bounds.second < -1) return refuse(fn, "bad time bounds");
    if (const int failed = _db->begin_transaction()) return failed;

    // The one operation that opens its level by hand. A positive code leaves it open, deliberately:
    // nothing here should yield one, and the guard then stops the process.
    time_t latest = -1;
    int failed = clear_rows(device, bounds, latest);
    if (failed < 0) _db->rollback_transaction();
    if (failed) return failed;

    failed = _db->end_transaction();
    if (failed) return failed;
    return latest != -1 ? 1 : 0;
}

// Memory that runs out is answered here, so that the level is rolled back above.
int CLog::clear_rows(const CDeviceProperties& device, const timebounds_t& bounds, time_t& latest)
try {
    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    for (const CPeriodProperties& period : periods)
        if (const int failed = CThrowing::exec(
                *_db, clear_text(device._index, period._period, bounds), STMT_FRESH, ROW_NONE))
            return failed;
    return get_latest_timestamp(device, latest);
} catch (...) {
    return out_of_memory(CLEAR_TREND_DATA);
}

}  // namespace toolkit::trend
