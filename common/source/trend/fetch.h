#pragma once

#include <cstddef>
#include <vector>

#include "database.h"
#include "trend_api.h"

// The pieces of a read, whoever takes its rows.

namespace toolkit::trend {

// Binds the placeholders of read_text(), in the order in which it writes them. `limit` 0 is none.
int bind_read(CStatement& stmt, const std::vector<CPeriodProperties>& period_set,
              const timebounds_t& bounds, bool no_overlap,
              const std::vector<long long>& upper_bounds, size_t limit, size_t offset);

// Decodes the current row of a statement of read_text() into `snapshot`.
int decode_row(const CStatement& stmt, CSnapshot& snapshot,
               const std::vector<CParamProperties>& params);

// Sets, for each of the periods, the time of the oldest row of any finer one among them; -1 where
// they are empty or there is none. In front of it the period has nothing but rows of its own.
int oldest_finer_times(CDatabase& db, const CDeviceProperties& device,
                       const std::vector<CPeriodProperties>& periods,
                       std::vector<long long>& upper_bounds);

}  // namespace toolkit::trend
