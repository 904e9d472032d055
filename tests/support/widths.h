#pragma once

#include <cstdint>
#include <ctime>

// What a target can say. Tests of what only wide numbers can hold are not there on others: a test
// that is left out of a run says that something is missing.

#define TREND_WIDE_SIZES (SIZE_MAX > 0xffffffff)  // size_t and unsigned long

#if TREND_WIDE_SIZES || (defined(_TIME_BITS) && _TIME_BITS == 64)
#define TREND_WIDE_TIMES 1
#else
#define TREND_WIDE_TIMES 0
#endif

static_assert(sizeof(unsigned long) == sizeof(size_t));
static_assert((sizeof(time_t) == 8) == TREND_WIDE_TIMES);
