// The pool of prepared statements: which one it gives, which one it gives up, what it leaves
// behind.

#include "stmtpool.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <type_traits>

#include "allocations.h"
#include "database.h"
#include "expect.h"
#include "sql_reports.h"
#include "trace.h"

using namespace toolkit::trend;

namespace {

const std::string P = "SELECT 1";
const std::string Q = "SELECT 2";
const std::string R = "SELECT 3";

// Pools of their own on a connection whose pool stays empty.
class pool_fixture : public testing::Test {
protected:
    pool_fixture()
    {
        EXPECT_EQ(0, _db.open("pool.db", 5, false, true, true, 0, 0, 0, false));
        EXPECT_EQ(std::multiset<std::string>(), statements());
    }

    // The texts of all statements that are not finalized.
    std::multiset<std::string> statements()
    {
        std::multiset<std::string> out;
        for (sqlite3_stmt* stmt = nullptr; (stmt = sqlite3_next_stmt(*_db, stmt)) != nullptr;)
            out.insert(sqlite3_sql(stmt));
        return out;
    }

    // The number that a statement selects.
    static int64_t number(const stmt_ptr_t& stmt)
    {
        int64_t out = -99;
        EXPECT_EQ(1, stmt->step());
        EXPECT_EQ(0, stmt->column(0, out, false));
        EXPECT_EQ(0, stmt->reset());
        return out;
    }

    CDatabase _db;
};

using texts = std::multiset<std::string>;
using get = pool_fixture;
using recall = pool_fixture;
using eviction = pool_fixture;
using failed_preparation = pool_fixture;
using capacity_0 = pool_fixture;
using end_of_pool = pool_fixture;
using memory_running_out = pool_fixture;

}  // namespace

TEST_F(get, prepares_the_statement_of_a_new_text)
{
    CStatementPool pool(_db, 2);
    const stmt_ptr_t stmt = pool.get(P);
    ASSERT_NE(nullptr, stmt);
    EXPECT_TRUE(stmt->is_prepared());
    EXPECT_EQ(1, number(stmt));
    EXPECT_EQ(texts{P}, statements());
}

TEST_F(get, gives_the_same_object_for_the_same_text)
{
    CStatementPool pool(_db, 2);
    const stmt_ptr_t stmt = pool.get(P);
    statement_trace trace;
    EXPECT_EQ(stmt, pool.get(P));
    EXPECT_EQ(stmt, pool.get(std::string("SELECT ") + "1"));
    EXPECT_EQ(texts_t{}, trace.prepared());
}

TEST_F(get, keeps_a_statement_that_nobody_holds)
{
    CStatementPool pool(_db, 2);
    const std::weak_ptr<CStatement> stmt = pool.get(P);
    EXPECT_FALSE(stmt.expired());
    EXPECT_EQ(stmt.lock(), pool.get(P));
}

TEST_F(get, prepares_each_text_once)
{
    CStatementPool pool(_db, 3);
    statement_trace trace;
    for (const std::string& sql : {P, Q, R, P, Q, R, R, P})
        pool.get(sql);
    EXPECT_EQ((texts_t{P, Q, R}), trace.prepared());
}

TEST_F(get, tells_texts_apart_byte_by_byte)
{
    CStatementPool pool(_db, 5);
    const stmt_ptr_t stmt = pool.get("SELECT 1");
    EXPECT_NE(stmt, pool.get("select 1"));
    EXPECT_NE(stmt, pool.get("SELECT 1 "));
    EXPECT_EQ(stmt, pool.get("SELECT 1"));
}

TEST_F(get, of_a_known_text_allocates_nothing)
{
    CStatementPool pool(_db, 2);
    pool.get(P);
    pool.get(Q);
    EXPECT_EQ(0u, allocations::in([&] { pool.get(P); }));
    EXPECT_EQ(0u, allocations::in([&] { pool.get(Q); }));
}

TEST_F(get, wants_a_text)
{
    CStatementPool pool(_db, 2);
    EXPECT_STOPS(pool.get(""), "!str.empty()");
}

