#include <algorithm>
#include <limits>
#include <map>

#include "columns.h"
#include "sqltext.h"
#include "trend/checks.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// SQLite takes a negative limit as none and a negative offset as 0: what it cannot count to must
// not become either.
int64_t sqlite_count(size_t n)
{
    return static_cast<int64_t>(
        std::min<uint64_t>(n, static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
}

// Binds the placeholders of read_text(), in the order in which it writes them.
int bind_read(CStatement& stmt, const std::vector<CPeriodProperties>& period_set,
              const timebounds_t& bounds, bool no_overlap,
              const std::vector<long long>& upper_bounds, size_t limit, size_t offset)
{
    size_t placeholder = 1;
    const auto bind_next = [&](int64_t value) { return stmt.bind(placeholder++, value); };
    for (size_t i = 0; i < period_set.size(); ++i) {
        if (const int failed = bind_next(int64_t(period_set[i]._period))) return failed;
        if (bounds.first != -1)
            if (const int failed = bind_next(bounds.first)) return failed;
        if (bounds.second != -1)
            if (const int failed = bind_next(bounds.second)) return failed;
        if (no_overlap) {
            TREND_ASSERT(upper_bounds[i]>=-1);
            if (const int failed = bind_next(upper_bounds[i])) return failed;
            if (const int failed = bind_next(upper_bounds[i])) return failed;
        }
    }
    if (const int failed = bind_next(limit == 0 ? -1 : sqlite_count(limit))) return failed;
    return offset == 0 ? 0 : bind_next(sqlite_count(offset));
}

}  // namespace

constexpr const char* GET_TREND_DATA =
    "int toolkit::trend::CLog::get_trend_data(toolkit::trend::CDeviceData&, "
    "const toolkit::trend::CDeviceParams&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "const timebounds_t&, size_t, size_t, bool, bool)";

int CLog::get_trend_data(CDeviceData& data, const CDeviceParams& request,
                         const std::vector<CPeriodProperties>& periods, const timebounds_t& bounds,
                         size_t limit, size_t offset, bool ascending, bool no_overlap)
try {
    TREND_SIGNATURE(fn, GET_TREND_DATA);
    CTransCheck check(_db);
    std::vector<CPeriodProperties> period_set = periods;
    if (const int failed = check_device(fn, _db, request._device)) return failed;
    if (bounds.first < -1 || bounds.second < -1) return refuse(fn, "invalid time range");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    // The request may be part of the result: from here on the result's copy is used.
    data._snapshots.clear();
    data._device = request._device;
    data._params = request._params;
    if (data._params.empty())
        if (const int failed = get_params(data._device, data._params)) return failed;
    if (data._params.empty()) return refuse(fn, "empty parameter list");
    if (period_set.empty())
        if (const int failed = get_periods(period_set)) return failed;
    if (period_set.empty()) return refuse(fn, "empty period list");

    std::vector<long long> upper_bounds;
    if (no_overlap) {
        if (const int failed = get_period_boundaries(data._device, period_set, upper_bounds))
            return failed;
        TREND_ASSERT(upper_bounds.size()==period_set.size());
    }

    for (const CParamProperties& param : data._params) {
        if (param._index >= 0) continue;
        // Deliberately stricter with a caller who left the periods to us.
        TREND_ASSERT(!periods.empty());
        return refuse(fn, "invalid param id");
    }
    const tk_string sql = read_text(data._device._index, period_set, data._params, bounds,
                                    no_overlap, ascending, offset != 0);
    const stmt_wrapper_t stmt(CThrowing::stmt(*_db, sql, STMT_FRESH));
    if (!stmt) return -1;
    if (const int failed =
            bind_read(*stmt, period_set, bounds, no_overlap, upper_bounds, limit, offset))
        return failed;

    // Decoded in place: a row of many parameters is larger than all that finding it takes.
    int retval = 0;
    while ((retval = stmt->step()) == 1)
        if (get_sample(stmt.get(), data._snapshots.emplace_back(), data._params) != 0) {
            data._snapshots.pop_back();
            return retval;
        }

    // A failing step ends the rows as the last row does.
    return level.end();
} catch (...) {
    return out_of_memory(GET_TREND_DATA);
}

// Decodes the current row of a read into `snapshot`.
int CLog::get_sample(const std::shared_ptr<CStatement>& stmt, CSnapshot& snapshot,
                     const std::vector<CParamProperties>& params)
{
    TREND_ASSERT(_db);
    TREND_ASSERT(stmt);
    TREND_ASSERT(!params.empty());

    int64_t ival = 0;
    if (const int failed = stmt->column(0, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    snapshot._period = static_cast<unsigned long>(ival);
    if (const int failed = stmt->column(1, ival, NULL_NOT_OK)) return failed;
    snapshot._time = stored_time(ival);
    if (const int failed = stmt->column(2, snapshot._percent_valid, NULL_NOT_OK)) return failed;

    snapshot._samples.resize(params.size());
    size_t col = 3;
    for (size_t i = 0; i < params.size(); ++i) {
        const CParamProperties& param = params[i];
        CSample& sample = snapshot._samples[i];
        for (const aggregate_t& aggregate : AGGREGATES)
            if (param.*aggregate._kept)
                if (const int failed = stmt->column(col++, sample.*aggregate._value)) return failed;
    }
    return 0;
}

// Sets, for each of the periods, the time of the oldest row of any finer one among them; -1 where
// they are empty or there is none. In front of it the period has nothing but rows of its own.
int CLog::get_period_boundaries(const CDeviceProperties& device,
                                const std::vector<CPeriodProperties>& periods,
                                std::vector<long long>& upper_bounds)
{
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(!periods.empty());
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::map<unsigned long, long long> oldest_times;
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        TREND_ASSERT(periods[i]._max_entries!=0);
        int64_t oldest = -1;
        if (const int failed = oldest_time(*_db, device, periods[i], oldest)) return failed;
        oldest_times[periods[i]._period] = oldest;
    }

    std::map<unsigned long, long long> time_bounds;
    long long bound = -1;
    for (const auto& [period, oldest] : oldest_times) {
        time_bounds[period] = bound;
        if (bound == -1 || (oldest != -1 && oldest < bound)) bound = oldest;
    }

    upper_bounds.resize(periods.size());
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(time_bounds.count(periods[i]._period));
        upper_bounds[i] = time_bounds.at(periods[i]._period);
    }
    return level.end();
}

}  // namespace toolkit::trend
