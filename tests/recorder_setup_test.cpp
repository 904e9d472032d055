// Opening a recorder and attaching devices to it.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <thread>

#include "faults.h"
#include "log_fixture.h"
#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

class opening : public recorder_fixture {
protected:
    // Refused with this line, and nothing is left behind.
    void expect_refused(const std::string& line)
    {
        EXPECT_EQ(_recorder->open(_file, _options), NOTICE_MISUSE);
        EXPECT_EQ(told(), "misuse: " + line + "\n");
        EXPECT_FALSE(_recorder->is_open());
    }
};

class attaching : public recorder_fixture {
protected:
    void SetUp() override { open(); }

    int attach_device(const CRecorderDevice& device)
    {
        CRecorderHandles handles;
        return _recorder->attach(device, handles);
    }

    static CRecorderDevice device(std::vector<CRecorderParam> params,
                                  const std::string& path = "pump")
    {
        CRecorderDevice device;
        device._path = path;
        device._params = std::move(params);
        return device;
    }

    void expect_refused(const CRecorderDevice& device, const std::string& line)
    {
        EXPECT_EQ(attach_device(device), NOTICE_MISUSE);
        EXPECT_EQ(told(), "misuse: " + line + "\n");
        EXPECT_EQ(::rows(_file, "SELECT * FROM devices"), "");
    }
};

std::vector<std::string> files()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

using names_t = std::vector<std::string>;

}  // namespace

TEST_F(opening, gives_a_new_file_its_periods)
{
    open();
    EXPECT_EQ(::rows(_file, "SELECT * FROM periods"), "1|60\n15|16\n60|100");
    EXPECT_NE(_recorder->log(), nullptr);
    EXPECT_EQ(told(), "");
}

TEST_F(opening, gives_a_new_file_the_usual_periods_when_none_are_named)
{
    _options._periods.clear();
    open();
    EXPECT_EQ(::rows(_file, "SELECT * FROM periods"), "1|2880\n15|2976\n1440|3660");
    EXPECT_EQ(_recorder->close(), 0);
    open();  // those of the file from now on
    EXPECT_EQ(told(), "");
}

