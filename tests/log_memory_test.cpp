// Every operation against memory that runs out at each of its allocations in turn: it says so in
// one line, the file holds what it held, the nesting level is what it was, and made again the call
// does its work. Opening is in log_lifecycle_test.cpp.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "allocations.h"
#include "expect.h"
#include "log_fixture.h"
#include "rows.h"
#include "trend_api.h"
#include "trend_repair.h"

namespace {

using namespace toolkit::trend;

const std::string LONG = " with a name that no string has room for in itself";
const std::string BEGIN = "int toolkit::trend::CDatabase::begin_transaction()";
const std::string END = "int toolkit::trend::CDatabase::end_transaction()";

// Arguments in signatures: one device, one period or parameter, a list of them.
const std::string D = "const toolkit::trend::CDeviceProperties&";
const std::string P = "const toolkit::trend::CPeriodProperties&";
const std::string S = "const toolkit::trend::CParamProperties&";
const std::string PS = "const std::vector<toolkit::trend::CPeriodProperties>&";
const std::string SS = "const std::vector<toolkit::trend::CParamProperties>&";

std::string member(const std::string& rest) { return "int toolkit::trend::CLog::" + rest; }

const std::string ADD_PARAM =
    member("add_param(" + D + ", " + PS + ", toolkit::trend::CParamProperties&)");
const std::string ADD_PARAM_COLUMNS = member("add_param_columns(" + D + ", " + PS + ", " + S + ")");
const std::string CREATE_TREND_TABLE =
    member("create_trend_table(" + P + ", " + D + ", " + SS + ", bool)");
const std::string CREATE_FOR_PERIOD = member("create_trend_tables(" + P + ")");
const std::string CREATE_FOR_DEVICE = member("create_trend_tables(" + D + ")");
const std::string REMOVE_TREND_TABLE = member("remove_trend_table(" + P + ", " + D + ")");
const std::string REMOVE_FOR_PERIOD = member("remove_trend_tables(" + P + ")");
const std::string REMOVE_FOR_DEVICE = member("remove_trend_tables(" + D + ")");
const std::string CREATE_PARAM_TABLE = member("create_param_table(" + D + ")");
const std::string REMOVE_PARAM_TABLE = member("remove_param_table(" + D + ")");
const std::string GET_PERIODS =
    member("get_periods(std::vector<toolkit::trend::CPeriodProperties>&)");
const std::string GET_PARAMS =
    member("get_params(" + D + ", std::vector<toolkit::trend::CParamProperties>&)");
const std::string CALC_PERIOD_RATIOS =
    "static " + member("calc_period_ratios(" + PS + ", std::vector<long unsigned int>&)");
const std::string PROPAGATE =
    member("propagate_recent_samples(" + D + ", " + PS +
           ", const std::vector<long unsigned int>&, size_t, " + SS + ")");
const std::string TRIM = member("trim_period_table(" + D + ", " + P + ", bool)");
const std::string REBUILD =
    "int toolkit::trend::rebuild(CLog&, const CRebuildRequest&, CRebuildResult&)";
const std::string CHECK_LOG =
    "int toolkit::trend::check_log(CLog&, time_t, const finding_visitor_t&)";
const std::string LATEST = member("get_latest_timestamp(" + D + ", time_t&)");

CDeviceProperties device(const std::string& path, int64_t index)
{
    CDeviceProperties made;
    made._path = path;
    made._index = index;
    return made;
}

CParamProperties stored(int64_t index, CParamProperties param)
{
    param._index = index;
    return param;
}

// What the calls are given and what they fill: made before memory runs out.
struct arguments_t {
    CPeriodProperties _finest{1, 100};
    CPeriodProperties _coarser{5, 100};
    CPeriodProperties _new_period{15, 100};
    std::vector<CPeriodProperties> _periods{{1, 100}, {5, 100}};
    std::vector<CPeriodProperties> _listed_periods;
    std::vector<unsigned long> _ratios{4, 0};  // four rows are a group
    std::vector<unsigned long> _calculated_ratios;

    CDeviceProperties _pump = device("pump" + LONG, 1);
    CDeviceProperties _bare = device("bare" + LONG, 7);
    CDeviceProperties _another = device("fan" + LONG, 9);
    CDeviceProperties _new_device = device("valve" + LONG, -1);
    CDeviceProperties _renamed_pump = device("blower" + LONG, 1);
    std::vector<CDeviceProperties> _devices;

