#include "stmt.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "database.h"
#include "database_fixture.h"
#include "faults.h"
#include "sqlite_memory.h"

namespace {

int yields = 0;
bool refuse_to_clear = false;

}  // namespace

// These stand before the system's own: the first counts, the second can fail, as SQLite's own never
// does.
extern "C" int sched_yield() noexcept
{
    ++yields;
    return 0;
}

extern "C" int sqlite3_clear_bindings(sqlite3_stmt* stmt)
{
    if (refuse_to_clear) return SQLITE_NOMEM;
    void* const symbol = dlsym(RTLD_NEXT, "sqlite3_clear_bindings");
    int (*clear)(sqlite3_stmt*) = nullptr;
    std::memcpy(&clear, &symbol, sizeof clear);
    return clear(stmt);
}

namespace toolkit::trend {
namespace {

const char* const PREPARE = "int toolkit::trend::CStatement::prepare(const tk_string&)";
const char* const BIND_INT = "int toolkit::trend::CStatement::bind(size_t, int64_t)";
const char* const BIND_TEXT = "int toolkit::trend::CStatement::bind(size_t, const tk_string&)";
const char* const BIND_DOUBLE = "int toolkit::trend::CStatement::bind(size_t, double)";
const char* const BIND_NULL = "int toolkit::trend::CStatement::bind(size_t)";
const char* const BIND_OPTIONAL =
    "int toolkit::trend::CStatement::bind(size_t, const toolkit::trend::COptVal&)";
const char* const RESET = "int toolkit::trend::CStatement::reset()";
const char* const STEP = "int toolkit::trend::CStatement::step()";
const char* const COLUMN_INT =
    "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const";
const char* const COLUMN_DOUBLE =
    "int toolkit::trend::CStatement::column(size_t, double&, bool) const";
const char* const COLUMN_TEXT =
    "int toolkit::trend::CStatement::column(size_t, tk_string&, bool) const";
const char* const COLUMN_OPTIONAL =
    "int toolkit::trend::CStatement::column(size_t, toolkit::trend::COptVal&) const";

const COptVal ABSENT;

static_assert(!std::is_copy_constructible<CStatement>::value, "one owner of the SQLite statement");
static_assert(!std::is_copy_assignable<CStatement>::value, "one owner of the SQLite statement");

class statement_fixture : public database_fixture {
protected:
    // A statement that stands on its first row.
    stmt_ptr_t row(const std::string& sql)
    {
        const stmt_ptr_t stmt = _db.stmt(sql, STMT_FRESH);
        EXPECT_EQ(stmt->step(), 1);
        return stmt;
    }

