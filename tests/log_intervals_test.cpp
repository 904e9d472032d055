// Interval boundaries and the ratios between neighbouring periods: static members of CLog that need
// no file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "clock.h"
#include "expect.h"
#include "trend_api.h"
#include "widths.h"

namespace {

using namespace toolkit::trend;
using testing::ElementsAre;

const std::string NEXT =
    "static time_t toolkit::trend::CLog::next_interval_boundary(long unsigned int, time_t)";
const std::string RATIOS =
    "static int toolkit::trend::CLog::calc_period_ratios("
    "const std::vector<toolkit::trend::CPeriodProperties>&, std::vector<long unsigned int>&)";

std::vector<CPeriodProperties> periods_of(const std::vector<unsigned long>& minutes)
{
    std::vector<CPeriodProperties> periods;
    for (const unsigned long period : minutes)
        periods.emplace_back(period, 100);
    return periods;
}

TEST(next_interval_boundary, of_the_epoch_is_one_interval_later)
{
    EXPECT_EQ(60, CLog::next_interval_boundary(1, 0));
    EXPECT_EQ(86400, CLog::next_interval_boundary(1440, 0));
}

TEST(next_interval_boundary, within_an_interval_is_its_end)
{
    EXPECT_EQ(60, CLog::next_interval_boundary(1, 59));
    EXPECT_EQ(1800, CLog::next_interval_boundary(15, 901));
    EXPECT_EQ(1800, CLog::next_interval_boundary(15, 1799));
}

TEST(next_interval_boundary, on_a_boundary_is_the_following_one)
{
    EXPECT_EQ(120, CLog::next_interval_boundary(1, 60));
    EXPECT_EQ(2700, CLog::next_interval_boundary(15, 1800));
}

TEST(next_interval_boundary, counts_days_from_the_epoch)
{
    // 2001-09-09 01:46:40 UTC is day 11574 (11574 * 86400 = 999993600) and 6400 seconds.
    EXPECT_EQ(1000080000, CLog::next_interval_boundary(1440, 1000000000));
}

TEST(next_interval_boundary, takes_the_present_for_minus_one)
{
    const time_t before = std::time(nullptr);
    const time_t next = CLog::next_interval_boundary(1, -1);
    const time_t after = std::time(nullptr);

    EXPECT_EQ(0, next % 60);
    EXPECT_GT(next, before);
    EXPECT_LE(next, after + 60);
}

TEST(next_interval_boundary, takes_what_the_system_says_for_the_present)
{
    const fixed_clock clock(1799);
    EXPECT_EQ(1800, CLog::next_interval_boundary(15, -1));
}

TEST(next_interval_boundary, refuses_when_the_clock_fails)
{
    const fixed_clock clock(-1);
    EXPECT_REPORTS(CLog::next_interval_boundary(15, -1), -1,
                   NEXT + ": Error: can't get system time\n");
}

TEST(next_interval_boundary, asks_no_clock_when_it_is_given_a_time)
{
    const fixed_clock clock(-1);
    EXPECT_QUIET(CLog::next_interval_boundary(15, 0), 900);
}

#if TREND_WIDE_SIZES
// Longer ones cannot be stored, and in seconds they would not fit a number.
TEST(next_interval_boundary, refuses_a_period_beyond_32_bits)
{
    const auto shift = [](int bits) { return static_cast<unsigned long>(uint64_t{1} << bits); };
    for (const int bits : {32, 62})
        EXPECT_REPORTS(CLog::next_interval_boundary(shift(bits), 1800), -1,
                       NEXT + ": Error: invalid period\n");
}
#endif

TEST(next_interval_boundary, of_the_largest_time_is_no_earlier)
{
    const time_t largest = std::numeric_limits<time_t>::max();
    EXPECT_QUIET(CLog::next_interval_boundary(1, largest), largest);
}

TEST(next_interval_boundary, refuses_a_period_of_zero)
{
    EXPECT_REPORTS(CLog::next_interval_boundary(0, 1800), -1, NEXT + ": Error: invalid period\n");
}

TEST(next_interval_boundary, refuses_a_period_of_zero_before_it_looks_at_the_time)
{
    EXPECT_REPORTS(CLog::next_interval_boundary(0, -2), -1, NEXT + ": Error: invalid period\n");
}

TEST(next_interval_boundary, stops_at_a_time_before_the_epoch)
{
    EXPECT_STOPS(CLog::next_interval_boundary(15, -2), "now>=0");
}

TEST(previous_interval_boundary, within_an_interval_is_its_start)
{
    EXPECT_EQ(0, CLog::previous_interval_boundary(15, 899));
    EXPECT_EQ(900, CLog::previous_interval_boundary(15, 1799));
}

TEST(previous_interval_boundary, on_a_boundary_is_the_time_itself)
{
    EXPECT_EQ(0, CLog::previous_interval_boundary(1, 0));
    EXPECT_EQ(60, CLog::previous_interval_boundary(1, 60));
    EXPECT_EQ(1800, CLog::previous_interval_boundary(15, 1800));
}

// The next boundary fits no time there.
TEST(previous_interval_boundary, of_the_largest_time_is_the_last_of_all)
{
    const bool wide = sizeof(time_t) > 4;
    const time_t largest = std::numeric_limits<time_t>::max();
    // 9223372036854775807 is 10248191152060862 quarters of an hour and 7 seconds, 2147483647 is
    // 2386092 of them and 847 seconds.
    const time_t last = largest - (wide ? 7 : 847);
    EXPECT_QUIET(CLog::previous_interval_boundary(15, largest), last);
    EXPECT_QUIET(CLog::previous_interval_boundary(15, last + 1), last);
    EXPECT_QUIET(CLog::previous_interval_boundary(15, last), last);
    EXPECT_QUIET(CLog::previous_interval_boundary(15, last - 1), last - 900);

    const fixed_clock clock(last + 3);
    EXPECT_QUIET(CLog::previous_interval_boundary(15, -1), last);
}

TEST(previous_interval_boundary, takes_the_present_for_minus_one)
{
    const time_t before = std::time(nullptr);
    const time_t previous = CLog::previous_interval_boundary(1, -1);
    const time_t after = std::time(nullptr);

    EXPECT_EQ(0, previous % 60);
    EXPECT_GT(previous, before - 60);
    EXPECT_LE(previous, after);
}

TEST(previous_interval_boundary, takes_what_the_system_says_for_the_present)
{
    const fixed_clock clock(1800);
    EXPECT_EQ(1800, CLog::previous_interval_boundary(15, -1));
}

TEST(previous_interval_boundary, leaves_the_reports_to_the_next_boundary)
{
    EXPECT_REPORTS(CLog::previous_interval_boundary(0, 1800), -1,
                   NEXT + ": Error: invalid period\n");
    const fixed_clock clock(-1);
    EXPECT_REPORTS(CLog::previous_interval_boundary(15, -1), -1,
                   NEXT + ": Error: can't get system time\n");
}

TEST(previous_interval_boundary, stops_at_a_time_before_the_epoch)
{
    EXPECT_STOPS(CLog::previous_interval_boundary(15, -2), "now>=0");
}

TEST(calc_period_ratios, of_one_period_is_a_single_zero)
{
    std::vector<unsigned long> ratios;
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({1}), ratios), 0, "");
    EXPECT_THAT(ratios, ElementsAre(0));
}

