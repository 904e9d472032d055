// What just fits, and what just does not.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "disk.h"
#include "memory.h"
#include "scenario.h"
#include "sweep.h"

using namespace toolkit::trend;

namespace {

class limits : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        install_faults();
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(take_handle));
    }

    static void TearDownTestSuite() { sqlite3_reset_auto_extension(); }

    void SetUp() override
    {
        disk::restore({});
        ASSERT_EQ(open(), 0);
    }

    int open(bool wal = true)
    {
        _newest = nullptr;
        const int failed = _log.open(LOG_FILE, false, true, 20, false, 0, 0, 0, wal);
        _raw = _newest;
        return failed;
    }

    static std::vector<CParamProperties> params_of_five_columns(size_t count)
    {
        std::vector<CParamProperties> params(count);
        for (size_t i = 0; i < count; ++i) {
            params[i]._path = "p" + std::to_string(i);
            params[i]._has_min = params[i]._has_max = params[i]._has_avg = params[i]._has_actual =
                params[i]._has_sum = true;
        }
        return params;
    }

    // A device with one parameter.
    CDeviceParams add_device()
    {
        CDeviceParams data;
        data._device._path = "plant/pump";
        data._params = params_of_five_columns(1);
        EXPECT_EQ(_log.add_device(data._device), 0);
        EXPECT_EQ(_log.add_params(data._device, data._params), 0);
        return data;
    }

    int record(const CDeviceParams& data, time_t time)
    {
        CSnapshot snapshot;
        snapshot._time = time;
        snapshot._percent_valid = 100.0;
        snapshot._samples.assign(data._params.size(), CSample{1.0, 1.0, 1.0, 1.0, 1.0});
        return _log.add_trend_data(data, snapshot);
    }

    std::vector<CSnapshot> read(const CDeviceParams& data,
                                const std::vector<CPeriodProperties>& periods = {})
    {
        CDeviceData found;
        EXPECT_EQ(_log.get_trend_data(found, data, periods, {-1, -1}, 0, 0, true, false), 0);
        return found._snapshots;
    }

    // A number out of the log's own connection.
    int number(const std::string& sql)
    {
        const auto take = [](void* out, int, char** values, char**) {
            *static_cast<int*>(out) = std::stoi(values[0]);
            return 0;
        };
        int out = -1;
        EXPECT_EQ(sqlite3_exec(_raw, sql.c_str(), take, &out, nullptr), SQLITE_OK) << sql;
        return out;
    }

    // Lets the file grow by so many pages and no more, as a full disk does.
    void leave_pages(int free)
    {
        const int wanted = number("PRAGMA page_count") + free;
        ASSERT_EQ(number("PRAGMA max_page_count = " + std::to_string(wanted)), wanted);
    }

    void leave_room() { number("PRAGMA max_page_count = 1000000"); }

    // The call's result, with what it reports.
    template <typename Call>
    int reported(Call call, std::string& said)
    {
        testing::internal::CaptureStderr();
        const int result = call();
        said = testing::internal::GetCapturedStderr();
        return result;
    }

    CLog _log;
    sqlite3* _raw = nullptr;

private:
    static int take_handle(sqlite3* db, char**, const sqlite3_api_routines*)
    {
        _newest = db;
        return SQLITE_OK;
    }

    static sqlite3* _newest;
};

sqlite3* limits::_newest = nullptr;

const std::string PREPARE =
    "int toolkit::trend::CStatement::prepare(const tk_string&): sqlite3_prepare(): ";

// What a step that finds no page reports, with its reset.
const std::string FULL =
    "int toolkit::trend::CStatement::step(): sqlite3_step(): 13 (database or disk is full)\n"
    "int toolkit::trend::CStatement::reset(): sqlite3_reset(): 13 (database or disk is full)\n";

}  // namespace

// SQLite has 2000 columns for a table: time, percent_valid and 5 for each of 399.
TEST_F(limits, a_device_takes_399_parameters_of_five_columns_and_not_400)
{
    ASSERT_EQ(_log.add_period({1, 100}), 0);
    CDeviceParams data;
    data._device._path = "plant/pump";
    ASSERT_EQ(_log.add_device(data._device), 0);
    data._params = params_of_five_columns(399);
    ASSERT_EQ(_log.add_params(data._device, data._params), 0);
    EXPECT_EQ(record(data, 60), 0);
    const std::vector<CSnapshot> rows = read(data);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0]._samples.size(), 399U);

    std::vector<CParamProperties> one_more = params_of_five_columns(1);
    one_more[0]._path = "one more";
    const std::string before = live_view();
    std::string said;
    EXPECT_EQ(reported([&] { return _log.add_params(data._device, one_more); }, said), -1);
    EXPECT_EQ(said, PREPARE + "1 (too many columns on sqlite_altertab_trends_1_1)\n");
    EXPECT_EQ(live_view(), before);
    EXPECT_EQ(record(data, 120), 0);
}

