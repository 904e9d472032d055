#include "runsql.h"
#include "trend/checks.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

constexpr const char* ADD_DEVICE =
    "int toolkit::trend::CLog::add_device(toolkit::trend::CDeviceProperties&)";

int CLog::add_device(CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, ADD_DEVICE);
    CTransCheck check(_db);
    if (const int failed = check_open(fn, _db)) return failed;
    if (is_empty_path(device._path)) return refuse(fn, "empty device path");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const tk_string path = stored_text(device._path);
    const tk_string guid = stored_text(device._guid);
    const char* sql = "INSERT INTO devices VALUES ((SELECT max(idx)+1 FROM devices),?,?)";
    if (const int failed = run_once(*_db, sql, STMT_FRESH, path, text_or_null_t{guid}))
        return failed;
    sql = "SELECT max(idx) FROM devices";
    if (const int failed = read_intval(*_db, sql, STMT_FRESH, device._index)) return failed;
    if (device._index < 0) device._index = 0;

    if (const int failed = create_param_table(device)) return failed;
    if (const int failed = create_trend_tables(device)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(ADD_DEVICE);
}

constexpr const char* MODIFY_DEVICE =
    "int toolkit::trend::CLog::modify_device("
    "const toolkit::trend::CDeviceProperties&)";

int CLog::modify_device(const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, MODIFY_DEVICE);
    CTransCheck check(_db);
    if (const int failed = check_device(fn, _db, device)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const tk_string path = stored_text(device._path);
    const tk_string guid = stored_text(device._guid);
    const char* sql = "UPDATE devices SET path = ?, guid = ? WHERE idx = ?";
    if (const int failed =
            run_once(*_db, sql, STMT_FRESH, path, text_or_null_t{guid}, device._index))
        return failed;

    return level.end();
} catch (...) {
    return out_of_memory(MODIFY_DEVICE);
}

constexpr const char* REMOVE_DEVICE =
    "int toolkit::trend::CLog::remove_device("
    "const toolkit::trend::CDeviceProperties&)";

int CLog::remove_device(const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, REMOVE_DEVICE);
    CTransCheck check(_db);
    // Wants a path although it goes by the identifier alone.
    if (const int failed = check_device(fn, _db, device)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* sql = "DELETE FROM devices WHERE idx = ?";
    if (const int failed = run_once(*_db, sql, STMT_FRESH, device._index)) return failed;
    if (const int failed = remove_param_table(device)) return failed;
    if (const int failed = remove_trend_tables(device)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(REMOVE_DEVICE);
}

}  // namespace toolkit::trend