TEST(calc_period_ratios, stand_at_the_finer_of_two_neighbours)
{
    std::vector<unsigned long> ratios;
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({1, 15, 60, 1440}), ratios), 0, "");
    EXPECT_THAT(ratios, ElementsAre(15, 4, 24, 0));
}

TEST(calc_period_ratios, of_two_is_the_least_allowed)
{
    std::vector<unsigned long> ratios;
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({15, 30}), ratios), 0, "");
    EXPECT_THAT(ratios, ElementsAre(2, 0));
}

TEST(calc_period_ratios, leave_the_last_entry_as_it_was)
{
    std::vector<unsigned long> ratios = {7, 8, 9};
    EXPECT_EQ(0, CLog::calc_period_ratios(periods_of({1, 15, 60}), ratios));
    EXPECT_THAT(ratios, ElementsAre(15, 4, 9));
}

TEST(calc_period_ratios, take_the_size_of_the_period_list)
{
    std::vector<unsigned long> ratios = {7, 8, 9, 10};
    EXPECT_EQ(0, CLog::calc_period_ratios(periods_of({1, 5}), ratios));
    EXPECT_THAT(ratios, ElementsAre(5, 8));
}

TEST(calc_period_ratios, refuse_equal_periods)
{
    std::vector<unsigned long> ratios;
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({15, 15}), ratios), -1,
                   RATIOS + ": Error: period ratio too low\n");
    EXPECT_THAT(ratios, ElementsAre(1, 0));
}

TEST(calc_period_ratios, refuse_less_than_twice_as_too_low_not_as_oddball)
{
    std::vector<unsigned long> ratios;
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({15, 20}), ratios), -1,
                   RATIOS + ": Error: period ratio too low\n");
    EXPECT_THAT(ratios, ElementsAre(1, 0));
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({10, 15}), ratios), -1,
                   RATIOS + ": Error: period ratio too low\n");
    EXPECT_THAT(ratios, ElementsAre(1, 0));
}

TEST(calc_period_ratios, refuse_what_is_no_multiple)
{
    // 25 / 10 is 2, enough, but 2 * 10 is not 25.
    std::vector<unsigned long> ratios;
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({10, 25}), ratios), -1,
                   RATIOS + ": Error: oddball period ratio\n");
    EXPECT_THAT(ratios, ElementsAre(2, 0));
}

TEST(calc_period_ratios, stop_at_the_first_failure_and_keep_what_they_have)
{
    // 15 / 1 fits, 40 / 15 is 2 and odd, 50 / 40 is never looked at.
    std::vector<unsigned long> ratios = {7, 7, 7, 7};
    EXPECT_REPORTS(CLog::calc_period_ratios(periods_of({1, 15, 40, 50}), ratios), -1,
                   RATIOS + ": Error: oddball period ratio\n");
    EXPECT_THAT(ratios, ElementsAre(15, 2, 7, 7));
}

TEST(calc_period_ratios, stop_without_periods)
{
    std::vector<unsigned long> ratios;
    EXPECT_STOPS(CLog::calc_period_ratios({}, ratios), "!periods.empty()");
}

TEST(calc_period_ratios, stop_at_a_period_of_0_minutes)
{
    std::vector<unsigned long> ratios;
    EXPECT_STOPS(CLog::calc_period_ratios(periods_of({0, 5}), ratios), "periods[i]._period!=0");
}

}  // namespace
