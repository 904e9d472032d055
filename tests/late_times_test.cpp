#include <cstdint>
#include <limits>

#include "log_fixture.h"
#include "widths.h"

using namespace toolkit::trend;

// Times beyond January 2038, which need more than 31 bits. Where time_t has only 32 in all they
// cannot be said, and the last second that can is the latest row.

#if TREND_WIDE_TIMES

namespace {

// 2100-01-01 00:00 UTC: 47482 days after the epoch, a boundary of every period below.
constexpr int64_t YEAR_2100 = int64_t(47482) * 86400;

time_t minute_of_2100(int minute) { return static_cast<time_t>(YEAR_2100 + minute * 60); }

class late_times : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {5, 100}});
        _device = add_device("pump", {param("u", "avg")});
    }

    CDeviceParams _device;
};

}  // namespace

TEST_F(late_times, are_stored_and_rolled_up)
{
    for (int minute = 1; minute <= 5; ++minute)
        record(_device, minute_of_2100(minute), {double(minute)});

    EXPECT_EQ("4102444860|1.0\n4102444920|2.0\n4102444980|3.0\n4102445040|4.0\n4102445100|5.0",
              rows("SELECT time, param_1_avg FROM trends_1_1 ORDER BY time"));
    EXPECT_EQ("4102445100|3.0", rows("SELECT time, param_1_avg FROM trends_1_5"));
}

TEST_F(late_times, are_read_back_and_bound_a_read)
{
    for (int minute = 1; minute <= 4; ++minute)
        record(_device, minute_of_2100(minute), {double(minute)});

    CDeviceData data;
    EXPECT_QUIET(_log.get_trend_data(data, _device, {CPeriodProperties(1, 100)},
                                     {minute_of_2100(2), minute_of_2100(3)}, 0, 0, true, false),
                 0);
    ASSERT_EQ(2u, data._snapshots.size());
    EXPECT_EQ(minute_of_2100(2), data._snapshots[0]._time);
    EXPECT_EQ(minute_of_2100(3), data._snapshots[1]._time);
}

TEST_F(late_times, are_the_latest)
{
    record(_device, minute_of_2100(7), {1.0});
    time_t latest = -1;
    EXPECT_QUIET(_log.get_latest_timestamp(_device._device, latest), 0);
    EXPECT_EQ(minute_of_2100(7), latest);
}

TEST_F(late_times, are_filled_up_to)
{
    record(_device, minute_of_2100(1), {1.0});
    EXPECT_QUIET(_log.fill_blank_values(_device._device, minute_of_2100(6), false), 0);
    EXPECT_EQ(
        "4102444860|100.0\n4102444920|0.0\n4102444980|0.0\n4102445040|0.0\n"
        "4102445100|0.0\n4102445160|0.0",
        rows("SELECT time, percent_valid FROM trends_1_1 ORDER BY time"));
    EXPECT_EQ("4102445100|20.0", rows("SELECT time, percent_valid FROM trends_1_5"));
}

TEST_F(late_times, are_trimmed)
{
    record(_device, minute_of_2100(1), {1.0});
    record(_device, minute_of_2100(2), {2.0});  // 100 intervals before the newest
    record(_device, minute_of_2100(102), {3.0});
    EXPECT_QUIET(_log.modify_period(CPeriodProperties(1, 100)), 0);
    EXPECT_EQ("4102450920", rows("SELECT time FROM trends_1_1"));
}

TEST_F(late_times, are_cleared)
{
    for (int minute = 1; minute <= 3; ++minute)
        record(_device, minute_of_2100(minute), {double(minute)});
    EXPECT_QUIET(_log.clear_trend_data(_device._device, {minute_of_2100(2), minute_of_2100(3)}), 1);
    EXPECT_EQ("4102444860", rows("SELECT time FROM trends_1_1"));
}

TEST_F(late_times, have_interval_boundaries)
{
    EXPECT_EQ(minute_of_2100(15), CLog::next_interval_boundary(15, minute_of_2100(0)));
    EXPECT_EQ(minute_of_2100(15), CLog::next_interval_boundary(15, minute_of_2100(14)));
    EXPECT_EQ(minute_of_2100(0), CLog::previous_interval_boundary(15, minute_of_2100(14)));
    EXPECT_EQ(minute_of_2100(1440), CLog::next_interval_boundary(1440, minute_of_2100(1)));
}

#endif

using earliest_and_latest_time = log_fixture;

// The row at time 0 has fallen out of the table by then.
TEST_F(earliest_and_latest_time, of_32_bits_are_recorded)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("u", "avg")});
    const time_t last = std::numeric_limits<int32_t>::max();
    record(device, 0, {1.0});
    record(device, last, {2.0});

    CDeviceData data;
    EXPECT_QUIET(_log.get_trend_data(data, device, {}, {0, last}, 0, 0, true, false), 0);
    ASSERT_EQ(1u, data._snapshots.size());
    EXPECT_EQ(last, data._snapshots[0]._time);
}

// Of these the next boundaries need more than 32 bits.
TEST_F(earliest_and_latest_time, of_32_bits_have_a_boundary_before_them)
{
    // 2147483000 is 2386092 quarters of an hour and 200 seconds. 40000000 minutes end in 2046.
    EXPECT_QUIET(CLog::previous_interval_boundary(15, 2147483000), 2147482800);
    EXPECT_QUIET(CLog::previous_interval_boundary(40000000, 100), 0);
}
