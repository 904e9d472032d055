#include "trend/lists.h"

#include <algorithm>
#include <cstdint>

#include "columns.h"
#include "sqlformat.h"
#include "throwing.h"
#include "translevel.h"

namespace toolkit::trend {

namespace {

int read_period(const CStatement& row, CPeriodProperties& newprop)
{
    int64_t ival = 0;
    if (const int failed = row.column(0, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    newprop._period = static_cast<uint32_t>(ival);

    if (const int failed = row.column(1, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    newprop._max_entries = static_cast<uint32_t>(ival);
    return 0;
}

int read_device(const CStatement& row, CDeviceProperties& newprop)
{
    if (const int failed = row.column(0, newprop._index, NULL_NOT_OK)) return failed;
    if (const int failed = CThrowing::column(row, 1, newprop._path, NULL_NOT_OK)) return failed;
    TREND_ASSERT(!newprop._path.empty());
    return CThrowing::column(row, 2, newprop._guid, NULL_OK);
}

int read_param(const CStatement& row, CParamProperties& newprop)
{
    if (const int failed = row.column(0, newprop._index, NULL_NOT_OK)) return failed;
    if (const int failed = CThrowing::column(row, 1, newprop._path, NULL_NOT_OK)) return failed;
    TREND_ASSERT(!newprop._path.empty());

    int64_t ival = 0;
    if (const int failed = row.column(2, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT((ival>=0) && (ival<SAMPLE_TYPE_LISTEND));
    newprop._type = static_cast<sample_type_t>(ival);

    size_t col = 3;
    for (const aggregate_t& aggregate : AGGREGATES) {
        if (const int failed = row.column(col++, ival, NULL_NOT_OK)) return failed;
        TREND_ASSERT((ival==0) || (ival==1));
        newprop.*aggregate._kept = ival != 0;
    }
    return 0;
}

template <typename Record>
int read_list(CDatabase& db, const tk_string& sql, int (*read_row)(const CStatement&, Record&),
              std::vector<Record>& records, bool& whole, bool fresh = STMT_POOLED)
{
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, fresh));
    if (!stmt) return -1;

    // Records that are there already are filled again: their texts keep their memory.
    size_t count = 0;
    int retval = 0;
    int failed = 0;
    while (!failed && (retval = stmt->step()) == 1) {
        if (count == records.size()) records.emplace_back();
        failed = read_row(*stmt, records[count]);
        if (!failed) ++count;
    }
    records.resize(count);
    if (failed) return failed;
    whole = retval == 0;
    return level.end();
}

}  // namespace

int read_periods(CDatabase& db, std::vector<CPeriodProperties>& periods, bool& whole)
{
    static const tk_string sql = "SELECT * FROM periods";
    if (const int failed = read_list(db, sql, read_period, periods, whole)) return failed;
    std::sort(periods.begin(), periods.end());
    return 0;
}

int read_devices(CDatabase& db, std::vector<CDeviceProperties>& devices, bool& whole)
{
    return read_list(db, "SELECT * FROM devices", read_device, devices, whole);
}

int read_params(CDatabase& db, const CDeviceProperties& device,
                std::vector<CParamProperties>& params, bool& whole, bool fresh)
{
    const tk_string sql = sql_text("SELECT * FROM params_", device._index, " ORDER BY idx ASC");
    if (const int failed = read_list(db, sql, read_param, params, whole, fresh)) return failed;
    TREND_ASSERT(std::is_sorted(params.begin(), params.end()));
    return 0;
}

int read_all_periods(CDatabase& db, std::vector<CPeriodProperties>& periods)
{
    bool whole = false;
    if (const int failed = read_periods(db, periods, whole)) return failed;
    return whole ? 0 : -1;
}

int read_all_devices(CDatabase& db, std::vector<CDeviceProperties>& devices)
{
    bool whole = false;
    if (const int failed = read_devices(db, devices, whole)) return failed;
    return whole ? 0 : -1;
}

int read_all_params(CDatabase& db, const CDeviceProperties& device,
                    std::vector<CParamProperties>& params, bool fresh)
{
    bool whole = false;
    if (const int failed = read_params(db, device, params, whole, fresh)) return failed;
    return whole ? 0 : -1;
}

}  // namespace toolkit::trend
