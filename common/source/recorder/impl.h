#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "recorder/coverage.h"
#include "recorder/parameter.h"
#include "recorder/row_queue.h"
#include "recorder/timeline.h"
#include "trend_recorder.h"

// What the recorder is made of. Readings go into the accumulators of their parameter
// (parameter.cpp); where the clock passes the end of an interval these become a row of the queue
// (feed.cpp, row_queue.cpp); rows go from there into the log, many at once (commit.cpp). What comes
// late takes the same way beside, and is merged (late.cpp).

namespace toolkit::trend {

constexpr int64_t MS_PER_SECOND = 1000;
constexpr int64_t LONGEST_PAUSE = 60'000;                            // after a failed commit
constexpr int64_t LONGEST_DURATION = 10LL * 366 * 24 * 3600 * 1000;  // ten years

// An interval (start, end] of a device that is fed with readings, and how much of it is known. The
// device's parameters have measured it as far as `_readings` go.
struct feed_t {
    int64_t _start = 0;
    int64_t _end = 0;
    CCoverage _known;
    uint64_t _readings = 0;
    bool _is_late = false;
};

struct device_t {
    CDeviceParams _data;     // as add_trend_data() wants it
    CSnapshot _snapshot;     // the interval closed last, or the snapshot taken last
    bool _ready = false;     // fed with snapshots
    size_t _first = 0;       // its parameters begin there
    size_t _num_values = 0;  // of a row

    // Of a device that is fed with readings
    bool _has_totals_only = false;
    feed_t _open;
    feed_t _late;             // beside it, of readings that come late
    bool _has_late = false;   // there is such an interval
    int64_t _late_taken = 0;  // the last such reading, by the monotonic clock

    // In seconds, -1 for none
    int64_t _taken = -1;      // the newest ready row
    int64_t _found = -1;      // the newest row in the file, as far as it is known
    int64_t _latest = -1;     // the same with what the running commit has stored
    int64_t _attempted = -1;  // the newest row of a commit that failed at its end
    bool _is_merge_in_doubt = false;
};

class __attribute__((visibility("hidden"))) CRecorder::CImpl {
public:
    CImpl() = default;
    ~CImpl();

    CImpl(const CImpl&) = delete;
    CImpl& operator=(const CImpl&) = delete;

    // The calls of CRecorder, which handles what they throw.
    int open(const tk_string* name, CLog* log, const CRecorderOptions& options);
    int attach(const CRecorderDevice& wanted, CRecorderHandles& handles);
    int push(recorder_handle_t handle, double value, int64_t moment);
    int push_now(recorder_handle_t handle, double value);
    int record(recorder_handle_t handle, const CSnapshot& snapshot);
    int tick();
    int flush();
    int close();
    int get_open_interval(recorder_handle_t handle, CSnapshot& snapshot);

    bool is_open() const { return _log != nullptr; }
    CLog* log() { return _log; }
    CRecorderStats stats() const;

    // Lets go of everything; what waits is lost.
    void let_go();

    bool is_inherited() const;  // across fork()

    // Counts the notice and tells it, formatted as by printf; the result is the notice.
    __attribute__((format(printf, 3, 4))) int tell(notice_t notice, const char* fmt, ...) noexcept;

private:
    int called_while_telling() noexcept;

    // setup.cpp
    int check_options();
    int judge_periods(const std::vector<CPeriodProperties>& periods);
    int open_log(const tk_string& name);
    int open_connections(const tk_string& name, size_t num_periods);
    int settle_periods();
    int attach_own_device();

    // look.cpp
    int look_into(const tk_string& name, size_t& num_periods);
    int open_side();
    void end_look();
    bool settle();
    bool is_busy();
    notice_t why_it_failed();

    // attach.cpp
    struct plan_t;
    int check_wanted(const CRecorderDevice& wanted);
    int check_wanted(const CRecorderDevice& wanted, const CRecorderParam& param);
    int find_device(const CRecorderDevice& wanted, plan_t& plan);
    int plan_params(const CRecorderDevice& wanted, plan_t& plan);
    void tell_cost(plan_t& plan);
    int change_params(plan_t& plan);
    int build_device(const CRecorderDevice& wanted, plan_t& plan);

