// Every operation on the configuration against every failure of SQLite on its way: what it had
// begun is undone, the nesting level is what it was, and the log goes on.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "sqlite_watch.h"
#include "trend_api.h"
#include "trend_repair.h"

namespace {

using namespace toolkit::trend;

using params_t = std::vector<CParamProperties>;

struct operation_t {
    const char* _name;
    int (*_run)(CLog& log);
    bool _lists = false;  // a failing step ends its list and is no failure
};

void PrintTo(const operation_t& operation, std::ostream* out) { *out << operation._name; }

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

// They run on the log that every_failure::SetUp() makes.
const operation_t OPERATIONS[] = {
    {"add_period",
     [](CLog& log) {
         return log.add_period({15, 100});
     }},
    {"modify_period",
     [](CLog& log) {
         return log.modify_period({1, 2});
     }},
    {"remove_period",
     [](CLog& log) {
         return log.remove_period({5, 100});
     }},
    {"create_trend_tables_of_period",
     [](CLog& log) { return log.create_trend_tables(CPeriodProperties(15, 100)); }},
    {"remove_trend_tables_of_period",
     [](CLog& log) { return log.remove_trend_tables(CPeriodProperties(5, 100)); }},
    {"trim_period_table",
     [](CLog& log) {
         return log.trim_period_table(device("pump", 1), {1, 2}, false);
     }},
    {"add_device",
     [](CLog& log) {
         CDeviceProperties valve = device("valve", -1);
         valve._guid = "77aa";
         return log.add_device(valve);
     }},
    {"modify_device", [](CLog& log) { return log.modify_device(device("blower", 2)); }},
    {"remove_device", [](CLog& log) { return log.remove_device(device("pump", 1)); }},
    {"create_param_table", [](CLog& log) { return log.create_param_table(device("new", 9)); }},
    {"remove_param_table", [](CLog& log) { return log.remove_param_table(device("pump", 1)); }},
    {"create_trend_tables_of_device",
     [](CLog& log) { return log.create_trend_tables(device("bare", 7)); }},
    {"remove_trend_tables_of_device",
     [](CLog& log) { return log.remove_trend_tables(device("pump", 1)); }},
    {"create_trend_table",
     [](CLog& log) {
         return log.create_trend_table({15, 100}, device("pump", 1), {}, false);
     }},
    {"remove_trend_table",
     [](CLog& log) {
         return log.remove_trend_table({5, 100}, device("pump", 1));
     }},
    {"add_params",
     [](CLog& log) {
         params_t params = {param("p", "min avg"), pf("q", "actual")};
         return log.add_params(device("pump", 1), params);
     }},
    {"add_param",
     [](CLog& log) {
         CParamProperties p = param("p", "min avg");
         return log.add_param(device("pump", 1), {{1, 100}, {5, 100}}, p);
     }},
    {"add_param_columns",
     [](CLog& log) {
         return log.add_param_columns(device("pump", 1), {{1, 100}, {5, 100}},
                                      stored(9, param("p", "min avg")));
     }},
    {"modify_params",
     [](CLog& log) {
         return log.modify_params(device("pump", 1),
                                  {stored(1, param("i", "max")), stored(2, param("u", "sum avg"))});
     }},
    {"remove_params",
     [](CLog& log) { return log.remove_params(device("pump", 1), {stored(1, param("u", ""))}); }},
    {"remove_all_params",
     [](CLog& log) {
         return log.remove_params(device("pump", 1),
                                  {stored(1, param("u", "")), stored(2, param("i", ""))});
     }},
    // Fills a missing minute, replaces a row, and makes both coarse rows anew.
    {"rebuild",
     [](CLog& log) {
         CRebuildRequest request;
         request._device = device("pump", 1);
         request._params = {stored(1, param("u", "min avg")), stored(2, param("i", "sum"))};
         request._replace = true;
         request._rows.resize(2);
         for (CSnapshot& row : request._rows) {
             row._time = 120;
             row._percent_valid = 50.0;
             row._samples = {min(7.0), sum(8.0)};
         }
         request._rows[1]._time = 30;
         CRebuildResult result;
         return rebuild(log, request, result);
     }},
    {"rebuild_off_the_grid",
     [](CLog& log) {
         CRebuildRequest request;
         request._device = device("shifted", 3);
         request._bounds = {350, 400};
         request._off_grid = OFF_GRID_EXTEND;
         CRebuildResult result;
         return rebuild(log, request, result);
     }},
    {"get_periods",
     [](CLog& log) {
         std::vector<CPeriodProperties> periods;
         return log.get_periods(periods);
     },
     true},
    {"get_devices",
     [](CLog& log) {
         std::vector<CDeviceProperties> devices;
         return log.get_devices(devices);
     },
     true},
    {"get_params",
     [](CLog& log) {
         params_t params;
         return log.get_params(device("pump", 1), params);
     },
     true},
};

// More calls of SQLite than any operation here makes.
constexpr int MANY = 400;

// Makes the n-th step (from 1) of any statement fail with code 9, "interrupted". With `drop` the
// transaction is gone by then too, as after an error of the disk.
class fail_step : public sqlite_watch {
public:
    fail_step(int n, bool drop) : _left(n), _drop(drop) {}

