#include "recorder/timeline.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace toolkit::trend {

namespace {

constexpr int64_t STEP = 1000;  // what is less follows from how clocks are adjusted

// Far from overflowing, and no later than time_t can hold.
constexpr int64_t LAST_MOMENT = sizeof(time_t) > 4 ? int64_t{1} << 52 : int64_t{INT32_MAX} * 1000;

int64_t read_clock(clockid_t id)
{
    timespec time = {};
    static_cast<void>(clock_gettime(id, &time));
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

class CSystemClock : public CRecorderClock {
public:
    int64_t wall() override { return read_clock(CLOCK_REALTIME); }
    int64_t monotonic() override { return read_clock(CLOCK_BOOTTIME); }
    bool is_trusted() override { return wall() >= 1704067200000; }
};

int64_t within_range(int64_t moment) { return std::clamp<int64_t>(moment, 0, LAST_MOMENT); }

// To the nearest multiple.
int64_t round_to(int64_t value, int64_t step)
{
    const int64_t half = value < 0 ? -(step / 2) : step / 2;
    return (value + half) / step * step;
}

}  // namespace

void CTimeline::start(CRecorderClock& clock, int64_t max_ahead, int64_t believe_after, int64_t step)
{
    _clock = &clock;
    _max_ahead = max_ahead;
    _believe_after = believe_after;
    _step = step;
    const int64_t wall = within_range(clock.wall());
    const int64_t monotonic = within_range(clock.monotonic());
    _base = wall - monotonic;
    _stamped = clock.is_trusted();
    settle(wall, monotonic);
}

CTimeline::event_t CTimeline::look()
{
    const int64_t wall = within_range(_clock->wall());
    const int64_t monotonic = within_range(_clock->monotonic());
    const int64_t base = wall - monotonic;
    event_t event = FOLLOWED;
    _moved = base - _base;

    if (!_clock->is_trusted()) {
        event = NOT_ASKED;
        _doubted = false;
    } else if (!_stamped) {
        event = STAMPED;
        _stamped = true;
        _whole = round_to(_moved, _step);
    } else if (_moved > _max_ahead) {
        // The doubt begins anew with every further step, and drifts with the clocks.
        if (!_doubted || std::abs(base - _doubted_base) >= STEP) {
            event = DOUBTED;
            _doubted = true;
            _doubted_since = monotonic;
        } else {
            event = NOT_ASKED;
        }
        _doubted_base = base;
        if (monotonic - _doubted_since >= _believe_after) event = STEPPED;
    } else if (std::abs(_moved) >= STEP) {
        event = STEPPED;
    }

    if (event == FOLLOWED || event == STEPPED || event == STAMPED) {
        _base = base;
        _doubted = false;
    }
    settle(wall, monotonic);
    return event;
}

void CTimeline::settle(int64_t wall, int64_t monotonic)
{
    _monotonic = monotonic;
    _now = _base + monotonic;
    _shift = _now - wall;
    _latest = std::min(wall + _max_ahead, LAST_MOMENT);
}

CRecorderClock& system_clock()
{
    static CSystemClock& clock = *new CSystemClock;  // never destroyed: used until the very end
    return clock;
}

}  // namespace toolkit::trend
