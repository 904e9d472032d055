#pragma once

// Takes a step of the scenario again and again, with the 1st, 2nd, 3rd ... call or request failing,
// and checks after each what has to hold: nothing is lost or mixed, the log goes on.

#include <functional>
#include <string>
#include <vector>

#include "scenario.h"
#include "workers.h"

struct fault_t {
    std::string _name;
    std::function<void(size_t n)> _arm;
    std::function<size_t()> _disarm;  // how often it has struck
};

// One job per step and setting. Of every fault the points first, first + stride, ... are taken.
std::vector<job_t> sweep_jobs(const std::vector<fault_t>& faults, size_t first = 1,
                              size_t stride = 1);

// What all sweeps of a program use: the disk and the allocator, before SQLite is used.
void install_faults();
