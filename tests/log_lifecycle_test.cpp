// Opening and closing a log, and what concerns the whole of it: transactions, checkpoints, vacuum
// and the printer of messages.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "allocations.h"
#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "sql_reports.h"
#include "trace.h"
#include "trend_api.h"

namespace {

using namespace toolkit::trend;
namespace fs = std::filesystem;

using log_close = log_fixture;
using log_transaction = log_fixture;
using log_checkpoint = log_fixture;
using log_checkpoint_config = log_fixture;
using log_vacuum = log_fixture;

const std::string LOG_OPEN =
    "int toolkit::trend::CLog::open(const tk_string&, bool, bool, size_t, bool, size_t, size_t, "
    "size_t, bool)";
const std::string DATABASE_OPEN =
    "int toolkit::trend::CDatabase::open(const tk_string&, size_t, bool, bool, bool, size_t, "
    "size_t, size_t, bool)";
const std::string BEGIN = "int toolkit::trend::CDatabase::begin_transaction()";
const std::string END = "int toolkit::trend::CDatabase::end_transaction()";
const std::string OUT_OF_MEMORY = ": Error: out of memory\n";
const std::string NOT_OPEN = ": Error: DB not open\n";

const char* const CREATE_PERIODS =
    "CREATE TABLE IF NOT EXISTS periods (period INTEGER PRIMARY KEY NOT NULL, max_entries INTEGER "
    "NOT NULL)";
const char* const CREATE_DEVICES =
    "CREATE TABLE IF NOT EXISTS devices (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT "
    "NULL, guid TEXT UNIQUE)";

const char* const TABLES = "SELECT count(*) FROM sqlite_master WHERE type = 'table'";
const char* const VERSION = "PRAGMA user_version";
const char* const PERIODS = "SELECT * FROM periods ORDER BY period";

open_args no_wal()
{
    open_args args;
    args._wal = false;
    return args;
}

open_args read_only()
{
    open_args args;
    args._read_only = true;
    return args;
}

open_args without_create()
{
    open_args args = no_wal();
    args._create = false;
    return args;
}

// A file as the log itself makes it.
void make_log(const std::string& file)
{
    CLog log;
    EXPECT_QUIET(open_log(log, file), 0);
    EXPECT_QUIET(log.add_period(CPeriodProperties(5, 100)), 0);
}

void expect_closed(CLog& log)
{
    std::vector<CPeriodProperties> periods;
    EXPECT_FALSE(log.is_open());
    EXPECT_REPORTS(log.vacuum(), -1, "int toolkit::trend::CLog::vacuum()" + NOT_OPEN);
    EXPECT_REPORTS(log.get_periods(periods), -1,
                   "int toolkit::trend::CLog::get_periods("
                   "std::vector<toolkit::trend::CPeriodProperties>&)" +
                       NOT_OPEN);
}

}  // namespace

// A new file ---------------------------------------------------------------------------------

TEST(log_open, makes_a_new_file_of_the_current_version)
{
    CLog log;
    EXPECT_FALSE(log.is_open());
    EXPECT_QUIET(open_log(log, "new.db"), 0);
    EXPECT_TRUE(log.is_open());

    EXPECT_EQ(rows("new.db", VERSION), "2");
    EXPECT_EQ(rows("new.db", "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name"),
              "devices\nperiods");
    EXPECT_EQ(
        rows("new.db", "SELECT name, type, \"notnull\", pk FROM pragma_table_info('periods')"),
        "period|INTEGER|1|1\nmax_entries|INTEGER|1|0");
    EXPECT_EQ(
        rows("new.db", "SELECT name, type, \"notnull\", pk FROM pragma_table_info('devices')"),
        "idx|INTEGER|1|1\npath|TEXT|1|0\nguid|TEXT|0|0");
    EXPECT_EQ(rows("new.db", "SELECT count(*) FROM pragma_index_list('devices') WHERE \"unique\""),
              "2");
    EXPECT_EQ(rows("new.db", "PRAGMA journal_mode"), "wal");
}

