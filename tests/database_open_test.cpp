#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "database.h"
#include "database_fixture.h"
#include "faults.h"
#include "trace.h"

namespace {

// Records, while it lives, the statements that the library runs and those of its other calls that
// open() is about. The functions below stand before the system's and SQLite's own and pass each
// call on.
class call_trace : public sqlite_watch {
public:
    call_trace() { active = this; }
    ~call_trace() override { active = nullptr; }

    const texts_t& calls() const { return _calls; }

    void before_step(sqlite3_stmt* stmt) override
    {
        if (sqlite3_stmt_busy(stmt) == 0) _calls.emplace_back(sqlite3_sql(stmt));
    }

    static void add(const std::string& call)
    {
        if (active) active->_calls.push_back(call);
    }

    static call_trace* active;

private:
    texts_t _calls;
};

call_trace* call_trace::active = nullptr;

// The function that sqlite3_create_function() fails to create.
std::string unwanted_function;

template <typename Function>
Function* real(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) std::abort();
    Function* function = nullptr;
    std::memcpy(&function, &symbol, sizeof function);
    return function;
}

std::string octal(mode_t mode)
{
    char text[16];
    std::snprintf(text, sizeof text, "%03o", static_cast<unsigned int>(mode));
    return text;
}

}  // namespace

extern "C" mode_t umask(mode_t mask) noexcept
{
    call_trace::add("umask " + octal(mask));
    return real<mode_t(mode_t)>("umask")(mask);
}

extern "C" int sqlite3_open_v2(const char* name, sqlite3** db, int flags, const char* vfs)
{
    const bool no_mutex = (flags & SQLITE_OPEN_NOMUTEX) != 0;
    call_trace::add("open " + std::string(name) + " with " +
                    std::to_string(flags & ~SQLITE_OPEN_NOMUTEX) +
                    (no_mutex ? " and no mutex" : "") + (vfs == nullptr ? "" : " in a VFS"));
    // SQLite itself creates functions here.
    call_trace* const outside = call_trace::active;
    call_trace::active = nullptr;
    const int result = real<decltype(sqlite3_open_v2)>("sqlite3_open_v2")(name, db, flags, vfs);
    call_trace::active = outside;
    return result;
}

extern "C" int sqlite3_extended_result_codes(sqlite3* db, int on)
{
    call_trace::add("extended codes " + std::to_string(on));
    return real<decltype(sqlite3_extended_result_codes)>("sqlite3_extended_result_codes")(db, on);
}

extern "C" sqlite3_int64 sqlite3_soft_heap_limit64(sqlite3_int64 limit)
{
    call_trace::add("heap limit " + std::to_string(limit));
    return real<decltype(sqlite3_soft_heap_limit64)>("sqlite3_soft_heap_limit64")(limit);
}

extern "C" int sqlite3_create_function(sqlite3* db, const char* name, int args, int encoding,
                                       void* data,
                                       void (*function)(sqlite3_context*, int, sqlite3_value**),
                                       void (*step)(sqlite3_context*, int, sqlite3_value**),
                                       void (*final)(sqlite3_context*))
{
    call_trace::add("create " + std::string(name));
    if (name == unwanted_function) return SQLITE_NOMEM;
    return real<decltype(sqlite3_create_function)>("sqlite3_create_function")(
        db, name, args, encoding, data, function, step, final);
}

namespace toolkit::trend {
namespace {

using testing::ElementsAre;

const char* const OPEN =
    "int toolkit::trend::CDatabase::open(const tk_string&, size_t, bool, bool, bool, size_t, "
    "size_t, size_t, bool)";

// What these tests set for the whole process, put back.
class process_settings {
public:
    process_settings() = default;
    ~process_settings()
    {
        umask(_mask);
        sqlite3_soft_heap_limit64(_heap_limit);
    }

    process_settings(const process_settings&) = delete;
    process_settings& operator=(const process_settings&) = delete;

private:
    static mode_t current_mask()
    {
        const mode_t mask = umask(0);
        umask(mask);
        return mask;
    }

    mode_t _mask = current_mask();
    sqlite3_int64 _heap_limit = sqlite3_soft_heap_limit64(-1);
};

// A connection that is not open yet.
class database_open : public database_fixture {
protected:
    void SetUp() override {}

