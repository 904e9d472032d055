// The helpers' own tests: a helper that sees nothing would let every test pass.

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>

#include <gtest/gtest-spi.h>

#include "expect.h"
#include "faults.h"
#include "rows.h"
#include "trace.h"

namespace {

using handle_t = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;
using stmt_t = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

handle_t open_handle(const char* file)
{
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(file, &db), SQLITE_OK);
    sqlite3_extended_result_codes(db, 1);
    return {db, sqlite3_close};
}

stmt_t prepare(const handle_t& db, const char* sql)
{
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db.get(), sql, -1, &stmt, nullptr);
    return {stmt, sqlite3_finalize};
}

int step(const handle_t& db, const char* sql) { return sqlite3_step(prepare(db, sql).get()); }

const char* const THREE_ROWS =
    "CREATE TABLE t(a, b); INSERT INTO t VALUES(300, 100.0), (600, 0.1),"
    " (900, NULL)";

}  // namespace

TEST(rows, prints_values_as_the_shell_does)
{
    run_sql("file.db", THREE_ROWS);
    EXPECT_EQ(rows("file.db", "SELECT * FROM t"), "300|100.0\n600|0.1\n900|NULL");
    EXPECT_EQ(rows("file.db", "SELECT 'text', '', 1e100"), "text||1.0e+100");
    EXPECT_EQ(rows("file.db", "SELECT * FROM t WHERE a > 900"), "");
}

TEST(rows, throws_what_sqlite_says)
{
    run_sql("file.db", THREE_ROWS);
    EXPECT_THROW(rows("file.db", "SELECT c FROM t"), std::runtime_error);
    EXPECT_THROW(rows("none.db", "SELECT 1"), std::runtime_error);
    EXPECT_THROW(run_sql("file.db", "nonsense"), std::runtime_error);
}

TEST(rows, do_not_see_what_another_connection_has_not_committed)
{
    run_sql("file.db", std::string("PRAGMA journal_mode = WAL;") + THREE_ROWS);
    const handle_t db = open_handle("file.db");
    step(db, "BEGIN");
    step(db, "DELETE FROM t");
    EXPECT_EQ(rows("file.db", "SELECT count(*) FROM t"), "3");
    step(db, "COMMIT");
    EXPECT_EQ(rows("file.db", "SELECT count(*) FROM t"), "0");
}

TEST(dump, tells_any_change)
{
    run_sql("file.db", THREE_ROWS);
    const std::string before = dump("file.db");
    EXPECT_EQ(dump("file.db"), before);

    for (const char* change :
         {"UPDATE t SET b = 100 WHERE a = 300", "UPDATE t SET b = 0.30000000000000004 - 0.2",
          "UPDATE t SET a = '300' WHERE a = 300", "DELETE FROM t WHERE a = 900",
          "CREATE TABLE u(a)", "ALTER TABLE t ADD COLUMN c", "PRAGMA user_version = 1"}) {
        unlink("file.db");
        run_sql("file.db", THREE_ROWS);
        run_sql("file.db", change);
        EXPECT_NE(dump("file.db"), before) << change;
    }
}

TEST(dump, of_equal_files_is_equal)
{
    run_sql("one.db", THREE_ROWS);
    run_sql("two.db", std::string("PRAGMA page_size = 8192;") + THREE_ROWS);
    EXPECT_EQ(dump("one.db"), dump("two.db"));
    EXPECT_NE(file_bytes("one.db"), file_bytes("two.db"));
}

TEST(capture_stderr, takes_all_that_is_written)
{
    const std::string much(1000000, 'x');
    const std::string written = capture_stderr([&] {
        std::cerr << "one\n";
        std::fputs("two\n", stderr);
        std::fputs(much.c_str(), stderr);
    });
    EXPECT_EQ(written, "one\ntwo\n" + much);
    EXPECT_EQ(capture_stderr([] {}), "");
}

TEST(expect_stops, wants_the_whole_condition)
{
    EXPECT_TRUE(names_condition("file.cpp:7: f(): _db!=__null\n", "_db!=__null"));
    EXPECT_TRUE(names_condition("f(): (a>1) || (b==(c-1))\nother\n", "(a>1) || (b==(c-1))"));
    EXPECT_TRUE(names_condition("Assertion `_db' failed.\n", "_db"));
    EXPECT_FALSE(names_condition("file.cpp:7: f(): _db!=__null\n", "_db"));
    EXPECT_FALSE(names_condition("f(): (ival==0) || (ival==1)\n", "ival==0"));
    EXPECT_FALSE(names_condition("", "_db"));
}

