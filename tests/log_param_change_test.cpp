// Changing and removing parameters: every trend table of the device is rebuilt with what is kept.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "count_changes.h"
#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "trace.h"
#include "trend_api.h"

namespace {

using namespace toolkit::trend;

const std::string MODIFY =
    "int toolkit::trend::CLog::modify_params(const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&)";
const std::string REMOVE =
    "int toolkit::trend::CLog::remove_params(const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&)";

const char* const PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx";
const char* const LIST_1 = "SELECT * FROM params_1 ORDER BY idx ASC";
const char* const REPLACE_1 = "INSERT OR REPLACE INTO params_1 VALUES (?,?,?,?,?,?,?,?)";
const char* const DELETE_1 = "DELETE FROM params_1 WHERE idx = ?";

using params_t = std::vector<CParamProperties>;

// A log with the period of one minute in which the device "pump" has three parameters:
//
//     1  u       value         min avg
//     2  i       value         sum
//     3  cosphi  power factor  actual
class log_param_change : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_period(1, 100);
        _pump = add_device("pump", {param("u", "min avg"), param("i", "sum"),  //
                                    pf("cosphi", "actual")});
    }

    // The stored parameter with another path and other aggregates.
    CParamProperties changed(int64_t index, const std::string& path, const std::string& kept) const
    {
        CParamProperties made = index == 3 ? pf(path, kept) : param(path, kept);
        made._index = index;
        return made;
    }

    static CParamProperties only_index(int64_t index)
    {
        CParamProperties made;
        made._index = index;
        return made;
    }

    int modify(const params_t& params) { return _log.modify_params(_pump._device, params); }
    int remove(const params_t& params) { return _log.remove_params(_pump._device, params); }

    std::string columns(const std::string& table) const
    {
        return rows("SELECT group_concat(name, ' ') FROM pragma_table_info('" + table + "')");
    }

    // The parameter rows' identifiers and paths, "1 u, 2 i".
    std::string paths() const
    {
        return rows(
            "SELECT group_concat(idx || ' ' || path, ', ') FROM "
            "(SELECT * FROM params_1 ORDER BY idx)");
    }

    CDeviceParams _pump;
};

using log_modify_params = log_param_change;
using log_remove_params = log_param_change;

// The call fails with this report, and afterwards everything is as before.
#define EXPECT_REFUSES(call, report)        \
    do {                                    \
        const std::string before = dump();  \
        EXPECT_REPORTS(call, -1, (report)); \
        EXPECT_EQ(dump(), before) << #call; \
        EXPECT_TRUE(at_level_0()) << #call; \
    } while (false)

// modify_params --------------------------------------------------------------------------------

TEST_F(log_modify_params, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.modify_params(CDeviceProperties(), {}), -1,
                   MODIFY + ": Error: DB not open\n");
}

