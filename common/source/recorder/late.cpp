#include <algorithm>
#include <cinttypes>

#include "columns.h"
#include "recorder/impl.h"
#include "trend_repair.h"
#include "trend_transaction.h"

// What comes too late for the rows in their order: it is kept aside, and from time to time it takes
// the place of blank rows.

namespace toolkit::trend {

// Late rows of one device that go into the log in one transaction, and what becomes of them.
struct CRecorder::CImpl::batch_t {
    static constexpr size_t MOST = 500;  // as snapshots they take several times what they did

    std::vector<CSnapshot> _rows;  // oldest first
    size_t _taken = 0;             // that many of the queue
    uint64_t _merged = 0;
    uint64_t _refused = 0;  // there was a row with values
    uint64_t _too_old = 0;  // for the finest period, or for the device
};

namespace {

bool is_same(const COptVal& a, const COptVal& b) { return (!a && !b) || (a && b && *a == *b); }

}  // namespace

// Readings ---------------------------------------------------------------------------------------

// Before the clock is trusted no moment says what is late.
bool CRecorder::CImpl::is_kept_aside(int64_t moment) const
{
    return merges() && _time.is_stamped() && moment > 0;
}

// Late readings follow on each other as others do. One that is older than their open interval
// begins anew.
void CRecorder::CImpl::begin_late(device_t& device, int64_t moment)
{
    end_late(device);
    device._has_late = true;
    device._late._is_late = true;
    for (size_t i = 0; i < device._data._params.size(); ++i)
        param_of(device, device._late, i)._last = NO_MOMENT;
    begin_interval(device, device._late, (moment - 1) / _step * _step);
}

// What a reading holds beyond its interval is not followed up: where that has rows it would only be
// refused.
void CRecorder::CImpl::end_late(device_t& device)
{
    if (device._has_late) close_interval(device, device._late);
    device._has_late = false;
}

// The same for all to which nothing has come for so long.
void CRecorder::CImpl::end_late(int64_t idle)
{
    const int64_t now = _time.monotonic();
    const bool was_empty = _late && _late->size() == 0;
    for (device_t& device : _devices)
        if (device._has_late && now - device._late_taken >= idle) end_late(device);
    if (was_empty && _late->size() > 0) _next_merge = now;  // they have waited
}

// The open interval turns out to be one of times that are stored.
void CRecorder::CImpl::make_late(device_t& device)
{
    if (device._open._readings == 0) return;
    if (!merges()) {
        _stats._notices[NOTICE_LATE] += device._open._readings - 1;
        tell(NOTICE_LATE, "'%s': %" PRIu64 " readings of an interval that is stored",
             device._data._device._path.c_str(), device._open._readings);
        return;
    }
    device._late = device._open;
    device._late._is_late = device._has_late = true;
    device._late_taken = _time.monotonic();
    for (size_t i = 0; i < device._data._params.size(); ++i)
        param_of(device, device._late, i) = param_of(device, device._open, i);
}

// Merging ----------------------------------------------------------------------------------------

// Only when nothing else waits: what is newer than the newest row is not late.
int CRecorder::CImpl::merge(bool at_once)
{
    if (!_late || _late->size() == 0) return 0;
    const int64_t now = _time.monotonic();
    if ((!at_once && now < _next_merge) || is_anything_due()) return 0;

    int failed = is_inside_transaction() ? NOTICE_MISUSE : 0;
    for (device_t& device : _devices) {
        if (failed && failed != NOTICE_FAILED) break;
        if (const int why = merge_device(device)) failed = why;
    }
    if (!failed) return 0;
    const int64_t pause = std::max(LONGEST_PAUSE, _options._merge_every_ms);
    _next_merge = now + pause;
    const auto why = static_cast<notice_t>(failed);
    return tell(why, "%s: %zu late rows wait, the next attempt is in %" PRId64 " ms", reason(why),
                _late->size(), pause);
}

// All that waits of the device. The result is a notice.
int CRecorder::CImpl::merge_device(device_t& device)
try {
    for (;;) {
        batch_t batch;
        static_cast<void>(_late->visit([&](const queued_row_t& row) {
            if (&_devices[row._device] != &device) return 0;
            read_row(device, row, batch._rows.emplace_back());
            return batch._rows.size() == batch_t::MOST ? 1 : 0;
        }));
        if (batch._rows.empty()) return 0;
        batch._taken = batch._rows.size();
        std::stable_sort(batch._rows.begin(), batch._rows.end(),
                         [](const CSnapshot& a, const CSnapshot& b) { return a._time < b._time; });
        if (is_busy()) return NOTICE_BUSY;
        if (merge_batch(device, batch) != 0) return why_it_failed();
        settle_batch(device, batch);
    }
} catch (...) {
    device._latest = device._found;
    return why_it_failed();
}

int CRecorder::CImpl::merge_batch(device_t& device, batch_t& batch)
{
    if (!_log->is_open()) return -1;
    CTransaction whole(*_log);
    if (whole.failed()) return -1;
    const int failed = merge_rows(device, batch);
    if (failed || whole.commit() != 0) {
        device._is_merge_in_doubt = device._is_merge_in_doubt || !failed;
        device._latest = device._found;
        return -1;
    }
    device._is_merge_in_doubt = false;
    device._found = device._latest;
    return 0;
}

int CRecorder::CImpl::merge_rows(device_t& device, batch_t& batch)
{
    if (check_periods() != 0) return -1;
    time_t latest = -1;
    if (_log->get_latest_timestamp(device._data._device, latest) != 0) return -1;
    device._found = device._latest = int64_t{latest};
    if (device._is_merge_in_doubt)
        if (const int failed = leave_out_stored(device, batch)) return failed;

    CRebuildRequest request;
    CRebuildResult result;
    request._device = device._data._device;
    request._params = device._data._params;
    int64_t begin = -1;
    if (const int failed = find_begin(device, begin)) return failed;
    const auto first_after = [&](int64_t time) {
        return std::find_if(batch._rows.begin(), batch._rows.end(),
                            [&](const CSnapshot& row) { return int64_t{row._time} > time; });
    };
    const auto first = first_after(begin), newer = first_after(int64_t{latest});
    batch._too_old = static_cast<uint64_t>(first - batch._rows.begin());
    request._rows.assign(first, newer);
    if (!request._rows.empty()) {
        request._bounds = {request._rows.front()._time, request._rows.back()._time};
        if (rebuild(*_log, request, result) != 0) return -1;
    }
    batch._merged += result._merged;
    batch._refused += result._refused;
    batch._too_old += result._too_old;

    // What is newer than the newest row is late for the recorder only: rows have been given up, or
    // there are none yet.
    for (auto row = newer; row != batch._rows.end(); ++row) {
        const bool is_there = int64_t{row->_time} <= device._latest;
        if (!is_there)
            if (const int failed = store_snapshot(device, *row)) return failed;
        ++(is_there ? batch._refused : batch._merged);
    }
    return 0;
}

// Where the device's rows begin, which is on a boundary of the coarsest period; -1 without rows.
// What is older would move that: rows before it would have to be filled, up to one group of the
// coarsest period, which may be more than the finest one keeps.
int CRecorder::CImpl::find_begin(const device_t& device, int64_t& begin)
{
    for (const CPeriodProperties& period : _periods) {
        CDeviceData found;
        if (_log->get_trend_data(found, device._data, {period}, {-1, -1}, 1, 0, true, false) != 0)
            return -1;
        if (found._snapshots.empty()) continue;
        const int64_t oldest =
            int64_t{found._snapshots[0]._time} - static_cast<int64_t>(period._period) * 60;
        begin = begin < 0 ? oldest : std::min(begin, oldest);
    }
    return 0;
}

// What a commit in doubt has stored would meet itself.
int CRecorder::CImpl::leave_out_stored(const device_t& device, batch_t& batch)
{
    const auto is_stored = [&](const CSnapshot& row, const CSnapshot& stored) {
        bool same = row._percent_valid == stored._percent_valid;
        for (size_t i = 0; i < row._samples.size(); ++i)
            for (const aggregate_t& aggregate : AGGREGATES)
                if (device._data._params[i].*aggregate._kept)
                    same = same && is_same(row._samples[i].*aggregate._value,
                                           stored._samples[i].*aggregate._value);
        return same;
    };
    std::vector<CSnapshot> left;
    for (const CSnapshot& row : batch._rows) {
        CDeviceData found;
        if (_log->get_trend_data(found, device._data, {_periods[0]}, {row._time, row._time}, 1, 0,
                                 true, false) != 0)
            return -1;
        if (!found._snapshots.empty() && is_stored(row, found._snapshots[0]))
            ++batch._merged;
        else
            left.push_back(row);
    }
    batch._rows = std::move(left);
    return 0;
}

// Lets go of the rows that have been dealt with.
void CRecorder::CImpl::settle_batch(device_t& device, const batch_t& batch)
{
    size_t left = batch._taken;
    _late->retain([&](const queued_row_t& row) {
        if (left == 0 || &_devices[row._device] != &device) return true;
        --left;
        return false;
    });
    const char* path = device._data._device._path.c_str();
    _stats._merged += batch._merged;
    if (device._latest > int64_t{_stats._newest_committed})
        _stats._newest_committed = static_cast<time_t>(device._latest);
    if (batch._merged > 0) tell(NOTICE_MERGED, "'%s': %" PRIu64 " late rows", path, batch._merged);
    const uint64_t lost = batch._refused + batch._too_old;
    if (lost == 0) return;
    _stats._notices[NOTICE_LATE] += lost - 1;
    tell(NOTICE_LATE, "'%s': %" PRIu64 " rows meet others with values, %" PRIu64 " are too old",
         path, batch._refused, batch._too_old);
}

}  // namespace toolkit::trend
