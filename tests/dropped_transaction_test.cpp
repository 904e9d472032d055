#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <string>

#include "database.h"
#include "database_fixture.h"
#include "faults.h"
#include "trace.h"

namespace toolkit::trend {
namespace {

const std::string REFUSED = step_report(516, "abort due to ROLLBACK");
const std::string NOTHING_TO_COMMIT =
    step_and_reset_report(1, "cannot commit - no transaction is active");
const std::string NOTHING_TO_ROLL_BACK =
    step_and_reset_report(1, "cannot rollback - no transaction is active");

// A connection in whose open level SQLite ends the transaction by itself: what the level has done
// is gone, and work that went on would commit statement by statement.
class dropped_transaction : public database_fixture {
protected:
    void SetUp() override
    {
        database_fixture::SetUp();
        raw("CREATE TABLE t(a INTEGER PRIMARY KEY); INSERT INTO t VALUES(1)");
    }

    int run(const std::string& sql) { return _db.exec(sql, STMT_FRESH, ROW_OK); }

    // Opens so many levels, writes a row and lets the transaction go.
    void begin_and_drop(int levels = 1)
    {
        for (int i = 0; i < levels; ++i)
            ASSERT_EQ(_db.begin_transaction(), 0);
        ASSERT_EQ(run("INSERT INTO t VALUES(2)"), 0);
        EXPECT_REPORTS(run("INSERT OR ROLLBACK INTO t VALUES(1)"), -1,
                       step_and_reset_report(1555, "UNIQUE constraint failed: t.a"));
        ASSERT_FALSE(in_transaction());
    }

    std::string stored() const { return rows("SELECT a FROM t"); }

    // Whether the next transaction works, from its BEGIN to what it stores.
    bool next_one_works()
    {
        return _db.begin_transaction() == 0 && in_transaction() &&
               run("INSERT INTO t VALUES(7)") == 0 && _db.end_transaction() == 0 &&
               stored() == "1\n7";
    }
};

TEST_F(dropped_transaction, refuses_a_change_in_one_line_without_running_it)
{
    begin_and_drop();
    statement_trace trace;
    EXPECT_REPORTS(run("INSERT INTO t VALUES(3)"), -1, REFUSED);
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(stored(), "1");
}

TEST_F(dropped_transaction, refuses_a_read_too)
{
    begin_and_drop();
    EXPECT_REPORTS(run("SELECT a FROM t"), -1, REFUSED);
}

TEST_F(dropped_transaction, refuses_as_often_as_it_is_asked)
{
    begin_and_drop();
    const stmt_ptr_t stmt = _db.stmt("INSERT INTO t VALUES(3)", STMT_POOLED);
    for (int i = 0; i < 2; ++i) {
        EXPECT_REPORTS(stmt->step(), -1, REFUSED);
        EXPECT_QUIET(stmt->reset(), 0);
    }
    EXPECT_EQ(stored(), "1");
}

TEST_F(dropped_transaction, refuses_a_statement_that_has_begun_to_give_rows)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    const stmt_ptr_t stmt = _db.stmt("SELECT 10 UNION ALL SELECT 20", STMT_FRESH);
    ASSERT_EQ(stmt->step(), 1);
    raw("ROLLBACK");
    EXPECT_REPORTS(stmt->step(), -1, REFUSED);
    EXPECT_QUIET(stmt->reset(), 0);
}

TEST_F(dropped_transaction, refuses_after_a_full_disk)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(run("INSERT INTO t VALUES(2)"), 0);
    raw("CREATE TABLE blobs(b); PRAGMA max_page_count = 8");
    EXPECT_REPORTS(run("INSERT INTO blobs VALUES(zeroblob(1000000))"), -1,
                   step_and_reset_report(13, "database or disk is full"));
    EXPECT_REPORTS(run("INSERT INTO t VALUES(3)"), -1, REFUSED);
    EXPECT_REPORTS(_db.end_transaction(), -1, NOTHING_TO_COMMIT);
    EXPECT_EQ(stored(), "1");
}

