#include <cstdint>

#include "sqlformat.h"
#include "trend/lists.h"
#include "trend/operation.h"
#include "trend/values.h"

namespace toolkit::trend {

// Steps of open(), whose handler and whose transaction they share.

namespace {

constexpr int64_t SCHEMA_VERSION = 2;

}  // namespace

int CLog::init_basic_tables()
{
    TREND_ASSERT(_db);
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* periods =
        "CREATE TABLE IF NOT EXISTS periods (period INTEGER PRIMARY KEY NOT NULL, max_entries "
        "INTEGER NOT NULL)";
    if (const int failed = CThrowing::exec(*_db, periods, STMT_FRESH, ROW_NONE)) return failed;
    const char* devices =
        "CREATE TABLE IF NOT EXISTS devices (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE "
        "NOT NULL, guid TEXT UNIQUE)";
    if (const int failed = CThrowing::exec(*_db, devices, STMT_FRESH, ROW_NONE)) return failed;
    if (const int failed = check_db_version()) return failed;

    return level.end();
}

int CLog::check_db_version()
{
    TREND_ASSERT(_db);
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    int64_t version = 0;
    if (const int failed = read_intval(*_db, "PRAGMA user_version", STMT_FRESH, version))
        return failed;
    if (version < 0 || version > SCHEMA_VERSION) {
        report("Unrecognized table schema version: %jd", static_cast<intmax_t>(version));
        return 1;
    }

    // A new file runs both migrations as well; they have nothing to do in empty tables.
    if (version < 1)
        if (const int failed = migrate_schema_0_to_1()) return failed;
    if (version < 2)
        if (const int failed = migrate_schema_1_to_2()) return failed;
    if (version != SCHEMA_VERSION)
        if (const int failed =
                CThrowing::exec(*_db, "PRAGMA user_version = 2", STMT_FRESH, ROW_NONE))
            return failed;

    return level.end();
}

int CLog::migrate_schema_0_to_1()
{
    TREND_ASSERT(_db);
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    for (const char* sql :
         {"CREATE TABLE tmp_table (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL, "
          "guid TEXT UNIQUE)",
          "INSERT INTO tmp_table SELECT idx, path, NULL FROM devices", "DROP TABLE devices",
          "ALTER TABLE tmp_table RENAME TO devices"})
        if (const int failed = CThrowing::exec(*_db, sql, STMT_FRESH, ROW_NONE)) return failed;

    return level.end();
}

int CLog::migrate_schema_1_to_2()
{
    TREND_ASSERT(_db);
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CDeviceProperties> devices;
    if (const int failed = read_all_devices(*_db, devices)) return failed;
    for (const CDeviceProperties& device : devices) {
        const tk_string sql = sql_text("ALTER TABLE params_", device._index,
                                       " ADD COLUMN has_sum INTEGER NOT NULL DEFAULT 0");
        if (const int failed = CThrowing::exec(*_db, sql, STMT_FRESH, ROW_NONE)) return failed;
    }

    return level.end();
}

}  // namespace toolkit::trend
