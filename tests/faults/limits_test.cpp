// What just fits, and what just does not.

#include <gtest/gtest.h>

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
    static void SetUpTestSuite() { install_faults(); }

    void SetUp() override
    {
        disk::restore({});
        ASSERT_EQ(open(), 0);
    }

    int open(size_t pool_capacity = 20, size_t page_size = 0)
    {
        return _log.open(LOG_FILE, false, true, pool_capacity, false, page_size, 0, 0, true);
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

    CLog _log;
};

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
    EXPECT_EQ(_log.add_params(data._device, one_more), -1);
    EXPECT_EQ(live_view(), before);
    EXPECT_EQ(record(data, 120), 0);
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
    EXPECT_EQ(_log.get_trend_data(found, data, periods, {-1, -1}, 0, 0, true, false), -1);
    EXPECT_EQ(read(data).size(), 1U);
}

TEST_F(limits, a_pool_of_one_or_two_statements_serves_everything)
{
    for (const size_t capacity : {size_t{1}, size_t{2}}) {
        disk::restore({});
        ASSERT_EQ(open(capacity), 0);
        ASSERT_EQ(_log.add_period({1, 10}), 0);
        ASSERT_EQ(_log.add_period({5, 10}), 0);
        const CDeviceParams data = add_device();
        for (time_t time = 60; time <= 300; time += 60)
            ASSERT_EQ(record(data, time), 0);
        EXPECT_EQ(_log.fill_blank_values(data._device, 600, false), 0);
        EXPECT_EQ(read(data, {{5, 10}}).size(), 2U);
        EXPECT_EQ(_log.remove_params(data._device, data._params), 0);
        EXPECT_EQ(_log.remove_device(data._device), 0);
    }
}

// No cutoff of a trim is below 0, so that is when the row goes.
TEST_F(limits, time_0_is_recorded_and_stays_until_the_first_trim)
{
    ASSERT_EQ(_log.add_period({1, 10}), 0);
    ASSERT_EQ(_log.add_period({5, 10}), 0);
    const CDeviceParams data = add_device();
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

// The disk has room for so many pages and no more: what does not fit fails and changes nothing, and
// when there is room again it goes on.
TEST_F(limits, a_disk_with_a_single_free_page_keeps_what_it_has)
{
    ASSERT_EQ(_log.add_period({1, 1000}), 0);
    const CDeviceParams data = add_device();
    ASSERT_EQ(record(data, 60), 0);
    const std::string before = live_view();
    disk::arm(disk::WRITE, 13, 2, true);  // SQLITE_FULL from the second write on
    EXPECT_EQ(record(data, 120), -1);
    EXPECT_GT(disk::disarm(), 0U);
    EXPECT_EQ(live_view(), before);
    EXPECT_EQ(record(data, 120), 0);
    EXPECT_EQ(read(data).size(), 2U);
}
