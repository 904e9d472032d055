// A check and a rebuild against every failure of SQLite on their way that is not the file's fault,
// and the checks against those that are.

#include <sqlite3.h>

#include <string>
#include <vector>

#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "sqlite_watch.h"
#include "trend_repair.h"

namespace {

using namespace toolkit::trend;

constexpr int MANY = 400;

// Makes the n-th step (from 1) of any statement fail with code 9, "interrupted". With `drop` the
// transaction is gone by then too, as after an error of the disk.
class fail_step : public sqlite_watch {
public:
    fail_step(int n, bool drop) : _left(n), _drop(drop) {}

    bool struck() const { return _left == 0; }
    bool failed() const { return _failed; }

    void before_step(sqlite3_stmt* stmt) override
    {
        if (_left == 0 || --_left > 0) return;
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
};

// A log in which each part of a check has something to look at twice.
class failing_check : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {5, 100}});
        const CDeviceParams pump =
            add_device("pump", {param("u", "avg actual sum"), pf("c", "avg")});
        for (time_t time = 60; time <= 600; time += 60)
            record(pump, time, {double(time), 1.0});
        run_sql(_file,
                "UPDATE trends_1_5 SET param_1_avg = 3.0, param_1_actual = 9 WHERE time = 300; "
                "DELETE FROM trends_1_5 WHERE time = 600; INSERT INTO trends_1_5 VALUES (900, 100, "
                "1, 1, 1, 1); UPDATE trends_1_1 SET param_1_sum = 'x' WHERE time = 600");
        add_device("fan", {param("u", "avg actual sum")});
        run_sql(_file,
                "INSERT INTO trends_2_1 SELECT time, percent_valid, param_1_avg, "
                "param_1_actual, 1.0 FROM trends_1_1; INSERT INTO trends_2_5 VALUES (300, "
                "100, 3.0, 5.0, 7.0), (900, 100, 3.0, 5.0, 7.0)");
        start_anew();
        ASSERT_EQ(toolkit::trend::check_log(_log, 600, _all), 0);
        ASSERT_GT(_all.size(), 2u);
    }

    void start_anew()
    {
        open_args args;
        args._create = false;
        reopen(args);
    }

    std::vector<CFinding> _all;
};

TEST_F(failing_check, says_what_cannot_be_prepared_in_a_finding)
{
    int untold = 0;
    for (int n = 1; n < MANY; ++n) {
        SCOPED_TRACE("prepare " + std::to_string(n));
        start_anew();
        const deny_prepare denied(n);
        std::vector<CFinding> findings;
        int result = 0;
        const std::string said =
            capture_stderr([&] { result = toolkit::trend::check_log(_log, 600, findings); });
        if (!denied.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_GT(n, 20);
            EXPECT_EQ(untold, 2);  // BEGIN and COMMIT
            return;
        }
        EXPECT_NE(said.find(prepare_report("no such column: denied")), std::string::npos);
        bool told = false;
        for (const CFinding& finding : findings)
            told = told || (finding._kind == FINDING_DAMAGE &&
                            finding._text.find(" cannot be read: no such column: denied.") !=
                                std::string::npos);
        EXPECT_EQ(result, told ? 0 : -1);
        if (!told) ++untold;
        EXPECT_TRUE(at_level_0());
    }
    FAIL() << "has no end";
}

TEST_F(failing_check, ends_at_a_finding_of_what_cannot_be_prepared)
{
    for (int n = 2; n < MANY; ++n) {
        start_anew();
        const deny_prepare denied(n);
        int result = 0;
        bool struck = false;
        capture_stderr([&] {
            result = toolkit::trend::check_log(_log, 600, [&](const CFinding&) {
                struck = struck || denied.struck();
                return !struck;
            });
        });
        if (!denied.struck()) return;
        EXPECT_EQ(result, struck ? 1 : -1) << n;
        EXPECT_TRUE(at_level_0());
    }
    FAIL() << "has no end";
}

TEST_F(failing_check, of_a_step_or_a_bind_is_a_failure)
{
    for (const int way : {0, 1, 2})
        for (int n = 2; n < MANY; ++n) {
            SCOPED_TRACE(std::to_string(way) + ", number " + std::to_string(n));
            start_anew();
            std::vector<CFinding> findings;
            int result = 0;
            bool struck = false;
            bool failed = true;
            const auto run = [&] {
                capture_stderr([&] { result = toolkit::trend::check_log(_log, 600, findings); });
            };
            if (way == 2) {
                const refuse_bind refused(n - 1);
                run();
                struck = refused.struck();
            } else {
                const fail_step failing(n, way == 1);
                run();
                struck = failing.struck();
                failed = failing.failed() || way == 1;
            }
            if (!struck) {
                EXPECT_EQ(result, 0);
                EXPECT_GT(n, 5);
                break;
            }
            EXPECT_EQ(result, failed ? -1 : 0);
            EXPECT_TRUE(at_level_0());
        }
}

}  // namespace