// All at once they are refused as well, and none of them is there afterwards.
TEST_F(limits, four_hundred_parameters_in_one_call_leave_none)
{
    ASSERT_EQ(_log.add_period({1, 100}), 0);
    CDeviceParams data;
    data._device._path = "plant/pump";
    ASSERT_EQ(_log.add_device(data._device), 0);
    const std::string before = live_view();
    data._params = params_of_five_columns(400);
    EXPECT_EQ(_log.add_params(data._device, data._params), -1);
    EXPECT_EQ(live_view(), before);
}

// The table has room for three columns more than 399 parameters take; a read answers with a column
// more than the table has, so the last of them has to be read apart.
TEST_F(limits, a_table_is_full_with_2000_columns_and_a_read_with_2000_of_its_own)
{
    ASSERT_EQ(_log.add_period({1, 100}), 0);
    CDeviceParams data;
    data._device._path = "plant/pump";
    ASSERT_EQ(_log.add_device(data._device), 0);
    data._params = params_of_five_columns(399);
    CParamProperties three_columns;
    three_columns._path = "three columns";
    three_columns._has_min = three_columns._has_max = three_columns._has_avg = true;
    data._params.push_back(three_columns);
    ASSERT_EQ(_log.add_params(data._device, data._params), 0);
    ASSERT_EQ(_log.add_period({5, 100}), 0);
    for (time_t time = 60; time <= 300; time += 60)
        ASSERT_EQ(record(data, time), 0);

    CDeviceData found;
    std::string said;
    const auto read_all = [&] {
        return _log.get_trend_data(found, data, {}, {-1, -1}, 0, 0, true, false);
    };
    EXPECT_EQ(reported(read_all, said), -1);
    EXPECT_EQ(said, PREPARE + "1 (too many columns in result set)\n");
    data._params.erase(data._params.begin());
    EXPECT_EQ(read(data).size(), 6U);  // five minutes and what they are rolled up to

    CParamProperties one_column;
    one_column._path = "one column";
    one_column._has_avg = true;
    std::vector<CParamProperties> one_more = {one_column};
    EXPECT_EQ(_log.add_params(data._device, one_more), -1);
}

// SQLite has 500 terms for a compound SELECT.
TEST_F(limits, one_read_takes_500_periods_and_not_501)
{
    ASSERT_EQ(_log.add_period({1, 100}), 0);
    const CDeviceParams data = add_device();
    ASSERT_EQ(record(data, 60), 0);
    std::vector<CPeriodProperties> periods(500, CPeriodProperties(1, 100));
    EXPECT_EQ(read(data, periods).size(), 500U);
    periods.emplace_back(1, 100);
    CDeviceData found;
    std::string said;
    const auto read_all = [&] {
        return _log.get_trend_data(found, data, periods, {-1, -1}, 0, 0, true, false);
    };
    EXPECT_EQ(reported(read_all, said), -1);
    EXPECT_EQ(said, PREPARE + "1 (too many terms in compound SELECT)\n");
    EXPECT_TRUE(found._snapshots.empty());
    EXPECT_EQ(read(data).size(), 1U);
}

// Whatever is done to a log, a pool that can keep one statement or two brings the same as a large
// one.
TEST_F(limits, a_pool_of_one_or_two_statements_serves_everything)
{
    const auto taken = [&](const step_t& step, size_t capacity) {
        disk::restore(base_image(step._base, true));
        EXPECT_EQ(_log.open(LOG_FILE, false, false, capacity, false, 0, 0, 0, true), 0);
        const answer_t answer = step._run(_log, {true, true});
        EXPECT_EQ(answer._code, step._success) << step._name;
        return answer._text + live_view();
    };
    for (const step_t& step : steps()) {
        if (step.is(step_t::OPENS)) continue;
        const std::string wanted = taken(step, 20);
        EXPECT_EQ(taken(step, 1), wanted) << step._name;
        EXPECT_EQ(taken(step, 2), wanted) << step._name;
    }
}

TEST_F(limits, a_pool_of_no_statement_is_refused)
{
    std::string said;
    const auto open_it = [&] { return _log.open(LOG_FILE, false, true, 0, false, 0, 0, 0, true); };
    EXPECT_EQ(reported(open_it, said), -1);
    EXPECT_NE(said.find("Error: invalid pool capacity"), std::string::npos) << said;
    EXPECT_FALSE(_log.is_open());
}

