#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include "trend_api.h"

// From readings at odd moments to rows on the grid.
//
// Moments and durations are in milliseconds, moments since the Unix epoch. The row of time t (in
// seconds, as everywhere) stands for the interval (t - length, t], where the length is that of the
// finest period: a reading exactly on a border belongs to the older interval, and what it says
// holds into the next.

namespace toolkit::trend {

// What the recorder tells. Most are also results: of the call that was refused, or that could not
// do its work. Each has a counter in CRecorderStats.
enum notice_t : int {
    NOTICE_NONE = 0,  // nothing to tell: the result of a call that has done all
    // Refused, one reading or snapshot
    NOTICE_LATE,           // at or before what has been closed, or before the parameter's last
                           // reading; also late rows that could not be merged
    NOTICE_FUTURE,         // further ahead of the clock than `_max_ahead_ms`
    NOTICE_DUPLICATE,      // of a moment that the parameter has, or a time that the device has
    NOTICE_NOT_FINITE,     // NaN or infinite, a percent_valid included
    NOTICE_OUT_OF_LIMITS,  // beyond the limits of the parameter, or a counter that rose too fast
    NOTICE_OFF_GRID,       // a snapshot whose time is no boundary of the finest period
    NOTICE_UNKNOWN,        // no such handle, or one that is fed in the other way
    // Lost
    NOTICE_OVERFLOW,    // a row, the oldest one, given up because `_max_bytes` are full; or a late
                        // one because `_late_bytes` are
    NOTICE_REJECTED,    // a row that another writer's newer row kept out of the file
    NOTICE_GAP,         // the increment of a counter over more than its longest gap
    NOTICE_UNFINISHED,  // readings of an interval that was still open at close()
    NOTICE_ABANDONED,   // a row that could not be committed until close()
    // A commit that will be repeated
    NOTICE_BUSY,    // another process is writing, or wrote first
    NOTICE_FULL,    // the disk is full
    NOTICE_FAILED,  // anything else; the log has printed it
    // Others
    NOTICE_MISUSE,   // a call that the recorder cannot serve; nothing has been done
    NOTICE_CLOCK,    // the clock stepped, became trusted, or is not believed
    NOTICE_REBUILD,  // what the next step of attach() costs, or what is kept as the file has it
    NOTICE_MERGED,   // late rows are stored
    NOTICE_LISTEND   // end marker, not a notice
};

// "out_of_limits": for output that programs read. Anything else is an assertion failure.
TREND_EXPORT const char* notice_name(notice_t notice);

// How readings of a parameter become values. The file knows only the type, value or power factor;
// the kind comes from the host at every start.
enum reading_kind_t : int {
    // Holds from its reading until the next one, at most `_hold_ms`: then it is unknown. Gives the
    // minimum and maximum, the average by time, and as actual value the last one that was known. A
    // value that is held into an interval counts there as one that is read there does.
    READING_GAUGE = 0,
    // A gauge from -1 to 1 on the scale that runs through unity, where minimum, maximum and average
    // are those of the roll-up. Stored as SAMPLE_TYPE_PF.
    READING_POWER_FACTOR,
    // Rises for ever. The increment between two readings at most `_max_gap_ms` apart is added to
    // the sum of the later one's interval; over a longer gap it is lost, and counted. A fall is a
    // reset: that reading is a start anew, as the first one is. Gives sum, and as actual value the
    // last reading.
    READING_COUNTER,
    // An amount to add, in any order within the interval. Gives the sum.
    READING_TOTAL,
    READING_LISTEND  // end marker, not a kind
};

// A parameter as the host wants it.
struct CRecorderParam {
    tk_string _path;  // unique within the device, not empty
    reading_kind_t _kind = READING_GAUGE;

    // The aggregates to keep, one at least, of those that the kind gives. A device that is fed with
    // ready snapshots may keep any.
    bool _has_min = false;
    bool _has_max = false;
    bool _has_avg = false;
    bool _has_actual = false;
    bool _has_sum = false;

    // What is not within is refused, both ends allowed. Of ready snapshots it limits min, max, avg
    // and actual. A power factor is refused beyond -1 and 1 in any case.
    double _lowest = -std::numeric_limits<double>::infinity();
    double _highest = std::numeric_limits<double>::infinity();

    // The fastest rise of a counter per second that is believed. A reading beyond is refused; when
    // it goes on, the first one after the longest gap is a start anew.
    double _max_rate = std::numeric_limits<double>::infinity();