    bool struck() const { return _left == 0; }

    // Whether SQLite has made a failure of it: the shortest statements get through.
    bool failed() const { return _failed; }

    // Whether a query for one value had given it by then. Nothing is missing in that case, and the
    // operation goes on.
    bool after_value() const { return _after_value; }

    void before_step(sqlite3_stmt* stmt) override
    {
        if (_left == 0 || --_left > 0) return;
        const std::string sql = sqlite3_sql(stmt);
        const bool asks_one = sql.rfind("SELECT max(", 0) == 0 || sql.rfind("SELECT min(", 0) == 0;
        _after_value = asks_one && sqlite3_stmt_busy(stmt) != 0;
        sqlite3* const db = sqlite3_db_handle(stmt);
        if (_drop) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_progress_handler(
            db, 1, [](void*) { return 1; }, nullptr);
        _striking = true;
    }

    void after_step(sqlite3_stmt* stmt, int result) override
    {
        if (!_striking) return;
        sqlite3_progress_handler(sqlite3_db_handle(stmt), 0, nullptr, nullptr);
        _failed = result != SQLITE_ROW && result != SQLITE_DONE;
        _striking = false;
    }

private:
    int _left;
    bool _drop;
    bool _striking = false;
    bool _failed = false;
    bool _after_value = false;
};

// Each test takes one operation through its failures, with the file and the connection anew for
// every one of them: two periods, the devices "pump", with rows, and "fan", and the parameter table
// of a device "bare" that has nothing else.
class every_failure : public log_fixture, public testing::WithParamInterface<operation_t> {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {5, 100}});
        const CDeviceParams pump = add_device("pump", {param("u", "min avg"), param("i", "sum")});
        add_device("fan", {param("n", "avg")});
        ASSERT_EQ(_log.create_param_table(device("bare", 7)), 0);
        for (time_t time = 60; time <= 360; time += 60)
            record(pump, time, {10.0, 1.0});
        const CDeviceParams shifted = add_device("shifted", {param("u", "avg")});
        for (const time_t time : {60, 120, 240, 300, 360, 420, 480, 540, 600, 660, 720, 180, 900})
            record(shifted, time, {double(time)});
        _before = dump();
        _log.close();
        _bytes = file_bytes(_file);

        start_anew();
        ASSERT_EQ(run(), 0);
        _done = dump();
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

    // The operation's result. What it reports is SQLite's own matter.
    int run()
    {
        int result = 0;
        capture_stderr([&] { result = GetParam()._run(_log); });
        return result;
    }

    // A transaction that is still open, or a level too many, would show in one of these.
    void expect_nothing_left_behind()
    {
        EXPECT_EQ(dump(), _before);
        EXPECT_TRUE(at_level_0());
        EXPECT_EQ(dump(), _before);
    }

    static void expect_failed_or_listed(int result)
    {
        EXPECT_TRUE(result == -1 || (GetParam()._lists && result == 0)) << result;
    }

    std::string _before;  // what the file says, and after the operation
    std::string _done;
    std::string _bytes;
};

TEST_P(every_failure, left_out_lets_the_operation_succeed)
{
    start_anew();
    EXPECT_QUIET(GetParam()._run(_log), 0);
    EXPECT_EQ(dump() == _before, GetParam()._lists);
}

TEST_P(every_failure, of_a_prepare_undoes_the_operation)
{
    for (int n = 1; n < MANY; ++n) {
        SCOPED_TRACE("prepare " + std::to_string(n));
        start_anew();
        const deny_prepare denied(n);
        const int result = run();
        if (!denied.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_GE(n, 4);  // BEGIN, its own and COMMIT have been denied
            return;
        }
        EXPECT_EQ(result, -1);
        expect_nothing_left_behind();
    }
    FAIL() << "has no end";
}

