#include "trend/checks.h"

#include <limits>

#include "report.h"

namespace toolkit::trend {

tk_string stored_text(const tk_string& text) { return text.substr(0, text.find('\0')); }

bool is_empty_path(const tk_string& path) { return path.c_str()[0] == '\0'; }

bool is_storable(uint64_t n) { return n != 0 && n <= std::numeric_limits<uint32_t>::max(); }

int check_open(const char* fn, const std::shared_ptr<CDatabase>& db)
{
    return db ? 0 : refuse(fn, "DB not open");
}

int check_period(const char* fn, const std::shared_ptr<CDatabase>& db,
                 const CPeriodProperties& period)
{
    if (const int failed = check_open(fn, db)) return failed;
    if (!is_storable(period._period)) return refuse(fn, "invalid period");
    if (!is_storable(period._max_entries)) return refuse(fn, "invalid max_entries");
    return 0;
}

int check_device(const char* fn, const std::shared_ptr<CDatabase>& db,
                 const CDeviceProperties& device)
{
    if (const int failed = check_open(fn, db)) return failed;
    if (is_empty_path(device._path)) return refuse(fn, "empty device path");
    if (device._index < 0) return refuse(fn, "invalid device id");
    return 0;
}

int check_owner_of_rows(const char* fn, const std::shared_ptr<CDatabase>& db,
                        const CDeviceProperties& device)
{
    if (const int failed = check_open(fn, db)) return failed;
    if (device._index < 0 || is_empty_path(device._path)) return refuse(fn, "invalid device id");
    return 0;
}

int check_params(const char* fn, const std::shared_ptr<CDatabase>& db,
                 const CDeviceProperties& device, const std::vector<CParamProperties>& params)
{
    if (const int failed = check_device(fn, db, device)) return failed;
    return params.empty() ? refuse(fn, "empty param list") : 0;
}

int rows_out_of_order(int64_t device, unsigned long period)
{
    report("Rows of 'trends_%jd_%lu' are out of order: the file is damaged",
           static_cast<intmax_t>(device), period);
    return -1;
}

}  // namespace toolkit::trend
