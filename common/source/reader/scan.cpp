#include "reader/scan.h"

#include <algorithm>
#include <limits>

#include "runsql.h"
#include "sqltext.h"
#include "throwing.h"
#include "trend/checks.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr int64_t EARLIEST = -1;  // rows are later
constexpr int64_t NO_ROW_BEFORE = std::numeric_limits<int64_t>::min();

}  // namespace

scan_t::scan_t(CDatabase& db, int64_t device, const CPeriodProperties& period,
               const std::vector<CParamProperties>* params)
    : _db(db),
      _device(device),
      _period(period._period),
      _length(interval_length(period)),
      _params(params)
{
}

int scan_t::look(int64_t moment)
{
    moment = std::max(moment, EARLIEST);
    if (!_stmt) {
        // Fresh: a view must not drive out of the pool what recording needs.
        _stmt = CThrowing::stmt(_db, scan_text(_device, _period, _params), STMT_FRESH);
        return _stmt ? seek(moment) : -1;
    }
    if (_previous <= moment) {
        if (!_found || moment < _time) return 0;
        if (const int failed = step()) return failed;
        if (!_found || moment < _time) return 0;
    }
    return seek(moment);
}

int scan_t::seek(int64_t moment)
{
    // From so far back that the row before is seen where it takes something of the row's interval.
    const int64_t from = std::max(moment - _length, EARLIEST);
    static_cast<void>(_stmt->reset());  // after a step that failed there is no next look
    if (const int failed = bind_all(*_stmt, from)) return failed;
    _time = from == EARLIEST ? NO_ROW_BEFORE : from;
    do
        if (const int failed = step()) return failed;
    while (_found && _time <= moment);
    return 0;
}

int scan_t::step()
{
    const int retval = _stmt->step();
    if (retval < 0) return retval;
    _found = retval == 1;
    _previous = _time;
    if (!_found) return 0;

    if (const int failed = _stmt->column(0, _time, NULL_NOT_OK)) return failed;
    return _time > std::max(_previous, EARLIEST) ? 0 : rows_out_of_order(_device, _period);
}

}  // namespace toolkit::trend
