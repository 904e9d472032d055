// Every statement that the recorder has prepared fails once, and steps at chosen places: a call
// says so or makes up for it, and the next one leaves what it would have left.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "faults.h"
#include "log_fixture.h"
#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

constexpr int64_t MINUTE = 60'000;

class recorder_failure : public recorder_fixture {
protected:
    recorder_failure() { _options._late = LATE_MERGE; }

    void begin_anew()
    {
        _recorder = std::make_unique<CRecorder>();
        for (const char* end : {"", "-wal", "-shm"})
            std::remove((_file + end).c_str());
        _clock._wall = START + 1;
        told();
    }

    // Does the work with its n-th preparation denied, until it has no n-th one. The work says what
    // it leaves, which is the same each time.
    void sweep(const std::function<void()>& prepare, const std::function<std::string()>& work)
    {
        begin_anew();
        prepare();
        const std::string wanted = work();
        int denials = 0;
        for (int n = 1;; ++n, ++denials) {
            begin_anew();
            prepare();
            testing::internal::CaptureStderr();
            deny_prepare denied(n);
            const std::string found = work();
            testing::internal::GetCapturedStderr();
            ASSERT_EQ(found, wanted) << "preparation " << n;
            if (!denied.struck()) break;
        }
        _recorder.reset();
        EXPECT_GT(denials, 5);
    }

    static CRecorderDevice device(std::vector<CRecorderParam> params, bool exact)
    {
        CRecorderDevice device;
        device._path = "pump";
        device._params = std::move(params);
        device._exact = exact;
        return device;
    }

    // Again where it fails.
    int attach_somehow(const CRecorderDevice& device)
    {
        CRecorderHandles handles;
        int failed = _recorder->attach(device, handles);
        if (failed) failed = _recorder->attach(device, handles);
        _params = handles._params;
        return failed;
    }

    int open_somehow()
    {
        const int failed = _recorder->open(_file, _options);
        return failed ? _recorder->open(_file, _options) : 0;
    }

    int flush_somehow()
    {
        const int failed = _recorder->flush();
        return failed ? _recorder->flush() : 0;
    }

    std::string everything()
    {
        std::string all;
        for (const unsigned long period : {1UL, 15UL})
            all += rows("*", period) + "\n";
        return all + ::rows(_file, "SELECT * FROM params_1 ORDER BY idx");
    }
};

}  // namespace

TEST_F(recorder_failure, of_a_preparation_at_open_is_made_up_for)
{
    _options._own_device = "recorder";
    sweep([] {},
          [&] {
              EXPECT_EQ(open_somehow(), 0);
              return ::rows(_file, "SELECT * FROM periods") +
                     ::rows(_file, "SELECT * FROM devices");
          });
}

TEST_F(recorder_failure, of_a_preparation_at_attach_leaves_nothing_half_done)
{
    sweep(
        [&] {
            open();
            attach({gauge("a"), gauge("b"), gauge("c")});
            _recorder->close();
            open();
        },
        [&] {
            // One goes, one is changed, one is new.
            EXPECT_EQ(attach_somehow(device({gauge("a"), gauge("b", "max"), gauge("d")}, true)), 0);
            return ::rows(_file, "SELECT * FROM params_1 ORDER BY idx");
        });
}

