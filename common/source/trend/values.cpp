#include "trend/values.h"

#include <algorithm>
#include <limits>

#include "sqlformat.h"
#include "throwing.h"
#include "translevel.h"

namespace toolkit::trend {

int read_intval(CDatabase& db, const tk_string& sql, bool fresh, int64_t& out)
{
    constexpr int64_t UNREAD = std::numeric_limits<int64_t>::min();
    int64_t ival = UNREAD;
    if (const int failed = CThrowing::get_intval(db, sql, ival, fresh, NULL_OK)) return failed;
    if (ival == UNREAD) return -1;
    out = ival;
    return 0;
}

int newest_time(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                int64_t& time)
{
    const tk_string sql =
        sql_text("SELECT max(time) FROM trends_", device._index, "_", period._period);
    return read_intval(db, sql, STMT_POOLED, time);
}

int oldest_time(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                int64_t& time)
{
    const tk_string sql =
        sql_text("SELECT min(time) FROM trends_", device._index, "_", period._period);
    return read_intval(db, sql, STMT_POOLED, time);
}

int64_t interval_length(const CPeriodProperties& period)
{
    constexpr uint64_t LONGEST = std::numeric_limits<uint32_t>::max();
    return static_cast<int64_t>(std::min<uint64_t>(period._period, LONGEST)) * SECONDS_PER_MINUTE;
}

time_t stored_time(int64_t time)
{
    constexpr int64_t LARGEST_TIME = std::numeric_limits<time_t>::max();
    return static_cast<time_t>(std::min(time, LARGEST_TIME));
}

}  // namespace toolkit::trend
