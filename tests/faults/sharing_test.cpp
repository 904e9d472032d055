// What docs/reliability.md says about those who share a file: who waits for whom and for how long,
// what a long read costs, which files a user needs who may only read. Real files, real processes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "recorder.h"

using namespace toolkit::trend;

namespace {

namespace fs = std::filesystem;

// A second process that does one thing at a time, as it is told, and is killed in the end.
class process_t {
public:
    // `work` is called in the process; its wait() returns when the next go() has been called, its
    // done() makes the next is_done() true.
    struct self_t {
        int _in;
        int _out;

        void wait() const
        {
            char c = 0;
            if (read(_in, &c, 1) != 1) _exit(1);
        }
        void done() const
        {
            if (write(_out, "d", 1) != 1) _exit(1);
        }
    };

    template <typename Work>
    explicit process_t(Work work)
    {
        int in[2];
        int out[2];
        if (pipe(in) != 0 || pipe(out) != 0) throw std::runtime_error("pipe");
        std::fflush(nullptr);
        _pid = fork();
        if (_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            alarm(60);
            close(in[1]);
            close(out[0]);
            work(self_t{in[0], out[1]});
            _exit(0);
        }
        close(in[0]);
        close(out[1]);
        _in = in[1];
        _out = out[0];
    }

    ~process_t()
    {
        kill();
        close(_in);
        close(_out);
    }

    process_t(const process_t&) = delete;
    process_t& operator=(const process_t&) = delete;

    void go() const { EXPECT_EQ(write(_in, "g", 1), 1); }

    // Waits for it, at most so many milliseconds.
    bool is_done(int milliseconds = 20000) const
    {
        timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
        fd_set set;
        FD_ZERO(&set);
        FD_SET(_out, &set);
        char c = 0;
        return select(_out + 1, &set, nullptr, nullptr, &limit) == 1 && read(_out, &c, 1) == 1;
    }

    void kill()
    {
        if (_pid <= 0) return;
        ::kill(_pid, SIGKILL);
        waitpid(_pid, nullptr, 0);
        _pid = -1;
    }

private:
    pid_t _pid = -1;
    int _in = -1;
    int _out = -1;
};

// Long enough for any call here to return if nothing holds it up: they take less than a
// millisecond.
constexpr int A_WHILE = 400;

class sharing : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        // Closed again: no process is forked from one that has a log open.
        CLog log;
        ASSERT_EQ(open(log), 0);
        ASSERT_EQ(recorder::record(log, _data, 1), 0);
        log.close();
        fs::permissions(_folder._path, fs::perms(0755));
    }

    void TearDown() override { fs::permissions(_folder._path, fs::perms(0755)); }

    int open(CLog& log) { return recorder::start(log, _file, is_wal(), "plant/pump", _data); }

    virtual bool is_wal() const { return GetParam(); }

    // Opens the log, holds a transaction with one row of the minute and ends it on go().
    auto holding_writer(size_t minute)
    {
        return [this, minute](const process_t::self_t& self) {
            CLog log;
            if (open(log) != 0 || log.begin_transaction() != 0) _exit(1);
            if (recorder::record(log, _data, minute) != 0) _exit(1);
            self.done();
            self.wait();
            if (log.end_transaction() != 0) _exit(1);
            self.done();
            self.wait();
        };
    }

    // Opens the log and records; once more when it has been overtaken in between.
    auto recording_twice(size_t minute)
    {
        return [this, minute](const process_t::self_t& self) {
            CLog log;
            if (log.open(_file, false, false, 20, false, 0, 0, 0, is_wal()) != 0) _exit(1);
            self.done();
            if (recorder::record(log, _data, minute) != 0)
                if (recorder::record(log, _data, minute) != 0) _exit(1);
            self.done();
            self.wait();
        };
    }

    // The newest minute and nothing wrong with the file, or what is wrong.
    std::string state()
    {
        CLog log;
        if (open(log) != 0) return "can't be opened";
        const std::string wrong = recorder::wrong_rows(log, _data) + recorder::damage(_file);
        return wrong.empty() ? std::to_string(recorder::newest(log, _data)) : wrong;
    }

    // How many rows a user sees who may not write, neither files nor, as it stands, into the
    // folder; -1 for a failure.
    int rows_for_reader(fs::perms folder = fs::perms(0555))
    {
        for (const auto& entry : fs::directory_iterator(_folder._path))
            fs::permissions(entry.path(), fs::perms::owner_write | fs::perms::group_write,
                            fs::perm_options::remove);
        fs::permissions(_folder._path, folder);
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            alarm(20);
            if (geteuid() == 0 && setuid(65534) != 0) _exit(98);
            CLog log;
            CDeviceData found;
            CDeviceParams data;
            data._device._path = "plant/pump";
            data._device._index = 1;
            if (log.open(_file, true, false, 20, false, 0, 0, 0, is_wal()) != 0) _exit(99);
            if (log.get_trend_data(found, data, {}, {-1, -1}, 0, 0, true, false) != 0) _exit(99);
            _exit(static_cast<int>(found._snapshots.size()));
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        fs::permissions(_folder._path, fs::perms(0755));
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status) == 99 ? -1 : WEXITSTATUS(status);
    }

    const recorder::folder_t _folder;
    const std::string _file = _folder._path + "trend.db";
    CDeviceParams _data;
};