TEST_F(opening, twice_is_misuse)
{
    open();
    EXPECT_EQ(_recorder->open("other.db", _options), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: it is open already\n");
    EXPECT_TRUE(_recorder->is_open());
    EXPECT_FALSE(std::filesystem::exists("other.db"));
}

TEST_F(opening, refuses_periods_that_leave_the_clock)
{
    _options._periods = {{1, 60}, {15, 100}, {20, 100}};
    expect_refused("the period of 20 minutes is no multiple, at least twice, of that of 15");
    _options._periods = {{2, 60}, {5, 100}};
    expect_refused("the period of 5 minutes is no multiple, at least twice, of that of 2");
    _options._periods = {{15, 60}, {1, 100}};
    expect_refused("the period of 1 minutes is no multiple, at least twice, of that of 15");
    _options._periods = {{1, 29}, {15, 100}};
    expect_refused("the period of 1 minutes keeps 29 rows, less than two groups of 15");
    _options._periods = {{0, 29}, {15, 100}};
    expect_refused("a period of 0 minutes");
    _options._periods = {{1, 30}, {15, 0}};
    expect_refused("a period that keeps no row, or more than can be counted");
    EXPECT_EQ(files(), names_t{});
    _options._periods = {{1, 30}, {15, 1}};
    open();
}

TEST_F(opening, refuses_options_out_of_their_range)
{
    const auto refused = [&](const char* name) {
        expect_refused(std::string("the option ") + name + " is out of its range");
        _options = CRecorderOptions();
        _options._tell = [this](notice_t notice, const char* line) {
            _told += std::string(notice_name(notice)) + ": " + line + "\n";
        };
    };
    _options._max_devices = 0;
    refused("_max_devices");
    _options._max_devices = 1'000'001;
    refused("_max_devices");
    _options._hold_ms = 0;
    refused("_hold_ms");
    _options._max_gap_ms = 0;
    refused("_max_gap_ms");
    _options._commit_every_ms = -1;
    refused("_commit_every_ms");
    _options._max_ahead_ms = 0;
    refused("_max_ahead_ms");
    _options._believe_after_ms = INT64_MAX;
    refused("_believe_after_ms");
    EXPECT_EQ(files(), names_t{});
}

TEST_F(opening, refuses_a_file_with_other_periods)
{
    open();
    _recorder->close();
    _options._periods = {{1, 60}, {30, 100}};
    expect_refused("the file has other periods");
    _options._periods = {{1, 60}, {15, 16}};
    expect_refused("the file has other periods");
}

TEST_F(opening, keeps_the_numbers_of_rows_that_the_file_has_and_tells)
{
    open();
    _recorder->close();
    _options._periods[0]._max_entries = 90;
    open();
    EXPECT_EQ(told(),
              "rebuild: the period of 1 minutes keeps 60 rows in the file, and goes on so\n");
    EXPECT_EQ(::rows(_file, "SELECT * FROM periods"), "1|60\n15|16\n60|100");
}

TEST_F(opening, refuses_a_log_whose_tables_are_too_short)
{
    CLog log;
    ASSERT_EQ(open_log(log, _file), 0);
    ASSERT_EQ(log.add_period({1, 20}), 0);
    ASSERT_EQ(log.add_period({15, 20}), 0);
    log.close();
    _options._periods.clear();
    expect_refused("the period of 1 minutes keeps 20 rows, less than two groups of 15");
}

TEST_F(opening, refuses_a_file_of_somebody_else_before_a_byte_is_written)
{
    for (const char* mode : {"DELETE", "WAL"}) {
        run_sql(_file, std::string("PRAGMA journal_mode = ") + mode +
                           "; CREATE TABLE orders (id INTEGER); INSERT INTO orders VALUES (7);"
                           "CREATE TABLE devices (serial TEXT)");
        const std::string before = file_bytes(_file);
        expect_refused("'trend.db' holds tables of somebody else");
        EXPECT_EQ(file_bytes(_file), before);
        EXPECT_EQ(files(), names_t{"trend.db"});
        std::filesystem::remove(_file);
    }
}

TEST_F(opening, leaves_the_companions_of_a_foreign_file_alone)
{
    run_sql("made.db", "PRAGMA journal_mode = WAL; CREATE TABLE orders (id INTEGER)");
    sqlite3* open_elsewhere = nullptr;
    ASSERT_EQ(sqlite3_open("made.db", &open_elsewhere), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(open_elsewhere, "INSERT INTO orders VALUES (7)", nullptr, nullptr, nullptr),
        SQLITE_OK);
    // As after a crash: copies that nobody has open.
    for (const char* end : {"", "-wal", "-shm"})
        std::filesystem::copy_file("made.db" + std::string(end), _file + end);
    sqlite3_close(open_elsewhere);
    const std::string before = file_bytes(_file), log = file_bytes(_file + "-wal");
    expect_refused("'trend.db' holds tables of somebody else");
    EXPECT_EQ(file_bytes(_file), before);
    EXPECT_EQ(file_bytes(_file + "-wal"), log);
}

TEST_F(opening, takes_an_empty_file_and_a_database_without_tables)
{
    run_sql(_file, "PRAGMA user_version = 0; VACUUM");
    open();
    _recorder->close();
    std::filesystem::remove(_file);
    std::ofstream(_file).close();
    open();
    EXPECT_EQ(told(), "");
}

TEST_F(opening, fails_on_what_is_no_database)
{
    std::ofstream(_file) << std::string(2000, 'x');
    EXPECT_EQ(_recorder->open(_file, _options), NOTICE_FAILED);
    EXPECT_EQ(told(), "failed: 'trend.db' cannot be read: file is not a database\n");
    EXPECT_EQ(file_bytes(_file), std::string(2000, 'x'));
}

TEST_F(opening, fails_where_no_file_can_be)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(_recorder->open("no/such/folder", _options), NOTICE_FAILED);
    EXPECT_EQ(_recorder->open("", _options), NOTICE_FAILED);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(told(), "failed: 'no/such/folder' cannot be opened\nfailed: '' cannot be opened\n");
}

TEST_F(opening, fails_on_a_folder)
{
    std::filesystem::create_directory(_file);
    std::ofstream(_file + "/something").close();
    EXPECT_REPORTS(
        _recorder->open(_file, _options), NOTICE_FAILED,
        "int toolkit::trend::CDatabase::open(const tk_string&, size_t, bool, bool, bool, "
        "size_t, size_t, size_t, bool): can't open DB 'trend.db'\n");
    EXPECT_EQ(told(), "failed: 'trend.db' cannot be opened\n");
}

