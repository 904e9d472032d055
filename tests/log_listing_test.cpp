// Listing the periods, devices and parameters that a log has stored.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "allocations.h"
#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "trace.h"
#include "trend_api.h"

namespace {

using namespace toolkit::trend;

const std::string GET_PERIODS =
    "int toolkit::trend::CLog::get_periods(std::vector<toolkit::trend::CPeriodProperties>&)";
const std::string GET_DEVICES =
    "int toolkit::trend::CLog::get_devices(std::vector<toolkit::trend::CDeviceProperties>&)";
const std::string GET_PARAMS =
    "int toolkit::trend::CLog::get_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";

const char* const SELECT_PERIODS = "SELECT * FROM periods";
const char* const SELECT_DEVICES = "SELECT * FROM devices";
const char* const SELECT_PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx ASC";

const std::string NON_INT =
    "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: Column type is "
    "non-int\n";
const std::string NON_TEXT =
    "int toolkit::trend::CStatement::column(size_t, tk_string&, bool) const: Column type is "
    "non-text\n";

// Tables that take any value, to hold what no log writes.
const std::string LOOSE_PERIODS = "DROP TABLE periods; CREATE TABLE periods (period, max_entries);";
const std::string LOOSE_DEVICES = "DROP TABLE devices; CREATE TABLE devices (idx, path, guid);";
const std::string LOOSE_PARAMS_1 =
    "DROP TABLE params_1; CREATE TABLE params_1 (idx, path, type, has_min, has_max, has_avg, "
    "has_actual, has_sum);";

CDeviceProperties device(int64_t index, const std::string& path = "plant/pump")
{
    CDeviceProperties made;
    made._path = path;
    made._index = index;
    return made;
}

// Lists as rows(): "1|1440\n5|288".
std::string text(const std::vector<CPeriodProperties>& periods)
{
    std::ostringstream all;
    for (const CPeriodProperties& period : periods)
        all << (all.tellp() > 0 ? "\n" : "") << period._period << '|' << period._max_entries;
    return all.str();
}

std::string text(const std::vector<CDeviceProperties>& devices)
{
    std::ostringstream all;
    for (const CDeviceProperties& one : devices)
        all << (all.tellp() > 0 ? "\n" : "") << one._index << '|' << one._path << '|' << one._guid;
    return all.str();
}

std::string text(const std::vector<CParamProperties>& params)
{
    std::ostringstream all;
    for (const CParamProperties& one : params)
        all << (all.tellp() > 0 ? "\n" : "") << one._index << '|' << one._path << '|' << one._type
            << '|' << one._has_min << one._has_max << one._has_avg << one._has_actual
            << one._has_sum;
    return all.str();
}

// Each list starts with an entry that a listing must not leave.
class log_listing : public log_fixture {
protected:
    int periods() { return _log.get_periods(_periods); }
    int devices() { return _log.get_devices(_devices); }
    int params() { return _log.get_params(device(1), _params); }

    // Lets each allocation of a listing fail in turn, on a connection of its own. `signature` is
    // the listing's.
    void expect_survives_without_memory(const std::string& signature,
                                        const std::function<int()>& list)
    {
        bool reached = true;
        for (size_t n = 1; reached; ++n) {
            SCOPED_TRACE(n);
            reopen();
            int result = 0;
            const std::string said = capture_stderr([&] {
                const allocations::fail_at fault(n);
                result = list();
                reached = fault.reached();
            });
            if (reached) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(said, signature + ": Error: out of memory\n");
            } else {
                EXPECT_EQ(result, 0);
                EXPECT_EQ(said, "");
                EXPECT_GT(n, 5U);  // allocations there have been
            }
            EXPECT_TRUE(at_level_0());
        }
    }

    std::vector<CPeriodProperties> _periods{CPeriodProperties(99, 99)};
    std::vector<CDeviceProperties> _devices{device(99)};
    std::vector<CParamProperties> _params{param("old", "avg")};
};

using get_periods = log_listing;
using get_devices = log_listing;

class get_params : public log_listing {
protected:
    void SetUp() override
    {
        log_listing::SetUp();
        add_period(1, 10);
        add_device("plant/pump");
    }
};

}  // namespace

// Periods ------------------------------------------------------------------------------------

