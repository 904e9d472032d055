// What comes late, and is merged into rows that are stored.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "faults.h"
#include "log_fixture.h"
#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

constexpr int64_t MINUTE = 60'000;

class late_readings : public recorder_fixture {
protected:
    late_readings()
    {
        _options._late = LATE_MERGE;
        _options._merge_every_ms = MINUTE;
    }

    // A device with a gauge that has said 1.0 in the first minute, and nothing until the n-th.
    void fall_silent(int64_t minute)
    {
        open();
        attach({gauge("u", "min max avg actual")});
        ASSERT_EQ(push(0, 1.0, 30'000), 0);
        ASSERT_EQ(tick_at(minute * MINUTE + 1), 0);
    }

    // The rows that are not blank.
    std::string values(const std::string& columns, unsigned long period = 1, int64_t device = 1)
    {
        return ::rows(_file, "SELECT time - " + std::to_string(START / 1000) + ", " + columns +
                                 " FROM trends_" + std::to_string(device) + "_" +
                                 std::to_string(period) + " WHERE percent_valid > 0 ORDER BY time");
    }

    void attach_ready(const std::string& path = "meter")
    {
        CRecorderDevice device;
        device._path = path;
        device._params = {gauge("u")};
        device._ready = true;
        CRecorderHandles handles;
        ASSERT_EQ(_recorder->attach(device, handles), 0) << told();
        _device = handles._device;
    }

    // The row that ends with the n-th minute.
    int record(int64_t minute, double value)
    {
        CSnapshot snapshot;
        snapshot._time = static_cast<time_t>((START + minute * MINUTE) / 1000);
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        snapshot._samples[0]._avg = value;
        return _recorder->record(_device, snapshot);
    }
};

using late_rows = late_readings;
using merging = late_readings;

}  // namespace

TEST_F(late_readings, take_the_place_of_blank_rows)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 7.0, 5 * MINUTE + 50'000), 0);
    EXPECT_EQ(_recorder->stats()._late_rows, 1U);
    EXPECT_EQ(_recorder->stats()._late_bytes, 56U);
    EXPECT_EQ(tick_at(21 * MINUTE), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0");
    EXPECT_EQ(tick_at(21 * MINUTE + 1), 0);
    // The last one is held for ten seconds, until its interval ends.
    EXPECT_EQ(values("percent_valid, param_1_min, param_1_max, param_1_avg, param_1_actual"),
              "60|33.3333333333333|1.0|1.0|1.0|1.0\n300|33.3333333333333|5.0|5.0|5.0|5.0\n"
              "360|16.6666666666667|7.0|7.0|7.0|7.0");
    // (20 * 1 + 20 * 5 + 10 * 7) / 50, and 50 of 900 seconds
    EXPECT_EQ(values("percent_valid, param_1_avg, param_1_max", 15),
              "900|5.55555555555556|3.8|7.0");
    EXPECT_EQ(told(), "merged: 'pump': 2 late rows\n");
    EXPECT_EQ(_recorder->stats()._merged, 2U);
    EXPECT_EQ(_recorder->stats()._late_rows, 0U);
    EXPECT_EQ(_recorder->stats()._late_bytes, 0U);
    EXPECT_EQ(_recorder->stats()._rows, 1U);
    EXPECT_EQ(::rows(_file, "SELECT count(*), count(DISTINCT time) FROM trends_1_1"), "21|21");
}

TEST_F(late_readings, are_refused_unless_they_are_to_be_merged)
{
    _options._late = LATE_REFUSE;
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), NOTICE_LATE);
    EXPECT_EQ(told(), "late: 'u': the moment 1800000270000 is 930000 ms late\n");
    EXPECT_EQ(_recorder->stats()._late_bytes, 0U);
}