    // A file in rollback mode with one row.
    void make_file(const std::string& file, int value = 7)
    {
        run_sql(file, "CREATE TABLE t(a); INSERT INTO t VALUES(" + std::to_string(value) + ")");
    }

    static void make_junk(const std::string& file)
    {
        std::ofstream(file) << std::string(5000, 'x');
    }

    static open_args in_rollback_mode()
    {
        open_args args;
        args._wal = false;
        return args;
    }

    // The statements that an open() with these settings runs.
    texts_t run_by(const open_args& args)
    {
        statement_trace trace;
        EXPECT_QUIET(open(args), 0);
        return trace.texts();
    }

private:
    process_settings _process;
};

// Order ----------------------------------------------------------------------------------------

TEST_F(database_open, does_everything_in_order)
{
    open_args args;
    args._cache_bytes = 1048576;
    args._heap_limit = 67108864;
    umask(077);

    call_trace trace;
    EXPECT_QUIET(open(args), 0);
    EXPECT_THAT(trace.calls(),
                ElementsAre("umask 022", "open trend.db with 6 and no mutex", "umask 077",
                            "extended codes 1", "PRAGMA journal_mode = WAL",
                            "PRAGMA page_size=4096", "BEGIN", "PRAGMA page_size", "COMMIT",
                            "PRAGMA cache_size=256", "heap limit 67108864", "create pfmin",
                            "create pfmax", "create pfavg", "create pfpctavg", "create pctavg"));
}

TEST_F(database_open, leaves_out_what_is_not_asked_for)
{
    umask(022);
    call_trace trace;
    EXPECT_QUIET(open(in_rollback_mode()), 0);
    EXPECT_THAT(trace.calls(),
                ElementsAre("umask 022", "open trend.db with 6 and no mutex", "umask 022",
                            "extended codes 1", "PRAGMA page_size=4096", "create pfmin",
                            "create pfmax", "create pfavg", "create pfpctavg", "create pctavg"));
}

TEST_F(database_open, opens_read_only_with_one_flag)
{
    make_file(_file);
    open_args args;
    args._read_only = true;
    for (const bool create : {false, true}) {
        args._create = create;
        call_trace trace;
        EXPECT_QUIET(open(args), 0);
        EXPECT_EQ(trace.calls().at(1), "open trend.db with 1 and no mutex");
    }
}

TEST_F(database_open, opens_an_existing_file_without_the_flag_that_creates)
{
    make_file(_file);
    open_args args;
    args._create = false;
    call_trace trace;
    EXPECT_QUIET(open(args), 0);
    EXPECT_EQ(trace.calls().at(1), "open trend.db with 2 and no mutex");
}

TEST_F(database_open, stops_working_at_a_file_that_cannot_be_opened)
{
    umask(022);
    call_trace trace;
    capture_stderr([&] { open("missing/trend.db"); });
    EXPECT_THAT(trace.calls(),
                ElementsAre("umask 022", "open missing/trend.db with 6 and no mutex", "umask 022"));
}

TEST_F(database_open, stops_working_at_the_first_statement_that_fails)
{
    open_args args;
    args._cache_bytes = 1048576;
    args._heap_limit = 67108864;
    const texts_t statements = {"PRAGMA journal_mode = WAL", "PRAGMA page_size=4096",
                                "PRAGMA page_size", "PRAGMA cache_size=256"};
    for (const std::string& sql : statements) {
        deny_prepare denial(sql);
        call_trace trace;
        EXPECT_REPORTS(open(args), -1, prepare_report("no such column: denied"));
        const auto& calls = trace.calls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "heap limit 67108864"), 0) << sql;
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "create pfmin"), 0) << sql;
        EXPECT_EQ(std::count(calls.begin(), calls.end(), sql), 0) << sql;
        if (sql != statements.back()) {
            EXPECT_EQ(std::count(calls.begin(), calls.end(), statements.back()), 0) << sql;
        }
    }
}

TEST_F(database_open, stops_working_when_temporary_storage_cannot_be_set)
{
    open_args args;
    args._temp_in_memory = true;
    deny_prepare denial("PRAGMA temp_store = MEMORY");
    statement_trace trace;
    EXPECT_REPORTS(open(args), -1, prepare_report("no such column: denied"));
    EXPECT_EQ(trace.texts(), texts_t{});
    EXPECT_EQ(trace.prepared(), texts_t{"PRAGMA temp_store = MEMORY"});
}

