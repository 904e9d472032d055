#include "database.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "database_fixture.h"
#include "faults.h"
#include "trace.h"

namespace {

bool refuse_autocheckpoint = false;

}  // namespace

// Stands before SQLite's own, which never fails.
extern "C" int sqlite3_wal_autocheckpoint(sqlite3* db, int pages)
{
    if (refuse_autocheckpoint) return SQLITE_NOMEM;
    void* const symbol = dlsym(RTLD_NEXT, "sqlite3_wal_autocheckpoint");
    int (*configure)(sqlite3*, int) = nullptr;
    std::memcpy(&configure, &symbol, sizeof configure);
    return configure(db, pages);
}

namespace toolkit::trend {
namespace {

const char* const CHECKPOINT = "int toolkit::trend::CDatabase::checkpoint()";
const char* const CHECKPOINT_CONFIG = "int toolkit::trend::CDatabase::checkpoint_config(int)";
const char* const NON_INT =
    "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: "
    "Column type is non-int\n";
const char* const OVERFLOW = "SELECT abs(-9223372036854775807 - 1)";  // fails when stepped

static_assert(!std::is_copy_constructible<CDatabase>::value, "one owner of the connection");
static_assert(!std::is_copy_assignable<CDatabase>::value, "one owner of the connection");

// The statements that exist on a connection.
std::vector<std::string> statements_of(CDatabase& db)
{
    std::vector<std::string> texts;
    for (sqlite3_stmt* stmt = nullptr; (stmt = sqlite3_next_stmt(*db, stmt)) != nullptr;)
        texts.emplace_back(sqlite3_sql(stmt));
    return texts;
}

bool any_busy(CDatabase& db)
{
    for (sqlite3_stmt* stmt = nullptr; (stmt = sqlite3_next_stmt(*db, stmt)) != nullptr;)
        if (sqlite3_stmt_busy(stmt) != 0) return true;
    return false;
}

// stmt -----------------------------------------------------------------------------------------

using database_stmt = database_fixture;

TEST_F(database_stmt, fresh_statement_is_a_new_one_each_time)
{
    const stmt_ptr_t first = _db.stmt("SELECT 1", STMT_FRESH);
    const stmt_ptr_t second = _db.stmt("SELECT 1", STMT_FRESH);
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->step(), 1);
    EXPECT_EQ(second->step(), 1);
}

TEST_F(database_stmt, pooled_statement_is_the_same_each_time)
{
    const stmt_ptr_t first = _db.stmt("SELECT 1", STMT_POOLED);
    ASSERT_TRUE(first);
    EXPECT_EQ(_db.stmt("SELECT 1", STMT_POOLED), first);
    EXPECT_NE(_db.stmt("SELECT 2", STMT_POOLED), first);
}

TEST_F(database_stmt, fresh_statement_does_not_come_from_the_pool_or_go_there)
{
    const stmt_ptr_t pooled = _db.stmt("SELECT 1", STMT_POOLED);
    const stmt_ptr_t fresh = _db.stmt("SELECT 1", STMT_FRESH);
    EXPECT_NE(fresh, pooled);
    EXPECT_EQ(_db.stmt("SELECT 1", STMT_POOLED), pooled);

    EXPECT_TRUE(_db.stmt("SELECT 2", STMT_FRESH));
    EXPECT_EQ(statements_of(_db), (std::vector<std::string>{"SELECT 1", "SELECT 1"}));
}

TEST_F(database_stmt, pool_keeps_as_many_as_the_connection_was_opened_with)
{
    open_args args;
    args._pool_capacity = 2;
    ASSERT_EQ(open(args), 0);
    const std::weak_ptr<CStatement> first = _db.stmt("SELECT 1", STMT_POOLED);
    EXPECT_TRUE(_db.stmt("SELECT 2", STMT_POOLED));
    EXPECT_FALSE(first.expired());
    EXPECT_TRUE(_db.stmt("SELECT 3", STMT_POOLED));
    EXPECT_TRUE(first.expired());
}

TEST_F(database_stmt, is_empty_when_the_text_cannot_be_prepared)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED})
        for (int i = 0; i < 2; ++i)
            EXPECT_REPORTS(_db.stmt("SELEC 1", fresh), stmt_ptr_t(),
                           prepare_report("near \"SELEC\": syntax error"));
}