TEST(log_open, of_a_new_file_runs_both_migrations_in_one_transaction)
{
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "new.db"), 0);
    const texts_t all = {
        "PRAGMA journal_mode = WAL",
        "PRAGMA page_size=4096",
        "BEGIN",
        CREATE_PERIODS,
        CREATE_DEVICES,
        "PRAGMA user_version",
        "CREATE TABLE tmp_table (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL, guid "
        "TEXT UNIQUE)",
        "INSERT INTO tmp_table SELECT idx, path, NULL FROM devices",
        "DROP TABLE devices",
        "ALTER TABLE tmp_table RENAME TO devices",
        "SELECT * FROM devices",
        "PRAGMA user_version = 2",
        "COMMIT",
    };
    EXPECT_EQ(trace.texts(), all);
    EXPECT_EQ(trace.prepared(), all);
}

TEST(log_open, of_a_current_file_changes_nothing)
{
    make_log("trend.db");
    const std::string before = dump("trend.db");
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"PRAGMA journal_mode = WAL", "PRAGMA page_size=4096", "BEGIN",
                                      CREATE_PERIODS, CREATE_DEVICES, VERSION, "COMMIT"}));
    EXPECT_EQ(dump("trend.db"), before);
}

TEST(log_open, creates_only_the_table_that_is_missing)
{
    run_sql("trend.db",
            "CREATE TABLE periods (period INTEGER PRIMARY KEY NOT NULL, max_entries INTEGER NOT "
            "NULL); INSERT INTO periods VALUES (15, 96); PRAGMA user_version = 2");
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_EQ(rows("trend.db", PERIODS), "15|96");
    EXPECT_EQ(rows("trend.db", "SELECT count(*) FROM devices"), "0");
}

// Just enough for these three: any other text in the pool would have displaced one of them.
TEST(log_open, prepares_its_fixed_texts_for_the_pool_and_the_others_afresh)
{
    open_args args;
    args._pool_capacity = 3;
    CLog log;
    EXPECT_QUIET(open_log(log, "new.db", args), 0);
    std::vector<CDeviceProperties> devices;
    const statement_trace trace;
    EXPECT_QUIET(log.get_devices(devices), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT * FROM devices", "COMMIT"}));
    EXPECT_EQ(trace.prepared(), texts_t{});
}

// Taking the file as it is -------------------------------------------------------------------

TEST(log_open, read_only_runs_nothing_on_an_empty_file)
{
    run_sql("empty.db", "");
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "empty.db", read_only()), 0);
    EXPECT_TRUE(log.is_open());
    EXPECT_EQ(trace.texts(), texts_t{"PRAGMA page_size=4096"});
    log.close();
    EXPECT_EQ(file_bytes("empty.db"), "");
}

TEST(log_open, without_create_runs_nothing_on_an_empty_file)
{
    run_sql("empty.db", "");
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "empty.db", without_create()), 0);
    EXPECT_TRUE(log.is_open());
    EXPECT_EQ(trace.texts(), texts_t{"PRAGMA page_size=4096"});
    log.close();
    EXPECT_EQ(file_bytes("empty.db"), "");
}

TEST(log_open, without_create_makes_no_tables_although_it_switches_to_wal)
{
    run_sql("empty.db", "");
    open_args args = without_create();
    args._wal = true;
    CLog log;
    EXPECT_QUIET(open_log(log, "empty.db", args), 0);
    EXPECT_EQ(rows("empty.db", TABLES), "0");
    EXPECT_EQ(rows("empty.db", VERSION), "0");
    EXPECT_EQ(rows("empty.db", "PRAGMA journal_mode"), "wal");
}

TEST(log_open, without_create_does_not_look_at_the_version)
{
    run_sql("trend.db", "CREATE TABLE t(a); PRAGMA user_version = 7");
    for (const open_args& args : {read_only(), without_create()}) {
        const std::string before = file_bytes("trend.db");
        CLog log;
        EXPECT_QUIET(open_log(log, "trend.db", args), 0);
        log.close();
        EXPECT_EQ(file_bytes("trend.db"), before);
    }
}