TEST_F(late_readings, after_a_step_back_of_the_clock_fill_what_is_blank_and_no_more)
{
    fall_silent(3);
    EXPECT_EQ(push(0, 3.0, 3 * MINUTE + 30'000), 0);
    EXPECT_EQ(tick_at(10 * MINUTE + 1), 0);
    _clock._wall -= 8 * MINUTE;  // back to the second minute
    EXPECT_EQ(_recorder->tick(), 0);
    told();
    for (int64_t minute = 3; minute <= 12; ++minute) {
        EXPECT_EQ(push(0, 10.0 * static_cast<double>(minute), minute * MINUTE - 30'000), 0);
        EXPECT_EQ(tick_at(minute * MINUTE + 1), 0) << minute;
    }
    EXPECT_EQ(tick_at(13 * MINUTE + 1), 0);
    EXPECT_EQ(values("param_1_avg"),
              "60|1.0\n180|30.0\n240|3.0\n300|50.0\n360|60.0\n420|70.0\n480|80.0\n540|90.0\n"
              "600|100.0\n660|110.0\n720|120.0");
    EXPECT_EQ(_recorder->stats()._merged, 7U);
    EXPECT_EQ(count(NOTICE_LATE), 1);
    EXPECT_NE(told().find("late: 'pump': 1 rows meet others with values, 0 are too old\n"),
              std::string::npos);
}

TEST_F(late_readings, in_descending_order_begin_anew_interval_by_interval)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 8 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 4.0, 5 * MINUTE + 55'000), 0);  // its hold ends with its interval
    EXPECT_EQ(push(0, 3.0, 2 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 9.0, 5 * MINUTE + 30'000), 0);  // a second row of that interval
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n180|3.0\n360|4.0\n540|5.0");
    EXPECT_EQ(tick_at(21 * MINUTE + 1), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n180|3.0\n360|4.0\n540|5.0");
    EXPECT_EQ(count(NOTICE_LATE), 1);
}

TEST_F(late_readings, follow_on_each_other_as_others_do)
{
    open();
    attach({gauge("u"), counter("n", "actual sum"), total("t")});
    _recorder->push(_params[2], 1.0, START + 1);
    EXPECT_EQ(tick_at(20 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 5.0, 240'000 + 50'000), 0);
    EXPECT_EQ(push(0, 6.0, 240'000 + 50'000), NOTICE_DUPLICATE);
    EXPECT_EQ(push(0, 6.0, 240'000 + 40'000), NOTICE_LATE);
    EXPECT_EQ(push(0, 7.0, 240'000 + 65'000), 0);    // held into the sixth minute: 5 s of 5.0
    EXPECT_EQ(push(1, 100.0, 240'000 + 70'000), 0);  // a baseline
    EXPECT_EQ(push(1, 103.0, 240'000 + 130'000), 0);
    EXPECT_EQ(push(2, 2.0, 240'000 + 125'000), 0);
    EXPECT_EQ(push(2, 3.0, 240'000 + 124'000), 0);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(_recorder->stats()._late_rows, 0U);
    EXPECT_EQ(tick_at(21 * MINUTE + 1), 0);
    // In the sixth minute the gauge is known for 25 s: (5 * 5.0 + 20 * 7.0) / 25. What the counter
    // says of it comes when it is closed.
    EXPECT_EQ(values("percent_valid, param_1_avg, param_2_actual, param_2_sum, param_3_sum"),
              "300|16.6666666666667|5.0|NULL|NULL|NULL\n360|41.6666666666667|6.6|100.0|NULL|NULL\n"
              "420|16.6666666666667|NULL|103.0|3.0|5.0");
}

TEST_F(late_readings, before_the_clock_is_trusted_are_refused)
{
    _clock._trusted = false;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, -1), NOTICE_LATE);
    EXPECT_EQ(push(0, 1.0, -START), NOTICE_LATE);
}

TEST_F(late_readings, at_the_very_beginning_of_time_are_refused)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 1.0, -START), NOTICE_LATE);
    EXPECT_EQ(push(0, 1.0, -START - 5), NOTICE_LATE);
}

TEST_F(late_readings, of_the_interval_in_which_the_clock_turns_out_to_be_behind_are_not_lost)
{
    fall_silent(20);
    _recorder->close();
    _clock._trusted = false;
    _clock._wall = START + 4 * MINUTE + 1;
    open();
    attach({gauge("u", "min max avg actual")});
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(tick_at(5 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 6.0, 5 * MINUTE + 30'000), 0);
    _clock.pass(40'000);
    _clock._trusted = true;
    told();
    EXPECT_EQ(_recorder->tick(), 0);
    EXPECT_EQ(push(0, 7.0, 5 * MINUTE + 40'000), 0);
    EXPECT_EQ(tick_at(8 * MINUTE), 0);
    EXPECT_EQ(tick_at(9 * MINUTE), 0);
    EXPECT_EQ(values("param_1_min, param_1_max"), "60|1.0|1.0\n300|5.0|5.0\n360|6.0|7.0");
    EXPECT_EQ(told().find("rejected"), std::string::npos);
}

TEST_F(late_rows, of_snapshots_are_merged)
{
    open();
    attach_ready();
    EXPECT_EQ(tick_at(10 * MINUTE + 1), 0);
    EXPECT_EQ(record(1, 1.0), 0);
    EXPECT_EQ(record(10, 10.0), 0);
    EXPECT_EQ(record(5, 5.0), 0);
    EXPECT_EQ(record(3, 3.0), 0);
    EXPECT_EQ(record(5, 6.0), 0);
    EXPECT_EQ(record(1, 2.0), 0);
    EXPECT_EQ(record(10, 11.0), NOTICE_DUPLICATE);
    EXPECT_EQ(_recorder->stats()._late_rows, 4U);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n180|3.0\n300|5.0\n600|10.0");
    EXPECT_EQ(told(),
              "duplicate: 'meter': a second row of 1800000600\nmerged: 'meter': 2 late rows\n"
              "late: 'meter': 2 rows meet others with values, 0 are too old\n");
    EXPECT_EQ(count(NOTICE_LATE), 2);
    EXPECT_EQ(_recorder->stats()._merged, 2U);
    CSnapshot last;
    EXPECT_EQ(_recorder->get_open_interval(_device, last), 0);
    EXPECT_EQ(last._time, START / 1000 + 600);
}

TEST_F(late_rows, that_are_older_than_what_is_kept_are_counted)
{
    open();
    attach_ready();
    for (int64_t minute = 1; minute <= 150; ++minute) {
        EXPECT_EQ(tick_at(minute * MINUTE + 1), 0);
        EXPECT_EQ(record(minute, 1.0), 0);
    }
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(record(40, 9.0), 0);
    EXPECT_EQ(record(20, 9.0), 0);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(told(), "late: 'meter': 0 rows meet others with values, 2 are too old\n");
    EXPECT_EQ(count(NOTICE_LATE), 2);
}

TEST_F(late_rows, that_are_older_than_the_first_one_are_counted)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(tick_at(130 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 5.0, 65 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 7.0, 121 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 9.0, 130 * MINUTE + 30'000), 0);
    EXPECT_EQ(tick_at(131 * MINUTE + 1), 0);
    // The first row has come in time, and is seeded on the boundary at 120 minutes.
    EXPECT_EQ(values("param_1_avg"), "7320|7.0\n7860|9.0");
    EXPECT_EQ(::rows(_file, "SELECT min(time) - 1800000000 FROM trends_1_1"), "7260");
    EXPECT_EQ(count(NOTICE_LATE), 1);
}

TEST_F(late_rows, of_a_device_that_says_nothing_else_are_stored_in_their_order)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(tick_at(130 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 7.0, 67 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 5.0, 65 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 8.0, 67 * MINUTE + 30'000), 0);
    EXPECT_EQ(tick_at(131 * MINUTE + 1), 0);
    EXPECT_EQ(values("param_1_avg"), "3960|5.0\n4080|7.0");
    EXPECT_EQ(_recorder->stats()._newest_committed, START / 1000 + 4080);
    EXPECT_EQ(count(NOTICE_LATE), 1);
    EXPECT_EQ(tick_at(132 * MINUTE + 1), 0);
    EXPECT_EQ(rows("percent_valid", 15), "4500|4.44444444444444\n5400|0.0\n6300|0.0\n7200|0.0");
}

TEST_F(late_rows, that_have_no_room_are_given_up_oldest_first)
{
    _options._late_bytes = 3 * 32;
    open();
    attach_ready();
    EXPECT_EQ(tick_at(10 * MINUTE + 1), 0);
    EXPECT_EQ(record(1, 1.0), 0);
    EXPECT_EQ(record(10, 10.0), 0);
    for (int64_t minute = 2; minute <= 6; ++minute)
        EXPECT_EQ(record(minute, static_cast<double>(minute)), 0);
    EXPECT_EQ(told(),
              "overflow: 'meter': the late row of 1800000120 is given up\n"
              "overflow: 'meter': the late row of 1800000180 is given up\n");
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n240|4.0\n300|5.0\n360|6.0\n600|10.0");
}

TEST_F(late_rows, are_merged_in_parts_where_there_are_many)
{
    _options._periods = {{1, 2000}, {15, 200}, {60, 100}};
    open();
    attach_ready("one");
    const recorder_handle_t one = _device;
    attach_ready("two");
    EXPECT_EQ(tick_at(1300 * MINUTE + 1), 0);
    for (const recorder_handle_t device : {one, _device}) {
        std::swap(_device, const_cast<recorder_handle_t&>(device));
        EXPECT_EQ(record(1, 1.0), 0);
        EXPECT_EQ(record(1300, 1.0), 0);
    }
    for (int64_t minute = 2; minute < 1300; ++minute) {
        _device = one;
        EXPECT_EQ(record(minute, 1.0), 0);
        _device = 1;
        EXPECT_EQ(record(minute, 1.0), 0);
    }
    EXPECT_EQ(_recorder->flush(), 0);
    for (const char* table : {"trends_1_1", "trends_2_1"})
        EXPECT_EQ(::rows(_file, std::string("SELECT count(*), sum(param_1_avg) FROM ") + table),
                  "1300|1300.0");
    EXPECT_EQ(::rows(_file, "SELECT count(*), min(percent_valid) FROM trends_2_15"), "86|100.0");
    EXPECT_EQ(_recorder->stats()._merged, 2U * 1298U);
}

TEST_F(late_rows, are_those_too_that_another_writer_has_overtaken)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    EXPECT_EQ(tick_at(MINUTE + 1), 0);
    EXPECT_EQ(push(0, 2.0, 90'000), 0);
    EXPECT_EQ(push(0, 4.0, 210'000), 0);
    run_sql(_file, "INSERT INTO trends_1_1 (time, percent_valid) VALUES (1800000180, 0.0)");
    EXPECT_EQ(tick_at(4 * MINUTE + 1), 0);
    EXPECT_EQ(count(NOTICE_REJECTED), 0);
    EXPECT_EQ(tick_at(5 * MINUTE + 1), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n120|2.0\n240|4.0");
    EXPECT_EQ(_recorder->stats()._rows, 2U);
    EXPECT_EQ(_recorder->stats()._merged, 1U);
}

TEST_F(merging, waits_for_the_rows_that_are_to_be_committed_first)
{
    _options._commit_every_ms = 10 * MINUTE;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    EXPECT_EQ(tick_at(3 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 2.0, 90'000), 0);
    EXPECT_EQ(tick_at(5 * MINUTE + 1), 0);
    EXPECT_EQ(_recorder->stats()._late_rows, 1U);
    EXPECT_EQ(tick_at(10 * MINUTE + 1), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n120|2.0");
    EXPECT_EQ(_recorder->stats()._late_rows, 0U);
}

TEST_F(merging, is_done_by_close_up_to_the_last_reading)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(_recorder->close(), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n300|5.0");
    EXPECT_EQ(told(), "merged: 'pump': 1 late rows\n");
}

TEST_F(merging, that_fails_is_repeated)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 6.0, 5 * MINUTE + 30'000), 0);
    EXPECT_EQ(tick_at(20 * MINUTE + 30'000), 0);
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
        EXPECT_TRUE(refused.struck());
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(told(),
              "failed: the log has refused the commit: 1 late rows wait, the next attempt is in "
              "60000 ms\n");
    EXPECT_EQ(values("param_1_avg"), "60|1.0");
    EXPECT_EQ(tick_at(21 * MINUTE + 30'000), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n300|5.0\n360|6.0");
    EXPECT_EQ(_recorder->stats()._merged, 2U);
}

TEST_F(merging, whose_rows_are_stored_all_the_same_counts_them_once)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 6.0, 5 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 7.0, 6 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 8.0, 7 * MINUTE + 30'000), 0);
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
    }
    testing::internal::GetCapturedStderr();
    told();
    // As where only the last step of the commit has failed; one is of somebody else's.
    run_sql(_file,
            "UPDATE trends_1_1 SET percent_valid = 100.0 / 3.0, param_1_min = 5.0, "
            "param_1_max = 5.0, param_1_avg = 5.0, param_1_actual = 5.0 WHERE time = 1800000300; "
            "UPDATE trends_1_1 SET percent_valid = 100.0 / 3.0, param_1_min = 6.0, "
            "param_1_max = 6.5, param_1_avg = 6.0, param_1_actual = 6.0 WHERE time = 1800000360");
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(values("param_1_max"), "60|1.0\n300|5.0\n360|6.5\n420|7.0");
    EXPECT_EQ(_recorder->stats()._merged, 2U);
    EXPECT_EQ(count(NOTICE_LATE), 1);
}

TEST_F(merging, in_doubt_knows_its_rows_by_all_that_they_hold)
{
    open();
    CRecorderDevice device;
    device._path = "meter";
    device._params = {gauge("u", "avg actual")};
    device._ready = true;
    CRecorderHandles handles;
    ASSERT_EQ(_recorder->attach(device, handles), 0);
    _device = handles._device;
    EXPECT_EQ(tick_at(10 * MINUTE + 1), 0);
    EXPECT_EQ(record(1, 1.0), 0);
    EXPECT_EQ(record(10, 1.0), 0);
    EXPECT_EQ(_recorder->flush(), 0);
    for (const int64_t minute : {2, 3, 4, 5, 6})
        EXPECT_EQ(record(minute, 5.0), 0);  // the actual value is absent
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
    }
    testing::internal::GetCapturedStderr();
    told();
    // Ours, one with another value, one with one more, one without any, and none.
    run_sql(
        _file,
        "UPDATE trends_1_1 SET percent_valid = 100.0, param_1_avg = 5.0 WHERE time = 1800000120;"
        "UPDATE trends_1_1 SET percent_valid = 100.0, param_1_avg = 6.0 WHERE time = 1800000180;"
        "UPDATE trends_1_1 SET percent_valid = 100.0, param_1_avg = 5.0, param_1_actual = 5.0 "
        "WHERE time = 1800000240;"
        "UPDATE trends_1_1 SET percent_valid = 100.0 WHERE time = 1800000300;"
        "DELETE FROM trends_1_1 WHERE time = 1800000360");
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(values("param_1_avg, param_1_actual"),
              "60|1.0|NULL\n120|5.0|NULL\n180|6.0|NULL\n240|5.0|5.0\n300|5.0|NULL\n360|5.0|NULL\n"
              "600|1.0|NULL");
    EXPECT_EQ(_recorder->stats()._merged, 3U);
    EXPECT_EQ(count(NOTICE_LATE), 2);
}

TEST_F(merging, of_one_device_does_not_keep_the_others_out)
{
    open();
    attach_ready("gone");
    const recorder_handle_t gone = _device;
    attach_ready("there");
    const recorder_handle_t there = _device;
    EXPECT_EQ(tick_at(10 * MINUTE + 1), 0);
    for (_device = gone; _device <= there; ++_device) {
        EXPECT_EQ(record(1, 1.0), 0);
        EXPECT_EQ(record(10, 1.0), 0);
    }
    EXPECT_EQ(_recorder->flush(), 0);
    for (_device = gone; _device <= there; ++_device)
        EXPECT_EQ(record(5, 5.0), 0);
    {
        CLog other;
        ASSERT_EQ(open_log(other, _file), 0);
        CDeviceProperties device;
        device._path = "gone";
        device._index = 1;
        ASSERT_EQ(other.remove_device(device), 0);
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
    EXPECT_EQ(values("param_1_avg", 1, 2), "60|1.0\n300|5.0\n600|1.0");
    told();
    EXPECT_EQ(_recorder->close(), NOTICE_ABANDONED);
    testing::internal::GetCapturedStderr();
    EXPECT_NE(told().find("abandoned: 1 rows could not be committed\n"), std::string::npos);
}

TEST_F(merging, waits_while_another_process_is_writing)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 6.0, 5 * MINUTE + 30'000), 0);
    {
        const busy_lock writer(_file, busy_lock::WRITER);
        EXPECT_EQ(_recorder->flush(), NOTICE_BUSY);
    }
    EXPECT_EQ(told(),
              "busy: another process is writing the file: 1 late rows wait, the next attempt is "
              "in 60000 ms\n");
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n300|5.0");
}

TEST_F(merging, fails_where_another_has_changed_the_periods)
{
    fall_silent(20);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 6.0, 5 * MINUTE + 30'000), 0);
    {
        CLog other;
        ASSERT_EQ(open_log(other, _file), 0);
        ASSERT_EQ(other.add_period({5, 100}), 0);
    }
    EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
    EXPECT_EQ(told(),
              "misuse: the periods of the file have changed: open it anew\n"
              "failed: the log has refused the commit: 1 late rows wait, the next attempt is in "
              "60000 ms\n");
    EXPECT_EQ(values("param_1_avg"), "60|1.0");
}

TEST_F(merging, fails_on_a_log_that_the_host_has_closed)
{
    CLog log;
    ASSERT_EQ(open_log(log, _file), 0);
    ASSERT_EQ(_recorder->open(log, _options), 0);
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    EXPECT_EQ(tick_at(20 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE + 30'000), 0);
    EXPECT_EQ(push(0, 6.0, 5 * MINUTE + 30'000), 0);
    log.close();
    EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
    ASSERT_EQ(open_log(log, _file), 0);
    EXPECT_EQ(_recorder->close(), 0);
    EXPECT_EQ(values("param_1_avg"), "60|1.0\n300|5.0\n360|6.0");
}

TEST_F(merging, takes_options_within_their_ranges)
{
    const auto refused = [&](const CRecorderOptions& options) {
        EXPECT_EQ(_recorder->open(_file, options), NOTICE_MISUSE);
        return told();
    };
    CRecorderOptions options = _options;
    options._late = LATE_LISTEND;
    EXPECT_EQ(refused(options), "misuse: the option _late is out of its range\n");
    options._late = static_cast<late_t>(-1);
    EXPECT_EQ(refused(options), "misuse: the option _late is out of its range\n");
    options = _options;
    options._merge_every_ms = -1;
    EXPECT_EQ(refused(options), "misuse: the option _merge_every_ms is out of its range\n");

    _options._late_bytes = 31;
    open();
    CRecorderDevice device;
    device._path = "pump";
    device._params = {gauge("u")};
    CRecorderHandles handles;
    EXPECT_EQ(_recorder->attach(device, handles), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: 'pump': _late_bytes are too few for a row\n");
}
