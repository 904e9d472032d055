// Every call of SQLite's to its VFS fails in turn, once or from then on, during every operation.
// TREND_FAULTS_EVERY takes one in so many of them, TREND_FAULTS_SEED says which. Of steps that make
// very many calls one in 12 is taken unless TREND_FAULTS_ALL is set.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <vector>

#include "disk.h"
#include "sweep.h"
#include "workers.h"

namespace {

constexpr size_t GOAL = 40000;

struct io_failure_t {
    const char* _name;
    disk::call_t _call;
    int _code;
    fault_t::kind_t _kind = fault_t::FAILURE;
};

const io_failure_t IO_FAILURES[] = {
    {"read", disk::READ, SQLITE_IOERR_READ},
    {"read of a damaged page", disk::READ, SQLITE_CORRUPT, fault_t::DAMAGE},
    {"write", disk::WRITE, SQLITE_IOERR_WRITE},
    {"write to a full disk", disk::WRITE, SQLITE_FULL},
    {"short write", disk::SHORT_WRITE, SQLITE_IOERR_WRITE},
    {"short write to a full disk", disk::SHORT_WRITE, SQLITE_FULL},
    {"sync", disk::SYNC, SQLITE_IOERR_FSYNC},
    {"truncate", disk::TRUNCATE, SQLITE_IOERR_TRUNCATE},
    {"open", disk::OPEN, SQLITE_CANTOPEN},
    {"delete", disk::DELETE, SQLITE_IOERR_DELETE},
    {"size", disk::SIZE, SQLITE_IOERR_FSTAT},
    {"access", disk::ACCESS, SQLITE_IOERR_ACCESS},
    {"lock", disk::LOCK, SQLITE_IOERR_LOCK},
    {"busy lock", disk::LOCK, SQLITE_BUSY, fault_t::BUSY},
    {"unlock", disk::UNLOCK, SQLITE_IOERR_UNLOCK},
    {"map shared memory", disk::SHM_MAP, SQLITE_IOERR_SHMMAP},
    {"lock shared memory", disk::SHM_LOCK, SQLITE_IOERR_SHMLOCK},
    {"busy shared memory", disk::SHM_LOCK, SQLITE_BUSY, fault_t::BUSY},
};

std::vector<fault_t> io_faults()
{
    std::vector<fault_t> faults;
    for (const io_failure_t& failure : IO_FAILURES) {
        for (const bool persistent : {false, true}) {
            // A lock that others hold for ever is waited for, for ever; what is damaged is one
            // page, not the journal besides.
            if (persistent && failure._kind != fault_t::FAILURE) continue;
            const auto arm = [&failure, persistent](size_t n) {
                disk::arm(failure._call, failure._code, n, persistent);
            };
            faults.push_back({std::string(failure._name) + (persistent ? " from" : " at"),
                              failure._kind, arm, disk::disarm});
        }
    }
    return faults;
}

// Every one has to have struck wherever there is such a call.
void expect_all(const tally_t& tally, const std::vector<fault_t>& faults)
{
    for (size_t i = 0; i < faults.size(); ++i) {
        const size_t wal = strikes(tally, i, true);
        const size_t journal = strikes(tally, i, false);
        std::printf("%8zu in WAL mode, %6zu with a journal: %s\n", wal, journal,
                    faults[i]._name.c_str());
        EXPECT_GT(wal, 0U) << faults[i]._name;
        const bool shared = faults[i]._name.find("shared memory") != std::string::npos;
        EXPECT_EQ(journal == 0, shared) << faults[i]._name;
    }
    EXPECT_GT(reads_broken_off(tally), 0U);
}

}  // namespace

TEST(io, every_call_fails_during_every_operation)
{
    install_faults();
    const std::vector<fault_t> faults = io_faults();
    const size_t stride = setting("TREND_FAULTS_EVERY", 1);
    const size_t first = 1 + setting("TREND_FAULTS_SEED", 0) % stride;
    const tally_t tally = run_jobs(sweep_jobs(faults, first, stride), 20);
    std::printf("I/O points: %zu swept (1 in %zu), %zu failing; %zu reads broke off\n",
                tally._points, stride, tally._failures.size(), reads_broken_off(tally));
    // A step with fewer calls than the stride may have none of the sample.
    if (stride == 1) expect_all(tally, faults);
    EXPECT_GE(tally._points, stride == 1 ? GOAL : GOAL / stride / 4);
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}
