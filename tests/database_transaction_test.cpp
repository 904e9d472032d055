#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "database.h"
#include "database_fixture.h"
#include "faults.h"
#include "trace.h"

namespace {

// Makes allocations fail while it lives: from the n-th (from 1) on, or that one only.
class out_of_memory {
public:
    enum how_long_t { ONCE, FOR_GOOD };

    out_of_memory(int n, how_long_t how_long) : _left(n), _how_long(how_long) { active = this; }
    ~out_of_memory() { active = nullptr; }

    out_of_memory(const out_of_memory&) = delete;
    out_of_memory& operator=(const out_of_memory&) = delete;

    bool struck() const { return _left <= 0; }

    static bool strikes()
    {
        if (active == nullptr) return false;
        --active->_left;
        return active->_how_long == ONCE ? active->_left == 0 : active->_left <= 0;
    }

private:
    static out_of_memory* active;

    int _left;
    how_long_t _how_long;
};

out_of_memory* out_of_memory::active = nullptr;

}  // namespace

// The whole program allocates here, the library included. Not inlined, or a compiler would see
// free() behind what came from new.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const memory = out_of_memory::strikes() ? nullptr : std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace toolkit::trend {
namespace {

const char* const BEGIN_TRANSACTION = "int toolkit::trend::CDatabase::begin_transaction()";
const char* const END_TRANSACTION = "int toolkit::trend::CDatabase::end_transaction()";
const char* const ROLLBACK_TRANSACTION = "void toolkit::trend::CDatabase::rollback_transaction()";
const char* const GET_INTVAL =
    "int toolkit::trend::CDatabase::get_intval(const tk_string&, int64_t&, bool, bool)";
const char* const NO_LEVEL = "_nest_lvl>0";

const std::string NESTED_BEGIN =
    step_and_reset_report(1, "cannot start a transaction within a transaction");
const std::string DENIED = prepare_report("no such column: denied");

// Makes every prepare of these texts fail.
class deny_always : public sqlite_watch {
public:
    explicit deny_always(texts_t texts) : _texts(std::move(texts)) {}

    bool denies(const std::string& sql) override
    {
        return std::find(_texts.begin(), _texts.end(), sql) != _texts.end();
    }

private:
    texts_t _texts;
};

// A connection with a table and nothing in its pool yet.
class transaction_fixture : public database_fixture {
protected:
    void SetUp() override
    {
        database_fixture::SetUp();
        raw("PRAGMA foreign_keys = ON; CREATE TABLE t(a); CREATE TABLE p(id INTEGER PRIMARY KEY);"
            "CREATE TABLE c(p REFERENCES p DEFERRABLE INITIALLY DEFERRED)");
    }

    void insert(int value)
    {
        const std::string sql = "INSERT INTO t VALUES(" + std::to_string(value) + ")";
        ASSERT_EQ(_db.exec(sql, STMT_FRESH, ROW_NONE), 0);
    }

    // A row that cannot be committed.
    void insert_orphan()
    {
        ASSERT_EQ(_db.exec("INSERT INTO c VALUES(9)", STMT_FRESH, ROW_NONE), 0);
    }

    std::string stored() const { return rows("SELECT a FROM t"); }

    // Whether no level is open, nor a transaction in SQLite: one pair commits.
    bool at_level_0()
    {
        const bool before = in_transaction();
        const int begun = _db.begin_transaction();
        const bool inside = in_transaction();
        return !before && begun == 0 && inside && _db.end_transaction() == 0 && !in_transaction();
    }
};

// Levels ---------------------------------------------------------------------------------------

using database_transaction = transaction_fixture;

TEST_F(database_transaction, only_the_outermost_level_begins_and_commits)
{
    statement_trace trace;
    for (int i = 0; i < 3; ++i)
        EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_EQ(trace.texts(), texts_t{"BEGIN"});
    for (int i = 0; i < 2; ++i)
        EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(trace.texts(), texts_t{"BEGIN"});
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "COMMIT"}));
}

TEST_F(database_transaction, nothing_is_committed_before_the_outermost_end)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    ASSERT_EQ(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "");
    ASSERT_EQ(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "1");
}

