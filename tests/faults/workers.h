#pragma once

// Runs many small checks in child processes, one per processor, so that a crash, an abort or a hang
// is caught and named, and the rest goes on.

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// Points may say what they have met, by numbers of the test's own below this.
constexpr size_t COUNTERS = 128;

// One of a job's checks.
struct point_t {
    static constexpr size_t DONE = static_cast<size_t>(-1);

    size_t _n;
    std::string _failure;  // what is wrong, if anything
    bool _counts = true;   // false for a look that found nothing to check
    size_t _next;          // the point after this one, or DONE
    std::vector<size_t> _met;
};

// One child's work, point by point, from number 0 on.
struct job_t {
    std::string _name;
    std::function<void(point_t& point)> _take;       // what it throws is a failure
    std::function<void()> _begin;                    // in the child, before the first point
    std::function<void(std::string& failure)> _end;  // and after the last, for what is wrong then
    std::function<std::string(size_t n)> _describe;  // what point `n` is
};

struct tally_t {
    size_t _points = 0;
    size_t _stops = 0;                    // allowed ends of the child, see run_jobs()
    std::vector<std::string> _failures;   // "job, point n: what"
    std::array<size_t, COUNTERS> _met{};  // how many points have met it

    std::string failures() const;  // the first of them, one a line
};

// What the ends of a child by a signal are allowed to be: whether a process that died at this
// signal with these last lines on standard error did what it may.
using may_stop_t = std::function<bool(int signal, const std::string& said)>;

// Every point has `seconds` to come back.
tally_t run_jobs(const std::vector<job_t>& jobs, unsigned int seconds,
                 const may_stop_t& may_stop = {});

// The value of an environment variable, or `otherwise`.
size_t setting(const char* name, size_t otherwise);