    CParamProperties _new_param = param("p" + LONG, "min avg");
    std::vector<CParamProperties> _new_params{_new_param, pf("q" + LONG, "actual")};
    std::vector<CParamProperties> _params{stored(1, param("u" + LONG, "min avg")),
                                          stored(2, param("i" + LONG, "sum"))};
    std::vector<CParamProperties> _changed_params{stored(1, param("i" + LONG, "max")),
                                                  stored(2, param("u" + LONG, "sum avg"))};
    std::vector<CParamProperties> _removed_params{_params[0]};
    std::vector<CParamProperties> _listed_params;
    std::vector<tk_string> _names;

    CDeviceParams _recorded{_pump, _params};
    CSnapshot _fifth_row{0, 300, 100.0, {CSample{1.0, {}, 2.0, {}, {}}, sum(3.0)}};
    time_t _newest = 0;
    CDeviceParams _request{_pump, {}};
    CDeviceData _read;

    // A missing first row, the last one of a group.
    CRebuildRequest _rebuilt{_pump, {-1, 300},       _params, {_fifth_row},
                             false, OFF_GRID_EXTEND, false,   {}};
    CRebuildResult _rebuild_result;
    std::vector<CFinding> _findings;
};

struct operation_t {
    const char* _name;
    int (*_run)(CLog& log, arguments_t& arguments);
    std::string _signature;
    std::set<std::string> _steps;  // whose reports may be the operation's
    bool _writes = true;
    int _result = 0;
    int _dispensable = 0;  // allocations that it does without
};

void PrintTo(const operation_t& operation, std::ostream* out) { *out << operation._name; }

// They run on the log that short_memory::SetUp() makes.
const operation_t OPERATIONS[] = {
    {"rebuild",
     [](CLog& log, arguments_t& a) {
         a._rebuilt._rows[0]._time = 90;
         return rebuild(log, a._rebuilt, a._rebuild_result);
     },
     REBUILD,
     {CALC_PERIOD_RATIOS}},
    {"check_log",
     [](CLog& log, arguments_t& a) { return check_log(log, 120, a._findings); },
     CHECK_LOG,
     {},
     false},
    {"vacuum", [](CLog& log, arguments_t&) { return log.vacuum(); }, member("vacuum()"), {}, false},
    {"get_periods",
     [](CLog& log, arguments_t& a) { return log.get_periods(a._listed_periods); },
     GET_PERIODS,
     {},
     false},
    {"get_devices",
     [](CLog& log, arguments_t& a) { return log.get_devices(a._devices); },
     member("get_devices(std::vector<toolkit::trend::CDeviceProperties>&)"),
     {},
     false},
    {"get_params",
     [](CLog& log, arguments_t& a) { return log.get_params(a._pump, a._listed_params); },
     GET_PARAMS,
     {},
     false},
    {"add_period",
     [](CLog& log, arguments_t& a) { return log.add_period(a._new_period); },
     member("add_period(" + P + ")"),
     {CREATE_FOR_PERIOD, CREATE_TREND_TABLE}},
    {"modify_period",
     [](CLog& log, arguments_t&) {
         return log.modify_period({1, 2});
     },
     member("modify_period(" + P + ")"),
     {TRIM}},
    {"remove_period",
     [](CLog& log, arguments_t& a) { return log.remove_period(a._coarser); },
     member("remove_period(" + P + ")"),
     {REMOVE_FOR_PERIOD, REMOVE_TREND_TABLE}},
    {"calc_period_ratios",
     [](CLog&, arguments_t& a) {
         return CLog::calc_period_ratios(a._periods, a._calculated_ratios);
     },
     CALC_PERIOD_RATIOS,
     {},
     false},
    {"add_device",
     [](CLog& log, arguments_t& a) { return log.add_device(a._new_device); },
     member("add_device(toolkit::trend::CDeviceProperties&)"),
     {CREATE_PARAM_TABLE, CREATE_FOR_DEVICE, CREATE_TREND_TABLE}},
    {"modify_device",
     [](CLog& log, arguments_t& a) { return log.modify_device(a._renamed_pump); },
     member("modify_device(" + D + ")"),
     {}},
    {"remove_device",
     [](CLog& log, arguments_t& a) { return log.remove_device(a._pump); },
     member("remove_device(" + D + ")"),
     {REMOVE_PARAM_TABLE, REMOVE_FOR_DEVICE, REMOVE_TREND_TABLE}},
    {"add_params",
     [](CLog& log, arguments_t& a) { return log.add_params(a._pump, a._new_params); },
     member("add_params(" + D + ", std::vector<toolkit::trend::CParamProperties>&)"),
     {ADD_PARAM, ADD_PARAM_COLUMNS}},
    {"modify_params",
     [](CLog& log, arguments_t& a) { return log.modify_params(a._pump, a._changed_params); },
     member("modify_params(" + D + ", " + SS + ")"),
     {CREATE_TREND_TABLE},
     true,
     0,
     1},  // a sort's buffer
    {"remove_params",
     [](CLog& log, arguments_t& a) { return log.remove_params(a._pump, a._removed_params); },
     member("remove_params(" + D + ", " + SS + ")"),
     {CREATE_TREND_TABLE}},
    {"remove_all_params",
     [](CLog& log, arguments_t& a) { return log.remove_params(a._pump, a._params); },
     member("remove_params(" + D + ", " + SS + ")"),
     {CREATE_TREND_TABLE}},
    {"add_trend_data",
     [](CLog& log, arguments_t& a) { return log.add_trend_data(a._recorded, a._fifth_row); },
     member("add_trend_data(const toolkit::trend::CDeviceParams&, "
            "const toolkit::trend::CSnapshot&)"),
     {CALC_PERIOD_RATIOS, PROPAGATE, TRIM}},
    {"get_latest_timestamp",
     [](CLog& log, arguments_t& a) { return log.get_latest_timestamp(a._pump, a._newest); },
     LATEST,
     {},
     false},
    {"fill_blank_values",
     [](CLog& log, arguments_t& a) { return log.fill_blank_values(a._pump, 6000, true); },
     member("fill_blank_values(" + D + ", time_t, bool)"),
     {CALC_PERIOD_RATIOS, PROPAGATE, TRIM}},
    {"get_trend_data",
     [](CLog& log, arguments_t& a) {
         return log.get_trend_data(a._read, a._request, {}, {-1, -1}, 0, 0, true, true);
     },
     member("get_trend_data(toolkit::trend::CDeviceData&, const toolkit::trend::CDeviceParams&, " +
            PS + ", const timebounds_t&, size_t, size_t, bool, bool)"),
     {GET_PERIODS, GET_PARAMS},
     false},
    {"clear_trend_data",
     [](CLog& log, arguments_t& a) {
         return log.clear_trend_data(a._pump, {-1, 120});
     },
     member("clear_trend_data(" + D + ", const timebounds_t&)"),
     {LATEST},
     true,
     1},
    {"column_names",
     [](CLog&, arguments_t& a) { return CLog::column_names(a._new_param, a._names); },
     "static " + member("column_names(" + S + ", std::vector<tk_string>&)"),
     {},
     false},
    {"add_param",
     [](CLog& log, arguments_t& a) { return log.add_param(a._pump, a._periods, a._new_param); },
     ADD_PARAM,
     {ADD_PARAM_COLUMNS}},
    {"add_param_columns",
     [](CLog& log, arguments_t& a) {
         a._new_param._index = 9;
         return log.add_param_columns(a._pump, a._periods, a._new_param);
     },
     ADD_PARAM_COLUMNS,
     {}},
    {"create_trend_table",
     [](CLog& log, arguments_t& a) {
         return log.create_trend_table(a._new_period, a._pump, {}, false);
     },
     CREATE_TREND_TABLE,
     {}},
    {"create_trend_tables_of_period",
     [](CLog& log, arguments_t& a) { return log.create_trend_tables(a._new_period); },
     CREATE_FOR_PERIOD,
     {CREATE_TREND_TABLE}},
    {"create_trend_tables_of_device",
     [](CLog& log, arguments_t& a) { return log.create_trend_tables(a._bare); },
     CREATE_FOR_DEVICE,
     {CREATE_TREND_TABLE}},
    {"remove_trend_table",
     [](CLog& log, arguments_t& a) { return log.remove_trend_table(a._coarser, a._pump); },
     REMOVE_TREND_TABLE,
     {}},
    {"remove_trend_tables_of_period",
     [](CLog& log, arguments_t& a) { return log.remove_trend_tables(a._coarser); },
     REMOVE_FOR_PERIOD,
     {REMOVE_TREND_TABLE}},
    {"remove_trend_tables_of_device",
     [](CLog& log, arguments_t& a) { return log.remove_trend_tables(a._pump); },
     REMOVE_FOR_DEVICE,
     {REMOVE_TREND_TABLE}},
    {"create_param_table",
     [](CLog& log, arguments_t& a) { return log.create_param_table(a._another); },
     CREATE_PARAM_TABLE,
     {}},
    {"remove_param_table",
     [](CLog& log, arguments_t& a) { return log.remove_param_table(a._pump); },
     REMOVE_PARAM_TABLE,
     {}},
    {"propagate_recent_samples",
     [](CLog& log, arguments_t& a) {
         return log.propagate_recent_samples(a._pump, a._periods, a._ratios, 0, a._params);
     },
     PROPAGATE,
     {TRIM}},
    {"trim_period_table",
     [](CLog& log, arguments_t& a) {
         return log.trim_period_table(a._pump, {1, 2}, false);
     },
     TRIM,
     {}},
};

// Two periods, the device 1 with two parameters and four rows, and the parameter table of a device
// 7 that has nothing else. Each allocation fails with the file and the connection anew.
class short_memory : public log_fixture, public testing::WithParamInterface<operation_t> {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {5, 100}});
        const arguments_t arguments;
        const CDeviceParams pump = add_device(
            arguments._pump._path, {param("u" + LONG, "min avg"), param("i" + LONG, "sum")});
        ASSERT_EQ(_log.create_param_table(arguments._bare), 0);
        for (time_t time = 60; time <= 240; time += 60)
            record(pump, time, {10.0, 1.0});
        _before = dump();
        _log.close();
        _bytes = file_bytes(_file);
    }

    // Opened without creating: nothing has been prepared yet, not even BEGIN.
    void start_anew()
    {
        _log.close();
        std::remove((_file + "-wal").c_str());
        std::remove((_file + "-shm").c_str());
        std::ofstream(_file, std::ios::binary) << _bytes;
        open_args args;
        args._create = false;
        open(args);
    }

    std::string _before;  // what the file says
    std::string _bytes;
};

