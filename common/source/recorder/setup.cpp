#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <thread>

#include "recorder/impl.h"
#include "trend/checks.h"

// Opening and letting go.

namespace toolkit::trend {

namespace {

const std::vector<CPeriodProperties>& usual_periods()
{
    static const std::vector<CPeriodProperties> periods = {{1, 2880}, {15, 2976}, {1440, 3660}};
    return periods;
}

}  // namespace

int CRecorder::CImpl::open(const tk_string* name, CLog* log, const CRecorderOptions& options)
{
    if (_log) return is_inherited() ? check_usable() : tell(NOTICE_MISUSE, "it is open already");
    _options = options;
    _stats = CRecorderStats();
    _process = getpid();
    if (const int failed = check_options()) return failed;
    _queue.emplace(_options._max_bytes);
    _late.reset();
    if (merges()) _late.emplace(_options._late_bytes);
    _devices.reserve(_options._max_devices);

    _is_unsettled = false;
    if (name) {
        _name = *name;
        if (const int failed = open_log(*name)) return failed;
    } else {
        if (!log->is_open()) return tell(NOTICE_MISUSE, "the log is not open");
        _log = log;
    }
    if (const int failed = settle_periods()) return failed;

    CRecorderClock& clock = _options._clock ? *_options._clock : system_clock();
    _step = static_cast<int64_t>(_periods[0]._period) * 60 * MS_PER_SECOND;
    _time.start(clock, _options._max_ahead_ms, _options._believe_after_ms, _step);
    _last_commit = _time.monotonic();
    return _options._own_device.empty() ? 0 : attach_own_device();
}

void CRecorder::CImpl::let_go()
{
    _side.reset();
    _own_log.reset();
    _log = nullptr;
    _name.clear();
    _periods.clear();
    _devices.clear();
    _params.clear();
    _late_params.clear();
    _own_params.clear();
    _own_recorded.clear();
    _queue.reset();
    _late.reset();
    _next_try = _pause = 0;
}

bool CRecorder::CImpl::is_inherited() const { return getpid() != _process; }

CRecorder::CImpl::~CImpl()
{
    // A child must not close its copies of the connections: they have the parent's file open.
    if (_log && is_inherited()) {
        static_cast<void>(_own_log.release());
        static_cast<void>(_side.release());
    }
}

int CRecorder::CImpl::check_options()
{
    const CRecorderOptions& options = _options;
    const auto is_duration = [](int64_t value, int64_t least) {
        return value >= least && value <= LONGEST_DURATION;
    };
    const char* wrong = nullptr;
    if (options._max_devices == 0 || options._max_devices > 1000000) wrong = "_max_devices";
    if (!is_duration(options._hold_ms, 1)) wrong = "_hold_ms";
    if (!is_duration(options._max_gap_ms, 1)) wrong = "_max_gap_ms";
    if (!is_duration(options._commit_every_ms, 0)) wrong = "_commit_every_ms";
    if (options._late < LATE_REFUSE || options._late >= LATE_LISTEND) wrong = "_late";
    if (!is_duration(options._merge_every_ms, 0)) wrong = "_merge_every_ms";
    if (!is_duration(options._max_ahead_ms, 1)) wrong = "_max_ahead_ms";
    if (!is_duration(options._believe_after_ms, 0)) wrong = "_believe_after_ms";
    if (wrong) return tell(NOTICE_MISUSE, "the option %s is out of its range", wrong);
    return options._periods.empty() ? 0 : judge_periods(options._periods);
}

// Coarse rows stay on the clock only where every table keeps two groups of the next one.
int CRecorder::CImpl::judge_periods(const std::vector<CPeriodProperties>& periods)
{
    for (size_t i = 0; i < periods.size(); ++i) {
        const unsigned long length = periods[i]._period;
        if (!is_storable(length)) return tell(NOTICE_MISUSE, "a period of %lu minutes", length);
        if (i == 0) continue;
        const unsigned long finer = periods[i - 1]._period, ratio = length / finer;
        if (ratio < 2 || length % finer != 0)
            return tell(NOTICE_MISUSE,
                        "the period of %lu minutes is no multiple, at least twice, of that of %lu",
                        length, finer);
        if (periods[i - 1]._max_entries / 2 < ratio)
            return tell(NOTICE_MISUSE,
                        "the period of %lu minutes keeps %zu rows, less than two groups of %lu",
                        finer, periods[i - 1]._max_entries, ratio);
    }
    const auto keeps_none = [](const CPeriodProperties& period) {
        return !is_storable(period._max_entries);
    };
    if (std::any_of(periods.begin(), periods.end(), keeps_none))
        return tell(NOTICE_MISUSE, "a period that keeps no row, or more than can be counted");
    return 0;
}

// While another process makes the file or is the last one to close it, opening can fail at once
// where other calls would wait.
int CRecorder::CImpl::open_log(const tk_string& name)
{
    constexpr int ATTEMPTS = 20;  // with a millisecond more between them each time
    int failed = -1;
    for (int attempt = 0; failed == -1 && attempt < ATTEMPTS; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt));
        size_t num_periods = 0;
        failed = look_into(name, num_periods);
        if (failed > 0) return failed;
        if (failed == 0) failed = open_connections(name, num_periods);
    }
    if (failed) return tell(NOTICE_FAILED, "'%s' cannot be opened", name.c_str());
    _log = _own_log.get();
    return 0;
}

