// A process that records or rebuilds is killed at any moment, again and again. TREND_FAULTS_KILLS
// is how often.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <new>
#include <random>
#include <string>

#include "recorder.h"
#include "trend_recorder.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

// Tells each minute that the log has acknowledged.
[[noreturn]] void record_for_ever(const std::string& file, bool wal, int out)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    CLog log;
    CDeviceParams data;
    while (recorder::start(log, file, wal, "plant/pump", data) != 0) {
    }
    for (auto minute = static_cast<size_t>(recorder::newest(log, data)) + 1;; ++minute) {
        if (recorder::record(log, data, minute) != 0) _exit(1);
        if (write(out, &minute, sizeof minute) != sizeof minute) _exit(1);
    }
}

constexpr size_t MINUTES = 30;  // what the finest table keeps

// Makes the values of all minutes larger by one, again and again, and tells by how much they are.
[[noreturn]] void rebuild_for_ever(const std::string& file, bool wal, int out)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    CLog log;
    CDeviceParams data;
    while (recorder::start(log, file, wal, "plant/pump", data) != 0) {
    }
    for (auto shift = static_cast<size_t>(recorder::shift_of(log, data)) + 1;; ++shift) {
        if (recorder::correct(log, data, MINUTES, shift) != 0) _exit(1);
        if (write(out, &shift, sizeof shift) != sizeof shift) _exit(1);
    }
}

// The last number told by a process that was killed `microseconds` after it began such work.
using work_t = void (*)(const std::string& file, bool wal, int out);
size_t run_and_kill(work_t work, const std::string& file, bool wal, long microseconds)
{
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe");
    fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
    const pid_t child = fork();
    if (child == 0) work(file, wal, ends[1]);
    close(ends[1]);

    const timespec pause = {0, microseconds * 1000};
    nanosleep(&pause, nullptr);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the process ended by itself";

    size_t acknowledged = 0;
    while (read(ends[0], &acknowledged, sizeof acknowledged) == sizeof acknowledged) {
    }
    close(ends[0]);
    return acknowledged;
}

class kill9 : public testing::TestWithParam<bool> {};

}  // namespace

TEST_P(kill9, loses_nothing_acknowledged_and_leaves_no_half_roll_up)
{
    const bool wal = GetParam();
    const size_t cycles = setting("TREND_FAULTS_KILLS", 400) / 2;
    const auto seed = static_cast<unsigned int>(std::time(nullptr));
    std::mt19937 random(seed);
    size_t rows = 0;
    for (size_t file = 0; file * 10 < cycles; ++file) {
        const recorder::folder_t folder;
        const std::string name = folder._path + "trend.db";
        size_t acknowledged = 0;
        for (size_t i = 0; i < 10; ++i) {
            const size_t last =
                run_and_kill(record_for_ever, name, wal, static_cast<long>(random() % 20000));
            if (last != 0) {
                rows += last - acknowledged;
                acknowledged = last;
            }
            if (access(name.c_str(), F_OK) != 0) continue;

            // One more may have been stored and not acknowledged; the next process goes on from it.
            CLog log;
            CDeviceParams data;
            ASSERT_EQ(recorder::start(log, name, wal, "plant/pump", data), 0) << "seed " << seed;
            const long newest = recorder::newest(log, data);
            ASSERT_GE(newest, static_cast<long>(acknowledged)) << "seed " << seed;
            ASSERT_LE(newest, static_cast<long>(acknowledged) + 1) << "seed " << seed;
            ASSERT_EQ(recorder::wrong_rows(log, data), "") << "seed " << seed;
            ASSERT_EQ(recorder::damage(name), "") << "seed " << seed;
            acknowledged = static_cast<size_t>(newest);
        }
    }
    std::printf("kill -9, %s: %zu cycles, %zu rows acknowledged, none lost\n",
                wal ? "WAL" : "journal", (cycles + 9) / 10 * 10, rows);
    EXPECT_GT(rows, cycles);
}

