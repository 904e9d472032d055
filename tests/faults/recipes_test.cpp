// The recipes of docs/reliability.md, with every call to the disk failing in turn, and what happens
// to a host that does otherwise.

#include "recipes.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "disk.h"
#include "memory.h"
#include "scenario.h"
#include "sweep.h"

namespace {

const disk::call_t CALLS[] = {disk::READ,     disk::SHORT_WRITE, disk::WRITE,   disk::SYNC,
                              disk::TRUNCATE, disk::OPEN,        disk::SIZE,    disk::LOCK,
                              disk::UNLOCK,   disk::ACCESS,      disk::SHM_MAP, disk::SHM_LOCK,
                              disk::DELETE};

// What a read can meet, damaged pages included.
const std::pair<disk::call_t, int> READ_FAILURES[] = {
    {disk::READ, SQLITE_IOERR_READ},     {disk::READ, SQLITE_CORRUPT},
    {disk::SIZE, SQLITE_IOERR_FSTAT},    {disk::ACCESS, SQLITE_IOERR_ACCESS},
    {disk::OPEN, SQLITE_CANTOPEN},       {disk::LOCK, SQLITE_IOERR_LOCK},
    {disk::UNLOCK, SQLITE_IOERR_UNLOCK}, {disk::SHM_LOCK, SQLITE_IOERR_SHMLOCK}};

class recipes : public testing::Test {
protected:
    static void SetUpTestSuite() { install_faults(); }

    void TearDown() override { disk::make_room(); }

    void SetUp() override
    {
        _row.first._device._path = "plant/pump";
        _row.first._device._index = 1;
        _row.first._params.resize(1);
        _row.first._params[0]._index = 1;
        _row.first._params[0]._has_avg = true;
        _row.second._samples.resize(1);
        _row.second._samples[0]._avg = 1.0;
    }

    std::pair<CDeviceParams, CSnapshot> row(time_t time) const
    {
        std::pair<CDeviceParams, CSnapshot> row = _row;
        row.second._time = time;
        return row;
    }

    // The recipe with each call failing once: the file is as before or as wanted, and when the
    // recipe has failed the next time brings what is wanted.
    void sweep(const std::function<int(CLog&)>& recipe)
    {
        size_t points = 0;
        for (const setting_t& setting : SETTINGS) {
            disk::restore(base_image(step_t::LOG, setting._wal));
            std::string before;
            std::string after;
            {
                CLog log;
                ASSERT_EQ(prepare(log, setting), 0);
                before = live_view();
                ASSERT_EQ(recipe(log), 0);
                after = live_view();
            }
            for (const disk::call_t call : CALLS) {
                for (size_t n = 1;; ++n) {
                    disk::restore(base_image(step_t::LOG, setting._wal));
                    CLog log;
                    ASSERT_EQ(prepare(log, setting), 0);
                    disk::arm(call, SQLITE_IOERR, n, false);
                    const int result = recipe(log);
                    if (disk::disarm() == 0) break;
                    ++points;
                    const std::string left = crashed_view();
                    EXPECT_TRUE(left == after || (result != 0 && left == before));
                    // What was stored although its commit reported a failure can't be stored again.
                    EXPECT_TRUE(result == 0 || recipe(log) == 0 || left == after)
                        << "call " << call << ", " << n;
                    EXPECT_EQ(live_view(), after) << "call " << call << ", number " << n;
                }
            }
        }
        std::printf("Recipe: %zu points\n", points);
        EXPECT_GT(points, 20U);
    }