// No cutoff of a trim is below 0, so that is when the row goes.
TEST_F(limits, time_0_is_recorded_and_stays_until_the_first_trim)
{
    ASSERT_EQ(_log.add_period({1, 10}), 0);
    ASSERT_EQ(_log.add_period({5, 10}), 0);
    const CDeviceParams data = add_device();
    const std::string before = live_view();
    EXPECT_EQ(record(data, -1), -1);
    EXPECT_EQ(live_view(), before);
    EXPECT_EQ(record(data, 0), 0);
    time_t latest = -1;
    EXPECT_EQ(_log.get_latest_timestamp(data._device, latest), 0);
    EXPECT_EQ(latest, 0);
    EXPECT_EQ(read(data).size(), 1U);
    EXPECT_EQ(_log.fill_blank_values(data._device, 60, false), 0);  // ends with a trim
    const std::vector<CSnapshot> rows = read(data);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0]._time, 60);
}

TEST_F(limits, the_largest_time_is_recorded_filled_and_read)
{
    constexpr time_t LARGEST = std::numeric_limits<time_t>::max();
    ASSERT_EQ(_log.add_period({1, 10}), 0);
    ASSERT_EQ(_log.add_period({5, 10}), 0);
    const CDeviceParams data = add_device();
    for (int i = 4; i >= 0; --i)
        ASSERT_EQ(record(data, LARGEST - i * 60), 0);
    EXPECT_EQ(_log.fill_blank_values(data._device, LARGEST, true), 0);
    time_t latest = -1;
    EXPECT_EQ(_log.get_latest_timestamp(data._device, latest), 0);
    EXPECT_EQ(latest, LARGEST);
    const std::vector<CSnapshot> rows = read(data);
    ASSERT_EQ(rows.size(), 6U);
    EXPECT_EQ(rows.back()._time, LARGEST);
    EXPECT_EQ(_log.clear_trend_data(data._device, {LARGEST, LARGEST}), 1);
}

// A new period needs a page for each device's table.
TEST_F(limits, a_single_free_page_is_taken_by_what_needs_no_more)
{
    ASSERT_EQ(_log.add_period({1, 1000}), 0);
    add_device();
    leave_pages(0);
    const std::string before = live_view();
    std::string said;
    const auto add_period = [&] { return _log.add_period({5, 1000}); };
    EXPECT_EQ(reported(add_period, said), -1);
    EXPECT_EQ(said, FULL);
    EXPECT_EQ(live_view(), before);

    leave_pages(1);
    EXPECT_EQ(add_period(), 0);
    EXPECT_EQ(number("PRAGMA page_count"), number("PRAGMA max_page_count"));
}

// For every number of free pages that is too small, in every operation and both journal modes.
TEST_F(limits, what_needs_more_pages_than_are_free_changes_nothing_until_there_are_more)
{
    size_t refused = 0;
    size_t done = 0;
    for (const bool wal : {true, false}) {
        for (const step_t& step : steps()) {
            if (step.is(step_t::OPENS) || step.is(step_t::READS)) continue;
            for (int free = 0;; ++free) {
                disk::restore(base_image(step._base, wal));
                ASSERT_EQ(open(wal), 0);
                leave_pages(free);
                const std::string before = live_view();
                if (step._run(_log, {wal, true})._code == step._success) break;
                ++refused;
                EXPECT_EQ(live_view(), before) << step._name << ", " << free << " free";
                leave_room();
                EXPECT_EQ(step._run(_log, {wal, true})._code, step._success) << step._name;
            }
            ++done;
        }
    }
    std::printf("Free pages: %zu times too few for one of %zu operations\n", refused, done);
    EXPECT_GT(refused, done / 2);
}

// The disk is full after one more write: the pages that a commit needs do not all fit.
TEST_F(limits, a_disk_that_takes_a_single_page_keeps_what_it_has)
{
    for (const bool wal : {true, false}) {
        disk::restore({});
        ASSERT_EQ(open(wal), 0);
        ASSERT_EQ(_log.add_period({1, 1000}), 0);
        const CDeviceParams data = add_device();
        ASSERT_EQ(record(data, 60), 0);
        const std::string before = live_view();
        disk::arm(disk::WRITE, SQLITE_FULL, 2, true);
        EXPECT_EQ(record(data, 120), -1);
        EXPECT_GT(disk::disarm(), 0U);
        EXPECT_EQ(live_view(), before);
        EXPECT_EQ(record(data, 120), 0);
        EXPECT_EQ(read(data).size(), 2U);
    }
}