    int64_t _hold_ms = 0;     // of a gauge or power factor, 1 or more; 0: the recorder's
    int64_t _max_gap_ms = 0;  // of a counter, 1 or more; 0: the recorder's
};

// A device as the host wants it.
struct CRecorderDevice {
    tk_string _path;                      // by which it is found, or registered
    tk_string _guid;                      // of a device that is registered now; empty for none
    std::vector<CRecorderParam> _params;  // one at least

    // Fed with ready snapshots by record() instead of readings by push().
    bool _ready = false;

    // Leaves the device with these parameters and aggregates only. What it has beyond them goes for
    // good, values included.
    bool _exact = false;
};

// What readings and snapshots are recorded under, as long as the recorder is open.
using recorder_handle_t = uint32_t;

struct CRecorderHandles {
    recorder_handle_t _device = 0;
    std::vector<recorder_handle_t> _params;  // in the order of CRecorderDevice::_params
};

// Where the recorder takes the time from. A host that knows when its clock is right, or a test,
// derives its own. It must not throw, nor use the recorder.
class TREND_EXPORT CRecorderClock {
public:
    CRecorderClock() = default;
    virtual ~CRecorderClock();

    CRecorderClock(const CRecorderClock&) = delete;
    CRecorderClock& operator=(const CRecorderClock&) = delete;

    virtual int64_t wall() = 0;       // what the clock on the wall says
    virtual int64_t monotonic() = 0;  // from any origin, never back, running on while suspended
    virtual bool is_trusted() = 0;    // whether wall() has been set
};

// What the recorder tells, in one line without its newline. `line` is valid during the call.
using recorder_tell_t = std::function<void(notice_t notice, const char* line)>;

// What becomes of readings and rows of times that are closed.
enum late_t : int {
    LATE_REFUSE = 0,  // they are refused, NOTICE_LATE
    LATE_MERGE,       // they are kept aside, and take the place of blank rows
    LATE_LISTEND      // end marker, not a choice
};

struct CRecorderOptions {
    // The file ----------------------------------------------------------------------------------

    // The periods of a new file, finest first: each a multiple, at least twice, of the one before,
    // which keeps at least two groups of rows for it. A file that has periods must have the same
    // ones; numbers of rows that differ stay as they are in the file, and are told. Empty: those of
    // the file, or for a new one 1, 15 and 1440 minutes for two days, a month and ten years. Each
    // costs a table per device.
    std::vector<CPeriodProperties> _periods;

    // How many devices can be attached, 1 or more. Of that and the periods follows the number of
    // prepared statements; each costs some 100 bytes at once and 5 KB when it is used.
    size_t _max_devices = 16;

    // As in CLog::open(). Without a write-ahead log other processes cannot read while rows are
    // committed, and two recorders in two processes wait for each other for ever.
    bool _wal = true;
    size_t _cache_bytes = 0;  // 0: SQLite's default, at most 2 MB

    // Readings ----------------------------------------------------------------------------------

    // How long a gauge is believed after its reading, 1 or more: some three times what lies between
    // two readings. Longer, and a dead sensor looks alive; shorter, and a live one has gaps.
    int64_t _hold_ms = 180'000;

    // The longest gap between two readings of a counter that an increment is believed over, 1 or
    // more. Longer, and much of it may belong into intervals before.
    int64_t _max_gap_ms = 900'000;

    // Commits -----------------------------------------------------------------------------------

    // How long rows are collected before tick() commits them, from the last commit on, 0 or more;
    // 0: as soon as an interval has ended. It is what a power cut or a crash may take, and every
    // commit writes each page that it changes whole: rows that are committed together share them.
    int64_t _commit_every_ms = 0;

    // How much memory the rows take that have not been committed, at least one row of every device.
    // A row takes 24 bytes and 8 for each value, and 16 more while it is committed. All of it is
    // reserved at once, and used as rows wait: those of `_commit_every_ms`, of the time before the
    // clock is trusted, and of the time in which commits fail. When it is full the oldest row is
    // given up.
    size_t _max_bytes = 4 << 20;

    // What comes late ---------------------------------------------------------------------------

    // With LATE_MERGE what comes late is kept aside and merged as by rebuild() of trend_repair.h: a
    // row takes the place of a blank one or of none, and the coarse rows are made anew. Left out,
    // NOTICE_LATE, is one that meets a row with values, that is older than the device's first row,
    // or that the finest period keeps no longer. Late readings of a device become rows as others
    // do, in ascending order and beside the open interval. One that is older than the late interval
    // before begins anew: what is held ends there, and a counter has a baseline. Costs
    // `_late_bytes`, and each parameter's memory twice.
    late_t _late = LATE_REFUSE;