TEST_F(database_stmt, text_must_not_be_empty)
{
    const char* const function =
        "toolkit::trend::stmt_ptr_t toolkit::trend::CDatabase::stmt(const tk_string&, bool)";
    EXPECT_STOPS_IN(_db.stmt("", STMT_FRESH), function, "!str.empty()");
    EXPECT_STOPS_IN(_db.stmt("", STMT_POOLED), function, "!str.empty()");
    CDatabase closed;
    EXPECT_STOPS_IN(closed.stmt("", STMT_FRESH), function, "!str.empty()");
}

TEST_F(database_stmt, pool_without_room_is_reported)
{
    open_args args;
    args._pool_capacity = 0;
    ASSERT_EQ(open(args), 0);
    EXPECT_REPORTS(
        _db.stmt("SELECT 1", STMT_POOLED), stmt_ptr_t(),
        "toolkit::trend::stmt_ptr_t toolkit::trend::CDatabase::stmt(const tk_string&, bool): "
        "Error: invalid pool capacity\n");
    EXPECT_TRUE(_db.stmt("SELECT 1", STMT_FRESH));
}

// exec -----------------------------------------------------------------------------------------

using database_exec = database_fixture;

TEST_F(database_exec, gives_0_when_done)
{
    EXPECT_QUIET(_db.exec("CREATE TABLE t(a)", STMT_FRESH, ROW_NONE), 0);
    EXPECT_QUIET(_db.exec("INSERT INTO t VALUES(1)", STMT_POOLED, ROW_OK), 0);
    EXPECT_QUIET(_db.exec("SELECT a FROM t WHERE a = 2", STMT_FRESH, ROW_NONE), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "1");
}

TEST_F(database_exec, gives_1_for_a_row_and_0_where_a_row_is_a_success)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED}) {
        EXPECT_QUIET(_db.exec("PRAGMA journal_mode = WAL", fresh, ROW_NONE), 1);
        EXPECT_QUIET(_db.exec("PRAGMA journal_mode = WAL", fresh, ROW_OK), 0);
    }
}

TEST_F(database_exec, reports_a_step_that_fails)
{
    for (const bool row_ok : {ROW_NONE, ROW_OK})
        EXPECT_REPORTS(_db.exec(OVERFLOW, STMT_FRESH, row_ok), -1,
                       step_and_reset_report(1, "integer overflow"));
}

TEST_F(database_exec, reports_a_text_that_cannot_be_prepared)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED})
        EXPECT_REPORTS(_db.exec("SELEC 1", fresh, ROW_OK), -1,
                       prepare_report("near \"SELEC\": syntax error"));
}

TEST_F(database_exec, pool_without_room_is_reported)
{
    open_args args;
    args._pool_capacity = 0;
    ASSERT_EQ(open(args), 0);
    EXPECT_REPORTS(_db.exec("CREATE TABLE t(a)", STMT_POOLED, ROW_NONE), -1,
                   "int toolkit::trend::CDatabase::exec(const tk_string&, bool, bool): Error: "
                   "invalid pool capacity\n");
    EXPECT_QUIET(_db.exec("CREATE TABLE t(a)", STMT_FRESH, ROW_NONE), 0);
}

TEST_F(database_exec, steps_once)
{
    class count_steps : public sqlite_watch {
    public:
        void after_step(sqlite3_stmt*, int) override { ++_steps; }
        int _steps = 0;
    } steps;
    EXPECT_EQ(_db.exec("SELECT 1 UNION ALL SELECT 2", STMT_FRESH, ROW_OK), 0);
    EXPECT_EQ(steps._steps, 1);
}

TEST_F(database_exec, runs_only_the_first_statement_of_a_text)
{
    raw("CREATE TABLE t(a)");
    EXPECT_QUIET(_db.exec("INSERT INTO t VALUES(1); INSERT INTO t VALUES(2)", STMT_FRESH, ROW_NONE),
                 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "1");
}

TEST_F(database_exec, leaves_its_statement_reset)
{
    EXPECT_EQ(_db.exec("SELECT 1 UNION ALL SELECT 2", STMT_POOLED, ROW_NONE), 1);
    EXPECT_FALSE(any_busy(_db));
    EXPECT_EQ(_db.exec("SELECT 1 UNION ALL SELECT 2", STMT_POOLED, ROW_NONE), 1);
}

