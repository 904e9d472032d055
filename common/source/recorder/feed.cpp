#include <algorithm>
#include <cinttypes>
#include <cmath>

#include "columns.h"
#include "recorder/impl.h"

// From readings and snapshots to rows of the queue. Nothing here allocates or touches the file.

namespace toolkit::trend {

namespace {

// The end of the interval that the moment lies in. No row ends at 0.
int64_t end_of(int64_t moment, int64_t step)
{
    return std::max((moment + step - 1) / step * step, step);
}

int64_t start_of(int64_t moment, int64_t step) { return end_of(moment, step) - step; }

bool is_within(double value, double lowest, double highest)
{
    return value >= lowest && value <= highest;
}

}  // namespace

size_t CRecorder::CImpl::number_of(const parameter_t& param) const
{
    return static_cast<size_t>(&param - _params.data()) - _devices[param._device]._first;
}

const tk_string& CRecorder::CImpl::path_of(const parameter_t& param) const
{
    return _devices[param._device]._data._params[number_of(param)]._path;
}

// Readings -------------------------------------------------------------------------------------

int CRecorder::CImpl::push(recorder_handle_t handle, double value, int64_t moment)
{
    if (handle >= _params.size())
        return tell(NOTICE_UNKNOWN, "no parameter has the handle %" PRIu32, handle);
    parameter_t& param = _params[handle];
    if (moment > _time.latest())
        return tell(NOTICE_FUTURE, "'%s': the moment %" PRId64 " is %" PRId64 " ms ahead",
                    path_of(param).c_str(), moment, moment - (_time.now() - _time.shift()));
    // A negative one is no moment, and might not be shifted.
    return take(param, value, moment < 0 ? -1 : moment + _time.shift());
}

int CRecorder::CImpl::push_now(recorder_handle_t handle, double value)
{
    if (handle >= _params.size())
        return tell(NOTICE_UNKNOWN, "no parameter has the handle %" PRIu32, handle);
    return take(_params[handle], value, _time.present());
}

int CRecorder::CImpl::take(parameter_t& param, double value, int64_t moment)
{
    if (_in_use) return called_while_telling();
    device_t& device = _devices[param._device];
    if (device._ready)
        return tell(NOTICE_UNKNOWN, "'%s': its device takes snapshots", path_of(param).c_str());
    if (!std::isfinite(value))
        return tell(NOTICE_NOT_FINITE, "'%s': a reading that is no number", path_of(param).c_str());
    if (value < param._lowest || value > param._highest)
        return tell(NOTICE_OUT_OF_LIMITS, "'%s': %g is not within %g and %g",
                    path_of(param).c_str(), value, param._lowest, param._highest);
    if (moment <= device._open._start && is_kept_aside(moment)) {
        if (!device._has_late || moment <= device._late._start) begin_late(device, moment);
        device._late_taken = _time.monotonic();
        return take(device, device._late, number_of(param), value, moment);
    }
    return take(device, device._open, number_of(param), value, moment);
}

// A reading that is right by itself; whether it follows on the others of the feed is not known.
int CRecorder::CImpl::take(device_t& device, feed_t& feed, size_t number, double value,
                           int64_t moment)
{
    parameter_t& param = param_of(device, feed, number);
    const tk_string& path = device._data._params[number]._path;
    const bool is_total = param._kind == READING_TOTAL;
    if (!is_total && moment == param._last)
        return tell(NOTICE_DUPLICATE, "'%s': a second reading of the moment %" PRId64, path.c_str(),
                    moment);
    if (moment <= feed._start || (!is_total && moment < param._last))
        return tell(NOTICE_LATE, "'%s': the moment %" PRId64 " is %" PRId64 " ms late",
                    path.c_str(), moment,
                    std::max(feed._start, is_total ? feed._start : param._last) - moment);

    // Judged before anything changes, since it may be refused.
    parameter_t::step_t step = parameter_t::STEP_START;
    if (param._kind == READING_COUNTER) {
        step = param.step_of(value, moment);
        if (step == parameter_t::STEP_JUMP)
            return tell(NOTICE_OUT_OF_LIMITS, "'%s': rises by %g within %" PRId64 " ms",
                        path.c_str(), value - param._value, moment - param._last);
    }

    if (moment > feed._end) close_until(device, feed, moment);
    switch (param._kind) {
        case READING_TOTAL:
            param.take_total(value);
            break;
        case READING_COUNTER:
            if (step == parameter_t::STEP_RESET) ++_stats._resets;
            if (step == parameter_t::STEP_GAP)
                tell(NOTICE_GAP, "'%s': an increment of %g over %" PRId64 " ms", path.c_str(),
                     value - param._value, moment - param._last);
            param.take_counter(step, value, moment, feed._known);
            break;
        default:
            param.take_gauge(value, moment, feed._known);
    }
    ++feed._readings;
    ++_stats._readings;
    return NOTICE_NONE;
}

// Intervals ------------------------------------------------------------------------------------

const parameter_t& CRecorder::CImpl::param_of(const device_t& device, const feed_t& feed,
                                              size_t number) const
{
    return (feed._is_late ? _late_params : _params)[device._first + number];
}

parameter_t& CRecorder::CImpl::param_of(const device_t& device, const feed_t& feed, size_t number)
{
    return (feed._is_late ? _late_params : _params)[device._first + number];
}

int64_t CRecorder::CImpl::held_until(const device_t& device, const feed_t& feed) const
{
    int64_t until = NO_MOMENT;
    for (size_t i = 0; i < device._data._params.size(); ++i) {
        const parameter_t& param = param_of(device, feed, i);
        if (param.is_gauge()) until = std::max(until, param.known_until());
    }
    return until;
}

void CRecorder::CImpl::begin_interval(const device_t& device, feed_t& feed, int64_t start)
{
    feed._start = start;
    feed._end = start + _step;
    feed._readings = 0;
    feed._known.begin(feed._start, feed._end);
    for (size_t i = 0; i < device._data._params.size(); ++i)
        param_of(device, feed, i).begin(start, feed._known);
}

// Closes what ends before the moment.
void CRecorder::CImpl::close_until(device_t& device, feed_t& feed, int64_t moment)
{
    while (moment > feed._end) {
        close_interval(device, feed);
        // Nothing holds any longer: what follows is blank, and needs no row to say so.
        const bool blank = held_until(device, feed) <= feed._end;
        begin_interval(device, feed, blank ? start_of(moment, _step) : feed._end);
    }
}

void CRecorder::CImpl::close_interval(device_t& device, feed_t& feed)
{
    bool seen = false;
    for (size_t i = 0; i < device._data._params.size(); ++i) {
        parameter_t& param = param_of(device, feed, i);
        param.advance(feed._end);
        device._snapshot._samples[i] = param.sample();
        seen = seen || param._seen || param._has_sum;
    }
    if (!seen) return;
    device._snapshot._percent_valid = percent_valid(device, feed, feed._end);
    enqueue(feed._is_late ? *_late : *_queue, device, feed._end, device._snapshot);
}

double CRecorder::CImpl::percent_valid(const device_t& device, const feed_t& feed,
                                       int64_t now) const
{
    if (device._has_totals_only) return feed._readings > 0 ? 100.0 : 0.0;
    const int64_t known = std::max<int64_t>(feed._known.known(now), 0);
    return 100.0 * static_cast<double>(known) / static_cast<double>(_step);
}

void CRecorder::CImpl::enqueue(CRowQueue& queue, const device_t& device, int64_t time,
                               const CSnapshot& snapshot)
{
    size_t n = 0;
    for (size_t i = 0; i < device._data._params.size(); ++i)
        for (const aggregate_t& aggregate : AGGREGATES)
            if (device._data._params[i].*aggregate._kept)
                _values[n++] = (snapshot._samples[i].*aggregate._value)._val;

    queued_row_t row;
    row._device = static_cast<uint32_t>(&device - _devices.data());
    row._time = time;
    row._percent_valid = snapshot._percent_valid;
    row._values = _values.data();
    row._num_values = n;
    enqueue(queue, row);
}

void CRecorder::CImpl::enqueue(CRowQueue& queue, const queued_row_t& row)
{
    const bool is_late = _late && &queue == &*_late;
    while (!queue.has_room(row._num_values)) {
        const queued_row_t oldest = queue.pop();
        tell(NOTICE_OVERFLOW, "'%s': the %srow of %" PRId64 " is given up",
             _devices[oldest._device]._data._device._path.c_str(), is_late ? "late " : "",
             oldest._time / MS_PER_SECOND);
    }
    if (is_late && queue.size() == 0) _next_merge = _time.monotonic() + _options._merge_every_ms;
    queue.push(row);
}

// Snapshots ------------------------------------------------------------------------------------

int CRecorder::CImpl::record(recorder_handle_t handle, const CSnapshot& snapshot)
{
    if (_in_use) return called_while_telling();
    if (handle >= _devices.size())
        return tell(NOTICE_UNKNOWN, "no device has the handle %" PRIu32, handle);
    device_t& device = _devices[handle];
    const char* path = device._data._device._path.c_str();
    if (!device._ready) return tell(NOTICE_UNKNOWN, "'%s': the device takes readings", path);
    if (snapshot._samples.size() != device._data._params.size())
        return tell(NOTICE_MISUSE, "'%s': a snapshot of %zu parameters, not %zu", path,
                    snapshot._samples.size(), device._data._params.size());

    const double percent = snapshot._percent_valid;
    if (!std::isfinite(percent))
        return tell(NOTICE_NOT_FINITE, "'%s': a percent valid that is no number", path);
    if (percent < 0.0 || percent > 100.0)
        return tell(NOTICE_OUT_OF_LIMITS, "'%s': %g percent valid", path, percent);
    for (size_t i = 0; i < snapshot._samples.size(); ++i) {
        const parameter_t& param = _params[device._first + i];
        for (const aggregate_t& aggregate : AGGREGATES) {
            const COptVal& value = snapshot._samples[i].*aggregate._value;
            if (!(device._data._params[i].*aggregate._kept) || !value) continue;
            if (!std::isfinite(*value))
                return tell(NOTICE_NOT_FINITE, "'%s': a value of '%s' that is infinite", path,
                            path_of(param).c_str());
            if (aggregate._kept != &CParamProperties::_has_sum &&
                !is_within(*value, param._lowest, param._highest))
                return tell(NOTICE_OUT_OF_LIMITS, "'%s': %g is not within %g and %g",
                            path_of(param).c_str(), *value, param._lowest, param._highest);
        }
    }

    const int64_t time = int64_t{snapshot._time};
    if (time > _time.latest() / MS_PER_SECOND)
        return tell(NOTICE_FUTURE, "'%s': the time %" PRId64 " is ahead", path, time);
    if (time <= 0 || time * MS_PER_SECOND % _step != 0)
        return tell(NOTICE_OFF_GRID, "'%s': no interval ends at %" PRId64, path, time);
    // The clock on the wall may not be what the time goes by.
    const int64_t moment = time * MS_PER_SECOND + _time.shift() + _step / 2;
    const int64_t end = moment / _step * _step / MS_PER_SECOND;
    const int64_t newest = std::max(device._taken, device._latest);
    if (end == newest) return tell(NOTICE_DUPLICATE, "'%s': a second row of %" PRId64, path, end);
    if (end < newest && is_kept_aside(end)) {
        enqueue(*_late, device, end * MS_PER_SECOND, snapshot);
        ++_stats._snapshots;
        return NOTICE_NONE;
    }
    if (end < newest || end <= 0)
        return tell(NOTICE_LATE, "'%s': the row of %" PRId64 " is older than that of %" PRId64,
                    path, end, newest);

    enqueue(*_queue, device, end * MS_PER_SECOND, snapshot);
    device._taken = end;
    device._snapshot._samples = snapshot._samples;
    device._snapshot._percent_valid = percent;
    ++_stats._snapshots;
    return NOTICE_NONE;
}

// The open interval ------------------------------------------------------------------------------

int CRecorder::CImpl::get_open_interval(recorder_handle_t handle, CSnapshot& snapshot)
{
    if (handle >= _devices.size())
        return tell(NOTICE_UNKNOWN, "no device has the handle %" PRIu32, handle);
    const device_t& device = _devices[handle];
    if (device._ready) {
        snapshot = device._snapshot;
        snapshot._time = static_cast<time_t>(device._taken);
        return NOTICE_NONE;
    }

    const feed_t& open = device._open;
    const int64_t now = std::clamp(_time.present(), open._start, open._end);
    snapshot._period = _periods[0]._period;
    snapshot._time = static_cast<time_t>(open._end / MS_PER_SECOND);
    snapshot._percent_valid = percent_valid(device, open, now);
    snapshot._samples.clear();
    for (size_t i = 0; i < device._data._params.size(); ++i) {
        parameter_t param = _params[device._first + i];
        param.advance(now);
        snapshot._samples.push_back(param.sample());
    }
    return NOTICE_NONE;
}

}  // namespace toolkit::trend
