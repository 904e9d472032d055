// Parameters: adding and listing them, the columns that they have, and the tables built from them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "trace.h"
#include "trend_api.h"

namespace {

using namespace toolkit::trend;
using testing::ElementsAre;

using log_create_trend_table = log_fixture;
using log_add_param_columns = log_fixture;
using log_add_param = log_fixture;
using log_add_params = log_fixture;
using log_get_params = log_fixture;

const std::string ADD_PARAM =
    "int toolkit::trend::CLog::add_param(const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, toolkit::trend::CParamProperties&)";
const std::string ADD_PARAMS =
    "int toolkit::trend::CLog::add_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";
const std::string GET_PARAMS =
    "int toolkit::trend::CLog::get_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";

const char* const PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx";
const char* const INSERT_1 =
    "INSERT INTO params_1 VALUES ((SELECT max(idx)+1 FROM params_1),?,?,?,?,?,?,?)";
const char* const LIST_1 = "SELECT * FROM params_1 ORDER BY idx ASC";

using params_t = std::vector<CParamProperties>;
using periods_t = std::vector<CPeriodProperties>;

CDeviceProperties device(const std::string& path, int64_t index)
{
    CDeviceProperties properties;
    properties._path = path;
    properties._index = index;
    return properties;
}

CParamProperties with_index(CParamProperties param, int64_t index)
{
    param._index = index;
    return param;
}

CParamProperties with_type(CParamProperties param, int type)
{
    param._type = static_cast<sample_type_t>(type);
    return param;
}

std::vector<tk_string> names_of(const CParamProperties& param)
{
    std::vector<tk_string> names;
    EXPECT_EQ(CLog::column_names(param, names), 0);
    return names;
}

std::string columns_of(const std::string& file, const std::string& table)
{
    return rows(file, "SELECT group_concat(name, ' ') FROM pragma_table_info('" + table + "')");
}

// column_names and operation_prefix ------------------------------------------------------------

TEST(column_names, stand_in_a_fixed_order)
{
    EXPECT_THAT(
        names_of(with_index(param("u", "sum actual avg max min"), 7)),
        ElementsAre("param_7_min", "param_7_max", "param_7_avg", "param_7_actual", "param_7_sum"));
}

TEST(column_names, are_those_of_the_kept_aggregates)
{
    EXPECT_THAT(names_of(with_index(param("u", "min"), 1)), ElementsAre("param_1_min"));
    EXPECT_THAT(names_of(with_index(param("u", "max"), 1)), ElementsAre("param_1_max"));
    EXPECT_THAT(names_of(with_index(param("u", "avg"), 1)), ElementsAre("param_1_avg"));
    EXPECT_THAT(names_of(with_index(param("u", "actual"), 7)), ElementsAre("param_7_actual"));
    EXPECT_THAT(names_of(with_index(param("u", "sum"), 1)), ElementsAre("param_1_sum"));
    EXPECT_THAT(names_of(with_index(param("u", ""), 1)), ElementsAre());
}

TEST(column_names, do_not_depend_on_the_type)
{
    EXPECT_THAT(names_of(with_index(pf("cosphi", "min avg"), 2)),
                ElementsAre("param_2_min", "param_2_avg"));
}

TEST(column_names, hold_the_longest_identifier)
{
    EXPECT_THAT(names_of(with_index(param("u", "actual"), INT64_MAX)),
                ElementsAre("param_9223372036854775807_actual"));
}

TEST(column_names, replace_what_the_list_held)
{
    std::vector<tk_string> names = {"left", "over"};
    EXPECT_EQ(CLog::column_names(with_index(param("u", "avg"), 1), names), 0);
    EXPECT_THAT(names, ElementsAre("param_1_avg"));
}

TEST(operation_prefix, tells_power_factors_from_other_values)
{
    EXPECT_STREQ(operation_prefix(SAMPLE_TYPE_VALUE), "");
    EXPECT_STREQ(operation_prefix(SAMPLE_TYPE_PF), "pf");
}

TEST(operation_prefix, stops_at_any_other_type)
{
    EXPECT_STOPS(operation_prefix(SAMPLE_TYPE_LISTEND), "false");
    EXPECT_STOPS(operation_prefix(static_cast<sample_type_t>(-1)), "false");
}

// create_trend_table ---------------------------------------------------------------------------

TEST_F(log_create_trend_table, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(
        _log.create_trend_table(CPeriodProperties(1, 100), device("pump", 1), params_t{}, false),
        "_db");
}

TEST_F(log_create_trend_table, has_the_columns_of_the_given_parameters_in_their_order)
{
    const params_t params = {with_index(param("u", "avg min"), 1),
                             with_index(param("i", "sum"), 2)};
    const statement_trace trace;
    EXPECT_QUIET(
        _log.create_trend_table(CPeriodProperties(15, 100), device("pump", 4), params, false), 0);

    const std::string sql =
        "CREATE TABLE trends_4_15 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT NULL, "
        "param_1_min REAL, param_1_avg REAL, param_2_sum REAL)";
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", sql, "COMMIT"}));
    EXPECT_EQ(trace.prepared(), (texts_t{sql}));
    EXPECT_EQ(columns_of(_file, "trends_4_15"),
              "time percent_valid param_1_min param_1_avg param_2_sum");
}

TEST_F(log_create_trend_table, is_named_tmp_table_while_it_is_temporary)
{
    const params_t params = {with_index(param("u", "actual"), 7)};
    EXPECT_QUIET(
        _log.create_trend_table(CPeriodProperties(15, 100), device("pump", 4), params, true), 0);
    EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name = 'tmp_table'"),
              "CREATE TABLE tmp_table (time INTEGER PRIMARY KEY NOT NULL, "
              "percent_valid REAL NOT NULL, param_7_actual REAL)");
}