TEST(expect_stops, wants_an_abort)
{
    const auto say_and = [](void (*end)()) {
        std::cerr << "file.cpp:7: f(): _nest_lvl>0\nemulator: uncaught signal\n";
        end();
    };
    EXPECT_STOPS(say_and(std::abort), "_nest_lvl>0");
    EXPECT_NONFATAL_FAILURE(EXPECT_STOPS(say_and([] { std::_Exit(1); }), "_nest_lvl>0"), "Exited");
    EXPECT_NONFATAL_FAILURE(EXPECT_STOPS(say_and(std::abort), "_nest_lvl>=0"), "_nest_lvl>=0");
}

TEST(expect_reports, wants_the_very_text_and_result)
{
    const auto say = [] {
        std::cerr << "text\n";
        return 7;
    };
    EXPECT_REPORTS(say(), 7, "text\n");
    EXPECT_NONFATAL_FAILURE(EXPECT_REPORTS(say(), 8, "text\n"), "8");
    EXPECT_NONFATAL_FAILURE(EXPECT_REPORTS(say(), 7, "text"), "text");
    EXPECT_NONFATAL_FAILURE(EXPECT_QUIET(say(), 7), "text");
}

TEST(statement_trace, records_each_run_once_and_tells_what_was_prepared)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    const stmt_t pooled = prepare(db, "SELECT * FROM t WHERE a > ?");

    statement_trace trace;
    sqlite3_bind_int64(pooled.get(), 1, 300);
    while (sqlite3_step(pooled.get()) == SQLITE_ROW)
        continue;
    sqlite3_reset(pooled.get());
    sqlite3_step(pooled.get());
    step(db, "DELETE FROM t");

    EXPECT_EQ(trace.texts(), (texts_t{"SELECT * FROM t WHERE a > ?", "SELECT * FROM t WHERE a > ?",
                                      "DELETE FROM t"}));
    EXPECT_EQ(trace.expanded()[1], "SELECT * FROM t WHERE a > 300");
    EXPECT_EQ(trace.prepared(), texts_t{"DELETE FROM t"});
    EXPECT_EQ(trace.times_run("SELECT * FROM t WHERE a > ?"), 2);
    EXPECT_EQ(trace.times_prepared("DELETE FROM t"), 1);
}

TEST(statement_trace, tells_when_a_statement_is_reset)
{
    const handle_t db = open_handle("file.db");
    const stmt_t kept = prepare(db, "SELECT 1 UNION SELECT 2");

    const statement_trace trace;
    sqlite3_step(kept.get());
    sqlite3_step(kept.get());
    step(db, "SELECT 3");
    sqlite3_reset(kept.get());
    EXPECT_EQ(trace.texts_and_resets(),
              (texts_t{"SELECT 1 UNION SELECT 2", "SELECT 3", "reset SELECT 1 UNION SELECT 2"}));
}

TEST(statement_trace, sees_neither_the_tests_own_statements_nor_those_within_a_statement)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    statement_trace trace;
    step(db, "VACUUM");
    rows("file.db", "SELECT * FROM t");
    dump("file.db");
    EXPECT_EQ(trace.texts(), texts_t{"VACUUM"});
    EXPECT_EQ(trace.prepared(), texts_t{"VACUUM"});
}

TEST(deny_prepare, strikes_once_at_the_nth)
{
    const handle_t db = open_handle("file.db");
    const deny_prepare second(2);
    EXPECT_NE(prepare(db, "SELECT 1"), nullptr);
    EXPECT_FALSE(second.struck());
    EXPECT_EQ(prepare(db, "SELECT 2"), nullptr);
    EXPECT_STREQ(sqlite3_errmsg(db.get()), "no such column: denied");
    EXPECT_TRUE(second.struck());
    EXPECT_NE(prepare(db, "SELECT 2"), nullptr);
}

TEST(deny_prepare, gives_the_same_code_when_the_schema_has_changed_meanwhile)
{
    const handle_t db = open_handle("file.db");
    step(db, "CREATE TABLE t(a)");
    run_sql("file.db", "CREATE TABLE u(a)");
    const deny_prepare first(1);
    EXPECT_EQ(prepare(db, "SELECT 1"), nullptr);
    EXPECT_EQ(sqlite3_extended_errcode(db.get()), SQLITE_ERROR);
}

TEST(deny_prepare, strikes_at_one_text)
{
    const handle_t db = open_handle("file.db");
    const deny_prepare commit("COMMIT");
    EXPECT_NE(prepare(db, "SELECT 1"), nullptr);
    EXPECT_EQ(prepare(db, "COMMIT"), nullptr);
    EXPECT_NE(prepare(db, "COMMIT"), nullptr);
}

TEST(interrupt_step, fails_at_the_nth_step)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    const stmt_t stmt = prepare(db, "SELECT a FROM t");
    const interrupt_step fault("SELECT a FROM t", 2);
    EXPECT_EQ(sqlite3_step(stmt.get()), SQLITE_ROW);
    EXPECT_EQ(sqlite3_step(stmt.get()), SQLITE_INTERRUPT);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(sqlite3_reset(stmt.get()), SQLITE_INTERRUPT);
    EXPECT_EQ(sqlite3_step(stmt.get()), SQLITE_ROW);
}

