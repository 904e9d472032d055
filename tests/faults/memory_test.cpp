// Every request for memory fails in turn, SQLite's and the library's, once or from then on, during
// every operation. A sample of them unless TREND_FAULTS_ALL is set; TREND_FAULTS_EVERY takes one
// in so many of those, TREND_FAULTS_SEED says which.

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "memory.h"
#include "sweep.h"
#include "workers.h"

namespace {

std::vector<fault_t> faults_of(memory::source_t source, const char* name)
{
    std::vector<fault_t> faults;
    for (const bool persistent : {false, true})
        faults.push_back({std::string(name) + (persistent ? " request from" : " request at"),
                          fault_t::FAILURE, [=](size_t n) { memory::arm(source, n, persistent); },
                          memory::disarm});
    return faults;
}

// Another sample each day, so that in time every point has its turn.
size_t first_of(size_t stride)
{
    const size_t days = static_cast<size_t>(std::time(nullptr)) / 86400;
    return 1 + (days + setting("TREND_FAULTS_SEED", 0)) % stride;
}

void sweep(memory::source_t source, const char* name, size_t stride, size_t goal)
{
    install_faults();
    if (setting("TREND_FAULTS_ALL", 0) != 0) stride = 1;
    const size_t further = setting("TREND_FAULTS_EVERY", 1);
    stride *= further;
    const size_t first = first_of(stride);
    const std::vector<fault_t> faults = faults_of(source, name);
    const tally_t tally = run_jobs(sweep_jobs(faults, first, stride), 20);
    std::printf(
        "Failing %s requests: %zu swept (1 in %zu, from number %zu), %zu failing; %zu reads broke "
        "off\n",
        name, tally._points, stride, first, tally._failures.size(), reads_broken_off(tally));
    // A step with fewer requests than the stride may have none of the sample.
    for (size_t i = 0; i < faults.size() && further == 1; ++i)
        for (const bool wal : {true, false})
            EXPECT_GT(strikes(tally, i, wal), 0U) << faults[i]._name;
    EXPECT_GE(tally._points, further == 1 ? goal : goal / further / 4);
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}

}  // namespace

TEST(memory, sqlite_runs_out_of_it_during_every_operation)
{
    sweep(memory::SQLITE, "SQLite", 41, 15500);
}

TEST(memory, the_library_runs_out_of_it_during_every_operation)
{
    sweep(memory::OURS, "library", 2, 7000);
}