    // How long late rows are collected before tick() merges them, from the first one on, 0 or more;
    // the open late interval ends when nothing has come late for as long. It is what a power cut or
    // a crash may take of them. Each time reads a group of the coarsest period, of each device that
    // has late rows, and writes its coarse rows: of a day some 20 ms on a desktop computer.
    int64_t _merge_every_ms = 600'000;

    // How much memory late rows take that have not been merged, at least one row of every device.
    // As with `_max_bytes`; it is reserved with LATE_MERGE only. To merge them takes some ten times
    // that of 500 rows for the moment.
    size_t _late_bytes = 1 << 20;

    // The clock ---------------------------------------------------------------------------------

    // Null: the system's, which is trusted from 2024-01-01 on. It must outlive the recorder.
    CRecorderClock* _clock = nullptr;

    // How far ahead of the clock a reading may be, and how far the clock may step forward to be
    // believed at once; 1 or more. tick() must come more often than that.
    int64_t _max_ahead_ms = 3'600'000;

    // How long a longer step must last to be believed, 0 or more. A row of the future makes all
    // true ones late, and it stays.
    int64_t _believe_after_ms = 600'000;

    // Telling -----------------------------------------------------------------------------------

    // Takes what is told; empty: standard error. It must not use the recorder; what it throws is
    // dropped.
    recorder_tell_t _tell;

    // The path of a device that records the recorder's own counters, with parameters
    // "pending_bytes" (max), "commit_ms" (max), "refused", "lost", "failed_commits" and
    // "clock_steps" (sum); one of `_max_devices`. Empty: none.
    tk_string _own_device;
};

// What has happened since open().
struct CRecorderStats {
    uint64_t _notices[NOTICE_LISTEND] = {};  // how often there was each, by notice_t
    uint64_t _readings = 0;                  // taken by push()
    uint64_t _snapshots = 0;                 // taken by record()
    uint64_t _rows = 0;                      // committed, without blank ones
    uint64_t _commits = 0;                   // that succeeded
    uint64_t _resets = 0;                    // of counters
    uint64_t _clock_steps = 0;               // of a second or more, either way
    size_t _pending_rows = 0;                // closed and not committed
    size_t _pending_bytes = 0;               // the memory that they take
    uint64_t _merged = 0;                    // late rows stored, in `_rows` not
    size_t _late_rows = 0;                   // kept aside and not merged
    size_t _late_bytes = 0;                  // the memory that they take
    time_t _newest_committed = -1;           // the time of the newest row, -1 before the first one
    int64_t _slowest_commit_ms = 0;          // by the monotonic clock
};

// Turns readings at odd moments, and ready snapshots, into rows on the grid of the finest period,
// for a host with a clock that steps and a power switch. Without threads: the host calls tick().
//
//     CRecorder recorder;
//     recorder.open("trend.db", options);
//     recorder.attach(pump, handles);
//     for (;;) {
//         recorder.push(handles._params[0], read_power());
//         recorder.tick();
//         ...
//     }
//     recorder.close();
//
// What it sees to, so that a host need not: the first row is seeded on the boundary of the coarsest
// period and gaps are filled, so that coarse rows end on the clock for ever, through restarts too;
// `_percent_valid` is the share of the interval in which at least one gauge of the device was known
// or one of its counters was covered by two readings (of a device with totals only: 100 when an
// amount came in), and a parameter that was never known in it is absent; an interval in which
// nothing was known is a blank row; rows are committed together, all or none, a failed commit is
// repeated, and no row is stored twice. Nothing is lost or refused without being told and counted.
//
// Before the clock is trusted for the first time, intervals are collected by the monotonic clock
// and nothing is committed; then they are stamped, to the nearest interval. A moment counts all the
// time by how far it lies from the clock on the wall at the last tick. Later the recorder follows
// the clock: a step forward is a gap, at once up to `_max_ahead_ms` and beyond that after
// `_believe_after_ms`, during which it goes on by the monotonic clock; after a step back all
// readings of times that are closed are late. A clock that is no longer trusted is not followed.
//
// Results are 0, or the notice_t that says why not; each has been told then. Misuse is a result
// too. No exception leaves the recorder. One thread at a time, and not across fork(): a child's
// calls are refused (NOTICE_MISUSE) but for push(), which has no effect on the file. A recorder
// takes its memory at open() and attach(); push(), record() and a tick() that commits nothing
// and merges nothing allocate none, and push() and record() do not touch the file.
//
// While nobody else has it locked a commit waits for the disk only. A file that another process is
// writing leaves the commit to a later tick (NOTICE_BUSY); only when that one begins in the instant
// between the look and the commit, the commit waits until it has ended. On a log of the host's
// there is no such look: a commit then waits as every call of CLog does, and whatever keeps it from
// succeeding is NOTICE_FAILED.
class TREND_EXPORT CRecorder {
public:
    CRecorder();
    ~CRecorder();  // close(), in the process that has opened it

