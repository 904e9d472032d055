#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "trend_base.h"

// Byte string: SQL text, file names, paths of devices and parameters. Paths are UTF-8 and end at
// their first zero byte when they are read back.
using tk_string = std::string;

// Time range in seconds since the Unix epoch, both ends included; -1 leaves that end open.
using timebounds_t = std::pair<time_t, time_t>;

namespace toolkit {
using ::timebounds_t;
using ::tk_string;
}  // namespace toolkit

namespace toolkit::trend {

using ::timebounds_t;
using ::tk_string;

class CDatabase;
class CStatement;
class CTransaction;
struct log_access_t;

// Records --------------------------------------------------------------------------------------

// An optional double. Absent is a quiet NaN; every other value, zero and the infinities included,
// is present. Test it as a condition and take the value with `*`:
//
//     if (sample._avg) use(*sample._avg);
//
// It neither compares nor computes: take the value first.
struct COptVal {
private:
    using safe_bool_t = bool (COptVal::*)() const;

public:
    COptVal() = default;
    COptVal(double val) : _val(val) {}

    operator safe_bool_t() const { return is_nan() ? nullptr : &COptVal::is_valid; }

    // The token of the conversion above and always true. Test the object, not this member.
    bool is_valid() const { return true; }

    // The value, which must be present.
    const double& operator*() const
    {
        TREND_ASSERT(*this);
        return _val;
    }

    // The conversion would let these compile and compare tokens instead of values.
    friend bool operator==(const COptVal&, const COptVal&) = delete;
    friend bool operator!=(const COptVal&, const COptVal&) = delete;
    friend bool operator==(const COptVal&, std::nullptr_t) = delete;
    friend bool operator!=(const COptVal&, std::nullptr_t) = delete;
    friend bool operator==(std::nullptr_t, const COptVal&) = delete;
    friend bool operator!=(std::nullptr_t, const COptVal&) = delete;

    double _val = std::numeric_limits<double>::quiet_NaN();

private:
    // By its bits: a host that is built with -ffast-math has no other way to tell.
    bool is_nan() const
    {
        constexpr uint64_t MAGNITUDE = 0x7fffffffffffffff, INFINITE = 0x7ff0000000000000;
        uint64_t bits = 0;
        std::memcpy(&bits, &_val, sizeof bits);
        return (bits & MAGNITUDE) > INFINITE;
    }
};

// What one parameter measured in one interval. A value whose aggregate the parameter does not keep
// is ignored when written and absent when read.
struct CSample {
    COptVal _min;
    COptVal _max;
    COptVal _avg;
    // The value at the end of the interval, as recorded. In a coarser row it is that of one finer
    // row: of the latest, or, when an ordinary parameter of the device keeps min or max, of the one
    // with the last such extreme, for all parameters of the device. See file-format.md.
    COptVal _actual;
    COptVal _sum;
};

// One row of trend data.
struct CSnapshot {
    unsigned long _period = 0;  // minutes; the table that a read row came from, else unused
    time_t _time = 0;           // seconds since the Unix epoch, the end of the interval
    // 0 to 100, the share of the interval that had data; finite. It is the row's weight in coarser
    // averages: left at 0 it makes them absent.
    double _percent_valid = 0.0;
    std::vector<CSample> _samples;  // one per parameter of the list that goes with the row
};

struct CDeviceProperties {
    tk_string _path;      // unique, not empty
    tk_string _guid;      // unique among the devices that have one; empty for none
    int64_t _index = -1;  // identifier, 0 or more; -1 while not stored
};

// One level of aggregation. Ordered by length.
struct CPeriodProperties {
    CPeriodProperties() = default;
    CPeriodProperties(unsigned long period, size_t max_entries)
        : _period(period), _max_entries(max_entries)
    {
    }

    friend bool operator<(const CPeriodProperties& a, const CPeriodProperties& b)
    {
        return a._period < b._period;
    }

    unsigned long _period = 0;  // minutes, 1 to 2^32 - 1
    // How many intervals its tables keep, 1 to 2^32 - 1: at least as many as make one row of the
    // next coarser period, or that row is made of what is left and gaps shift the later ones.
    size_t _max_entries = 0;
};

// How a parameter's values are aggregated.
enum sample_type_t : int {
    SAMPLE_TYPE_VALUE = 0,  // ordinary quantity
    SAMPLE_TYPE_PF = 1,     // power factor in [-1, 1], on a scale that runs through unity
    SAMPLE_TYPE_LISTEND     // end marker, not a type
};

// A measured quantity of a device and which aggregates of it are kept. Ordered by identifier.
struct CParamProperties {
    friend bool operator<(const CParamProperties& a, const CParamProperties& b)
    {
        return a._index < b._index;
    }