TEST_P(kill9, leaves_all_of_a_rebuild_or_nothing)
{
    const bool wal = GetParam();
    const size_t cycles = setting("TREND_FAULTS_KILLS", 400) / 4;
    const auto seed = static_cast<unsigned int>(std::time(nullptr));
    std::mt19937 random(seed);
    const recorder::folder_t folder;
    const std::string name = folder._path + "trend.db";
    CDeviceParams data;
    {
        CLog log;
        ASSERT_EQ(recorder::start(log, name, wal, "plant/pump", data), 0);
        for (size_t minute = 1; minute <= MINUTES; ++minute)
            ASSERT_EQ(recorder::record(log, data, minute), 0);
    }
    long done = 0;
    for (size_t i = 0; i < cycles; ++i) {
        const size_t told =
            run_and_kill(rebuild_for_ever, name, wal, static_cast<long>(random() % 20000));

        // One more may have been done and not told.
        CLog log;
        ASSERT_EQ(recorder::start(log, name, wal, "plant/pump", data), 0) << "seed " << seed;
        const long shift = recorder::shift_of(log, data);
        if (told != 0) done = static_cast<long>(told);
        ASSERT_GE(shift, done) << "seed " << seed;
        ASSERT_LE(shift, done + 1) << "seed " << seed;
        ASSERT_EQ(recorder::wrong_rows(log, data, static_cast<size_t>(shift)), "")
            << "seed " << seed;
        ASSERT_EQ(recorder::damage(name), "") << "seed " << seed;
        done = shift;
    }
    std::printf("kill -9 of a rebuild, %s: %zu cycles, %ld rebuilds\n", wal ? "WAL" : "journal",
                cycles, done);
    EXPECT_GT(done, static_cast<long>(cycles));
}

namespace {

// What a host and its next start share, as the world around them: the time, and what was
// acknowledged.
struct world_t {
    int64_t _now = 1'800'000'000'001;
    int64_t _acknowledged = -1;  // seconds
    int64_t _late = -1;    // the newest minute that came late and was acknowledged, in seconds
    int64_t _started = 0;  // the time at the last start
};

class world_clock : public CRecorderClock {
public:
    explicit world_clock(const world_t& world) : _world(world) {}