TEST_F(get, serves_each_pool_with_statements_of_its_own)
{
    CStatementPool one(_db, 2);
    CStatementPool other(_db, 2);
    EXPECT_NE(one.get(P), other.get(P));
    EXPECT_EQ((texts{P, P}), statements());
}

TEST(pool, is_not_copied)
{
    static_assert(!std::is_copy_constructible_v<CStatementPool>);
    static_assert(!std::is_copy_assignable_v<CStatementPool>);
}

// Recall -----------------------------------------------------------------------------------------

TEST_F(recall, gives_the_statement_of_a_place_without_its_text)
{
    CStatementPool pool(_db, 2);
    pool_place_t p, q;
    const stmt_ptr_t first = pool.get(P, p);
    pool.get(Q, q);
    EXPECT_EQ(first, pool.recall(p));
    EXPECT_EQ(pool.get(Q), pool.recall(q));
    EXPECT_EQ(P, p._slot.ptr->key);

    pool_place_t again;
    EXPECT_EQ(first, pool.get(P, again));
    EXPECT_EQ(first, pool.recall(again));
    EXPECT_EQ(0u, allocations::in([&] { pool.recall(p); }));
}

TEST_F(recall, knows_no_place_that_was_never_given)
{
    CStatementPool pool(_db, 2);
    EXPECT_EQ(nullptr, pool.recall(pool_place_t()));
}

TEST_F(recall, gives_no_statement_that_the_pool_has_given_up)
{
    CStatementPool pool(_db, 1);
    pool_place_t place;
    stmt_ptr_t held = pool.get(P, place);
    pool.get(Q);
    EXPECT_EQ(nullptr, pool.recall(place));  // although it is there still
    held.reset();
    EXPECT_EQ(nullptr, pool.recall(place));
    EXPECT_EQ(texts{Q}, statements());
}

TEST_F(recall, is_a_use_of_the_statement)
{
    CStatementPool pool(_db, 2);
    pool_place_t place;
    pool.get(P, place);
    pool.get(Q);
    pool.recall(place);
    pool.get(R);
    EXPECT_EQ((texts{P, R}), statements());
}

// Eviction ---------------------------------------------------------------------------------------

TEST_F(eviction, takes_the_statement_unused_for_the_longest_time)
{
    CStatementPool pool(_db, 2);
    const std::weak_ptr<CStatement> p = pool.get(P);
    const std::weak_ptr<CStatement> q = pool.get(Q);
    pool.get(P);
    pool.get(R);
    EXPECT_FALSE(p.expired());
    EXPECT_TRUE(q.expired());
    EXPECT_EQ((texts{P, R}), statements());
}

TEST_F(eviction, makes_the_next_request_prepare_anew)
{
    CStatementPool pool(_db, 2);
    for (const std::string& sql : {P, Q, P, R})
        pool.get(sql);
    statement_trace trace;
    pool.get(P);
    EXPECT_EQ(texts_t{}, trace.prepared());
    pool.get(Q);
    EXPECT_EQ(texts_t{Q}, trace.prepared());
    EXPECT_EQ((texts{P, Q}), statements()) << "R was the one to go";
}

TEST_F(eviction, leaves_a_statement_usable_for_who_holds_it)
{
    CStatementPool pool(_db, 1);
    stmt_ptr_t held = pool.get(P);
    pool.get(Q);
    EXPECT_EQ((texts{P, Q}), statements());
    EXPECT_EQ(1, number(held));
    EXPECT_EQ(1, number(held)) << "again after its reset";

    held.reset();
    EXPECT_EQ(texts{Q}, statements());
}

TEST_F(eviction, leaves_a_running_statement_its_rows)
{
    CStatementPool pool(_db, 1);
    const stmt_ptr_t held = pool.get("VALUES (10), (20)");
    int64_t out = 0;
    ASSERT_EQ(1, held->step());
    pool.get(Q);
    ASSERT_EQ(1, held->step());
    ASSERT_EQ(0, held->column(0, out, false));
    EXPECT_EQ(20, out);
    EXPECT_EQ(0, held->step());
}

