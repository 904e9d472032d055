#include <algorithm>

#include "runsql.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// The fine rows that are newer than the newest coarse row.
struct stragglers_t {
    int64_t _count = 0;
    int64_t _first_time = -1;  // of the oldest; -1 when there are none
};

int count_stragglers(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& fine,
                     const CPeriodProperties& coarse, stragglers_t& stragglers)
{
    const tk_string sql =
        sql_text("SELECT count(time), min(time) FROM trends_", device._index, "_", fine._period,
                 " WHERE time > coalesce((SELECT max(time) FROM trends_", device._index, "_",
                 coarse._period, "),0)");
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, STMT_POOLED));
    if (!stmt) return -1;
    const int retval = stmt->step();
    TREND_ASSERT(retval!=0);
    if (retval < 0) return retval;

    int64_t num_stragglers = 0;
    if (const int failed = stmt->column(0, num_stragglers, NULL_NOT_OK)) return failed;
    int64_t first_new_time = -1;
    if (const int failed = stmt->column(1, first_new_time, NULL_OK)) return failed;
    TREND_ASSERT(num_stragglers>=0);
    if (num_stragglers > 0) TREND_ASSERT(first_new_time!=static_cast<time_t>(-1));
    stragglers = {num_stragglers, first_new_time};
    return 0;
}

// Deletes what has fallen out of the period's retention; `cutoff` is the newest time that went, -1
// when nothing was old enough.
int trim_rows(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
              bool keep_spare, int64_t& cutoff)
{
    cutoff = -1;
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;

    int64_t last_time = -1;
    if (const int failed = newest_time(db, device, period, last_time)) return failed;
    if (last_time < 0) return level.end();
    int64_t first_time = -1;
    if (const int failed = oldest_time(db, device, period, first_time)) return failed;
    TREND_ASSERT(first_time>=0);

    // Counted in whole intervals first: the product of two large settings would not fit.
    const int64_t span = interval_length(period);
    int64_t oldest_kept = 0;
    if (static_cast<uint64_t>(last_time / span) >= period._max_entries)
        oldest_kept = last_time - static_cast<int64_t>(period._max_entries) * span;
    if (keep_spare) oldest_kept = std::max<int64_t>(oldest_kept - SPARE_INTERVALS * span, 0);
    if (oldest_kept < first_time) return level.end();

    {
        const tk_string sql =
            sql_text("DELETE FROM trends_", device._index, "_", period._period, " WHERE time <= ?");
        if (const int failed = run_once(db, sql, STMT_POOLED, oldest_kept)) return failed;
    }
    cutoff = oldest_kept;
    return level.end();
}

// Writes a coarse row for every full group of stragglers, oldest group first. The groups are
// counted before the trim, which has deleted the rows up to `cutoff`.
int roll_up_groups(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& fine,
                   const CPeriodProperties& coarse, unsigned long ratio,
                   const std::vector<CParamProperties>& params, const stragglers_t& stragglers,
                   int64_t cutoff)
{
    // Offsets count the rows that are left. Past them a group has nothing to aggregate, and a row
    // of nothing would be refused by the table at every later snapshot.
    int64_t survivors = stragglers._count;
    if (cutoff >= stragglers._first_time) {
        const tk_string sql = sql_text("SELECT count(time) FROM trends_", device._index, "_",
                                       fine._period, " WHERE time > ", cutoff);
        if (const int failed = read_intval(db, sql, STMT_FRESH, survivors)) return failed;
    }

    const tk_string sql = roll_up_text(device._index, fine._period, coarse._period, ratio, params);
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (2): '%s'", sql.c_str());
        return -1;
    }

    const int64_t group = static_cast<int64_t>(ratio);
    const int64_t full_groups = stragglers._count / group;
    for (int64_t offset = 0; offset < full_groups * group && offset < survivors; offset += group) {
        if (const int failed = stmt->reset()) return failed;
        if (const int failed = bind_all(*stmt, stragglers._first_time, offset)) return failed;
        if (const int failed = stmt->step()) {
            report("Possible problem with SQL stmt: '%s' (%jd, %jd)", sql.c_str(),
                   static_cast<intmax_t>(stragglers._first_time), static_cast<intmax_t>(offset));
            return failed;
        }
    }
    return 0;
}

}  // namespace

constexpr const char* PROPAGATE_RECENT_SAMPLES =
    "int toolkit::trend::CLog::propagate_recent_samples("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "const std::vector<long unsigned int>&, size_t, "
    "const std::vector<toolkit::trend::CParamProperties>&)";

int CLog::propagate_recent_samples(const CDeviceProperties& device,
                                   const std::vector<CPeriodProperties>& periods,
                                   const std::vector<unsigned long>& ratios, size_t idx,
                                   const std::vector<CParamProperties>& params)
try {
    TREND_SIGNATURE(fn, PROPAGATE_RECENT_SAMPLES);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(!periods.empty());
    TREND_ASSERT(idx<periods.size());
    TREND_ASSERT(periods[idx]._period!=0);
    TREND_ASSERT(ratios.size()==periods.size());
    TREND_ASSERT((ratios[idx]>1) || (idx==(periods.size()-1)));
    TREND_ASSERT(!params.empty());
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const CPeriodProperties& period = periods[idx];
    if (idx == periods.size() - 1) {
        if (const int failed = trim_period_table(device, period, true)) return failed;
        return level.end();
    }
    TREND_ASSERT(periods[idx+1]._period!=0);
    const CPeriodProperties& coarse = periods[idx + 1];

    stragglers_t stragglers;
    if (const int failed = count_stragglers(*_db, device, period, coarse, stragglers))
        return failed;
    // Without a full group nothing above can have changed, so neither this table is trimmed nor
    // are the coarser ones looked at.
    if (static_cast<uint64_t>(stragglers._count) < ratios[idx]) return level.end();

    // Trimmed after the count and before any group is read: a table shorter than one group
    // loses its oldest rows here, and the coarse row then stands for the survivors.
    TREND_ASSERT(period._max_entries!=0);
    int64_t cutoff = -1;
    if (const int failed = trim_rows(*_db, device, period, true, cutoff)) return failed;
    if (const int failed =
            roll_up_groups(*_db, device, period, coarse, ratios[idx], params, stragglers, cutoff))
        return failed;
    if (const int failed = propagate_recent_samples(device, periods, ratios, idx + 1, params))
        return failed;

    return level.end();
} catch (...) {
    return out_of_memory(PROPAGATE_RECENT_SAMPLES);
}

constexpr const char* TRIM_PERIOD_TABLE =
    "int toolkit::trend::CLog::trim_period_table("
    "const toolkit::trend::CDeviceProperties&, "
    "const toolkit::trend::CPeriodProperties&, bool)";

int CLog::trim_period_table(const CDeviceProperties& device, const CPeriodProperties& period,
                            bool keep_spare)
try {
    TREND_SIGNATURE(fn, TRIM_PERIOD_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(period._period!=0);
    TREND_ASSERT(period._max_entries!=0);
    int64_t cutoff = -1;
    return trim_rows(*_db, device, period, keep_spare, cutoff);
} catch (...) {
    return out_of_memory(TRIM_PERIOD_TABLE);
}

}  // namespace toolkit::trend