    // Calls every listing and read with each fault that can meet it, in a transaction of the host's
    // or without one. `judge` gets the answer and what it would be without the fault.
    template <typename Judge>
    static void for_each_struck_read(bool in_transaction, Judge judge)
    {
        for (const setting_t& setting : SETTINGS) {
            for (const step_t& step : steps()) {
                if (!step.is(step_t::LOOKS)) continue;
                std::string all;
                // Returns whether the fault has met the call.
                const auto is_struck = [&](auto arm, auto disarm) {
                    disk::restore(base_image(step_t::LOG, setting._wal));
                    CLog log;
                    EXPECT_EQ(prepare(log, setting), 0);
                    if (in_transaction) {
                        EXPECT_EQ(log.begin_transaction(), 0);
                    }
                    arm();
                    const answer_t answer = step._run(log, setting);
                    if (disarm() == 0) {
                        all = answer._text;
                        return false;
                    }
                    judge(log, answer, all);
                    return true;
                };
                is_struck([] {}, [] { return 0; });
                for (const auto& failure : READ_FAILURES)
                    for (size_t n = 1;
                         is_struck([&] { disk::arm(failure.first, failure.second, n, false); },
                                   disk::disarm);
                         ++n) {
                    }
                for (size_t n = 1;
                     is_struck([&] { memory::arm(memory::SQLITE, n, false); }, memory::disarm);
                     ++n) {
                }
            }
        }
    }

    // The call's result, with what it reports.
    template <typename Call>
    static int reported(Call call, std::string& said)
    {
        testing::internal::CaptureStderr();
        const int result = call();
        said = testing::internal::GetCapturedStderr();
        return result;
    }

    std::pair<CDeviceParams, CSnapshot> _row;
};

}  // namespace

