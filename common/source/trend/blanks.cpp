#include <ctime>

#include "runsql.h"
#include "sqlformat.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

constexpr const char* FILL_BLANK_VALUES =
    "int toolkit::trend::CLog::fill_blank_values("
    "const toolkit::trend::CDeviceProperties&, time_t, bool)";

int CLog::fill_blank_values(const CDeviceProperties& device, time_t now, bool mark_valid)
try {
    TREND_SIGNATURE(fn, FILL_BLANK_VALUES);
    CTransCheck check(_db);
    if (const int failed = check_owner_of_rows(fn, _db, device)) return failed;
    if (now < -1) return refuse(fn, "invalid fill time");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    if (now == -1) {
        now = std::time(nullptr);
        if (now == -1) return refuse(fn, "can't get time");
    }
    TREND_ASSERT(now>=static_cast<time_t>(0));

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    std::vector<unsigned long> ratios;
    if (const int failed = calc_period_ratios(periods, ratios)) return failed;
    TREND_ASSERT(periods.size()==ratios.size());
    std::vector<CParamProperties> params;
    if (const int failed = read_all_params(*_db, device, params)) return failed;

    if (!params.empty())
        for (size_t idx = 0; idx < periods.size(); ++idx)
            if (const int failed =
                    fill_period_blanks(device, periods, ratios, idx, params, now, mark_valid))
                return failed;

    return level.end();
} catch (...) {
    return out_of_memory(FILL_BLANK_VALUES);
}

// Fills the table of periods[idx]. A few rows one by one, enough for one row of the next coarser
// period, then by copies of the run of blank rows that double it each time.
int CLog::fill_period_blanks(const CDeviceProperties& device,
                             const std::vector<CPeriodProperties>& periods,
                             const std::vector<unsigned long>& ratios, size_t idx,
                             const std::vector<CParamProperties>& params, time_t now,
                             bool mark_valid)
{
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(!periods.empty());
    TREND_ASSERT(idx<periods.size());
    TREND_ASSERT(periods[idx]._period!=0);
    TREND_ASSERT(periods[idx]._max_entries!=0);
    TREND_ASSERT(ratios.size()==periods.size());
    TREND_ASSERT((ratios[idx]>1) || (idx==(ratios.size()-1)));
    TREND_ASSERT(!params.empty());
    TREND_ASSERT(now!=static_cast<time_t>(-1));

    const CPeriodProperties& period = periods[idx];
    const int64_t step = interval_length(period);
    const int64_t max_entries = static_cast<int64_t>(period._max_entries);
    const int percent_valid = mark_valid ? 1 : 0;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    int64_t last = -1;  // the newest row
    if (const int failed = newest_time(*_db, device, period, last)) return failed;
    if (last < 0) return level.end();

    tk_string sql = sql_text("INSERT INTO trends_", device._index, "_", period._period,
                             " (time, percent_valid) VALUES (?,", percent_valid, ")");
    stmt_wrapper_t stmt(CThrowing::stmt(*_db, sql, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (3): '%s'", sql.c_str());
        return -1;
    }

    int64_t first = last;  // every row after it is a blank row of this run
    int64_t n = 0;         // how many they are
    for (; static_cast<uint64_t>(n) < ratios[idx] && now - last >= step; ++n) {
        last += step;
        if (const int failed = stmt->reset()) return failed;
        if (const int failed = bind_all(*stmt, last)) return failed;
        if (const int failed = run(*stmt)) return failed;
    }

    if (const int failed = propagate_recent_samples(device, periods, ratios, idx, params))
        return failed;

    // The roll-up's trim has taken the oldest rows of a run longer than it keeps: the copies below
    // count on all of them.
    if (n > max_entries + SPARE_INTERVALS) {
        first = last;
        n = 0;
    }

    // What the table could not keep is not written at all.
    if (last < now) {
        const int64_t total = (now - last) / step;
        if (total > max_entries) {
            last += (total - max_entries) * step;
            first = last;
            n = 0;
        }
    }

    bool copying = false;
    while (now - last >= step) {
        const int64_t ntoadd = (now - last) / step;
        TREND_ASSERT(ntoadd>0);
        if (const int failed = stmt->reset()) return failed;
        if (n == 0) {
            last += step;
            n = 1;
            if (const int failed = bind_all(*stmt, last)) return failed;
        } else {
            if (!copying) {
                sql = sql_text("INSERT INTO trends_", device._index, "_", period._period,
                               " (time, percent_valid) SELECT time+?, ", percent_valid,
                               " FROM trends_", device._index, "_", period._period,
                               " WHERE time > ? LIMIT ?");
                stmt = CThrowing::stmt(*_db, sql, STMT_POOLED);
                if (!stmt) {
                    report("Can't prepare SQL (4): '%s'", sql.c_str());
                    return -1;
                }
                copying = true;
            }
            // Rows come in ascending time: a limited copy takes the oldest ones and lands on the
            // grid points that are next.
            constexpr int64_t NO_LIMIT = -1;
            const int64_t limit = n > ntoadd ? ntoadd : NO_LIMIT;
            const int64_t added = n > ntoadd ? ntoadd : n;
            if (const int failed = bind_all(*stmt, n * step, first, limit)) return failed;
            last += added * step;
            n += added;
        }
        if (const int failed = run(*stmt)) return failed;
    }

    if (const int failed = trim_period_table(device, period, true)) return failed;
    return level.end();
}

}  // namespace toolkit::trend
