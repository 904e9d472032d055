#pragma once

#include <cstdint>
#include <limits>

#include "aggregates.h"
#include "recorder/coverage.h"
#include "trend_recorder.h"

// What one parameter has measured of the open interval of its device, and what holds into it. Plain
// arithmetic: moments have been judged by the caller.

namespace toolkit::trend {

constexpr int64_t NO_MOMENT = std::numeric_limits<int64_t>::min() / 2;

struct parameter_t {
    // What it is
    uint32_t _device = 0;
    reading_kind_t _kind = READING_GAUGE;
    double _lowest = 0.0;
    double _highest = 0.0;
    double _max_rate = 0.0;
    int64_t _longest = 0;  // that a gauge holds, or between two readings of a counter

    // The last reading
    int64_t _last = NO_MOMENT;
    double _value = 0.0;

    // What the open interval has so far
    int64_t _from = 0;  // a gauge is counted in up to here
    bool _seen = false;
    accumulator_t _min{};
    accumulator_t _max{};
    accumulator_t _mean{};
    double _sum = 0.0;
    bool _has_sum = false;

    bool is_gauge() const { return _kind == READING_GAUGE || _kind == READING_POWER_FACTOR; }

    // Until when a gauge's last reading holds.
    int64_t known_until() const { return _last + _longest; }

    // Takes a reading within the open interval, later than the last one.
    void take_gauge(double value, int64_t moment, CCoverage& known);
    void take_total(double value);

    // What a reading of a counter is to the one before.
    enum step_t { STEP_START, STEP_RESET, STEP_GAP, STEP_JUMP, STEP_RISE };
    step_t step_of(double value, int64_t moment) const;
    void take_counter(step_t step, double value, int64_t moment, CCoverage& known);

    // Counts a gauge in up to the moment, the end of the interval at most.
    void advance(int64_t moment);

    // What the interval is worth, advanced as far as it shall be.
    CSample sample() const;

    // Begins anew at `start`, with what holds into the interval.
    void begin(int64_t start, CCoverage& known);

    // Everything lies `by` later.
    void shift(int64_t by);

private:
    void note(double value);
    double scaled(double value) const;
    double unscaled(double value) const;
};

}  // namespace toolkit::trend