TEST_F(recipes, stand_in_the_text_as_they_are_here)
{
    const auto text_of = [](const std::string& file) {
        std::ifstream in(file);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    std::string source = text_of(TREND_SOURCE_DIR "/tests/faults/recipes.h");
    for (size_t at = 0; (at = source.find("inline ", at)) != std::string::npos;)
        source.erase(at, 7);
    // Without the indentation of continued lines, which loses a word's length with "inline".
    const auto squeezed = [](const std::string& text) {
        std::string result;
        for (const char c : text)
            if (c != ' ' && c != '\n') result += c;
        return result;
    };
    const std::string document = text_of(TREND_SOURCE_DIR "/docs/reliability.md");
    size_t programs = 0;
    const std::string fence = "```cpp\n";
    for (size_t at = 0; (at = document.find(fence, at)) != std::string::npos; ++programs) {
        at += fence.size();
        const std::string program = document.substr(at, document.find("```", at) - at);
        EXPECT_NE(squeezed(source).find(squeezed(program)), std::string::npos) << program;
    }
    EXPECT_EQ(programs, 4U);
}

TEST_F(recipes, rows_are_stored_together)
{
    sweep([&](CLog& log) { return record_together(log, {row(1800), row(1860), row(1920)}); });
}

TEST_F(recipes, a_row_is_stored_among_other_writers)
{
    sweep([&](CLog& log) {
        const auto [device, snapshot] = row(1800);
        return record_among_others(log, device, snapshot);
    });
}

TEST_F(recipes, missing_periods_are_added)
{
    sweep([](CLog& log) { return add_missing_periods(log, {{1, 12}, {5, 8}, {15, 4}, {60, 10}}); });
}

TEST_F(recipes, recording_resumes_after_the_newest_row)
{
    sweep([&](CLog& log) {
        time_t next = -1;
        const int failed = resume(log, _row.first._device, 1, 2000, next);
        EXPECT_TRUE(failed != 0 || next == 2040);
        return failed;
    });
}

TEST_F(recipes, recording_resumes_after_the_newest_row_although_the_clock_was_set_back)
{
    disk::restore(base_image(step_t::LOG, true));
    CLog log;
    ASSERT_EQ(prepare(log, {true, true}), 0);
    time_t next = -1;
    EXPECT_EQ(resume(log, _row.first._device, 1, 600, next), 0);
    EXPECT_EQ(next, 1800);  // after the newest row
    time_t latest = -1;
    EXPECT_EQ(log.get_latest_timestamp(_row.first._device, latest), 0);
    EXPECT_EQ(latest, 1740);  // nothing was filled
    EXPECT_EQ(log.add_trend_data(_row.first, row(next).second), 0);
}

// What the text warns of --------------------------------------------------------------------------

TEST_F(recipes, a_host_that_commits_after_a_failed_call_keeps_half_of_it)
{
    size_t halves = 0;
    for (size_t n = 1;; ++n) {
        disk::restore(base_image(step_t::LOG, false));
        CLog log;
        ASSERT_EQ(prepare(log, {false, true}), 0);
        const std::string before = live_view();
        ASSERT_EQ(log.begin_transaction(), 0);
        disk::arm(disk::WRITE, SQLITE_FULL, n, false);
        const bool failed = log.add_trend_data(_row.first, row(1800).second) != 0;
        if (disk::disarm() == 0) break;
        if (!failed) continue;
        if (log.end_transaction() == 0 && live_view() != before) ++halves;
    }
    EXPECT_GT(halves, 0U);
}

TEST_F(recipes, a_rollback_after_a_failed_end_transaction_stops_the_process)
{
    disk::restore(base_image(step_t::LOG, true));
    CLog log;
    ASSERT_EQ(prepare(log, {true, true}), 0);
    const std::string before = live_view();
    ASSERT_EQ(log.begin_transaction(), 0);
    ASSERT_EQ(log.add_trend_data(_row.first, row(1800).second), 0);
    disk::arm(disk::SYNC, SQLITE_IOERR_FSYNC, 1, false);
    ASSERT_NE(log.end_transaction(), 0);
    ASSERT_EQ(disk::disarm(), 1U);
    EXPECT_EQ(live_view(), before);
    EXPECT_DEATH(log.rollback_transaction(), "_nest_lvl>0");
    EXPECT_EQ(log.begin_transaction(), 0);  // the next one works
    EXPECT_EQ(log.end_transaction(), 0);
}

// What breaks the read off keeps the call's own transaction from being committed as well.
TEST_F(recipes, a_read_outside_a_transaction_is_whole_or_a_failure)
{
    size_t failed = 0;
    size_t whole = 0;
    for_each_struck_read(false, [&](CLog&, const answer_t& answer, const std::string& all) {
        ++(answer._code != 0 ? failed : whole);
        if (answer._code == 0) {
            EXPECT_EQ(answer._text, all);
        }
    });
    std::printf("Reads outside a transaction: %zu failed, %zu were whole\n", failed, whole);
    EXPECT_GT(failed, 500U);
}

TEST_F(recipes, a_read_inside_a_transaction_succeeds_with_the_rows_so_far_and_the_commit_fails)
{
    size_t short_ones = 0;
    size_t begun = 0;
    for_each_struck_read(true, [&](CLog& log, const answer_t& answer, const std::string& all) {
        EXPECT_EQ(all.compare(0, answer._text.size(), answer._text), 0);
        const bool is_short = answer._code == 0 && answer._text != all;
        short_ones += is_short;
        begun += is_short && !answer._text.empty();
        if (answer._code != 0) {
            log.rollback_transaction();
        } else if (is_short) {
            EXPECT_EQ(log.end_transaction(), -1);
        }
    });
    std::printf("Reads inside a transaction: %zu cut short, %zu of them after some rows\n",
                short_ones, begun);
    EXPECT_GT(short_ones, 50U);
    EXPECT_GT(begun, 10U);
}

// Nothing has been read by then, and nothing is wrong with the transaction.
TEST_F(recipes, a_listing_without_its_lock_succeeds_and_is_empty)
{
    disk::restore(base_image(step_t::LOG, true));
    CLog log;
    ASSERT_EQ(prepare(log, {true, true}), 0);
    std::vector<CPeriodProperties> periods;
    std::string said;
    disk::arm(disk::SHM_LOCK, SQLITE_BUSY, 1, true);
    EXPECT_EQ(reported([&] { return log.get_periods(periods); }, said), 0);
    EXPECT_GT(disk::disarm(), 0U);
    EXPECT_TRUE(periods.empty());
    EXPECT_NE(said.find("sqlite3_step(): 15 (locking protocol)"), std::string::npos) << said;
    EXPECT_EQ(log.get_periods(periods), 0);
    EXPECT_EQ(periods.size(), 3U);
}

// The last thing that is done for a commit is letting go of the file.
TEST_F(recipes, a_row_whose_commit_failed_may_be_stored_and_is_then_a_duplicate)
{
    size_t stored = 0;
    for (size_t n = 1;; ++n) {
        disk::restore(base_image(step_t::LOG, false));
        CLog log;
        ASSERT_EQ(prepare(log, {false, true}), 0);
        const std::string before = live_view();
        disk::arm(disk::UNLOCK, SQLITE_IOERR_UNLOCK, n, false);
        const int result = log.add_trend_data(_row.first, row(1800).second);
        if (disk::disarm() == 0) break;
        if (result == 0 || live_view() == before) continue;

        ++stored;
        time_t latest = -1;
        EXPECT_EQ(log.get_latest_timestamp(_row.first._device, latest), 0);
        EXPECT_EQ(latest, 1800);
        std::string said;
        const auto record = [&] { return log.add_trend_data(_row.first, row(1800).second); };
        EXPECT_EQ(reported(record, said), -1);
        EXPECT_NE(said.find("sqlite3_step(): 1555 (UNIQUE constraint failed: trends_1_1.time)"),
                  std::string::npos)
            << said;
    }
    EXPECT_GT(stored, 0U);
}

TEST_F(recipes, memory_that_runs_out_is_reported_by_whose_it_was)
{
    for (const memory::source_t source : {memory::OURS, memory::SQLITE}) {
        const std::string wanted =
            source == memory::OURS ? "Error: out of memory\n" : ": 7 (out of memory)\n";
        size_t failed = 0;
        for (size_t n = 1;; ++n) {
            disk::restore(base_image(step_t::LOG, true));
            CLog log;
            ASSERT_EQ(prepare(log, {true, false}), 0);
            size_t struck = 0;
            std::string said;
            const auto record = [&, row = row(1800)] {
                memory::arm(source, n, false);
                const int result = log.add_trend_data(row.first, row.second);
                struck = memory::disarm();
                return result;
            };
            const int result = reported(record, said);
            if (struck == 0) break;
            if (result == 0) continue;
            ++failed;
            EXPECT_EQ(result, -1);
            EXPECT_NE(said.find(wanted), std::string::npos) << said;
        }
        EXPECT_GT(failed, 5U);
    }
}

TEST_F(recipes, a_transaction_that_was_dropped_under_a_listing_stores_nothing)
{
    disk::restore(base_image(step_t::LOG, true));
    CLog log;
    ASSERT_EQ(prepare(log, {true, false}), 0);
    const std::string before = live_view();
    ASSERT_EQ(log.begin_transaction(), 0);
    ASSERT_EQ(log.add_trend_data(_row.first, row(1800).second), 0);
    CDeviceData found;
    disk::arm(disk::READ, SQLITE_IOERR_READ, 1, false);
    EXPECT_EQ(log.get_trend_data(found, _row.first, {{1, 12}}, {-1, -1}, 0, 0, true, false), 0);
    ASSERT_EQ(disk::disarm(), 1U);

    testing::internal::CaptureStderr();
    EXPECT_EQ(log.add_trend_data(_row.first, row(1860).second), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "int toolkit::trend::CStatement::step(): sqlite3_step(): 516 (abort due to "
              "ROLLBACK)\n");
    std::vector<CDeviceProperties> devices;
    EXPECT_EQ(log.get_devices(devices), 0);
    EXPECT_TRUE(devices.empty());
    EXPECT_NE(log.end_transaction(), 0);
    EXPECT_EQ(live_view(), before);
    EXPECT_EQ(log.add_trend_data(_row.first, row(1800).second), 0);
}

// What was checkpointed leaves its room in the write-ahead log, which is used without a byte more.
TEST_F(recipes, a_full_disk_is_written_to_until_the_write_ahead_log_has_to_grow)
{
    disk::restore(base_image(step_t::LOG, true));
    CLog log;
    ASSERT_EQ(prepare(log, {true, true}), 0);
    time_t time = 1800;
    for (; time < 3000; time += 60)
        ASSERT_EQ(log.add_trend_data(_row.first, row(time).second), 0);
    ASSERT_EQ(log.checkpoint(), 0);

    disk::leave_room(0);
    EXPECT_EQ(log.add_trend_data(_row.first, row(time).second), 0);
    EXPECT_EQ(log.clear_trend_data(_row.first._device, {-1, time - 60}), 1);
    EXPECT_EQ(log.remove_period({5, 8}), 0);

    std::string before;
    std::string said;
    int result = 0;
    while (result == 0 && time < 60000) {
        before = live_view();
        time += 60;
        result = reported([&] { return log.add_trend_data(_row.first, row(time).second); }, said);
    }
    EXPECT_EQ(result, -1);
    EXPECT_NE(said.find("13 (database or disk is full)"), std::string::npos) << said;
    EXPECT_EQ(log.clear_trend_data(_row.first._device, {-1, -1}), -1);
    EXPECT_EQ(log.remove_period({15, 4}), -1);
    EXPECT_EQ(log.vacuum(), -1);
    EXPECT_EQ(live_view(), before);
    disk::make_room();
    EXPECT_EQ(log.clear_trend_data(_row.first._device, {-1, -1}), 0);
}

// The journal is a new file each time.
TEST_F(recipes, a_full_disk_refuses_whatever_needs_a_rollback_journal)
{
    disk::restore(base_image(step_t::LOG, false));
    CLog log;
    ASSERT_EQ(prepare(log, {false, true}), 0);
    const std::string before = live_view();
    disk::leave_room(0);
    EXPECT_EQ(log.add_trend_data(_row.first, row(1800).second), -1);
    EXPECT_EQ(log.clear_trend_data(_row.first._device, {-1, -1}), -1);
    EXPECT_EQ(log.remove_period({5, 8}), -1);
    EXPECT_EQ(log.vacuum(), -1);
    EXPECT_EQ(live_view(), before);
    disk::make_room();
    EXPECT_EQ(log.clear_trend_data(_row.first._device, {-1, -1}), 0);
}

TEST_F(recipes, what_deleting_frees_stays_in_the_file_until_vacuum)
{
    for (const bool wal : {true, false}) {
        disk::restore(base_image(step_t::LOG, wal));
        CLog log;
        ASSERT_EQ(prepare(log, {wal, true}), 0);
        for (time_t time = 1800; time < 20000; time += 60)
            ASSERT_EQ(log.add_trend_data(_row.first, row(time).second), 0);
        const auto size = [&] {
            EXPECT_EQ(log.checkpoint(), 0);
            return disk::image()[LOG_FILE].size();
        };
        const size_t grown = size();
        EXPECT_EQ(log.remove_period({5, 8}), 0);
        EXPECT_EQ(size(), grown);
        EXPECT_EQ(log.vacuum(), 0);
        EXPECT_LT(size(), grown);
    }
}

// Once for the new content as a temporary file; once more in the write-ahead log, or for the old
// content in the journal. The cache is so small that nothing of it stays in memory.
TEST_F(recipes, vacuum_needs_twice_the_size_of_the_file)
{
    for (const bool wal : {true, false}) {
        disk::restore(base_image(step_t::LOG, wal));
        CLog log;
        const auto open = [&] {
            return log.open(LOG_FILE, false, false, 20, false, 0, 40960, 0, wal);
        };
        ASSERT_EQ(open(), 0);
        ASSERT_EQ(log.modify_period({1, 20000}), 0);
        ASSERT_EQ(log.begin_transaction(), 0);
        for (time_t time = 1800; time < 1000000; time += 60)
            ASSERT_EQ(log.add_trend_data(_row.first, row(time).second), 0);
        ASSERT_EQ(log.end_transaction(), 0);
        log.close();
        const disk::image_t image = disk::image();
        const size_t size = image.at(LOG_FILE).size();
        size_t room = 0;
        for (bool fits = false; !fits && room < 4 * size; room += fits ? 0 : size / 16) {
            disk::restore(image);
            ASSERT_EQ(open(), 0);
            disk::leave_room(room);
            fits = log.vacuum() == 0;
            disk::make_room();
            log.close();
        }
        std::printf("Vacuum, %s: %zu bytes for a file of %zu\n", wal ? "WAL" : "journal", room,
                    size);
        EXPECT_GT(room, size * 3 / 2);
        EXPECT_LT(room, size * 5 / 2);
    }
}

TEST_F(recipes, commits_are_synced_in_full_unless_sqlite_was_built_otherwise)
{
    for (const bool wal : {true, false}) {
        disk::restore(base_image(step_t::LOG, wal));
        sqlite3* db = nullptr;
        sqlite3_stmt* stmt = nullptr;
        ASSERT_EQ(sqlite3_open(LOG_FILE, &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA synchronous", -1, &stmt, nullptr), SQLITE_OK);
        ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
        EXPECT_EQ(sqlite3_column_int(stmt, 0), 2);
        sqlite3_finalize(stmt);
        sqlite3_close(db);
    }
}

TEST_F(recipes, damage_is_reported_as_code_26_in_the_header_and_11_elsewhere)
{
    for (const bool wal : {true, false}) {
        const disk::image_t sound = base_image(step_t::LOG, wal);
        CLog log;
        const auto use = [&] {
            std::vector<CDeviceProperties> devices;
            const int failed = open_log(log, {wal, true}, false);
            return failed ? failed : log.get_devices(devices);
        };
        std::string said;
        disk::image_t image = sound;
        image[LOG_FILE].replace(0, 16, 16, '\xFF');  // what every database begins with
        disk::restore(image);
        EXPECT_EQ(reported(use, said), -1);
        EXPECT_NE(said.find(": 26 (file is not a database)"), std::string::npos) << said;

        image = sound;
        image[LOG_FILE][100] = '\xFF';  // the kind of the first page
        disk::restore(image);
        EXPECT_EQ(reported(use, said), -1);
        EXPECT_NE(said.find(": 11 ("), std::string::npos) << said;
    }
}

TEST_F(recipes, a_flipped_bit_in_a_value_is_read_as_another_value)
{
    constexpr double VALUE = 0.123456789;
    disk::restore(base_image(step_t::LOG, true));
    CLog log;
    ASSERT_EQ(prepare(log, {true, true}), 0);
    std::pair<CDeviceParams, CSnapshot> stored = row(1800);
    stored.second._samples[0]._avg = VALUE;
    ASSERT_EQ(log.add_trend_data(stored.first, stored.second), 0);
    log.close();

    uint64_t bits = 0;
    std::memcpy(&bits, &VALUE, sizeof bits);
    std::string bytes;  // as they stand in the file, the most significant one first
    for (int shift = 56; shift >= 0; shift -= 8)
        bytes += static_cast<char>(bits >> shift & 0xFF);
    disk::image_t image = disk::image();
    const size_t at = image[LOG_FILE].find(bytes);
    ASSERT_NE(at, std::string::npos);
    image[LOG_FILE][at + 1] ^= 0x10;  // the lowest bit of the exponent
    disk::restore(image);

    ASSERT_EQ(open_log(log, {true, true}, false), 0);
    CDeviceData found;
    EXPECT_EQ(log.get_trend_data(found, stored.first, {{1, 12}}, {1800, 1800}, 0, 0, true, false),
              0);
    ASSERT_EQ(found._snapshots.size(), 1U);
    const double read = *found._snapshots[0]._samples[0]._avg;
    EXPECT_TRUE(read == 2 * VALUE || read == VALUE / 2) << read;
    EXPECT_NE(live_view()[0], '!');  // nor does the check of the whole file see it
}
