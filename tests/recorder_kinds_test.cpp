// How readings of each kind become the values and the validity of a row.

#include <gtest/gtest.h>

#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

using gauge_readings = recorder_fixture;
using power_factor_readings = recorder_fixture;
using counter_readings = recorder_fixture;
using total_readings = recorder_fixture;
using validity = recorder_fixture;

constexpr const char* FOUR = "percent_valid, param_1_min, param_1_max, param_1_avg, param_1_actual";

}  // namespace

TEST_F(gauge_readings, hold_until_the_next_one_and_are_averaged_by_time)
{
    open();
    attach({gauge("u", "min max avg actual")});
    EXPECT_EQ(push(0, 10.0, 0), NOTICE_LATE);  // closes the interval before
    for (const auto& [moment, value] :
         {std::pair<int64_t, double>{15'000, 10.0}, {30'000, 20.0}, {45'000, 40.0}})
        EXPECT_EQ(push(0, value, moment), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    // 15 s each of 45 s: 70 / 3.
    EXPECT_EQ(rows(FOUR), "60|75.0|10.0|40.0|23.3333333333333|40.0");
}

TEST_F(gauge_readings, hold_for_so_long_only)
{
    open();
    attach({gauge("u", "min max avg actual")});
    EXPECT_EQ(push(0, 10.0, 5'000), 0);   // to 25 s
    EXPECT_EQ(push(0, 30.0, 50'000), 0);  // to 70 s
    EXPECT_EQ(tick_at(120'001), 0);
    // 20 s of 10 and 10 s of 30; then 10 s of 30 that hold into the next minute.
    EXPECT_EQ(rows(FOUR),
              "60|50.0|10.0|30.0|16.6666666666667|30.0\n"
              "120|16.6666666666667|30.0|30.0|30.0|30.0");
}

TEST_F(gauge_readings, on_the_border_close_the_interval_and_hold_into_the_next)
{
    open();
    attach({gauge("u", "min max avg actual")});
    EXPECT_EQ(push(0, 10.0, 50'000), 0);
    EXPECT_EQ(push(0, 90.0, 60'000), 0);
    EXPECT_EQ(tick_at(60'000), 0);
    EXPECT_EQ(rows(FOUR), "");  // the clock has not passed it
    EXPECT_EQ(push(0, 20.0, 70'000), 0);
    EXPECT_EQ(tick_at(120'001), 0);
    // 90 for no time in the first minute, then 10 s of 90 and 20 s of 20.
    EXPECT_EQ(rows(FOUR),
              "60|16.6666666666667|10.0|90.0|10.0|90.0\n"
              "120|50.0|20.0|90.0|43.3333333333333|20.0");
}

TEST_F(gauge_readings, alone_on_the_border_are_the_average_of_no_time)
{
    open();
    attach({gauge("u", "min max avg actual")});
    EXPECT_EQ(push(0, 90.0, 60'000), 0);
    EXPECT_EQ(tick_at(120'001), 0);
    EXPECT_EQ(rows(FOUR),
              "60|0.0|90.0|90.0|90.0|90.0\n"
              "120|33.3333333333333|90.0|90.0|90.0|90.0");
}

TEST_F(gauge_readings, have_a_hold_of_their_own)
{
    open();
    CRecorderParam slow = gauge("slow");
    slow._hold_ms = 150'000;
    attach({gauge("fast"), slow});
    EXPECT_EQ(push(0, 1.0, 60'000), 0);
    EXPECT_EQ(push(1, 2.0, 60'000), 0);
    EXPECT_EQ(tick_at(300'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg, param_2_avg"),
              "60|0.0|1.0|2.0\n120|100.0|1.0|2.0\n180|100.0|NULL|2.0\n240|50.0|NULL|2.0\n"
              "300|0.0|NULL|NULL");
}

TEST_F(power_factor_readings, are_averaged_through_unity)
{
    open();
    attach({power_factor("cosphi", "min max avg actual")});
    EXPECT_EQ(push(0, 0.9, 20'000), 0);
    EXPECT_EQ(push(0, -0.9, 40'000), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    // On the scale 0.9 and 1.1: unity in the middle, the smallest most lagging.
    EXPECT_EQ(rows(FOUR), "60|66.6666666666667|0.9|-0.9|1.0|-0.9");
    EXPECT_EQ(::rows(_file, "SELECT type FROM params_1"), "1");
}

TEST_F(power_factor_readings, are_refused_beyond_unity)
{
    open();
    attach({power_factor("cosphi")});
    EXPECT_EQ(push(0, 1.01, 20'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(push(0, -1.01, 20'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(push(0, -1.0, 20'000), 0);
    EXPECT_EQ(told(),
              "out_of_limits: 'cosphi': 1.01 is not within -1 and 1\n"
              "out_of_limits: 'cosphi': -1.01 is not within -1 and 1\n");
}

TEST_F(counter_readings, give_increments_to_the_interval_of_the_later_one)
{
    open();
    attach({counter("energy", "actual sum")});
    EXPECT_EQ(push(0, 1000.0, 30'000), 0);  // a start
    EXPECT_EQ(push(0, 1005.0, 50'000), 0);
    EXPECT_EQ(push(0, 1015.0, 70'000), 0);
    EXPECT_EQ(push(0, 1030.0, 120'000), 0);
    EXPECT_EQ(tick_at(180'001), 0);
    // Covered from 30 to 50 s; then, of 50 to 70 s, what lies in the second minute, and to its end.
    EXPECT_EQ(rows("percent_valid, param_1_actual, param_1_sum"),
              "60|33.3333333333333|1005.0|5.0\n120|100.0|1030.0|25.0\n180|0.0|NULL|NULL");
}

TEST_F(counter_readings, start_anew_after_a_fall)
{
    open();
    attach({counter("energy")});
    EXPECT_EQ(push(0, 1000.0, 10'000), 0);
    EXPECT_EQ(push(0, 3.0, 20'000), 0);
    EXPECT_EQ(push(0, 10.0, 40'000), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_sum"), "60|33.3333333333333|7.0");
    EXPECT_EQ(_recorder->stats()._resets, 1U);
    EXPECT_EQ(told(), "");
}

TEST_F(counter_readings, over_too_long_a_gap_are_lost_and_counted)
{
    open();
    attach({counter("energy")});
    EXPECT_EQ(push(0, 1000.0, 60'000), 0);
    EXPECT_EQ(push(0, 1010.0, 180'000), 0);  // 120 s are no gap yet
    EXPECT_EQ(push(0, 1110.0, 300'001), 0);
    EXPECT_EQ(push(0, 1111.0, 330'001), 0);
    EXPECT_EQ(tick_at(360'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_sum"),
              "60|0.0|NULL\n120|0.0|NULL\n180|100.0|10.0\n240|0.0|NULL\n300|0.0|NULL\n"
              "360|50.0|1.0");
    EXPECT_EQ(told(), "gap: 'energy': an increment of 100 over 120001 ms\n");
    EXPECT_EQ(count(NOTICE_GAP), 1);
}

TEST_F(counter_readings, that_rise_too_fast_are_refused_until_the_gap_is_too_long)
{
    open();
    CRecorderParam energy = counter("energy");
    energy._max_rate = 2.0;
    attach({energy});
    EXPECT_EQ(push(0, 1000.0, 10'000), 0);
    EXPECT_EQ(push(0, 1020.5, 20'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(told(), "out_of_limits: 'energy': rises by 20.5 within 10000 ms\n");
    EXPECT_EQ(push(0, 1020.0, 20'000), 0);
    // Replaced by another meter: far above, until that is old enough to be a start.
    EXPECT_EQ(push(0, 90000.0, 60'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(push(0, 90000.0, 140'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(push(0, 90000.0, 140'001), 0);
    EXPECT_EQ(push(0, 90001.0, 150'000), 0);
    EXPECT_EQ(tick_at(180'001), 0);
    EXPECT_EQ(rows("param_1_sum"), "60|20.0\n120|NULL\n180|1.0");
}

TEST_F(counter_readings, that_are_refused_close_no_interval)
{
    open();
    CRecorderParam energy = counter("energy");
    energy._max_rate = 1.0;
    attach({energy, gauge("u")});
    EXPECT_EQ(push(0, 0.0, 10'000), 0);
    EXPECT_EQ(push(0, 500.0, 61'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(push(1, 5.0, 50'000), 0);
}

TEST_F(total_readings, are_added_in_any_order)
{
    open();
    attach({total("parts")});
    EXPECT_EQ(push(0, 3.0, 40'000), 0);
    EXPECT_EQ(push(0, 4.0, 20'000), 0);
    EXPECT_EQ(push(0, 5.0, 20'000), 0);
    EXPECT_EQ(push(0, 1.0, 60'000), 0);
    EXPECT_EQ(push(0, -2.0, 60'001), 0);
    EXPECT_EQ(push(0, 7.0, 60'000), NOTICE_LATE);
    EXPECT_EQ(tick_at(180'001), 0);
    // A device of totals alone is valid where an amount came in.
    EXPECT_EQ(rows("percent_valid, param_1_sum"), "60|100.0|13.0\n120|100.0|-2.0\n180|0.0|NULL");
}

TEST_F(total_readings, say_nothing_of_validity_beside_others)
{
    open();
    attach({total("parts"), gauge("u")});
    EXPECT_EQ(push(0, 3.0, 40'000), 0);
    EXPECT_EQ(push(1, 5.0, 70'000), 0);
    EXPECT_EQ(tick_at(120'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_sum, param_2_avg"),
              "60|0.0|3.0|NULL\n120|33.3333333333333|NULL|5.0");
}

TEST_F(validity, is_the_share_in_which_any_gauge_was_known_or_a_counter_covered)
{
    open();
    attach({gauge("a"), gauge("b"), counter("c")});
    EXPECT_EQ(push(2, 1.0, 15'000), 0);
    EXPECT_EQ(push(0, 1.0, 10'000), 0);  // to 30 s
    EXPECT_EQ(push(1, 1.0, 20'000), 0);  // to 40 s
    EXPECT_EQ(push(0, 1.0, 50'000), 0);  // to the end
    EXPECT_EQ(push(2, 2.0, 45'000), 0);  // from 15 s on, learned after the reading at 50 s
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("percent_valid"), "60|75.0");  // 10 to 45 and 50 to 60
}

TEST_F(validity, knows_gaps_that_are_closed_later)
{
    open();
    CRecorderParam brief = gauge("brief");
    brief._hold_ms = 1'000;
    CRecorderParam other = gauge("other");
    other._hold_ms = 3'000;
    attach({brief, other, counter("c")});
    for (int64_t moment = 0; moment < 12'000; moment += 3'000)
        EXPECT_EQ(push(0, 1.0, moment + 500), 0);  // known 0.5 to 1.5, 3.5 to 4.5, ... 9.5 to 10.5
    EXPECT_EQ(push(1, 1.0, 2'000), 0);             // fills 2 to 3.5, and 4.5 to 5
    EXPECT_EQ(push(1, 1.0, 8'000), 0);             // fills 8 to 9.5 and 10.5 to 11
    EXPECT_EQ(tick_at(60'001), 0);
    // 0.5 to 1.5, 2 to 5, 6.5 to 7.5, 8 to 11: eight seconds.
    EXPECT_EQ(rows("percent_valid"), "60|13.3333333333333");
}

TEST_F(validity, of_an_interval_without_readings_is_a_blank_row)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    EXPECT_EQ(tick_at(240'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"),
              "60|33.3333333333333|1.0\n120|0.0|NULL\n180|0.0|NULL\n240|0.0|NULL");
}