TEST_F(log_create_trend_table, without_a_list_takes_the_devices_own)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "max"), param("i", "sum")});
    const statement_trace trace;
    EXPECT_QUIET(
        _log.create_trend_table(CPeriodProperties(15, 100), pump._device, params_t{}, false), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", LIST_1,
                                      "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT "
                                      "NULL, percent_valid REAL NOT NULL, param_1_max REAL, "
                                      "param_2_sum REAL)",
                                      "COMMIT"}));
}

TEST_F(log_create_trend_table, of_a_device_without_parameters_has_the_fixed_columns_only)
{
    const CDeviceProperties pump = add_device("pump");
    EXPECT_QUIET(_log.create_trend_table(CPeriodProperties(15, 100), pump, params_t{}, false), 0);
    EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name = 'trends_1_15'"),
              "CREATE TABLE trends_1_15 (time INTEGER PRIMARY KEY NOT NULL, "
              "percent_valid REAL NOT NULL)");
}

TEST_F(log_create_trend_table, passes_on_what_the_listing_refuses)
{
    const std::string before = dump();
    EXPECT_REPORTS(
        _log.create_trend_table(CPeriodProperties(15, 100), device("", 1), params_t{}, false), -1,
        GET_PARAMS + ": Error: empty device path\n");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_create_trend_table, fails_when_the_parameters_cannot_all_be_read)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "max"), param("i", "sum")});
    const std::string before = dump();
    const interrupt_step second_param(LIST_1, 2);

    EXPECT_REPORTS(
        _log.create_trend_table(CPeriodProperties(15, 100), pump._device, params_t{}, false), -1,
        step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_param.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_create_trend_table, fails_when_the_table_is_there)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    EXPECT_REPORTS(_log.create_trend_table(CPeriodProperties(1, 100), pump, params_t{}, false), -1,
                   prepare_report("table trends_1_1 already exists"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// 399 parameters of five columns are 1995, near the 2000 that SQLite allows: about 60 KB of text.
TEST_F(log_create_trend_table, holds_as_many_columns_as_the_database_allows)
{
    params_t params;
    for (int64_t index = 1; index <= 399; ++index)
        params.push_back(with_index(param("u", "min max avg actual sum"), index));
    EXPECT_QUIET(
        _log.create_trend_table(CPeriodProperties(15, 100), device("pump", 4), params, false), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM pragma_table_info('trends_4_15')"), "1997");
    EXPECT_EQ(rows("SELECT name FROM pragma_table_info('trends_4_15') WHERE cid = 1996"),
              "param_399_sum");
}

// add_param_columns ----------------------------------------------------------------------------

TEST_F(log_add_param_columns, stops_on_a_closed_log)
{
    _log.close();
    EXPECT_STOPS(_log.add_param_columns(device("pump", 1), {}, with_index(param("u", "avg"), 1)),
                 "_db");
}

TEST_F(log_add_param_columns, stops_at_a_parameter_that_is_not_stored)
{
    EXPECT_STOPS(_log.add_param_columns(device("pump", 1), {}, param("u", "avg")),
                 "param._index>=0");
}

TEST_F(log_add_param_columns, stops_at_a_period_of_zero)
{
    EXPECT_STOPS(_log.add_param_columns(device("pump", 1), {CPeriodProperties(0, 100)},
                                        with_index(param("u", "avg"), 1)),
                 "periods[i]._period!=0");
}

TEST_F(log_add_param_columns, walks_the_periods_as_given_and_the_columns_in_their_order)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    const statement_trace trace;
    EXPECT_QUIET(
        _log.add_param_columns(pump, {{15, 100}, {1, 100}}, with_index(param("u", "avg min"), 7)),
        0);

    const texts_t columns = {"ALTER TABLE trends_1_15 ADD COLUMN param_7_min REAL DEFAULT NULL",
                             "ALTER TABLE trends_1_15 ADD COLUMN param_7_avg REAL DEFAULT NULL",
                             "ALTER TABLE trends_1_1 ADD COLUMN param_7_min REAL DEFAULT NULL",
                             "ALTER TABLE trends_1_1 ADD COLUMN param_7_avg REAL DEFAULT NULL"};
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", columns[0], columns[1], columns[2], columns[3], "COMMIT"}));
    EXPECT_EQ(trace.prepared(), columns);
}

TEST_F(log_add_param_columns, without_periods_does_nothing)
{
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    EXPECT_QUIET(_log.add_param_columns(pump, {}, with_index(param("u", "avg"), 7)), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(log_add_param_columns, stops_at_the_first_failure_and_rolls_back)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    EXPECT_REPORTS(_log.add_param_columns(pump, {{1, 100}, {15, 100}, {60, 100}},
                                          with_index(param("u", "avg"), 7)),
                   -1, prepare_report("no such table: trends_1_15"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// add_param ------------------------------------------------------------------------------------

TEST_F(log_add_param, stops_on_a_closed_log)
{
    _log.close();
    CParamProperties u = param("u", "avg");
    EXPECT_STOPS(_log.add_param(device("pump", -1), {}, u), "_db");
}

TEST_F(log_add_param, stops_at_a_device_that_is_not_stored)
{
    CParamProperties u = param("u", "avg");
    EXPECT_STOPS(_log.add_param(device("pump", -1), {}, u), "device._index>=0");
}

TEST_F(log_add_param, stops_without_periods)
{
    const CDeviceProperties pump = add_device("pump");
    CParamProperties u = param("u", "avg");
    EXPECT_STOPS(_log.add_param(pump, {}, u), "!periods.empty()");
}

TEST_F(log_add_param, stores_the_parameter_and_writes_its_identifier)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    CParamProperties cosphi = pf("cosphi", "max actual");
    cosphi._index = 77;
    EXPECT_QUIET(_log.add_param(pump, {{1, 100}}, cosphi), 0);
    EXPECT_EQ(cosphi._index, 1);
    EXPECT_EQ(rows(PARAMS_1), "1|cosphi|1|0|1|0|1|0");
    EXPECT_EQ(columns_of(_file, "trends_1_1"), "time percent_valid param_1_max param_1_actual");
}

TEST_F(log_add_param, adds_columns_to_the_given_periods_only)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    CParamProperties u = param("u", "avg");
    EXPECT_QUIET(_log.add_param(pump, {{15, 100}}, u), 0);
    EXPECT_EQ(columns_of(_file, "trends_1_1"), "time percent_valid");
    EXPECT_EQ(columns_of(_file, "trends_1_15"), "time percent_valid param_1_avg");
}

TEST_F(log_add_param, without_a_parameter_table_says_only_what_the_statement_says)
{
    add_period(1, 100);
    CParamProperties nameless;
    EXPECT_REPORTS(_log.add_param(device("pump", 7), {{1, 100}}, nameless), -1,
                   prepare_report("no such table: params_7"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_param, has_its_statement_before_it_looks_at_the_parameter)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    CParamProperties nameless;
    const statement_trace trace;
    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}}, nameless), -1,
                   ADD_PARAM + ": Error: empty parameter path\n");
    EXPECT_EQ(trace.times_prepared(INSERT_1), 1);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "ROLLBACK"}));
}

