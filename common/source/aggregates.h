#pragma once

#include <cmath>

// The arithmetic of the aggregate SQL functions, apart from how SQLite calls them.

namespace toolkit::trend {

// Handed to SQLite as each function's user data.
enum aggregate_kind_t {
    AGGREGATE_PFMIN = 0,
    AGGREGATE_PFMAX = 1,
    AGGREGATE_PFAVG = 2,
    AGGREGATE_PFPCTAVG = 3,
    AGGREGATE_PCTAVG = 4
};

// The state of one group. SQLite provides it filled with zeros.
struct accumulator_t {
    double count;  // rows folded in, or the sum of the weights
    double val;    // minimum, maximum or sum so far; 0 while `count` is 0
};

// Clamps a power factor to [-1, 1], what does not compare included, and puts it on the scale of the
// accumulator: 0 up to 1 for positive values, on from 1 (-1) up to 2 (-0) for negative ones. Unity
// lies in the middle, so that extremes and averages run through the change of sign.
inline double wrap_power_factor(double x)
{
    if (x > 1.0)
        x = 1.0;
    else if (!(x >= -1.0))
        x = -1.0;
    return x < 0.0 ? x + 2.0 : x;
}

// Exactly unity is +1, never -1.
inline double unwrap_power_factor(double val) { return val > 1.0 ? val - 2.0 : val; }

inline double clamp_weight(double w)
{
    if (w > 100.0) return 100.0;
    return w < 0.0 ? 0.0 : w;
}

inline void add_minimum(accumulator_t& accum, double x)
{
    if (accum.count == 0.0 || x < accum.val) accum.val = x;
    accum.count += 1.0;
}

inline void add_maximum(accumulator_t& accum, double x)
{
    if (accum.count == 0.0 || x > accum.val) accum.val = x;
    accum.count += 1.0;
}

inline void add_value(accumulator_t& accum, double x)
{
    accum.val += x;
    accum.count += 1.0;
}

// The product is rounded only once, together with the sum. A weight of 0 adds nothing even to an
// infinite value, whose product with it would be no number and spoil the group for good.
inline void add_weighted(accumulator_t& accum, double x, double w)
{
    if (w == 0.0) return;
    accum.val = std::fma(x, w, accum.val);
    accum.count += w;
}

}  // namespace toolkit::trend