    // Steps to the only row and gives its text, for "SELECT typeof(?1) || ..." and the like.
    std::string only_text(CStatement& stmt)
    {
        tk_string text = "no row";
        EXPECT_EQ(stmt.step(), 1);
        EXPECT_EQ(stmt.column(0, text, true), 0);
        return text;
    }
};

// prepare --------------------------------------------------------------------------------------

using statement_prepare = statement_fixture;

TEST_F(statement_prepare, makes_a_statement_that_runs)
{
    CStatement stmt("SELECT 1", _db);
    EXPECT_TRUE(stmt.is_prepared());
    EXPECT_EQ(stmt.step(), 1);
}

TEST_F(statement_prepare, reports_a_syntax_error_and_leaves_no_statement)
{
    EXPECT_REPORTS(
        CStatement("SELEC 1", _db).is_prepared(), false,
        std::string(PREPARE) + ": sqlite3_prepare(): 1 (near \"SELEC\": syntax error)\n");
}

TEST_F(statement_prepare, reports_a_missing_table)
{
    EXPECT_REPORTS(CStatement("SELECT * FROM nowhere", _db).is_prepared(), false,
                   std::string(PREPARE) + ": sqlite3_prepare(): 1 (no such table: nowhere)\n");
}

TEST_F(statement_prepare, returns_whether_it_could)
{
    CStatement stmt("SELEC 1", _db);
    EXPECT_REPORTS(stmt.prepare("SELECT (1"), -1, prepare_report("incomplete input"));
    EXPECT_FALSE(stmt.is_prepared());
    EXPECT_QUIET(stmt.prepare("SELECT 1"), 0);
    EXPECT_TRUE(stmt.is_prepared());
}

TEST_F(statement_prepare, takes_only_the_first_statement_of_a_text)
{
    CStatement stmt("SELECT 'first'; SELEC 'second'", _db);
    EXPECT_EQ(only_text(stmt), "first");
    EXPECT_EQ(stmt.step(), 0);
}

TEST_F(statement_prepare, ends_the_text_at_a_zero_byte)
{
    const tk_string text("SELECT 'short'\0 garbage", 23);
    CStatement stmt(text, _db);
    EXPECT_EQ(only_text(stmt), "short");
}

// SQLite judges the number of bytes that it is told before it looks at them; told none, it would
// say "string or blob too big" here, and nothing at all in the next test.
TEST_F(statement_prepare, tells_sqlite_the_number_of_bytes)
{
    sqlite3_limit(*_db, SQLITE_LIMIT_SQL_LENGTH, 20);
    EXPECT_TRUE(CStatement("SELECT 'of 20 bytes'", _db).is_prepared());
    EXPECT_REPORTS(CStatement("SELECT 'of 21 bytes!'", _db).is_prepared(), false,
                   prepare_report("statement too long", 18));
}

TEST_F(statement_prepare, counts_what_stands_behind_a_zero_byte_too)
{
    sqlite3_limit(*_db, SQLITE_LIMIT_SQL_LENGTH, 20);
    EXPECT_REPORTS(CStatement(tk_string("SELECT 1\0 and garbage", 21), _db).is_prepared(), false,
                   prepare_report("statement too long", 18));
}

TEST_F(statement_prepare, stops_at_a_second_statement)
{
    CStatement stmt("SELECT 1", _db);
    EXPECT_STOPS_IN(stmt.prepare("SELECT 2"), PREPARE, "_stmt==__null");
    EXPECT_STOPS_IN(stmt.prepare(""), PREPARE, "_stmt==__null");
}

TEST_F(statement_prepare, stops_at_an_empty_text)
{
    EXPECT_STOPS_IN(CStatement("", _db), PREPARE, "!str.empty()");
}

TEST_F(statement_prepare, stops_at_a_text_without_a_statement)
{
    EXPECT_STOPS_IN(CStatement("-- nothing to do", _db), PREPARE, "_stmt!=__null");
    EXPECT_STOPS_IN(CStatement(" ; ", _db), PREPARE, "_stmt!=__null");
}

TEST_F(statement_prepare, stops_without_an_open_connection)
{
    CDatabase closed;
    EXPECT_STOPS_IN(CStatement("SELECT 1", closed),
                    "sqlite3* toolkit::trend::CDatabase::operator*()", "_db!=__null");
}

TEST_F(statement_prepare, failed_statement_stops_every_operation)
{
    CStatement stmt("SELEC 1", _db);
    const tk_string text = "text";
    int64_t integer = 0;
    double real = 0.0;
    tk_string out;
    COptVal optional;
    EXPECT_STOPS_IN(stmt.bind(1, int64_t(1)), BIND_INT, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.bind(1, text), BIND_TEXT, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.bind(1, 1.0), BIND_DOUBLE, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.bind(1), BIND_NULL, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.bind(1, ABSENT), BIND_OPTIONAL, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.step(), STEP, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.reset(), RESET, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.column(0, integer, true), COLUMN_INT, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.column(0, real, true), COLUMN_DOUBLE, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.column(0, out, true), COLUMN_TEXT, "_stmt!=__null");
    EXPECT_STOPS_IN(stmt.column(0, optional), COLUMN_OPTIONAL, "_stmt!=__null");
}

TEST_F(statement_prepare, destruction_finalizes)
{
    {
        CStatement stmt("SELECT 1", _db);
        EXPECT_EQ(stmt.step(), 1);
        EXPECT_NE(sqlite3_next_stmt(*_db, nullptr), nullptr);
    }
    EXPECT_EQ(sqlite3_next_stmt(*_db, nullptr), nullptr);
}

TEST_F(statement_prepare, destruction_says_nothing_after_a_failed_step)
{
    EXPECT_REPORTS(CStatement("SELECT abs(-9223372036854775807 - 1)", _db).step(), -1,
                   step_report(1, "integer overflow"));
}

// bind -----------------------------------------------------------------------------------------

using statement_bind = statement_fixture;

TEST_F(statement_bind, integer_keeps_all_64_bits)
{
    CStatement stmt("SELECT typeof(?1) || ' ' || ?1 || ' ' || ?2", _db);
    EXPECT_QUIET(stmt.bind(1, std::numeric_limits<int64_t>::max()), 0);
    EXPECT_QUIET(stmt.bind(2, std::numeric_limits<int64_t>::min()), 0);
    EXPECT_EQ(only_text(stmt), "integer 9223372036854775807 -9223372036854775808");
}

TEST_F(statement_bind, text_keeps_every_byte)
{
    const tk_string text("a\0b", 3);
    CStatement stmt("SELECT typeof(?1) || ' ' || hex(?1)", _db);
    EXPECT_QUIET(stmt.bind(1, text), 0);
    EXPECT_EQ(only_text(stmt), "text 610062");
}

TEST_F(statement_bind, empty_text_is_no_null)
{
    const tk_string text;
    CStatement stmt("SELECT typeof(?1) || ' ' || length(?1)", _db);
    EXPECT_QUIET(stmt.bind(1, text), 0);
    EXPECT_EQ(only_text(stmt), "text 0");
}

TEST_F(statement_bind, text_is_not_copied)
{
    raw("CREATE TABLE t(a)");
    tk_string text = "before";
    CStatement stmt("INSERT INTO t VALUES(?)", _db);
    ASSERT_EQ(stmt.bind(1, text), 0);
    text[0] = 'B';
    ASSERT_EQ(stmt.step(), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "Before");
}

TEST_F(statement_bind, whole_double_stays_a_real)
{
    CStatement stmt("SELECT typeof(?1) || ' ' || ?1", _db);
    EXPECT_QUIET(stmt.bind(1, 2.0), 0);
    EXPECT_EQ(only_text(stmt), "real 2.0");
}

TEST_F(statement_bind, without_a_value_takes_the_value_away)
{
    CStatement stmt("SELECT typeof(?)", _db);
    ASSERT_EQ(stmt.bind(1, int64_t(5)), 0);
    EXPECT_QUIET(stmt.bind(1), 0);
    EXPECT_EQ(only_text(stmt), "null");
}

TEST_F(statement_bind, present_optional_value_is_a_real)
{
    CStatement stmt("SELECT typeof(?1) || ' ' || ?1 || ' ' || ?2", _db);
    EXPECT_QUIET(stmt.bind(1, COptVal(0.0)), 0);
    EXPECT_QUIET(stmt.bind(2, COptVal(std::numeric_limits<double>::infinity())), 0);
    EXPECT_EQ(only_text(stmt), "real 0.0 Inf");
}

TEST_F(statement_bind, absent_optional_value_is_null)
{
    CStatement stmt("SELECT typeof(?)", _db);
    ASSERT_EQ(stmt.bind(1, int64_t(5)), 0);
    EXPECT_QUIET(stmt.bind(1, ABSENT), 0);
    EXPECT_EQ(only_text(stmt), "null");
}

TEST_F(statement_bind, counts_parameters_from_1)
{
    CStatement stmt("SELECT ?1 || '-' || ?2", _db);
    ASSERT_EQ(stmt.bind(2, int64_t(20)), 0);
    ASSERT_EQ(stmt.bind(1, int64_t(10)), 0);
    EXPECT_EQ(only_text(stmt), "10-20");
}

TEST_F(statement_bind, reports_a_parameter_that_is_not_there)
{
    const std::string range = "25 (column index out of range)\n";
    const tk_string text = "text";
    CStatement stmt("SELECT ?", _db);
    for (const size_t idx : {0U, 2U}) {
        EXPECT_REPORTS(stmt.bind(idx, int64_t(1)), -1,
                       std::string(BIND_INT) + ": sqlite3_bind_int64(): " + range);
        EXPECT_REPORTS(stmt.bind(idx, text), -1,
                       std::string(BIND_TEXT) + ": sqlite3_bind_text(): " + range);
        EXPECT_REPORTS(stmt.bind(idx, 1.0), -1,
                       std::string(BIND_DOUBLE) + ": sqlite3_bind_double(): " + range);
        EXPECT_REPORTS(stmt.bind(idx), -1,
                       std::string(BIND_NULL) + ": sqlite3_bind_null(): " + range);
        EXPECT_REPORTS(stmt.bind(idx, COptVal(1.0)), -1,
                       std::string(BIND_OPTIONAL) + ": sqlite3_bind: " + range);
        EXPECT_REPORTS(stmt.bind(idx, ABSENT), -1,
                       std::string(BIND_OPTIONAL) + ": sqlite3_bind: " + range);
    }
}

TEST_F(statement_bind, index_beyond_32_bits_is_not_cut_to_a_valid_one)
{
    if constexpr (sizeof(size_t) > sizeof(uint32_t)) {
        CStatement stmt("SELECT ?", _db);
        const size_t idx = static_cast<size_t>((uint64_t(1) << 32) + 1);
        EXPECT_REPORTS(
            stmt.bind(idx, int64_t(1)), -1,
            std::string(BIND_INT) + ": sqlite3_bind_int64(): 25 (column index out of range)\n");
    }
}

TEST_F(statement_bind, reports_a_statement_that_is_running)
{
    CStatement stmt("SELECT ?", _db);
    ASSERT_EQ(stmt.step(), 1);
    EXPECT_REPORTS(
        stmt.bind(1, int64_t(1)), -1,
        std::string(BIND_INT) + ": sqlite3_bind_int64(): 21 (bad parameter or other API misuse)\n");
}

// step -----------------------------------------------------------------------------------------

class statement_step : public statement_fixture {
protected:
    void SetUp() override
    {
        statement_fixture::SetUp();
        yields = 0;
    }
};

TEST_F(statement_step, gives_1_for_each_row_and_0_at_the_end)
{
    CStatement stmt("SELECT 10 UNION ALL SELECT 20", _db);
    int64_t out = 0;
    EXPECT_QUIET(stmt.step(), 1);
    EXPECT_EQ(stmt.column(0, out, false), 0);
    EXPECT_EQ(out, 10);
    EXPECT_QUIET(stmt.step(), 1);
    EXPECT_EQ(stmt.column(0, out, false), 0);
    EXPECT_EQ(out, 20);
    EXPECT_QUIET(stmt.step(), 0);
}

TEST_F(statement_step, gives_0_for_a_change)
{
    raw("CREATE TABLE t(a)");
    CStatement stmt("INSERT INTO t VALUES(1)", _db);
    EXPECT_QUIET(stmt.step(), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "1");
}

TEST_F(statement_step, failure_is_reported_with_the_extended_code)
{
    raw("PRAGMA foreign_keys = ON;"
        "CREATE TABLE t(a TEXT PRIMARY KEY, b UNIQUE, c REFERENCES t(a), d NOT NULL);"
        "INSERT INTO t VALUES('x', 1, 'x', 1)");
    const auto fails = [&](const std::string& values, const std::string& error) {
        CStatement stmt("INSERT INTO t VALUES(" + values + ")", _db);
        EXPECT_REPORTS(stmt.step(), -1, std::string(STEP) + ": sqlite3_step(): " + error + "\n");
    };
    fails("'x', 2, 'x', 1", "1555 (UNIQUE constraint failed: t.a)");
    fails("'y', 1, 'x', 1", "2067 (UNIQUE constraint failed: t.b)");
    fails("'y', 2, 'z', 1", "787 (FOREIGN KEY constraint failed)");
    fails("'y', 2, 'x', NULL", "1299 (NOT NULL constraint failed: t.d)");
    EXPECT_EQ(rows("SELECT count(*) FROM t"), "1");
}

TEST_F(statement_step, writer_waits_for_another_process)
{
    raw("CREATE TABLE t(a)");
    CStatement stmt("INSERT INTO t VALUES(1)", _db);
    busy_lock lock(_file, busy_lock::WRITER, 60000);

    class let_go : public sqlite_watch {
    public:
        explicit let_go(busy_lock& held) : _held(held) {}
        void after_step(sqlite3_stmt*, int result) override
        {
            EXPECT_EQ(yields, _tries++);
            if (result == SQLITE_BUSY && _tries == 10000) _held.release();
        }
        int _tries = 0;

    private:
        busy_lock& _held;
    } watch(lock);

    EXPECT_QUIET(stmt.step(), 0);
    EXPECT_EQ(watch._tries, 10001);
    EXPECT_EQ(yields, 10000);
    EXPECT_EQ(rows("SELECT a FROM t"), "1");
}

TEST_F(statement_step, reader_waits_for_another_process)
{
    const std::string file = "rollback.db";
    run_sql(file, "CREATE TABLE t(a); INSERT INTO t VALUES(7)");
    open_args args;
    args._wal = false;
    ASSERT_EQ(open(file, args), 0);
    CStatement stmt("SELECT a FROM t", _db);
    busy_lock lock(file, busy_lock::EVERYBODY, 60000);

    class let_go : public sqlite_watch {
    public:
        explicit let_go(busy_lock& held) : _held(held) {}
        void after_step(sqlite3_stmt*, int result) override
        {
            if (result == SQLITE_BUSY && ++_busy == 100) _held.release();
        }
        int _busy = 0;

    private:
        busy_lock& _held;
    } watch(lock);

    int64_t out = 0;
    EXPECT_QUIET(stmt.step(), 1);
    EXPECT_EQ(stmt.column(0, out, false), 0);
    EXPECT_EQ(out, 7);
    EXPECT_EQ(yields, 100);
}

TEST_F(statement_step, stale_snapshot_is_a_failure)
{
    raw("CREATE TABLE t(a); BEGIN; SELECT count(*) FROM t");
    run_sql(_file, "INSERT INTO t VALUES(1)");

    CStatement stmt("INSERT INTO t VALUES(2)", _db);
    EXPECT_REPORTS(stmt.step(), -1, step_report(517, "database is locked"));
    EXPECT_EQ(yields, 0);
    EXPECT_EQ(capture_stderr([&] { EXPECT_EQ(stmt.reset(), -1); }),
              std::string(RESET) + ": sqlite3_reset(): 517 (database is locked)\n");

    raw("ROLLBACK");
    EXPECT_QUIET(stmt.step(), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "1\n2");
}

// Another process that recovers the write-ahead log after a crash: it holds the locks that this
// takes, and the index in shared memory is not valid yet.
class recovering_process {
public:
    explicit recovering_process(const std::string& file)
    {
        const std::string shm = file + "-shm";
        int ready[2];
        int done[2];
        if (pipe(ready) != 0 || pipe(done) != 0) throw std::runtime_error("pipe");
        _child = fork();
        if (_child < 0) throw std::runtime_error("fork");
        if (_child == 0) {
            close(done[1]);
            recover(shm.c_str(), ready[1], done[0]);
        }
        close(ready[1]);
        close(done[0]);
        _done = done[1];
        char begun = 0;
        const bool answered = read(ready[0], &begun, 1) == 1;
        close(ready[0]);
        if (!answered) throw std::runtime_error("no recovery");
    }