TEST(log_open, without_create_can_write)
{
    make_log("trend.db");
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db", without_create()), 0);
    EXPECT_QUIET(log.add_period(CPeriodProperties(15, 96)), 0);
    EXPECT_EQ(rows("trend.db", PERIODS), "5|100\n15|96");
}

TEST(log_open, read_only_cannot_write)
{
    make_log("trend.db");
    const std::string before = dump("trend.db");
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db", read_only()), 0);
    EXPECT_REPORTS(log.add_period(CPeriodProperties(15, 96)), -1,
                   step_and_reset_report(SQLITE_READONLY, "attempt to write a readonly database"));
    EXPECT_EQ(dump("trend.db"), before);
}

TEST(log_open, with_create_makes_no_file_when_read_only)
{
    CLog log;
    EXPECT_REPORTS(open_log(log, "none.db", read_only()), SQLITE_CANTOPEN,
                   DATABASE_OPEN + ": can't open DB 'none.db'\n");
    EXPECT_FALSE(fs::exists("none.db"));
}

// Settings -----------------------------------------------------------------------------------

TEST(log_open, keeps_temporary_storage_in_memory_instead_of_switching_to_wal)
{
    open_args args;
    args._temp_in_memory = true;
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "new.db", args), 0);
    EXPECT_EQ(trace.texts()[0], "PRAGMA temp_store = MEMORY");
    EXPECT_EQ(trace.texts()[1], "PRAGMA page_size=4096");
    EXPECT_EQ(rows("new.db", "PRAGMA journal_mode"), "delete");
    EXPECT_QUIET(log.checkpoint(), 0);
}

TEST(log_open, without_wal_leaves_the_journal_mode_alone)
{
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "new.db", no_wal()), 0);
    EXPECT_EQ(trace.texts()[0], "PRAGMA page_size=4096");
    EXPECT_EQ(rows("new.db", "PRAGMA journal_mode"), "delete");
}

TEST(log_open, gives_a_new_file_the_page_size)
{
    open_args args = no_wal();
    CLog log;
    EXPECT_QUIET(open_log(log, "default.db", args), 0);
    EXPECT_EQ(rows("default.db", "PRAGMA page_size"), "4096");

    args._page_size = 8192;
    EXPECT_QUIET(open_log(log, "large.db", args), 0);
    EXPECT_EQ(rows("large.db", "PRAGMA page_size"), "8192");
}

TEST(log_open, sets_the_cache_in_pages)
{
    open_args args = no_wal();
    args._create = false;
    args._cache_bytes = 1048576;
    run_sql("empty.db", "");
    const statement_trace trace;
    CLog log;
    EXPECT_QUIET(open_log(log, "empty.db", args), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"PRAGMA page_size=4096", "BEGIN", "PRAGMA page_size",
                                      "COMMIT", "PRAGMA cache_size=256"}));
}

TEST(log_open, sets_the_heap_limit_unless_it_is_0)
{
    open_args args;
    args._heap_limit = 50000000;
    CLog log;
    EXPECT_QUIET(open_log(log, "new.db", args), 0);
    EXPECT_EQ(sqlite3_soft_heap_limit64(-1), 50000000);

    EXPECT_QUIET(open_log(log, "new.db"), 0);
    EXPECT_EQ(sqlite3_soft_heap_limit64(-1), 50000000);
    sqlite3_soft_heap_limit64(0);
}

TEST(log_open, makes_a_pool_of_the_capacity)
{
    // BEGIN and COMMIT take each other's place in a pool of one.
    open_args args;
    args._pool_capacity = 1;
    CLog log;
    EXPECT_QUIET(open_log(log, "new.db", args), 0);
    const statement_trace trace;
    EXPECT_QUIET(log.begin_transaction(), 0);
    EXPECT_QUIET(log.end_transaction(), 0);
    EXPECT_QUIET(log.begin_transaction(), 0);
    EXPECT_QUIET(log.end_transaction(), 0);
    EXPECT_EQ(trace.prepared(), (texts_t{"BEGIN", "COMMIT", "BEGIN", "COMMIT"}));
}