TEST_F(opening, looks_again_where_it_could_not)
{
    open();
    _recorder->close();
    for (const char* text :
         {"SELECT count(*) FROM sqlite_master", "SELECT count(*) FROM periods",
          "SELECT (SELECT count(*) FROM pragma_table_info('periods') "
          "WHERE name IN ('period', 'max_entries')) + "
          "(SELECT count(*) FROM pragma_table_info('devices') WHERE name IN ('idx', 'path'))"}) {
        testing::internal::CaptureStderr();
        deny_prepare denied(text);
        open();
        EXPECT_TRUE(denied.struck()) << text;
        testing::internal::GetCapturedStderr();
        _recorder->close();
    }
    EXPECT_EQ(told(), "");
}

TEST_F(opening, works_on_a_log_of_the_host)
{
    CLog log;
    EXPECT_EQ(_recorder->open(log, _options), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: the log is not open\n");
    ASSERT_EQ(open_log(log, _file), 0);
    ASSERT_EQ(_recorder->open(log, _options), 0);
    attach({gauge("u")});
    EXPECT_EQ(push(0, 5.0, 30'000), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|5.0");
    EXPECT_EQ(_recorder->log(), &log);
    log.close();
    CRecorderDevice fan;
    fan._path = "fan";
    fan._params = {gauge("u")};
    CRecorderHandles handles;
    EXPECT_EQ(_recorder->attach(fan, handles), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: the log is not open\n");
    ASSERT_EQ(open_log(log, _file), 0);
    EXPECT_EQ(_recorder->close(), 0);
    EXPECT_TRUE(log.is_open());
}

TEST_F(opening, can_be_done_again_after_close)
{
    open();
    attach({gauge("u")});
    EXPECT_EQ(push(0, 5.0, 30'000), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(_recorder->close(), 0);
    open();
    EXPECT_EQ(_recorder->stats()._readings, 0U);
    attach({gauge("u")});
    EXPECT_EQ(push(0, 6.0, 90'000), 0);
    EXPECT_EQ(tick_at(120'001), 0);
    EXPECT_EQ(rows("param_1_avg"), "60|5.0\n120|6.0");
}

TEST_F(attaching, registers_a_device_with_its_parameters)
{
    CRecorderDevice wanted = device({gauge("u", "min max avg"), power_factor("cosphi", "actual"),
                                     counter("energy", "actual sum"), total("parts")});
    wanted._guid = "{7}";
    EXPECT_EQ(attach_device(wanted), 0);
    EXPECT_EQ(::rows(_file, "SELECT * FROM devices"), "1|pump|{7}");
    EXPECT_EQ(::rows(_file,
                     "SELECT path, type, has_min, has_max, has_avg, has_actual, has_sum "
                     "FROM params_1"),
              "u|0|1|1|1|0|0\ncosphi|1|0|0|0|1|0\nenergy|0|0|0|0|1|1\nparts|0|0|0|0|0|1");
}

TEST_F(attaching, finds_it_again_and_keeps_the_union_of_aggregates)
{
    EXPECT_EQ(attach_device(device({gauge("u", "min avg"), gauge("i", "max")})), 0);
    reopen();
    EXPECT_EQ(attach_device(device({gauge("i", "avg"), gauge("f", "actual")})), 0);
    EXPECT_EQ(::rows(_file, "SELECT * FROM devices"), "1|pump|NULL");
    EXPECT_EQ(::rows(_file, "SELECT path, has_min, has_max, has_avg, has_actual FROM params_1"),
              "u|1|0|1|0\ni|0|1|1|0\nf|0|0|0|1");
    EXPECT_EQ(told(),
              "rebuild: 'pump': 1 parameters change, 0 are removed: its 3 tables of at "
              "most 176 rows in all are rebuilt, 1 times\n");
}

TEST_F(attaching, rebuilds_nothing_when_all_is_there)
{
    EXPECT_EQ(attach_device(device({gauge("u", "min avg")})), 0);
    const std::string before = dump(_file);
    reopen();
    EXPECT_EQ(attach_device(device({gauge("u", "min")})), 0);
    EXPECT_EQ(dump(_file), before);
    EXPECT_EQ(told(), "");
}

TEST_F(attaching, narrows_and_removes_only_on_request)
{
    EXPECT_EQ(attach_device(device({gauge("u", "min avg"), gauge("i", "max")})), 0);
    reopen();
    CRecorderDevice exact = device({gauge("u", "avg")});
    exact._exact = true;
    EXPECT_EQ(attach_device(exact), 0);
    EXPECT_EQ(::rows(_file, "SELECT path, has_min, has_max, has_avg FROM params_1"), "u|0|0|1");
    EXPECT_EQ(told(),
              "rebuild: 'pump': 1 parameters change, 1 are removed: its 3 tables of at "
              "most 176 rows in all are rebuilt, 2 times\n");
}

TEST_F(attaching, records_into_what_it_has_found)
{
    EXPECT_EQ(attach_device(device({gauge("u", "min avg"), gauge("i", "avg")})), 0);
    reopen();
    attach({gauge("i", "avg")});
    EXPECT_EQ(push(0, 5.0, 40'000), 0);
    EXPECT_EQ(tick_at(60'001), 0);
    EXPECT_EQ(rows("param_1_min, param_1_avg, param_2_avg"), "60|NULL|NULL|5.0");
}

TEST_F(attaching, refuses_another_type)
{
    EXPECT_EQ(attach_device(device({gauge("cosphi")})), 0);
    reopen();
    EXPECT_EQ(attach_device(device({gauge("new"), power_factor("cosphi")})), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: 'cosphi' is stored as another type\n");
    EXPECT_EQ(::rows(_file, "SELECT path FROM params_1"), "cosphi");
    EXPECT_EQ(attach_device(device({counter("cosphi")})), 0);  // a value as well
}

TEST_F(attaching, refuses_what_cannot_be)
{
    expect_refused(device({gauge("u")}, ""), "a device without a path");
    expect_refused(device({}), "'pump' has no parameter");
    expect_refused(device({gauge("")}), "'pump': a parameter without a path");
    expect_refused(device({gauge("u"), gauge("i"), total("u")}), "'u': twice the same parameter");
    expect_refused(device({gauge("u", "")}), "'u': no aggregate is kept");
    const char* line = "'u': an aggregate that readings of its kind do not give";
    expect_refused(device({gauge("u", "avg sum")}), line);
    expect_refused(device({power_factor("u", "sum")}), line);
    expect_refused(device({counter("u", "sum max")}), line);
    expect_refused(device({counter("u", "min")}), line);
    CRecorderParam amount = total("u");
    amount._has_actual = true;
    expect_refused(device({amount}), line);
    amount = total("u");
    amount._has_avg = true;
    expect_refused(device({amount}), line);

    CRecorderParam u = gauge("u");
    u._kind = READING_LISTEND;
    expect_refused(device({u}), "'u': a kind that there is not");
    u._kind = static_cast<reading_kind_t>(-1);
    expect_refused(device({u}), "'u': a kind that there is not");
    u = gauge("u");
    u._lowest = 1.0;
    u._highest = 0.0;
    expect_refused(device({u}), "'u': limits that exclude everything");
    u = gauge("u");
    u._max_rate = 0.0;
    expect_refused(device({u}), "'u': limits that exclude everything");
    u = gauge("u");
    u._hold_ms = -1;
    expect_refused(device({u}), "'u': a negative duration");
    u = gauge("u");
    u._max_gap_ms = -1;
    expect_refused(device({u}), "'u': a negative duration");
}

TEST_F(attaching, allows_ready_snapshots_any_aggregate)
{
    CRecorderDevice meter = device({gauge("u", "min max avg actual sum")});
    meter._ready = true;
    EXPECT_EQ(attach_device(meter), 0);
}

TEST_F(attaching, refuses_a_device_twice_and_more_than_there_is_room_for)
{
    _recorder->close();
    _options._max_devices = 2;
    open();
    EXPECT_EQ(attach_device(device({gauge("u")})), 0);
    EXPECT_EQ(attach_device(device({gauge("u")})), NOTICE_MISUSE);
    EXPECT_EQ(attach_device(device({gauge("u")}, "fan")), 0);
    EXPECT_EQ(attach_device(device({gauge("u")}, "valve")), NOTICE_MISUSE);
    EXPECT_EQ(told(),
              "misuse: 'pump' is attached already\n"
              "misuse: 'valve' is one device more than _max_devices\n");
    EXPECT_EQ(::rows(_file, "SELECT path FROM devices ORDER BY idx"), "pump\nfan");
}

TEST_F(attaching, refuses_more_than_fits_into_memory)
{
    _recorder->close();
    _options._max_bytes = 3 * 32 - 1;  // 24 and 8 bytes for a value
    open();
    EXPECT_EQ(attach_device(device({gauge("u")})), 0);
    EXPECT_EQ(attach_device(device({gauge("u")}, "fan")), 0);
    EXPECT_EQ(attach_device(device({gauge("u")}, "valve")), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: 'valve': _max_bytes are too few for a row of every device\n");
    EXPECT_EQ(::rows(_file, "SELECT path FROM devices ORDER BY idx"), "pump\nfan");
}

TEST_F(attaching, refuses_rows_that_do_not_end_on_the_grid)
{
    EXPECT_EQ(attach_device(device({gauge("u")})), 0);
    _recorder->close();
    run_sql(_file, "INSERT INTO trends_1_1 (time, percent_valid) VALUES (1700000003, 0.0)");
    open();
    EXPECT_EQ(attach_device(device({gauge("u")})), NOTICE_MISUSE);
    EXPECT_EQ(told(), "misuse: 'pump': its newest row, of 1700000003, does not end on the grid\n");
}

TEST_F(attaching, of_several_processes_at_once_makes_one_device)
{
    // Threads with logs of their own meet in the file as processes do.
    constexpr int NUMBER = 4;
    std::array<int, NUMBER> failed{};
    std::vector<std::thread> threads;
    for (int i = 0; i < NUMBER; ++i) {
        threads.emplace_back([&, i] {
            CRecorderOptions options;
            options._clock = &_clock;
            options._periods = _options._periods;
            options._tell = [](notice_t, const char*) {};
            CRecorder recorder;
            CRecorderHandles handles;
            failed[static_cast<size_t>(i)] =
                recorder.open("shared.db", options) != 0 ||
                recorder.attach(device({gauge("u"), gauge("p" + std::to_string(i))}), handles) != 0;
        });
    }
    testing::internal::CaptureStderr();
    for (std::thread& thread : threads)
        thread.join();
    testing::internal::GetCapturedStderr();
    for (const int one : failed)
        EXPECT_EQ(one, 0);
    EXPECT_EQ(::rows("shared.db", "SELECT path FROM devices ORDER BY idx"), "pump");
    EXPECT_EQ(::rows("shared.db", "SELECT path FROM params_1 ORDER BY path"), "p0\np1\np2\np3\nu");
    EXPECT_EQ(::rows("shared.db", "SELECT count(*) FROM periods"), "3");
}

TEST_F(attaching, gives_up_when_another_process_writes_for_too_long)
{
    busy_lock writer(_file, busy_lock::WRITER);
    EXPECT_EQ(attach_device(device({gauge("u")})), NOTICE_BUSY);
    EXPECT_EQ(told(), "busy: another process is writing the file\n");
    writer.release();
    EXPECT_EQ(attach_device(device({gauge("u")})), 0);
}

TEST_F(attaching, fails_where_the_newest_row_cannot_be_read)
{
    testing::internal::CaptureStderr();
    {
        deny_prepare denied("SELECT max(time) FROM trends_1_1");
        EXPECT_EQ(attach_device(device({gauge("u")})), NOTICE_FAILED);
        EXPECT_TRUE(denied.struck());
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(told(), "failed: the log has refused to set it up\n");
    EXPECT_EQ(::rows(_file, "SELECT * FROM devices"), "");
    EXPECT_EQ(attach_device(device({gauge("u")})), 0);
}

TEST_F(attaching, that_the_log_refuses_changes_nothing)
{
    EXPECT_EQ(attach_device(device({gauge("u")}, "one")), 0);
    CRecorderDevice twin = device({gauge("u")}, "two");
    twin._guid = "{7}";
    EXPECT_EQ(attach_device(twin), 0);
    twin._path = "three";
    testing::internal::CaptureStderr();
    EXPECT_EQ(attach_device(twin), NOTICE_FAILED);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("UNIQUE"), std::string::npos);
    EXPECT_EQ(told(), "failed: the log has refused to set it up\n");
    EXPECT_EQ(::rows(_file, "SELECT path FROM devices ORDER BY idx"), "one\ntwo");
}
