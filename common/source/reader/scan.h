#pragma once

#include <cstdint>
#include <vector>

#include "database.h"
#include "trend_api.h"

namespace toolkit::trend {

// One trend table as a sequence of intervals, looked at from any moment on. A row stands for its
// period's length before its time, and for what the row before it leaves of that.
class scan_t {
public:
    // With `params`, which must outlive it, rows come with percent_valid and the parameters'
    // columns. Nothing is prepared before the first look.
    scan_t(CDatabase& db, int64_t device, const CPeriodProperties& period,
           const std::vector<CParamProperties>* params);

    // Looks at the first row later than `moment`. Cheap where that is the row it is at or the next
    // one. Rows have no times before 0.
    int look(int64_t moment);

    // Of the last look. The values are those of a row that was found.
    bool found() const { return _found; }
    int64_t start() const { return _time - _length > _previous ? _time - _length : _previous; }
    int64_t time() const { return _time; }
    const CStatement& row() const { return *_stmt; }

    int64_t length() const { return _length; }
    unsigned long period() const { return _period; }

private:
    int seek(int64_t moment);
    int step();

    CDatabase& _db;
    const int64_t _device;
    const unsigned long _period;
    const int64_t _length;  // seconds
    const std::vector<CParamProperties>* const _params;
    stmt_wrapper_t _stmt;  // empty before the first look

    bool _found = false;
    int64_t _previous = 0;  // time of the row before, or of none as early as matters
    int64_t _time = 0;
};

}  // namespace toolkit::trend