// Opening again ------------------------------------------------------------------------------

TEST(log_open, lets_go_of_the_file_open_before)
{
    make_log("other.db");
    CLog log;
    EXPECT_QUIET(open_log(log, "first.db"), 0);
    EXPECT_TRUE(fs::exists("first.db-wal"));

    EXPECT_QUIET(open_log(log, "other.db"), 0);
    EXPECT_FALSE(fs::exists("first.db-wal"));
    std::vector<CPeriodProperties> periods;
    EXPECT_QUIET(log.get_periods(periods), 0);
    ASSERT_EQ(periods.size(), 1U);
    EXPECT_EQ(periods[0]._period, 5U);
}

TEST(log_open, gives_up_the_transaction_open_before)
{
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_QUIET(log.begin_transaction(), 0);
    EXPECT_QUIET(log.add_period(CPeriodProperties(5, 100)), 0);

    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_EQ(rows("trend.db", PERIODS), "");
    EXPECT_STOPS(log.end_transaction(), "_nest_lvl>0");
}

// Failures -----------------------------------------------------------------------------------

// SQLite would make a file without a name and delete it at the end.
TEST(log_open, takes_a_name_that_begins_with_a_zero_byte_for_an_empty_one)
{
    CLog log;
    EXPECT_REPORTS(open_log(log, std::string("\0trend.db", 9)), -1,
                   DATABASE_OPEN + ": empty DB name\n");
    EXPECT_FALSE(log.is_open());
}

TEST(log_open, refuses_an_empty_name)
{
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_REPORTS(open_log(log, ""), -1, DATABASE_OPEN + ": empty DB name\n");
    expect_closed(log);
}

TEST(log_open, refuses_a_pool_without_room)
{
    open_args args;
    args._pool_capacity = 0;
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_REPORTS(open_log(log, "new.db", args), -1,
                   LOG_OPEN + ": Error: invalid pool capacity\n");
    expect_closed(log);
    EXPECT_FALSE(fs::exists("new.db"));
    EXPECT_FALSE(fs::exists("trend.db-wal"));
}

TEST(log_open, looks_for_a_name_before_the_pools_capacity)
{
    open_args args;
    args._pool_capacity = 0;
    CLog log;
    EXPECT_REPORTS(open_log(log, "", args), -1, DATABASE_OPEN + ": empty DB name\n");
    expect_closed(log);
}

TEST(log_open, reports_a_pool_for_which_there_is_no_memory)
{
    open_args args;
    args._pool_capacity = std::numeric_limits<size_t>::max();
    CLog log;
    EXPECT_REPORTS(open_log(log, "new.db", args), -1, LOG_OPEN + OUT_OF_MEMORY);
    expect_closed(log);
    EXPECT_FALSE(fs::exists("new.db"));
}

TEST(log_open, that_runs_out_of_memory_anywhere_says_so_once_and_leaves_no_table)
{
    const std::string file = "new.db";
    bool reached = true;
    for (size_t n = 1; reached; ++n) {
        SCOPED_TRACE(n);
        run_sql(file, "");
        CLog log;
        int result = 0;
        const std::string said = capture_stderr([&] {
            const allocations::fail_at fault(n);
            result = open_log(log, file, no_wal());
            reached = fault.reached();
        });
        if (!reached) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(said, "");
            EXPECT_GT(n, 10U);  // allocations there have been
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_THAT(said, testing::AnyOf(LOG_OPEN + OUT_OF_MEMORY, BEGIN + OUT_OF_MEMORY,
                                         END + OUT_OF_MEMORY));
        EXPECT_FALSE(log.is_open());
        EXPECT_EQ(file_bytes(file), "");
    }
}