TEST_F(eviction, does_not_bring_back_what_is_held_elsewhere)
{
    CStatementPool pool(_db, 1);
    const stmt_ptr_t held = pool.get(P);
    pool.get(Q);
    const stmt_ptr_t again = pool.get(P);
    EXPECT_NE(held, again);
    EXPECT_EQ((texts{P, P}), statements());
}

// Failures ---------------------------------------------------------------------------------------

TEST_F(failed_preparation, is_reported_each_time_and_gives_an_empty_pointer)
{
    CStatementPool pool(_db, 2);
    for (int turn = 0; turn < 3; ++turn)
        EXPECT_REPORTS(pool.get("SELEC 1"), nullptr,
                       prepare_report("near \"SELEC\": syntax error"));
    EXPECT_EQ(texts{}, statements());
}

TEST_F(failed_preparation, is_not_remembered)
{
    CStatementPool pool(_db, 2);
    const std::string sql = "SELECT x FROM later";
    EXPECT_REPORTS(pool.get(sql), nullptr, prepare_report("no such table: later"));
    ASSERT_EQ(0, _db.exec("CREATE TABLE later AS SELECT 7 AS x", true, false));
    const stmt_ptr_t stmt = pool.get(sql);
    ASSERT_NE(nullptr, stmt);
    EXPECT_EQ(7, number(stmt));
}

TEST_F(failed_preparation, evicts_nothing)
{
    CStatementPool pool(_db, 2);
    pool.get(P);
    pool.get(Q);
    EXPECT_REPORTS(pool.get("SELEC 1"), nullptr, prepare_report("near \"SELEC\": syntax error"));
    EXPECT_EQ((texts{P, Q}), statements());
    pool.get(R);
    EXPECT_EQ((texts{Q, R}), statements()) << "P is still the one unused for the longest time";
}

TEST_F(capacity_0, refuses_the_first_statement)
{
    CStatementPool pool(_db, 0);
    EXPECT_THROW(pool.get(P), toolkit::cache_uninitialized);
    EXPECT_THROW(pool.get(P), toolkit::cache_uninitialized);
    EXPECT_EQ(texts{}, statements()) << "it has been finalized";
}

TEST_F(capacity_0, reports_what_cannot_be_prepared_as_ever)
{
    CStatementPool pool(_db, 0);
    EXPECT_REPORTS(pool.get("SELEC 1"), nullptr, prepare_report("near \"SELEC\": syntax error"));
}

TEST_F(memory_running_out, passes_through_and_leaves_the_pool_in_order)
{
    const std::string sql = "SELECT 4 -- a text too long to need no memory of its own";
    size_t n = 1;
    for (bool failed = true; failed; ++n) {
        ASSERT_LT(n, 30u) << "the request should succeed at last";
        CStatementPool pool(_db, 2);
        pool.get(P);
        failed = false;
        {
            const allocations::fail_at broken(n);
            try {
                pool.get(sql);
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            EXPECT_EQ(failed, broken.reached());
        }
        EXPECT_EQ((failed ? texts{P} : texts{P, sql}), statements()) << n;
        EXPECT_EQ(4, number(pool.get(sql)));
        EXPECT_EQ(1, number(pool.get(P)));
    }
    EXPECT_GT(n, 4u) << "the statement, its text and its place in the pool can fail";
}

// The end ----------------------------------------------------------------------------------------

TEST_F(end_of_pool, finalizes_its_statements)
{
    {
        CStatementPool pool(_db, 3);
        pool.get(P);
        pool.get(Q);
        EXPECT_EQ((texts{P, Q}), statements());
    }
    EXPECT_EQ(texts{}, statements());
}

TEST_F(end_of_pool, leaves_statements_that_are_held_to_their_holders)
{
    std::optional<CStatementPool> pool(std::in_place, _db, 3);
    stmt_ptr_t held = pool->get(P);
    pool->get(Q);
    pool.reset();
    EXPECT_EQ(texts{P}, statements());
    EXPECT_EQ(1, number(held));
    held.reset();
    EXPECT_EQ(texts{}, statements());
}
