// Several processes write and read one file in WAL mode. TREND_FAULTS_ROWS is how many rows each
// writer records.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "recorder.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

// What the processes tell, in memory that they share.
struct board_t {
    std::atomic<int> _writing;
    std::atomic<size_t> _refused[8];  // calls that another process got in front of
    std::atomic<size_t> _reads[8];
    std::atomic<bool> _wrong;
};

std::string name_of(int writer) { return "plant/pump " + std::to_string(writer); }

// Repeats a call that another process has overtaken: it has changed nothing.
template <typename Call>
void until_done(board_t& board, int me, Call call)
{
    while (call() != 0)
        ++board._refused[me];
}

void write_rows(board_t& board, int me, const std::string& file, size_t rows)
{
    CLog log;
    CDeviceParams data;
    until_done(board, me, [&] { return recorder::start(log, file, true, name_of(me), data); });
    for (size_t minute = 1; minute <= rows; ++minute)
        until_done(board, me, [&] { return recorder::record(log, data, minute); });
    --board._writing;
}

// Each read is one moment of the file, in which nothing can be half done.
void read_rows(board_t& board, int me, const std::string& file)
{
    CLog log;
    while (board._writing > 0) {
        if (!log.is_open() && log.open(file, true, false, 20, false, 0, 0, 0, true) != 0) continue;
        std::vector<CDeviceProperties> devices;
        if (log.get_devices(devices) != 0) continue;
        for (const CDeviceProperties& device : devices) {
            CDeviceParams data;
            data._device = device;
            if (log.get_params(device, data._params) != 0 || data._params.empty()) continue;
            const std::string wrong = recorder::wrong_rows(log, data);
            if (!wrong.empty()) {
                std::fprintf(stderr, "reader: %s: %s\n", device._path.c_str(), wrong.c_str());
                board._wrong = true;
            }
            ++board._reads[me];
        }
    }
}

// Runs `work` in a process of its own, whose reports of overtaken calls go nowhere.
template <typename Work>
pid_t in_process(Work work)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(300);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) _exit(1);
    work();
    _exit(0);
}

std::string rows_of(CLog& log, const std::string& device)
{
    CDeviceParams data;
    std::vector<CDeviceProperties> devices;
    EXPECT_EQ(log.get_devices(devices), 0);
    for (const CDeviceProperties& found : devices)
        if (found._path == device) data._device = found;
    CDeviceData all;
    EXPECT_EQ(log.get_trend_data(all, data, {}, {-1, -1}, 0, 0, true, false), 0);
    std::string text;
    for (const CSnapshot& row : all._snapshots) {
        text += std::to_string(row._period) + " " + std::to_string(row._time);
        for (const CSample& sample : row._samples)
            text += " " + std::to_string(*sample._avg) + " " + std::to_string(*sample._sum);
        text += "\n";
    }
    return text;
}

class processes : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(processes, write_and_read_one_file)
{
    const int count = GetParam();
    const int writers = count - count / 3;
    const size_t rows = setting("TREND_FAULTS_ROWS", 4000);
    const recorder::folder_t folder;
    const std::string file = folder._path + "trend.db";
    void* const shared =
        mmap(nullptr, sizeof(board_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    board_t& board = *new (shared) board_t{};
    board._writing = writers;

    std::vector<pid_t> children;
    for (int me = 0; me < count; ++me)
        children.push_back(me < writers ? in_process([&, me] { write_rows(board, me, file, rows); })
                                        : in_process([&, me] { read_rows(board, me, file); }));
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "a process did not finish";
        if (status != 0) board._writing = 0;
    }

    // One process alone, with the same rows.
    CLog alone;
    CDeviceParams data;
    ASSERT_EQ(recorder::start(alone, folder._path + "alone.db", true, name_of(0), data), 0);
    for (size_t minute = 1; minute <= rows; ++minute)
        ASSERT_EQ(recorder::record(alone, data, minute), 0);
    const std::string wanted = rows_of(alone, name_of(0));

    CLog log;
    ASSERT_EQ(log.open(file, false, false, 20, false, 0, 0, 0, true), 0);
    size_t refused = 0;
    size_t reads = 0;
    for (int me = 0; me < writers; ++me)
        EXPECT_EQ(rows_of(log, name_of(me)), wanted) << name_of(me);
    for (int me = 0; me < count; ++me) {
        refused += board._refused[me];
        reads += board._reads[me];
        EXPECT_TRUE(me < writers || board._reads[me] > 0) << "a reader never read";
    }
    EXPECT_FALSE(board._wrong);
    EXPECT_EQ(recorder::damage(file), "");
    std::printf("Processes: %d writers, %d readers, %zu rows each, %zu calls repeated, %zu reads\n",
                writers, count - writers, rows, refused, reads);
    munmap(shared, sizeof(board_t));
}

INSTANTIATE_TEST_SUITE_P(together, processes, testing::Values(2, 3, 4, 6, 8));