TEST(log_open, returns_sqlites_code_for_a_file_that_cannot_be_opened)
{
    CLog log;
    EXPECT_QUIET(open_log(log, "trend.db"), 0);
    EXPECT_REPORTS(open_log(log, "none.db", without_create()), SQLITE_CANTOPEN,
                   DATABASE_OPEN + ": can't open DB 'none.db'\n");
    expect_closed(log);
    EXPECT_FALSE(fs::exists("none.db"));
    EXPECT_REPORTS(open_log(log, "no/folder.db"), SQLITE_CANTOPEN,
                   DATABASE_OPEN + ": can't open DB 'no/folder.db'\n");
}

TEST(log_open, can_be_tried_again_after_a_failure)
{
    CLog log;
    EXPECT_REPORTS(open_log(log, "none.db", without_create()), SQLITE_CANTOPEN,
                   DATABASE_OPEN + ": can't open DB 'none.db'\n");
    EXPECT_QUIET(open_log(log, "none.db"), 0);
    EXPECT_TRUE(log.is_open());
}

TEST(log_open, refuses_a_file_that_is_no_database)
{
    const std::string text(5000, 'x');
    {
        std::FILE* file = std::fopen("text.db", "w");
        std::fputs(text.c_str(), file);
        std::fclose(file);
    }
    CLog log;
    EXPECT_REPORTS(open_log(log, "text.db"), -1,
                   prepare_report("file is not a database", SQLITE_NOTADB));
    expect_closed(log);
    EXPECT_EQ(file_bytes("text.db"), text);
}

TEST(log_open, fails_at_each_statement_that_cannot_be_prepared_and_leaves_no_table)
{
    // 13 statements, see of_a_new_file_runs_both_migrations_in_one_transaction, two before BEGIN.
    for (int n = 1; n <= 13; ++n) {
        fs::remove("new.db");
        CLog log;
        {
            const deny_prepare fault(n);
            EXPECT_REPORTS(open_log(log, "new.db"), -1, prepare_report("no such column: denied"));
            EXPECT_TRUE(fault.struck());
        }
        expect_closed(log);
        EXPECT_EQ(rows("new.db", TABLES), "0") << n;
        EXPECT_EQ(rows("new.db", VERSION), "0") << n;
    }
}

TEST(log_open, undoes_everything_when_the_commit_is_refused)
{
    CLog log;
    {
        const refuse_commit fault;
        EXPECT_REPORTS(open_log(log, "new.db"), -1,
                       step_and_reset_report(SQLITE_CONSTRAINT_COMMITHOOK, "constraint failed"));
        EXPECT_TRUE(fault.struck());
    }
    expect_closed(log);
    EXPECT_EQ(rows("new.db", TABLES), "0");
    EXPECT_EQ(rows("new.db", VERSION), "0");
    EXPECT_QUIET(open_log(log, "new.db"), 0);
}

TEST(log_open, that_fails_leaves_every_operation_saying_so)
{
    CLog log;
    EXPECT_REPORTS(open_log(log, ""), -1, DATABASE_OPEN + ": empty DB name\n");
    std::vector<CDeviceProperties> devices;
    EXPECT_REPORTS(log.checkpoint(), -1, "int toolkit::trend::CLog::checkpoint()" + NOT_OPEN);
    EXPECT_REPORTS(log.checkpoint_config(1), -1,
                   "int toolkit::trend::CLog::checkpoint_config(int)" + NOT_OPEN);
    EXPECT_REPORTS(log.vacuum(), -1, "int toolkit::trend::CLog::vacuum()" + NOT_OPEN);
    EXPECT_STOPS(log.begin_transaction(), "_db");
}

// Closing ------------------------------------------------------------------------------------

TEST_F(log_close, lets_go_of_the_file)
{
    EXPECT_TRUE(fs::exists(_file + "-wal"));
    _log.close();
    EXPECT_FALSE(fs::exists(_file + "-wal"));
    expect_closed(_log);
}

TEST_F(log_close, of_a_closed_log_is_nothing)
{
    _log.close();
    _log.close();
    EXPECT_FALSE(_log.is_open());
}

