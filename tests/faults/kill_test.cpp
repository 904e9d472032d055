// A process that records is killed at any moment, again and again. TREND_FAULTS_KILLS is how often.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <random>
#include <string>

#include "recorder.h"
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

// The last minute acknowledged by a process that was killed `microseconds` after its start.
size_t run_and_kill(const std::string& file, bool wal, long microseconds)
{
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe");
    fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
    const pid_t child = fork();
    if (child == 0) record_for_ever(file, wal, ends[1]);
    close(ends[1]);

    const timespec pause = {0, microseconds * 1000};
    nanosleep(&pause, nullptr);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the recording process ended by itself";

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
            const size_t last = run_and_kill(name, wal, static_cast<long>(random() % 20000));
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

INSTANTIATE_TEST_SUITE_P(journal_modes, kill9, testing::Bool());