class sharing_wal : public sharing {
    bool is_wal() const override { return true; }
};

class sharing_journal : public sharing {
    bool is_wal() const override { return false; }
};

}  // namespace

// Waiting -----------------------------------------------------------------------------------------

TEST_F(sharing_wal, a_writer_waits_for_another_one_until_that_has_ended_its_transaction)
{
    const process_t first(holding_writer(2));
    ASSERT_TRUE(first.is_done());
    const process_t second(recording_twice(3));
    ASSERT_TRUE(second.is_done());
    EXPECT_FALSE(second.is_done(A_WHILE));
    first.go();
    EXPECT_TRUE(first.is_done());
    EXPECT_TRUE(second.is_done());
}

// A recording reads first, which keeps the other one from committing, and then waits for its
// commit.
TEST_F(sharing_journal, a_recording_while_another_transaction_is_open_blocks_both)
{
    process_t first(holding_writer(2));
    ASSERT_TRUE(first.is_done());
    process_t second(recording_twice(3));
    ASSERT_TRUE(second.is_done());
    EXPECT_FALSE(second.is_done(A_WHILE));
    first.go();
    EXPECT_FALSE(first.is_done(A_WHILE));
    EXPECT_FALSE(second.is_done(0));

    first.kill();
    EXPECT_TRUE(second.is_done()) << "the one that is left goes on";
    second.kill();
    CLog log;
    ASSERT_EQ(open(log), 0);
    EXPECT_EQ(recorder::newest(log, _data), 3);
    EXPECT_EQ(recorder::damage(_file), "");
}

TEST_P(sharing, two_logs_on_one_file_in_one_thread_wait_for_ever)
{
    process_t both([&](const process_t::self_t& self) {
        CLog first;
        CLog second;
        if (open(first) != 0 || open(second) != 0) _exit(1);
        self.done();
        self.wait();
        if (first.begin_transaction() != 0 || recorder::record(first, _data, 2) != 0) _exit(1);
        self.done();
        recorder::record(second, _data, 3);  // for the first, which this thread would have to end
        self.done();
        self.wait();
    });
    ASSERT_TRUE(both.is_done());
    both.go();
    ASSERT_TRUE(both.is_done());
    EXPECT_FALSE(both.is_done(A_WHILE));
    both.kill();
    EXPECT_EQ(state(), "1");
}

TEST_P(sharing, two_logs_on_one_file_in_one_thread_work_only_in_turns)
{
    process_t both([&](const process_t::self_t& self) {
        CLog first;
        CLog second;
        if (open(first) != 0 || open(second) != 0) _exit(1);
        if (recorder::record(first, _data, 2) != 0) _exit(1);
        if (recorder::record(second, _data, 3) != 0) _exit(1);
        self.done();
        self.wait();
    });
    EXPECT_TRUE(both.is_done());
}

TEST_F(sharing_wal, what_another_has_added_since_a_listing_is_a_duplicate)
{
    CLog log;
    CLog other;
    ASSERT_EQ(open(log), 0);
    ASSERT_EQ(open(other), 0);
    CDeviceProperties device;
    device._path = "plant/fan";
    ASSERT_EQ(other.add_period({30, 4}), 0);
    ASSERT_EQ(other.add_device(device), 0);

    testing::internal::CaptureStderr();
    EXPECT_EQ(log.add_period({30, 4}), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("1555"), std::string::npos);
    device = CDeviceProperties();
    device._path = "plant/fan";
    testing::internal::CaptureStderr();
    EXPECT_EQ(log.add_device(device), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("2067"), std::string::npos);
}

