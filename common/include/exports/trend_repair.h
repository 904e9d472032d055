#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

#include "trend_api.h"

// What can be wrong in a log's file, and how late and corrected data reach the coarse rows.
//
// Both functions work on an open log ("Error: DB not open", -1), with the results, reports and
// transactions of CLog's own operations.

namespace toolkit::trend {

// Checking -------------------------------------------------------------------------------------

enum severity_t : int {
    SEVERITY_INFORMATION = 0,  // how the file is; nothing needs to be done
    SEVERITY_WARNING = 1,  // rows or figures are not what a reader takes them for, or will not be
    SEVERITY_ERROR = 2     // operations on this file fail, stop the process or give wrong rows
};

// The order is that of severity. A log that is used as docs/guide.md says gives information only,
// but for averages from before a period was added or removed, see FINDING_COARSE_ROWS.
enum finding_kind_t : int {
    // Errors
    FINDING_DAMAGE,         // what SQLite's own checks find, and content that cannot be read
    FINDING_SCHEMA,         // another version, or tables and columns that the configuration denies
    FINDING_CONFIGURATION,  // entries of periods, devices or parameters that no log has written
    FINDING_VALUES,         // the same of trend rows: a wrong type, a negative time, an infinite
                            // percent_valid
    // Warnings
    FINDING_FOREIGN_OBJECT,   // a view or trigger on trend tables: no parameter can be changed
    FINDING_PERIOD_RATIO,     // a period that is no multiple of the next finer: recording fails
    FINDING_SHORT_TABLE,      // a period keeps fewer rows than two of the next coarser consist of
    FINDING_FUTURE_ROWS,      // rows that end later than now
    FINDING_PERCENT_VALID,    // rows whose percent_valid is not in 0 to 100
    FINDING_LATE_ROWS,        // rows that came too late for the coarse row of their time
    FINDING_COARSE_ROWS,      // coarse rows that are not what their finer rows give; see below
    FINDING_WRITE_AHEAD_LOG,  // a write-ahead log that no checkpoint empties
    // Information
    FINDING_HOLES,       // intervals without a row, between the first and the last
    FINDING_OFF_GRID,    // rows that do not end at a boundary of their period
    FINDING_OLD_ROWS,    // rows that the period no longer keeps and the next roll-up deletes
    FINDING_FREE_PAGES,  // pages of the file that hold nothing
    FINDING_LISTEND      // end marker, not a kind
};

// A coarse row is compared with rows of the next finer period that the file has today. One that was
// made of others, before a period came in between or went, may have another average where values
// were absent, since absent values do not weigh in the finer average but their time does. That is
// the one warning that a log may give which is used as the guide says; rebuild() ends it.

// "coarse_rows", "warning": for output that programs read. Anything else is an assertion failure.
TREND_EXPORT const char* finding_name(finding_kind_t kind);
TREND_EXPORT const char* severity_name(severity_t severity);

// One thing that is wrong, or worth knowing, in one table or in the file. However many rows it
// concerns, it is one finding with their number.
struct CFinding {
    finding_kind_t _kind = FINDING_LISTEND;
    severity_t _severity = SEVERITY_INFORMATION;
    tk_string _device;             // its path; empty where no single device is concerned
    unsigned long _period = 0;     // minutes; 0 where no single period is concerned
    timebounds_t _bounds{-1, -1};  // the first and the last time concerned, -1 for none
    uint64_t _count = 0;           // how many rows, intervals, entries or pages; 0 for none
    tk_string _text;               // what there is, in one sentence
    tk_string _advice;             // what to do about it, in one sentence
};

// Takes one finding; false ends the check. It must not use the log, nor throw.
using finding_visitor_t = std::function<bool(const CFinding&)>;

// Reads the whole file as it is at one moment, without changing it, and gives what it finds to
// `visit`: first what concerns the file and its configuration, then device by device, finest period
// first. `now` (seconds; -1 for the present) tells which rows are of the future. Memory does not
// grow with the rows. What a finding makes unreadable is left out of the later checks, and content
// that no log has written is a finding here, never an assertion.
//
// The check is one read: where it takes long, a write-ahead log grows meanwhile. With a rollback
// journal writers wait for it. Inside a transaction it sees what that has changed.
//
// 0 when the whole file has been checked, whatever was found; 1 when `visit` ended it. Reports
// "Error: invalid time" (`now` below -1), "Error: can't get time"; -1. A read that fails for
// another reason than the content of the file (memory, a lock, the disk) is a failure too, -1.
// Statements that fail on damaged content print their lines besides the finding.
TREND_EXPORT int check_log(CLog& log, time_t now, const finding_visitor_t& visit);

// The same into a list, which it replaces. After a failure it holds what had been found by then.
TREND_EXPORT int check_log(CLog& log, time_t now, std::vector<CFinding>& findings);

// Rebuilding -----------------------------------------------------------------------------------

// What to do where coarse rows next to the range are off the grid. They came about by counting rows
// where some were missing, and the rows of the range cannot be put on the clock beside them.
enum off_grid_t : int {
    OFF_GRID_REFUSE = 0,  // "Error: coarse rows off the grid", -1; nothing is changed
    OFF_GRID_EXTEND = 1   // the range goes on to the newest row, and back to where the grid holds
};

// Called from time to time with how much of the work is done, 0 <= `done` <= `total`; false gives
// the work up. It must not use the log, nor throw.
using progress_t = std::function<bool(uint64_t done, uint64_t total)>;

struct CRebuildRequest {
    CDeviceProperties _device;

