#pragma once

#include <ctime>

// While it lives, time() gives this answer: for tests of what the library takes for the present.
// -1 is a clock that fails.
class fixed_clock {
public:
    explicit fixed_clock(time_t now);
    ~fixed_clock();

    fixed_clock(const fixed_clock&) = delete;
    fixed_clock& operator=(const fixed_clock&) = delete;
};
