#pragma once

#include <cstdint>

#include "trend_recorder.h"

// The recorder's own time, in milliseconds: the monotonic clock, set by the clock on the wall as
// far as that is trusted and believed.

namespace toolkit::trend {

class CTimeline {
public:
    // What a look at the clocks has come to.
    enum event_t {
        FOLLOWED,   // a step of less than a second, or none
        STEPPED,    // `moved()` says how far
        DOUBTED,    // a step too long to be believed; told once
        STAMPED,    // trusted for the first time
        NOT_ASKED,  // not trusted, or doubted still
    };

    void start(CRecorderClock& clock, int64_t max_ahead, int64_t believe_after, int64_t step);

    // Looks at the clocks. Everything between two looks is judged by the last one.
    event_t look();

    // How far the last event has moved the time; with STAMPED, `whole()` is the part of it in whole
    // intervals, by which all that was collected before has to be moved.
    int64_t moved() const { return _moved; }
    int64_t whole() const { return _whole; }

    bool is_stamped() const { return _stamped; }
    int64_t now() const { return _now; }                       // at the last look
    int64_t monotonic() const { return _monotonic; }           // at the last look
    int64_t present() { return _base + _clock->monotonic(); }  // without the clock on the wall

    // The latest moment of the host's, by the clock on the wall, that is believed, and what makes
    // such a moment one of this time.
    int64_t latest() const { return _latest; }
    int64_t shift() const { return _shift; }

private:
    void settle(int64_t wall, int64_t monotonic);

    CRecorderClock* _clock = nullptr;
    int64_t _max_ahead = 0;
    int64_t _believe_after = 0;
    int64_t _step = 0;

    int64_t _base = 0;
    bool _stamped = false;
    bool _doubted = false;
    int64_t _doubted_since = 0;
    int64_t _doubted_base = 0;

    int64_t _moved = 0;
    int64_t _whole = 0;
    int64_t _now = 0;
    int64_t _monotonic = 0;
    int64_t _latest = 0;
    int64_t _shift = 0;
};

// The system's clocks: the time is trusted from 2024 on, and the monotonic one counts suspension.
CRecorderClock& system_clock();

}  // namespace toolkit::trend
