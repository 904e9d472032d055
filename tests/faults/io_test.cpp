// Every call of SQLite's to its VFS fails in turn, once or from then on, during every operation.
// TREND_FAULTS_EVERY takes one in so many of them, TREND_FAULTS_SEED says which.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <vector>

#include "disk.h"
#include "sweep.h"
#include "workers.h"

namespace {

struct io_failure_t {
    const char* _name;
    disk::call_t _call;
    int _code;
    // Whether it can go on failing. A lock that others hold for ever is waited for, for ever; what
    // is damaged is one page, not the journal besides.
    bool _lasts;
};

const io_failure_t IO_FAILURES[] = {
    {"read", disk::READ, SQLITE_IOERR_READ, true},
    {"read of a damaged page", disk::READ, SQLITE_CORRUPT, false},
    {"write", disk::WRITE, SQLITE_IOERR_WRITE, true},
    {"write to a full disk", disk::WRITE, SQLITE_FULL, true},
    {"short write", disk::SHORT_WRITE, SQLITE_IOERR_WRITE, true},
    {"short write to a full disk", disk::SHORT_WRITE, SQLITE_FULL, true},
    {"sync", disk::SYNC, SQLITE_IOERR_FSYNC, true},
    {"truncate", disk::TRUNCATE, SQLITE_IOERR_TRUNCATE, true},
    {"open", disk::OPEN, SQLITE_CANTOPEN, true},
    {"delete", disk::DELETE, SQLITE_IOERR_DELETE, true},
    {"size", disk::SIZE, SQLITE_IOERR_FSTAT, true},
    {"access", disk::ACCESS, SQLITE_IOERR_ACCESS, true},
    {"lock", disk::LOCK, SQLITE_IOERR_LOCK, true},
    {"busy lock", disk::LOCK, SQLITE_BUSY, false},
    {"unlock", disk::UNLOCK, SQLITE_IOERR_UNLOCK, true},
    {"map shared memory", disk::SHM_MAP, SQLITE_IOERR_SHMMAP, true},
    {"lock shared memory", disk::SHM_LOCK, SQLITE_IOERR_SHMLOCK, true},
    {"busy shared memory", disk::SHM_LOCK, SQLITE_BUSY, false},
};

std::vector<fault_t> io_faults()
{
    std::vector<fault_t> faults;
    for (const io_failure_t& failure : IO_FAILURES) {
        for (const bool persistent : {false, true}) {
            if (persistent && !failure._lasts) continue;
            const auto arm = [&failure, persistent](size_t n) {
                disk::arm(failure._call, failure._code, n, persistent);
            };
            faults.push_back(
                {std::string(failure._name) + (persistent ? " from" : " at"), arm, disk::disarm});
        }
    }
    return faults;
}

}  // namespace

TEST(io, every_call_fails_during_every_operation)
{
    install_faults();
    const std::vector<fault_t> faults = io_faults();
    const size_t stride = setting("TREND_FAULTS_EVERY", 1);
    const size_t first = 1 + setting("TREND_FAULTS_SEED", 0) % stride;
    const tally_t tally = run_jobs(sweep_jobs(faults, first, stride), 20);
    std::printf("I/O points: %zu swept (1 in %zu), %zu failing\n", tally._points, stride,
                tally._failures.size());
    // A step with fewer calls than the stride may have none of the sample.
    EXPECT_GE(tally._points, stride == 1 ? 25000 : 25000 / stride / 4);
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}