TEST_F(log_modify_params, looks_at_path_identifier_and_list_before_any_statement)
{
    const std::string before = dump();
    const statement_trace trace;
    CDeviceProperties device;
    EXPECT_REPORTS(_log.modify_params(device, {}), -1, MODIFY + ": Error: empty device path\n");
    device._path = "pump";
    EXPECT_REPORTS(_log.modify_params(device, {}), -1, MODIFY + ": Error: invalid device id\n");
    device._index = 1;
    EXPECT_REPORTS(_log.modify_params(device, {}), -1, MODIFY + ": Error: empty param list\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_modify_params, stores_path_and_aggregates)
{
    EXPECT_QUIET(modify({changed(1, "voltage", "max actual sum")}), 0);
    EXPECT_EQ(rows(PARAMS_1), "1|voltage|0|0|1|0|1|1\n2|i|0|0|0|0|0|1\n3|cosphi|1|0|0|0|1|0");
    EXPECT_EQ(columns("trends_1_1"),
              "time percent_valid param_1_max param_1_actual param_1_sum param_2_sum "
              "param_3_actual");
}

TEST_F(log_modify_params, gives_older_rows_no_value_for_a_new_aggregate)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    record(_pump, 120, {11.0, 21.0, 0.6}, 50.0);
    EXPECT_QUIET(modify({changed(1, "u", "min max avg")}), 0);
    EXPECT_EQ(rows("SELECT time, percent_valid, param_1_min, param_1_max, param_1_avg, "
                   "param_2_sum, param_3_actual FROM trends_1_1"),
              "60|100.0|10.0|NULL|10.0|20.0|0.5\n120|50.0|11.0|NULL|11.0|21.0|0.6");
}

TEST_F(log_modify_params, drops_an_aggregate_that_is_no_longer_kept_with_its_values)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    EXPECT_QUIET(modify({changed(1, "u", "min")}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|20.0|0.5");

    // Kept again, it starts anew.
    EXPECT_QUIET(modify({changed(1, "u", "min avg")}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|NULL|20.0|0.5");
}

TEST_F(log_modify_params, keeps_the_values_of_a_parameter_that_is_renamed)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    EXPECT_QUIET(modify({changed(1, "voltage", "min avg")}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|10.0|20.0|0.5");
    EXPECT_EQ(paths(), "1 voltage, 2 i, 3 cosphi");
}

TEST_F(log_modify_params, lets_a_parameter_keep_nothing)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    EXPECT_QUIET(modify({changed(2, "i", "")}), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|10.0|0.5");
    EXPECT_EQ(rows("SELECT * FROM params_1 WHERE idx = 2"), "2|i|0|0|0|0|0|0");
}

TEST_F(log_modify_params, rebuilds_the_table_of_every_period)
{
    add_period(5, 100);
    for (time_t time = 60; time <= 300; time += 60)
        record(_pump, time, {10.0, 1.0, 0.5});
    EXPECT_QUIET(modify({changed(1, "u", "avg")}), 0);
    EXPECT_EQ(rows("SELECT count(*), sum(param_1_avg), sum(param_2_sum) FROM trends_1_1"),
              "5|50.0|5.0");
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "300|100.0|10.0|5.0|0.5");
}

TEST_F(log_modify_params, leaves_other_devices_alone)
{
    const CDeviceParams fan = add_device("fan", {param("u", "min avg")});
    record(fan, 60, {10.0});
    EXPECT_QUIET(modify({changed(1, "voltage", "max")}), 0);
    EXPECT_EQ(rows("SELECT * FROM params_2"), "1|u|0|1|0|1|0|0");
    EXPECT_EQ(rows("SELECT * FROM trends_2_1"), "60|100.0|10.0|10.0");
}

// A group of fine rows goes into the coarser table by the position of its columns.
TEST_F(log_modify_params, keeps_the_columns_in_the_order_that_the_roll_up_relies_on)
{
    add_period(2, 100);
    EXPECT_QUIET(modify({changed(3, "cosphi", "min actual"), changed(1, "u", "sum max min")}), 0);
    params_t more = {param("p", "avg")};
    ASSERT_EQ(_log.add_params(_pump._device, more), 0);

    const std::string order =
        "time percent_valid param_1_min param_1_max param_1_sum param_2_sum param_3_min "
        "param_3_actual param_4_avg";
    EXPECT_EQ(columns("trends_1_1"), order);
    EXPECT_EQ(columns("trends_1_2"), order);

    CDeviceParams now{_pump._device, {}};
    ASSERT_EQ(_log.get_params(now._device, now._params), 0);
    record(now, 60, {1.0, 10.0, 0.5, 7.0});
    record(now, 120, {2.0, 20.0, 0.5, 7.0});
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|100.0|1.0|2.0|3.0|30.0|0.5|0.5|7.0");
}

TEST_F(log_modify_params, runs_its_statements_in_one_transaction)
{
    add_period(5, 100);
    statement_trace trace;
    EXPECT_QUIET(modify({changed(1, "voltage", "min max")}), 0);
    EXPECT_EQ(
        trace.texts(),
        (texts_t{"BEGIN", "SELECT * FROM periods", LIST_1, REPLACE_1,
                 "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL "
                 "NOT NULL, param_1_min REAL, param_1_max REAL, param_2_sum REAL, "
                 "param_3_actual REAL)",
                 "INSERT INTO tmp_table SELECT time, percent_valid, param_1_min, NULL, "
                 "param_2_sum, param_3_actual FROM trends_1_1",
                 "DROP TABLE trends_1_1", "ALTER TABLE tmp_table RENAME TO trends_1_1",
                 "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL "
                 "NOT NULL, param_1_min REAL, param_1_max REAL, param_2_sum REAL, "
                 "param_3_actual REAL)",
                 "INSERT INTO tmp_table SELECT time, percent_valid, param_1_min, NULL, "
                 "param_2_sum, param_3_actual FROM trends_1_5",
                 "DROP TABLE trends_1_5", "ALTER TABLE tmp_table RENAME TO trends_1_5", "COMMIT"}));
    EXPECT_EQ(trace.expanded()[3],
              "INSERT OR REPLACE INTO params_1 VALUES (1,'voltage',0,1,1,0,0,0)");
}

TEST_F(log_modify_params, keeps_the_replacing_statement_and_prepares_the_rest_afresh)
{
    ASSERT_EQ(modify({changed(1, "u", "avg")}), 0);
    const statement_trace trace;
    EXPECT_QUIET(modify({changed(1, "u", "avg"), changed(2, "i", "sum")}), 0);
    EXPECT_EQ(trace.times_run(REPLACE_1), 2);
    EXPECT_EQ(trace.prepared(),
              (texts_t{"CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid "
                       "REAL NOT NULL, param_1_avg REAL, param_2_sum REAL, param_3_actual REAL)",
                       "INSERT INTO tmp_table SELECT time, percent_valid, param_1_avg, "
                       "param_2_sum, param_3_actual FROM trends_1_1",
                       "DROP TABLE trends_1_1", "ALTER TABLE tmp_table RENAME TO trends_1_1"}));
}

TEST_F(log_modify_params, works_through_the_list_by_identifier)
{
    const statement_trace trace;
    EXPECT_QUIET(modify({changed(3, "c", "avg"), changed(1, "a", "avg"), changed(2, "b", "avg")}),
                 0);
    ASSERT_EQ(trace.times_run(REPLACE_1), 3);
    EXPECT_EQ(trace.expanded()[3], "INSERT OR REPLACE INTO params_1 VALUES (1,'a',0,0,0,1,0,0)");
    EXPECT_EQ(trace.expanded()[4], "INSERT OR REPLACE INTO params_1 VALUES (2,'b',0,0,0,1,0,0)");
    EXPECT_EQ(trace.expanded()[5], "INSERT OR REPLACE INTO params_1 VALUES (3,'c',1,0,0,1,0,0)");
}

TEST_F(log_modify_params, without_periods_changes_the_parameters_only)
{
    ASSERT_EQ(_log.remove_period(CPeriodProperties(1, 100)), 0);
    EXPECT_QUIET(modify({changed(1, "voltage", "max")}), 0);
    EXPECT_EQ(rows("SELECT * FROM params_1 WHERE idx = 1"), "1|voltage|0|0|1|0|0|0");
}

TEST_F(log_modify_params, refuses_a_negative_identifier)
{
    EXPECT_REFUSES(modify({changed(2, "x", "avg"), changed(-1, "y", "avg")}),
                   MODIFY + ": Error: invalid param id\n");
}

TEST_F(log_modify_params, refuses_a_negative_identifier_before_the_others_are_looked_at)
{
    EXPECT_REFUSES(modify({changed(99, "x", "avg"), changed(1, "", "avg"), only_index(-1)}),
                   MODIFY + ": Error: invalid param id\n");
}

TEST_F(log_modify_params, refuses_what_is_not_stored_by_its_place_in_the_sorted_list)
{
    EXPECT_REFUSES(modify({changed(9, "x", "avg"), changed(1, "u", "avg"), changed(2, "i", "avg")}),
                   MODIFY +
                       ": Error: can't update non-existent parameter 'x' at index 2 "
                       "(internal ID = 9)\n");
}

TEST_F(log_modify_params, names_the_longest_identifier_in_its_refusal)
{
    EXPECT_REFUSES(modify({changed(INT64_MAX, "x", "avg")}),
                   MODIFY +
                       ": Error: can't update non-existent parameter 'x' at index 0 "
                       "(internal ID = 9223372036854775807)\n");
}

TEST_F(log_modify_params, refuses_another_type)
{
    CParamProperties other = changed(1, "voltage", "avg");
    other._type = SAMPLE_TYPE_PF;
    EXPECT_REFUSES(modify({other}),
                   "voltage: Error: attempt to change type of parameter 'voltage' (0 -> 1)\n");
    other = changed(3, "cosphi", "avg");
    other._type = SAMPLE_TYPE_VALUE;
    EXPECT_REFUSES(modify({other}),
                   "cosphi: Error: attempt to change type of parameter 'cosphi' (1 -> 0)\n");
}

TEST_F(log_modify_params, refuses_a_type_that_there_is_not_as_another_type)
{
    CParamProperties other = changed(1, "u", "avg");
    other._type = SAMPLE_TYPE_LISTEND;
    EXPECT_REFUSES(modify({other}), "u: Error: attempt to change type of parameter 'u' (0 -> 2)\n");
    other._type = static_cast<sample_type_t>(-7);
    EXPECT_REFUSES(modify({other}),
                   "u: Error: attempt to change type of parameter 'u' (0 -> -7)\n");
}

TEST_F(log_modify_params, undoes_the_entries_before_the_one_that_is_refused)
{
    const statement_trace trace;
    EXPECT_REFUSES(modify({changed(1, "voltage", "max"), changed(9, "x", "avg")}),
                   MODIFY +
                       ": Error: can't update non-existent parameter 'x' at index 1 "
                       "(internal ID = 9)\n");
    EXPECT_EQ(trace.times_run(REPLACE_1), 1);
}

TEST_F(log_modify_params, of_an_unknown_device_fails_at_its_parameter_table)
{
    _pump._device._index = 7;
    EXPECT_REFUSES(modify({changed(1, "u", "avg")}), prepare_report("no such table: params_7"));
}

// An empty path, stored, would stop every process that lists the device's parameters.
TEST_F(log_modify_params, refuses_an_empty_path_before_it_stores_anything)
{
    const statement_trace trace;
    EXPECT_REFUSES(modify({changed(1, "voltage", "max"), changed(2, "", "sum")}),
                   MODIFY + ": Error: empty parameter path\n");
    EXPECT_EQ(trace.times_run(REPLACE_1), 0);
}

TEST_F(log_modify_params, takes_a_path_that_begins_with_a_zero_byte_for_an_empty_one)
{
    EXPECT_REFUSES(modify({changed(1, std::string("\0u", 2), "avg")}),
                   MODIFY + ": Error: empty parameter path\n");
}

// Read back they end at their first zero byte, so to a reader these two would be one path.
TEST_F(log_modify_params, takes_paths_that_differ_after_a_zero_byte_for_the_same)
{
    EXPECT_REFUSES(modify({changed(1, std::string("i\0x", 3), "avg")}),
                   MODIFY + ": Error: duplicate parameter path\n");
}

TEST_F(log_modify_params, stores_paths_up_to_their_first_zero_byte)
{
    EXPECT_QUIET(modify({changed(1, std::string("w\0x", 3), "avg")}), 0);
    EXPECT_EQ(rows("SELECT hex(path) FROM params_1 WHERE idx = 1"), "77");
}

// A path that another parameter has, stored, would delete that parameter without its columns.
TEST_F(log_modify_params, refuses_the_path_of_another_parameter_before_it_stores_anything)
{
    const statement_trace trace;
    EXPECT_REFUSES(modify({changed(1, "i", "avg")}),
                   MODIFY + ": Error: duplicate parameter path\n");
    EXPECT_REFUSES(modify({changed(3, "u", "actual")}),
                   MODIFY + ": Error: duplicate parameter path\n");
    EXPECT_EQ(trace.times_run(REPLACE_1), 0);
}

TEST_F(log_modify_params, refuses_the_same_new_path_for_two_parameters)
{
    EXPECT_REFUSES(modify({changed(1, "x", "avg"), changed(3, "x", "actual")}),
                   MODIFY + ": Error: duplicate parameter path\n");
}

TEST_F(log_modify_params, refuses_a_path_that_its_owner_hands_on_to_a_third)
{
    // 1 takes i from 2, which takes cosphi from 3, which stays as it is.
    EXPECT_REFUSES(modify({changed(1, "i", "avg"), changed(2, "cosphi", "sum")}),
                   MODIFY + ": Error: duplicate parameter path\n");
}

TEST_F(log_modify_params, leaves_a_refused_list_its_own_refusal)
{
    // An empty and a taken path stand before what is not stored, a changed type, a negative
    // identifier.
    EXPECT_REFUSES(modify({changed(1, "", "avg"), changed(9, "x", "avg")}),
                   MODIFY +
                       ": Error: can't update non-existent parameter 'x' at index 1 "
                       "(internal ID = 9)\n");
    EXPECT_REFUSES(modify({changed(1, "i", "avg"), changed(9, "x", "avg")}),
                   MODIFY +
                       ": Error: can't update non-existent parameter 'x' at index 1 "
                       "(internal ID = 9)\n");

    CParamProperties other = changed(3, "cosphi", "avg");
    other._type = SAMPLE_TYPE_VALUE;
    EXPECT_REFUSES(modify({changed(1, "i", "avg"), other}),
                   "cosphi: Error: attempt to change type of parameter 'cosphi' (1 -> 0)\n");
    EXPECT_REFUSES(modify({changed(1, "", "avg"), only_index(-5)}),
                   MODIFY + ": Error: invalid param id\n");
}

TEST_F(log_modify_params, swaps_two_paths)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    EXPECT_QUIET(modify({changed(1, "i", "min avg"), changed(2, "u", "sum")}), 0);
    EXPECT_EQ(paths(), "1 i, 2 u, 3 cosphi");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|10.0|20.0|0.5");
}

TEST_F(log_modify_params, rotates_paths_either_way)
{
    EXPECT_QUIET(
        modify({changed(1, "i", "avg"), changed(2, "cosphi", "sum"), changed(3, "u", "actual")}),
        0);
    EXPECT_EQ(paths(), "1 i, 2 cosphi, 3 u");

    EXPECT_QUIET(
        modify({changed(1, "u", "avg"), changed(2, "i", "sum"), changed(3, "cosphi", "actual")}),
        0);
    EXPECT_EQ(paths(), "1 u, 2 i, 3 cosphi");
}

TEST_F(log_modify_params, hands_on_a_path_that_becomes_free_later_in_the_list)
{
    EXPECT_QUIET(modify({changed(1, "i", "avg"), changed(2, "current", "sum")}), 0);
    EXPECT_EQ(paths(), "1 i, 2 current, 3 cosphi");
}

TEST_F(log_modify_params, hands_on_a_path_that_has_become_free_earlier_in_the_list)
{
    EXPECT_QUIET(modify({changed(1, "voltage", "avg"), changed(2, "u", "sum")}), 0);
    EXPECT_EQ(paths(), "1 voltage, 2 u, 3 cosphi");
}

TEST_F(log_modify_params, of_one_named_twice_leaves_the_last_entry_standing)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    EXPECT_QUIET(modify({changed(1, "a", "max"), changed(1, "b", "min")}), 0);
    EXPECT_EQ(rows("SELECT * FROM params_1 WHERE idx = 1"), "1|b|0|1|0|0|0|0");
    EXPECT_EQ(columns("trends_1_1"), "time percent_valid param_1_min param_2_sum param_3_actual");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|20.0|0.5");
}

// The first entry would delete parameter 2, and no later one brings it back.
TEST_F(log_modify_params, of_one_named_twice_loses_no_other_parameter_on_the_way)
{
    EXPECT_REFUSES(modify({changed(1, "i", "avg"), changed(1, "x", "avg")}),
                   MODIFY + ": Error: duplicate parameter path\n");
}

TEST_F(log_modify_params, rolls_everything_back_when_a_rebuild_fails)
{
    add_period(5, 100);
    record(_pump, 60, {10.0, 20.0, 0.5});
    run_sql(_file, "DROP TABLE trends_1_5");
    EXPECT_REFUSES(modify({changed(1, "voltage", "max")}),
                   prepare_report("no such table: trends_1_5"));
}

TEST_F(log_modify_params, fails_when_the_name_of_the_rebuilt_table_is_taken)
{
    run_sql(_file, "CREATE TABLE tmp_table (x)");
    EXPECT_REFUSES(modify({changed(1, "voltage", "max")}),
                   prepare_report("table tmp_table already exists"));
}

// A period that is not seen would keep a table of the old shape.
TEST_F(log_modify_params, fails_when_the_periods_cannot_all_be_read)
{
    add_period(5, 100);
    const interrupt_step second_period("SELECT * FROM periods", 2);
    EXPECT_REFUSES(modify({changed(1, "voltage", "max")}), step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_period.struck());
}

// A parameter that is not seen would lose its columns.
TEST_F(log_modify_params, fails_when_the_parameters_cannot_all_be_read)
{
    const interrupt_step last_param(LIST_1, 3);
    EXPECT_REFUSES(modify({changed(1, "voltage", "max")}), step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(last_param.struck());
}

TEST_F(log_modify_params, is_part_of_the_callers_transaction)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    const statement_trace trace;
    EXPECT_QUIET(modify({changed(1, "voltage", "max")}), 0);
    EXPECT_EQ(trace.times_run("BEGIN") + trace.times_run("COMMIT"), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// Texts of statements are assembled over all parameters, about 100 KB of them here.
TEST_F(log_modify_params, rebuilds_a_table_as_wide_as_the_database_allows)
{
    const CDeviceProperties wide = add_device("wide");
    run_sql(_file,
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 399) "
            "INSERT INTO params_2 SELECT i, 'p' || i, 0, 1, 1, 1, 1, 1 FROM n;"
            "DROP TABLE trends_2_1");
    ASSERT_EQ(_log.create_trend_tables(wide), 0);

    EXPECT_QUIET(_log.modify_params(wide, {changed(399, "last", "min")}), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM pragma_table_info('trends_2_1')"), "1993");
    EXPECT_EQ(rows("SELECT name FROM pragma_table_info('trends_2_1') WHERE cid = 1992"),
              "param_399_min");
}

// What a statement has left over from its last step shows when it is reset for the next row.
TEST_F(log_modify_params, fails_when_the_statement_cannot_be_reset)
{
    const std::string before = dump();
    const fail_reset failing(REPLACE_1);
    int result = 0;
    const std::string said = capture_stderr([&] {
        result = modify({changed(1, "u", "max"), changed(2, "i", "avg")});
    });
    EXPECT_EQ(result, -1);
    EXPECT_THAT(said, testing::StartsWith(reset_report(9, "interrupted")));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// A period of a multiple of 2^32 minutes, which no log stores, is read as its low half.
TEST_F(log_modify_params, stops_at_a_stored_period_of_0_minutes)
{
    run_sql(_file, "UPDATE periods SET period = 4294967296");
    EXPECT_STOPS(modify({changed(1, "u", "max")}), "periods[i]._period!=0");
}

TEST_F(log_modify_params, stored_parameter_that_returns_a_row_is_stopped)
{
    count_changes fault;
    EXPECT_STOPS(modify({changed(1, "u", "max")}), "retval<=0");
}

TEST_F(log_modify_params, passes_on_a_row_out_of_a_rebuild)
{
    const std::string before = dump();
    count_changes fault("CREATE TABLE tmp_table");
    EXPECT_EQ(modify({changed(1, "u", "max")}), 1);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// remove_params --------------------------------------------------------------------------------

TEST_F(log_remove_params, refuses_a_closed_log_first)
{
    _log.close();
    EXPECT_REPORTS(_log.remove_params(CDeviceProperties(), {}), -1,
                   REMOVE + ": Error: DB not open\n");
}

TEST_F(log_remove_params, looks_at_path_identifier_and_list_before_any_statement)
{
    const std::string before = dump();
    const statement_trace trace;
    CDeviceProperties device;
    EXPECT_REPORTS(_log.remove_params(device, {}), -1, REMOVE + ": Error: empty device path\n");
    device._path = "pump";
    EXPECT_REPORTS(_log.remove_params(device, {}), -1, REMOVE + ": Error: invalid device id\n");
    device._index = 1;
    EXPECT_REPORTS(_log.remove_params(device, {}), -1, REMOVE + ": Error: empty param list\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_remove_params, removes_row_and_columns_and_keeps_the_others_values)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    record(_pump, 120, {11.0, 21.0, 0.6}, 50.0);
    EXPECT_QUIET(remove({only_index(2)}), 0);
    EXPECT_EQ(paths(), "1 u, 3 cosphi");
    EXPECT_EQ(columns("trends_1_1"), "time percent_valid param_1_min param_1_avg param_3_actual");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|10.0|0.5\n120|50.0|11.0|11.0|0.6");
}

TEST_F(log_remove_params, goes_by_the_identifier_alone)
{
    EXPECT_QUIET(remove({changed(1, "cosphi", "")}), 0);
    EXPECT_EQ(paths(), "2 i, 3 cosphi");
}

TEST_F(log_remove_params, of_all_leaves_bare_tables_with_their_rows)
{
    add_period(5, 100);
    record(_pump, 60, {10.0, 20.0, 0.5});
    record(_pump, 120, {11.0, 21.0, 0.6}, 50.0);
    EXPECT_QUIET(remove(_pump._params), 0);
    EXPECT_EQ(rows(PARAMS_1), "");
    EXPECT_EQ(columns("trends_1_1"), "time percent_valid");
    EXPECT_EQ(columns("trends_1_5"), "time percent_valid");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0\n120|50.0");
}

TEST_F(log_remove_params, of_all_makes_the_next_one_the_first_again)
{
    ASSERT_EQ(remove(_pump._params), 0);
    params_t params = {param("p", "max")};
    ASSERT_EQ(_log.add_params(_pump._device, params), 0);
    EXPECT_EQ(params[0]._index, 1);
    EXPECT_EQ(columns("trends_1_1"), "time percent_valid param_1_max");
}

TEST_F(log_remove_params, of_one_that_is_not_stored_changes_nothing_and_succeeds)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    const std::string params = rows(PARAMS_1);
    EXPECT_QUIET(remove({only_index(9), only_index(0)}), 0);
    EXPECT_EQ(rows(PARAMS_1), params);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|10.0|20.0|0.5");
}

TEST_F(log_remove_params, passes_over_one_that_is_not_stored)
{
    EXPECT_QUIET(remove({only_index(9), only_index(1)}), 0);
    EXPECT_EQ(paths(), "2 i, 3 cosphi");
}

TEST_F(log_remove_params, of_one_named_twice_removes_it_once)
{
    EXPECT_QUIET(remove({only_index(2), only_index(1), only_index(2)}), 0);
    EXPECT_EQ(paths(), "3 cosphi");
    EXPECT_EQ(columns("trends_1_1"), "time percent_valid param_3_actual");
}

TEST_F(log_remove_params, leaves_other_devices_alone)
{
    const CDeviceParams fan = add_device("fan", {param("u", "min avg")});
    record(fan, 60, {10.0});
    EXPECT_QUIET(remove(_pump._params), 0);
    EXPECT_EQ(rows("SELECT * FROM params_2"), "1|u|0|1|0|1|0|0");
    EXPECT_EQ(rows("SELECT * FROM trends_2_1"), "60|100.0|10.0|10.0");
}

TEST_F(log_remove_params, runs_its_statements_in_one_transaction_by_identifier)
{
    add_period(5, 100);
    const statement_trace trace;
    EXPECT_QUIET(remove({only_index(3), only_index(1)}), 0);
    EXPECT_EQ(
        trace.texts(),
        (texts_t{"BEGIN", "SELECT * FROM periods", LIST_1, DELETE_1, DELETE_1,
                 "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL "
                 "NOT NULL, param_2_sum REAL)",
                 "INSERT INTO tmp_table SELECT time, percent_valid, param_2_sum FROM trends_1_1",
                 "DROP TABLE trends_1_1", "ALTER TABLE tmp_table RENAME TO trends_1_1",
                 "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL "
                 "NOT NULL, param_2_sum REAL)",
                 "INSERT INTO tmp_table SELECT time, percent_valid, param_2_sum FROM trends_1_5",
                 "DROP TABLE trends_1_5", "ALTER TABLE tmp_table RENAME TO trends_1_5", "COMMIT"}));
    EXPECT_EQ(trace.expanded()[3], "DELETE FROM params_1 WHERE idx = 1");
    EXPECT_EQ(trace.expanded()[4], "DELETE FROM params_1 WHERE idx = 3");
}

TEST_F(log_remove_params, of_all_empties_the_parameter_table_with_each_rebuild)
{
    const statement_trace trace;
    EXPECT_QUIET(remove({only_index(1), only_index(2), only_index(3)}), 0);
    EXPECT_EQ(
        trace.texts(),
        (texts_t{"BEGIN", "SELECT * FROM periods", LIST_1, DELETE_1, DELETE_1, DELETE_1,
                 "DELETE FROM params_1", LIST_1,
                 "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid "
                 "REAL NOT NULL)",
                 "INSERT INTO tmp_table SELECT time, percent_valid FROM trends_1_1",
                 "DROP TABLE trends_1_1", "ALTER TABLE tmp_table RENAME TO trends_1_1", "COMMIT"}));
}

TEST_F(log_remove_params, prepares_the_deleting_statement_once_and_afresh)
{
    ASSERT_EQ(remove({only_index(9)}), 0);
    const statement_trace trace;
    EXPECT_QUIET(remove({only_index(1), only_index(2)}), 0);
    EXPECT_EQ(trace.prepared(),
              (texts_t{DELETE_1,
                       "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, percent_valid "
                       "REAL NOT NULL, param_3_actual REAL)",
                       "INSERT INTO tmp_table SELECT time, percent_valid, param_3_actual FROM "
                       "trends_1_1",
                       "DROP TABLE trends_1_1", "ALTER TABLE tmp_table RENAME TO trends_1_1"}));
}

TEST_F(log_remove_params, empties_the_parameter_table_afresh_with_each_rebuild)
{
    add_period(15, 100);
    const statement_trace trace;
    EXPECT_QUIET(remove({only_index(1), only_index(2), only_index(3)}), 0);
    EXPECT_EQ(trace.times_prepared("DELETE FROM params_1"), 2);
}

TEST_F(log_remove_params, stops_at_a_stored_period_of_0_minutes)
{
    run_sql(_file, "UPDATE periods SET period = 4294967296");
    EXPECT_STOPS(remove({only_index(1)}), "periods[i]._period!=0");
}

TEST_F(log_remove_params, removal_that_returns_a_row_is_stopped)
{
    count_changes fault;
    EXPECT_STOPS(remove({only_index(1)}), "retval<=0");
}

TEST_F(log_remove_params, without_periods_removes_the_parameters_only)
{
    ASSERT_EQ(_log.remove_period(CPeriodProperties(1, 100)), 0);
    EXPECT_QUIET(remove({only_index(1)}), 0);
    EXPECT_EQ(paths(), "2 i, 3 cosphi");
}

TEST_F(log_remove_params, refuses_a_negative_identifier)
{
    const statement_trace trace;
    EXPECT_REFUSES(remove({only_index(1), only_index(-1)}), REMOVE + ": Error: invalid param id\n");
    EXPECT_EQ(trace.times_run(DELETE_1), 0);  // it is the first by identifier
    EXPECT_EQ(trace.times_run("ROLLBACK"), 1);
}

TEST_F(log_remove_params, of_an_unknown_device_fails_at_its_parameter_table)
{
    _pump._device._index = 7;
    EXPECT_REFUSES(remove({only_index(1)}), prepare_report("no such table: params_7"));
}

TEST_F(log_remove_params, fails_when_the_deleting_statement_cannot_be_prepared)
{
    const deny_prepare deleting(DELETE_1);
    EXPECT_REFUSES(remove({only_index(1)}), prepare_report("no such column: denied"));
    EXPECT_TRUE(deleting.struck());
}

TEST_F(log_remove_params, rolls_everything_back_when_a_rebuild_fails)
{
    add_period(5, 100);
    record(_pump, 60, {10.0, 20.0, 0.5});
    run_sql(_file, "DROP TABLE trends_1_5");
    EXPECT_REFUSES(remove({only_index(1)}), prepare_report("no such table: trends_1_5"));
    EXPECT_REFUSES(remove(_pump._params), prepare_report("no such table: trends_1_5"));
}

TEST_F(log_remove_params, fails_when_the_periods_cannot_all_be_read)
{
    add_period(5, 100);
    const interrupt_step second_period("SELECT * FROM periods", 2);
    EXPECT_REFUSES(remove({only_index(1)}), step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_period.struck());
}

TEST_F(log_remove_params, fails_when_the_statement_cannot_be_reset)
{
    const std::string before = dump();
    const fail_reset failing(DELETE_1);
    int result = 0;
    const std::string said = capture_stderr([&] { result = remove({only_index(1)}); });
    EXPECT_EQ(result, -1);
    EXPECT_THAT(said, testing::StartsWith(reset_report(9, "interrupted")));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// A parameter that is not seen would lose its columns; none seen, the whole table its values.
TEST_F(log_remove_params, fails_when_the_parameters_cannot_all_be_read)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    for (const int n : {1, 2, 3, 4}) {
        reopen();
        const interrupt_step nth_param(LIST_1, n);
        EXPECT_REFUSES(remove({only_index(1)}), step_and_reset_report(9, "interrupted"));
        EXPECT_TRUE(nth_param.struck());
    }
}

// The list that the rebuild reads back when nothing is left.
TEST_F(log_remove_params, of_all_fails_when_the_emptied_list_cannot_be_read)
{
    const interrupt_step second_list(LIST_1, 5);  // the first takes four steps
    EXPECT_REFUSES(remove(_pump._params), step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_list.struck());
}

TEST_F(log_remove_params, is_part_of_the_callers_transaction)
{
    record(_pump, 60, {10.0, 20.0, 0.5});
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(remove(_pump._params), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

}  // namespace