TEST_F(get_periods, of_a_new_log_are_none)
{
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "");
}

TEST_F(get_periods, come_finest_first)
{
    add_periods({{1440, 365}, {1, 1440}, {15, 96}});
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "1|1440\n15|96\n1440|365");
}

TEST_F(get_periods, are_sorted_whatever_the_order_of_the_rows)
{
    run_sql(_file, LOOSE_PERIODS + "INSERT INTO periods VALUES (15, 96), (1440, 365), (1, 1440)");
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "1|1440\n15|96\n1440|365");
}

TEST_F(get_periods, are_the_low_32_bits_of_what_is_stored)
{
    // 4294967297 = 2^32 + 1 and 8589934607 = 2^33 + 15; sorted by what is left of them.
    run_sql(_file, "INSERT INTO periods VALUES (5, 4294967295), (4294967297, 8589934607)");
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "1|15\n5|4294967295");
}

TEST_F(get_periods, keep_their_statement_for_the_next_time)
{
    statement_trace trace;
    EXPECT_QUIET(periods(), 0);
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", SELECT_PERIODS, "COMMIT", "BEGIN", SELECT_PERIODS, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{SELECT_PERIODS});
}

TEST_F(get_periods, see_the_callers_own_transaction)
{
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    statement_trace trace;
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "5|100");
    EXPECT_EQ(trace.texts(), texts_t{SELECT_PERIODS});
    _log.rollback_transaction();
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_periods, want_an_open_log)
{
    _log.close();
    EXPECT_REPORTS(periods(), -1, GET_PERIODS + ": Error: DB not open\n");
}

