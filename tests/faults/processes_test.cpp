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

#include "recipes.h"
#include "recorder.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

constexpr int MOST = 8;

// What the processes tell, in memory that they share.
struct board_t {
    std::atomic<int> _waiting;   // for the others to be there too
    std::atomic<int> _starting;  // writers that have not set up yet
    std::atomic<int> _writing;
    std::atomic<size_t> _rows[MOST];

    // Calls that another process got in front of, by SQLite's code.
    std::atomic<size_t> _stale;       // 517: it has written since this one's read
    std::atomic<size_t> _recovering;  // 261: it is rebuilding the index of the write-ahead log
    std::atomic<size_t> _creating;  // 5 when a statement is prepared: the new file is locked whole
    std::atomic<size_t> _other;     // what may not be

    std::atomic<size_t> _reads[MOST];
    std::atomic<bool> _wrong;

    size_t slowest(int writers) const { return *std::min_element(_rows, _rows + writers); }
    size_t fastest(int writers) const { return *std::max_element(_rows, _rows + writers); }

    void meet(std::atomic<int>& others)
    {
        --others;
        while (others > 0 && !_wrong)
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
    static const std::regex failure("(sqlite3_[a-z]+)\\(\\): ([0-9]+) \\(");
    bool stale = false;
    bool recovering = false;
    bool creating = false;
    bool other = false;
    for (std::sregex_iterator found(said.begin(), said.end(), failure), end; found != end;
         ++found) {
        if ((*found)[2] == "517")
            stale = true;
        else if ((*found)[2] == "261")
            recovering = true;
        else if ((*found)[1] == "sqlite3_prepare" && (*found)[2] == "5" && board._starting > 0)
            creating = true;
        else
            other = true;
    }
    if (other || !(stale || recovering || creating)) {
        ++board._other;
        return false;
    }
    ++(stale ? board._stale : recovering ? board._recovering : board._creating);
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
    board.meet(board._waiting);
    until_done(
        board, words, [&] { return recorder::start(log, file, true, name_of(me), data); }, [] {});
    board.meet(board._starting);
    // Nobody stops while another one has hardly begun: who gets nowhere does not by others' leave.
    for (size_t minute = 1; minute <= rows || (board.slowest(writers) < rows / 10 && !board._wrong);
         ++minute) {
        if (minute == 1000 * rows) _exit(4);
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
    --board._writing;
}

// Each read is one moment of the file, in which nothing can be half done.
void read_rows(board_t& board, int me, const std::string& file)
{
    CLog log;
    board.meet(board._waiting);
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

// What a single process leaves that has recorded so many rows.
std::string rows_of_one_alone(size_t rows)
{
    const recorder::folder_t folder;
    CLog log;
    CDeviceParams data;
    EXPECT_EQ(recorder::start(log, folder._path + "alone.db", true, name_of(0), data), 0);
    EXPECT_EQ(log.begin_transaction(), 0);
    for (size_t minute = 1; minute <= rows; ++minute)
        EXPECT_EQ(recorder::record(log, data, minute), 0);
    EXPECT_EQ(log.end_transaction(), 0);
    return rows_of(log, name_of(0));
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
    board._starting = writers;
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
        if (status == 0) continue;
        board._wrong = true;  // nobody waits for it
        board._writing = 0;
    }
    ASSERT_FALSE(HasFailure());

    CLog log;
    ASSERT_EQ(log.open(file, false, false, 20, false, 0, 0, 0, true), 0);
    for (int me = 0; me < writers; ++me)
        EXPECT_EQ(rows_of(log, name_of(me)), rows_of_one_alone(board._rows[me])) << name_of(me);
    size_t reads = 0;
    for (int me = writers; me < count; ++me) {
        reads += board._reads[me];
        EXPECT_GT(board._reads[me], 0U) << "a reader never read";
    }
    EXPECT_EQ(board._other, 0U) << "refused with another code than 517 or 261, or 5 at first";
    EXPECT_FALSE(board._wrong);
    EXPECT_EQ(recorder::damage(file), "");
    std::printf(
        "Processes: %d writers, %d readers, %zu to %zu rows each, "
        "refused %zu times with 517, %zu with 261 and %zu with 5, %zu reads\n",
        writers, count - writers, board.slowest(writers), board.fastest(writers),
        board._stale.load(), board._recovering.load(), board._creating.load(), reads);
    munmap(shared, sizeof(board_t));
}

TEST_P(processes, lose_no_row_by_the_recipes)
{
    const int writers = GetParam();
    const size_t rows = setting("TREND_FAULTS_ROWS", 4000) / 4;
    const recorder::folder_t folder;
    const std::string file = folder._path + "trend.db";
    {
        CLog log;
        ASSERT_EQ(log.open(file, false, true, 20, false, 0, 0, 0, true), 0);
    }
    const auto record = [&](int me) {
        CLog log;
        CDeviceParams data;
        // The limit of the whole process ends what can't be done.
        while (log.open(file, false, false, 20, false, 0, 0, 0, true) != 0 ||
               add_missing_periods(log, recorder::PERIODS) != 0 ||
               recorder::start(log, file, true, name_of(me), data) != 0)
            usleep(1000);
        for (size_t minute = 1; minute <= rows; ++minute)
            while (record_among_others(log, data, recorder::snapshot_of(minute)) != 0)
                usleep(1000);
    };
    std::vector<pid_t> children;
    for (int me = 0; me < writers; ++me)
        children.push_back(in_process(words_of(file, me), [&, me] { record(me); }));
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }

    CLog log;
    ASSERT_EQ(log.open(file, false, false, 20, false, 0, 0, 0, true), 0);
    const std::string wanted = rows_of_one_alone(rows);
    for (int me = 0; me < writers; ++me)
        EXPECT_EQ(rows_of(log, name_of(me)), wanted) << name_of(me);
    EXPECT_EQ(recorder::damage(file), "");
}

// One corrects all that there is of a device, others record theirs, and the rest read the first one
// through every view.
TEST_P(processes, read_and_record_beside_one_that_rebuilds)
{
    const int count = GetParam();
    const size_t rounds = setting("TREND_FAULTS_ROWS", 4000) / 20;
    constexpr size_t MINUTES = 30;  // what the finest table keeps
    const recorder::folder_t folder;
    const std::string file = folder._path + "trend.db";
    CDeviceParams data;
    {
        CLog log;
        ASSERT_EQ(recorder::start(log, file, true, name_of(0), data), 0);
        for (size_t minute = 1; minute <= MINUTES; ++minute)
            ASSERT_EQ(recorder::record(log, data, minute), 0);
    }
    void* const shared =
        mmap(nullptr, sizeof(board_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    board_t& board = *new (shared) board_t{};
    board._writing = 1;
    board._waiting = count;
    const auto reads = [](int me) { return me % 2 == 1; };

    const auto rebuild = [&] {
        CLog log;
        const std::string words = words_of(file, 0);
        until_done(
            board, words, [&] { return recorder::start(log, file, true, name_of(0), data); },
            [] {});
        board.meet(board._waiting);
        // Until everybody else has had a turn, too.
        const auto is_waiting = [&] {
            for (int me = 1; me < count; ++me)
                if ((reads(me) ? board._reads[me] : board._rows[me]) < 10) return !board._wrong;
            return false;
        };
        for (size_t shift = 1; shift <= rounds || is_waiting(); ++shift) {
            until_done(
                board, words, [&] { return recorder::correct(log, data, MINUTES, shift); },
                [&] {
                    const std::string wrong = recorder::wrong_rows(log, data, shift - 1);
                    if (wrong.empty()) return;
                    std::fprintf(stderr, "refused rebuild %zu: %s\n", shift, wrong.c_str());
                    board._wrong = true;
                    _exit(3);
                });
            board._rows[0] = shift;
        }
        board._writing = 0;
    };
    const auto record = [&](int me) {
        CLog log;
        CDeviceParams own;
        const std::string words = words_of(file, me);
        until_done(
            board, words, [&] { return recorder::start(log, file, true, name_of(me), own); },
            [] {});
        board.meet(board._waiting);
        for (size_t minute = 1; board._writing > 0 && !board._wrong; ++minute) {
            until_done(
                board, words, [&] { return recorder::record(log, own, minute); }, [] {});
            board._rows[me] = minute;
        }
    };
    const auto read = [&](int me) {
        CLog log;
        board.meet(board._waiting);
        if (log.open(file, true, false, 20, false, 0, 0, 0, true) != 0) _exit(2);
        while (board._writing > 0 && !board._wrong) {
            const std::string wrong =
                recorder::wrong_views(log, data, MINUTES, [] { sched_yield(); });
            ++board._reads[me];
            if (wrong.empty()) continue;
            std::fprintf(stderr, "%s\n", wrong.c_str());
            board._wrong = true;
            _exit(3);
        }
    };
    std::vector<pid_t> children;
    for (int me = 0; me < count; ++me)
        children.push_back(in_process(words_of(file, me), [&, me] {
            if (me == 0)
                rebuild();
            else if (reads(me))
                read(me);
            else
                record(me);
        }));
    for (int me = 0; me < count; ++me) {
        int status = 0;
        const pid_t child = children[static_cast<size_t>(me)];
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "a process did not finish: " << text_of(words_of(file, me));
        if (status == 0) continue;
        board._wrong = true;  // nobody waits for it
        board._writing = 0;
        board._waiting = 0;
    }
    ASSERT_FALSE(HasFailure());

    CLog log;
    ASSERT_EQ(log.open(file, false, false, 20, false, 0, 0, 0, true), 0);
    EXPECT_EQ(recorder::wrong_rows(log, data, board._rows[0]), "");
    for (int me = 2; me < count; me += 2)
        EXPECT_EQ(rows_of(log, name_of(me)), rows_of_one_alone(board._rows[me])) << name_of(me);
    EXPECT_EQ(board._other, 0U) << "refused with another code than 517 or 261";
    EXPECT_EQ(recorder::damage(file), "");
    std::printf("Beside %zu rebuilds: refused %zu times with 517 and %zu with 261\n",
                board._rows[0].load(), board._stale.load(), board._recovering.load());
    munmap(shared, sizeof(board_t));
}

INSTANTIATE_TEST_SUITE_P(together, processes, testing::Values(2, 3, 4, 6, MOST));