    tk_string _path;  // unique within the device, not empty
    sample_type_t _type = SAMPLE_TYPE_VALUE;
    bool _has_min = false;
    bool _has_max = false;
    bool _has_avg = false;
    bool _has_actual = false;
    bool _has_sum = false;
    int64_t _index = -1;  // identifier, -1 while not stored
};

// A device and the parameters that a call concerns.
struct CDeviceParams {
    CDeviceProperties _device;
    std::vector<CParamProperties> _params;
};

// What a read returns: the device, the parameters that the samples follow, and the rows.
struct CDeviceData : CDeviceParams {
    std::vector<CSnapshot> _snapshots;
};

// What the names of a type's roll-up functions begin with: "" or "pf". Any other type is an
// assertion failure.
TREND_EXPORT const char* operation_prefix(sample_type_t type);

// The log --------------------------------------------------------------------------------------

// A trend log: one SQLite file with its periods, devices, parameters and rows.
//
// Results are 0 on success, -1 after a failure reported on standard error, else the code of the
// call that failed (an SQLite result code, or 1 where said). A report is one line that begins with
// the signature of the operation; an SQLite failure adds the lines of the statement that failed.
// No exception leaves the log: memory that runs out is reported as "Error: out of memory", -1.
//
// Every operation that touches the file is one transaction, all of it or nothing, inside the
// caller's own if begin_transaction() has opened one. After a failure within an own transaction
// roll that back, as CTransaction (trend_transaction.h) does by itself: a commit would keep half of
// the failed call.
//
// An operation that needs an open log reports "Error: DB not open", -1, where it says nothing
// else. A device is named by its `_index` and must carry its `_path` ("Error: empty device path",
// "Error: invalid device id"). Texts are stored up to their first zero byte. What only a mistake in
// the host's code can cause, and stored configuration that no log has written, stops the process
// with an assertion.
//
// A log serves one thread at a time; it must not be used across fork(). Other processes may use
// the file meanwhile. A statement that finds it locked waits, yielding the processor, without
// limit. Where several processes write, a call may also fail with -1 because another has written
// since it began (codes 517 and 261 in the report) or while a statement is prepared (code 5): it
// has changed nothing and can be made again. Several writers want `wal`; with a rollback journal
// two of them can wait for each other for ever.
class TREND_EXPORT CLog {
public:
    // Lifecycle ---------------------------------------------------------------------------------

    // Opens the log in file `name`, letting go of the file open before.
    //   read_only      no write will be possible; the file must exist.
    //   create         makes the file if there is none, creates missing tables and brings an older
    //                  schema up to date: in any SQLite file whose user_version is 0 to 2, whoever
    //                  it belongs to. Without it, or with read_only, the file is taken as it is:
    //                  nothing is created, checked or migrated.
    //   pool_capacity  how many prepared statements are kept, 1 or more. 5 * devices * periods + 4
    //                  serve recording without preparing anything twice, whoever else writes.
    //                  Where memory is short and nobody else does, 3 * devices + 2 serve all
    //                  snapshots, those that complete a row of the second period included.
    //   temp_in_memory keeps SQLite's temporary storage in memory. The journal mode is then left
    //                  as the file has it, whatever `wal` says.
    //   page_size      of a new file, in bytes, a power of two from 512 to 65536; 0 means 4096.
    //                  Without effect on a file that is in WAL mode, and `wal` comes first.
    //   cache_bytes    size of the page cache; 0 keeps SQLite's default.
    //   heap_limit     SQLite's soft heap limit in bytes, for the whole process; 0 leaves it alone.
    //   wal            switches a writable file to WAL and lets checkpoint() act.
    // Reports "empty DB name", "Error: invalid pool capacity", "can't open DB '...'" (result: the
    // SQLite code), "Unrecognized table schema version: N" (result 1). After a failure the log is
    // closed, and a file of an unknown version or whose migration failed holds what it held, in
    // the journal mode that `wal` asks for.
    int open(const tk_string& name, bool read_only, bool create, size_t pool_capacity,
             bool temp_in_memory, size_t page_size, size_t cache_bytes, size_t heap_limit,
             bool wal);

    // Lets go of the file. An open transaction is lost.
    void close();

    bool is_open() const;