TEST_F(log_add_param, looks_at_the_path_then_the_type_then_the_aggregates)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();

    CParamProperties wrong = with_type(param("", ""), 2);
    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}}, wrong), -1,
                   ADD_PARAM + ": Error: empty parameter path\n");
    wrong._path = "u";
    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}}, wrong), -1,
                   ADD_PARAM + ": Error: unsupported parameter type\n");
    wrong._type = SAMPLE_TYPE_PF;
    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}}, wrong), -1,
                   ADD_PARAM +
                       ": Error: at least one of min/max/avg/actual/sum must be 'true' to add a "
                       "parameter\n");

    EXPECT_EQ(wrong._index, -1);
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_param, refuses_a_negative_type)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    CParamProperties wrong = with_type(param("u", "avg"), -1);
    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}}, wrong), -1,
                   ADD_PARAM + ": Error: unsupported parameter type\n");
    EXPECT_EQ(rows(PARAMS_1), "");
}

// Identifiers of stored parameters are 0 or more. Among negative ones the new parameter's own is
// still negative and counts as 1, which names the columns.
TEST_F(log_add_param, takes_a_negative_highest_identifier_for_1)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    run_sql(_file, "INSERT INTO params_1 VALUES (-5, 'i', 0, 1, 0, 0, 0, 0)");
    CParamProperties u = param("u", "avg");
    EXPECT_QUIET(_log.add_param(pump, {{1, 100}}, u), 0);
    EXPECT_EQ(u._index, 1);
    EXPECT_EQ(columns_of(_file, "trends_1_1"), "time percent_valid param_1_avg");
}

