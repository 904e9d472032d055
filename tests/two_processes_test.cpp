// One file, two processes: one records, the other reads.

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"

namespace {

using namespace toolkit::trend;

// A second process that runs `work` and ends. It is given a way to wait for the first: `wait`
// returns when the first process has called go() meanwhile, and false when that has gone.
class second_process {
public:
    using wait_t = std::function<bool()>;

    explicit second_process(const std::function<bool(const wait_t&)>& work)
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("socketpair");
        _pid = fork();
        if (_pid < 0) throw std::runtime_error("fork");
        if (_pid == 0) {
            close(ends[0]);
            const auto wait = [&] {
                char earlier[1024];
                while (recv(ends[1], earlier, sizeof earlier, MSG_DONTWAIT) > 0)
                    ;
                return recv(ends[1], earlier, 1, 0) == 1;
            };
            _exit(work(wait) ? 0 : 1);
        }
        close(ends[1]);
        _end = ends[0];
    }

    ~second_process()
    {
        close(_end);
        if (_pid < 0) return;
        kill(_pid, SIGKILL);
        waitpid(_pid, nullptr, 0);
    }

    second_process(const second_process&) = delete;
    second_process& operator=(const second_process&) = delete;

    // Without effect once the other has ended, or has been called often enough for long.
    void go() const { send(_end, "", 1, MSG_NOSIGNAL | MSG_DONTWAIT); }

    // Whether it has ended, and well.
    bool has_ended()
    {
        if (_pid < 0) return true;
        int status = 0;
        if (waitpid(_pid, &status, WNOHANG) == 0) return false;
        _pid = -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        return true;
    }

private:
    pid_t _pid = -1;
    int _end = -1;
};

// A moment by which a test has to come to an end, however slow the machine.
class deadline {
public:
    bool has_passed() const { return std::chrono::steady_clock::now() > _moment; }

private:
    const std::chrono::steady_clock::time_point _moment =
        std::chrono::steady_clock::now() + std::chrono::seconds(100);
};

// With the write-ahead log, and with the rollback journal.
class two_processes : public log_fixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        _args._wal = GetParam();
        open(_args);
        add_periods({{1, 10000}, {5, 10000}, {60, 10000}});
        _pump = add_device("pump", {param("u", "min max avg")});
        _log.close();  // a log must not be open across a fork
    }

    // Records minutes 1 to `count`, `at_once` of them in one transaction, and waits for the reader
    // before it opens the log and after each ten: while one process makes the index of a new
    // write-ahead log, opening fails for another.
    bool record_minutes(int count, int at_once, const second_process::wait_t& wait)
    {
        CLog log;
        if (!wait() || open_log(log, _file, _args) != 0) return false;
        CSnapshot row;
        row._percent_valid = 100;
        row._samples = {CSample{1.0, 1.0, 1.0, 1.0, 1.0}};
        for (int minute = 1; minute <= count; ++minute) {
            if (at_once > 1 && minute % at_once == 1)
                if (log.begin_transaction() != 0) return false;
            row._time = minute * 60;
            if (log.add_trend_data(_pump, row) != 0) return false;
            if (at_once > 1 && minute % at_once == 0)
                if (log.end_transaction() != 0) return false;
            if (minute % 10 == 0 && !wait()) return false;
        }
        return true;
    }

    // How many rows there are of each period, as one read sees it; they must be the first ones.
    std::map<unsigned long, int> counts()
    {
        CDeviceData data;
        EXPECT_QUIET(_log.get_trend_data(data, _pump, {}, {-1, -1}, 0, 0, true, false), 0);
        std::map<unsigned long, int> found;
        for (const CSnapshot& row : data._snapshots) {
            const int rank = ++found[row._period];
            EXPECT_EQ(row._time, static_cast<time_t>(rank) * 60 * static_cast<time_t>(row._period));
        }
        return found;
    }

    // Reads while the other records, until it has recorded all.
    void read_until(int count, int at_once)
    {
        second_process recorder([&](const second_process::wait_t& wait) {
            return record_minutes(count, at_once, wait);
        });
        open(_args);
        const deadline end;
        std::set<int> seen;
        for (bool complete = false; !complete && !HasFailure();) {
            ASSERT_FALSE(end.has_passed());
            complete = recorder.has_ended();  // before the read, so that the last one sees it all
            std::map<unsigned long, int> rows_of = counts();
            EXPECT_EQ(rows_of[1] % at_once, 0);
            EXPECT_EQ(rows_of[5], rows_of[1] / 5);
            EXPECT_EQ(rows_of[60], rows_of[1] / 60);
            seen.insert(rows_of[1]);
            recorder.go();
        }
        EXPECT_EQ(*seen.rbegin(), count);

        // The recorder waits for a read after each ten rows, so many different states were read.
        EXPECT_GE(seen.size(), 5u);
    }

    static void let_end(second_process& other)
    {
        for (const deadline end; !other.has_ended(); std::this_thread::yield()) {
            ASSERT_FALSE(end.has_passed());
            other.go();
        }
    }

    open_args _args;
    CDeviceParams _pump;
};

INSTANTIATE_TEST_SUITE_P(, two_processes, testing::Bool(), [](const auto& wal) {
    return std::string(wal.param ? "with_wal" : "with_rollback_journal");
});

TEST_P(two_processes, reader_never_sees_a_fine_row_without_its_rollups) { read_until(240, 1); }

TEST_P(two_processes, reader_sees_all_of_a_host_transaction_or_nothing) { read_until(420, 7); }

TEST_P(two_processes, recording_waits_for_a_writer_that_holds_the_file)
{
    open(_args);
    record(_pump, 60, {1.0});
    const busy_lock lock(_file, busy_lock::WRITER, 200);
    record(_pump, 120, {2.0});
    EXPECT_EQ(counts()[1], 2);
}

using two_processes_with_wal = two_processes;
INSTANTIATE_TEST_SUITE_P(, two_processes_with_wal, testing::Values(true),
                         testing::PrintToStringParamName());

TEST_P(two_processes_with_wal, reader_keeps_its_state_within_a_host_transaction)
{
    second_process recorder(
        [&](const second_process::wait_t& wait) { return record_minutes(10, 1, wait); });
    open(_args);
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_EQ(counts()[1], 0);
    let_end(recorder);
    EXPECT_EQ(counts()[1], 0);
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(counts()[1], 10);
    EXPECT_EQ(counts()[5], 2);
}

TEST_P(two_processes_with_wal, recording_on_a_state_that_is_out_of_date_fails_and_can_be_repeated)
{
    // What was read before the other's commit cannot be written on.
    second_process recorder(
        [&](const second_process::wait_t& wait) { return record_minutes(1, 1, wait); });
    open(_args);
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_EQ(counts()[1], 0);
    let_end(recorder);

    CSnapshot row;
    row._time = 120;
    row._samples.resize(1);
    EXPECT_REPORTS(_log.add_trend_data(_pump, row), -1,
                   step_and_reset_report(517, "database is locked"));
    _log.rollback_transaction();
    EXPECT_QUIET(_log.add_trend_data(_pump, row), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n120");
}

using two_processes_with_journal = two_processes;
INSTANTIATE_TEST_SUITE_P(, two_processes_with_journal, testing::Values(false),
                         testing::PrintToStringParamName());

TEST_P(two_processes_with_journal, reading_waits_for_a_writer_that_commits)
{
    open(_args);
    record(_pump, 60, {1.0});
    const busy_lock lock(_file, busy_lock::EVERYBODY, 200);
    EXPECT_EQ(counts()[1], 1);
}

}  // namespace
