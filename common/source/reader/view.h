#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "report.h"
#include "trend/access.h"
#include "trend/operation.h"
#include "trend_reader.h"

// What every view of a reader works with. A view has the four beats of CLog's operations: guard,
// checks, level, work; the work is done on a subject.

namespace toolkit::trend {

// What is read: the device and its periods, and the parameters, which are those of the request or
// all of the device's.
struct subject_t {
    explicit subject_t(const CDeviceParams& request) : _asked(request) {}

    const CDeviceParams& device() const { return _asked._params.empty() ? _all : _asked; }
    const std::vector<CParamProperties>& params() const { return device()._params; }
    int64_t index() const { return _asked._device._index; }

    const CDeviceParams& _asked;
    CDeviceParams _all;  // used where the request names no parameters
    std::vector<CPeriodProperties> _periods;
};

// A window of moments, both ends included, open ones as far as there are times.
struct window_t {
    explicit window_t(const timebounds_t& bounds);

    bool empty() const { return _first > _last; }

    int64_t _first;
    int64_t _last;
};

// These print under the name `fn` and return -1, pass on the code of what failed, or return 0.

int check_request(const char* fn, const std::shared_ptr<CDatabase>& db,
                  const CReadRequest& request);
int check_visitor(const char* fn, const interval_visitor_t& visit);

// Fills the subject's parameters, and its periods where it has none yet.
int read_subject(const char* fn, CDatabase& db, subject_t& subject);

// The time of a table's newest ("max") or oldest ("min") row, -1 when it is empty. What is asked
// once a view is not kept in the pool, where it would drive out what recording needs.
int table_end(CDatabase& db, int64_t device, const CPeriodProperties& period, const char* which,
              int64_t& time);

// Hands an interval to the visitor, `more` says whether it wants another one.
int hand_over(const char* fn, const interval_visitor_t& visit, const CDeviceParams& device,
              const CInterval& interval, bool& more);

// A time for the host. Where time_t has 32 bits, others read as the first or last that it has.
time_t host_time(int64_t time);

}  // namespace toolkit::trend