TEST_F(database_transaction, inner_rollback_leaves_its_work_to_the_outer_level)
{
    statement_trace trace;
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    _db.rollback_transaction();
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "INSERT INTO t VALUES(1)", "COMMIT"}));
    EXPECT_EQ(stored(), "1");
}

TEST_F(database_transaction, outermost_rollback_undoes_everything)
{
    statement_trace trace;
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    ASSERT_EQ(_db.end_transaction(), 0);
    EXPECT_EQ(capture_stderr([&] { _db.rollback_transaction(); }), "");
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "INSERT INTO t VALUES(1)", "ROLLBACK"}));
    EXPECT_EQ(stored(), "");
    EXPECT_TRUE(at_level_0());
}

TEST_F(database_transaction, inner_and_outer_rollback_undo_everything_once)
{
    statement_trace trace;
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    _db.rollback_transaction();
    _db.rollback_transaction();
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "ROLLBACK"}));
    EXPECT_TRUE(at_level_0());
}

TEST_F(database_transaction, statements_of_the_levels_are_pooled)
{
    statement_trace trace;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(_db.begin_transaction(), 0);
        ASSERT_EQ(_db.end_transaction(), 0);
        ASSERT_EQ(_db.begin_transaction(), 0);
        _db.rollback_transaction();
    }
    EXPECT_EQ(trace.prepared(), (texts_t{"BEGIN", "COMMIT", "ROLLBACK"}));
}

TEST_F(database_transaction, level_that_was_not_begun_cannot_be_closed)
{
    EXPECT_STOPS_IN(_db.end_transaction(), END_TRANSACTION, NO_LEVEL);
    EXPECT_STOPS_IN(_db.rollback_transaction(), ROLLBACK_TRANSACTION, NO_LEVEL);
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.end_transaction(), 0);
    EXPECT_STOPS_IN(_db.end_transaction(), END_TRANSACTION, NO_LEVEL);
    EXPECT_STOPS_IN(_db.rollback_transaction(), ROLLBACK_TRANSACTION, NO_LEVEL);
}

TEST_F(database_transaction, commit_waits_for_a_reader)
{
    const std::string file = "rollback.db";
    open_args args;
    args._wal = false;
    ASSERT_EQ(open(file, args), 0);
    raw("CREATE TABLE t(a)");

    class reader : public sqlite_watch {
    public:
        explicit reader(const std::string& name)
        {
            if (sqlite3_open(name.c_str(), &_reader) == SQLITE_OK)
                run_raw(_reader, "BEGIN; SELECT count(*) FROM t");
        }
        ~reader() override { sqlite3_close(_reader); }
        void after_step(sqlite3_stmt* stmt, int result) override
        {
            if (result != SQLITE_BUSY) return;
            EXPECT_EQ(std::string(sqlite3_sql(stmt)), "COMMIT");
            if (++_busy == 100) run_raw(_reader, "COMMIT");
        }
        int _busy = 0;

    private:
        sqlite3* _reader = nullptr;
    } other(file);

    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(other._busy, 100);
    EXPECT_EQ(::rows(file, "SELECT a FROM t"), "1");
}

// A BEGIN that fails ---------------------------------------------------------------------------

using database_begin = transaction_fixture;

TEST_F(database_begin, failure_leaves_the_level)
{
    deny_prepare denial("BEGIN");
    EXPECT_REPORTS(_db.begin_transaction(), -1, DENIED);
    EXPECT_TRUE(at_level_0());
    deny_prepare second_denial("BEGIN");
    ASSERT_EQ(open(), 0);
    capture_stderr([&] { EXPECT_EQ(_db.begin_transaction(), -1); });
    EXPECT_STOPS_IN(_db.end_transaction(), END_TRANSACTION, NO_LEVEL);
}

TEST_F(database_begin, transaction_of_the_host_is_neither_joined_nor_ended)
{
    raw("BEGIN; INSERT INTO t VALUES(1)");
    EXPECT_REPORTS(_db.begin_transaction(), -1, NESTED_BEGIN);
    EXPECT_REPORTS(_db.begin_transaction(), -1, NESTED_BEGIN);
    EXPECT_TRUE(in_transaction());
    raw("COMMIT");
    EXPECT_EQ(stored(), "1");
    EXPECT_TRUE(at_level_0());
}