TEST_F(database_open, returns_the_failure_to_register_the_aggregate_functions)
{
    unwanted_function = "pfavg";
    call_trace trace;
    EXPECT_REPORTS(open(), -1, "Error: create_function(pfavg) failed\n");
    unwanted_function.clear();
    EXPECT_EQ(trace.calls().back(), "create pfavg");
}

TEST_F(database_open, reports_a_pool_for_which_there_is_no_memory_and_is_closed)
{
    ASSERT_EQ(open(), 0);
    open_args args;
    args._pool_capacity = std::numeric_limits<size_t>::max();
    call_trace trace;
    EXPECT_REPORTS(open("other.db", args), -1, std::string(OPEN) + ": Error: out of memory\n");
    EXPECT_THAT(trace.calls(), ElementsAre());
    EXPECT_FALSE(_db.is_open());
    EXPECT_FALSE(std::filesystem::exists("other.db"));
    EXPECT_QUIET(open(), 0);
}

TEST_F(database_open, reports_an_empty_name_and_keeps_what_was_open)
{
    ASSERT_EQ(open(), 0);
    sqlite3* const before = *_db;
    call_trace trace;
    EXPECT_REPORTS(open("", {}), -1, std::string(OPEN) + ": empty DB name\n");
    EXPECT_THAT(trace.calls(), ElementsAre());
    EXPECT_EQ(*_db, before);
    EXPECT_QUIET(_db.exec("SELECT 1", STMT_FRESH, ROW_OK), 0);
}

// Settings -------------------------------------------------------------------------------------