TEST_F(log_add_param, fails_when_its_identifier_cannot_be_read)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    const interrupt_step reading("SELECT max(idx) FROM params_1");
    CParamProperties u = with_index(param("u", "avg"), 77);

    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}}, u), -1,
                   step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(reading.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_param, leaves_neither_row_nor_column_when_a_table_is_missing)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    CParamProperties u = param("u", "min avg");
    EXPECT_REPORTS(_log.add_param(pump, {{1, 100}, {15, 100}}, u), -1,
                   prepare_report("no such table: trends_1_15"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// add_params -----------------------------------------------------------------------------------

TEST_F(log_add_params, refuses_a_closed_log_first)
{
    _log.close();
    params_t none;
    EXPECT_REPORTS(_log.add_params(device("", -1), none), -1,
                   ADD_PARAMS + ": Error: DB not open\n");
}

TEST_F(log_add_params, looks_at_path_identifier_and_list_before_any_statement)
{
    add_period(1, 100);
    add_device("pump");
    const std::string before = dump();
    const statement_trace trace;
    params_t none;
    EXPECT_REPORTS(_log.add_params(device("", -1), none), -1,
                   ADD_PARAMS + ": Error: empty device path\n");
    EXPECT_REPORTS(_log.add_params(device("pump", -1), none), -1,
                   ADD_PARAMS + ": Error: invalid device id\n");
    EXPECT_REPORTS(_log.add_params(device("pump", 1), none), -1,
                   ADD_PARAMS + ": Error: empty param list\n");
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(dump(), before);
}

TEST_F(log_add_params, stops_without_periods)
{
    const CDeviceProperties pump = add_device("pump");
    params_t params = {param("u", "avg")};
    EXPECT_STOPS(_log.add_params(pump, params), "!periods.empty()");
}

TEST_F(log_add_params, stores_the_list_in_its_order_and_writes_the_identifiers)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    params_t params = {param("z", "min max avg actual sum"), pf("a", "avg"), param("m", "sum")};
    EXPECT_QUIET(_log.add_params(pump, params), 0);
    EXPECT_EQ(params[0]._index, 1);
    EXPECT_EQ(params[1]._index, 2);
    EXPECT_EQ(params[2]._index, 3);
    EXPECT_EQ(rows(PARAMS_1), "1|z|0|1|1|1|1|1\n2|a|1|0|0|1|0|0\n3|m|0|0|0|0|0|1");
}

TEST_F(log_add_params, stores_each_flag_in_its_own_column)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    params_t params = {param("a", "min"), param("b", "max"), param("c", "avg"),
                       param("d", "actual"), param("e", "sum")};
    EXPECT_QUIET(_log.add_params(pump, params), 0);
    EXPECT_EQ(rows("SELECT path, has_min, has_max, has_avg, has_actual, has_sum FROM params_1"),
              "a|1|0|0|0|0\nb|0|1|0|0|0\nc|0|0|1|0|0\nd|0|0|0|1|0\ne|0|0|0|0|1");
}

