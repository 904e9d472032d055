#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "log_fixture.h"

// What docs/operating.md and docs/file-format.md say about the file and those who share it.

using namespace toolkit::trend;

namespace {

namespace fs = std::filesystem;

// Another user of the file who reads and does not let go.
class long_reader {
public:
    explicit long_reader(const std::string& file)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(file.c_str(), &_db, SQLITE_OPEN_READONLY, nullptr));
        exec("BEGIN");
        exec("SELECT count(*) FROM periods");
    }
    ~long_reader() { sqlite3_close(_db); }

    long_reader(const long_reader&) = delete;
    long_reader& operator=(const long_reader&) = delete;

    void end() { exec("COMMIT"); }

private:
    void exec(const char* sql)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(_db, sql, nullptr, nullptr, nullptr));
    }

    sqlite3* _db = nullptr;
};

// Another process that has the log open until the end of the object. It must not be open here: the
// child would inherit what SQLite knows of its locks.
class other_writer {
public:
    explicit other_writer(const std::string& file)
    {
        int opened[2];
        int ended[2];
        EXPECT_EQ(0, pipe(opened));
        EXPECT_EQ(0, pipe(ended));
        _process = fork();
        if (_process == 0) {
            close(ended[1]);
            CLog log;
            char state = log.open(file, false, true, 10, false, 0, 0, 0, true) == 0 ? 'y' : 'n';
            if (write(opened[1], &state, 1) != 1) _exit(1);
            while (read(ended[0], &state, 1) > 0) {
            }
            log.close();
            _exit(0);
        }
        close(opened[1]);
        close(ended[0]);
        _end_fd = ended[1];
        char state = 'n';
        EXPECT_EQ(1, read(opened[0], &state, 1));
        EXPECT_EQ('y', state);
        close(opened[0]);
    }

    void end()
    {
        if (_process <= 0) return;
        close(_end_fd);
        EXPECT_EQ(_process, waitpid(_process, nullptr, 0));
        _process = -1;
    }

    ~other_writer() { end(); }

    other_writer(const other_writer&) = delete;
    other_writer& operator=(const other_writer&) = delete;

private:
    pid_t _process = -1;
    int _end_fd = -1;
};

// Runs the call in another process that may do no more than an ordinary user; its result.
template <typename Call>
int as_ordinary_user(Call call)
{
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && setuid(65534) != 0) _exit(99);
        _exit(call());
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class operating : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 5000}, {5, 1000}});
        _device = add_device("pump", {param("u", "min max avg")});
        // Folders of tests are the owner's alone.
        fs::permissions(fs::current_path(), fs::perms(0755));
        fs::permissions(fs::current_path().parent_path(), fs::perms(0755));
    }

    void TearDown() override { fs::permissions(fs::current_path(), fs::perms(0755)); }

    void record_minutes(int first, int last)
    {
        for (int minute = first; minute <= last; ++minute)
            record(_device, minute * 60, {double(minute)});
    }

    uintmax_t wal_size() const { return fs::file_size(_file + "-wal"); }

    CDeviceParams _device;
};

using page_size = testing::Test;

}  // namespace

// Transactions ---------------------------------------------------------------------------------

TEST_F(operating, several_ticks_in_one_transaction_write_each_page_once)
{
    const auto written_by_20_ticks = [&](int first, bool together) {
        run_sql(_file, "PRAGMA wal_checkpoint(TRUNCATE)");
        if (together) {
            EXPECT_EQ(0, _log.begin_transaction());
        }
        record_minutes(first, first + 19);
        if (together) {
            EXPECT_EQ(0, _log.end_transaction());
        }
        return wal_size();
    };
    const uintmax_t apart = written_by_20_ticks(1, false);
    const uintmax_t together = written_by_20_ticks(21, true);
    EXPECT_GT(apart, 20 * 4096u);
    EXPECT_LT(together, 6 * 4120u);
}

TEST_F(operating, another_writer_between_read_and_write_fails_the_own_transaction)
{
    ASSERT_EQ(0, _log.begin_transaction());
    std::vector<CPeriodProperties> periods;
    ASSERT_EQ(0, _log.get_periods(periods));
    run_sql(_file, "CREATE TABLE notes (text)");

    // SQLite's code for a snapshot that is not the newest any more: waiting would not help.
    const std::string said =
        capture_stderr([&] { EXPECT_NE(0, _log.add_period(CPeriodProperties(15, 10))); });
    EXPECT_NE(std::string::npos, said.find("517 (database is locked)")) << said;

    _log.rollback_transaction();
    EXPECT_QUIET(_log.add_period(CPeriodProperties(15, 10)), 0);
}

// The write-ahead log --------------------------------------------------------------------------

