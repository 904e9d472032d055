#include <algorithm>
#include <cinttypes>

#include "columns.h"
#include "recorder/impl.h"
#include "trend/access.h"
#include "trend_transaction.h"

// From rows of the queue into the log: all that waits in one transaction, as often as it takes.

namespace toolkit::trend {

namespace {

constexpr int64_t FIRST_PAUSE = 1000;

time_t seconds(int64_t time) { return static_cast<time_t>(time); }

}  // namespace

// A device that is fed with readings has blank rows up to where its intervals are closed; snapshots
// may still come.
bool CRecorder::CImpl::is_due(const device_t& device) const
{
    return !device._ready && device._latest >= 0 &&
           device._open._start / MS_PER_SECOND - device._latest >= _step / MS_PER_SECOND;
}

bool CRecorder::CImpl::is_anything_due() const
{
    return _queue->size() > 0 ||
           std::any_of(_devices.begin(), _devices.end(),
                       [&](const device_t& device) { return is_due(device); });
}

// What is stored within a transaction of the host's is not there before that ends, and never if it
// is rolled back: nothing would be left to repeat it.
bool CRecorder::CImpl::is_inside_transaction() const
{
    return _log->is_open() && log_access_t::connection(*_log)->in_transaction();
}

int CRecorder::CImpl::commit(bool at_once)
{
    if (!is_anything_due()) return 0;
    if (!_time.is_stamped())
        return at_once ? tell(NOTICE_CLOCK, "nothing is committed before the clock is trusted") : 0;
    const int64_t now = _time.monotonic();
    if (!at_once && (now < _next_try || now - _last_commit < _options._commit_every_ms)) return 0;

    if (is_inside_transaction()) return failed_commit(NOTICE_MISUSE, now);
    if (is_busy()) return failed_commit(NOTICE_BUSY, now);
    int failed = store(nullptr);
    if (failed) {
        const notice_t why = why_it_failed();
        if (why != NOTICE_FAILED || _devices.size() == 1) return failed_commit(why, now);
        // What the log refuses of one device must not keep those of the others out.
        failed = 0;
        for (const device_t& device : _devices)
            if (store(&device) != 0) failed = -1;
        if (failed) return failed_commit(NOTICE_FAILED, now);
    }

    _last_commit = now;
    _pause = _next_try = 0;
    return 0;
}

const char* CRecorder::CImpl::reason(notice_t notice)
{
    return notice == NOTICE_MISUSE ? "the host has a transaction open on the log"
           : notice == NOTICE_BUSY ? "another process is writing the file"
           : notice == NOTICE_FULL ? "the disk is full"
                                   : "the log has refused the commit";
}

int CRecorder::CImpl::failed_commit(notice_t notice, int64_t now)
{
    _pause = std::clamp(_pause * 2, FIRST_PAUSE, LONGEST_PAUSE);
    _next_try = now + _pause;
    return tell(notice, "%s: %zu rows wait, the next attempt is in %" PRId64 " ms", reason(notice),
                _queue->size(), _pause);
}

// Stores what waits, of all devices or of one, in one transaction.
int CRecorder::CImpl::store(const device_t* only)
{
    if (!_log->is_open()) return -1;
    const int64_t began = _time.present();
    CTransaction whole(*_log);
    if (whole.failed()) return -1;
    const int failed = store_rows(only);
    if (failed || whole.commit() != 0) {
        forget_attempt(only, !failed);
        return -1;
    }

    settle_rows(only);
    ++_stats._commits;
    _last_commit_ms = _time.present() - began;
    _stats._slowest_commit_ms = std::max(_stats._slowest_commit_ms, _last_commit_ms);
    return 0;
}

// What has been stored by a commit that failed at its end, if it has been, is seen at the next
// attempt, by the newest rows.
void CRecorder::CImpl::forget_attempt(const device_t* only, bool in_doubt)
{
    for (device_t& device : _devices) {
        if (only && only != &device) continue;
        if (in_doubt) device._attempted = device._latest;
        device._latest = device._found;
    }
}

int CRecorder::CImpl::store_rows(const device_t* only)
try {
    if (check_periods() != 0) return -1;
    for (device_t& device : _devices) {
        if (only && only != &device) continue;
        time_t latest = -1;
        if (_log->get_latest_timestamp(device._data._device, latest) != 0) return -1;
        device._found = device._latest = int64_t{latest};
    }
    // Device by device: the pages of one at a time have to be in memory, or all of them would be
    // written again and again where there are many.
    const int failed = _queue->visit_by_device([&](const queued_row_t& row) {
        device_t& device = _devices[row._device];
        return only && only != &device ? 0 : store_row(device, row);
    });
    if (failed) return failed;

    for (device_t& device : _devices) {
        if ((only && only != &device) || !is_due(device)) continue;
        const int64_t closed = device._open._start / MS_PER_SECOND;
        if (_log->fill_blank_values(device._data._device, seconds(closed), false) != 0) return -1;
        device._latest = closed;
    }
    return 0;
} catch (...) {
    return -1;  // out of memory
}

// Filling and recording stop the process in a log without periods, and coarse rows leave the clock
// where one has been added in between.
int CRecorder::CImpl::check_periods()
{
    std::vector<CPeriodProperties> periods;
    if (_log->get_periods(periods) != 0) return -1;
    const auto is_same = [](const CPeriodProperties& a, const CPeriodProperties& b) {
        return a._period == b._period;
    };
    if (std::equal(periods.begin(), periods.end(), _periods.begin(), _periods.end(), is_same))
        return 0;
    return tell(NOTICE_MISUSE, "the periods of the file have changed: open it anew");
}

int CRecorder::CImpl::store_row(device_t& device, const queued_row_t& row)
{
    // Stored by a commit in doubt, or too late.
    if (row._time / MS_PER_SECOND <= device._latest) return 0;
    read_row(device, row, _row);
    return store_snapshot(device, _row);
}

// A row that is newer than all that are stored.
int CRecorder::CImpl::store_snapshot(device_t& device, const CSnapshot& snapshot)
{
    const int64_t time = int64_t{snapshot._time};
    const int64_t step = _step / MS_PER_SECOND;
    if (device._latest < 0)
        if (const int failed = seed(device, time)) return failed;
    if (device._latest >= 0 && time - device._latest > step)
        if (const int failed =
                _log->fill_blank_values(device._data._device, seconds(time - step), false))
            return failed;

    if (const int failed = _log->add_trend_data(device._data, snapshot)) return failed;
    device._latest = time;
    return 0;
}

void CRecorder::CImpl::read_row(const device_t& device, const queued_row_t& row,
                                CSnapshot& snapshot) const
{
    snapshot._time = seconds(row._time / MS_PER_SECOND);
    snapshot._percent_valid = row._percent_valid;
    snapshot._samples.clear();
    const double* value = row._values;
    for (const CParamProperties& param : device._data._params) {
        CSample& sample = snapshot._samples.emplace_back();
        for (const aggregate_t& aggregate : AGGREGATES)
            if (param.*aggregate._kept) (sample.*aggregate._value)._val = *value++;
    }
}

// The first row of a device comes after a blank one just behind the boundary of the coarsest
// period: from there on every group of rows ends where the clock does.
int CRecorder::CImpl::seed(device_t& device, int64_t time)
{
    const time_t boundary =
        CLog::previous_interval_boundary(_periods.back()._period, seconds(time - 1));
    const int64_t first = int64_t{boundary} + _step / MS_PER_SECOND;
    if (first >= time) return 0;
    _blank._time = seconds(first);
    _blank._percent_valid = 0.0;
    _blank._samples.assign(device._data._params.size(), CSample());
    if (const int failed = _log->add_trend_data(device._data, _blank)) return failed;
    device._latest = first;
    return 0;
}

// Lets go of the rows that a commit has dealt with.
void CRecorder::CImpl::settle_rows(const device_t* only)
{
    _queue->retain([&](const queued_row_t& row) {
        const device_t& device = _devices[row._device];
        if (only && only != &device) return true;
        const int64_t time = row._time / MS_PER_SECOND;
        const bool was_there = time <= device._found;
        const bool by_us = device._attempted >= 0 && device._attempted <= device._found &&
                           time <= device._attempted;
        if (was_there && !by_us && merges())
            enqueue(*_late, row);
        else if (was_there && !by_us)
            tell(NOTICE_REJECTED, "'%s': the row of %" PRId64 " is older than that of %" PRId64,
                 device._data._device._path.c_str(), time, device._found);
        else
            ++_stats._rows;
        return false;
    });
    for (device_t& device : _devices) {
        if (only && only != &device) continue;
        device._attempted = -1;
        device._found = device._latest;
        if (device._latest > int64_t{_stats._newest_committed})
            _stats._newest_committed = seconds(device._latest);
    }
}

}  // namespace toolkit::trend