TEST_F(database_open, switches_to_wal)
{
    EXPECT_EQ(run_by(open_args()), (texts_t{"PRAGMA journal_mode = WAL", "PRAGMA page_size=4096"}));
    EXPECT_EQ(raw("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(raw("PRAGMA temp_store"), "0");
}

TEST_F(database_open, keeps_temporary_storage_in_memory)
{
    open_args args = in_rollback_mode();
    args._temp_in_memory = true;
    EXPECT_EQ(run_by(args), (texts_t{"PRAGMA temp_store = MEMORY", "PRAGMA page_size=4096"}));
    EXPECT_EQ(raw("PRAGMA temp_store"), "2");
}

TEST_F(database_open, leaves_the_journal_mode_when_temporary_storage_is_in_memory)
{
    open_args args;
    args._temp_in_memory = true;
    EXPECT_EQ(run_by(args), (texts_t{"PRAGMA temp_store = MEMORY", "PRAGMA page_size=4096"}));
    EXPECT_EQ(raw("PRAGMA journal_mode"), "delete");
}

TEST_F(database_open, leaves_the_journal_mode_without_wal)
{
    EXPECT_EQ(run_by(in_rollback_mode()), texts_t{"PRAGMA page_size=4096"});
    EXPECT_EQ(raw("PRAGMA journal_mode"), "delete");
}

TEST_F(database_open, read_only_leaves_the_journal_mode)
{
    make_file(_file);
    open_args args;
    args._read_only = true;
    EXPECT_EQ(run_by(args), texts_t{"PRAGMA page_size=4096"});
    EXPECT_EQ(raw("PRAGMA journal_mode"), "delete");
}

TEST_F(database_open, read_only_keeps_temporary_storage_in_memory)
{
    make_file(_file);
    open_args args;
    args._read_only = true;
    args._temp_in_memory = true;
    EXPECT_EQ(run_by(args), (texts_t{"PRAGMA temp_store = MEMORY", "PRAGMA page_size=4096"}));
}

TEST_F(database_open, gives_a_new_file_its_page_size)
{
    open_args args = in_rollback_mode();
    args._page_size = 8192;
    EXPECT_EQ(run_by(args), texts_t{"PRAGMA page_size=8192"});
    raw("CREATE TABLE t(a)");
    EXPECT_EQ(rows("PRAGMA page_size"), "8192");
}

TEST_F(database_open, leaves_the_judgement_of_a_page_size_to_sqlite)
{
    open_args args = in_rollback_mode();
    args._page_size = 100;  // less than any page has
    EXPECT_EQ(run_by(args), texts_t{"PRAGMA page_size=100"});
}

TEST_F(database_open, sizes_the_cache_by_the_pages_of_the_file)
{
    run_sql(_file, "PRAGMA page_size = 1024; CREATE TABLE t(a)");
    open_args args = in_rollback_mode();
    args._page_size = 8192;
    args._cache_bytes = 1048576;
    EXPECT_EQ(run_by(args), (texts_t{"PRAGMA page_size=8192", "BEGIN", "PRAGMA page_size", "COMMIT",
                                     "PRAGMA cache_size=1024"}));
    EXPECT_EQ(raw("PRAGMA cache_size"), "1024");
}

TEST_F(database_open, prepares_its_settings_afresh)
{
    open_args args;
    args._cache_bytes = 1048576;
    ASSERT_EQ(open(args), 0);
    // What is in the pool is still there: the transaction around the page size, and nothing else.
    std::vector<std::string> pooled;
    for (sqlite3_stmt* stmt = nullptr; (stmt = sqlite3_next_stmt(*_db, stmt)) != nullptr;)
        pooled.emplace_back(sqlite3_sql(stmt));
    EXPECT_THAT(pooled, testing::UnorderedElementsAre("BEGIN", "COMMIT"));
}

TEST_F(database_open, sets_the_heap_limit)
{
    open_args args;
    args._heap_limit = 67108864;
    ASSERT_EQ(open(args), 0);
    EXPECT_EQ(sqlite3_soft_heap_limit64(-1), 67108864);
}

TEST_F(database_open, leaves_the_heap_limit_without_one)
{
    sqlite3_soft_heap_limit64(50000000);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(sqlite3_soft_heap_limit64(-1), 50000000);
}

TEST_F(database_open, turns_extended_result_codes_on)
{
    ASSERT_EQ(open(), 0);
    raw("CREATE TABLE t(a TEXT PRIMARY KEY); INSERT INTO t VALUES('x')");
    EXPECT_REPORTS(_db.exec("INSERT INTO t VALUES('x')", STMT_FRESH, ROW_NONE), -1,
                   step_and_reset_report(1555, "UNIQUE constraint failed: t.a"));
}

TEST_F(database_open, registers_the_aggregate_functions)
{
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(raw("SELECT pfmin(x), pfmax(x), pfavg(x), pfpctavg(x, 50), pctavg(x, 50) FROM "
                  "(SELECT 0.5 AS x UNION ALL SELECT 1.0)"),
              "0.5|1.0|0.75|0.75|0.75");
}

TEST_F(database_open, read_only_registers_the_aggregate_functions_too)
{
    make_file(_file);
    open_args args;
    args._read_only = true;
    ASSERT_EQ(open(args), 0);
    EXPECT_EQ(raw("SELECT pctavg(a, 100) FROM t"), "7.0");
}

// The file -------------------------------------------------------------------------------------

TEST_F(database_open, new_file_is_writable_for_its_owner_only_whatever_the_mask)
{
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        const std::string file = "mask" + octal(mask) + ".db";
        umask(mask);
        EXPECT_QUIET(open(file, {}), 0);
        EXPECT_EQ(octal(umask(022)), octal(mask));

        struct stat status = {};
        ASSERT_EQ(stat(file.c_str(), &status), 0);
        EXPECT_EQ(octal(status.st_mode & 07777), "644") << octal(mask);
    }
}

TEST_F(database_open, mask_is_put_back_when_the_file_cannot_be_opened)
{
    for (const mode_t mask : {0000U, 0077U, 0777U}) {
        umask(mask);
        capture_stderr([&] { EXPECT_EQ(open("missing/trend.db"), 14); });
        EXPECT_EQ(octal(umask(022)), octal(mask));
    }
}

TEST_F(database_open, makes_a_file_only_when_it_may)
{
    open_args args;
    args._create = false;
    EXPECT_REPORTS(open(args), 14, std::string(OPEN) + ": can't open DB 'trend.db'\n");
    args._read_only = true;
    EXPECT_REPORTS(open(args), 14, std::string(OPEN) + ": can't open DB 'trend.db'\n");
    args._create = true;
    EXPECT_REPORTS(open(args), 14, std::string(OPEN) + ": can't open DB 'trend.db'\n");
    EXPECT_FALSE(std::filesystem::exists(_file));

    EXPECT_QUIET(open(), 0);
    EXPECT_TRUE(std::filesystem::exists(_file));
}

TEST_F(database_open, existing_file_is_opened_for_writing)
{
    make_file(_file);
    open_args args;
    args._create = false;
    ASSERT_EQ(open(args), 0);
    EXPECT_QUIET(_db.exec("INSERT INTO t VALUES(8)", STMT_FRESH, ROW_NONE), 0);
    EXPECT_EQ(rows("SELECT a FROM t"), "7\n8");
}

TEST_F(database_open, read_only_file_takes_no_change)
{
    make_file(_file);
    open_args args;
    args._read_only = true;
    ASSERT_EQ(open(args), 0);
    EXPECT_REPORTS(_db.exec("INSERT INTO t VALUES(8)", STMT_FRESH, ROW_NONE), -1,
                   step_and_reset_report(8, "attempt to write a readonly database"));
    EXPECT_EQ(rows("SELECT a FROM t"), "7");
}

TEST_F(database_open, reports_a_folder)
{
    std::filesystem::create_directory("folder");
    EXPECT_REPORTS(open("folder", {}), 14, std::string(OPEN) + ": can't open DB 'folder'\n");
}

TEST_F(database_open, works_after_a_file_that_cannot_be_opened)
{
    capture_stderr([&] { EXPECT_EQ(open("missing/trend.db"), 14); });
    EXPECT_QUIET(open(), 0);
    raw("CREATE TABLE t(a)");
    EXPECT_EQ(rows("SELECT name FROM sqlite_master"), "t");
}

TEST_F(database_open, close_tidies_up_after_a_file_that_cannot_be_opened)
{
    capture_stderr([&] { EXPECT_EQ(open("missing/trend.db"), 14); });
    EXPECT_TRUE(_db.is_open());  // the handle that SQLite gave for the failure
    _db.close();
    EXPECT_FALSE(_db.is_open());
}

TEST_F(database_open, file_that_is_no_database_fails_at_the_first_setting_that_reads_it)
{
    make_junk("junk.db");
    statement_trace trace;
    EXPECT_REPORTS(open("junk.db", {}), -1, prepare_report("file is not a database", 26));
    EXPECT_EQ(trace.prepared(), texts_t{"PRAGMA journal_mode = WAL"});

    EXPECT_QUIET(open(), 0);
}

TEST_F(database_open, closes_the_connection_that_was_open)
{
    make_file("first.db");
    ASSERT_EQ(open("first.db", in_rollback_mode()), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.exec("INSERT INTO t VALUES(8)", STMT_POOLED, ROW_NONE), 0);

    ASSERT_EQ(open("second.db", in_rollback_mode()), 0);
    run_sql("first.db", "INSERT INTO t VALUES(9)");  // would find it locked
    EXPECT_EQ(::rows("first.db", "SELECT a FROM t"), "7\n9");
    EXPECT_EQ(raw("SELECT count(*) FROM sqlite_master"), "0");
}

TEST_F(database_open, closes_the_connection_that_was_open_although_it_fails)
{
    make_file("first.db");
    ASSERT_EQ(open("first.db", in_rollback_mode()), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.exec("INSERT INTO t VALUES(8)", STMT_POOLED, ROW_NONE), 0);

    capture_stderr([&] { EXPECT_EQ(open("missing/trend.db"), 14); });
    run_sql("first.db", "INSERT INTO t VALUES(9)");
    EXPECT_EQ(::rows("first.db", "SELECT a FROM t"), "7\n9");
}

TEST_F(database_open, begins_at_level_0_with_a_pool_of_its_own)
{
    ASSERT_EQ(open(), 0);
    ASSERT_EQ(_db.begin_transaction(), 0);
    const void* const before = _db.stmt("SELECT 1", STMT_POOLED).get();
    ASSERT_NE(before, nullptr);

    ASSERT_EQ(open(), 0);
    statement_trace trace;
    EXPECT_QUIET(_db.exec("SELECT 1", STMT_POOLED, ROW_OK), 0);
    EXPECT_QUIET(_db.begin_transaction(), 0);
    EXPECT_QUIET(_db.end_transaction(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"SELECT 1", "BEGIN", "COMMIT"}));
    EXPECT_EQ(trace.prepared(), (texts_t{"SELECT 1", "BEGIN", "COMMIT"}));
}