// The result is the log's.
int CRecorder::CImpl::open_connections(const tk_string& name, size_t num_periods)
{
    if (num_periods == 0)
        num_periods = (_options._periods.empty() ? usual_periods() : _options._periods).size();
    const size_t pool = 5 * _options._max_devices * num_periods + 8;
    _side.reset();
    _own_log = std::make_unique<CLog>();
    if (const int failed = _own_log->open(name, false, true, pool, false, 0, _options._cache_bytes,
                                          0, _options._wal))
        return failed;
    return open_side();
}

// The periods of the file, which a new one gets now.
int CRecorder::CImpl::settle_periods()
{
    const auto& wanted = _options._periods;
    const int failed = in_transaction([&] {
        _periods.clear();
        if (_log->get_periods(_periods) != 0) return -1;
        if (!_periods.empty()) return 0;
        _periods = wanted.empty() ? usual_periods() : wanted;
        for (const CPeriodProperties& period : _periods)
            if (_log->add_period(period) != 0) return -1;
        return 0;
    });
    if (failed) return failed;

    if (const int wrong = judge_periods(_periods)) return wrong;
    if (wanted.empty()) return 0;
    bool same = wanted.size() == _periods.size();
    for (size_t i = 0; same && i < wanted.size(); ++i)
        same = wanted[i]._period == _periods[i]._period;
    if (!same) return tell(NOTICE_MISUSE, "the file has other periods");
    for (size_t i = 0; i < wanted.size(); ++i)
        if (wanted[i]._max_entries != _periods[i]._max_entries)
            tell(NOTICE_REBUILD,
                 "the period of %lu minutes keeps %zu rows in the file, and goes on so",
                 _periods[i]._period, _periods[i]._max_entries);
    return 0;
}

int CRecorder::CImpl::attach_own_device()
{
    CRecorderDevice device;
    device._path = _options._own_device;
    for (const char* path : {"pending_bytes", "commit_ms"}) {
        CRecorderParam param;
        param._path = path;
        param._has_max = true;
        param._hold_ms = 2 * _step;
        device._params.push_back(param);
    }
    for (const char* path : {"refused", "lost", "failed_commits", "clock_steps"}) {
        CRecorderParam param;
        param._path = path;
        param._kind = READING_TOTAL;
        param._has_sum = true;
        device._params.push_back(param);
    }
    CRecorderHandles handles;
    if (const int failed = attach(device, handles)) return failed;
    _own_recorded.assign(4, 0);
    _own_params = handles._params;
    return 0;
}

}  // namespace toolkit::trend
