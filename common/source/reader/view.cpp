#include "reader/view.h"

#include <algorithm>
#include <limits>

#include "sqlformat.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/values.h"

namespace toolkit::trend {

window_t::window_t(const timebounds_t& bounds)
    : _first(std::max<int64_t>(bounds.first, 0)),
      _last(bounds.second == -1 ? std::numeric_limits<int64_t>::max() : bounds.second)
{
}

int check_request(const char* fn, const std::shared_ptr<CDatabase>& db, const CReadRequest& request)
{
    if (const int failed = check_device(fn, db, request._device)) return failed;
    if (request._bounds.first < -1 || request._bounds.second < -1)
        return refuse(fn, "invalid time range");
    for (const CParamProperties& param : request._params)
        if (param._index < 0) return refuse(fn, "invalid param id");
    return 0;
}

int check_visitor(const char* fn, const interval_visitor_t& visit)
{
    return visit ? 0 : refuse(fn, "no visitor");
}

int read_subject(const char* fn, CDatabase& db, subject_t& subject)
{
    if (subject._asked._params.empty()) {
        subject._all._device = subject._asked._device;
        if (const int failed = read_all_params(db, subject._all._device, subject._all._params))
            return failed;
        if (subject._all._params.empty()) return refuse(fn, "empty parameter list");
    }
    if (subject._periods.empty())
        if (const int failed = read_all_periods(db, subject._periods)) return failed;
    return subject._periods.empty() ? refuse(fn, "empty period list") : 0;
}

int table_end(CDatabase& db, int64_t device, const CPeriodProperties& period, const char* which,
              int64_t& time)
{
    tk_string sql = "SELECT ";
    append_sql(sql, which, "(time) FROM trends_", device, "_", period._period);
    return read_intval(db, sql, STMT_FRESH, time);
}

int hand_over(const char* fn, const interval_visitor_t& visit, const CDeviceParams& device,
              const CInterval& interval, bool& more)
try {
    more = visit(device, interval);
    return 0;
} catch (...) {
    // What went wrong in the host is not memory that the view lacks.
    return refuse(fn, "the visitor has thrown");
}

time_t host_time(int64_t time)
{
    constexpr int64_t EARLIEST = std::numeric_limits<time_t>::min();
    constexpr int64_t LATEST = std::numeric_limits<time_t>::max();
    return static_cast<time_t>(std::clamp(time, EARLIEST, LATEST));
}

}  // namespace toolkit::trend