// Each of these ends, or has lost, the transaction that it began itself.
TEST_F(database_begin, transaction_of_the_host_is_left_alone_after_own_ones)
{
    const std::function<void()> committed = [&] { EXPECT_EQ(_db.end_transaction(), 0); };
    const std::function<void()> rolled_back = [&] { _db.rollback_transaction(); };
    const std::function<void()> refused = [&] {
        insert_orphan();
        EXPECT_EQ(_db.end_transaction(), -1);
    };
    const std::function<void()> dropped_and_committed = [&] {
        raw("ROLLBACK");
        EXPECT_EQ(_db.end_transaction(), -1);
    };
    const std::function<void()> dropped_and_rolled_back = [&] {
        raw("ROLLBACK");
        _db.rollback_transaction();
    };
    for (const auto& end :
         {committed, rolled_back, refused, dropped_and_committed, dropped_and_rolled_back}) {
        ASSERT_EQ(_db.begin_transaction(), 0);
        capture_stderr(end);

        raw("BEGIN; INSERT INTO t VALUES(1)");
        EXPECT_REPORTS(_db.begin_transaction(), -1, NESTED_BEGIN);
        EXPECT_TRUE(in_transaction());
        raw("COMMIT");
        EXPECT_EQ(stored(), "1");
        raw("DELETE FROM t");
    }
}

// A COMMIT that fails --------------------------------------------------------------------------

using database_commit = transaction_fixture;

TEST_F(database_commit, failure_rolls_back_and_closes_the_level)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    insert_orphan();
    statement_trace trace;
    EXPECT_REPORTS(_db.end_transaction(), -1,
                   step_and_reset_report(787, "FOREIGN KEY constraint failed"));
    EXPECT_EQ(trace.texts(), (texts_t{"COMMIT", "ROLLBACK"}));
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(stored(), "");
    EXPECT_EQ(rows("SELECT p FROM c"), "");
}

TEST_F(database_commit, failure_must_not_be_rolled_back_again)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert_orphan();
    capture_stderr([&] { EXPECT_EQ(_db.end_transaction(), -1); });
    EXPECT_STOPS_IN(_db.rollback_transaction(), ROLLBACK_TRANSACTION, NO_LEVEL);
}

TEST_F(database_commit, next_transaction_after_a_failure_works)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert_orphan();
    capture_stderr([&] { EXPECT_EQ(_db.end_transaction(), -1); });

    statement_trace trace;
    EXPECT_QUIET(_db.begin_transaction(), 0);
    insert(2);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "INSERT INTO t VALUES(2)", "COMMIT"}));
    EXPECT_EQ(stored(), "2");
}

TEST_F(database_commit, inner_end_does_not_fail)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert_orphan();
    EXPECT_QUIET(_db.end_transaction(), 0);
    ASSERT_EQ(_db.exec("INSERT INTO p VALUES(9)", STMT_FRESH, ROW_NONE), 0);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT p FROM c"), "9");
}

TEST_F(database_commit, transaction_that_sqlite_has_ended_is_not_rolled_back_again)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    refuse_commit refusal;
    statement_trace trace;
    EXPECT_REPORTS(_db.end_transaction(), -1, step_and_reset_report(531, "constraint failed"));
    EXPECT_EQ(trace.texts(), texts_t{"COMMIT"});
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(stored(), "");
}

TEST_F(database_commit, that_cannot_be_prepared_is_rolled_back)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    deny_prepare denial("COMMIT");
    statement_trace trace;
    EXPECT_REPORTS(_db.end_transaction(), -1, DENIED);
    EXPECT_EQ(trace.texts(), texts_t{"ROLLBACK"});
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(stored(), "");
}

// A ROLLBACK that fails ------------------------------------------------------------------------

