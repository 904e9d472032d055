#pragma once

#include <cstddef>
#include <vector>

#include "database.h"
#include "trend/memory.h"
#include "trend_api.h"

namespace toolkit::trend {

// CLog::propagate_recent_samples() with what is known of the device, which has an entry for each of
// the periods. Without `params` the stored list is read where it is needed.
int roll_up(CDatabase& db, const CDeviceProperties& device,
            const std::vector<CPeriodProperties>& periods, const std::vector<unsigned long>& ratios,
            size_t idx, known_device_t& known, const std::vector<CParamProperties>* params);

}  // namespace toolkit::trend
