#include <algorithm>
#include <iterator>
#include <map>

#include "columns.h"
#include "runsql.h"
#include "sqlformat.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

template <typename Params>
auto find_param(Params& params, int64_t index)
{
    return std::find_if(params.begin(), params.end(),
                        [index](const CParamProperties& param) { return param._index == index; });
}

// Whether the changes, stored one after the other with INSERT OR REPLACE, would each meet a stored
// parameter of their own type.
bool are_acceptable(const std::vector<CParamProperties>& changes,
                    const std::vector<CParamProperties>& stored)
{
    return std::all_of(changes.begin(), changes.end(), [&](const CParamProperties& change) {
        const auto found = find_param(stored, change._index);
        return change._index >= 0 && found != stored.end() && found->_type == change._type;
    });
}

// Whether storing the changes one after the other would leave a parameter out: INSERT OR REPLACE
// deletes whichever other row has the path at that moment. It comes back if its own turn is still
// to come, which is how paths are swapped.
bool would_lose_a_param(const std::vector<CParamProperties>& changes,
                        const std::vector<CParamProperties>& stored)
{
    std::map<tk_string, int64_t> owners;
    std::map<int64_t, tk_string> paths;
    for (const CParamProperties& param : stored) {
        owners[param._path] = param._index;
        paths[param._index] = param._path;
    }
    for (const CParamProperties& change : changes) {
        const auto before = paths.find(change._index);
        if (before != paths.end()) owners.erase(before->second);
        const auto replaced = owners.find(change._path);
        if (replaced != owners.end()) paths.erase(replaced->second);
        owners[change._path] = change._index;
        paths[change._index] = change._path;
    }
    return paths.size() != stored.size();
}

}  // namespace

constexpr const char* ADD_PARAMS =
    "int toolkit::trend::CLog::add_params("
    "const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";

int CLog::add_params(const CDeviceProperties& device, std::vector<CParamProperties>& params)
try {
    TREND_SIGNATURE(fn, ADD_PARAMS);
    CTransCheck check(_db);
    if (const int failed = check_params(fn, _db, device, params)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    for (CParamProperties& param : params)
        if (const int failed = add_param(device, periods, param)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(ADD_PARAMS);
}

constexpr const char* MODIFY_PARAMS =
    "int toolkit::trend::CLog::modify_params("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&)";

int CLog::modify_params(const CDeviceProperties& device,
                        const std::vector<CParamProperties>& params)
try {
    TREND_SIGNATURE(fn, MODIFY_PARAMS);
    std::vector<CParamProperties> param_copies = params;
    CTransCheck check(_db);
    if (const int failed = check_params(fn, _db, device, params)) return failed;
    // Of two entries for one parameter the caller's later one is stored last.
    std::stable_sort(param_copies.begin(), param_copies.end());
    for (CParamProperties& param : param_copies)
        param._path = stored_text(param._path);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    std::vector<CParamProperties> all_params;
    if (const int failed = read_all_params(*_db, device, all_params)) return failed;
    std::vector<CParamProperties> new_params = all_params;

    const tk_string sql =
        sql_text("INSERT OR REPLACE INTO params_", device._index, " VALUES (?,?,?,?,?,?,?,?)");
    stmt_wrapper_t stmt(CThrowing::stmt(*_db, sql, STMT_POOLED));
    if (!stmt) return -1;

    // A list that the loop below refuses anyway keeps the loop's own refusal.
    if (are_acceptable(param_copies, all_params)) {
        for (const CParamProperties& param : param_copies)
            if (is_empty_path(param._path)) return refuse(fn, "empty parameter path");
        if (would_lose_a_param(param_copies, all_params))
            return refuse(fn, "duplicate parameter path");
    }

    for (size_t i = 0; i < param_copies.size(); ++i) {
        const CParamProperties& param = param_copies[i];
        if (param._index < 0) return refuse(fn, "invalid param id");
        const auto stored = find_param(all_params, param._index);
        if (stored == all_params.end()) {
            report(
                "%s: Error: can't update non-existent parameter '%s' at index %zu "
                "(internal ID = %jd)",
                fn, param._path.c_str(), i, static_cast<intmax_t>(param._index));
            return -1;
        }
        *find_param(new_params, param._index) = param;
        if (param._type != stored->_type) {
            // The one message that begins with the parameter's path in place of a signature.
            report("%s: Error: attempt to change type of parameter '%s' (%d -> %d)",
                   param._path.c_str(), param._path.c_str(), stored->_type, param._type);
            return -1;
        }

        if (const int failed = stmt->reset()) return failed;
        if (const int failed =
                bind_all(*stmt, param._index, param._path, int64_t(param._type), param._has_min,
                         param._has_max, param._has_avg, param._has_actual, param._has_sum))
            return failed;
        if (const int failed = run(*stmt)) return failed;
    }

    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        if (const int failed = recreate_trend_table(periods[i], device, new_params, all_params))
            return failed;
    }

    return level.end();
} catch (...) {
    return out_of_memory(MODIFY_PARAMS);
}