class database_rollback : public transaction_fixture {
protected:
    // An own transaction that stays open in SQLite.
    void leave_one_open()
    {
        ASSERT_EQ(_db.begin_transaction(), 0);
        insert(1);
        deny_prepare denial("ROLLBACK");
        EXPECT_EQ(capture_stderr([&] { _db.rollback_transaction(); }), DENIED);
        ASSERT_TRUE(in_transaction());
    }
};

TEST_F(database_rollback, is_made_up_for_before_the_next_begin)
{
    leave_one_open();
    statement_trace trace;
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"ROLLBACK", "BEGIN"}));
    insert(2);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "2");
    EXPECT_TRUE(at_level_0());
}

TEST_F(database_rollback, is_made_up_for_only_once)
{
    leave_one_open();
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.end_transaction(), 0);

    raw("BEGIN; INSERT INTO t VALUES(3)");
    EXPECT_REPORTS(_db.begin_transaction(), -1, NESTED_BEGIN);
    raw("COMMIT");
    EXPECT_EQ(stored(), "3");
}

TEST_F(database_rollback, is_made_up_for_after_a_commit_too)
{
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    {
        const deny_always denial({"COMMIT", "ROLLBACK"});
        EXPECT_REPORTS(_db.end_transaction(), -1, DENIED + DENIED);
    }
    EXPECT_TRUE(in_transaction());
    EXPECT_STOPS_IN(_db.rollback_transaction(), ROLLBACK_TRANSACTION, NO_LEVEL);

    statement_trace trace;
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"ROLLBACK", "BEGIN"}));
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "");
}

TEST_F(database_rollback, keeps_the_next_begin_from_working_until_it_does)
{
    leave_one_open();
    {
        const deny_always denial({"ROLLBACK"});
        int result = 0;
        capture_stderr([&] { result = _db.begin_transaction(); });
        EXPECT_NE(result, 0);
        EXPECT_TRUE(in_transaction());
        EXPECT_STOPS_IN(_db.end_transaction(), END_TRANSACTION, NO_LEVEL);
    }
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "");
}

TEST_F(database_rollback, that_the_host_has_made_up_for_is_not_repeated)
{
    leave_one_open();
    raw("ROLLBACK");
    EXPECT_QUIET(_db.begin_transaction(), 0);
    insert(2);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "2");
}

TEST_F(database_rollback, that_the_host_has_made_up_for_is_not_owed_any_more)
{
    leave_one_open();
    raw("ROLLBACK");
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.end_transaction(), 0);

    raw("BEGIN; INSERT INTO t VALUES(3)");
    EXPECT_REPORTS(_db.begin_transaction(), -1, NESTED_BEGIN);
    raw("COMMIT");
    EXPECT_EQ(stored(), "3");
}

TEST_F(database_rollback, is_forgotten_by_the_next_open)
{
    leave_one_open();
    ASSERT_EQ(open(), 0);
    raw("BEGIN; INSERT INTO t VALUES(3)");
    EXPECT_REPORTS(_db.begin_transaction(), -1, NESTED_BEGIN);
    raw("COMMIT");
    EXPECT_EQ(stored(), "3");
}

TEST_F(database_rollback, of_an_inner_level_owes_nothing)
{
    const deny_always denial({"ROLLBACK"});
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    EXPECT_EQ(capture_stderr([&] { _db.rollback_transaction(); }), "");
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "1");
}

// Memory that runs out -------------------------------------------------------------------------

class transaction_without_memory : public transaction_fixture {
protected:
    // What the call writes and whether it was hit, when its n-th allocation fails.
    template <typename Call>
    bool without_memory(int n, out_of_memory::how_long_t how_long, const Call& call)
    {
        bool struck = false;
        _written = capture_stderr([&] {
            const out_of_memory fault(n, how_long);
            call();
            struck = fault.struck();
        });
        return struck;
    }

    // Whether all that was written is this function saying that there is no memory.
    bool reported_once_by(const std::string& function) const
    {
        return _written == function + ": Error: out of memory\n";
    }

    std::string _written;
};

