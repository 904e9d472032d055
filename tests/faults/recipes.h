#pragma once

// The programs of docs/reliability.md, word for word: recipes_test compares and runs them.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <thread>
#include <utility>
#include <vector>

#include "trend_transaction.h"

using namespace toolkit::trend;

// Stores all rows or none.
inline int record_together(CLog& log, const std::vector<std::pair<CDeviceParams, CSnapshot>>& rows)
{
    CTransaction all(log);
    if (const int failed = all.failed()) return failed;
    for (const auto& [device, snapshot] : rows)
        if (const int failed = log.add_trend_data(device, snapshot)) return failed;
    return all.commit();
}

// Stores one row although other processes write the same file.
inline int record_among_others(CLog& log, const CDeviceParams& device, const CSnapshot& snapshot)
{
    int failed = -1;
    for (int attempt = 0; failed != 0 && attempt < 30; ++attempt) {
        if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(attempt));
        failed = log.add_trend_data(device, snapshot);
    }
    return failed;
}

// Adds the periods that the log does not have yet, although another process may be doing so too.
inline int add_missing_periods(CLog& log, const std::vector<CPeriodProperties>& wanted)
{
    CTransaction all(log);
    if (const int failed = all.failed()) return failed;
    std::vector<CPeriodProperties> stored;
    if (const int failed = log.get_periods(stored)) return failed;
    for (const CPeriodProperties& period : wanted) {
        const auto is_same = [&](const auto& other) { return other._period == period._period; };
        if (std::none_of(stored.begin(), stored.end(), is_same))
            if (const int failed = log.add_period(period)) return failed;
    }
    return all.commit();
}

// After a start, however the last run ended: fills the gap since the newest row with blank rows and
// sets `next` to the end of the interval that is to be recorded next, which lies after the newest
// row even if the clock was set back meanwhile. `period` is the finest one's. Coarse rows stay on
// the clock where every table keeps twice the rows that one row of the next coarser takes; where
// less is kept, fill in steps as record_on_grid() of the guide does.
inline int resume(CLog& log, const CDeviceProperties& device, unsigned long period, time_t now,
                  time_t& next)
{
    time_t latest = -1;
    if (const int failed = log.get_latest_timestamp(device, latest)) return failed;
    if (latest != -1)
        if (const int failed = log.fill_blank_values(device, now, false)) return failed;
    next = CLog::next_interval_boundary(period, std::max(now, latest));
    return 0;
}