TEST_F(get_periods, fail_when_their_statement_cannot_be_prepared)
{
    const deny_prepare fault(SELECT_PERIODS);
    EXPECT_REPORTS(periods(), -1, prepare_report("no such column: denied"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_periods, fail_when_no_transaction_can_be_begun)
{
    open_args args;
    args._pool_capacity = 1;  // so that BEGIN is prepared for each use
    reopen(args);
    statement_trace trace;
    const deny_prepare fault("BEGIN");
    EXPECT_REPORTS(periods(), -1, prepare_report("no such column: denied"));
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_periods, fail_when_the_commit_does)
{
    add_period(5, 100);
    const refuse_commit fault;
    EXPECT_REPORTS(periods(), -1, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    EXPECT_TRUE(at_level_0());
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "5|100");
}

TEST_F(get_periods, end_early_without_a_failure_when_a_step_fails)
{
    add_periods({{1, 1440}, {15, 96}, {1440, 365}});
    {
        const interrupt_step fault(SELECT_PERIODS, 3);
        EXPECT_REPORTS(periods(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
        EXPECT_TRUE(fault.struck());
    }
    EXPECT_EQ(text(_periods), "1|1440\n15|96");
    EXPECT_TRUE(at_level_0());
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(_periods.size(), 3U);
}

TEST_F(get_periods, are_sorted_also_when_a_step_fails)
{
    run_sql(_file, LOOSE_PERIODS + "INSERT INTO periods VALUES (1440, 365), (15, 96), (1, 1440)");
    const interrupt_step fault(SELECT_PERIODS, 3);
    EXPECT_REPORTS(periods(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    EXPECT_EQ(text(_periods), "15|96\n1440|365");
}

TEST_F(get_periods, are_none_when_the_first_step_fails)
{
    add_period(5, 100);
    const interrupt_step fault(SELECT_PERIODS);
    EXPECT_REPORTS(periods(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    EXPECT_EQ(text(_periods), "");
}

TEST_F(get_periods, are_none_in_a_transaction_that_sqlite_has_dropped)
{
    add_period(5, 100);
    EXPECT_QUIET(_log.begin_transaction(), 0);
    {
        const interrupt_step fault("INSERT INTO periods VALUES (?,?)");
        EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 96)), -1,
                       step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
        ASSERT_TRUE(fault.struck());
    }
    EXPECT_REPORTS(periods(), 0, step_report(SQLITE_ABORT_ROLLBACK, "abort due to ROLLBACK"));
    EXPECT_EQ(text(_periods), "");
}

TEST_F(get_periods, that_run_out_of_memory_say_so)
{
    add_periods({{1, 1440}, {15, 96}, {1440, 365}});
    expect_survives_without_memory(GET_PERIODS, [this] { return periods(); });
    EXPECT_EQ(text(_periods), "1|1440\n15|96\n1440|365");
}

TEST_F(get_periods, fail_at_a_value_that_is_no_integer)
{
    for (const char* row : {"(NULL, 1)", "(1, NULL)", "('1', 1)", "(1, 1.0)"}) {
        SCOPED_TRACE(row);
        run_sql(_file, LOOSE_PERIODS + "INSERT INTO periods VALUES (7, 7), " + row);
        EXPECT_REPORTS(periods(), -1, NON_INT);
        EXPECT_TRUE(at_level_0());
    }
    run_sql(_file, LOOSE_PERIODS + "INSERT INTO periods VALUES (7, 7)");
    EXPECT_QUIET(periods(), 0);
    EXPECT_EQ(text(_periods), "7|7");
}

TEST_F(get_periods, stop_at_a_number_below_1)
{
    for (const char* row : {"(0, 1)", "(1, 0)", "(-1, 1)", "(1, -1)"}) {
        run_sql(_file, LOOSE_PERIODS + "INSERT INTO periods VALUES " + row);
        EXPECT_STOPS(periods(), "ival>0") << row;
    }
}

// Devices ------------------------------------------------------------------------------------

TEST_F(get_devices, that_fail_leave_the_rows_before_and_nothing_of_the_caller)
{
    run_sql(_file, LOOSE_DEVICES + "INSERT INTO devices VALUES (1, 'pump', NULL), (2, 7, 'g')");
    std::vector<CDeviceProperties> devices(3);
    devices[1]._path = "stale";
    capture_stderr([&] { EXPECT_EQ(_log.get_devices(devices), -1); });
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0]._path, "pump");
}

TEST_F(get_devices, of_a_new_log_are_none)
{
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(text(_devices), "");
}

TEST_F(get_devices, have_identifier_path_and_guid)
{
    add_device("plant/pump", "6d0f4e9a");
    add_device("plant/mixer");
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(text(_devices), "1|plant/pump|6d0f4e9a\n2|plant/mixer|");
}

TEST_F(get_devices, come_in_the_order_of_the_table)
{
    run_sql(_file, LOOSE_DEVICES +
                       "INSERT INTO devices VALUES (3, 'c', NULL), (1, 'a', 'g'), "
                       "(2, 'b', NULL)");
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(text(_devices), "3|c|\n1|a|g\n2|b|");
}

TEST_F(get_devices, have_identifiers_of_64_bits)
{
    run_sql(_file, "INSERT INTO devices VALUES (9223372036854775807, 'last', NULL)");
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(text(_devices), "9223372036854775807|last|");
}

TEST_F(get_devices, have_paths_up_to_the_first_zero_byte)
{
    run_sql(_file, "INSERT INTO devices VALUES (1, CAST(x'706100ff' AS TEXT), NULL)");
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(text(_devices), "1|pa|");
}

TEST_F(get_devices, keep_their_statement_for_the_next_time)
{
    // Opening the log has prepared it for the migration of the new file.
    statement_trace trace;
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", SELECT_DEVICES, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{});

    reopen();
    trace.clear();
    EXPECT_QUIET(devices(), 0);
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(trace.prepared(), texts_t{SELECT_DEVICES});
}

TEST_F(get_devices, see_the_callers_own_transaction)
{
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_device("plant/pump");
    statement_trace trace;
    EXPECT_QUIET(devices(), 0);
    EXPECT_EQ(text(_devices), "1|plant/pump|");
    EXPECT_EQ(trace.texts(), texts_t{SELECT_DEVICES});
    _log.rollback_transaction();
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_devices, want_an_open_log)
{
    _log.close();
    EXPECT_REPORTS(devices(), -1, GET_DEVICES + ": Error: DB not open\n");
}

TEST_F(get_devices, fail_when_their_statement_cannot_be_prepared)
{
    reopen();
    const deny_prepare fault(SELECT_DEVICES);
    EXPECT_REPORTS(devices(), -1, prepare_report("no such column: denied"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_devices, fail_when_no_transaction_can_be_begun)
{
    open_args args;
    args._pool_capacity = 1;  // so that BEGIN is prepared for each use
    reopen(args);
    const deny_prepare fault("BEGIN");
    EXPECT_REPORTS(devices(), -1, prepare_report("no such column: denied"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_devices, fail_when_the_commit_does)
{
    const refuse_commit fault;
    EXPECT_REPORTS(devices(), -1, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    EXPECT_TRUE(at_level_0());
    EXPECT_QUIET(devices(), 0);
}

TEST_F(get_devices, end_early_without_a_failure_when_a_step_fails)
{
    add_device("plant/pump");
    add_device("plant/mixer");
    {
        const interrupt_step fault(SELECT_DEVICES, 2);
        EXPECT_REPORTS(devices(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    }
    EXPECT_EQ(text(_devices), "1|plant/pump|");
    EXPECT_TRUE(at_level_0());
    {
        const interrupt_step fault(SELECT_DEVICES);
        EXPECT_REPORTS(devices(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    }
    EXPECT_EQ(text(_devices), "");
}

TEST_F(get_devices, are_none_in_a_transaction_that_sqlite_has_dropped)
{
    add_device("plant/pump");
    EXPECT_QUIET(_log.begin_transaction(), 0);
    {
        const interrupt_step fault("INSERT INTO periods VALUES (?,?)");
        EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 96)), -1,
                       step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
        ASSERT_TRUE(fault.struck());
    }
    EXPECT_REPORTS(devices(), 0, step_report(SQLITE_ABORT_ROLLBACK, "abort due to ROLLBACK"));
    EXPECT_EQ(text(_devices), "");
}

TEST_F(get_devices, that_run_out_of_memory_say_so)
{
    add_device("a path longer than any short string", "a GUID longer than any short string");
    expect_survives_without_memory(GET_DEVICES, [this] { return devices(); });
    EXPECT_EQ(text(_devices),
              "1|a path longer than any short string|a GUID longer than any short string");
}

TEST_F(get_devices, fail_at_an_identifier_that_is_no_integer)
{
    for (const char* index : {"NULL", "'1'", "1.0"}) {
        SCOPED_TRACE(index);
        run_sql(_file,
                LOOSE_DEVICES + "INSERT INTO devices VALUES (" + index + ", 'plant/pump', NULL)");
        EXPECT_REPORTS(devices(), -1, NON_INT);
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(get_devices, fail_at_a_path_or_guid_that_is_no_text)
{
    for (const char* row : {"(1, NULL, NULL)", "(1, 7, NULL)", "(1, x'70', NULL)", "(1, 'p', 7)"}) {
        SCOPED_TRACE(row);
        run_sql(_file, LOOSE_DEVICES + "INSERT INTO devices VALUES " + row);
        EXPECT_REPORTS(devices(), -1, NON_TEXT);
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(get_devices, stop_at_an_empty_path)
{
    run_sql(_file, "INSERT INTO devices VALUES (1, '', NULL)");
    EXPECT_STOPS(devices(), "!newprop._path.empty()");
}

// Parameters ---------------------------------------------------------------------------------

TEST_F(get_params, of_a_new_device_are_none)
{
    EXPECT_QUIET(params(), 0);
    EXPECT_EQ(text(_params), "");
}

TEST_F(get_params, have_each_flag_of_their_own)
{
    add_params(device(1), {param("a", "min"), param("b", "max"), param("c", "avg"),
                           param("d", "actual"), param("e", "sum"), pf("f", "min avg sum")});
    EXPECT_QUIET(params(), 0);
    EXPECT_EQ(text(_params),
              "1|a|0|10000\n2|b|0|01000\n3|c|0|00100\n4|d|0|00010\n5|e|0|00001\n6|f|1|10101");
}

TEST_F(get_params, come_in_the_order_of_their_identifiers)
{
    run_sql(_file, LOOSE_PARAMS_1 +
                       "INSERT INTO params_1 VALUES (9223372036854775807, 'c', 0, 1, 0, 0, 0, 0),"
                       "(2, 'b', 1, 0, 0, 1, 0, 0), (1, 'a', 0, 0, 0, 0, 0, 1)");
    EXPECT_QUIET(params(), 0);
    EXPECT_EQ(text(_params), "1|a|0|00001\n2|b|1|00100\n9223372036854775807|c|0|10000");
}

TEST_F(get_params, are_those_of_the_device)
{
    add_device("plant/mixer", {param("speed", "avg")});
    EXPECT_QUIET(params(), 0);
    EXPECT_EQ(text(_params), "");
    EXPECT_QUIET(_log.get_params(device(2, "any path"), _params), 0);
    EXPECT_EQ(text(_params), "1|speed|0|00100");
}

TEST_F(get_params, of_a_device_with_an_identifier_of_64_bits)
{
    run_sql(_file, "ALTER TABLE params_1 RENAME TO params_9223372036854775807");
    EXPECT_QUIET(_log.get_params(device(9223372036854775807), _params), 0);
    EXPECT_EQ(text(_params), "");
}

TEST_F(get_params, keep_their_statement_for_the_next_time)
{
    reopen();
    statement_trace trace;
    EXPECT_QUIET(params(), 0);
    EXPECT_QUIET(params(), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", SELECT_PARAMS_1, "COMMIT", "BEGIN", SELECT_PARAMS_1, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{SELECT_PARAMS_1});
}

TEST_F(get_params, see_the_callers_own_transaction)
{
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_params(device(1), {param("u", "avg")});
    statement_trace trace;
    EXPECT_QUIET(params(), 0);
    EXPECT_EQ(text(_params), "1|u|0|00100");
    EXPECT_EQ(trace.texts(), texts_t{SELECT_PARAMS_1});
    _log.rollback_transaction();
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_params, refuse_in_this_order_and_run_nothing)
{
    statement_trace trace;
    EXPECT_REPORTS(_log.get_params(device(-1), _params), -1,
                   GET_PARAMS + ": Error: invalid device id\n");
    EXPECT_REPORTS(_log.get_params(device(-1, ""), _params), -1,
                   GET_PARAMS + ": Error: empty device path\n");
    _log.close();
    EXPECT_REPORTS(_log.get_params(device(-1, ""), _params), -1,
                   GET_PARAMS + ": Error: DB not open\n");
    EXPECT_EQ(trace.texts(), texts_t{});
}

TEST_F(get_params, fail_for_a_device_that_is_not_stored)
{
    const std::string before = dump();
    EXPECT_REPORTS(_log.get_params(device(9), _params), -1,
                   prepare_report("no such table: params_9"));
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(dump(), before);
}

// Its statement has been prepared before, so that it is the step that finds no table.
TEST_F(get_params, of_a_device_removed_since_they_were_read_are_none)
{
    ASSERT_EQ(params(), 0);
    ASSERT_EQ(_log.remove_device(device(1)), 0);
    EXPECT_REPORTS(params(), 0, step_and_reset_report(1, "no such table: params_1"));
    EXPECT_TRUE(_params.empty());
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_params, fail_when_no_transaction_can_be_begun)
{
    open_args args;
    args._pool_capacity = 1;  // so that BEGIN is prepared for each use
    reopen(args);
    const deny_prepare fault("BEGIN");
    EXPECT_REPORTS(params(), -1, prepare_report("no such column: denied"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(get_params, fail_when_the_commit_does)
{
    const refuse_commit fault;
    EXPECT_REPORTS(params(), -1, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    EXPECT_TRUE(at_level_0());
    EXPECT_QUIET(params(), 0);
}

TEST_F(get_params, end_early_without_a_failure_when_a_step_fails)
{
    add_params(device(1), {param("u", "avg"), param("i", "max")});
    {
        const interrupt_step fault(SELECT_PARAMS_1, 2);
        EXPECT_REPORTS(params(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    }
    EXPECT_EQ(text(_params), "1|u|0|00100");
    EXPECT_TRUE(at_level_0());
    {
        const interrupt_step fault(SELECT_PARAMS_1);
        EXPECT_REPORTS(params(), 0, step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    }
    EXPECT_EQ(text(_params), "");
}

TEST_F(get_params, are_none_in_a_transaction_that_sqlite_has_dropped)
{
    add_params(device(1), {param("u", "avg")});
    EXPECT_QUIET(_log.begin_transaction(), 0);
    {
        const interrupt_step fault("INSERT INTO periods VALUES (?,?)");
        EXPECT_REPORTS(_log.add_period(CPeriodProperties(15, 96)), -1,
                       step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
        ASSERT_TRUE(fault.struck());
    }
    EXPECT_REPORTS(params(), 0, step_report(SQLITE_ABORT_ROLLBACK, "abort due to ROLLBACK"));
    EXPECT_EQ(text(_params), "");
}

TEST_F(get_params, that_run_out_of_memory_say_so)
{
    add_params(device(1), {param("a path longer than any short string", "avg")});
    expect_survives_without_memory(GET_PARAMS, [this] { return params(); });
    EXPECT_EQ(text(_params), "1|a path longer than any short string|0|00100");
}

TEST_F(get_params, fail_at_a_value_of_the_wrong_type)
{
    const std::vector<std::pair<const char*, std::string>> bad = {
        {"(NULL, 'u', 0, 1, 1, 1, 1, 1)", NON_INT},  {"(1, NULL, 0, 1, 1, 1, 1, 1)", NON_TEXT},
        {"(1, 7, 0, 1, 1, 1, 1, 1)", NON_TEXT},      {"(1, 'u', NULL, 1, 1, 1, 1, 1)", NON_INT},
        {"(1, 'u', 0, NULL, 1, 1, 1, 1)", NON_INT},  {"(1, 'u', 0, 1, '1', 1, 1, 1)", NON_INT},
        {"(1, 'u', 0, 1, 1, 1.0, 1, 1)", NON_INT},   {"(1, 'u', 0, 1, 1, 1, NULL, 1)", NON_INT},
        {"(1, 'u', 0, 1, 1, 1, 1, x'01')", NON_INT},
    };
    for (const auto& [row, message] : bad) {
        SCOPED_TRACE(row);
        run_sql(_file, LOOSE_PARAMS_1 + "INSERT INTO params_1 VALUES " + row);
        EXPECT_REPORTS(params(), -1, message);
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(get_params, stop_at_an_empty_path)
{
    run_sql(_file, "INSERT INTO params_1 VALUES (1, '', 0, 1, 0, 0, 0, 0)");
    EXPECT_STOPS(params(), "!newprop._path.empty()");
}

TEST_F(get_params, stop_at_a_type_that_there_is_not)
{
    for (const char* type : {"2", "-1", "4294967296"}) {
        run_sql(_file, std::string("DELETE FROM params_1; INSERT INTO params_1 VALUES (1, 'u', ") +
                           type + ", 1, 0, 0, 0, 0)");
        EXPECT_STOPS(params(), "(ival>=0) && (ival<SAMPLE_TYPE_LISTEND)") << type;
    }
}

// A page whose rows are out of order, as only a damaged file has them: the identifier of the first
// of two, which stands before the row's header of nine bytes, becomes 3.
TEST_F(get_params, stop_at_identifiers_that_descend)
{
    run_sql(_file,
            "INSERT INTO params_1 VALUES (1, 'first path', 0, 1, 0, 0, 0, 0), "
            "(2, 'second path', 0, 1, 0, 0, 0, 0)");
    _log.close();
    std::string bytes = file_bytes(_file);
    size_t path = bytes.find("first path");
    while (bytes.at(path - 9) != 9)  // the copy in the index of paths has another header
        path = bytes.find("first path", path + 1);
    ASSERT_EQ(bytes.at(path - 10), 1);
    bytes.at(path - 10) = 3;
    std::ofstream(_file, std::ios::binary) << bytes;
    open();
    EXPECT_STOPS(params(), "std::is_sorted(params.begin(), params.end())");
}

TEST_F(get_params, stop_at_a_flag_that_is_neither_0_nor_1)
{
    for (const char* flags :
         {"2, 0, 0, 0, 0", "0, 2, 0, 0, 0", "0, 0, -1, 0, 0", "0, 0, 0, 2, 0", "0, 0, 0, 0, 2"}) {
        run_sql(_file,
                std::string("DELETE FROM params_1; INSERT INTO params_1 VALUES (1, 'u', 0, ") +
                    flags + ")");
        EXPECT_STOPS(params(), "(ival==0) || (ival==1)") << flags;
    }
}