TEST_F(dropped_transaction, refuses_after_a_write_that_was_interrupted)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(run("INSERT INTO t VALUES(2)"), 0);
    {
        interrupt_step interruption("INSERT INTO t VALUES(3)");
        EXPECT_REPORTS(run("INSERT INTO t VALUES(3)"), -1, step_and_reset_report(9, "interrupted"));
    }
    ASSERT_FALSE(in_transaction());
    EXPECT_REPORTS(run("INSERT INTO t VALUES(4)"), -1, REFUSED);
    EXPECT_REPORTS(_db.end_transaction(), -1, NOTHING_TO_COMMIT);
    EXPECT_EQ(stored(), "1");
}

TEST_F(dropped_transaction, failure_that_leaves_the_transaction_refuses_nothing)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    EXPECT_REPORTS(run("INSERT INTO t VALUES(1)"), -1,
                   step_and_reset_report(1555, "UNIQUE constraint failed: t.a"));
    EXPECT_QUIET(run("INSERT INTO t VALUES(2)"), 0);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "1\n2");
}

TEST_F(dropped_transaction, statement_outside_a_level_is_not_concerned)
{
    EXPECT_QUIET(run("INSERT INTO t VALUES(2)"), 0);
    EXPECT_REPORTS(run("INSERT OR ROLLBACK INTO t VALUES(1)"), -1,
                   step_and_reset_report(1555, "UNIQUE constraint failed: t.a"));
    EXPECT_QUIET(run("INSERT INTO t VALUES(3)"), 0);
    EXPECT_EQ(stored(), "1\n2\n3");
}

TEST_F(dropped_transaction, outermost_end_fails_and_the_next_begin_works)
{
    begin_and_drop();
    EXPECT_REPORTS(_db.end_transaction(), -1, NOTHING_TO_COMMIT);
    EXPECT_STOPS_IN(_db.rollback_transaction(),
                    "void toolkit::trend::CDatabase::rollback_transaction()", "_nest_lvl>0");
    EXPECT_TRUE(next_one_works());
}

TEST_F(dropped_transaction, outermost_rollback_ends_the_level_and_the_next_begin_works)
{
    begin_and_drop();
    EXPECT_EQ(capture_stderr([&] { _db.rollback_transaction(); }), NOTHING_TO_ROLL_BACK);
    EXPECT_TRUE(next_one_works());
}

TEST_F(dropped_transaction, inner_levels_come_and_go_and_nothing_is_stored)
{
    begin_and_drop(2);
    statement_trace trace;
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_REPORTS(run("INSERT INTO t VALUES(3)"), -1, REFUSED);
    EXPECT_EQ(capture_stderr([&] { _db.rollback_transaction(); }), "");
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_REPORTS(run("INSERT INTO t VALUES(4)"), -1, REFUSED);
    EXPECT_EQ(trace.texts(), texts_t{});

    EXPECT_REPORTS(_db.end_transaction(), -1, NOTHING_TO_COMMIT);
    EXPECT_EQ(stored(), "1");
    EXPECT_TRUE(next_one_works());
}

TEST_F(dropped_transaction, get_intval_takes_the_refusal_as_any_failing_step)
{
    begin_and_drop();
    int64_t out = 42;
    EXPECT_REPORTS(_db.get_intval("SELECT 7", out, STMT_POOLED, NULL_NOT_OK), 0, REFUSED);
    EXPECT_EQ(out, 42);
    EXPECT_REPORTS(_db.end_transaction(), -1, NOTHING_TO_COMMIT);
}

TEST_F(dropped_transaction, cache_size_is_not_touched)
{
    begin_and_drop();
    statement_trace trace;
    EXPECT_REPORTS(_db.update_cache_size(1048576), -1, REFUSED);
    EXPECT_EQ(trace.texts(), texts_t{});
}

TEST_F(dropped_transaction, refusal_ends_with_the_level)
{
    begin_and_drop();
    capture_stderr([&] { _db.rollback_transaction(); });
    EXPECT_QUIET(run("INSERT INTO t VALUES(5)"), 0);
    EXPECT_EQ(stored(), "1\n5");
}

}  // namespace
}  // namespace toolkit::trend