TEST_F(log_add_params, adds_the_columns_to_every_table_of_this_device)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    add_device("fan");
    params_t params = {param("u", "avg min"), param("i", "sum")};
    EXPECT_QUIET(_log.add_params(pump, params), 0);

    const std::string columns = "time percent_valid param_1_min param_1_avg param_2_sum";
    EXPECT_EQ(columns_of(_file, "trends_1_1"), columns);
    EXPECT_EQ(columns_of(_file, "trends_1_15"), columns);
    EXPECT_EQ(columns_of(_file, "trends_2_1"), "time percent_valid");
    EXPECT_EQ(rows("SELECT * FROM params_2"), "");
}

TEST_F(log_add_params, appends_to_the_columns_that_are_there_and_older_rows_have_no_value)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "max")});
    record(pump, 60, {10.0});
    params_t params = {param("i", "min")};
    EXPECT_QUIET(_log.add_params(pump._device, params), 0);
    EXPECT_EQ(columns_of(_file, "trends_1_1"), "time percent_valid param_1_max param_2_min");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"), "60|100.0|10.0|NULL");
}

TEST_F(log_add_params, count_on_from_the_highest_identifier)
{
    add_period(1, 100);
    const CDeviceParams pump =
        add_device("pump", {param("a", "avg"), param("b", "avg"), param("c", "avg")});
    ASSERT_EQ(_log.remove_params(pump._device, {pump._params[1]}), 0);
    params_t params = {param("d", "avg")};
    EXPECT_QUIET(_log.add_params(pump._device, params), 0);
    EXPECT_EQ(params[0]._index, 4);
}

TEST_F(log_add_params, use_the_highest_identifier_again_once_it_is_free)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("a", "avg"), param("b", "avg")});
    ASSERT_EQ(_log.remove_params(pump._device, {pump._params[1]}), 0);
    params_t params = {param("c", "min")};
    EXPECT_QUIET(_log.add_params(pump._device, params), 0);
    EXPECT_EQ(params[0]._index, 2);
    EXPECT_EQ(columns_of(_file, "trends_1_1"), "time percent_valid param_1_avg param_2_min");
}

// The same text again, for a parameter that gets the identifier of one that is gone.
TEST_F(log_add_params, prepare_each_column_afresh)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const statement_trace trace;
    for (const char* const path : {"a", "b"}) {
        const CDeviceParams added = add_params(pump, {param(path, "avg")});
        ASSERT_EQ(_log.remove_params(pump, added._params), 0);
    }
    EXPECT_EQ(
        trace.times_prepared("ALTER TABLE trends_1_1 ADD COLUMN param_1_avg REAL DEFAULT NULL"), 2);
}

