#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>

#include "runsql.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

constexpr const char* ADD_PERIOD =
    "int toolkit::trend::CLog::add_period("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::add_period(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, ADD_PERIOD);
    CTransCheck check(_db);
    if (const int failed = check_period(fn, _db, period)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* sql = "INSERT INTO periods VALUES (?,?)";
    if (const int failed =
            run_once(*_db, sql, STMT_FRESH, int64_t(period._period), int64_t(period._max_entries)))
        return failed;
    if (const int failed = create_trend_tables(period)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(ADD_PERIOD);
}

constexpr const char* MODIFY_PERIOD =
    "int toolkit::trend::CLog::modify_period("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::modify_period(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, MODIFY_PERIOD);
    CTransCheck check(_db);
    if (const int failed = check_period(fn, _db, period)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    // An unknown period changes no row and is not refused here: the trim meets its missing
    // tables.
    const char* sql = "UPDATE periods SET max_entries = ? WHERE period = ?";
    if (const int failed =
            run_once(*_db, sql, STMT_FRESH, int64_t(period._max_entries), int64_t(period._period)))
        return failed;

    std::vector<CDeviceProperties> devices;
    if (const int failed = read_all_devices(*_db, devices)) return failed;
    for (const CDeviceProperties& device : devices)
        if (const int failed = trim_period_table(device, period, false)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(MODIFY_PERIOD);
}

constexpr const char* REMOVE_PERIOD =
    "int toolkit::trend::CLog::remove_period("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::remove_period(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, REMOVE_PERIOD);
    CTransCheck check(_db);
    // Wants a number of rows although it has no use for it.
    if (const int failed = check_period(fn, _db, period)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* sql = "DELETE FROM periods WHERE period = ?";
    if (const int failed = run_once(*_db, sql, STMT_FRESH, int64_t(period._period))) return failed;
    if (const int failed = remove_trend_tables(period)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(REMOVE_PERIOD);
}

time_t CLog::next_interval_boundary(unsigned long period, time_t now)
{
    TREND_SIGNATURE(fn,
                    "static time_t toolkit::trend::CLog::next_interval_boundary("
                    "long unsigned int, time_t)");
    if (!is_storable(period)) return refuse(fn, "invalid period");
    if (now == -1) {
        now = std::time(nullptr);
        if (now == -1) return refuse(fn, "can't get system time");
    }
    TREND_ASSERT(now>=0);
    const int64_t len = static_cast<int64_t>(period) * SECONDS_PER_MINUTE;
    // Unsigned, since the last boundary of all lies beyond every time.
    const uint64_t boundary = (static_cast<uint64_t>(now / len) + 1) * static_cast<uint64_t>(len);
    constexpr uint64_t LARGEST_TIME = std::numeric_limits<time_t>::max();
    return static_cast<time_t>(std::min(boundary, LARGEST_TIME));
}

time_t CLog::previous_interval_boundary(unsigned long period, time_t now)
{
    const time_t next = next_interval_boundary(period, now);
    if (next == -1) return -1;
    // The last boundary before the next one. One interval less would be wrong where the next one
    // fits no time: the largest time stands for it then, which lies within an interval.
    const int64_t len = static_cast<int64_t>(period) * SECONDS_PER_MINUTE;
    return static_cast<time_t>((next - 1) / len * len);
}

constexpr const char* CALC_PERIOD_RATIOS =
    "static int toolkit::trend::CLog::calc_period_ratios("
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "std::vector<long unsigned int>&)";

int CLog::calc_period_ratios(const std::vector<CPeriodProperties>& periods,
                             std::vector<unsigned long>& ratios)
try {
    TREND_SIGNATURE(fn, CALC_PERIOD_RATIOS);
    TREND_ASSERT(!periods.empty());
    ratios.resize(periods.size());
    for (size_t i = 0; i + 1 < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        ratios[i] = periods[i + 1]._period / periods[i]._period;
        if (ratios[i] < 2) return refuse(fn, "period ratio too low");
        if (periods[i + 1]._period != ratios[i] * periods[i]._period)
            return refuse(fn, "oddball period ratio");
    }
    return 0;
} catch (...) {
    return out_of_memory(CALC_PERIOD_RATIOS);
}

}  // namespace toolkit::trend
