#include "trend/fetch.h"

#include <algorithm>
#include <limits>
#include <map>

#include "columns.h"
#include "row_values.h"
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

}  // namespace

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

int decode_row(const CStatement& stmt, CSnapshot& snapshot,
               const std::vector<CParamProperties>& params)
{
    int64_t ival = 0;
    if (const int failed = stmt.column(0, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    snapshot._period = static_cast<unsigned long>(ival);
    if (const int failed = stmt.column(1, ival, NULL_NOT_OK)) return failed;
    snapshot._time = stored_time(ival);
    if (const int failed = stmt.column(2, snapshot._percent_valid, NULL_NOT_OK)) return failed;

    snapshot._samples.resize(params.size());
    row_values_t values(stmt, 3);
    CSample* sample = snapshot._samples.data();
    for (const CParamProperties& param : params) {
        const int failed = visit_aggregates([&](const aggregate_t& aggregate) {
            return param.*aggregate._kept ? values.next(sample->*aggregate._value) : 0;
        });
        if (failed) return failed;
        ++sample;
    }
    return 0;
}

int oldest_finer_times(CDatabase& db, const CDeviceProperties& device,
                       const std::vector<CPeriodProperties>& periods,
                       std::vector<long long>& upper_bounds)
{
    std::map<unsigned long, long long> oldest_times;
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        TREND_ASSERT(periods[i]._max_entries!=0);
        int64_t oldest = -1;
        if (const int failed = oldest_time(db, device, periods[i], oldest)) return failed;
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
    return 0;
}

}  // namespace toolkit::trend