TEST_F(database_exec, keeps_a_pooled_statement_and_gives_up_a_fresh_one)
{
    EXPECT_EQ(_db.exec("SELECT 1", STMT_FRESH, ROW_OK), 0);
    EXPECT_EQ(statements_of(_db), std::vector<std::string>{});
    EXPECT_EQ(_db.exec("SELECT 1", STMT_POOLED, ROW_OK), 0);
    EXPECT_EQ(statements_of(_db), std::vector<std::string>{"SELECT 1"});
}

TEST_F(database_exec, text_must_not_be_empty)
{
    const char* const function =
        "int toolkit::trend::CDatabase::exec(const tk_string&, bool, bool)";
    EXPECT_STOPS_IN(_db.exec("", STMT_FRESH, ROW_OK), function, "!str.empty()");
    CDatabase closed;
    EXPECT_STOPS_IN(closed.exec("", STMT_FRESH, ROW_OK), function, "!str.empty()");
}

// get_intval -----------------------------------------------------------------------------------

using database_get_intval = database_fixture;

TEST_F(database_get_intval, reads_column_0_in_a_transaction_of_its_own)
{
    int64_t out = 42;
    statement_trace trace;
    EXPECT_QUIET(_db.get_intval("SELECT 7, 8", out, STMT_FRESH, NULL_NOT_OK), 0);
    EXPECT_EQ(out, 7);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT 7, 8", "COMMIT"}));
    EXPECT_FALSE(in_transaction());
}

TEST_F(database_get_intval, adds_no_transaction_to_an_open_one)
{
    int64_t out = 42;
    ASSERT_EQ(_db.begin_transaction(), 0);
    statement_trace trace;
    EXPECT_QUIET(_db.get_intval("SELECT 7", out, STMT_FRESH, NULL_NOT_OK), 0);
    EXPECT_EQ(trace.texts(), texts_t{"SELECT 7"});
    EXPECT_TRUE(in_transaction());
    EXPECT_EQ(_db.end_transaction(), 0);
    EXPECT_FALSE(in_transaction());
}

TEST_F(database_get_intval, value_of_the_last_row_wins)
{
    int64_t out = 42;
    EXPECT_QUIET(_db.get_intval("SELECT 1 UNION ALL SELECT 3 UNION ALL SELECT 2", out, STMT_FRESH,
                                NULL_NOT_OK),
                 0);
    EXPECT_EQ(out, 2);
}

TEST_F(database_get_intval, without_a_row_the_value_stays)
{
    for (const bool null_ok : {NULL_NOT_OK, NULL_OK}) {
        int64_t out = 42;
        EXPECT_QUIET(_db.get_intval("SELECT 1 WHERE 0", out, STMT_FRESH, null_ok), 0);
        EXPECT_EQ(out, 42);
    }
}

TEST_F(database_get_intval, null_is_minus_1_where_it_may_be)
{
    int64_t out = 42;
    EXPECT_QUIET(_db.get_intval("SELECT max(rowid) FROM sqlite_master", out, STMT_FRESH, NULL_OK),
                 0);
    EXPECT_EQ(out, -1);
}

TEST_F(database_get_intval, value_that_is_no_integer_gives_1_and_rolls_back)
{
    for (const std::string value : {"NULL", "7.0", "'7'", "x'37'"}) {
        int64_t out = 42;
        statement_trace trace;
        EXPECT_REPORTS(_db.get_intval("SELECT " + value, out, STMT_FRESH, NULL_NOT_OK), 1, NON_INT);
        EXPECT_EQ(out, 42);
        EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT " + value, "ROLLBACK"}));
        EXPECT_FALSE(in_transaction());
    }
}

TEST_F(database_get_intval, value_that_is_no_integer_ends_the_query)
{
    int64_t out = 42;
    EXPECT_REPORTS(_db.get_intval("SELECT 1 UNION ALL SELECT 'two' UNION ALL SELECT 3", out,
                                  STMT_POOLED, NULL_NOT_OK),
                   1, NON_INT);
    EXPECT_EQ(out, 1);
    EXPECT_FALSE(any_busy(_db));
}