constexpr const char* REMOVE_PARAMS =
    "int toolkit::trend::CLog::remove_params("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&)";

int CLog::remove_params(const CDeviceProperties& device,
                        const std::vector<CParamProperties>& params)
try {
    TREND_SIGNATURE(fn, REMOVE_PARAMS);
    std::vector<CParamProperties> param_copies = params;
    std::sort(param_copies.begin(), param_copies.end());
    CTransCheck check(_db);
    if (const int failed = check_params(fn, _db, device, params)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    std::vector<CParamProperties> all_params;
    if (const int failed = read_all_params(*_db, device, all_params)) return failed;

    stmt_wrapper_t stmt(CThrowing::stmt(
        *_db, sql_text("DELETE FROM params_", device._index, " WHERE idx = ?"), STMT_FRESH));
    if (!stmt) return -1;
    for (const CParamProperties& param : param_copies) {
        if (param._index < 0) return refuse(fn, "invalid param id");
        if (const int failed = stmt->reset()) return failed;
        if (const int failed = bind_all(*stmt, param._index)) return failed;
        if (const int failed = run(*stmt)) return failed;
    }

    TREND_ASSERT(std::is_sorted(all_params.begin(), all_params.end()));
    TREND_ASSERT(std::is_sorted(param_copies.begin(), param_copies.end()));
    std::vector<CParamProperties> new_params;
    std::set_difference(all_params.begin(), all_params.end(), param_copies.begin(),
                        param_copies.end(), std::back_inserter(new_params));
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        if (const int failed = recreate_trend_table(periods[i], device, new_params, {}))
            return failed;
    }

    return level.end();
} catch (...) {
    return out_of_memory(REMOVE_PARAMS);
}

constexpr const char* ADD_PARAM =
    "int toolkit::trend::CLog::add_param("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "toolkit::trend::CParamProperties&)";

int CLog::add_param(const CDeviceProperties& device, const std::vector<CPeriodProperties>& periods,
                    CParamProperties& param)
try {
    TREND_SIGNATURE(fn, ADD_PARAM);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!periods.empty());
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    {
        const tk_string path = stored_text(param._path);  // bound until the reset
        const stmt_wrapper_t stmt(CThrowing::stmt(
            *_db,
            sql_text("INSERT INTO params_", device._index,
                     " VALUES ((SELECT max(idx)+1 FROM params_", device._index, "),?,?,?,?,?,?,?)"),
            STMT_POOLED));
        if (!stmt) return -1;

        if (is_empty_path(param._path)) return refuse(fn, "empty parameter path");
        if (param._type < 0 || param._type >= SAMPLE_TYPE_LISTEND)
            return refuse(fn, "unsupported parameter type");
        if (!keeps_anything(param))
            return refuse(fn,
                          "at least one of min/max/avg/actual/sum must be 'true' to add a "
                          "parameter");

        if (const int failed =
                bind_all(*stmt, path, int64_t(param._type), param._has_min, param._has_max,
                         param._has_avg, param._has_actual, param._has_sum))
            return failed;
        if (const int failed = run(*stmt)) return failed;
    }

    const tk_string sql = sql_text("SELECT max(idx) FROM params_", device._index);
    if (const int failed = read_intval(*_db, sql, STMT_FRESH, param._index)) return failed;
    if (param._index < 0) param._index = 1;  // as SQLite numbers the first row

    if (const int failed = add_param_columns(device, periods, param)) return failed;
    return level.end();
} catch (...) {
    return out_of_memory(ADD_PARAM);
}

}  // namespace toolkit::trend