TEST_F(log_close, loses_an_open_transaction)
{
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    _log.close();
    EXPECT_EQ(rows(PERIODS), "");
}

TEST(log_destructor, lets_go_of_the_file)
{
    make_log("trend.db");
    EXPECT_FALSE(fs::exists("trend.db-wal"));
}

// Transactions -------------------------------------------------------------------------------

TEST_F(log_transaction, groups_calls)
{
    const statement_trace trace;
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    add_period(15, 96);
    EXPECT_EQ(rows(PERIODS), "");
    EXPECT_QUIET(_log.end_transaction(), 0);
    EXPECT_EQ(rows(PERIODS), "5|100\n15|96");
    EXPECT_EQ(trace.times_run("BEGIN"), 1);
    EXPECT_EQ(trace.times_run("COMMIT"), 1);
}

TEST_F(log_transaction, is_undone_as_a_whole)
{
    const std::string before = dump();
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    add_device("pump");
    EXPECT_EQ(capture_stderr([&] { _log.rollback_transaction(); }), "");
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_transaction, keeps_the_work_of_an_inner_level_that_is_rolled_back)
{
    const statement_trace trace;
    EXPECT_QUIET(_log.begin_transaction(), 0);
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    _log.rollback_transaction();
    EXPECT_QUIET(_log.end_transaction(), 0);
    EXPECT_EQ(rows(PERIODS), "5|100");
    EXPECT_EQ(trace.times_run("ROLLBACK"), 0);
}

TEST_F(log_transaction, returns_a_begin_that_fails)
{
    open_args args;
    args._pool_capacity = 1;  // so that BEGIN is prepared for each use
    reopen(args);
    {
        const deny_prepare fault("BEGIN");
        EXPECT_REPORTS(_log.begin_transaction(), -1, prepare_report("no such column: denied"));
    }
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_transaction, returns_a_commit_that_fails_and_is_over_then)
{
    const std::string before = dump();
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    {
        const refuse_commit fault;
        EXPECT_REPORTS(_log.end_transaction(), -1,
                       step_and_reset_report(SQLITE_CONSTRAINT_COMMITHOOK, "constraint failed"));
    }
    EXPECT_EQ(dump(), before);
    EXPECT_TRUE(at_level_0());
}

TEST_F(log_transaction, is_ended_by_a_failed_commit_that_sqlite_leaves_open)
{
    const std::string before = dump();
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    {
        const interrupt_step fault("COMMIT");
        EXPECT_REPORTS(_log.end_transaction(), -1,
                       step_and_reset_report(SQLITE_INTERRUPT, "interrupted"));
    }
    EXPECT_TRUE(at_level_0());
    EXPECT_EQ(dump(), before);
}

TEST_F(log_transaction, wants_a_level_to_end)
{
    EXPECT_STOPS(_log.end_transaction(), "_nest_lvl>0");
    EXPECT_STOPS(_log.rollback_transaction(), "_nest_lvl>0");
}

TEST_F(log_transaction, wants_an_open_log)
{
    _log.close();
    EXPECT_STOPS(_log.begin_transaction(), "_db");
    EXPECT_STOPS(_log.end_transaction(), "_db");
    EXPECT_STOPS(_log.rollback_transaction(), "_db");
}

// Checkpoints --------------------------------------------------------------------------------

TEST_F(log_checkpoint, copies_the_write_ahead_log_into_the_file)
{
    add_period(5, 100);
    const auto before = fs::file_size(_file);
    EXPECT_QUIET(_log.checkpoint(), 0);
    EXPECT_GT(fs::file_size(_file), before);
}

TEST_F(log_checkpoint, does_nothing_in_a_read_only_log)
{
    add_period(5, 100);
    const auto before = fs::file_size(_file);
    CLog reader;
    EXPECT_QUIET(open_log(reader, _file, read_only()), 0);
    EXPECT_QUIET(reader.checkpoint(), 0);
    EXPECT_EQ(fs::file_size(_file), before);
}