TEST_F(database_get_intval, value_that_is_no_integer_closes_only_its_own_level)
{
    int64_t out = 42;
    raw("CREATE TABLE t(a)");
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.exec("INSERT INTO t VALUES(1)", STMT_FRESH, ROW_NONE), 0);
    EXPECT_REPORTS(_db.get_intval("SELECT 'a'", out, STMT_FRESH, NULL_NOT_OK), 1, NON_INT);
    EXPECT_EQ(_db.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "1");
}

TEST_F(database_get_intval, statement_is_reset_before_the_rollback)
{
    // Steps twice at the row that fails: a statement that is still at it could not be rolled back
    // and used again.
    class busy_at_rollback : public sqlite_watch {
    public:
        explicit busy_at_rollback(CDatabase& db) : _db(db) {}
        void before_step(sqlite3_stmt* stmt) override
        {
            if (sqlite3_sql(stmt) == std::string("ROLLBACK")) _busy = any_busy(_db);
        }
        bool _busy = true;

    private:
        CDatabase& _db;
    } watch(_db);
    int64_t out = 42;
    EXPECT_REPORTS(_db.get_intval("SELECT 'a' UNION ALL SELECT 2", out, STMT_POOLED, NULL_NOT_OK),
                   1, NON_INT);
    EXPECT_FALSE(watch._busy);
}

TEST_F(database_get_intval, text_that_cannot_be_prepared_gives_minus_1_and_rolls_back)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED}) {
        int64_t out = 42;
        statement_trace trace;
        EXPECT_REPORTS(_db.get_intval("SELEC 1", out, fresh, NULL_NOT_OK), -1,
                       prepare_report("near \"SELEC\": syntax error"));
        EXPECT_EQ(out, 42);
        EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "ROLLBACK"}));
    }
}

TEST_F(database_get_intval, failing_step_is_a_success_that_leaves_the_value)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED}) {
        int64_t out = 42;
        statement_trace trace;
        EXPECT_REPORTS(_db.get_intval(OVERFLOW, out, fresh, NULL_NOT_OK), 0,
                       step_and_reset_report(1, "integer overflow"));
        EXPECT_EQ(out, 42);
        EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", OVERFLOW, "COMMIT"}));
    }
}

TEST_F(database_get_intval, failing_step_leaves_the_value_of_the_row_before)
{
    raw("CREATE TABLE t(a); INSERT INTO t VALUES(1), (-9223372036854775807 - 1)");
    int64_t out = 42;
    EXPECT_REPORTS(_db.get_intval("SELECT abs(a) FROM t", out, STMT_FRESH, NULL_NOT_OK), 0,
                   step_and_reset_report(1, "integer overflow"));
    EXPECT_EQ(out, 1);
}

TEST_F(database_get_intval, failing_begin_is_returned)
{
    raw("BEGIN");
    int64_t out = 42;
    statement_trace trace;
    EXPECT_REPORTS(_db.get_intval("SELECT 1", out, STMT_FRESH, NULL_NOT_OK), -1,
                   step_and_reset_report(1, "cannot start a transaction within a transaction"));
    EXPECT_EQ(out, 42);
    EXPECT_EQ(trace.texts(), texts_t{"BEGIN"});
}

TEST_F(database_get_intval, failing_commit_is_returned)
{
    raw("PRAGMA foreign_keys = ON; CREATE TABLE p(id INTEGER PRIMARY KEY);"
        "CREATE TABLE c(p REFERENCES p DEFERRABLE INITIALLY DEFERRED)");
    int64_t out = 42;
    EXPECT_REPORTS(
        _db.get_intval("INSERT INTO c VALUES(9) RETURNING p", out, STMT_FRESH, NULL_NOT_OK), -1,
        step_and_reset_report(787, "FOREIGN KEY constraint failed"));
    EXPECT_EQ(out, 9);
    EXPECT_FALSE(in_transaction());
    EXPECT_EQ(rows("SELECT count(*) FROM c"), "0");
    EXPECT_QUIET(_db.get_intval("SELECT 1", out, STMT_FRESH, NULL_NOT_OK), 0);
}

TEST_F(database_get_intval, keeps_a_pooled_statement_and_gives_up_a_fresh_one)
{
    int64_t out = 0;
    EXPECT_EQ(_db.get_intval("SELECT 1", out, STMT_FRESH, NULL_NOT_OK), 0);
    EXPECT_EQ(_db.get_intval("SELECT 2", out, STMT_POOLED, NULL_NOT_OK), 0);
    EXPECT_THAT(statements_of(_db), testing::UnorderedElementsAre("BEGIN", "SELECT 2", "COMMIT"));
}

