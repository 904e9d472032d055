#include <cinttypes>
#include <initializer_list>

#include "recorder/impl.h"

// What happens as time passes.

namespace toolkit::trend {

int CRecorder::CImpl::check_usable()
{
    if (_in_use) return called_while_telling();
    if (!_log) return tell(NOTICE_MISUSE, "it is not open");
    if (is_inherited())
        return tell(NOTICE_MISUSE, "it was opened by another process, before fork()");
    return 0;
}

int CRecorder::CImpl::tick()
{
    if (const int failed = check_usable()) return failed;
    look_at_clock();
    close_intervals();
    record_own_counters();
    end_late(_options._merge_every_ms);
    if (const int failed = commit(false)) return failed;
    return merge(false);
}

int CRecorder::CImpl::flush()
{
    if (const int failed = check_usable()) return failed;
    look_at_clock();
    close_intervals();
    end_late(_options._merge_every_ms);
    if (const int failed = commit(true)) return failed;
    return merge(true);
}

int CRecorder::CImpl::close()
{
    const bool usable = _log && !_in_use && !is_inherited();
    if (usable) end_late(0);
    int failed = flush();
    if (!usable) return failed;
    const size_t rows = _queue->size() + (_late ? _late->size() : 0);
    if (rows > 0) {
        _stats._notices[NOTICE_ABANDONED] += rows - 1;
        failed = tell(NOTICE_ABANDONED, "%zu rows could not be committed", rows);
    }
    uint64_t readings = 0;
    for (const device_t& device : _devices)
        if (_own_params.empty() || device._first != _own_params[0])
            readings += device._open._readings;
    if (readings > 0) {
        _stats._notices[NOTICE_UNFINISHED] += readings - 1;
        tell(NOTICE_UNFINISHED, "%" PRIu64 " readings of open intervals", readings);
    }
    let_go();
    return failed;
}

CRecorderStats CRecorder::CImpl::stats() const
{
    CRecorderStats stats = _stats;
    if (_queue) {
        stats._pending_rows = _queue->size();
        stats._pending_bytes = _queue->bytes();
    }
    if (_late) {
        stats._late_rows = _late->size();
        stats._late_bytes = _late->bytes();
    }
    return stats;
}

void CRecorder::CImpl::look_at_clock()
{
    switch (_time.look()) {
        case CTimeline::STEPPED:
            ++_stats._clock_steps;
            tell(NOTICE_CLOCK, "the clock has stepped by %" PRId64 " ms", _time.moved());
            break;
        case CTimeline::DOUBTED:
            tell(NOTICE_CLOCK, "a step of the clock by %" PRId64 " ms is not believed yet",
                 _time.moved());
            break;
        case CTimeline::STAMPED:
            stamp();
            break;
        default:
            break;
    }
}

// The clock is trusted for the first time: what was collected by the monotonic clock moves to where
// it belongs, in whole intervals. What is left of the step is one like any other.
void CRecorder::CImpl::stamp()
{
    const int64_t whole = _time.whole();
    tell(NOTICE_CLOCK, "the clock is trusted: %zu rows are stamped %" PRId64 " s later",
         _queue->size(), whole / MS_PER_SECOND);
    _queue->retain([&](queued_row_t& row) {
        row._time += whole;
        return true;
    });
    for (parameter_t& param : _params)
        param.shift(whole);
    for (device_t& device : _devices) {
        if (device._taken >= 0) device._taken += whole / MS_PER_SECOND;
        feed_t& open = device._open;
        open._known.shift(whole);
        open._start += whole;
        open._end += whole;
        // What is stored was recorded by a clock that was ahead: it goes on from there.
        const int64_t stored = device._found * MS_PER_SECOND;
        if (device._ready || open._start >= stored) continue;
        make_late(device);
        begin_interval(device, open, stored);
    }
}

void CRecorder::CImpl::close_intervals()
{
    for (device_t& device : _devices)
        if (!device._ready && _time.now() > device._open._end)
            close_until(device, device._open, _time.now());
}

void CRecorder::CImpl::record_own_counters()
{
    if (_own_params.empty()) return;
    const parameter_t& first = _params[_own_params[0]];
    const int64_t now = _time.now();
    if (now <= first._last || now <= _devices[first._device]._open._start) return;

    const auto count = [&](std::initializer_list<notice_t> notices) {
        uint64_t sum = 0;
        for (const notice_t notice : notices)
            sum += _stats._notices[notice];
        return sum;
    };
    const uint64_t counted[] = {
        count({NOTICE_LATE, NOTICE_FUTURE, NOTICE_DUPLICATE, NOTICE_NOT_FINITE,
               NOTICE_OUT_OF_LIMITS, NOTICE_OFF_GRID, NOTICE_UNKNOWN}),
        count({NOTICE_OVERFLOW, NOTICE_REJECTED, NOTICE_GAP}),
        count({NOTICE_BUSY, NOTICE_FULL, NOTICE_FAILED}), _stats._clock_steps};
    take(_params[_own_params[0]], static_cast<double>(_queue->bytes()), now);
    take(_params[_own_params[1]], static_cast<double>(_last_commit_ms), now);
    for (size_t i = 0; i < _own_recorded.size(); ++i) {
        take(_params[_own_params[2 + i]], static_cast<double>(counted[i] - _own_recorded[i]), now);
        _own_recorded[i] = counted[i];
    }
}

}  // namespace toolkit::trend