TEST_F(log_checkpoint, reports_that_others_prevent_it)
{
    add_period(5, 100);
    busy_lock other(_file, busy_lock::CHECKPOINTER);
    EXPECT_REPORTS(_log.checkpoint(), 1,
                   "int toolkit::trend::CDatabase::checkpoint(): can't checkpoint database\n");
    other.release();
    EXPECT_QUIET(_log.checkpoint(), 0);
}

TEST_F(log_checkpoint, wants_an_open_log)
{
    _log.close();
    EXPECT_REPORTS(_log.checkpoint(), -1, "int toolkit::trend::CLog::checkpoint()" + NOT_OPEN);
}

TEST_F(log_checkpoint_config, sets_after_how_many_pages_a_commit_checkpoints)
{
    EXPECT_QUIET(_log.checkpoint_config(0), 0);
    const auto before = fs::file_size(_file);
    add_period(5, 100);
    EXPECT_EQ(fs::file_size(_file), before);

    EXPECT_QUIET(_log.checkpoint_config(1), 0);
    add_period(15, 96);
    EXPECT_GT(fs::file_size(_file), before);
}

TEST_F(log_checkpoint_config, wants_an_open_log)
{
    _log.close();
    EXPECT_REPORTS(_log.checkpoint_config(1), -1,
                   "int toolkit::trend::CLog::checkpoint_config(int)" + NOT_OPEN);
}

// Vacuum -------------------------------------------------------------------------------------

TEST_F(log_vacuum, gives_free_pages_back)
{
    add_period(5, 100);
    const CDeviceProperties device = add_device("pump");
    EXPECT_QUIET(_log.remove_device(device), 0);
    EXPECT_NE(rows("PRAGMA freelist_count"), "0");
    const std::string before = dump();
    EXPECT_QUIET(_log.vacuum(), 0);
    EXPECT_EQ(rows("PRAGMA freelist_count"), "0");
    EXPECT_EQ(dump(), before);
}

TEST_F(log_vacuum, keeps_its_statement)
{
    statement_trace trace;
    EXPECT_QUIET(_log.vacuum(), 0);
    EXPECT_QUIET(_log.vacuum(), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"VACUUM", "VACUUM"}));
    EXPECT_EQ(trace.prepared(), texts_t{"VACUUM"});
}

TEST_F(log_vacuum, fails_inside_a_transaction_and_leaves_it_intact)
{
    EXPECT_QUIET(_log.begin_transaction(), 0);
    add_period(5, 100);
    EXPECT_REPORTS(_log.vacuum(), -1,
                   step_and_reset_report(SQLITE_ERROR, "cannot VACUUM from within a transaction"));
    EXPECT_QUIET(_log.end_transaction(), 0);
    EXPECT_EQ(rows(PERIODS), "5|100");
}

TEST_F(log_vacuum, that_runs_out_of_memory_says_so)
{
    const auto vacuum = [this] {
        const allocations::fail_at fault(1);
        return _log.vacuum();
    };
    EXPECT_REPORTS(vacuum(), -1, "int toolkit::trend::CLog::vacuum()" + OUT_OF_MEMORY);
    EXPECT_QUIET(_log.vacuum(), 0);
}

TEST_F(log_vacuum, wants_an_open_log)
{
    _log.close();
    EXPECT_REPORTS(_log.vacuum(), -1, "int toolkit::trend::CLog::vacuum()" + NOT_OPEN);
}

// Messages -----------------------------------------------------------------------------------

TEST(log_err, prints_the_text_and_a_newline)
{
    EXPECT_EQ(capture_stderr([] { CLog::err(0, "%s: %d of %d%%", "text", 7, 10); }),
              "text: 7 of 10%\n");
}

TEST(log_err, does_not_use_the_level)
{
    EXPECT_EQ(capture_stderr([] { CLog::err(5, "text"); }), "text\n");
}

TEST(log_err, has_no_longest_text)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(capture_stderr([&] { CLog::err(0, "%s", text.c_str()); }), text + "\n");
}
