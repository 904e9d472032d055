// Recording, filling, reading and clearing with a failure of SQLite at every place in turn: the
// call fails, the file holds what it held, and the log is as usable as before.

#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <set>

#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"

namespace {

using namespace toolkit::trend;

// Rows at minutes 1 to 839 of device "pump": the next one completes a group of every period, and
// every table is long enough to lose rows by it.
constexpr int LAST_MINUTE = 839;
const std::vector<CPeriodProperties> ALL_PERIODS = {{1, 5}, {5, 10}, {60, 3}};

CDeviceProperties device()
{
    CDeviceProperties pump;
    pump._path = "pump";
    pump._index = 1;
    return pump;
}

CDeviceParams device_with_params(CLog& log)
{
    CDeviceParams pump;
    pump._device = device();
    EXPECT_EQ(log.get_params(pump._device, pump._params), 0);
    return pump;
}

CSnapshot snapshot(int minute, size_t params)
{
    CSnapshot row;
    row._time = minute * 60;
    row._percent_valid = 100;
    row._samples.assign(params, {0.5, 0.5, 0.5, 0.5, 0.5});
    return row;
}

// Opens the log without running a statement that stays in the pool, so that each is prepared anew.
int open_with_empty_pool(CLog& log)
{
    open_args args;
    args._create = false;
    return open_log(log, "trend.db", args);
}

// An operation: takes what the call needs from the log, and returns the call.
struct operation_t {
    std::string _name;
    std::function<std::function<int()>(CLog&)> _prepared_call;
    bool _writes = true;
    bool _reads_what_there_is = false;  // takes a list or rows that break off for complete
};

void PrintTo(const operation_t& operation, std::ostream* out) { *out << operation._name; }

std::function<int()> recorder(CLog& log, int minute)
{
    const CDeviceParams pump = device_with_params(log);
    log.close();
    EXPECT_EQ(open_with_empty_pool(log), 0);
    return [&log, pump, minute] {
        return log.add_trend_data(pump, snapshot(minute, pump._params.size()));
    };
}

const operation_t OPERATIONS[] = {
    {"recording_a_row_that_completes_every_group",
     [](CLog& log) { return recorder(log, LAST_MINUTE + 1); }},
    {"recording_a_row_after_a_gap_that_the_table_does_not_span",
     [](CLog& log) { return recorder(log, LAST_MINUTE + 100); }},
    {"finding_the_newest_row",
     [](CLog& log) {
         return [&log] {
             time_t timestamp = 0;
             return log.get_latest_timestamp(device(), timestamp);
         };
     },
     false},
    {"filling_a_gap",
     [](CLog& log) {
         return [&log] { return log.fill_blank_values(device(), (LAST_MINUTE + 900) * 60, false); };
     }},
    {"trimming_a_table",
     [](CLog& log) { return [&log] {
                         return log.trim_period_table(device(), {1, 2}, false);
                     }; }},
    {"clearing_every_row",
     [](CLog& log) { return [&log] {
                         return log.clear_trend_data(device(), {-1, -1});
                     }; }},
    {"reading_everything_without_overlap",
     [](CLog& log) {
         return [&log] {
             CDeviceData data;
             CDeviceParams request;
             request._device = device();
             return log.get_trend_data(data, request, {}, {-1, -1}, 0, 0, true, true);
         };
     },
     false, true},
};

class road_with_failures : public log_fixture, public testing::WithParamInterface<operation_t> {
protected:
    void SetUp() override
    {
        open();
        for (const CPeriodProperties& period : ALL_PERIODS)
            add_period(period._period, period._max_entries);
        const CDeviceParams pump =
            add_device("pump", {param("u", "min max avg actual sum"), pf("phi", "max avg")});
        ASSERT_EQ(_log.begin_transaction(), 0);
        for (int minute = 1; minute <= LAST_MINUTE; ++minute)
            record(pump, minute * 60, {0.5, 0.5});
        ASSERT_EQ(_log.end_transaction(), 0);
        _log.close();
        std::filesystem::copy_file(_file, "prepared.db");
        _before = dump();

        const std::function<int()> call = start_over();
        statement_trace trace;
        EXPECT_QUIET(call(), 0);
        _texts.insert(trace.texts().begin(), trace.texts().end());
        _after = dump();
        EXPECT_EQ(_after != _before, GetParam()._writes);
    }

    // The call on a log that is as it was before, with an empty pool.
    std::function<int()> start_over()
    {
        _log.close();
        std::filesystem::copy_file("prepared.db", _file,
                                   std::filesystem::copy_options::overwrite_existing);
        EXPECT_EQ(open_with_empty_pool(_log), 0);
        return GetParam()._prepared_call(_log);
    }