TEST_F(database_open, forgets_the_wal_of_the_connection_before)
{
    ASSERT_EQ(open(), 0);
    ASSERT_EQ(open("second.db", in_rollback_mode()), 0);
    EXPECT_EQ(_db.checkpoint_config(77), 0);
    EXPECT_EQ(raw("PRAGMA wal_autocheckpoint"), "1000");
}

// close ----------------------------------------------------------------------------------------

using database_close = database_fixture;

TEST_F(database_close, new_object_is_closed)
{
    CDatabase db;
    EXPECT_FALSE(db.is_open());
}

TEST_F(database_close, closes_and_may_be_repeated)
{
    EXPECT_TRUE(_db.is_open());
    _db.close();
    EXPECT_FALSE(_db.is_open());
    _db.close();
    EXPECT_FALSE(_db.is_open());
}

TEST_F(database_close, gives_up_pooled_statements_first)
{
    ASSERT_EQ(_db.exec("CREATE TABLE t(a)", STMT_POOLED, ROW_NONE), 0);
    ASSERT_EQ(_db.stmt("SELECT a FROM t", STMT_POOLED)->step(), 0);
    ASSERT_TRUE(std::filesystem::exists(_file + "-wal"));
    _db.close();
    // The last connection takes the write-ahead log with it when it goes, and only then.
    EXPECT_FALSE(std::filesystem::exists(_file + "-wal"));
}