TEST_F(log_add_params, run_their_statements_in_one_transaction)
{
    add_periods({{15, 100}, {1, 100}});
    const CDeviceProperties pump = add_device("pump");
    params_t params = {param("u", "min avg"), pf("cosphi", "sum")};
    const statement_trace trace;
    EXPECT_QUIET(_log.add_params(pump, params), 0);
    EXPECT_EQ(
        trace.texts(),
        (texts_t{"BEGIN", "SELECT * FROM periods",  //
                 INSERT_1, "SELECT max(idx) FROM params_1",
                 "ALTER TABLE trends_1_1 ADD COLUMN param_1_min REAL DEFAULT NULL",
                 "ALTER TABLE trends_1_1 ADD COLUMN param_1_avg REAL DEFAULT NULL",
                 "ALTER TABLE trends_1_15 ADD COLUMN param_1_min REAL DEFAULT NULL",
                 "ALTER TABLE trends_1_15 ADD COLUMN param_1_avg REAL DEFAULT NULL", INSERT_1,
                 "SELECT max(idx) FROM params_1",
                 "ALTER TABLE trends_1_1 ADD COLUMN param_2_sum REAL DEFAULT NULL",
                 "ALTER TABLE trends_1_15 ADD COLUMN param_2_sum REAL DEFAULT NULL", "COMMIT"}));
    EXPECT_EQ(trace.expanded()[2],
              "INSERT INTO params_1 VALUES ((SELECT max(idx)+1 FROM params_1),'u',0,1,0,1,0,0)");
    EXPECT_EQ(
        trace.expanded()[8],
        "INSERT INTO params_1 VALUES ((SELECT max(idx)+1 FROM params_1),'cosphi',1,0,0,0,0,1)");
}

TEST_F(log_add_params, keep_the_insert_and_prepare_the_rest_afresh)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    params_t params = {param("u", "avg"), param("i", "avg")};
    const statement_trace trace;
    EXPECT_QUIET(_log.add_params(pump, params), 0);
    EXPECT_EQ(trace.times_prepared(INSERT_1), 1);
    EXPECT_EQ(trace.times_prepared("SELECT max(idx) FROM params_1"), 2);
    EXPECT_EQ(
        trace.times_prepared("ALTER TABLE trends_1_1 ADD COLUMN param_2_avg REAL DEFAULT NULL"), 1);

    params_t more = {param("p", "avg")};
    ASSERT_EQ(_log.add_params(pump, more), 0);
    EXPECT_EQ(trace.times_prepared(INSERT_1), 1);
}