    // Transactions ------------------------------------------------------------------------------

    // Open, commit and roll back a level around several calls; the log must be open. A host does
    // better with CTransaction, in trend_transaction.h, which forgets no rollback. Only the
    // outermost level talks to SQLite: an inner rollback gives up nothing by itself, its work is
    // committed or rolled back with the outermost level. A failed outermost end_transaction() has
    // ended the transaction, do not roll it back: its work is undone or, if the last step of the
    // commit is what failed, stored whole.
    int begin_transaction();
    int end_transaction();
    void rollback_transaction();

    // Housekeeping ------------------------------------------------------------------------------

    // Copies the write-ahead log into the file. 0 without effect unless the log was opened writable
    // with `wal`. What a reader still needs stays, without a failure. Reports "can't checkpoint
    // database", 1, inside a transaction of the log's own and when another process checkpoints.
    int checkpoint();

    // Checkpoints by itself whenever the write-ahead log has `n` pages; 0 or less never. 0 without
    // effect where checkpoint() has none. Reports "can't set autocheckpoint (n)", 1.
    int checkpoint_config(int n);

    // Rewrites the file without free space. Fails inside a transaction.
    int vacuum();

    // Prints the text, formatted as by printf, and a newline on standard error. `level` is unused.
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    static void
    err(unsigned int level, const char* fmt, ...);

    // Listing -----------------------------------------------------------------------------------

    // These replace what the list holds. A row that cannot be decoded is a failure, and so is a
    // read that breaks off; but inside a transaction of the host's that only ends the list early,
    // and the transaction cannot be committed. A lock that cannot be had, or a device that has been
    // removed since its list was read before, leaves an empty list, no failure. A list is whole
    // when the result is 0 and nothing was reported.

    // All periods, finest first.
    int get_periods(std::vector<CPeriodProperties>& periods);

    // All devices, in the order of the table.
    int get_devices(std::vector<CDeviceProperties>& devices);

    // The device's parameters in ascending order of identifier.
    int get_params(const CDeviceProperties& device, std::vector<CParamProperties>& params);

    // Periods -----------------------------------------------------------------------------------

    // For recording and filling, each period must be a multiple, at least twice, of the next finer
    // one. All three report "Error: invalid period" for a length of 0 or beyond 32 bits, then
    // "Error: invalid max_entries" for a number of rows of 0 or beyond 32 bits.

    // Stores a new period and creates its table for every device. A period that exists is refused
    // by the file, -1. The new period fills from the rows of the next finer one that are still
    // there, counted from the oldest: this may shift its rows and all coarser ones off their
    // boundaries. guide.md shows how to add one that does not.
    int add_period(const CPeriodProperties& period);

    // Changes how many rows the period keeps and deletes what is beyond in every device's table.
    // A period that is not stored fails at the first device's missing table.
    int modify_period(const CPeriodProperties& period);

    // Deletes the period and every device's table of it, rows included. `_max_entries` is not used
    // but must be valid.
    int remove_period(const CPeriodProperties& period);

    // The first interval boundary after `now`, also when `now` is one, or the largest time where no
    // time_t holds it; and the boundary at or before `now`. In seconds; `period` in minutes. `now`
    // is 0 or later, or -1 for the present; anything else is an assertion failure. -1 after "Error:
    // invalid period" (0 or beyond 32 bits) or "Error: can't get system time", both reported by
    // next_interval_boundary().
    static time_t next_interval_boundary(unsigned long period, time_t now);
    static time_t previous_interval_boundary(unsigned long period, time_t now);

    // Sets ratios[i] to how many intervals of periods[i] make one of periods[i + 1]. `periods` is
    // not empty, ascending, without zeros. `ratios` takes its size; its last entry is not written
    // (0 when the list was shorter). Reports "Error: period ratio too low" (less than 2) and
    // "Error: oddball period ratio" (no multiple), -1, with the ratio at fault stored.
    static int calc_period_ratios(const std::vector<CPeriodProperties>& periods,
                                  std::vector<unsigned long>& ratios);

    // Devices -----------------------------------------------------------------------------------

    // Stores a new device with its tables and writes its identifier, one more than the largest,
    // into `_index`. Reports "Error: empty device path". A path or non-empty GUID that another
    // device has is refused by the file, -1; `_index` may have been written by then.
    int add_device(CDeviceProperties& device);

    // Changes path and GUID of the device `_index`. An identifier that is not stored changes
    // nothing and succeeds.
    int modify_device(const CDeviceProperties& device);