TEST_P(every_failure, of_a_prepare_within_a_callers_transaction_leaves_the_callers_level)
{
    bool struck = true;
    for (int n = 1; n < MANY && struck; ++n) {
        SCOPED_TRACE("prepare " + std::to_string(n));
        start_anew();
        ASSERT_EQ(_log.begin_transaction(), 0);
        {
            const deny_prepare denied(n);
            const int result = run();
            struck = denied.struck();
            EXPECT_EQ(result, struck ? -1 : 0);
        }
        _log.rollback_transaction();
        expect_nothing_left_behind();
    }
    EXPECT_FALSE(struck) << "has no end";
}

// The rollback is then owed and made up for by the next begin.
TEST_P(every_failure, of_a_prepare_and_of_the_rollback_still_undoes_the_operation)
{
    for (int n = 1; n < MANY; ++n) {
        SCOPED_TRACE("prepare " + std::to_string(n));
        start_anew();
        const deny_prepare denied(n);
        const deny_prepare rollback_denied("ROLLBACK");
        const int result = run();
        if (!denied.struck()) {
            EXPECT_EQ(result, 0);
            return;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(dump(), _before);
        EXPECT_QUIET(_log.begin_transaction(), 0);
        EXPECT_QUIET(_log.end_transaction(), 0);
        expect_nothing_left_behind();
    }
    FAIL() << "has no end";
}

TEST_P(every_failure, of_a_step_undoes_the_operation)
{
    int failures = 0;
    for (int n = 1; n < MANY; ++n) {
        SCOPED_TRACE("step " + std::to_string(n));
        start_anew();
        const fail_step failing(n, false);
        const int result = run();
        if (!failing.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_GE(failures, 1);
            return;
        }
        if (!failing.failed()) continue;
        ++failures;
        if (failing.after_value()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(dump(), _done);
            continue;
        }
        expect_failed_or_listed(result);
        expect_nothing_left_behind();
    }
    FAIL() << "has no end";
}

// Statements after the one that failed would otherwise each commit by itself.
TEST_P(every_failure, that_ends_the_transaction_undoes_the_operation)
{
    int failures = 0;
    for (int n = 2; n < MANY; ++n) {  // the first step is BEGIN
        SCOPED_TRACE("step " + std::to_string(n));
        start_anew();
        const fail_step dropping(n, true);
        const int result = run();
        if (!dropping.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_GE(failures, 1);
            return;
        }
        if (!dropping.failed()) continue;
        ++failures;
        EXPECT_EQ(result, -1);
        expect_nothing_left_behind();
    }
    FAIL() << "has no end";
}

TEST_P(every_failure, that_ends_a_callers_transaction_lets_nothing_more_through)
{
    for (int n = 1; n < MANY; ++n) {
        SCOPED_TRACE("step " + std::to_string(n));
        start_anew();
        ASSERT_EQ(_log.begin_transaction(), 0);
        const fail_step dropping(n, true);
        const int result = run();
        if (!dropping.struck()) {
            EXPECT_EQ(result, 0);
            return;
        }
        if (!dropping.failed()) continue;
        if (!dropping.after_value()) expect_failed_or_listed(result);

        expect_failed_or_listed(run());
        int committed = 0;
        capture_stderr([&] { committed = _log.end_transaction(); });
        EXPECT_EQ(committed, -1);
        expect_nothing_left_behind();
    }
    FAIL() << "has no end";
}

TEST_P(every_failure, of_a_bind_undoes_the_operation)
{
    for (int n = 1; n < MANY; ++n) {
        SCOPED_TRACE("bind " + std::to_string(n));
        start_anew();
        const refuse_bind refused(n);
        int result = 0;
        const std::string said = capture_stderr([&] { result = GetParam()._run(_log); });
        if (!refused.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(dump(), _done);
            return;
        }
        EXPECT_EQ(result, -1);
        EXPECT_THAT(said, bind_report());
        expect_nothing_left_behind();
    }
    FAIL() << "has no end";
}

TEST_P(every_failure, of_the_commit_undoes_the_operation)
{
    start_anew();
    const refuse_commit refused;
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(refused.struck());
    expect_nothing_left_behind();
    EXPECT_EQ(run(), 0);
}

INSTANTIATE_TEST_SUITE_P(operations, every_failure, testing::ValuesIn(OPERATIONS),
                         [](const testing::TestParamInfo<operation_t>& tested) {
                             return std::string(tested.param._name);
                         });

}  // namespace
