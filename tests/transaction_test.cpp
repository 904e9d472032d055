// The guard of a host's own transaction.

#include "trend_transaction.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>

#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"

namespace {

using namespace toolkit::trend;

static_assert(!std::is_copy_constructible_v<CTransaction>);
static_assert(!std::is_copy_assignable_v<CTransaction>);

const std::string ENDED =
    "int toolkit::trend::CTransaction::commit(): Error: transaction has ended\n";

class transaction : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 2000}, {15, 2000}});
        _pump = add_device("pump", {param("power", "avg")});
    }

    // The row of this minute, whatever comes of it.
    int record_minute(time_t minute)
    {
        CSnapshot snapshot;
        snapshot._time = minute * 60;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(1);
        return _log.add_trend_data(_pump, snapshot);
    }

    std::string minutes() const { return rows("SELECT time / 60 FROM trends_1_1 ORDER BY time"); }

    CDeviceParams _pump;
};

}  // namespace

TEST_F(transaction, stores_what_is_committed)
{
    {
        CTransaction both(_log);
        EXPECT_EQ(0, both.failed());
        EXPECT_TRUE(both.is_open());
        ASSERT_EQ(0, record_minute(1));
        ASSERT_EQ(0, record_minute(2));
        EXPECT_EQ("", minutes());
        EXPECT_QUIET(both.commit(), 0);
        EXPECT_FALSE(both.is_open());
    }
    EXPECT_EQ("1\n2", minutes());
    EXPECT_TRUE(at_level_0());
}

TEST_F(transaction, is_rolled_back_when_it_is_left)
{
    {
        const CTransaction left(_log);
        ASSERT_EQ(0, record_minute(1));
    }
    EXPECT_EQ("", minutes());
    EXPECT_TRUE(at_level_0());
}

// A tick that is refused returns early. By hand that left its level open, and all that came later
// was acknowledged inside of it.
TEST_F(transaction, forgets_no_rollback_at_an_early_return)
{
    const auto tick_by_hand = [&](time_t minute, bool refused) {
        if (const int failed = _log.begin_transaction()) return failed;
        if (refused) return -1;
        if (const int failed = record_minute(minute)) return failed;
        return _log.end_transaction();
    };
    const auto tick = [&](time_t minute, bool refused) {
        CTransaction whole(_log);
        if (const int failed = whole.failed()) return failed;
        if (refused) return -1;
        if (const int failed = record_minute(minute)) return failed;
        return whole.commit();
    };
    const auto run = [](auto one_tick, time_t ticks) {
        EXPECT_EQ(-1, one_tick(1, true));
        for (time_t minute = 1; minute <= ticks; ++minute)
            ASSERT_EQ(0, one_tick(minute, false));
    };

    run(tick_by_hand, 1500);
    reopen();  // as after a crash
    EXPECT_EQ("0", rows("SELECT count(*) FROM trends_1_1"));

    run(tick, 150);
    reopen();
    EXPECT_EQ("150", rows("SELECT count(*) FROM trends_1_1"));
}

TEST_F(transaction, that_could_not_be_begun_says_so)
{
    interrupt_step interrupted("BEGIN");
    std::string said;
    {
        said = capture_stderr([&] {
            CTransaction none(_log);
            EXPECT_EQ(-1, none.failed());
            EXPECT_FALSE(none.is_open());
            EXPECT_EQ(-1, none.commit());
        });
    }
    EXPECT_TRUE(interrupted.struck());
    EXPECT_EQ(step_and_reset_report(9, "interrupted"), said);  // once, and nothing of its end
    EXPECT_TRUE(at_level_0());
}

TEST_F(transaction, is_not_rolled_back_after_a_commit_that_failed)
{
    const std::string before = dump();
    std::string said = capture_stderr([&] {
        CTransaction failing(_log);
        ASSERT_EQ(0, record_minute(1));
        refuse_commit refused;
        EXPECT_EQ(-1, failing.commit());
        EXPECT_FALSE(failing.is_open());
        EXPECT_EQ(-1, failing.commit());
    });
    EXPECT_EQ(step_and_reset_report(531, "constraint failed") + ENDED, said);
    EXPECT_EQ(before, dump());
    EXPECT_QUIET(record_minute(1), 0);
}

TEST_F(transaction, has_ended_after_its_commit)
{
    CTransaction once(_log);
    ASSERT_EQ(0, record_minute(1));
    ASSERT_EQ(0, once.commit());
    EXPECT_REPORTS(once.commit(), -1, ENDED);
    EXPECT_EQ("1", minutes());
}

TEST_F(transaction, inside_another_is_stored_with_it)
{
    {
        CTransaction outer(_log);
        {
            CTransaction inner(_log);
            ASSERT_EQ(0, record_minute(1));
            ASSERT_EQ(0, inner.commit());
        }
        EXPECT_EQ("", minutes());
        ASSERT_EQ(0, record_minute(2));
        ASSERT_EQ(0, outer.commit());
    }
    EXPECT_EQ("1\n2", minutes());
}

TEST_F(transaction, inside_another_is_rolled_back_with_it)
{
    {
        const CTransaction outer(_log);
        CTransaction inner(_log);
        ASSERT_EQ(0, record_minute(1));
        ASSERT_EQ(0, inner.commit());
    }
    EXPECT_EQ("", minutes());
    EXPECT_TRUE(at_level_0());
}

TEST_F(transaction, inside_another_gives_up_nothing_by_itself)
{
    {
        CTransaction outer(_log);
        {
            const CTransaction inner(_log);
            ASSERT_EQ(0, record_minute(1));
        }
        ASSERT_EQ(0, outer.commit());
    }
    EXPECT_EQ("1", minutes());
}

TEST_F(transaction, of_a_log_that_was_closed_has_lost_its_work)
{
    {
        CTransaction lost(_log);
        ASSERT_EQ(0, record_minute(1));
        _log.close();
        EXPECT_FALSE(lost.is_open());
        EXPECT_REPORTS(lost.commit(), -1, ENDED);
        EXPECT_EQ(0, lost.failed());
    }
    EXPECT_EQ("", minutes());
}

TEST_F(transaction, of_a_log_that_was_opened_anew_leaves_the_new_ones_alone)
{
    std::optional<CTransaction> later;
    {
        CTransaction lost(_log);
        ASSERT_EQ(0, record_minute(1));
        reopen();
        later.emplace(_log);
        ASSERT_EQ(0, record_minute(2));
        EXPECT_REPORTS(lost.commit(), -1, ENDED);
    }
    EXPECT_TRUE(later->is_open());
    EXPECT_QUIET(later->commit(), 0);
    EXPECT_EQ("2", minutes());
}

// A copy of a log shares its connection, and with it the transaction.
TEST_F(transaction, of_a_log_that_was_closed_is_left_to_its_copy)
{
    CLog copy = _log;
    {
        CTransaction left(_log);
        ASSERT_EQ(0, record_minute(1));
        _log.close();
        EXPECT_REPORTS(left.commit(), -1, ENDED);
    }
    EXPECT_EQ(0, copy.end_transaction());
    EXPECT_EQ("1", minutes());
}

TEST_F(transaction, of_a_log_that_is_not_open_stops_the_process)
{
    _log.close();
    EXPECT_STOPS(CTransaction{_log}, "_db");
}
