#include "sqltext.h"
#include "trend/checks.h"
#include "trend/fetch.h"
#include "trend/operation.h"

namespace toolkit::trend {

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

    return decode_row(*stmt, snapshot, params);
}

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

    if (const int failed = oldest_finer_times(*_db, device, periods, upper_bounds)) return failed;
    return level.end();
}

}  // namespace toolkit::trend