    // The time range to rebuild, both ends included, -1 for an open end. It is extended to whole
    // groups of the coarsest period; see below.
    timebounds_t _bounds{-1, -1};

    // Rows to merge into the finest period, in any order, none by default. Every `_time` lies in
    // `_bounds` and is not newer than the newest row that is stored: that would not be late, record
    // it. `_samples` follows `_params`, as in CLog::add_trend_data().
    std::vector<CParamProperties> _params;
    std::vector<CSnapshot> _rows;

    // A row to merge takes the place of a blank row, or of none. One that meets a row with values
    // is left out and counted, or with this changes it: its percent_valid, and the values of
    // `_params`; parameters that `_params` leaves out keep theirs.
    bool _replace = false;

    off_grid_t _off_grid = OFF_GRID_REFUSE;

    // Does all of the work, counts it and rolls it back.
    bool _dry_run = false;

    progress_t _progress;  // none by default
};

// What has been done, or with `_dry_run` would be. Numbers of rows.
struct CRebuildResult {
    // The range that was rebuilt, both ends included: whole groups of the coarsest period, but for
    // the newest one, of which there may be a part. {-1, -1} where there was nothing to do.
    timebounds_t _range{-1, -1};
    bool _extended = false;  // because of coarse rows off the grid

    uint64_t _merged = 0;      // rows to merge that took a missing time or the place of a blank row
    uint64_t _replaced = 0;    // rows to merge that changed a row with values
    uint64_t _refused = 0;     // rows to merge that met a row with values, left out
    uint64_t _too_old = 0;     // rows to merge that the finest period keeps no longer, left out
    uint64_t _blanks = 0;      // blank rows inserted where there was no row
    uint64_t _recomputed = 0;  // coarse rows made anew
    uint64_t _kept = 0;        // coarse rows that stay, because finer rows of theirs are gone
};

// Brings late and corrected data into the coarse rows of one device, which recording makes once and
// never looks at again.
//
// The rows are merged, then every missing interval of the finest period within the range becomes a
// blank row, then every coarse row of the range is computed anew from the finer ones, finest level
// first and by the statement that recording uses. Groups are those of the clock: a row of period P
// is made of the finer rows of (t - P, t], t a multiple of P. For rows that were recorded on the
// grid the tables are afterwards, to the last bit, what recording everything in time would have
// left.
//
// A coarse row of which finer rows are gone stays as it is. No group is begun: what is newer than a
// period's last complete group stays for recording to roll up, which then goes on as if everything
// had come in time. Blank rows before the device's first row are made only where no coarse row
// knows of older ones, as a seed at the boundary would have made them.
//
// All of it is one transaction. Other writers wait meanwhile, and a write-ahead log takes every
// changed page: rebuild a long range in parts, oldest first.
//
// 0 when done. 1 when `_progress` gave it up; then, as after every failure, nothing has been
// changed and `result` holds what had been counted so far. Inside a transaction that the host has
// begun the work is part of that, and a failure must roll it back; a dry run or a callback is
// refused there, "Error: dry run inside a transaction", "Error: progress callback inside a
// transaction": an inner rollback gives up nothing. Reports further "Error: empty device path",
// "Error: invalid device id", "Error: invalid time range" (a bound below -1, or the second before
// the first), "Error: empty param list" (with rows), "Error: invalid param id", and for a row
// "Error: row outside the bounds", "Error: bad sample size", "Error: invalid percent_valid" (not
// finite), "Error: row newer than the newest one"; then "Error: no configured periods", "Error: no
// configured parameters", "Error: coarse rows off the grid", "Can't prepare SQL (5): '...'" (a
// parameter or aggregate that is not stored), "Rows of '...' are out of order: the file is damaged"
// and the messages of CLog::calc_period_ratios(); -1.
TREND_EXPORT int rebuild(CLog& log, const CRebuildRequest& request, CRebuildResult& result);

}  // namespace toolkit::trend
