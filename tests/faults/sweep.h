#pragma once

// Takes a step of the scenario again and again, with the 1st, 2nd, 3rd ... call or request failing,
// and checks after each what has to hold: nothing is lost or mixed, the log goes on.

#include <functional>
#include <string>
#include <vector>

#include "scenario.h"
#include "workers.h"

struct fault_t {
    enum kind_t {
        FAILURE,
        BUSY,    // somebody else has what is asked for: a checkpoint may leave that
        DAMAGE,  // of a page, which SQLite finds when it looks into it
    };

    std::string _name;
    kind_t _kind;
    std::function<void(size_t n)> _arm;
    std::function<size_t()> _disarm;  // how often it has struck
};

// One job per step and setting. Of every fault the points first, first + stride, ... are taken.
std::vector<job_t> sweep_jobs(const std::vector<fault_t>& faults, size_t first = 1,
                              size_t stride = 1);

// What a sweep has met: how often that fault has struck in a journal mode, and how often a read
// that broke off has succeeded with what it had.
size_t strikes(const tally_t& tally, size_t fault, bool wal);
size_t reads_broken_off(const tally_t& tally);

// What all sweeps of a program use: the disk and the allocator, before SQLite is used.
void install_faults();