TEST_F(database_close, destruction_closes)
{
    auto db = std::make_shared<CDatabase>();
    ASSERT_EQ(db->open("own.db", 10, false, true, false, 0, 0, 0, true), 0);
    ASSERT_EQ(db->exec("CREATE TABLE t(a)", STMT_POOLED, ROW_NONE), 0);
    ASSERT_TRUE(std::filesystem::exists("own.db-wal"));
    db.reset();
    EXPECT_FALSE(std::filesystem::exists("own.db-wal"));
}

TEST_F(database_close, ends_a_transaction_without_committing_it)
{
    raw("CREATE TABLE t(a)");
    ASSERT_EQ(_db.begin_transaction(), 0);
    ASSERT_EQ(_db.exec("INSERT INTO t VALUES(1)", STMT_FRESH, ROW_NONE), 0);
    _db.close();
    EXPECT_EQ(rows("SELECT count(*) FROM t"), "0");
}

TEST_F(database_close, closed_connection_stops_every_operation)
{
    _db.close();
    int64_t out = 0;
    const char* const no_pool = "_pool.get()";
    const char* const no_db = "_db!=__null";
    EXPECT_STOPS_IN(
        _db.stmt("SELECT 1", STMT_FRESH),
        "toolkit::trend::stmt_ptr_t toolkit::trend::CDatabase::stmt(const tk_string&, bool)",
        no_pool);
    EXPECT_STOPS_IN(_db.exec("SELECT 1", STMT_FRESH, ROW_OK),
                    "int toolkit::trend::CDatabase::exec(const tk_string&, bool, bool)", no_pool);
    EXPECT_STOPS_IN(
        _db.get_intval("SELECT 1", out, STMT_FRESH, NULL_OK),
        "int toolkit::trend::CDatabase::get_intval(const tk_string&, int64_t&, bool, bool)",
        no_pool);
    EXPECT_STOPS_IN(_db.update_cache_size(1048576),
                    "int toolkit::trend::CDatabase::update_cache_size(size_t)", no_pool);
    EXPECT_STOPS_IN(_db.begin_transaction(), "int toolkit::trend::CDatabase::begin_transaction()",
                    no_db);
    EXPECT_STOPS_IN(_db.end_transaction(), "int toolkit::trend::CDatabase::end_transaction()",
                    no_db);
    EXPECT_STOPS_IN(_db.rollback_transaction(),
                    "void toolkit::trend::CDatabase::rollback_transaction()", no_db);
    EXPECT_STOPS_IN(_db.checkpoint(), "int toolkit::trend::CDatabase::checkpoint()", no_db);
    EXPECT_STOPS_IN(_db.checkpoint_config(100),
                    "int toolkit::trend::CDatabase::checkpoint_config(int)", no_db);
    EXPECT_STOPS_IN(*_db, "sqlite3* toolkit::trend::CDatabase::operator*()", no_db);
}

}  // namespace
}  // namespace toolkit::trend