TEST_F(sharing_wal, what_another_has_added_since_a_listing_in_the_same_transaction_is_seen_later)
{
    CLog log;
    CLog other;
    ASSERT_EQ(open(log), 0);
    ASSERT_EQ(open(other), 0);
    std::vector<CPeriodProperties> periods;
    ASSERT_EQ(log.begin_transaction(), 0);
    ASSERT_EQ(log.get_periods(periods), 0);
    ASSERT_EQ(other.add_period({30, 4}), 0);

    testing::internal::CaptureStderr();
    EXPECT_EQ(log.add_period({30, 4}), -1);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("517"), std::string::npos) << said;
    log.rollback_transaction();
    ASSERT_EQ(log.get_periods(periods), 0);
    EXPECT_EQ(periods.back()._period, 30U);
}

TEST_F(sharing_wal, a_transaction_that_was_overtaken_is_refused_until_it_is_rolled_back)
{
    CLog log;
    CLog other;
    ASSERT_EQ(open(log), 0);
    ASSERT_EQ(open(other), 0);
    ASSERT_EQ(log.begin_transaction(), 0);
    ASSERT_EQ(recorder::newest(log, _data), 1);
    ASSERT_EQ(recorder::record(other, _data, 2), 0);
    for (int attempt = 0; attempt < 100; ++attempt) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(recorder::record(log, _data, 3), -1);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_NE(said.find("sqlite3_step(): 517 ("), std::string::npos) << said;
    }
    log.rollback_transaction();
    ASSERT_EQ(log.begin_transaction(), 0);
    EXPECT_EQ(recorder::newest(log, _data), 2);
    EXPECT_EQ(recorder::record(log, _data, 3), 0);
    EXPECT_EQ(log.end_transaction(), 0);
}

// Each has read before it writes, as every recording does. One may write and waits for the other's
// read to end; the other waits to be allowed to write.
TEST_F(sharing_journal, two_writers_block_each_other_until_one_is_gone)
{
    const auto writer = [&](size_t minute) {
        return [this, minute](const process_t::self_t& self) {
            CLog log;
            if (open(log) != 0 || log.begin_transaction() != 0) _exit(1);
            if (recorder::newest(log, _data) != 1) _exit(1);
            self.done();
            self.wait();
            if (recorder::record(log, _data, minute) != 0) _exit(1);
            self.done();
            if (log.end_transaction() != 0) _exit(1);
            self.done();
            self.wait();
        };
    };
    process_t first(writer(2));
    process_t second(writer(3));
    ASSERT_TRUE(first.is_done());
    ASSERT_TRUE(second.is_done());
    first.go();
    ASSERT_TRUE(first.is_done());  // has written, and commits
    second.go();
    EXPECT_FALSE(second.is_done(A_WHILE));
    EXPECT_FALSE(first.is_done(0));

    second.kill();
    EXPECT_TRUE(first.is_done());
    first.kill();
    EXPECT_EQ(state(), "2");
}

// Without any transaction of the hosts': each call is one, which reads before it writes.
TEST_F(sharing_journal, two_that_record_row_after_row_block_each_other_before_long)
{
    const auto recorder_of = [&](const char* device) {
        return [this, device](const process_t::self_t& self) {
            CLog log;
            if (recorder::start(log, _file, false, device, _data) != 0) _exit(1);
            self.done();
            self.wait();
            for (auto minute = static_cast<size_t>(recorder::newest(log, _data)) + 1;; ++minute) {
                if (recorder::record(log, _data, minute) != 0) _exit(1);
                self.done();
            }
        };
    };
    process_t first(recorder_of("plant/pump"));
    ASSERT_TRUE(first.is_done());
    process_t second(recorder_of("plant/fan"));
    ASSERT_TRUE(second.is_done());
    first.go();
    second.go();
    size_t rows = 0;
    const auto is_row_done = [&] {
        for (int waited = 0; waited < 10 * A_WHILE; ++waited)
            if (first.is_done(0) || second.is_done(1)) return true;
        return false;
    };
    while (rows < 1000000 && is_row_done())
        ++rows;
    std::printf("Two recorders, rollback journal: blocked after %zu rows\n", rows);
    EXPECT_LT(rows, 1000000U);

    first.kill();
    EXPECT_TRUE(second.is_done()) << "the one that is left goes on";
    second.kill();
    CLog log;
    ASSERT_EQ(open(log), 0);
    EXPECT_EQ(recorder::wrong_rows(log, _data), "");
    EXPECT_EQ(recorder::damage(_file), "");
}