    // transaction.cpp
    int in_transaction(const std::function<int()>& work);

    // feed.cpp
    int take(parameter_t& param, double value, int64_t moment);
    int take(device_t& device, feed_t& feed, size_t number, double value, int64_t moment);
    int judge_counter(parameter_t& param, double value, int64_t moment);
    void close_until(device_t& device, feed_t& feed, int64_t moment);
    void close_interval(device_t& device, feed_t& feed);
    void begin_interval(const device_t& device, feed_t& feed, int64_t start);
    void enqueue(CRowQueue& queue, const device_t& device, int64_t time, const CSnapshot& snapshot);
    void enqueue(CRowQueue& queue, const queued_row_t& row);
    int64_t held_until(const device_t& device, const feed_t& feed) const;
    double percent_valid(const device_t& device, const feed_t& feed, int64_t now) const;
    parameter_t& param_of(const device_t& device, const feed_t& feed, size_t number);
    const parameter_t& param_of(const device_t& device, const feed_t& feed, size_t number) const;
    size_t number_of(const parameter_t& param) const;  // of the device's
    const tk_string& path_of(const parameter_t& param) const;

    // ticking.cpp
    int check_usable();
    void look_at_clock();
    void stamp();
    void close_intervals();
    void record_own_counters();

    // commit.cpp
    bool is_inside_transaction() const;
    int commit(bool at_once);
    bool is_due(const device_t& device) const;
    bool is_anything_due() const;
    int store(const device_t* only);
    int store_rows(const device_t* only);
    int store_row(device_t& device, const queued_row_t& row);
    int store_snapshot(device_t& device, const CSnapshot& snapshot);
    void read_row(const device_t& device, const queued_row_t& row, CSnapshot& snapshot) const;
    int seed(device_t& device, int64_t time);
    int check_periods();
    void settle_rows(const device_t* only);
    void forget_attempt(const device_t* only, bool in_doubt);
    static const char* reason(notice_t notice);
    int failed_commit(notice_t notice, int64_t now);

    // late.cpp
    struct batch_t;
    bool merges() const { return _options._late == LATE_MERGE; }
    bool is_kept_aside(int64_t moment) const;
    void begin_late(device_t& device, int64_t moment);
    void end_late(device_t& device);
    void end_late(int64_t idle);
    void make_late(device_t& device);
    int merge(bool at_once);
    int merge_device(device_t& device);
    int merge_batch(device_t& device, batch_t& batch);
    int merge_rows(device_t& device, batch_t& batch);
    int find_begin(const device_t& device, int64_t& begin);
    int leave_out_stored(const device_t& device, batch_t& batch);
    void settle_batch(device_t& device, const batch_t& batch);

    CRecorderOptions _options;
    pid_t _process = 0;
    bool _in_use = false;  // a notice is being told

    tk_string _name;  // of the file; empty for a log of the host's
    std::unique_ptr<CLog> _own_log;
    std::unique_ptr<CDatabase> _side;  // beside the log's own: looks whether the file is locked
    bool _is_unsettled = false;        // the log's last transaction failed
    int64_t _version = -1;             // of the file's data, at the last such look
    CLog* _log = nullptr;

    std::vector<CPeriodProperties> _periods;
    int64_t _step = 0;  // of the finest period, in milliseconds
    CTimeline _time;

    std::vector<device_t> _devices;
    std::vector<parameter_t> _params;
    std::vector<parameter_t> _late_params;  // the same ones for readings that come late
    std::vector<double> _values;            // of one row
    CSnapshot _row;                         // that goes into the log, in memory that is there
    CSnapshot _blank;                       // the same for a blank one
    std::optional<CRowQueue> _queue;
    std::optional<CRowQueue> _late;  // rows to merge

    int64_t _last_commit = 0;  // by the monotonic clock
    int64_t _next_try = 0;
    int64_t _pause = 0;
    int64_t _next_merge = 0;

    // The own device's handles, and what it has recorded
    std::vector<recorder_handle_t> _own_params;
    std::vector<uint64_t> _own_recorded;
    int64_t _last_commit_ms = 0;

    CRecorderStats _stats;
};

}  // namespace toolkit::trend
