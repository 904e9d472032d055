#include <atomic>
#include <cmath>

#include "columns.h"
#include "runsql.h"
#include "sqltext.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

// What recording works from. It is read afresh at every call, but into the memory of the last one:
// without it every snapshot would allocate a text per parameter. One call at a time borrows that
// memory; one in another thread, or inside from a callback of SQLite's, has lists of its own.
class CRecordingLists {
public:
    CRecordingLists()
        : _kept(kept()),
          _borrowed(!_kept._lent.test_and_set(std::memory_order_acquire)),
          _lists(_borrowed ? _kept._lists : _own)
    {
    }
    ~CRecordingLists()
    {
        if (_borrowed) _kept._lent.clear(std::memory_order_release);
    }

    CRecordingLists(const CRecordingLists&) = delete;
    CRecordingLists& operator=(const CRecordingLists&) = delete;

    struct lists_t {
        std::vector<CPeriodProperties> _periods;
        std::vector<unsigned long> _ratios;
        std::vector<CParamProperties> _params;
    };
    lists_t* operator->() { return &_lists; }

private:
    struct kept_t {
        std::atomic_flag _lent = ATOMIC_FLAG_INIT;
        lists_t _lists;
    };

    // Never destroyed: a thread may record until the process is gone.
    static kept_t& kept()
    {
        static kept_t& lists = *new kept_t;
        return lists;
    }

    kept_t& _kept;
    bool _borrowed;
    lists_t _own;
    lists_t& _lists;
};

// Inserts the snapshot into the table of `period`. The text depends on the selection of parameters,
// so the pool keeps a statement for each that the host uses.
int insert_sample(CDatabase& db, const CDeviceParams& data, const CSnapshot& snapshot,
                  const CPeriodProperties& period)
{
    const tk_string sql = insert_sample_text(data._device._index, period._period, data._params);
    const stmt_wrapper_t stmt(CThrowing::stmt(db, sql, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (1): '%s'", sql.c_str());
        return -1;
    }

    // Bound in the order in which insert_sample_text() names the columns.
    if (const int failed = bind_all(*stmt, int64_t(snapshot._time), snapshot._percent_valid))
        return failed;
    size_t placeholder = 3;
    for (size_t k = 0; k < data._params.size(); ++k) {
        const CParamProperties& param = data._params[k];
        const CSample& sample = snapshot._samples[k];
        const int failed = visit_aggregates([&](const aggregate_t& aggregate) {
            return param.*aggregate._kept ? stmt->bind(placeholder++, sample.*aggregate._value) : 0;
        });
        if (failed) return failed;
    }
    return stmt->step();
}

}  // namespace

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

    CRecordingLists lists;
    std::vector<CPeriodProperties>& periods = lists->_periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    if (periods.empty()) return refuse(fn, "no configured periods");
    std::vector<unsigned long>& ratios = lists->_ratios;
    ratios.clear();
    if (const int failed = calc_period_ratios(periods, ratios)) return failed;
    std::vector<CParamProperties>& stored_params = lists->_params;
    if (const int failed = read_all_params(*_db, data._device, stored_params)) return failed;
    if (stored_params.empty()) return refuse(fn, "no configured parameters");

    for (const CParamProperties& param : data._params)
        if (param._index < 0) return refuse(fn, "invalid param id");
    if (const int failed = insert_sample(*_db, data, snapshot, periods[0])) return failed;

    // The caller may record a part of the parameters; the roll-up always takes all of them.
    if (const int failed =
            propagate_recent_samples(data._device, periods, ratios, 0, stored_params))
        return failed;

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
