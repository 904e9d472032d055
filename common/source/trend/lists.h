#pragma once

#include <vector>

#include "database.h"
#include "trend_api.h"

// The lists of the configuration, which nearly every operation starts from.

namespace toolkit::trend {

// The signature of get_params(), which reports for create_trend_table() too.
constexpr const char* GET_PARAMS =
    "int toolkit::trend::CLog::get_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";

// A failing step ends a list as its last row does: a host that looks is served better by a short
// list than by none. `whole` says whether the list ended because there were no more rows.
int read_periods(CDatabase& db, std::vector<CPeriodProperties>& periods, bool& whole);
int read_devices(CDatabase& db, std::vector<CDeviceProperties>& devices, bool& whole);
int read_params(CDatabase& db, const CDeviceProperties& device,
                std::vector<CParamProperties>& params, bool& whole, bool fresh = STMT_POOLED);

// For who writes from a list: one that is not whole is a failure, -1.
int read_all_periods(CDatabase& db, std::vector<CPeriodProperties>& periods);
int read_all_devices(CDatabase& db, std::vector<CDeviceProperties>& devices);
int read_all_params(CDatabase& db, const CDeviceProperties& device,
                    std::vector<CParamProperties>& params, bool fresh = STMT_POOLED);

}  // namespace toolkit::trend