TEST_F(sharing_wal, one_of_two_writers_is_refused_and_neither_waits)
{
    const auto writer = [&](size_t minute, bool refused) {
        return [this, minute, refused](const process_t::self_t& self) {
            CLog log;
            if (open(log) != 0 || log.begin_transaction() != 0) _exit(1);
            if (recorder::newest(log, _data) != 1) _exit(1);
            self.done();
            self.wait();
            const bool failed = recorder::record(log, _data, minute) != 0;
            if (failed)
                log.rollback_transaction();
            else if (log.end_transaction() != 0)
                _exit(1);
            if (failed == refused) self.done();
            self.wait();
        };
    };
    process_t first(writer(2, false));
    process_t second(writer(3, true));
    ASSERT_TRUE(first.is_done());
    ASSERT_TRUE(second.is_done());
    first.go();
    EXPECT_TRUE(first.is_done());
    second.go();
    EXPECT_TRUE(second.is_done());
    first.kill();
    second.kill();
    EXPECT_EQ(state(), "2");
}

TEST_F(sharing_journal, a_commit_waits_for_a_reader_that_holds_on)
{
    const process_t reader([&](const process_t::self_t& self) {
        CLog log;
        if (open(log) != 0 || log.begin_transaction() != 0) _exit(1);
        if (recorder::newest(log, _data) != 1) _exit(1);
        self.done();
        self.wait();
        if (log.end_transaction() != 0) _exit(1);
        self.done();
        self.wait();
    });
    ASSERT_TRUE(reader.is_done());
    const process_t writer([&](const process_t::self_t& self) {
        CLog log;
        if (open(log) != 0) _exit(1);
        self.done();
        if (recorder::record(log, _data, 2) != 0) _exit(1);
        self.done();
        self.wait();
    });
    ASSERT_TRUE(writer.is_done());
    EXPECT_FALSE(writer.is_done(A_WHILE));
    reader.go();
    EXPECT_TRUE(reader.is_done());
    EXPECT_TRUE(writer.is_done());
}

// The other one does what SQLite does while it rebuilds the index: it holds the lock for that, and
// the one for writing, with no valid header in the index.
TEST_F(sharing_wal, while_another_rebuilds_the_index_a_listing_is_empty_and_recording_is_refused)
{
    CLog log;
    std::vector<CPeriodProperties> periods;
    const process_t rebuilder([&](const process_t::self_t& self) {
        self.wait();
        const int index = ::open((_file + "-shm").c_str(), O_RDWR);
        for (const off_t lock : {120, 122}) {
            struct flock range = {F_WRLCK, SEEK_SET, lock, 1, 0};
            if (fcntl(index, F_SETLK, &range) != 0) _exit(1);
        }
        const char no_header[96] = {};
        if (pwrite(index, no_header, sizeof no_header, 0) != sizeof no_header) _exit(1);
        self.done();
        self.wait();
        close(index);
        self.done();
        self.wait();
    });
    ASSERT_EQ(open(log), 0);
    ASSERT_EQ(log.get_periods(periods), 0);
    const size_t all = periods.size();
    rebuilder.go();
    ASSERT_TRUE(rebuilder.is_done());

    testing::internal::CaptureStderr();
    EXPECT_EQ(log.get_periods(periods), 0);
    EXPECT_TRUE(periods.empty());
    EXPECT_EQ(recorder::record(log, _data, 2), -1);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("sqlite3_step(): 261 ("), std::string::npos) << said;
    rebuilder.go();
    ASSERT_TRUE(rebuilder.is_done());
    EXPECT_EQ(log.get_periods(periods), 0);
    EXPECT_EQ(periods.size(), all);
    EXPECT_EQ(recorder::record(log, _data, 2), 0);
}

// The write-ahead log
// ------------------------------------------------------------------------------