TEST(interrupt_step, ends_a_transaction_that_writes)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    step(db, "BEGIN");
    step(db, "DELETE FROM t WHERE a = 300");
    const interrupt_step fault("DELETE FROM t WHERE a = 600");
    EXPECT_EQ(step(db, "DELETE FROM t WHERE a = 600"), SQLITE_INTERRUPT);
    EXPECT_EQ(sqlite3_get_autocommit(db.get()), 1);
    EXPECT_EQ(rows("file.db", "SELECT count(*) FROM t"), "3");
}

TEST(interrupt_step, leaves_the_transaction_open_when_it_hits_the_commit)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    step(db, "BEGIN");
    step(db, "DELETE FROM t");
    const interrupt_step fault("COMMIT");
    EXPECT_EQ(step(db, "COMMIT"), SQLITE_INTERRUPT);
    EXPECT_EQ(sqlite3_get_autocommit(db.get()), 0);
    EXPECT_EQ(step(db, "ROLLBACK"), SQLITE_DONE);
    EXPECT_EQ(rows("file.db", "SELECT count(*) FROM t"), "3");
}

TEST(refuse_commit, undoes_what_was_written)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    step(db, "BEGIN");
    step(db, "DELETE FROM t");
    const refuse_commit fault;
    EXPECT_EQ(step(db, "COMMIT"), SQLITE_CONSTRAINT_COMMITHOOK);
    EXPECT_EQ(sqlite3_get_autocommit(db.get()), 1);
    EXPECT_EQ(rows("file.db", "SELECT count(*) FROM t"), "3");
    EXPECT_TRUE(fault.struck());
}

TEST(refuse_commit, fails_a_reading_transaction_too_and_only_once)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    const refuse_commit fault;
    step(db, "BEGIN");
    step(db, "SELECT * FROM t");
    EXPECT_EQ(step(db, "COMMIT"), SQLITE_INTERRUPT);
    EXPECT_EQ(sqlite3_get_autocommit(db.get()), 0);
    step(db, "DELETE FROM t");
    EXPECT_EQ(step(db, "COMMIT"), SQLITE_DONE);
}

TEST(busy_lock, keeps_writers_out_until_it_is_released)
{
    for (const char* mode : {"DELETE", "WAL"}) {
        unlink("file.db");
        run_sql("file.db", std::string("PRAGMA journal_mode = ") + mode + ";" + THREE_ROWS);
        const handle_t db = open_handle("file.db");
        EXPECT_EQ(step(db, "SELECT * FROM t"), SQLITE_ROW);  // makes the WAL's files

        busy_lock lock("file.db", busy_lock::WRITER);
        EXPECT_EQ(step(db, "DELETE FROM t"), SQLITE_BUSY) << mode;
        EXPECT_EQ(step(db, "SELECT * FROM t"), SQLITE_ROW) << mode;
        lock.release();
        EXPECT_EQ(step(db, "DELETE FROM t"), SQLITE_DONE) << mode;
    }
}

TEST(busy_lock, goes_after_its_time)
{
    run_sql("file.db", THREE_ROWS);
    const handle_t db = open_handle("file.db");
    const stmt_t stmt = prepare(db, "SELECT * FROM t");
    const busy_lock lock("file.db", busy_lock::EVERYBODY, 50);
    EXPECT_EQ(sqlite3_step(stmt.get()), SQLITE_BUSY);
    sqlite3_busy_timeout(db.get(), 30000);
    EXPECT_EQ(sqlite3_step(stmt.get()), SQLITE_ROW);
}

TEST(busy_lock, keeps_checkpoints_out)
{
    run_sql("file.db", std::string("PRAGMA journal_mode = WAL;") + THREE_ROWS);
    const handle_t db = open_handle("file.db");
    step(db, "DELETE FROM t");
    busy_lock lock("file.db", busy_lock::CHECKPOINTER);
    EXPECT_EQ(sqlite3_wal_checkpoint(db.get(), nullptr), SQLITE_BUSY);
    lock.release();
    EXPECT_EQ(sqlite3_wal_checkpoint(db.get(), nullptr), SQLITE_OK);
}

TEST(busy_lock, throws_when_there_is_no_lock_to_be_had)
{
    run_sql("file.db", THREE_ROWS);
    const busy_lock lock("file.db", busy_lock::WRITER);
    EXPECT_THROW(busy_lock("file.db", busy_lock::WRITER), std::runtime_error);
    EXPECT_THROW(busy_lock("none.db", busy_lock::WRITER), std::runtime_error);
}