TEST_F(log_add_params, undo_the_whole_list_when_one_is_refused)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    params_t params = {param("u", "avg"), param("i", "avg"), param("p", ""), param("q", "avg")};

    EXPECT_REPORTS(_log.add_params(pump, params), -1,
                   ADD_PARAM +
                       ": Error: at least one of min/max/avg/actual/sum must be 'true' to add a "
                       "parameter\n");
    EXPECT_EQ(params[3]._index, -1);  // not reached
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_params, refuse_a_path_that_the_device_has)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    const std::string before = dump();
    params_t params = {param("i", "avg"), param("u", "min")};
    EXPECT_REPORTS(_log.add_params(pump._device, params), -1,
                   step_and_reset_report(2067, "UNIQUE constraint failed: params_1.path"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_params, refuse_a_path_that_stands_twice_in_the_list)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    params_t params = {param("u", "avg"), param("u", "avg")};
    EXPECT_REPORTS(_log.add_params(pump, params), -1,
                   step_and_reset_report(2067, "UNIQUE constraint failed: params_1.path"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_params, allow_the_same_path_in_two_devices)
{
    add_period(1, 100);
    add_device("pump", {param("u", "avg")});
    const CDeviceProperties fan = add_device("fan");
    params_t params = {param("u", "avg")};
    EXPECT_QUIET(_log.add_params(fan, params), 0);
    EXPECT_EQ(params[0]._index, 1);
}

TEST_F(log_add_params, of_an_unknown_device_fail_at_its_parameter_table)
{
    add_period(1, 100);
    params_t params = {param("u", "avg")};
    const std::string before = dump();
    EXPECT_REPORTS(_log.add_params(device("pump", 7), params), -1,
                   prepare_report("no such table: params_7"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// A period that is not seen would keep a table without the new columns.
TEST_F(log_add_params, fail_when_the_periods_cannot_all_be_read)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    const interrupt_step second_period("SELECT * FROM periods", 2);
    params_t params = {param("u", "avg")};

    EXPECT_REPORTS(_log.add_params(pump, params), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_TRUE(second_period.struck());
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// The assertion on an empty list of periods must not be tripped by a list that was not read.
TEST_F(log_add_params, fail_when_no_period_can_be_read)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    reopen();  // else the kept statement would meet a changed schema first
    const std::string before = dump();
    const interrupt_step first_period("SELECT * FROM periods");
    params_t params = {param("u", "avg")};

    EXPECT_REPORTS(_log.add_params(pump, params), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_add_params, are_part_of_the_callers_transaction)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    params_t params = {param("u", "avg")};
    const statement_trace trace;
    EXPECT_QUIET(_log.add_params(pump, params), 0);
    EXPECT_EQ(trace.times_run("BEGIN") + trace.times_run("COMMIT"), 0);

    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

// get_params -----------------------------------------------------------------------------------

TEST_F(log_get_params, refuses_a_closed_log_first)
{
    _log.close();
    params_t params;
    EXPECT_REPORTS(_log.get_params(device("", -1), params), -1,
                   GET_PARAMS + ": Error: DB not open\n");
}

TEST_F(log_get_params, looks_at_path_and_identifier_before_any_statement)
{
    const statement_trace trace;
    params_t params;
    EXPECT_REPORTS(_log.get_params(device("", -1), params), -1,
                   GET_PARAMS + ": Error: empty device path\n");
    EXPECT_REPORTS(_log.get_params(device("pump", -1), params), -1,
                   GET_PARAMS + ": Error: invalid device id\n");
    EXPECT_EQ(trace.texts(), texts_t{});
}

TEST_F(log_get_params, reads_every_column_into_its_member)
{
    add_period(1, 100);
    const CDeviceProperties pump = add_device("pump");
    run_sql(_file,
            "INSERT INTO params_1 VALUES (0, 'a', 0, 1, 0, 0, 0, 0), (3, 'b', 1, 0, 1, 0, 0, 0),"
            " (4, 'c', 0, 0, 0, 1, 0, 0), (5, 'd', 0, 0, 0, 0, 1, 0), (6, 'e', 0, 0, 0, 0, 0, 1)");
    params_t params;
    EXPECT_QUIET(_log.get_params(pump, params), 0);

    std::string all;
    for (const CParamProperties& p : params)
        all += std::to_string(p._index) + p._path + std::to_string(p._type) + " " +
               std::to_string(p._has_min) + std::to_string(p._has_max) +
               std::to_string(p._has_avg) + std::to_string(p._has_actual) +
               std::to_string(p._has_sum) + "\n";
    EXPECT_EQ(all, "0a0 10000\n3b1 01000\n4c0 00100\n5d0 00010\n6e0 00001\n");
}

TEST_F(log_get_params, replaces_what_the_list_held)
{
    const CDeviceProperties pump = add_device("pump");
    params_t params = {param("left over", "avg")};
    EXPECT_QUIET(_log.get_params(pump, params), 0);
    EXPECT_TRUE(params.empty());
}

TEST_F(log_get_params, runs_one_kept_statement)
{
    add_period(1, 100);
    const CDeviceParams pump = add_device("pump", {param("u", "avg")});
    reopen();
    const statement_trace trace;
    params_t params;
    EXPECT_QUIET(_log.get_params(pump._device, params), 0);
    EXPECT_QUIET(_log.get_params(pump._device, params), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", LIST_1, "COMMIT", "BEGIN", LIST_1, "COMMIT"}));
    EXPECT_EQ(trace.times_prepared(LIST_1), 1);
    EXPECT_EQ(params.size(), 1U);
}

TEST_F(log_get_params, of_an_unknown_device_fails)
{
    params_t params = {param("left over", "avg")};
    EXPECT_REPORTS(_log.get_params(device("pump", 7), params), -1,
                   prepare_report("no such table: params_7"));
    EXPECT_EQ(params.size(), 1U);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_get_params, takes_a_failing_step_for_the_end_of_the_list)
{
    add_period(1, 100);
    const CDeviceParams pump =
        add_device("pump", {param("u", "avg"), param("i", "avg"), param("p", "avg")});
    const interrupt_step third_row(LIST_1, 3);
    params_t params;
    EXPECT_REPORTS(_log.get_params(pump._device, params), 0,
                   step_and_reset_report(9, "interrupted"));
    ASSERT_EQ(params.size(), 2U);
    EXPECT_EQ(params[1]._path, "i");
    EXPECT_TRUE(at_level_0());
}

// A column that cannot be read ends the call, unlike a failing step. What the file then holds can
// come from other programs only.
class log_get_params_of_a_foreign_row : public log_fixture {
protected:
    // The listing of a device whose only row has these values, and what it says.
    void store(const std::string& values)
    {
        _pump = add_device("pump");
        run_sql(_file, "INSERT INTO params_1 VALUES (" + values + ")");
    }

    int list() { return _log.get_params(_pump, _params); }

    CDeviceProperties _pump;
    params_t _params;
};

TEST_F(log_get_params_of_a_foreign_row, fails_at_a_path_that_is_no_text)
{
    store("1, x'75', 0, 0, 0, 1, 0, 0");
    EXPECT_REPORTS(list(), -1,
                   "int toolkit::trend::CStatement::column(size_t, tk_string&, bool) const: "
                   "Column type is non-text\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_get_params_of_a_foreign_row, fails_at_a_type_that_is_no_integer)
{
    store("1, 'u', 'value', 0, 0, 1, 0, 0");
    EXPECT_REPORTS(list(), -1,
                   "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: "
                   "Column type is non-int\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_get_params_of_a_foreign_row, fails_at_a_flag_that_is_no_integer)
{
    store("1, 'u', 0, 0, 0, 1, 0, 0.5");
    EXPECT_REPORTS(list(), -1,
                   "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: "
                   "Column type is non-int\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_get_params_of_a_foreign_row, stops_at_an_empty_path)
{
    store("1, '', 0, 0, 0, 1, 0, 0");
    EXPECT_STOPS(list(), "!newprop._path.empty()");
}

TEST_F(log_get_params_of_a_foreign_row, stops_at_a_type_above_the_known_ones)
{
    store("1, 'u', 2, 0, 0, 1, 0, 0");
    EXPECT_STOPS(list(), "(ival>=0) && (ival<SAMPLE_TYPE_LISTEND)");
}

TEST_F(log_get_params_of_a_foreign_row, stops_at_a_negative_type)
{
    store("1, 'u', -1, 0, 0, 1, 0, 0");
    EXPECT_STOPS(list(), "(ival>=0) && (ival<SAMPLE_TYPE_LISTEND)");
}

TEST_F(log_get_params_of_a_foreign_row, does_not_take_the_low_half_of_a_type)
{
    store("1, 'u', 4294967296, 0, 0, 1, 0, 0");
    EXPECT_STOPS(list(), "(ival>=0) && (ival<SAMPLE_TYPE_LISTEND)");
}

TEST_F(log_get_params_of_a_foreign_row, stops_at_a_flag_that_is_neither_0_nor_1)
{
    store("1, 'u', 0, 0, 2, 1, 0, 0");
    EXPECT_STOPS(list(), "(ival==0) || (ival==1)");
}

}  // namespace