    // Deletes the device with its parameters and all its rows. `_path` must not be empty although
    // only `_index` is used.
    int remove_device(const CDeviceProperties& device);

    // Parameters --------------------------------------------------------------------------------

    // All three report "Error: empty param list" for an empty list.

    // Adds parameters to the device and to all its tables, older rows having no values for them,
    // and writes the identifiers into `_index`. At least one period must be configured, which is an
    // assertion. Reports, with the signature of add_param(), "Error: empty parameter path",
    // "Error: unsupported parameter type", "Error: at least one of min/max/avg/actual/sum must be
    // 'true' to add a parameter". A path that the device has already is refused by the file, -1.
    // A failure adds none; `_index` may have been written to some.
    int add_params(const CDeviceProperties& device, std::vector<CParamProperties>& params);

    // Changes path and kept aggregates of the parameters with the same `_index`, never their type.
    // Every table of the device is rebuilt: a newly kept aggregate has no values in older rows, one
    // no longer kept loses them. Paths may be swapped within one list. Reports "Error: invalid
    // param id" (negative), "Error: can't update non-existent parameter ...", "Error: attempt to
    // change type of parameter ..." (after the parameter's path in place of a signature), "Error:
    // empty parameter path", "Error: duplicate parameter path"; -1.
    int modify_params(const CDeviceProperties& device, const std::vector<CParamProperties>& params);

    // Removes the parameters with the same `_index` and their values from all tables. Identifiers
    // that are not stored are passed over; a negative one is "Error: invalid param id", -1.
    int remove_params(const CDeviceProperties& device, const std::vector<CParamProperties>& params);

    // Recording ---------------------------------------------------------------------------------

    // Stores one snapshot in the finest period's table and rolls full groups up into the coarser
    // ones. `snapshot._time` is in seconds, 0 or later, and not stored yet; `snapshot._samples` has
    // one sample per entry of `data._params`, in that order. Stored parameters that `data._params`
    // leaves out stay absent in the row. Gaps are not filled, see fill_blank_values(). A row at
    // time 0 is not rolled up while the coarser table is empty, and goes at the first trim.
    // Reports "Error: empty param list", "Error: invalid timestamp", "Error: bad sample size",
    // "Error: invalid percent_valid" (infinite; the file refuses a NaN),
    // "Error: no configured periods", "Error: no configured parameters", "Error: invalid param id",
    // the messages of calc_period_ratios(), "Can't prepare SQL (1): '...'" (a parameter or
    // aggregate that is not stored) and those of propagate_recent_samples(), -1 each. A time that
    // is stored already is refused by the file, -1. A failure leaves nothing behind.
    int add_trend_data(const CDeviceParams& data, const CSnapshot& snapshot);

    // The time of the newest row of the finest period, -1 when there is none: where to resume after
    // a restart. Reports "Error: no configured periods", -1.
    int get_latest_timestamp(const CDeviceProperties& device, time_t& timestamp);

    // Appends to each of the device's tables a blank row for every interval that is missing between
    // its newest row and `now` (seconds; -1 for the present). Of a gap longer than the table keeps,
    // the first intervals, up to one coarse row, and the newest `_max_entries` get a row. Where the
    // rows that wait for their coarse row and the first blank ones outnumber what is kept (and the
    // ten spare ones), the roll-up loses the oldest: guide.md fills in steps that avoid it. Blank
    // rows have no values and 0 percent valid, or 1 with `mark_valid`. Empty tables and devices
    // without parameters get none. At least one period must be configured, which is an assertion.
    // Reports "Error: invalid device id" (also for an empty path), "Error: invalid fill time"
    // (below -1), "Error: can't get time", "Can't prepare SQL (3): '...'", "Can't prepare SQL (4):
    // '...'", the messages of calc_period_ratios() and propagate_recent_samples(); -1.
    int fill_blank_values(const CDeviceProperties& device, time_t now, bool mark_valid);

    // Reading -----------------------------------------------------------------------------------

