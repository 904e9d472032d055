// When rows go into the file, and what happens when they cannot.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <string>
#include <utility>

#include "faults.h"
#include "log_fixture.h"
#include "recorder_fixture.h"
#include "sql_reports.h"
#include "trace.h"

using namespace toolkit::trend;

namespace {

class commits : public recorder_fixture {
protected:
    // A reading in the middle of the n-th minute, from 1.
    void push_minute(int64_t minute, double value)
    {
        ASSERT_EQ(push(0, value, minute * 60'000 - 30'000), 0) << told();
    }

    int tick_after_minute(int64_t minute) { return tick_at(minute * 60'000 + 1); }
};

using grid = commits;
using closing = commits;
using failing_commits = commits;
using busy_commits = commits;
using own_device = commits;

}  // namespace

TEST_F(commits, wait_for_commit_every)
{
    _options._commit_every_ms = 180'000;
    open();
    attach({gauge("u")});
    for (int64_t minute = 1; minute <= 6; ++minute) {
        push_minute(minute, static_cast<double>(minute));
        EXPECT_EQ(tick_after_minute(minute), 0);
        EXPECT_EQ(_recorder->stats()._commits, static_cast<uint64_t>(minute / 3));
        EXPECT_EQ(_recorder->stats()._pending_rows, static_cast<size_t>(minute % 3));
    }
    EXPECT_EQ(rows("param_1_avg"), "60|1.0\n120|2.0\n180|3.0\n240|4.0\n300|5.0\n360|6.0");
    EXPECT_EQ(_recorder->stats()._rows, 6U);
    EXPECT_EQ(_recorder->stats()._newest_committed, START / 1000 + 360);
    EXPECT_EQ(_recorder->stats()._pending_bytes, 0U);
}

TEST_F(commits, come_at_once_by_flush)
{
    _options._commit_every_ms = 3'600'000;
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    EXPECT_EQ(_recorder->flush(), 0);  // nothing is closed
    EXPECT_EQ(_recorder->stats()._commits, 0U);
    EXPECT_EQ(tick_after_minute(1), 0);
    EXPECT_EQ(rows("param_1_avg"), "");
    EXPECT_EQ(_recorder->stats()._pending_bytes, 32U);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

TEST_F(commits, are_one_transaction_for_all_devices)
{
    open();
    attach({gauge("u")}, "one");
    const auto one = _params[0];
    attach({gauge("u")}, "two");
    EXPECT_EQ(_recorder->push(one, 1.0, START + 30'000), 0);
    EXPECT_EQ(push(0, 2.0, 30'000), 0);
    statement_trace trace;
    EXPECT_EQ(tick_after_minute(1), 0);
    EXPECT_EQ(trace.times_run("COMMIT"), 1);
    EXPECT_EQ(rows("param_1_avg", 1, 1) + " " + rows("param_1_avg", 1, 2), "60|1.0 60|2.0");
}

TEST_F(commits, prepare_no_statement_twice)
{
    open();
    for (const char* path : {"a", "b", "c"})
        attach({gauge("u")}, path);
    statement_trace trace;
    for (int64_t minute = 1; minute <= 62; ++minute) {
        for (recorder_handle_t param = 0; param < 3; ++param)
            _recorder->push(param, 1.0, START + minute * 60'000 - 30'000);
        EXPECT_EQ(tick_after_minute(minute), 0);
        if (minute == 61) trace.clear();
    }
    // But for the look whether somebody else is writing.
    EXPECT_EQ(trace.prepared(), (texts_t{"BEGIN EXCLUSIVE", "PRAGMA data_version", "ROLLBACK"}));
}

// All pages of many devices do not fit into the cache at once.
TEST_F(commits, store_the_rows_of_one_device_after_those_of_another)
{
    _options._max_bytes = 7 * 32;
    _options._commit_every_ms = 180'000;
    open();
    attach({gauge("u")}, "one");
    attach({gauge("u")}, "two");
    for (int64_t minute = 1; minute <= 6; ++minute) {  // twice around the ring
        for (recorder_handle_t param = 0; param < 2; ++param)
            _recorder->push(param, static_cast<double>(minute), START + minute * 60'000 - 30'000);
        statement_trace trace;
        EXPECT_EQ(tick_after_minute(minute), 0);
        std::string stored;
        for (const std::string& sql : trace.texts())
            if (sql.rfind("INSERT INTO trends_", 0) == 0) stored += sql.substr(19, 2);
        EXPECT_EQ(stored, minute == 3 ? "1_1_1_2_2_2_" : minute == 6 ? "1_1_1_2_2_2_" : "");
    }
    EXPECT_EQ(rows("param_1_avg"), "60|1.0\n120|2.0\n180|3.0\n240|4.0\n300|5.0\n360|6.0");
    EXPECT_EQ(rows("param_1_avg", 1, 2), rows("param_1_avg"));
}

namespace {

// Bytes that this process has handed to write calls, -1 where the system does not tell.
int64_t bytes_written()
{
    std::ifstream lines("/proc/self/io");
    int64_t bytes = -1;
    for (std::string word; lines >> word;)
        if (word == "wchar:") lines >> bytes;
    return bytes;
}

}  // namespace

// Each commit writes the pages that it changes whole: of a quarter of an hour those are two with
// the new rows, one with the quarter's, two that are trimmed, and what holds them together.
TEST_F(commits, that_take_many_rows_write_less)
{
    const auto bytes_of = [&](int64_t every) {
        const std::string file = std::to_string(every) + ".db";
        _clock._wall = START + 1;
        _options._periods = {{1, 60}, {15, 192}, {1440, 10}};
        _options._commit_every_ms = every * 60'000;
        CRecorderDevice device;
        device._path = "pump";
        device._ready = true;
        for (int i = 0; i < 8; ++i)
            device._params.push_back(gauge("u" + std::to_string(i), "min max avg actual"));
        CRecorderHandles handles;
        CRecorder recorder;
        EXPECT_EQ(recorder.open(file, _options), 0) << told();
        EXPECT_EQ(recorder.attach(device, handles), 0);
        CSnapshot snapshot;
        snapshot._percent_valid = 100.0;
        snapshot._samples.assign(8, CSample{0.1, 0.2, 0.3, 0.4, {}});
        int64_t before = 0;
        for (int64_t minute = 1; minute <= 8 * 60; ++minute) {
            _clock.pass(60'000);
            snapshot._time = static_cast<time_t>((START + minute * 60'000) / 1000);
            EXPECT_EQ(recorder.record(handles._device, snapshot), 0);
            EXPECT_EQ(recorder.tick(), 0);
            if (minute != 2 * 60) continue;  // trimming has begun
            EXPECT_EQ(recorder.log()->checkpoint(), 0);
            before = bytes_written();
        }
        EXPECT_EQ(recorder.log()->checkpoint(), 0);
        return static_cast<double>(bytes_written() - before);
    };
    if (bytes_written() < 0) GTEST_SKIP() << "the system does not tell";
    const double minute = bytes_of(1);
    const double quarter = bytes_of(15), hour = bytes_of(60);
    EXPECT_LT(quarter / minute, 0.40);
    EXPECT_LT(hour / minute, 0.15);
}

TEST_F(grid, is_seeded_on_the_boundary_of_the_coarsest_period)
{
    _clock._wall = START + 22 * 60'000 + 5'000;
    open();
    attach({gauge("u")});
    push_minute(23, 5.0);
    EXPECT_EQ(tick_after_minute(60), 0);
    EXPECT_EQ(rows("percent_valid", 15), "900|0.0\n1800|2.22222222222222\n2700|0.0\n3600|0.0");
    EXPECT_EQ(rows("param_1_avg", 60), "3600|5.0");
    EXPECT_EQ(::rows(_file, "SELECT min(time) - 1800000000 FROM trends_1_1"), "60");
}

TEST_F(grid, goes_on_through_restarts_and_gaps)
{
    open();
    attach({gauge("u")});
    push_minute(3, 5.0);
    EXPECT_EQ(tick_after_minute(7), 0);
    _recorder->close();
    _clock.pass(600'000);
    open();
    attach({gauge("u")});
    push_minute(18, 7.0);
    EXPECT_EQ(tick_after_minute(30), 0);
    EXPECT_EQ(rows("param_1_avg", 15), "900|5.0\n1800|7.0");
}

TEST_F(grid, of_a_device_that_has_never_said_a_word_is_empty)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(tick_after_minute(30), 0);
    EXPECT_EQ(rows("*"), "");
    EXPECT_EQ(_recorder->stats()._commits, 0U);
}

TEST_F(closing, stores_what_is_closed)
{
    _options._commit_every_ms = 3'600'000;
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    push_minute(2, 2.0);
    EXPECT_EQ(push(0, 3.0, 91'000), 0);
    _clock.pass(95'000);
    EXPECT_EQ(_recorder->close(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
    EXPECT_EQ(told(), "unfinished: 2 readings of open intervals\n");
    EXPECT_EQ(_recorder->stats()._notices[NOTICE_UNFINISHED], 2U);
    EXPECT_FALSE(_recorder->is_open());
}

TEST_F(closing, is_done_by_the_destructor)
{
    _options._commit_every_ms = 3'600'000;
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    _clock.pass(60'000);
    _recorder.reset();
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

TEST_F(failing_commits, are_repeated_with_growing_pauses)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    std::string pauses;
    for (int attempt = 0; attempt < 8; ++attempt) {
        testing::internal::CaptureStderr();
        {
            refuse_commit refused;
            EXPECT_EQ(attempt == 0 ? tick_after_minute(1) : _recorder->tick(), NOTICE_FAILED);
            EXPECT_TRUE(refused.struck());
        }
        testing::internal::GetCapturedStderr();
        const std::string line = told();
        const int64_t pause = std::stoll(line.substr(line.find("is in ") + 6));
        pauses += std::to_string(pause) + " ";
        _clock.pass(pause - 1);
        EXPECT_EQ(_recorder->tick(), 0);
        _clock.pass(1);
    }
    EXPECT_EQ(pauses, "1000 2000 4000 8000 16000 32000 60000 60000 ");
    EXPECT_EQ(count(NOTICE_FAILED), 8);
    EXPECT_EQ(_recorder->tick(), 0);
    EXPECT_EQ(rows("param_1_avg").substr(0, 6), "60|1.0");
}

TEST_F(failing_commits, say_how_many_rows_wait)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    {
        refuse_commit refused;
        EXPECT_REPORTS(tick_after_minute(1), NOTICE_FAILED,
                       step_and_reset_report(531, "constraint failed"));
    }
    EXPECT_EQ(told(),
              "failed: the log has refused the commit: 1 rows wait, the next attempt is in "
              "1000 ms\n");
    push_minute(2, 2.0);
    EXPECT_EQ(tick_after_minute(2), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0\n120|2.0");
    EXPECT_EQ(_recorder->stats()._rows, 2U);
}

TEST_F(failing_commits, are_tried_again_at_once_by_flush)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(tick_after_minute(1), NOTICE_FAILED);
    }
    EXPECT_EQ(_recorder->tick(), 0);  // it pauses
    EXPECT_EQ(rows("param_1_avg"), "");
    EXPECT_EQ(_recorder->flush(), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

TEST_F(failing_commits, give_up_the_oldest_rows_when_memory_is_full)
{
    _options._max_bytes = 3 * 32;
    open();
    attach({gauge("u")});
    testing::internal::CaptureStderr();
    for (int64_t minute = 1; minute <= 5; ++minute) {
        push_minute(minute, static_cast<double>(minute));
        refuse_commit refused;
        tick_after_minute(minute);
        told();
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(count(NOTICE_OVERFLOW), 2);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|NULL\n120|NULL\n180|3.0\n240|4.0\n300|5.0");
}

TEST_F(failing_commits, of_one_device_do_not_keep_the_others_out)
{
    open();
    attach({gauge("u")}, "gone");
    const auto gone = _params[0];
    attach({gauge("u")}, "there");
    EXPECT_EQ(_recorder->push(gone, 1.0, START + 30'000), 0);
    EXPECT_EQ(push(0, 2.0, 30'000), 0);
    EXPECT_EQ(tick_after_minute(1), 0);
    {
        CLog other;
        ASSERT_EQ(open_log(other, _file), 0);
        CDeviceProperties device;
        device._path = "gone";
        device._index = 1;
        ASSERT_EQ(other.remove_device(device), 0);
    }
    EXPECT_EQ(_recorder->push(gone, 1.0, START + 90'000), 0);
    EXPECT_EQ(push(0, 2.0, 90'000), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(tick_after_minute(2), NOTICE_FAILED);
    EXPECT_EQ(rows("param_1_avg", 1, 2), "60|2.0\n120|2.0");
    EXPECT_EQ(_recorder->stats()._pending_rows, 1U);
    EXPECT_EQ(told(),
              "failed: the log has refused the commit: 1 rows wait, the next attempt is in "
              "1000 ms\n");
    EXPECT_EQ(_recorder->close(), NOTICE_ABANDONED);
    testing::internal::GetCapturedStderr();
    EXPECT_NE(told().find("abandoned: 1 rows could not be committed\n"), std::string::npos);
    EXPECT_EQ(_recorder->stats()._notices[NOTICE_ABANDONED], 1U);
}

TEST_F(failing_commits, are_told_when_another_has_changed_the_periods)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    {
        CLog other;
        ASSERT_EQ(open_log(other, _file), 0);
        ASSERT_EQ(other.add_period({5, 100}), 0);
    }
    EXPECT_EQ(tick_after_minute(1), NOTICE_FAILED);
    EXPECT_EQ(told(),
              "misuse: the periods of the file have changed: open it anew\n"
              "failed: the log has refused the commit: 1 rows wait, the next attempt is in "
              "1000 ms\n");
    EXPECT_EQ(rows("*"), "");
}

TEST_F(failing_commits, into_a_log_that_the_host_has_closed_lose_nothing)
{
    CLog log;
    ASSERT_EQ(open_log(log, _file), 0);
    ASSERT_EQ(_recorder->open(log, _options), 0);
    attach({gauge("u")});
    push_minute(1, 1.0);
    log.close();
    EXPECT_EQ(tick_after_minute(1), NOTICE_FAILED);
    ASSERT_EQ(open_log(log, _file), 0);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

TEST_F(failing_commits, whose_rows_are_stored_all_the_same_store_none_twice)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    push_minute(2, 2.0);
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(tick_after_minute(2), NOTICE_FAILED);
    }
    testing::internal::GetCapturedStderr();
    // As where only the last step of the commit has failed.
    run_sql(_file,
            "INSERT INTO trends_1_1 VALUES (1800000060, 33.0, 1.0), (1800000120, 33.0, 2.0)");
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("percent_valid, param_1_avg"), "60|33.0|1.0\n120|33.0|2.0");
    EXPECT_EQ(count(NOTICE_REJECTED), 0);
    EXPECT_EQ(_recorder->stats()._rows, 2U);
    EXPECT_EQ(_recorder->stats()._pending_rows, 0U);
}

TEST_F(failing_commits, where_a_gap_cannot_be_filled_are_repeated)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    EXPECT_EQ(tick_after_minute(1), 0);
    push_minute(4, 4.0);
    testing::internal::CaptureStderr();
    {
        deny_prepare denied("INSERT INTO trends_1_1 (time, percent_valid) VALUES (?,0)");
        EXPECT_EQ(tick_after_minute(4), NOTICE_FAILED);
        EXPECT_TRUE(denied.struck());
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0\n120|NULL\n180|NULL\n240|4.0");
}

TEST_F(failing_commits, leave_out_rows_that_another_writer_has_overtaken)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    EXPECT_EQ(tick_after_minute(1), 0);
    push_minute(2, 2.0);
    push_minute(4, 4.0);
    run_sql(_file, "INSERT INTO trends_1_1 (time, percent_valid) VALUES (1800000180, 0.0)");
    EXPECT_EQ(tick_after_minute(4), 0);
    EXPECT_EQ(told(), "rejected: 'pump': the row of 1800000120 is older than that of 1800000180\n");
    EXPECT_EQ(rows("param_1_avg"), "60|1.0\n180|NULL\n240|4.0");
    EXPECT_EQ(_recorder->stats()._rows, 2U);
}

TEST_F(busy_commits, are_left_to_a_later_tick)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    busy_lock writer(_file, busy_lock::WRITER);
    EXPECT_EQ(tick_after_minute(1), NOTICE_BUSY);
    EXPECT_EQ(told(),
              "busy: another process is writing the file: 1 rows wait, the next attempt is "
              "in 1000 ms\n");
    writer.release();
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

namespace {

// Commits a row of somebody else's right after the recorder has begun to read.
class write_between : public sqlite_watch {
public:
    explicit write_between(std::string file) : _file(std::move(file)) {}

    void after_step(sqlite3_stmt* stmt, int) override
    {
        if (_done || std::string(sqlite3_sql(stmt)).rfind("SELECT ", 0) != 0) return;
        _done = true;
        const unwatched inside;
        run_sql(_file, "UPDATE devices SET guid = 'x'");
    }

private:
    std::string _file;
    bool _done = false;
};

}  // namespace

TEST_F(busy_commits, are_told_when_another_process_has_written_first)
{
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    testing::internal::CaptureStderr();
    {
        write_between other(_file);
        EXPECT_EQ(tick_after_minute(1), NOTICE_BUSY);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("517"), std::string::npos);
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");
}

TEST_F(busy_commits, of_attach_are_repeated_when_another_process_has_written_first)
{
    open();
    attach({gauge("u")}, "one");
    push_minute(1, 1.0);
    EXPECT_EQ(tick_after_minute(1), 0);
    testing::internal::CaptureStderr();
    {
        write_between other(_file);
        attach({gauge("u")}, "two");
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("517"), std::string::npos);
    EXPECT_EQ(::rows(_file, "SELECT path, guid FROM devices ORDER BY idx"), "one|x\ntwo|NULL");
    EXPECT_EQ(told(), "");
}

TEST_F(own_device, waits_until_the_clock_has_passed_what_is_stored)
{
    _options._own_device = "recorder";
    open();
    EXPECT_EQ(tick_at(40'000), 0);
    EXPECT_EQ(tick_after_minute(1), 0);
    _recorder->close();
    _clock._wall = START + 20'000;  // it has been set back meanwhile
    open();
    told();
    EXPECT_EQ(tick_at(30'000), 0);
    EXPECT_EQ(told(), "");
    EXPECT_EQ(tick_at(70'000), 0);
    EXPECT_EQ(tick_after_minute(2), 0);
    EXPECT_EQ(rows("param_1_max"), "60|0.0\n120|0.0");
}

TEST_F(own_device, records_what_the_recorder_counts)
{
    _options._own_device = "recorder";
    _options._commit_every_ms = 120'000;
    open();
    attach({gauge("u")});
    push_minute(1, 1.0);
    EXPECT_EQ(_recorder->push(99, 1.0, START), NOTICE_UNKNOWN);
    EXPECT_EQ(_recorder->push(_params[0], 1.0, START), NOTICE_LATE);
    EXPECT_EQ(tick_at(40'000), 0);
    EXPECT_EQ(_recorder->push(99, 1.0, START), NOTICE_UNKNOWN);
    EXPECT_EQ(tick_at(50'000), 0);
    EXPECT_EQ(_recorder->tick(), 0);  // at the same moment again
    EXPECT_EQ(tick_after_minute(1), 0);
    EXPECT_EQ(tick_after_minute(2), 0);
    EXPECT_EQ(::rows(_file, "SELECT path FROM devices ORDER BY idx"), "recorder\npump");
    EXPECT_EQ(::rows(_file, "SELECT path FROM params_1 ORDER BY idx"),
              "pending_bytes\ncommit_ms\nrefused\nlost\nfailed_commits\nclock_steps");
    EXPECT_EQ(rows("param_1_max, param_2_max, param_3_sum, param_4_sum, param_5_sum, param_6_sum"),
              "60|0.0|0.0|3.0|0.0|0.0|0.0\n120|104.0|0.0|0.0|0.0|0.0|0.0");
    EXPECT_EQ(_recorder->close(), 0);
    EXPECT_EQ(told().find("unfinished"), std::string::npos);
}
