#pragma once

#include <cstdint>
#include <limits>

// Which interval of the clock a row's time belongs to. An interval is (k * length - length,
// k * length]; times are 0 or later.

namespace toolkit::trend {

// The number k of the time's interval.
inline int64_t interval_of(int64_t time, int64_t length)
{
    return time / length + (time % length != 0 ? 1 : 0);
}

// How far before the end of its interval the time lies.
inline int64_t distance_to_end(int64_t time, int64_t length)
{
    return time % length == 0 ? 0 : length - time % length;
}

// The last boundary before the time, and the first at or after it: the ends of its interval. The
// latter is the largest time where it is too late to be one.
inline int64_t boundary_before(int64_t time, int64_t length)
{
    return time > 0 ? (time - 1) / length * length : 0;
}
inline int64_t boundary_after(int64_t time, int64_t length)
{
    constexpr int64_t LATEST = std::numeric_limits<int64_t>::max();
    const int64_t rest = distance_to_end(time, length);
    return time > LATEST - rest ? LATEST : time + rest;
}

}  // namespace toolkit::trend