TEST_F(transaction_without_memory, begin_fails_and_leaves_the_level)
{
    int n = 1;
    for (int result = -1;; ++n) {
        ASSERT_EQ(open(), 0);  // with an empty pool
        if (!without_memory(n, out_of_memory::ONCE, [&] { result = _db.begin_transaction(); }))
            break;
        EXPECT_EQ(result, -1) << n;
        EXPECT_TRUE(reported_once_by(BEGIN_TRANSACTION)) << n << ": " << _written;
        EXPECT_TRUE(at_level_0()) << n;
    }
    EXPECT_GT(n, 1);
    EXPECT_QUIET(_db.end_transaction(), 0);
}

TEST_F(transaction_without_memory, end_fails_and_rolls_back)
{
    int n = 1;
    for (int result = -1;; ++n) {
        ASSERT_EQ(open(), 0);
        ASSERT_EQ(_db.begin_transaction(), 0);
        insert(1);
        if (!without_memory(n, out_of_memory::ONCE, [&] { result = _db.end_transaction(); })) break;
        EXPECT_EQ(result, -1) << n;
        EXPECT_TRUE(reported_once_by(END_TRANSACTION)) << n << ": " << _written;
        EXPECT_TRUE(at_level_0()) << n;
        EXPECT_EQ(stored(), "") << n;
    }
    EXPECT_GT(n, 1);
    EXPECT_EQ(stored(), "1");
}

TEST_F(transaction_without_memory, end_that_cannot_roll_back_either_owes_it)
{
    int result = 0;
    ASSERT_EQ(_db.begin_transaction(), 0);
    insert(1);
    ASSERT_TRUE(
        without_memory(1, out_of_memory::FOR_GOOD, [&] { result = _db.end_transaction(); }));
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(in_transaction());

    statement_trace trace;
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"ROLLBACK", "BEGIN"}));
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(stored(), "");
}

TEST_F(transaction_without_memory, rollback_that_fails_is_owed)
{
    int n = 1;
    for (;; ++n) {
        ASSERT_EQ(open(), 0);
        ASSERT_EQ(_db.begin_transaction(), 0);
        insert(1);
        if (!without_memory(n, out_of_memory::ONCE, [&] { _db.rollback_transaction(); })) break;
        EXPECT_TRUE(reported_once_by(ROLLBACK_TRANSACTION)) << n << ": " << _written;

        statement_trace trace;
        EXPECT_QUIET(_db.begin_transaction(), 0);
        EXPECT_EQ(trace.texts(), (texts_t{"ROLLBACK", "BEGIN"})) << n;
        EXPECT_QUIET(_db.end_transaction(), 0);
        EXPECT_EQ(stored(), "") << n;
    }
    EXPECT_GT(n, 1);
    EXPECT_EQ(_written, "");
    EXPECT_TRUE(at_level_0());
}

TEST_F(transaction_without_memory, get_intval_fails_and_closes_its_level)
{
    int n = 1;
    for (;; ++n) {
        ASSERT_EQ(open(), 0);
        ASSERT_TRUE(at_level_0());  // BEGIN and COMMIT are in the pool
        const tk_string sql = "SELECT 1 -- in a text that has no room in itself";
        int64_t out = 42;
        int result = 0;
        if (!without_memory(n, out_of_memory::ONCE,
                            [&] { result = _db.get_intval(sql, out, STMT_POOLED, NULL_NOT_OK); }))
            break;
        EXPECT_EQ(result, -1) << n;
        EXPECT_TRUE(reported_once_by(GET_INTVAL)) << n << ": " << _written;
        EXPECT_TRUE(at_level_0()) << n;
        EXPECT_EQ(out, 42) << n;
    }
    EXPECT_GT(n, 1);
    EXPECT_EQ(_written, "");
}

TEST_F(transaction_without_memory, pool_without_room_lets_no_transaction_begin)
{
    open_args args;
    args._pool_capacity = 0;
    ASSERT_EQ(open(args), 0);
    EXPECT_REPORTS(_db.begin_transaction(), -1,
                   std::string(BEGIN_TRANSACTION) + ": Error: invalid pool capacity\n");
    EXPECT_FALSE(in_transaction());
    EXPECT_STOPS_IN(_db.end_transaction(), END_TRANSACTION, NO_LEVEL);
}

}  // namespace
}  // namespace toolkit::trend