TEST_P(short_memory, at_any_allocation_is_one_line_and_changes_nothing)
{
    start_anew();
    arguments_t first;
    EXPECT_QUIET(GetParam()._run(_log, first), GetParam()._result);
    const std::string done = dump();
    EXPECT_EQ(done != _before, GetParam()._writes);

    std::set<std::string> reporters;
    int dispensable = GetParam()._dispensable;
    bool reached = true;
    for (size_t n = 1; reached; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        start_anew();
        arguments_t arguments;
        int result = 0;
        std::string said = capture_stderr([&] {
            const allocations::fail_at fault(n);
            result = GetParam()._run(_log, arguments);
            reached = fault.reached();
        });
        if (reached && (dispensable == 0 || result != GetParam()._result)) {
            EXPECT_EQ(result, -1);
            const std::string reporter = said.substr(0, said.find(": Error:"));
            EXPECT_EQ(said, reporter + ": Error: out of memory\n");
            reporters.insert(reporter);
            EXPECT_EQ(dump(), _before);
            EXPECT_TRUE(at_level_0());
            arguments = arguments_t();
            EXPECT_QUIET(GetParam()._run(_log, arguments), GetParam()._result);
        } else {
            if (reached) --dispensable;
            EXPECT_EQ(result, GetParam()._result);
            EXPECT_EQ(said, "");
        }
        EXPECT_EQ(dump(), done);
        if (HasFailure()) return;
    }

    std::set<std::string> known = GetParam()._steps;
    known.insert({GetParam()._signature, BEGIN, END});
    EXPECT_EQ(reporters.count(GetParam()._signature), 1U);
    EXPECT_THAT(reporters, testing::Each(testing::AnyOfArray(known)));
}

INSTANTIATE_TEST_SUITE_P(of, short_memory, testing::ValuesIn(OPERATIONS),
                         [](const testing::TestParamInfo<operation_t>& tested) {
                             return std::string(tested.param._name);
                         });

}  // namespace