// update_cache_size ----------------------------------------------------------------------------

using database_update_cache_size = database_fixture;

TEST_F(database_update_cache_size, sets_whole_pages)
{
    statement_trace trace;
    EXPECT_QUIET(_db.update_cache_size(1048576), 0);
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN", "PRAGMA page_size", "COMMIT", "PRAGMA cache_size=256"}));
    EXPECT_EQ(raw("PRAGMA cache_size"), "256");
}

TEST_F(database_update_cache_size, drops_what_fills_no_page)
{
    statement_trace trace;
    for (const size_t bytes : {size_t(12287), size_t(12288), size_t(4095), size_t(0), SIZE_MAX}) {
        trace.clear();
        EXPECT_QUIET(_db.update_cache_size(bytes), 0);
        EXPECT_EQ(trace.texts().back(), "PRAGMA cache_size=" + std::to_string(bytes / 4096));
    }
    _db.update_cache_size(12287);  // a byte less than three pages
    EXPECT_EQ(raw("PRAGMA cache_size"), "2");
}

TEST_F(database_update_cache_size, fails_when_the_page_size_is_not_told)
{
    // With its pragma ignored, the query is one without rows.
    const auto ignore = [](void*, int action, const char* name, const char*, const char*,
                           const char*) {
        return action == SQLITE_PRAGMA && name == std::string("page_size") ? SQLITE_IGNORE
                                                                           : SQLITE_OK;
    };
    sqlite3_set_authorizer(*_db, ignore, nullptr);
    statement_trace trace;
    EXPECT_QUIET(_db.update_cache_size(1048576), -1);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "PRAGMA page_size", "COMMIT"}));
}

TEST_F(database_update_cache_size, fails_when_the_page_size_cannot_be_read)
{
    deny_prepare denial("PRAGMA page_size");
    statement_trace trace;
    EXPECT_REPORTS(_db.update_cache_size(1048576), -1, prepare_report("no such column: denied"));
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "ROLLBACK"}));
}

TEST_F(database_update_cache_size, fails_when_the_reading_cannot_be_committed)
{
    statement_trace trace;
    refuse_commit refusal;
    EXPECT_REPORTS(_db.update_cache_size(1048576), -1, step_and_reset_report(9, "interrupted"));
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "PRAGMA page_size", "COMMIT", "ROLLBACK"}));
    EXPECT_FALSE(in_transaction());
}

TEST_F(database_update_cache_size, fails_when_the_cache_cannot_be_set)
{
    deny_prepare denial("PRAGMA cache_size=256");
    EXPECT_REPORTS(_db.update_cache_size(1048576), -1, prepare_report("no such column: denied"));
}

// checkpoint -----------------------------------------------------------------------------------

class database_checkpoint : public database_fixture {
protected:
    void SetUp() override {}

    // A file in WAL mode whose table is in its log only, where nothing but a checkpoint takes it
    // from; `_other` keeps the log from ending with a connection.
    void make_log()
    {
        ASSERT_EQ(sqlite3_open_v2(_file.c_str(), &_other,
                                  SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr),
                  SQLITE_OK);
        run_raw(_other,
                "PRAGMA page_size = 4096; PRAGMA journal_mode = WAL;"
                "PRAGMA wal_autocheckpoint = 0; CREATE TABLE t(a)");
    }

    void TearDown() override { sqlite3_close(_other); }

    // SQLite looks for a log when it reads the file, and a checkpoint needs to know of it.
    void open_and_read(const open_args& args = {})
    {
        ASSERT_EQ(open(args), 0);
        ASSERT_EQ(raw("SELECT count(*) FROM t"), "0");
    }

    // The schema and the table have a page each. Asked without opening the file.
    bool is_checkpointed() const
    {
        const auto size = std::filesystem::file_size(_file);
        EXPECT_TRUE(size == 4096 || size == 8192) << size;
        return size == 8192;
    }

    sqlite3* _other = nullptr;
};

TEST_F(database_checkpoint, writes_the_log_into_the_file)
{
    make_log();
    open_and_read();
    EXPECT_FALSE(is_checkpointed());
    EXPECT_QUIET(_db.checkpoint(), 0);
    EXPECT_TRUE(is_checkpointed());
}