TEST_F(sharing_wal, the_write_ahead_log_keeps_every_commit_while_one_read_lasts)
{
    constexpr uintmax_t FRAME = 4096 + 24;
    constexpr size_t ROWS = 1500;
    const auto wal = [&] { return fs::file_size(_file + "-wal"); };
    const process_t reader([&](const process_t::self_t& self) {
        CLog log;
        if (open(log) != 0 || log.begin_transaction() != 0) _exit(1);
        if (recorder::newest(log, _data) != 1) _exit(1);
        self.done();
        self.wait();
        if (recorder::newest(log, _data) != 1) _exit(1);  // what it sees stays what it was
        if (log.end_transaction() != 0) _exit(1);
        self.done();
        self.wait();
    });
    ASSERT_TRUE(reader.is_done());

    CLog log;
    ASSERT_EQ(open(log), 0);
    size_t minute = 1;
    const auto record = [&](size_t rows) {
        for (size_t i = 0; i < rows; ++i)
            ASSERT_EQ(recorder::record(log, _data, ++minute), 0);
    };
    record(ROWS);
    const uintmax_t held = wal();
    EXPECT_GE(held, ROWS * FRAME) << "a page at least for each commit";
    EXPECT_EQ(log.checkpoint(), 0);  // does what it can, which is nothing
    record(ROWS);
    EXPECT_GE(wal(), held + ROWS * FRAME);

    reader.go();
    ASSERT_TRUE(reader.is_done());
    record(1);
    const uintmax_t grown = wal();
    record(ROWS);
    EXPECT_EQ(wal(), grown) << "used again from the start, never made smaller";
    std::printf("Write-ahead log: %ju bytes a commit while a read lasted\n",
                held / static_cast<uintmax_t>(ROWS));
}

TEST_F(sharing_wal, the_write_ahead_log_stays_at_its_threshold_without_a_long_read)
{
    constexpr uintmax_t FRAME = 4096 + 24;
    CLog log;
    ASSERT_EQ(open(log), 0);
    for (size_t minute = 2; minute < 3000; ++minute)
        ASSERT_EQ(recorder::record(log, _data, minute), 0);
    EXPECT_LT(fs::file_size(_file + "-wal"), 1020 * FRAME);
}

// Users who may only read
// --------------------------------------------------------------------------

TEST_F(sharing_journal, a_reader_needs_the_file_alone) { EXPECT_EQ(rows_for_reader(), 1); }

// What a killed writer has left half written has to be rolled back by somebody who may write.
TEST_F(sharing_journal, a_reader_is_refused_after_a_crash_until_a_writer_has_been_there)
{
    {
        const process_t killed([&](const process_t::self_t& self) {
            CLog log;
            constexpr size_t CACHE = 40960;  // too small for the transaction, so that it is written
            if (log.open(_file, false, true, 20, false, 0, CACHE, 0, false) != 0) _exit(1);
            if (log.begin_transaction() != 0) _exit(1);
            for (int i = 0; i < 20; ++i) {
                CDeviceProperties device;
                device._path = "plant/fan " + std::to_string(i);
                if (log.add_device(device) != 0) _exit(1);
            }
            self.done();
            self.wait();
        });
        ASSERT_TRUE(killed.is_done());
    }
    EXPECT_EQ(rows_for_reader(), -1);
    for (const char* name : {"", "-journal"})
        fs::permissions(_file + name, fs::perms::owner_write, fs::perm_options::add);
    EXPECT_EQ(state(), "1");
    EXPECT_EQ(rows_for_reader(), 1);
}

TEST_F(sharing_wal, a_reader_needs_the_two_files_beside_it)
{
    EXPECT_EQ(rows_for_reader(), -1);  // nobody has the log open, and they are not there
    fs::permissions(_file, fs::perms::owner_write, fs::perm_options::add);
    const process_t writer([&](const process_t::self_t& self) {
        CLog log;
        if (open(log) != 0 || recorder::record(log, _data, 2) != 0) _exit(1);
        self.done();
        self.wait();
    });
    ASSERT_TRUE(writer.is_done());
    EXPECT_EQ(rows_for_reader(), 2);
    for (const char* companion : {"-wal", "-shm"}) {
        fs::permissions(_file + companion, fs::perms(0000));
        EXPECT_EQ(rows_for_reader(), -1) << companion;
        fs::permissions(_file + companion, fs::perms(0644));
    }
    EXPECT_EQ(rows_for_reader(), 2);
}

TEST_F(sharing_wal, a_reader_who_may_write_into_the_folder_makes_the_two_files_for_himself)
{
    ASSERT_FALSE(fs::exists(_file + "-wal"));
    EXPECT_EQ(rows_for_reader(fs::perms(0777)), 1);
}

TEST_F(sharing_wal, a_reader_sees_all_that_a_killed_writer_has_committed)
{
    {
        const process_t killed([&](const process_t::self_t& self) {
            CLog log;
            if (open(log) != 0 || recorder::record(log, _data, 2) != 0) _exit(1);
            self.done();
            self.wait();
        });
        ASSERT_TRUE(killed.is_done());
    }
    EXPECT_EQ(rows_for_reader(), 2);
}

INSTANTIATE_TEST_SUITE_P(journal_modes, sharing, testing::Bool());