    CRecorder(const CRecorder&) = delete;
    CRecorder& operator=(const CRecorder&) = delete;

    // Set-up ------------------------------------------------------------------------------------

    // Opens the log in file `name` or makes it, and its periods if it has none, in one transaction.
    // NOTICE_MISUSE when the recorder is open, for options outside of their ranges, for periods
    // that cannot be rolled up on the grid, and for a file with tables of somebody else and none of
    // a log, of which not a byte is changed; NOTICE_FAILED when the log fails. The recorder is
    // closed then.
    int open(const tk_string& name, const CRecorderOptions& options);

    // The same on a log that the host has opened for writing and keeps open for as long. `_wal`
    // and `_cache_bytes` are not used, and `_max_devices` has no effect on its pool.
    int open(CLog& log, const CRecorderOptions& options);

    bool is_open() const;

    // Finds the device by its path or registers it, and adds the parameters and aggregates that are
    // missing; others stay, unless `_exact`. All of it in one transaction, which is repeated for up
    // to a second when another process writes first. Changed aggregates and removed parameters
    // rebuild all tables of the device: how many rows at most is told before, NOTICE_REBUILD.
    // NOTICE_MISUSE for a device that is attached already, more than `_max_devices`, an empty path,
    // no parameter or the same twice, no aggregate or one that the kind does not give, a stored
    // type that is another one, limits and durations that exclude everything, `_max_bytes` too few
    // for a row of every device, and for stored rows that do not end on the grid; NOTICE_BUSY or
    // NOTICE_FAILED when the log fails. Nothing has been changed then.
    int attach(const CRecorderDevice& device, CRecorderHandles& handles);

    // Recording ---------------------------------------------------------------------------------

    // Takes a reading of the moment, or of now. Readings of one parameter come in ascending order,
    // but for totals. Those of different ones in any order within the interval, but time in which
    // nothing of the device was known counts as such when 16 more of its gaps have followed.
    // A refused reading changes nothing: what held before goes on holding.
    int push(recorder_handle_t param, double value, int64_t moment);
    int push(recorder_handle_t param, double value);

    // Takes a ready row of a device that is attached as `_ready`: `_time` on the grid and after the
    // device's newest row, `_samples` in the order of its parameters, `_percent_valid` 0 to 100.
    // One that is refused is so as a whole.
    int record(recorder_handle_t device, const CSnapshot& snapshot);

    // Closes the intervals that the clock has passed, and commits what has been collected for
    // `_commit_every_ms`. Call it once an interval or more often. After a failed commit it pauses,
    // first a second, then twice as long each time, a minute at most. 0 also while it pauses.
    int tick();

    // tick(), and commits what is closed whatever `_commit_every_ms` and the pause. 0: it is stored
    // and will be there after a power cut; before the clock is trusted it never is, NOTICE_CLOCK.
    int flush();

    // flush(), and lets go of the file. Rows that cannot be committed are lost, NOTICE_ABANDONED.
    // What has been read in the open intervals is lost in any case, told and counted as
    // NOTICE_UNFINISHED: a row must not end after now. Of both one line is told, and rows and
    // readings are what is counted. The recorder is closed then; stats() stay.
    int close();

    // Looking -----------------------------------------------------------------------------------

    // What the device's row would be if the open interval ended now, with the time at which it will
    // end and the share of the whole interval. Of a device that is fed with snapshots: the last one
    // taken, blank and with time -1 before the first.
    int get_open_interval(recorder_handle_t device, CSnapshot& snapshot);

    CRecorderStats stats() const;

    // The log, for reading; null while the recorder is closed. While the host has a transaction
    // open on it nothing is committed, which is told and repeated: NOTICE_MISUSE.
    CLog* log();

private:
    class CImpl;

    int open(const tk_string* name, CLog* log, const CRecorderOptions& options);

    std::unique_ptr<CImpl> _impl;
};

}  // namespace toolkit::trend
