#include "trend/record.h"

#include <cmath>

#include "columns.h"
#include "runsql.h"
#include "sqltext.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/memory.h"
#include "trend/operation.h"
#include "trend/rollup.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// The statement that stores a row of the selected parameters in the table of `period`: one for each
// selection.
stmt_ptr_t insert_statement(const char* fn, CMemory& memory, known_device_t& known,
                            const CDeviceParams& data, const CPeriodProperties& period)
{
    known_selection_t* selection = known.find_selection(data._params);
    stmt_ptr_t stmt;
    if (selection) stmt = memory.recall(selection->_insert);
    if (stmt) return stmt;

    for (const CParamProperties& param : data._params)
        if (param._index < 0) {
            refuse(fn, "invalid param id");
            return stmt;
        }
    const tk_string sql = insert_sample_text(data._device._index, period._period, data._params);
    pool_place_t place;
    stmt = memory.find(sql, place);
    if (!stmt)
        report("Can't prepare SQL (1): '%s'", sql.c_str());
    else if (selection)
        selection->_insert = place;
    else
        known.add_selection(data._params, place);
    return stmt;
}

}  // namespace

int bind_row(CStatement& stmt, const std::vector<CParamProperties>& params, const CSnapshot& row)
{
    if (const int failed = bind_all(stmt, int64_t(row._time), row._percent_valid)) return failed;
    size_t placeholder = 3;
    for (size_t k = 0; k < params.size(); ++k) {
        const CParamProperties& param = params[k];
        const CSample& sample = row._samples[k];
        const int failed = visit_aggregates([&](const aggregate_t& aggregate) {
            return param.*aggregate._kept ? stmt.bind(placeholder++, sample.*aggregate._value) : 0;
        });
        if (failed) return failed;
    }
    return 0;
}

constexpr const char* ADD_TREND_DATA =
    "int toolkit::trend::CLog::add_trend_data("
    "const toolkit::trend::CDeviceParams&, const toolkit::trend::CSnapshot&)";

int CLog::add_trend_data(const CDeviceParams& data, const CSnapshot& snapshot)
try {
    TREND_SIGNATURE(fn, ADD_TREND_DATA);
    CTransCheck check(_db);
    if (const int failed = check_open(fn, _db)) return failed;
    if (data._params.empty()) return refuse(fn, "empty param list");
    if (const int failed = check_device(fn, _db, data._device)) return failed;
    if (snapshot._time < 0) return refuse(fn, "invalid timestamp");
    if (snapshot._samples.size() != data._params.size()) return refuse(fn, "bad sample size");
    // Two opposite infinities in a group have no average, so the group could never be stored.
    if (std::isinf(snapshot._percent_valid)) return refuse(fn, "invalid percent_valid");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    CMemory& memory = memory_of(*_db);
    if (const int failed = memory.prove()) return failed;
    if (memory._periods.empty()) {
        if (const int failed = read_all_periods(*_db, memory._periods)) return failed;
        if (memory._periods.empty()) return refuse(fn, "no configured periods");
        if (const int failed = calc_period_ratios(memory._periods, memory._ratios)) return failed;
    }
    known_device_t& known = memory.device(data._device._index);
    const std::vector<CParamProperties>* stored_params = nullptr;  // where they have to be read
    if (!known._has_params) {
        if (const int failed = read_all_params(*_db, data._device, memory._params)) return failed;
        if (memory._params.empty()) return refuse(fn, "no configured parameters");
        known._has_params = true;
        stored_params = &memory._params;
    }

    {
        const stmt_wrapper_t stmt(insert_statement(fn, memory, known, data, memory._periods[0]));
        if (!stmt) return -1;
        if (const int failed = bind_row(*stmt, data._params, snapshot)) return failed;
        if (const int failed = stmt->step()) return failed;
    }
    known._tables[0].add_row(snapshot._time);
    if (const int failed =
            roll_up(*_db, data._device, memory._periods, memory._ratios, 0, known, stored_params))
        return failed;

    if (const int failed = memory.keep()) return failed;
    return level.end();
} catch (...) {
    return out_of_memory(ADD_TREND_DATA);
}

constexpr const char* GET_LATEST_TIMESTAMP =
    "int toolkit::trend::CLog::get_latest_timestamp("
    "const toolkit::trend::CDeviceProperties&, time_t&)";

int CLog::get_latest_timestamp(const CDeviceProperties& device, time_t& timestamp)
try {
    TREND_SIGNATURE(fn, GET_LATEST_TIMESTAMP);
    CTransCheck check(_db);
    if (const int failed = check_device(fn, _db, device)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    if (periods.empty()) return refuse(fn, "no configured periods");
    TREND_ASSERT(periods[0]._period!=0);
    int64_t newest = -1;
    if (const int failed = newest_time(*_db, device, periods[0], newest)) return failed;
    timestamp = stored_time(newest);
    TREND_ASSERT(timestamp>=static_cast<time_t>(-1));

    return level.end();
} catch (...) {
    return out_of_memory(GET_LATEST_TIMESTAMP);
}

}  // namespace toolkit::trend
