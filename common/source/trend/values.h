#pragma once

#include <cstdint>
#include <ctime>

#include "database.h"
#include "trend_api.h"

// Single values out of the file, and lengths and times as the file counts them.

namespace toolkit::trend {

constexpr int64_t SECONDS_PER_MINUTE = 60;
constexpr int64_t SPARE_INTERVALS = 10;  // kept beyond a period's rows by the roll-up's trim

// get_intval() for a value that something is decided by: one that could not be read is a failure.
int read_intval(CDatabase& db, const tk_string& sql, bool fresh, int64_t& out);

// The times of a trend table's newest and oldest row, -1 when it is empty.
int newest_time(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                int64_t& time);
int oldest_time(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                int64_t& time);

// In seconds. A period that is too long to be stored counts as the longest one that is not.
int64_t interval_length(const CPeriodProperties& period);

// A time out of the file. Where time_t has 32 bits, a later one reads as the last that it has.
time_t stored_time(int64_t time);

}  // namespace toolkit::trend