    // Runs the call with fault after fault until one does not strike any more, `make_fault` making
    // the n-th, and says how many struck. `in_host_transaction` puts the host's own level around
    // the call, which is rolled back; SQLite may have dropped the transaction by then and say so.
    template <typename Make>
    int sweep(Make make_fault, bool in_host_transaction)
    {
        for (int n = 1;; ++n) {
            SCOPED_TRACE("fault " + std::to_string(n));
            const std::function<int()> call = start_over();
            if (in_host_transaction) _log.begin_transaction();
            bool struck = false;
            int result = 0;
            const std::string said = capture_stderr([&] {
                const auto fault = make_fault(n);
                result = call();
                struck = fault->struck();
            });
            EXPECT_EQ(said.empty(), !struck);
            // The step after the only row of a look-up has nothing more to tell: the call may do
            // without it, but then it does all of its work.
            if (struck && n == 1 && !GetParam()._reads_what_there_is) {
                EXPECT_NE(result, 0);
            }
            if (!struck) {
                EXPECT_EQ(result, 0);
            }

            if (in_host_transaction) capture_stderr([&] { _log.rollback_transaction(); });
            EXPECT_TRUE(dump() == (result == 0 && !in_host_transaction ? _after : _before));
            EXPECT_TRUE(at_level_0());
            if (!struck || HasFailure()) return n - 1;
        }
    }

    // BEGIN and COMMIT are left out: interrupted, they have done their work all the same, which no
    // other failure of theirs would have.
    void sweep_steps(bool in_host_transaction)
    {
        for (const std::string& text : _texts) {
            if (text == "BEGIN" || text == "COMMIT") continue;
            SCOPED_TRACE(text);
            const auto interrupt = [&](int n) { return std::make_unique<interrupt_step>(text, n); };
            EXPECT_GE(sweep(interrupt, in_host_transaction), 1);
            if (HasFailure()) return;
        }
    }

    std::string _before;           // what the file holds
    std::string _after;            // what it holds when the call has succeeded
    std::set<std::string> _texts;  // the statements that the call runs
};

INSTANTIATE_TEST_SUITE_P(, road_with_failures, testing::ValuesIn(OPERATIONS),
                         [](const auto& operation) { return operation.param._name; });

TEST_P(road_with_failures, every_statement_that_cannot_be_prepared)
{
    const auto deny = [](int n) { return std::make_unique<deny_prepare>(n); };
    EXPECT_EQ(sweep(deny, false), static_cast<int>(_texts.size()));
}

TEST_P(road_with_failures, every_statement_that_cannot_be_prepared_within_a_host_transaction)
{
    // The host's BEGIN is prepared already, and its COMMIT is not reached.
    const auto deny = [](int n) { return std::make_unique<deny_prepare>(n); };
    EXPECT_EQ(sweep(deny, true), static_cast<int>(_texts.size()) - 2);
}

TEST_P(road_with_failures, every_step_that_is_interrupted) { sweep_steps(false); }

TEST_P(road_with_failures, every_step_that_is_interrupted_within_a_host_transaction)
{
    sweep_steps(true);
}

TEST_P(road_with_failures, every_bind_that_is_refused)
{
    const std::set<std::string> without_values = {"finding_the_newest_row", "clearing_every_row"};
    for (int n = 1;; ++n) {
        SCOPED_TRACE("bind " + std::to_string(n));
        const std::function<int()> call = start_over();
        const refuse_bind refusal(n);
        int result = 0;
        const std::string said = capture_stderr([&] { result = call(); });
        if (!refusal.struck()) {
            EXPECT_EQ(n == 1, without_values.count(GetParam()._name) == 1);
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_THAT(said, bind_report());
        EXPECT_TRUE(dump() == _before);
        EXPECT_TRUE(at_level_0());
        if (HasFailure()) break;
    }
}

// A statement that is run again is reset before: SQLite then says what it has left over.
TEST_P(road_with_failures, every_reset_of_a_row_that_fails)
{
    for (const std::string& text : _texts) {
        if (text.rfind("INSERT", 0) != 0) continue;
        SCOPED_TRACE(text);
        for (int n = 1;; ++n) {
            SCOPED_TRACE("reset " + std::to_string(n));
            const std::function<int()> call = start_over();
            const fail_reset failure(text, n);
            int result = 0;
            const std::string said = capture_stderr([&] { result = call(); });
            if (!failure.struck()) {
                EXPECT_GT(n, 1);
                break;
            }
            EXPECT_THAT(said, testing::StartsWith(reset_report(9, "interrupted")));
            EXPECT_EQ(result, -1);
            EXPECT_TRUE(dump() == _before);
            EXPECT_TRUE(at_level_0());
            if (HasFailure()) return;
        }
    }
}

TEST_P(road_with_failures, commit_that_is_refused)
{
    const std::function<int()> call = start_over();
    {
        refuse_commit refusal;
        capture_stderr([&] { EXPECT_NE(call(), 0); });
        EXPECT_TRUE(refusal.struck());
    }
    EXPECT_TRUE(dump() == _before);
    EXPECT_TRUE(at_level_0());

    // Nothing of it lingers: the same call does its work now.
    EXPECT_QUIET(call(), 0);
    EXPECT_TRUE(dump() == _after);
}

TEST_P(road_with_failures, commit_and_rollback_that_cannot_be_prepared_are_made_good_later)
{
    const std::function<int()> call = start_over();
    {
        deny_prepare no_commit("COMMIT");
        deny_prepare no_rollback("ROLLBACK");
        capture_stderr([&] { EXPECT_NE(call(), 0); });
        EXPECT_TRUE(no_commit.struck());
        EXPECT_TRUE(no_rollback.struck());
    }
    EXPECT_TRUE(dump() == _before);

    // The next transaction ends what is still open before it begins.
    EXPECT_QUIET(call(), 0);
    EXPECT_TRUE(dump() == _after);
    EXPECT_TRUE(at_level_0());
}

}  // namespace