TEST_F(database_checkpoint, works_beside_temporary_storage_in_memory)
{
    make_log();
    open_args args;
    args._temp_in_memory = true;
    open_and_read(args);
    EXPECT_QUIET(_db.checkpoint(), 0);
    EXPECT_TRUE(is_checkpointed());
}

TEST_F(database_checkpoint, is_not_done_without_wal)
{
    make_log();
    open_args args;
    args._wal = false;
    open_and_read(args);
    EXPECT_QUIET(_db.checkpoint(), 0);
    EXPECT_FALSE(is_checkpointed());
}

TEST_F(database_checkpoint, is_not_done_read_only)
{
    make_log();
    open_args args;
    args._read_only = true;
    open_and_read(args);
    EXPECT_QUIET(_db.checkpoint(), 0);
    EXPECT_FALSE(is_checkpointed());
}

TEST_F(database_checkpoint, fails_with_1_inside_a_writing_transaction)
{
    make_log();
    open_and_read();
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.exec("INSERT INTO t VALUES(1)", STMT_FRESH, ROW_NONE), 0);
    EXPECT_REPORTS(_db.checkpoint(), 1, std::string(CHECKPOINT) + ": can't checkpoint database\n");
    EXPECT_EQ(_db.end_transaction(), 0);
    EXPECT_QUIET(_db.checkpoint(), 0);
}

TEST_F(database_checkpoint, fails_with_1_while_another_process_checkpoints)
{
    make_log();
    open_and_read();
    busy_lock lock(_file, busy_lock::CHECKPOINTER);
    EXPECT_REPORTS(_db.checkpoint(), 1, std::string(CHECKPOINT) + ": can't checkpoint database\n");
    EXPECT_FALSE(is_checkpointed());
}

// checkpoint_config ----------------------------------------------------------------------------

class database_checkpoint_config : public database_fixture {
protected:
    void SetUp() override {}
};

TEST_F(database_checkpoint_config, sets_the_number_of_pages)
{
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(raw("PRAGMA wal_autocheckpoint"), "1000");
    for (const int pages : {77, 1, 0}) {
        EXPECT_QUIET(_db.checkpoint_config(pages), 0);
        EXPECT_EQ(raw("PRAGMA wal_autocheckpoint"), std::to_string(pages));
    }
}

TEST_F(database_checkpoint_config, works_beside_temporary_storage_in_memory)
{
    open_args args;
    args._temp_in_memory = true;
    ASSERT_EQ(open(args), 0);
    EXPECT_QUIET(_db.checkpoint_config(77), 0);
    EXPECT_EQ(raw("PRAGMA wal_autocheckpoint"), "77");
}

TEST_F(database_checkpoint_config, does_nothing_without_wal)
{
    open_args args;
    args._wal = false;
    ASSERT_EQ(open(args), 0);
    EXPECT_QUIET(_db.checkpoint_config(77), 0);
    EXPECT_EQ(raw("PRAGMA wal_autocheckpoint"), "1000");
}

TEST_F(database_checkpoint_config, does_nothing_read_only)
{
    run_sql(_file, "CREATE TABLE t(a)");
    open_args args;
    args._read_only = true;
    ASSERT_EQ(open(args), 0);
    EXPECT_QUIET(_db.checkpoint_config(77), 0);
    EXPECT_EQ(raw("PRAGMA wal_autocheckpoint"), "1000");
}

TEST_F(database_checkpoint_config, fails_with_1)
{
    ASSERT_EQ(open(), 0);
    refuse_autocheckpoint = true;
    EXPECT_REPORTS(_db.checkpoint_config(77), 1,
                   std::string(CHECKPOINT_CONFIG) + ": can't set autocheckpoint (77)\n");
    EXPECT_REPORTS(_db.checkpoint_config(-1), 1,
                   std::string(CHECKPOINT_CONFIG) + ": can't set autocheckpoint (-1)\n");
    refuse_autocheckpoint = false;
}

// The raw handle -------------------------------------------------------------------------------

using database_handle = database_fixture;

TEST_F(database_handle, leads_to_the_connection)
{
    run_raw(*_db, "CREATE TABLE t(a)");
    EXPECT_QUIET(_db.exec("INSERT INTO t VALUES(1)", STMT_FRESH, ROW_NONE), 0);
    EXPECT_EQ(run_raw(*_db, "SELECT a FROM t"), "1");
    EXPECT_EQ(sqlite3_db_filename(*_db, "main"), std::filesystem::absolute(_file).string());
}

