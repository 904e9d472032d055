#include <algorithm>

#include "runsql.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "trend/lists.h"
#include "trend/operation.h"
#include "trend/rollup.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// TREND_ASSERT in a function that works for a member of CLog, which is the one to be named.
#define TREND_ASSERT_FOR(member, ...)     \
    ((__VA_ARGS__) ? static_cast<void>(0) \
                   : assertion_failed(__FILE__, __LINE__, member, #__VA_ARGS__))

// The fine rows that are newer than the newest coarse row.
struct stragglers_t {
    int64_t _count = 0;
    int64_t _first_time = -1;  // of the oldest; -1 when there are none
};

int count_stragglers(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& fine,
                     const CPeriodProperties& coarse, known_table_t& known,
                     stragglers_t& stragglers)
{
    if (known._waiting) {
        stragglers = {known._waiting->_count, known._waiting->_first};
        return 0;
    }
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
    // What is newer than a row that waits, waits. Without one nothing is known of later rows.
    if (num_stragglers > 0)
        known._waiting = known_table_t::waiting_t{num_stragglers, first_new_time, first_new_time};
    return 0;
}

// The times of the table's oldest and newest row; nothing is known where there is none.
int find_extent(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                known_table_t& known)
{
    if (known._extent) return 0;
    int64_t last_time = -1;
    if (const int failed = newest_time(db, device, period, last_time)) return failed;
    if (last_time < 0) return 0;
    int64_t first_time = -1;
    if (const int failed = oldest_time(db, device, period, first_time)) return failed;
    TREND_ASSERT(first_time>=0);
    known._extent = known_table_t::extent_t{first_time, last_time};
    return 0;
}

// Deletes what has fallen out of the period's retention; `cutoff` is the newest time that went, -1
// when nothing was old enough.
int trim_rows(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
              bool keep_spare, known_table_t& known, int64_t& cutoff)
{
    cutoff = -1;
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;

    if (const int failed = find_extent(db, device, period, known)) return failed;
    if (!known._extent) return level.end();

    // Counted in whole intervals first: the product of two large settings would not fit.
    const int64_t last_time = known._extent->_newest;
    const int64_t span = interval_length(period);
    int64_t oldest_kept = 0;
    if (static_cast<uint64_t>(last_time / span) >= period._max_entries)
        oldest_kept = last_time - static_cast<int64_t>(period._max_entries) * span;
    if (keep_spare) oldest_kept = std::max<int64_t>(oldest_kept - SPARE_INTERVALS * span, 0);
    if (oldest_kept < known._extent->_oldest) return level.end();

    {
        const tk_string sql =
            sql_text("DELETE FROM trends_", device._index, "_", period._period, " WHERE time <= ?");
        if (const int failed = run_once(db, sql, STMT_POOLED, oldest_kept)) return failed;
    }
    known.remove_rows_up_to(oldest_kept);
    cutoff = oldest_kept;
    return level.end();
}

constexpr const char* TRIM_PERIOD_TABLE =
    "int toolkit::trend::CLog::trim_period_table("
    "const toolkit::trend::CDeviceProperties&, "
    "const toolkit::trend::CPeriodProperties&, bool)";

// CLog::trim_period_table() with what is known of the table.
int trim_table(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
               bool keep_spare, known_table_t& known)
try {
    TREND_ASSERT_FOR(TRIM_PERIOD_TABLE, period._period!=0);
    TREND_ASSERT_FOR(TRIM_PERIOD_TABLE, period._max_entries!=0);
    int64_t cutoff = -1;
    return trim_rows(db, device, period, keep_spare, known, cutoff);
} catch (...) {
    return out_of_memory(TRIM_PERIOD_TABLE);
}

// The statement that rolls one group up. Without `params` the stored list is read, but only where
// the text has to be made.
stmt_ptr_t roll_up_statement(CDatabase& db, const CDeviceProperties& device,
                             const CPeriodProperties& fine, const CPeriodProperties& coarse,
                             unsigned long ratio, const std::vector<CParamProperties>* params,
                             pool_place_t& place)
{
    CMemory& memory = memory_of(db);
    stmt_ptr_t stmt = memory.recall(place);
    if (stmt) return stmt;

    // By a statement of its own: one in the pool would take the place of one that is needed again.
    std::vector<CParamProperties> stored_params;
    if (!params) {
        if (read_all_params(db, device, stored_params, STMT_FRESH) != 0) return stmt;
        params = &stored_params;
    }
    const tk_string sql = roll_up_text(device._index, fine._period, coarse._period, ratio, *params);
    stmt = memory.find(sql, place);
    if (!stmt) report("Can't prepare SQL (2): '%s'", sql.c_str());
    return stmt;
}

// Writes a coarse row for every full group of stragglers, oldest group first. The groups are
// counted before the trim, which has deleted the rows up to `cutoff`.
int roll_up_groups(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& fine,
                   const CPeriodProperties& coarse, unsigned long ratio,
                   const std::vector<CParamProperties>* params, const stragglers_t& stragglers,
                   int64_t cutoff, known_table_t& known_fine, known_table_t& known_coarse)
{
    // Offsets count the rows that are left. Past them a group has nothing to aggregate, and a row
    // of nothing would be refused by the table at every later snapshot.
    int64_t survivors = stragglers._count;
    if (cutoff >= stragglers._first_time) {
        const tk_string sql = sql_text("SELECT count(time) FROM trends_", device._index, "_",
                                       fine._period, " WHERE time > ", cutoff);
        if (const int failed = read_intval(db, sql, STMT_FRESH, survivors)) return failed;
    }

    pool_place_t& place = known_fine._roll_up;
    const stmt_wrapper_t stmt(roll_up_statement(db, device, fine, coarse, ratio, params, place));
    if (!stmt) return -1;

    const int64_t group = static_cast<int64_t>(ratio);
    const int64_t full_groups = stragglers._count / group;
    for (int64_t offset = 0; offset < full_groups * group && offset < survivors; offset += group) {
        if (const int failed = stmt->reset()) return failed;
        if (const int failed = bind_all(*stmt, stragglers._first_time, offset)) return failed;
        if (const int failed = stmt->step()) {
            report("Possible problem with SQL stmt: '%s' (%jd, %jd)", place._slot.ptr->key.c_str(),
                   static_cast<intmax_t>(stragglers._first_time), static_cast<intmax_t>(offset));
            return failed;
        }
    }

    // One group is all that waited, with the newest row, which no trim takes.
    if (stragglers._count == group && known_fine._extent) {
        known_coarse.add_row(known_fine._extent->_newest);
        known_fine.roll_up_all();
    } else {
        // The times of the coarse rows are those of rows that have not been looked at.
        known_coarse.forget_rows();
        known_fine.forget_rows();
    }
    return 0;
}

constexpr const char* PROPAGATE_RECENT_SAMPLES =
    "int toolkit::trend::CLog::propagate_recent_samples("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "const std::vector<long unsigned int>&, size_t, "
    "const std::vector<toolkit::trend::CParamProperties>&)";

}  // namespace

int roll_up(CDatabase& db, const CDeviceProperties& device,
            const std::vector<CPeriodProperties>& periods, const std::vector<unsigned long>& ratios,
            size_t idx, known_device_t& known, const std::vector<CParamProperties>* params)
try {
    const CPeriodProperties& period = periods[idx];
    TREND_ASSERT_FOR(PROPAGATE_RECENT_SAMPLES, (ratios[idx]>1) || (idx==(periods.size()-1)));
    if (idx == periods.size() - 1) return trim_table(db, device, period, true, known._tables[idx]);
    TREND_ASSERT_FOR(PROPAGATE_RECENT_SAMPLES, periods[idx+1]._period!=0);
    const CPeriodProperties& coarse = periods[idx + 1];
    known_table_t& known_fine = known._tables[idx];
    known_table_t& known_coarse = known._tables[idx + 1];

    stragglers_t stragglers;
    if (const int failed = count_stragglers(db, device, period, coarse, known_fine, stragglers))
        return failed;
    // Without a full group nothing above can have changed, so neither this table is trimmed nor
    // are the coarser ones looked at.
    if (static_cast<uint64_t>(stragglers._count) < ratios[idx]) return 0;

    // Trimmed after the count and before any group is read: a table shorter than one group
    // loses its oldest rows here, and the coarse row then stands for the survivors.
    TREND_ASSERT_FOR(PROPAGATE_RECENT_SAMPLES, period._max_entries!=0);
    int64_t cutoff = -1;
    if (const int failed = trim_rows(db, device, period, true, known_fine, cutoff)) return failed;
    if (const int failed = roll_up_groups(db, device, period, coarse, ratios[idx], params,
                                          stragglers, cutoff, known_fine, known_coarse))
        return failed;
    return roll_up(db, device, periods, ratios, idx + 1, known, params);
} catch (...) {
    return out_of_memory(PROPAGATE_RECENT_SAMPLES);
}

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

    known_device_t unknown;
    unknown._tables.resize(periods.size());
    if (const int failed = roll_up(*_db, device, periods, ratios, idx, unknown, &params))
        return failed;
    return level.end();
} catch (...) {
    return out_of_memory(PROPAGATE_RECENT_SAMPLES);
}

int CLog::trim_period_table(const CDeviceProperties& device, const CPeriodProperties& period,
                            bool keep_spare)
{
    TREND_SIGNATURE(fn, TRIM_PERIOD_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    known_table_t unknown;
    return trim_table(*_db, device, period, keep_spare, unknown);
}

}  // namespace toolkit::trend
