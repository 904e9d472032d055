// What the recorder makes of its clock.

#include <gtest/gtest.h>

#include <ctime>

#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

class clock_steps : public recorder_fixture {
protected:
    // Moves the clock on the wall alone.
    void step(int64_t by) { _clock._wall += by; }

    // A reading of now, as the clock on the wall says.
    int push_now(double value) { return _recorder->push(_params.at(0), value, _clock._wall); }

    int tick_after(int64_t ms)
    {
        _clock.pass(ms);
        return _recorder->tick();
    }
};

class untrusted_clock : public clock_steps {
protected:
    void SetUp() override
    {
        _clock._trusted = false;
        _clock._wall = 1'000;  // just after the start of all time
    }
};

using system_clock_of_recorder = recorder_fixture;

}  // namespace

TEST_F(clock_steps, forward_are_a_gap)
{
    open();
    attach({gauge("u")});
    _clock.pass(29'999);
    EXPECT_EQ(push_now(5.0), 0);
    step(120'000);
    EXPECT_EQ(tick_after(1), 0);
    EXPECT_EQ(told(), "clock: the clock has stepped by 120000 ms\n");
    EXPECT_EQ(push_now(7.0), 0);
    EXPECT_EQ(tick_after(30'001), 0);
    // The first one has held its 20 s, the other one from 30.001 s on.
    EXPECT_EQ(rows("percent_valid, param_1_avg"),
              "60|33.3333333333333|5.0\n120|0.0|NULL\n180|33.3333333333333|7.0");
    EXPECT_EQ(_recorder->stats()._clock_steps, 1U);
}

TEST_F(clock_steps, back_make_what_is_closed_late)
{
    open();
    attach({gauge("u")});
    _clock.pass(119'999);
    EXPECT_EQ(push_now(5.0), 0);
    EXPECT_EQ(tick_after(10'001), 0);  // 130.001 s
    step(-100'001);
    EXPECT_EQ(tick_after(0), 0);
    EXPECT_EQ(told(), "clock: the clock has stepped by -100001 ms\n");
    EXPECT_EQ(push_now(6.0), NOTICE_LATE);  // 30 s
    EXPECT_EQ(tick_after(90'000), 0);       // 120 s
    EXPECT_EQ(push_now(6.0), NOTICE_DUPLICATE);
    EXPECT_EQ(tick_after(30'000), 0);
    EXPECT_EQ(push_now(7.0), 0);
    EXPECT_EQ(tick_after(30'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"),
              "60|0.0|NULL\n120|0.0|5.0\n180|66.6666666666667|6.0");
}

TEST_F(clock_steps, of_less_than_a_second_are_followed_without_a_word)
{
    open();
    step(999);
    EXPECT_EQ(tick_after(10), 0);
    step(-999);
    EXPECT_EQ(tick_after(10), 0);
    EXPECT_EQ(told(), "");
    EXPECT_EQ(_recorder->stats()._clock_steps, 0U);
}

TEST_F(clock_steps, too_long_ones_are_not_believed_until_they_have_lasted)
{
    _options._max_ahead_ms = 100'000;
    _options._believe_after_ms = 60'000;
    open();
    attach({gauge("u")});
    step(3'600'000);
    EXPECT_EQ(tick_after(29'999), 0);  // 30 s
    EXPECT_EQ(told(), "clock: a step of the clock by 3600000 ms is not believed yet\n");
    EXPECT_EQ(push_now(5.0), 0);  // of the time that is believed
    EXPECT_EQ(_recorder->push(_params[0], 6.0), NOTICE_DUPLICATE);
    EXPECT_EQ(tick_after(59'999), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"), "60|33.3333333333333|5.0");
    EXPECT_EQ(told(), "duplicate: 'u': a second reading of the moment 1800000030000\n");
    EXPECT_EQ(tick_after(1), 0);  // a minute of doubt
    EXPECT_EQ(told(), "clock: the clock has stepped by 3600000 ms\n");
    EXPECT_EQ(push_now(7.0), 0);
    EXPECT_EQ(tick_after(60'000), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg").substr(0, 36),
              "60|33.3333333333333|5.0\n120|0.0|NULL");
    EXPECT_EQ(::rows(_file, "SELECT time, param_1_avg FROM trends_1_1 WHERE param_1_avg = 7.0"),
              "1800003720|7.0");
}

TEST_F(clock_steps, that_are_taken_back_in_time_leave_no_trace)
{
    _options._max_ahead_ms = 100'000;
    open();
    attach({gauge("u")});
    step(3'600'000);
    EXPECT_EQ(tick_after(9'999), 0);
    EXPECT_EQ(push_now(5.0), 0);
    step(-3'600'000);
    EXPECT_EQ(tick_after(10'000), 0);
    EXPECT_EQ(push_now(7.0), 0);
    EXPECT_EQ(tick_after(40'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"), "60|50.0|6.33333333333333");
    EXPECT_EQ(told(), "clock: a step of the clock by 3600000 ms is not believed yet\n");
}

TEST_F(clock_steps, begin_a_doubt_anew_with_every_further_one)
{
    _options._max_ahead_ms = 100'000;
    _options._believe_after_ms = 60'000;
    open();
    step(3'600'000);
    EXPECT_EQ(tick_after(1'000), 0);
    EXPECT_EQ(tick_after(59'000), 0);
    step(1'000);
    EXPECT_EQ(tick_after(1'000), 0);
    step(500);  // no step, as clocks drift
    EXPECT_EQ(tick_after(59'999), 0);
    EXPECT_EQ(told(),
              "clock: a step of the clock by 3600000 ms is not believed yet\n"
              "clock: a step of the clock by 3601000 ms is not believed yet\n");
    EXPECT_EQ(tick_after(1), 0);
    EXPECT_EQ(told(), "clock: the clock has stepped by 3601500 ms\n");
}

TEST_F(clock_steps, of_a_clock_that_is_no_longer_trusted_are_not_followed)
{
    open();
    attach({gauge("u")});
    _clock._trusted = false;
    step(-500'000);
    EXPECT_EQ(tick_after(29'999), 0);
    EXPECT_EQ(push_now(5.0), 0);
    EXPECT_EQ(tick_after(30'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"), "60|33.3333333333333|5.0");
    EXPECT_EQ(told(), "");
}

TEST_F(clock_steps, from_a_row_of_the_future_make_everything_late)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 5.0, 90'000), 0);
    EXPECT_EQ(tick_at(120'001), 0);
    _recorder->close();
    _clock._wall = START + 30'000;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 6.0, 30'000), NOTICE_LATE);
    EXPECT_EQ(push(0, 6.0, 120'000), NOTICE_LATE);
    EXPECT_EQ(push(0, 6.0, 130'000), 0);
    EXPECT_EQ(tick_at(180'001), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|NULL\n120|5.0\n180|6.0");
}

TEST_F(untrusted_clock, has_its_intervals_stamped_when_it_is_trusted)
{
    open();
    attach({gauge("u")});
    _clock.pass(29'000);  // 30 s of the clock that starts with the machine
    EXPECT_EQ(push_now(5.0), 0);
    EXPECT_EQ(tick_after(50'000), 0);  // 80 s: the first interval has ended
    EXPECT_EQ(push_now(7.0), 0);
    EXPECT_EQ(rows("*"), "");
    EXPECT_EQ(_recorder->flush(), NOTICE_CLOCK);
    EXPECT_EQ(told(), "clock: nothing is committed before the clock is trusted\n");
    EXPECT_EQ(_recorder->stats()._pending_rows, 1U);

    // It is 12 s past the start then, which makes 80 s the end of the third minute and 12 s: what
    // had begun at 0 and 60 is stamped a minute later, and the rest of the step, -8 s, goes back.
    _clock._wall = START + 132'000;
    _clock._trusted = true;
    EXPECT_EQ(tick_after(0), 0);
    EXPECT_EQ(told(), "clock: the clock is trusted: 1 rows are stamped 1800000060 s later\n");
    EXPECT_EQ(rows("percent_valid, param_1_avg"), "60|0.0|NULL\n120|33.3333333333333|5.0");
    EXPECT_EQ(push_now(8.0), NOTICE_LATE);  // of 132 s, where 140 have been
    EXPECT_EQ(tick_after(48'001), 0);
    // From 140 to 160 s.
    EXPECT_EQ(rows("percent_valid, param_1_avg"),
              "60|0.0|NULL\n120|33.3333333333333|5.0\n180|33.3333333333333|7.0");
}

TEST_F(untrusted_clock, that_was_right_all_the_time_changes_nothing)
{
    _clock._wall = START + 1;
    open();
    attach({gauge("u"), counter("n")});
    EXPECT_EQ(push(0, 5.0, 30'000), 0);
    EXPECT_EQ(push(1, 5.0, 30'000), 0);
    EXPECT_EQ(tick_at(40'000), 0);
    _clock._trusted = true;
    EXPECT_EQ(tick_at(50'000), 0);
    EXPECT_EQ(push(1, 6.0, 60'000), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg, param_2_sum"), "60|50.0|5.0|1.0");
}

TEST_F(untrusted_clock, that_was_ahead_stamps_rows_earlier)
{
    _clock._wall = START + 10 * 60'000 + 1;
    open();
    attach({gauge("u")});
    _clock.pass(29'999);
    EXPECT_EQ(push_now(5.0), 0);
    EXPECT_EQ(tick_after(30'001), 0);  // a minute has passed
    _clock._wall = START + 60'001;
    _clock._trusted = true;
    EXPECT_EQ(tick_after(0), 0);
    EXPECT_EQ(told(), "clock: the clock is trusted: 1 rows are stamped -600 s later\n");
    EXPECT_EQ(rows("param_1_avg"), "60|5.0");
}

TEST_F(untrusted_clock, that_was_behind_loses_nothing_where_nothing_was_read)
{
    _clock._trusted = true;
    _clock._wall = START + 1;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 5.0, 230'000), 0);
    EXPECT_EQ(tick_at(240'001), 0);
    _recorder->close();
    _clock._trusted = false;
    _clock._wall = 1'000;
    open();
    attach({gauge("u")});
    _clock._wall = START + 122'000;
    _clock._trusted = true;
    told();
    EXPECT_EQ(tick_after(0), 0);
    EXPECT_EQ(told(), "clock: the clock is trusted: 0 rows are stamped 1800000120 s later\n");
}

TEST_F(untrusted_clock, counts_what_does_not_fit)
{
    _options._max_bytes = 2 * 32;
    open();
    attach({gauge("u")});
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(push_now(i), 0);
        EXPECT_EQ(tick_after(60'000), 0);
    }
    EXPECT_EQ(told(),
              "overflow: 'pump': the row of 60 is given up\n"
              "overflow: 'pump': the row of 120 is given up\n");
    EXPECT_EQ(count(NOTICE_OVERFLOW), 2);
}

TEST_F(untrusted_clock, goes_on_behind_what_is_stored)
{
    _clock._trusted = true;
    _clock._wall = START + 1;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 5.0, 230'000), 0);
    EXPECT_EQ(tick_at(240'001), 0);
    _recorder->close();

    _clock._trusted = false;
    _clock._wall = 1'000;
    open();
    attach({gauge("u")});
    _clock.pass(1'000);
    EXPECT_EQ(push_now(6.0), 0);
    EXPECT_EQ(tick_after(60'000), 0);  // 62 s
    EXPECT_EQ(push_now(7.0), 0);
    told();
    // In the truth it is earlier than the newest row.
    _clock._wall = START + 122'000;
    _clock._trusted = true;
    EXPECT_EQ(tick_after(0), 0);
    EXPECT_EQ(told(),
              "clock: the clock is trusted: 1 rows are stamped 1800000060 s later\n"
              "late: 'pump': 1 readings of an interval that is stored\n"
              "rejected: 'pump': the row of 1800000120 is older than that of 1800000240\n");
    EXPECT_EQ(count(NOTICE_REJECTED), 1);
    EXPECT_EQ(push(0, 8.0, 200'000), NOTICE_LATE);
    EXPECT_EQ(push(0, 8.0, 250'000), 0);
    EXPECT_EQ(tick_at(300'001), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|NULL\n120|NULL\n180|NULL\n240|5.0\n300|8.0");
}

TEST_F(untrusted_clock, stamps_ready_rows_as_well)
{
    open();
    CRecorderDevice meter;
    meter._path = "meter";
    meter._ready = true;
    meter._params = {gauge("u")};
    CRecorderHandles handles;
    ASSERT_EQ(_recorder->attach(meter, handles), 0);
    CSnapshot snapshot;
    snapshot._samples = {CSample()};
    snapshot._samples[0]._avg = 5.0;
    snapshot._time = 60;
    EXPECT_EQ(_recorder->record(handles._device, snapshot), 0);
    _clock._wall = START + 70'000;
    _clock._trusted = true;
    EXPECT_EQ(tick_after(0), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|NULL\n120|5.0");  // stamped by 1800000060 s
    snapshot._time = START / 1000 + 120;
    EXPECT_EQ(_recorder->record(handles._device, snapshot), NOTICE_DUPLICATE);
    snapshot._time += 60;
    EXPECT_EQ(_recorder->record(handles._device, snapshot), 0);
}

TEST_F(system_clock_of_recorder, is_the_one_without_another)
{
    _options._clock = nullptr;
    open();
    attach({gauge("u")});
    EXPECT_EQ(_recorder->push(_params[0], 5.0), 0);
    EXPECT_EQ(_recorder->push(_params[0], 5.0, int64_t{std::time(nullptr)} * 1000 + 3'000), 0);
    CSnapshot snapshot;
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), 0);
    EXPECT_LE(snapshot._time - std::time(nullptr), 63);  // the reading ahead may open the next one
    EXPECT_EQ(_recorder->tick(), 0);
    EXPECT_EQ(told(), "");
}