// stmt_wrapper_t -------------------------------------------------------------------------------

class statement_wrapper : public database_fixture {
protected:
    // A statement that has been given a value and stands on its first row.
    stmt_ptr_t used_statement()
    {
        const stmt_ptr_t stmt = _db.stmt("SELECT ? UNION ALL SELECT 2", STMT_FRESH);
        EXPECT_EQ(stmt->bind(1, int64_t(1)), 0);
        EXPECT_EQ(stmt->step(), 1);
        return stmt;
    }

    // Whether it starts at its first row without a value.
    static bool is_reset(CStatement& stmt)
    {
        int64_t out = 42;
        return stmt.step() == 1 && stmt.column(0, out, NULL_OK) == 0 && out == -1;
    }
};

TEST_F(statement_wrapper, resets_at_its_end)
{
    const stmt_ptr_t stmt = used_statement();
    {
        const stmt_wrapper_t wrapper(stmt);
        EXPECT_EQ(stmt.use_count(), 2);
    }
    EXPECT_EQ(stmt.use_count(), 1);
    EXPECT_FALSE(any_busy(_db));
    EXPECT_TRUE(is_reset(*stmt));
}

TEST_F(statement_wrapper, assignment_resets_what_was_held_and_not_what_comes)
{
    const stmt_ptr_t first = used_statement();
    const stmt_ptr_t second = used_statement();
    stmt_wrapper_t wrapper(first);
    wrapper = second;
    EXPECT_EQ(wrapper.get(), second);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_TRUE(is_reset(*first));

    int64_t out = 42;
    EXPECT_EQ(second->column(0, out, NULL_NOT_OK), 0);
    EXPECT_EQ(out, 1);
}

TEST_F(statement_wrapper, assignment_of_the_same_statement_resets_it)
{
    const stmt_ptr_t stmt = used_statement();
    stmt_wrapper_t wrapper;
    wrapper = stmt;
    wrapper = stmt;
    EXPECT_EQ(wrapper.get(), stmt);
    EXPECT_TRUE(is_reset(*stmt));
}

TEST_F(statement_wrapper, assignment_of_nothing_resets_and_lets_go)
{
    const stmt_ptr_t stmt = used_statement();
    stmt_wrapper_t wrapper(stmt);
    wrapper = stmt_ptr_t();
    EXPECT_FALSE(wrapper);
    EXPECT_EQ(stmt.use_count(), 1);
    EXPECT_TRUE(is_reset(*stmt));
}

TEST_F(statement_wrapper, empty_one_does_nothing)
{
    EXPECT_EQ(capture_stderr([] {
                  stmt_wrapper_t wrapper;
                  EXPECT_FALSE(wrapper);
                  wrapper = stmt_ptr_t();
                  EXPECT_FALSE(stmt_wrapper_t(stmt_ptr_t()));
              }),
              "");
}

TEST_F(statement_wrapper, goes_on_when_the_reset_repeats_a_failure)
{
    const stmt_ptr_t failing = _db.stmt(OVERFLOW, STMT_FRESH);
    const stmt_ptr_t next = _db.stmt("SELECT 1", STMT_FRESH);
    EXPECT_EQ(capture_stderr([&] {
                  stmt_wrapper_t wrapper(failing);
                  EXPECT_EQ(wrapper->step(), -1);
                  wrapper = next;
                  EXPECT_EQ(wrapper.get(), next);
                  wrapper = failing;
                  EXPECT_EQ((*wrapper).step(), -1);
              }),
              step_and_reset_report(1, "integer overflow") +
                  step_and_reset_report(1, "integer overflow"));
}

TEST_F(statement_wrapper, pooled_statement_is_clean_for_its_next_user)
{
    {
        const stmt_wrapper_t user(_db.stmt("SELECT ? UNION ALL SELECT 2", STMT_POOLED));
        ASSERT_EQ(user->bind(1, int64_t(1)), 0);
        ASSERT_EQ(user->step(), 1);
    }
    const stmt_wrapper_t next(_db.stmt("SELECT ? UNION ALL SELECT 2", STMT_POOLED));
    EXPECT_TRUE(is_reset(*next));
}

}  // namespace
}  // namespace toolkit::trend
