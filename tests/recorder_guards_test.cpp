// What the recorder refuses, and what it tells.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

using pushing = recorder_fixture;

using telling = recorder_fixture;
using misuse = recorder_fixture;
using open_interval = recorder_fixture;

// A device that is fed with snapshots.
class ready : public recorder_fixture {
protected:
    void attach_ready(CRecorderParam param)
    {
        CRecorderDevice device;
        device._path = "meter";
        device._ready = true;
        device._params = {param};
        CRecorderHandles handles;
        ASSERT_EQ(_recorder->attach(device, handles), 0) << told();
        _device = handles._device;
        _params = handles._params;
    }

    int take(int64_t time, double value, double percent = 100.0)
    {
        CSnapshot snapshot;
        snapshot._time = static_cast<time_t>(START / 1000 + time);
        snapshot._percent_valid = percent;
        snapshot._samples.resize(1);
        snapshot._samples[0]._avg = value;
        return _recorder->record(_device, snapshot);
    }
};

using record_ready = ready;

}  // namespace

TEST_F(pushing, refuses_what_is_late)
{
    open();
    attach({gauge("u"), gauge("i")});
    EXPECT_EQ(_recorder->push(_params[0], 1.0, START), NOTICE_LATE);
    EXPECT_EQ(_recorder->push(_params[0], 1.0, -5), NOTICE_LATE);
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    EXPECT_EQ(push(0, 1.0, 29'999), NOTICE_LATE);  // before its last one
    EXPECT_EQ(push(1, 1.0, 29'999), 0);            // of another parameter
    EXPECT_EQ(push(0, 1.0, 60'001), 0);            // closes the first minute
    EXPECT_EQ(push(1, 1.0, 60'000), NOTICE_LATE);
    EXPECT_EQ(told(),
              "late: 'u': the moment 1800000000000 is 0 ms late\n"
              "late: 'u': the moment -1 is 1800000000001 ms late\n"
              "late: 'u': the moment 1800000029999 is 1 ms late\n"
              "late: 'i': the moment 1800000060000 is 0 ms late\n");
    EXPECT_EQ(count(NOTICE_LATE), 4);
    EXPECT_EQ(_recorder->stats()._readings, 3U);
}

TEST_F(pushing, refuses_what_is_of_the_future)
{
    _options._max_ahead_ms = 5'000;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 5'002), NOTICE_FUTURE);
    EXPECT_EQ(push(0, 1.0, INT64_MAX - START), NOTICE_FUTURE);
    EXPECT_EQ(told(),
              "future: 'u': the moment 1800000005002 is 5001 ms ahead\n"
              "future: 'u': the moment 9223372036854775807 is 9223370236854775806 ms ahead\n");
    EXPECT_EQ(push(0, 1.0, 5'001), 0);
}

TEST_F(pushing, refuses_a_second_reading_of_a_moment)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    EXPECT_EQ(push(0, 2.0, 30'000), NOTICE_DUPLICATE);
    EXPECT_EQ(told(), "duplicate: 'u': a second reading of the moment 1800000030000\n");
}

TEST_F(pushing, refuses_what_is_no_number_or_out_of_limits)
{
    open();
    CRecorderParam u = gauge("u");
    u._lowest = 0.0;
    u._highest = 400.0;
    attach({u});
    EXPECT_EQ(push(0, NAN, 30'000), NOTICE_NOT_FINITE);
    EXPECT_EQ(push(0, INFINITY, 30'000), NOTICE_NOT_FINITE);
    EXPECT_EQ(push(0, -0.5, 30'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(push(0, 400.5, 30'000), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(told(),
              "not_finite: 'u': a reading that is no number\n"
              "not_finite: 'u': a reading that is no number\n"
              "out_of_limits: 'u': -0.5 is not within 0 and 400\n"
              "out_of_limits: 'u': 400.5 is not within 0 and 400\n");
    EXPECT_EQ(push(0, 0.0, 30'000), 0);
    EXPECT_EQ(push(0, 400.0, 30'001), 0);
}

TEST_F(pushing, of_a_handle_that_there_is_not_is_unknown)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(_recorder->push(1, 1.0, START + 1), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->push(7, 1.0), NOTICE_UNKNOWN);
    EXPECT_EQ(told(),
              "unknown: no parameter has the handle 1\n"
              "unknown: no parameter has the handle 7\n");
}

TEST_F(pushing, without_a_moment_is_of_now)
{
    open();
    attach({gauge("u")});
    _clock.pass(29'999);
    EXPECT_EQ(_recorder->push(_params[0], 5.0), 0);
    EXPECT_EQ(_recorder->push(_params[0], 5.0), NOTICE_DUPLICATE);
    _clock.pass(10'000);
    EXPECT_EQ(_recorder->push(_params[0], 7.0), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"), "60|50.0|6.33333333333333");
}

TEST_F(record_ready, stores_the_rows_as_they_are)
{
    open();
    attach_ready(gauge("u"));
    EXPECT_EQ(take(60, 5.0), 0);
    EXPECT_EQ(take(240, 7.0, 50.0), 0);
    EXPECT_EQ(tick_at(300'001), 0);
    // Filled up to the last row only: that of the fifth minute may still come.
    EXPECT_EQ(rows("percent_valid, param_1_avg"),
              "60|100.0|5.0\n120|0.0|NULL\n180|0.0|NULL\n240|50.0|7.0");
    EXPECT_EQ(take(300, 8.0), 0);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|5.0\n120|NULL\n180|NULL\n240|7.0\n300|8.0");
    EXPECT_EQ(_recorder->stats()._snapshots, 3U);
}

TEST_F(record_ready, refuses_rows_behind_the_same_guards)
{
    _options._max_ahead_ms = 300'000;
    open();
    CRecorderParam u = gauge("u");
    u._highest = 400.0;
    attach_ready(u);
    EXPECT_EQ(take(60, 5.0), 0);
    EXPECT_EQ(take(60, 5.0), NOTICE_DUPLICATE);
    EXPECT_EQ(take(0, 5.0), NOTICE_LATE);
    EXPECT_EQ(take(61, 5.0), NOTICE_OFF_GRID);
    EXPECT_EQ(take(-START / 1000, 5.0), NOTICE_OFF_GRID);
    EXPECT_EQ(take(360, 5.0), NOTICE_FUTURE);
    EXPECT_EQ(take(120, INFINITY), NOTICE_NOT_FINITE);
    EXPECT_EQ(take(120, 5.0, NAN), NOTICE_NOT_FINITE);
    EXPECT_EQ(take(120, 5.0, 100.5), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(take(120, 5.0, -0.5), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(take(120, 400.5), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(told(),
              "duplicate: 'meter': a second row of 1800000060\n"
              "late: 'meter': the row of 1800000000 is older than that of 1800000060\n"
              "off_grid: 'meter': no interval ends at 1800000061\n"
              "off_grid: 'meter': no interval ends at 0\n"
              "future: 'meter': the time 1800000360 is ahead\n"
              "not_finite: 'meter': a value of 'u' that is infinite\n"
              "not_finite: 'meter': a percent valid that is no number\n"
              "out_of_limits: 'meter': 100.5 percent valid\n"
              "out_of_limits: 'meter': -0.5 percent valid\n"
              "out_of_limits: 'u': 400.5 is not within -inf and 400\n");
    EXPECT_EQ(take(120, NAN), 0);  // an absent value
}

TEST_F(record_ready, refuses_what_is_too_low_as_well)
{
    open();
    CRecorderParam u = gauge("u");
    u._lowest = 5.0;
    attach_ready(u);
    EXPECT_EQ(take(60, 4.5), NOTICE_OUT_OF_LIMITS);
    EXPECT_EQ(told(), "out_of_limits: 'u': 4.5 is not within 5 and inf\n");
    EXPECT_EQ(take(60, 5.0), 0);
}

TEST_F(record_ready, limits_no_sum_and_nothing_that_is_not_kept)
{
    open();
    CRecorderParam energy = counter("energy", "max sum");
    energy._highest = 10.0;
    attach_ready(energy);
    CSnapshot snapshot;
    snapshot._time = START / 1000 + 60;
    snapshot._samples.resize(1);
    snapshot._samples[0]._min = INFINITY;
    snapshot._samples[0]._sum = 500.0;
    snapshot._samples[0]._max = 10.0;
    EXPECT_EQ(_recorder->record(_device, snapshot), 0);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_max, param_1_sum"), "60|10.0|500.0");
}

TEST_F(record_ready, wants_a_sample_for_each_parameter)
{
    open();
    attach_ready(gauge("u"));
    EXPECT_EQ(_recorder->record(_device, CSnapshot()), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: 'meter': a snapshot of 0 parameters, not 1\n");
}

TEST_F(record_ready, takes_no_readings_nor_the_other_way_round)
{
    open();
    attach_ready(gauge("u"));
    EXPECT_EQ(push(0, 1.0, 30'000), NOTICE_UNKNOWN);
    attach({gauge("v")});
    EXPECT_EQ(take(60, 1.0), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->record(2, CSnapshot()), NOTICE_UNKNOWN);
    EXPECT_EQ(told(),
              "unknown: 'u': its device takes snapshots\n"
              "unknown: 'pump': the device takes readings\n"
              "unknown: no device has the handle 2\n");
}

TEST_F(telling, goes_to_standard_error_without_a_callback)
{
    _options._tell = nullptr;
    open();
    EXPECT_REPORTS(_recorder->push(0, 1.0, 0), NOTICE_UNKNOWN,
                   "toolkit::trend::CRecorder: unknown: no parameter has the handle 0\n");
}

TEST_F(telling, survives_a_callback_that_throws)
{
    _options._tell = [](notice_t, const char*) { throw std::runtime_error("no"); };
    open();
    EXPECT_EQ(_recorder->push(0, 1.0, 0), NOTICE_UNKNOWN);
    EXPECT_EQ(count(NOTICE_UNKNOWN), 1);
}

TEST_F(telling, counts_what_a_callback_does_wrong_without_telling_it_again)
{
    int calls = 0;
    _options._tell = [&](notice_t, const char*) {
        ++calls;
        EXPECT_EQ(_recorder->push(99, 1.0, 0), NOTICE_UNKNOWN);
    };
    open();
    EXPECT_EQ(_recorder->push(0, 1.0, 0), NOTICE_UNKNOWN);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(count(NOTICE_UNKNOWN), 2);
}

TEST_F(telling, must_not_use_the_recorder)
{
    int calls = 0;
    CRecorderHandles handles;
    _options._tell = [&](notice_t, const char*) {
        ++calls;
        EXPECT_EQ(push(0, 1.0, 30'000), NOTICE_MISUSE);
        EXPECT_EQ(_recorder->record(_device, CSnapshot()), NOTICE_MISUSE);
        EXPECT_EQ(_recorder->tick(), NOTICE_MISUSE);
        EXPECT_EQ(_recorder->close(), NOTICE_MISUSE);
        EXPECT_EQ(_recorder->attach(CRecorderDevice(), handles), NOTICE_MISUSE);
    };
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, NAN, 30'000), NOTICE_NOT_FINITE);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(count(NOTICE_MISUSE), 5);
    EXPECT_TRUE(_recorder->is_open());
}

TEST(notice_name, is_what_programs_read)
{
    const char* names[] = {"none",          "late",       "future",    "duplicate", "not_finite",
                           "out_of_limits", "off_grid",   "unknown",   "overflow",  "rejected",
                           "gap",           "unfinished", "abandoned", "busy",      "full",
                           "failed",        "misuse",     "clock",     "rebuild",   "merged"};
    for (int i = 0; i < NOTICE_LISTEND; ++i)
        EXPECT_STREQ(notice_name(static_cast<notice_t>(i)), names[i]);
    EXPECT_STOPS(notice_name(NOTICE_LISTEND), "notice<NOTICE_LISTEND");
    EXPECT_STOPS(notice_name(static_cast<notice_t>(-1)), "notice>=NOTICE_NONE");
}

TEST_F(misuse, of_a_recorder_that_was_never_open_is_a_result)
{
    const std::string line = "toolkit::trend::CRecorder: misuse: it is not open\n";
    CRecorderHandles handles;
    CSnapshot snapshot;
    EXPECT_REPORTS(_recorder->attach(CRecorderDevice(), handles), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->push(0, 1.0, 0), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->push(0, 1.0), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->record(0, snapshot), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->tick(), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->flush(), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->close(), NOTICE_MISUSE, line);
    EXPECT_REPORTS(_recorder->get_open_interval(0, snapshot), NOTICE_MISUSE, line);
    EXPECT_FALSE(_recorder->is_open());
    EXPECT_EQ(_recorder->log(), nullptr);
    EXPECT_EQ(_recorder->stats()._readings, 0U);
}

TEST_F(misuse, after_close_is_a_result)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(_recorder->close(), 0);
    CRecorderHandles handles;
    CSnapshot snapshot;
    EXPECT_EQ(push(0, 1.0, 30'000), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->push(_params[0], 1.0), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->record(_device, snapshot), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->attach(CRecorderDevice(), handles), NOTICE_MISUSE);
    EXPECT_EQ(_recorder->tick(), NOTICE_MISUSE);
    EXPECT_EQ(_recorder->flush(), NOTICE_MISUSE);
    EXPECT_EQ(_recorder->close(), NOTICE_MISUSE);
    EXPECT_EQ(_recorder->log(), nullptr);
    EXPECT_EQ(_recorder->stats()._notices[NOTICE_UNKNOWN], 4U);
}

TEST_F(misuse, across_a_fork_is_noticed)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    const pid_t child = fork();
    if (child == 0) {
        CRecorderHandles handles;
        const bool refused = _recorder->tick() == NOTICE_MISUSE &&
                             _recorder->flush() == NOTICE_MISUSE &&
                             _recorder->close() == NOTICE_MISUSE &&
                             _recorder->open("other.db", _options) == NOTICE_MISUSE &&
                             _recorder->attach(CRecorderDevice(), handles) == NOTICE_MISUSE;
        const bool said =
            told().find("misuse: it was opened by another process, before fork()\n") == 0;
        _recorder.reset();  // which leaves the parent's file alone, and what belongs to it unfreed
#ifdef TREND_COVERAGE
        std::exit(refused && said ? 0 : 1);  // writes down what was reached
#else
        _exit(refused && said ? 0 : 1);
#endif
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

TEST_F(open_interval, is_read_as_of_now)
{
    open();
    attach({gauge("u", "min max avg actual"), total("n")});
    CSnapshot snapshot;
    EXPECT_EQ(push(0, 4.0, 10'000), 0);
    EXPECT_EQ(push(0, 8.0, 20'000), 0);
    EXPECT_EQ(push(1, 3.0, 20'000), 0);
    _clock.pass(29'999);
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), 0);
    EXPECT_EQ(snapshot._time, START / 1000 + 60);
    EXPECT_EQ(snapshot._period, 1U);
    EXPECT_DOUBLE_EQ(snapshot._percent_valid, 100.0 / 3.0);
    ASSERT_EQ(snapshot._samples.size(), 2U);
    EXPECT_EQ(*snapshot._samples[0]._min, 4.0);
    EXPECT_EQ(*snapshot._samples[0]._max, 8.0);
    EXPECT_EQ(*snapshot._samples[0]._avg, 6.0);
    EXPECT_EQ(*snapshot._samples[0]._actual, 8.0);
    EXPECT_EQ(*snapshot._samples[1]._sum, 3.0);

    // Looking changes nothing.
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg, param_2_sum"), "60|50.0|6.66666666666667|3.0");
}

TEST_F(open_interval, of_totals_alone_is_not_valid_before_an_amount_came_in)
{
    open();
    attach({total("t")});
    CSnapshot snapshot;
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), 0);
    EXPECT_EQ(snapshot._percent_valid, 0.0);
    EXPECT_FALSE(snapshot._samples.at(0)._sum);
    EXPECT_EQ(push(0, 2.0, 10'000), 0);
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), 0);
    EXPECT_EQ(snapshot._percent_valid, 100.0);
    EXPECT_EQ(*snapshot._samples[0]._sum, 2.0);
}

TEST_F(open_interval, is_unknown_without_a_device)
{
    open();
    CSnapshot snapshot;
    EXPECT_EQ(_recorder->get_open_interval(3, snapshot), NOTICE_UNKNOWN);
    EXPECT_EQ(told(), "unknown: no device has the handle 3\n");
}

TEST_F(record_ready, refuses_a_row_that_lies_before_all_time)
{
    open();
    attach_ready(gauge("u"));
    // The clock on the wall is not believed: what it calls the second hour is the very beginning.
    _clock._wall += 2 * _options._max_ahead_ms;
    EXPECT_EQ(_recorder->tick(), NOTICE_NONE);
    told();
    EXPECT_EQ(take(7'200 - START / 1000, 1.0), NOTICE_LATE);
    EXPECT_EQ(told(), "late: 'meter': the row of 0 is older than that of -1\n");
}

TEST_F(record_ready, shows_the_last_row_taken_as_the_open_interval)
{
    open();
    attach_ready(gauge("u"));
    CSnapshot snapshot;
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), 0);
    EXPECT_EQ(snapshot._time, -1);
    EXPECT_EQ(take(60, 5.0, 40.0), 0);
    EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), 0);
    EXPECT_EQ(snapshot._time, START / 1000 + 60);
    EXPECT_EQ(snapshot._percent_valid, 40.0);
    EXPECT_EQ(*snapshot._samples[0]._avg, 5.0);
}