TEST_F(operating, the_write_ahead_log_goes_with_the_last_user)
{
    EXPECT_TRUE(fs::exists(_file + "-wal"));
    EXPECT_TRUE(fs::exists(_file + "-shm"));
    _log.close();
    EXPECT_FALSE(fs::exists(_file + "-wal"));
    EXPECT_FALSE(fs::exists(_file + "-shm"));
}

TEST_F(operating, a_checkpoint_lets_the_write_ahead_log_be_used_again)
{
    record_minutes(1, 50);
    const uintmax_t size = wal_size();
    ASSERT_EQ(0, _log.checkpoint());
    record_minutes(51, 80);
    EXPECT_EQ(size, wal_size());
}

TEST_F(operating, the_write_ahead_log_grows_while_a_reader_holds_on)
{
    ASSERT_EQ(0, _log.checkpoint_config(10));
    record_minutes(1, 40);
    const uintmax_t bounded = wal_size();

    long_reader reader(_file);
    record_minutes(41, 200);
    EXPECT_GT(wal_size(), 3 * bounded);
    EXPECT_QUIET(_log.checkpoint(), 0);  // does what it can, which is no failure

    reader.end();
    record_minutes(201, 210);
    const uintmax_t grown = wal_size();
    record_minutes(211, 300);
    EXPECT_EQ(grown, wal_size());  // used again, but never made smaller
}

TEST_F(operating, the_write_ahead_log_stops_growing_at_the_threshold)
{
    run_sql(_file, "PRAGMA wal_checkpoint(TRUNCATE)");
    ASSERT_EQ(0, _log.checkpoint_config(10));
    record_minutes(1, 200);
    EXPECT_GE(wal_size(), 10 * 4096u);
    EXPECT_LT(wal_size(), 15 * 4120u);
}

TEST_F(operating, another_program_may_empty_the_write_ahead_log)
{
    record_minutes(1, 20);
    run_sql(_file, "PRAGMA wal_checkpoint(TRUNCATE)");
    EXPECT_EQ(0u, wal_size());
    record_minutes(21, 21);
    EXPECT_EQ("21", rows("SELECT count(*) FROM trends_1_1"));
}

// Readers --------------------------------------------------------------------------------------

TEST_F(operating, readers_see_the_last_commit_while_a_transaction_is_open)
{
    record_minutes(1, 1);
    ASSERT_EQ(0, _log.begin_transaction());
    record_minutes(2, 2);
    EXPECT_EQ("1", rows("SELECT count(*) FROM trends_1_1"));
    ASSERT_EQ(0, _log.end_transaction());
    EXPECT_EQ("2", rows("SELECT count(*) FROM trends_1_1"));
}

TEST_F(operating, a_reader_without_the_right_to_write_needs_the_files_beside_it)
{
    record_minutes(1, 3);
    _log.close();
    other_writer writer(_file);
    fs::permissions(fs::current_path(), fs::perms(0555));
    const auto read = [&] {
        CLog log;
        CDeviceData data;
        const std::string said = capture_stderr([&] {
            if (log.open(_file, true, false, 10, false, 0, 0, 0, true) != 0) return;
            log.get_trend_data(data, _device, {CPeriodProperties(1, 1)}, {-1, -1}, 0, 0, true,
                               false);
        });
        return said.empty() ? static_cast<int>(data._snapshots.size()) : 50;
    };

    EXPECT_EQ(3, as_ordinary_user(read));  // -wal and -shm are there while a writer has it open
    fs::permissions(fs::current_path(), fs::perms(0755));
    writer.end();
    fs::permissions(fs::current_path(), fs::perms(0555));
    EXPECT_EQ(50, as_ordinary_user(read));  // and cannot be made by one who may not write
}

