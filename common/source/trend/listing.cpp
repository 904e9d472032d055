#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"

namespace toolkit::trend {

constexpr const char* GET_PERIODS =
    "int toolkit::trend::CLog::get_periods("
    "std::vector<toolkit::trend::CPeriodProperties>&)";

int CLog::get_periods(std::vector<CPeriodProperties>& periods)
try {
    TREND_SIGNATURE(fn, GET_PERIODS);
    CTransCheck check(_db);
    if (const int failed = check_open(fn, _db)) return failed;
    bool whole = false;
    return read_periods(*_db, periods, whole);
} catch (...) {
    return out_of_memory(GET_PERIODS);
}

constexpr const char* GET_DEVICES =
    "int toolkit::trend::CLog::get_devices("
    "std::vector<toolkit::trend::CDeviceProperties>&)";

int CLog::get_devices(std::vector<CDeviceProperties>& devices)
try {
    TREND_SIGNATURE(fn, GET_DEVICES);
    CTransCheck check(_db);
    if (const int failed = check_open(fn, _db)) return failed;
    bool whole = false;
    return read_devices(*_db, devices, whole);
} catch (...) {
    return out_of_memory(GET_DEVICES);
}

int CLog::get_params(const CDeviceProperties& device, std::vector<CParamProperties>& params)
try {
    TREND_SIGNATURE(fn, GET_PARAMS);
    CTransCheck check(_db);
    if (const int failed = check_device(fn, _db, device)) return failed;
    bool whole = false;
    return read_params(*_db, device, params, whole);
} catch (...) {
    return out_of_memory(GET_PARAMS);
}

}  // namespace toolkit::trend