TEST_F(recorder_failure, of_a_preparation_in_a_commit_loses_no_row)
{
    sweep(
        [&] {
            open();
            attach({gauge("u")});
        },
        [&] {
            EXPECT_EQ(push(0, 2.0, 2 * MINUTE - 30'000), 0);  // the first minute is seeded
            _clock.pass(2 * MINUTE);
            EXPECT_EQ(flush_somehow(), 0);
            EXPECT_EQ(push(0, 7.0, 7 * MINUTE - 30'000), 0);
            _clock.pass(17 * MINUTE);
            EXPECT_EQ(flush_somehow(), 0);
            EXPECT_EQ(_recorder->stats()._rows, 2U);
            return everything();
        });
}

TEST_F(recorder_failure, of_a_preparation_in_a_merge_loses_no_row)
{
    sweep(
        [&] {
            open();
            attach({gauge("u")});
            EXPECT_EQ(push(0, 1.0, MINUTE - 30'000), 0);
            EXPECT_EQ(tick_at(20 * MINUTE + 1), 0);
        },
        [&] {
            for (const int64_t minute : {4, 6, 7})
                EXPECT_EQ(push(0, 5.0, minute * MINUTE - 30'000), 0);
            EXPECT_EQ(flush_somehow(), 0);
            EXPECT_EQ(_recorder->stats()._merged, 2U);
            return everything();
        });
}

TEST_F(recorder_failure, of_a_preparation_in_a_merge_of_first_rows_loses_none)
{
    sweep(
        [&] {
            open();
            attach({gauge("u")});
            EXPECT_EQ(tick_at(20 * MINUTE + 1), 0);
        },
        [&] {
            for (const int64_t minute : {4, 6, 7})
                EXPECT_EQ(push(0, 5.0, minute * MINUTE - 30'000), 0);
            EXPECT_EQ(flush_somehow(), 0);
            EXPECT_EQ(_recorder->stats()._merged, 2U);
            return rows("param_1_avg");
        });
}

TEST_F(recorder_failure, of_a_preparation_after_a_merge_in_doubt_counts_each_row_once)
{
    sweep(
        [&] {
            open();
            attach({gauge("u")});
            EXPECT_EQ(push(0, 1.0, MINUTE - 30'000), 0);
            EXPECT_EQ(tick_at(20 * MINUTE + 1), 0);
            for (const int64_t minute : {4, 6, 7})
                EXPECT_EQ(push(0, 5.0, minute * MINUTE - 30'000), 0);
            testing::internal::CaptureStderr();
            const refuse_commit refused;
            EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
            testing::internal::GetCapturedStderr();
        },
        [&] {
            EXPECT_EQ(flush_somehow(), 0);
            EXPECT_EQ(_recorder->stats()._merged, 2U);
            EXPECT_EQ(count(NOTICE_LATE), 0);
            return everything();
        });
}

TEST_F(recorder_failure, of_a_first_look_into_a_file_is_made_up_for)
{
    open();
    attach({gauge("u")});
    for (const char* sql :
         {"SELECT count(*) FROM sqlite_master",
          "SELECT (SELECT count(*) FROM pragma_table_info('periods') WHERE name IN ('period', "
          "'max_entries')) + (SELECT count(*) FROM pragma_table_info('devices') WHERE name IN "
          "('idx', 'path'))",
          "SELECT count(*) FROM periods"}) {
        _recorder->close();
        testing::internal::CaptureStderr();
        interrupt_step interrupted(sql);
        EXPECT_EQ(_recorder->open(_file, _options), 0);
        EXPECT_TRUE(interrupted.struck()) << sql;
        testing::internal::GetCapturedStderr();
    }
}

TEST_F(recorder_failure, of_a_first_look_into_a_locked_file_is_repeated)
{
    _options._wal = false;
    open();
    _recorder->close();
    const busy_lock other(_file, busy_lock::EVERYBODY, 50);
    EXPECT_EQ(_recorder->open(_file, _options), 0);
    EXPECT_EQ(told(), "");
}

TEST_F(recorder_failure, of_a_step_that_begins_a_transaction_is_made_up_for)
{
    _options._merge_every_ms = 0;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, MINUTE - 30'000), 0);
    _clock.pass(20 * MINUTE);
    testing::internal::CaptureStderr();
    {
        interrupt_step interrupted("BEGIN");
        EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
        EXPECT_TRUE(interrupted.struck());
    }
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE - 30'000), 0);
    {
        interrupt_step interrupted("BEGIN");
        EXPECT_EQ(_recorder->flush(), NOTICE_FAILED);
        EXPECT_TRUE(interrupted.struck());
    }
    EXPECT_EQ(_recorder->flush(), 0);
    {
        interrupt_step interrupted("BEGIN");
        EXPECT_EQ(attach_somehow(device({gauge("u")}, false)), NOTICE_MISUSE);  // it is attached
        CRecorderDevice fan = device({gauge("u")}, false);
        fan._path = "fan";
        EXPECT_EQ(attach_somehow(fan), 0);
        EXPECT_TRUE(interrupted.struck());
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rows("param_1_avg").substr(0, 7), "60|1.0\n");
    EXPECT_EQ(_recorder->stats()._merged, 1U);
}

TEST_F(recorder_failure, of_a_commit_of_all_is_made_up_for_device_by_device)
{
    open();
    attach({gauge("u")}, "one");
    attach({gauge("u")}, "two");
    for (recorder_handle_t param = 0; param < 2; ++param)
        EXPECT_EQ(_recorder->push(param, 1.0, START + 30'000), 0);
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(tick_at(MINUTE + 1), 0);
        EXPECT_TRUE(refused.struck());
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rows("param_1_avg") + " " + rows("param_1_avg", 1, 2), "60|1.0 60|1.0");
    EXPECT_EQ(_recorder->stats()._commits, 2U);
    EXPECT_EQ(told(), "");
}

TEST_F(recorder_failure, of_the_last_step_does_not_make_later_rows_of_others_its_own)
{
    _options._late = LATE_REFUSE;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, 30'000), 0);
    testing::internal::CaptureStderr();
    {
        refuse_commit refused;
        EXPECT_EQ(tick_at(MINUTE + 1), NOTICE_FAILED);
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(push(0, 2.0, 90'000), 0);
    _clock.pass(MINUTE);
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (1800000060, 33.0, 1.0), (1800000120, 9.0, 9.0)");
    told();
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(told(), "rejected: 'pump': the row of 1800000120 is older than that of 1800000120\n");
    EXPECT_EQ(_recorder->stats()._rows, 1U);
}

TEST_F(recorder_failure, to_end_a_transaction_of_the_hosts_acknowledges_nothing)
{
    _options._merge_every_ms = 0;
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 1.0, MINUTE - 30'000), 0);
    CLog& log = *_recorder->log();
    ASSERT_EQ(log.begin_transaction(), 0);
    EXPECT_EQ(tick_at(MINUTE + 1), NOTICE_MISUSE);
    EXPECT_EQ(_recorder->flush(), NOTICE_MISUSE);
    CRecorderDevice fan = device({gauge("u")}, false);
    fan._path = "fan";
    CRecorderHandles handles;
    told();
    EXPECT_EQ(_recorder->attach(fan, handles), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: the host has a transaction open on the log\n");
    log.rollback_transaction();
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|1.0");

    EXPECT_EQ(tick_at(20 * MINUTE + 1), 0);
    EXPECT_EQ(push(0, 5.0, 4 * MINUTE - 30'000), 0);
    ASSERT_EQ(log.begin_transaction(), 0);
    told();
    EXPECT_EQ(_recorder->flush(), NOTICE_MISUSE);
    EXPECT_EQ(told(),
              "misuse: the host has a transaction open on the log: 1 late rows wait, the next "
              "attempt is in 60000 ms\n");
    log.rollback_transaction();
    EXPECT_EQ(_recorder->flush(), 0);
    EXPECT_EQ(_recorder->stats()._merged, 1U);
}

TEST_F(recorder_failure, of_a_setting_up_on_a_log_of_the_hosts_is_repeated_and_told_once)
{
    CLog log;
    ASSERT_EQ(open_log(log, _file), 0);
    ASSERT_EQ(_recorder->open(log, _options), 0);
    attach({gauge("a"), gauge("b")});
    _recorder->close();
    ASSERT_EQ(_recorder->open(log, _options), 0);
    told();
    testing::internal::CaptureStderr();
    refuse_commit refused;
    CRecorderHandles handles;
    EXPECT_EQ(_recorder->attach(device({gauge("a", "max")}, true), handles), 0);
    EXPECT_TRUE(refused.struck());
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(
        told(),
        "rebuild: 'pump': 1 parameters change, 1 are removed: its 3 tables of at most 176 rows "
        "in all are rebuilt, 2 times\n");
    EXPECT_EQ(::rows(_file, "SELECT path FROM params_1"), "a");
    _recorder->close();
}