TEST_F(operating, the_file_is_not_writable_for_others)
{
    struct stat info = {};
    ASSERT_EQ(0, stat(_file.c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 022u);
}

// Backup ---------------------------------------------------------------------------------------

TEST_F(operating, a_copy_by_vacuum_into_holds_all_that_is_committed)
{
    record_minutes(1, 10);
    ASSERT_EQ(0, _log.begin_transaction());
    record_minutes(11, 11);
    run_sql(_file, "VACUUM INTO 'copy.db'");
    ASSERT_EQ(0, _log.end_transaction());

    EXPECT_EQ("10", ::rows("copy.db", "SELECT count(*) FROM trends_1_1"));
    EXPECT_EQ("2", ::rows("copy.db", "PRAGMA user_version"));
    _log.close();
    CLog copy;
    EXPECT_QUIET(copy.open("copy.db", false, true, 10, false, 0, 0, 0, true), 0);
    CDeviceData data;
    EXPECT_QUIET(
        copy.get_trend_data(data, _device, {CPeriodProperties(5, 1)}, {-1, -1}, 0, 0, true, false),
        0);
    EXPECT_EQ(2u, data._snapshots.size());
}

TEST_F(operating, a_copy_of_the_file_alone_lacks_what_is_in_the_write_ahead_log)
{
    ASSERT_EQ(0, _log.checkpoint());
    record_minutes(1, 10);
    fs::create_directory("backup");
    // Not through a stream of this process: closing it would drop the log's locks.
    const pid_t child = fork();
    if (child == 0) {
        std::error_code failed;
        fs::copy_file(_file, "backup/" + _file, failed);
        _exit(failed ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(0, status);
    EXPECT_EQ("0", ::rows("backup/" + _file, "SELECT count(*) FROM trends_1_1"));
}

// Page size ------------------------------------------------------------------------------------

TEST_F(page_size, of_a_new_file_is_4096_in_wal_mode_whatever_is_asked_for)
{
    CLog log;
    ASSERT_EQ(0, log.open("a.db", false, true, 10, false, 8192, 0, 0, true));
    EXPECT_EQ("4096", rows("a.db", "PRAGMA page_size"));
}

TEST_F(page_size, is_chosen_by_opening_a_new_file_without_wal_first)
{
    CLog log;
    ASSERT_EQ(0, log.open("a.db", false, true, 10, false, 8192, 0, 0, false));
    ASSERT_EQ(0, log.open("a.db", false, true, 10, false, 0, 0, 0, true));
    EXPECT_EQ("8192", rows("a.db", "PRAGMA page_size"));
    EXPECT_EQ("wal", rows("a.db", "PRAGMA journal_mode"));
}

TEST_F(page_size, is_chosen_with_temporary_storage_in_memory_which_keeps_the_journal_mode)
{
    CLog log;
    ASSERT_EQ(0, log.open("a.db", false, true, 10, true, 8192, 0, 0, true));
    EXPECT_EQ("8192", rows("a.db", "PRAGMA page_size"));
    EXPECT_EQ("delete", rows("a.db", "PRAGMA journal_mode"));
}

// What other programs leave in the file --------------------------------------------------------

TEST_F(operating, a_view_on_a_trend_table_breaks_its_rebuild)
{
    run_sql(_file, "CREATE VIEW latest AS SELECT max(time) FROM trends_1_1");
    const std::string before = dump();
    _device._params[0]._has_max = false;
    const std::string said =
        capture_stderr([&] { EXPECT_NE(0, _log.modify_params(_device._device, _device._params)); });
    EXPECT_NE(std::string::npos, said.find("error in view latest")) << said;
    EXPECT_EQ(before, dump());
}

TEST_F(operating, a_trigger_that_names_a_trend_table_breaks_its_rebuild)
{
    run_sql(_file,
            "CREATE TABLE notes (text); CREATE TRIGGER t AFTER INSERT ON notes "
            "BEGIN DELETE FROM trends_1_1; END");
    _device._params[0]._has_max = false;
    const std::string said =
        capture_stderr([&] { EXPECT_NE(0, _log.modify_params(_device._device, _device._params)); });
    EXPECT_NE(std::string::npos, said.find("error in trigger t")) << said;
}

TEST_F(operating, indices_and_triggers_of_a_trend_table_go_when_it_is_rebuilt)
{
    run_sql(_file,
            "CREATE TABLE notes (text); CREATE INDEX i ON trends_1_1 (percent_valid); "
            "CREATE TRIGGER t AFTER INSERT ON trends_1_1 "
            "BEGIN INSERT INTO notes VALUES (new.time); END");
    _device._params[0]._has_max = false;
    EXPECT_QUIET(_log.modify_params(_device._device, _device._params), 0);
    EXPECT_EQ("0", rows("SELECT count(*) FROM sqlite_schema WHERE name IN ('i', 't')"));
}

TEST_F(operating, a_foreign_table_by_another_name_is_left_alone)
{
    run_sql(_file, "CREATE TABLE notes (text); INSERT INTO notes VALUES ('kept')");
    _device._params[0]._has_max = false;
    ASSERT_EQ(0, _log.modify_params(_device._device, _device._params));
    ASSERT_EQ(0, _log.vacuum());
    EXPECT_EQ("kept", rows("SELECT text FROM notes"));
}

TEST_F(operating, a_table_by_the_name_of_the_rebuild_is_in_its_way)
{
    run_sql(_file, "CREATE TABLE tmp_table (x)");
    _device._params[0]._has_max = false;
    const std::string said =
        capture_stderr([&] { EXPECT_NE(0, _log.modify_params(_device._device, _device._params)); });
    EXPECT_NE(std::string::npos, said.find("table tmp_table already exists")) << said;
}