    // Reads the rows of `periods` (every period when empty) within `bounds`, ordered by time, all
    // periods together; `limit` rows at most (0: all) after leaving out the first `offset`.
    // `request._params` names the values to read, all of the device's when empty; `data._params`
    // says what was read and `data._snapshots[i]._samples` follows it. With `no_overlap` a coarser
    // period gives only the rows older than everything in the finer ones: each time once, at the
    // best resolution still stored. A coarse row that ends after the first fine one is left out.
    // Reports "Error: invalid time range" (a bound below -1), "Error: empty parameter list",
    // "Error: empty period list", "Error: invalid param id" (an assertion instead when `periods` is
    // empty), -1 each; 1 for a row that cannot be decoded. `_max_entries` of `periods` matters only
    // with `no_overlap`, where 0 is an assertion. A read that breaks off ends the rows as it ends a
    // listing. After a failure `data` must not be used. `data` may be the request itself.
    int get_trend_data(CDeviceData& data, const CDeviceParams& request,
                       const std::vector<CPeriodProperties>& periods, const timebounds_t& bounds,
                       size_t limit, size_t offset, bool ascending, bool no_overlap);

    // Clearing ----------------------------------------------------------------------------------

    // Deletes the device's rows within `bounds` from every period. 1 when its finest period still
    // holds a row afterwards, 0 when it holds none. Reports "Error: invalid device id" (also for an
    // empty path), "Error: bad time bounds" (a bound below -1), "Error: no configured periods"; -1.
    int clear_trend_data(const CDeviceProperties& device, const timebounds_t& bounds);

    // Steps of the operations above ---------------------------------------------------------------

    // A host rarely needs these. Each but column_names() is one transaction level of its own and
    // asserts that the log is open. They take their arguments as valid and assert part of that.

    // The names of the parameter's columns, in table order. Replaces what `names` holds.
    static int column_names(const CParamProperties& param, std::vector<tk_string>& names);

    // add_params() for one parameter, with the periods whose tables gain its columns.
    int add_param(const CDeviceProperties& device, const std::vector<CPeriodProperties>& periods,
                  CParamProperties& param);
    int add_param_columns(const CDeviceProperties& device,
                          const std::vector<CPeriodProperties>& periods,
                          const CParamProperties& param);

    // Creates one trend table, as "tmp_table" with `temp`; an empty `params` stands for the
    // device's stored list.
    int create_trend_table(const CPeriodProperties& period, const CDeviceProperties& device,
                           const std::vector<CParamProperties>& params, bool temp);
    int create_trend_tables(const CPeriodProperties& period);
    int create_trend_tables(const CDeviceProperties& device);
    int remove_trend_table(const CPeriodProperties& period, const CDeviceProperties& device);
    int remove_trend_tables(const CPeriodProperties& period);
    int remove_trend_tables(const CDeviceProperties& device);
    int create_param_table(const CDeviceProperties& device);
    int remove_param_table(const CDeviceProperties& device);

    // Rolls full groups of periods[idx] up into the next coarser period and goes on from there;
    // `ratios` as from calc_period_ratios(), `params` the stored list. Reports
    // "Can't prepare SQL (2): '...'" and "Possible problem with SQL stmt: '...'".
    int propagate_recent_samples(const CDeviceProperties& device,
                                 const std::vector<CPeriodProperties>& periods,
                                 const std::vector<unsigned long>& ratios, size_t idx,
                                 const std::vector<CParamProperties>& params);

    // Deletes the rows that are `_max_entries` intervals or more older than the newest; with
    // `keep_spare` ten intervals more are kept.
    int trim_period_table(const CDeviceProperties& device, const CPeriodProperties& period,
                          bool keep_spare);

private:
    friend class CTransaction;  // sees whether the connection is still the one that it began on

    int init_basic_tables();
    int check_db_version();
    int migrate_schema_0_to_1();
    int migrate_schema_1_to_2();

    int recreate_trend_table(const CPeriodProperties& period, const CDeviceProperties& device,
                             const std::vector<CParamProperties>& params,
                             const std::vector<CParamProperties>& old_params);

    int fill_period_blanks(const CDeviceProperties& device,
                           const std::vector<CPeriodProperties>& periods,
                           const std::vector<unsigned long>& ratios, size_t idx,
                           const std::vector<CParamProperties>& params, time_t now,
                           bool mark_valid);

    int get_sample(const std::shared_ptr<CStatement>& stmt, CSnapshot& snapshot,
                   const std::vector<CParamProperties>& params);
    int get_period_boundaries(const CDeviceProperties& device,
                              const std::vector<CPeriodProperties>& periods,
                              std::vector<long long>& upper_bounds);

    int clear_rows(const CDeviceProperties& device, const timebounds_t& bounds, time_t& latest);

    friend struct log_access_t;  // what stands beside the log works over its connection

    std::shared_ptr<CDatabase> _db;  // empty while the log is closed
};

}  // namespace toolkit::trend