    ~recovering_process() { end(); }

    recovering_process(const recovering_process&) = delete;
    recovering_process& operator=(const recovering_process&) = delete;

    void end()
    {
        if (_child < 0) return;
        close(_done);
        waitpid(_child, nullptr, 0);
        _child = -1;
    }

private:
    [[noreturn]] static void recover(const char* shm, int ready, int done)
    {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = 120;  // writer, checkpointer, recovery
        lock.l_len = 3;
        const char no_header[96] = {};
        const int fd = ::open(shm, O_RDWR);
        if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0) _exit(1);
        if (write(fd, no_header, sizeof no_header) != sizeof no_header) _exit(1);
        if (write(ready, "r", 1) != 1) _exit(1);
        char end = 0;
        _exit(read(done, &end, 1) == 0 ? 0 : 1);
    }

    pid_t _child = -1;
    int _done = -1;
};

TEST_F(statement_step, recovery_by_another_process_is_a_failure)
{
    raw("CREATE TABLE t(a); INSERT INTO t VALUES(7)");
    CStatement stmt("SELECT a FROM t", _db);
    recovering_process other(_file);
    EXPECT_REPORTS(stmt.step(), -1, step_report(261, "database is locked"));
    EXPECT_EQ(yields, 0);

    other.end();
    capture_stderr([&] { EXPECT_EQ(stmt.reset(), -1); });
    EXPECT_QUIET(stmt.step(), 1);
}

// reset ----------------------------------------------------------------------------------------

using statement_reset = statement_fixture;

TEST_F(statement_reset, starts_again_at_the_first_row)
{
    CStatement stmt("SELECT 'first' UNION ALL SELECT 'second'", _db);
    ASSERT_EQ(stmt.step(), 1);
    EXPECT_QUIET(stmt.reset(), 0);
    EXPECT_EQ(only_text(stmt), "first");
}

TEST_F(statement_reset, makes_every_parameter_null)
{
    const tk_string text = "text";
    CStatement stmt("SELECT typeof(?) || typeof(?) || typeof(?)", _db);
    ASSERT_EQ(stmt.bind(1, int64_t(1)), 0);
    ASSERT_EQ(stmt.bind(2, text), 0);
    ASSERT_EQ(stmt.bind(3, 1.0), 0);
    EXPECT_EQ(only_text(stmt), "integertextreal");
    EXPECT_QUIET(stmt.reset(), 0);
    EXPECT_EQ(only_text(stmt), "nullnullnull");
}

TEST_F(statement_reset, makes_parameters_null_before_any_step)
{
    CStatement stmt("SELECT typeof(?)", _db);
    ASSERT_EQ(stmt.bind(1, int64_t(1)), 0);
    EXPECT_QUIET(stmt.reset(), 0);
    EXPECT_EQ(only_text(stmt), "null");
}

TEST_F(statement_reset, repeats_the_error_of_the_last_step_and_keeps_the_bindings)
{
    raw("CREATE TABLE t(a INTEGER PRIMARY KEY); INSERT INTO t VALUES(5)");
    CStatement stmt("INSERT INTO t VALUES(?)", _db);
    ASSERT_EQ(stmt.bind(1, int64_t(5)), 0);
    ASSERT_EQ(capture_stderr([&] { ASSERT_EQ(stmt.step(), -1); }),
              step_report(1555, "UNIQUE constraint failed: t.a"));
    EXPECT_REPORTS(
        stmt.reset(), -1,
        std::string(RESET) + ": sqlite3_reset(): 1555 (UNIQUE constraint failed: t.a)\n");

    raw("DELETE FROM t");
    EXPECT_QUIET(stmt.step(), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "5");
}

TEST_F(statement_reset, repeats_an_error_only_once)
{
    raw("CREATE TABLE t(a NOT NULL)");
    CStatement stmt("INSERT INTO t VALUES(?)", _db);
    EXPECT_EQ(capture_stderr([&] {
                  EXPECT_EQ(stmt.step(), -1);
                  EXPECT_EQ(stmt.reset(), -1);
                  EXPECT_EQ(stmt.reset(), 0);
              }),
              step_and_reset_report(1299, "NOT NULL constraint failed: t.a"));
}

TEST_F(statement_reset, reports_bindings_that_cannot_be_cleared)
{
    CStatement stmt("SELECT ?", _db);
    refuse_to_clear = true;
    EXPECT_REPORTS(stmt.reset(), -1,
                   std::string(RESET) + ": sqlite3_clear_bindings(): 7 (not an error)\n");
    refuse_to_clear = false;
    EXPECT_QUIET(stmt.reset(), 0);
}

// column ---------------------------------------------------------------------------------------

using statement_column = statement_fixture;

TEST_F(statement_column, counts_columns_from_0)
{
    const stmt_ptr_t stmt = row("SELECT 10, 20");
    int64_t out = 0;
    EXPECT_QUIET(stmt->column(1, out, false), 0);
    EXPECT_EQ(out, 20);
    EXPECT_QUIET(stmt->column(0, out, false), 0);
    EXPECT_EQ(out, 10);
}

TEST_F(statement_column, integer_keeps_all_64_bits)
{
    const stmt_ptr_t stmt = row("SELECT 9223372036854775807, -9223372036854775807 - 1");
    int64_t out = 0;
    EXPECT_QUIET(stmt->column(0, out, false), 0);
    EXPECT_EQ(out, std::numeric_limits<int64_t>::max());
    EXPECT_QUIET(stmt->column(1, out, true), 0);
    EXPECT_EQ(out, std::numeric_limits<int64_t>::min());
}

TEST_F(statement_column, only_an_integer_is_read_as_one)
{
    for (const std::string value : {"7.0", "'7'", "x'37'"}) {
        const stmt_ptr_t stmt = row("SELECT " + value);
        for (const bool null_ok : {NULL_NOT_OK, NULL_OK}) {
            int64_t out = 42;
            EXPECT_REPORTS(stmt->column(0, out, null_ok), -1,
                           std::string(COLUMN_INT) + ": Column type is non-int\n");
            EXPECT_EQ(out, 42) << value;
        }
    }
}

TEST_F(statement_column, null_is_minus_1_as_an_integer)
{
    const stmt_ptr_t stmt = row("SELECT NULL");
    int64_t out = 42;
    EXPECT_REPORTS(stmt->column(0, out, NULL_NOT_OK), -1,
                   std::string(COLUMN_INT) + ": Column type is non-int\n");
    EXPECT_EQ(out, 42);
    EXPECT_QUIET(stmt->column(0, out, NULL_OK), 0);
    EXPECT_EQ(out, -1);
}

TEST_F(statement_column, real_is_read_as_it_is)
{
    const stmt_ptr_t stmt = row("SELECT 0.1, -9e999");
    double out = 0.0;
    EXPECT_QUIET(stmt->column(0, out, false), 0);
    EXPECT_EQ(out, 0.1);
    EXPECT_QUIET(stmt->column(1, out, true), 0);
    EXPECT_EQ(out, -std::numeric_limits<double>::infinity());
}

TEST_F(statement_column, only_a_real_is_read_as_one)
{
    for (const std::string value : {"7", "'7.5'", "x'37'"}) {
        const stmt_ptr_t stmt = row("SELECT " + value);
        for (const bool null_ok : {NULL_NOT_OK, NULL_OK}) {
            double out = 4.25;
            EXPECT_REPORTS(stmt->column(0, out, null_ok), -1,
                           std::string(COLUMN_DOUBLE) + ": Column type is non-float\n");
            EXPECT_EQ(out, 4.25) << value;
        }
    }
}

TEST_F(statement_column, null_is_0_as_a_real)
{
    const stmt_ptr_t stmt = row("SELECT NULL");
    double out = 4.25;
    EXPECT_REPORTS(stmt->column(0, out, NULL_NOT_OK), -1,
                   std::string(COLUMN_DOUBLE) + ": Column type is non-float\n");
    EXPECT_EQ(out, 4.25);
    EXPECT_QUIET(stmt->column(0, out, NULL_OK), 0);
    EXPECT_EQ(out, 0.0);
}

TEST_F(statement_column, text_replaces_what_was_there)
{
    const stmt_ptr_t stmt = row("SELECT 'pump', ''");
    tk_string out = "something longer";
    EXPECT_QUIET(stmt->column(0, out, false), 0);
    EXPECT_EQ(out, "pump");
    EXPECT_QUIET(stmt->column(1, out, true), 0);
    EXPECT_EQ(out, "");
}

TEST_F(statement_column, text_ends_at_its_first_zero_byte)
{
    const stmt_ptr_t stmt = row("SELECT CAST(x'610062' AS TEXT)");
    tk_string out;
    EXPECT_QUIET(stmt->column(0, out, false), 0);
    EXPECT_EQ(out, tk_string("a"));
}

TEST_F(statement_column, only_text_is_read_as_text)
{
    for (const std::string value : {"7", "7.5", "x'37'"}) {
        const stmt_ptr_t stmt = row("SELECT " + value);
        for (const bool null_ok : {NULL_NOT_OK, NULL_OK}) {
            tk_string out = "kept";
            EXPECT_REPORTS(stmt->column(0, out, null_ok), -1,
                           std::string(COLUMN_TEXT) + ": Column type is non-text\n");
            EXPECT_EQ(out, "kept") << value;
        }
    }
}

TEST_F(statement_column, null_is_empty_as_text)
{
    const stmt_ptr_t stmt = row("SELECT NULL");
    tk_string out = "kept";
    EXPECT_REPORTS(stmt->column(0, out, NULL_NOT_OK), -1,
                   std::string(COLUMN_TEXT) + ": Column type is non-text\n");
    EXPECT_EQ(out, "kept");
    EXPECT_QUIET(stmt->column(0, out, NULL_OK), 0);
    EXPECT_EQ(out, "");
}

// Text of a file in another encoding is converted, into new memory.
TEST(statement_column_without_memory, for_a_text_says_so_and_leaves_what_was_there)
{
    const std::string text(5000, 'x');
    run_sql("utf16.db", "PRAGMA encoding = 'UTF-16le'; CREATE TABLE t(a); INSERT INTO t VALUES('" +
                            text + "')");
    sqlite_memory memory;
    CDatabase db;
    ASSERT_EQ(db.open("utf16.db", 5, false, false, false, 0, 0, 0, false), 0);
    CStatement stmt("SELECT a FROM t", db);
    ASSERT_EQ(stmt.step(), 1);

    tk_string out = "before";
    EXPECT_REPORTS((memory.fail_at(1), stmt.column(0, out, true)), -1,
                   std::string(COLUMN_TEXT) + ": Error: out of memory\n");
    EXPECT_EQ(out, "before");

    EXPECT_REPORTS(stmt.reset(), -1, reset_report(SQLITE_NOMEM, "out of memory"));
    ASSERT_EQ(stmt.step(), 1);
    EXPECT_QUIET(stmt.column(0, out, true), 0);
    EXPECT_EQ(out, text);
}

TEST_F(statement_column, real_is_a_present_optional_value)
{
    const stmt_ptr_t stmt = row("SELECT 0.0, 9e999");
    COptVal out;
    EXPECT_QUIET(stmt->column(0, out), 0);
    ASSERT_TRUE(out);
    EXPECT_EQ(*out, 0.0);
    EXPECT_QUIET(stmt->column(1, out), 0);
    ASSERT_TRUE(out);
    EXPECT_EQ(*out, std::numeric_limits<double>::infinity());
}

TEST_F(statement_column, null_is_an_absent_optional_value)
{
    const stmt_ptr_t stmt = row("SELECT NULL");
    COptVal out = 1.0;
    EXPECT_QUIET(stmt->column(0, out), 0);
    EXPECT_FALSE(out);

    // The quiet NaN without a sign or payload.
    uint64_t bits = 0;
    std::memcpy(&bits, &out._val, sizeof bits);
    EXPECT_EQ(bits, UINT64_C(0x7FF8000000000000));
}

TEST_F(statement_column, other_type_is_reported_and_leaves_the_optional_value_absent)
{
    for (const std::string value : {"7", "'7.5'", "x'37'"}) {
        const stmt_ptr_t stmt = row("SELECT " + value);
        COptVal out = 1.0;
        EXPECT_REPORTS(stmt->column(0, out), -1,
                       std::string(COLUMN_OPTIONAL) + ": Column type is non-float\n");
        EXPECT_FALSE(out) << value;
    }
}

TEST_F(statement_column, absent_value_is_stored_as_null_and_a_present_one_as_real)
{
    raw("CREATE TABLE t(a)");
    for (const COptVal& value : {COptVal(3.0), ABSENT}) {
        CStatement stmt("INSERT INTO t VALUES(?)", _db);
        ASSERT_EQ(stmt.bind(1, value), 0);
        ASSERT_EQ(stmt.step(), 0);
    }
    EXPECT_EQ(rows("SELECT typeof(a) FROM t ORDER BY rowid"), "real\nnull");
}

}  // namespace
}  // namespace toolkit::trend