    int64_t wall() override { return _world._now; }
    int64_t monotonic() override { return _world._now; }
    bool is_trusted() override { return true; }

private:
    const world_t& _world;
};

constexpr int64_t COMMIT_MINUTES = 3;
constexpr int64_t TICK = 10'000;

CRecorderOptions recorder_options(CRecorderClock& clock, bool wal)
{
    CRecorderOptions options;
    options._periods = {{1, 40}, {5, 24}, {15, 16}};
    options._commit_every_ms = COMMIT_MINUTES * 60'000;
    options._hold_ms = 15'000;
    options._clock = &clock;
    options._wal = wal;
    options._late = LATE_MERGE;
    options._merge_every_ms = 60'000;
    options._tell = [](notice_t, const char*) {};
    return options;
}

int start_recorder(CRecorder& recorder, const std::string& file, const CRecorderOptions& options,
                   CRecorderHandles& handles)
{
    CRecorderDevice pump;
    pump._path = "plant/pump";
    pump._params.resize(1);
    pump._params[0]._path = "u";
    pump._params[0]._has_max = pump._params[0]._has_avg = true;
    if (recorder.open(file, options) != 0) return -1;
    return recorder.attach(pump, handles);
}

// The value of a reading is the minute that it is of. Of ten minutes two are silent, and of the
// second one, into which nothing is held, something is said two minutes later.
[[noreturn]] void push_for_ever(const std::string& file, bool wal, world_t& world)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    world_clock clock(world);
    CRecorder recorder;
    CRecorderHandles handles;
    world._started = world._now;
    if (start_recorder(recorder, file, recorder_options(clock, wal), handles) != 0) _exit(1);
    int64_t late = 0, learnt = 0;
    for (size_t i = 0;; ++i) {
        world._now += TICK;
        const int64_t minute = (world._now - 1 + 59'999) / 60'000;
        const int64_t phase = minute % 10;
        if (phase != 5 && phase != 6 &&
            recorder.push(handles._params[0], static_cast<double>(minute), world._now - 1) != 0)
            _exit(2);
        if (phase == 8 && late != minute - 2) {
            late = minute - 2;
            learnt = world._now;
            if (recorder.push(handles._params[0], static_cast<double>(late),
                              late * 60'000 - 30'000))
                _exit(5);
        }
        if (i % 100 != 99) {
            if (recorder.tick() != 0) _exit(3);
            continue;
        }
        if (recorder.flush() != 0) _exit(4);
        world._acknowledged = (world._now - 1) / 60'000 * 60;
        if (late != 0 && world._now - learnt > 60'000) world._late = late * 60;
    }
}

// Where each value is that of its minute and what is missing may be missing, nothing is wrong.
std::string wrong_recorder_rows(CRecorder& recorder, const world_t& world, int64_t& blank,
                                int64_t& newest)
{
    CLog& log = *recorder.log();
    CDeviceParams request;
    std::vector<CDeviceProperties> devices;
    if (log.get_devices(devices) != 0 || devices.size() != 1) return "devices";
    request._device = devices[0];
    CDeviceData data;
    if (log.get_trend_data(data, request, {{1, 40}}, {-1, -1}, 0, 0, true, false) != 0)
        return "can't be read";
    newest = -1;
    blank = 0;
    for (const CSnapshot& row : data._snapshots) {
        const auto time = static_cast<int64_t>(row._time);
        if (time % 60 != 0) return "off the grid";
        if (newest != -1 && time != newest + 60) return "a hole";
        newest = time;
        blank = row._samples[0]._avg ? 0 : blank + 1;  // at the end
        if (!row._samples[0]._avg && time == world._late) return "a late row is lost";
        if (!row._samples[0]._avg) continue;
        // The value before holds into the minute, and may be all that there is in it.
        const double minute = static_cast<double>(time / 60);
        const double max = *row._samples[0]._max, average = *row._samples[0]._avg;
        if (max > minute || max < minute - 1.0 || average > max || average < minute - 1.0)
            return "a wrong row";
    }
    if (newest < world._acknowledged) return "something acknowledged is lost";
    for (const CPeriodProperties& period : {CPeriodProperties(5, 24), CPeriodProperties(15, 16)}) {
        if (log.get_trend_data(data, request, {period}, {-1, -1}, 0, 0, true, false) != 0)
            return "can't be read";
        const auto length = static_cast<int64_t>(period._period) * 60;
        for (const CSnapshot& row : data._snapshots)
            if (static_cast<int64_t>(row._time) % length != 0) return "a coarse row off the clock";
        const int64_t wanted = newest / length * length;
        if (newest != -1 && !data._snapshots.empty() &&
            static_cast<int64_t>(data._snapshots.back()._time) != wanted)
            return "the newest coarse row is missing";
    }
    return "";
}

}  // namespace

TEST_P(kill9, of_a_recorder_takes_what_was_not_committed_and_no_more)
{
    const bool wal = GetParam();
    const size_t cycles = setting("TREND_FAULTS_KILLS", 400) / 4;
    const auto seed = static_cast<unsigned int>(std::time(nullptr));
    std::mt19937 random(seed);
    void* const shared =
        mmap(nullptr, sizeof(world_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    world_t& world = *new (shared) world_t;
    const recorder::folder_t folder;
    const std::string name = folder._path + "trend.db";
    int64_t recorded = 0;
    for (size_t i = 0; i < cycles; ++i) {
        const pid_t child = fork();
        if (child == 0) push_for_ever(name, wal, world);
        const timespec pause = {0, static_cast<long>(random() % 30000) * 1000};
        nanosleep(&pause, nullptr);
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status) << ", seed " << seed;

        // The next start fills what is gone, which is no more than what had not been committed.
        if (access(name.c_str(), F_OK) != 0) continue;
        world_clock clock(world);
        CRecorder recorder;
        CRecorderHandles handles;
        ASSERT_EQ(start_recorder(recorder, name, recorder_options(clock, wal), handles), 0);
        int64_t blank = 0, newest = -1;
        ASSERT_EQ(wrong_recorder_rows(recorder, world, blank, newest), "") << "seed " << seed;
        EXPECT_LE(blank, 1) << "seed " << seed;
        const int64_t running = (world._now - std::max(newest * 1000, world._started)) / 60'000;
        ASSERT_LE(running, COMMIT_MINUTES + 1) << "seed " << seed;
        recorded += (world._now - world._started) / 60'000;

        // It goes on behind them.
        world._now += TICK;
        ASSERT_EQ(
            recorder.push(handles._params[0],
                          static_cast<double>((world._now - 1 + 59'999) / 60'000), world._now - 1),
            0);
        world._now += 60'000;
        ASSERT_EQ(recorder.flush(), 0);
        ASSERT_EQ(wrong_recorder_rows(recorder, world, blank, newest), "") << "seed " << seed;
        ASSERT_EQ(newest, (world._now - 1) / 60'000 * 60);
        recorder.close();
        ASSERT_EQ(recorder::damage(name), "") << "seed " << seed;
    }
    munmap(shared, sizeof(world_t));
    std::printf("kill -9 of a recorder, %s: %zu cycles, %jd minutes recorded\n",
                wal ? "WAL" : "journal", cycles, static_cast<intmax_t>(recorded));
    EXPECT_GT(recorded, static_cast<int64_t>(cycles));
}

INSTANTIATE_TEST_SUITE_P(journal_modes, kill9, testing::Bool());
