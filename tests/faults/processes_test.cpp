// Several processes write and read one file in WAL mode. TREND_FAULTS_ROWS is how many rows each
// writer records.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "recorder.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

constexpr int MOST = 8;

// What the processes tell, in memory that they share.
struct board_t {
    std::atomic<int> _waiting;  // for the others to be there too
    std::atomic<int> _writing;
    std::atomic<size_t> _rows[MOST];
    std::atomic<bool> _finished;  // the first writer has
    std::atomic<size_t> _least;   // rows of the slowest one at that moment

    // Calls that another process got in front of, by SQLite's code.
    std::atomic<size_t> _stale;       // 517: it has written since this one's read
    std::atomic<size_t> _recovering;  // 261: it is rebuilding the index of the write-ahead log
    std::atomic<size_t> _other;       // what may not be

    std::atomic<size_t> _reads[MOST];
    std::atomic<bool> _wrong;

    void meet()
    {
        --_waiting;
        while (_waiting > 0)
            sched_yield();
    }
};

std::string name_of(int writer) { return "plant/pump " + std::to_string(writer); }
std::string words_of(const std::string& file, int process)
{
    return file + "-said-" + std::to_string(process);
}

std::string text_of(const std::string& file)
{
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Whether this was said about calls that another process got in front of, and nothing else.
bool is_overtaken(board_t& board, const std::string& said)
{
    static const std::regex code("sqlite3_[a-z]+\\(\\): ([0-9]+) \\(");
    bool stale = false;
    bool recovering = false;
    bool other = false;
    for (std::sregex_iterator found(said.begin(), said.end(), code), end; found != end; ++found) {
        stale = stale || (*found)[1] == "517";
        recovering = recovering || (*found)[1] == "261";
        other = other || ((*found)[1] != "517" && (*found)[1] != "261");
    }
    if (other || !(stale || recovering)) {
        ++board._other;
        return false;
    }
    ++(stale ? board._stale : board._recovering);
    return true;
}

// Repeats a call until it succeeds. `refused` sees that it had to be, and has changed nothing.
template <typename Call, typename Refused>
void until_done(board_t& board, const std::string& words, Call call, Refused refused)
{
    while (call() != 0) {
        if (!is_overtaken(board, text_of(words))) {
            board._wrong = true;
            _exit(2);  // with what was said
        }
        if (ftruncate(STDERR_FILENO, 0) != 0) _exit(1);
        refused();
    }
}

void write_rows(board_t& board, int me, int writers, const std::string& file, size_t rows)
{
    CLog log;
    CDeviceParams data;
    const std::string words = words_of(file, me);
    board.meet();
    until_done(
        board, words, [&] { return recorder::start(log, file, true, name_of(me), data); }, [] {});
    for (size_t minute = 1; minute <= rows; ++minute) {
        until_done(
            board, words, [&] { return recorder::record(log, data, minute); },
            [&] {
                const std::string wrong = recorder::wrong_rows(log, data);
                const long newest = recorder::newest(log, data);
                if (wrong.empty() && newest + 1 == static_cast<long>(minute)) return;
                std::fprintf(stderr, "refused row %zu, newest %ld: %s\n", minute, newest,
                             wrong.c_str());
                board._wrong = true;
                _exit(3);
            });
        board._rows[me] = minute;
    }
    if (!board._finished.exchange(true))
        board._least = std::min_element(board._rows, board._rows + writers)->load();
    --board._writing;
}

// Each read is one moment of the file, in which nothing can be half done.
void read_rows(board_t& board, int me, const std::string& file)
{
    CLog log;
    board.meet();
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
                std::fprintf(stderr, "%s: %s\n", device._path.c_str(), wrong.c_str());
                board._wrong = true;
                _exit(3);
            }
            ++board._reads[me];
        }
    }
}

// Runs `work` in a process of its own, of which what it says is kept in a file.
template <typename Work>
pid_t in_process(const std::string& words, Work work)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(300);
    if (std::freopen(words.c_str(), "a", stderr) == nullptr) _exit(1);
    std::setvbuf(stderr, nullptr, _IONBF, 0);
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
    board._waiting = count;

    std::vector<pid_t> children;
    for (int me = 0; me < count; ++me)
        children.push_back(in_process(words_of(file, me), [&, me] {
            if (me < writers)
                write_rows(board, me, writers, file, rows);
            else
                read_rows(board, me, file);
        }));
    for (int me = 0; me < count; ++me) {
        int status = 0;
        const pid_t child = children[static_cast<size_t>(me)];
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "a process did not finish: " << text_of(words_of(file, me));
        if (status != 0) board._writing = 0;
    }
    ASSERT_FALSE(HasFailure());

    // One process alone, with the same rows.
    CLog alone;
    CDeviceParams data;
    ASSERT_EQ(recorder::start(alone, folder._path + "alone.db", true, name_of(0), data), 0);
    for (size_t minute = 1; minute <= rows; ++minute)
        ASSERT_EQ(recorder::record(alone, data, minute), 0);
    const std::string wanted = rows_of(alone, name_of(0));

    CLog log;
    ASSERT_EQ(log.open(file, false, false, 20, false, 0, 0, 0, true), 0);
    for (int me = 0; me < writers; ++me)
        EXPECT_EQ(rows_of(log, name_of(me)), wanted) << name_of(me);
    size_t reads = 0;
    for (int me = writers; me < count; ++me) {
        reads += board._reads[me];
        EXPECT_GT(board._reads[me], 0U) << "a reader never read";
    }
    EXPECT_GT(board._least, 0U) << "a writer had to wait until another was done";
    EXPECT_EQ(board._other, 0U) << "refused with another code than 517 or 261";
    EXPECT_FALSE(board._wrong);
    EXPECT_EQ(recorder::damage(file), "");
    std::printf(
        "Processes: %d writers, %d readers, %zu rows each (the slowest had %zu when the first was "
        "done), refused %zu times with 517 and %zu with 261, %zu reads\n",
        writers, count - writers, rows, board._least.load(), board._stale.load(),
        board._recovering.load(), reads);
    munmap(shared, sizeof(board_t));
}

INSTANTIATE_TEST_SUITE_P(together, processes, testing::Values(2, 3, 4, 6, MOST));
