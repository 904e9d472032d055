#include "columns.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "trend/checks.h"
#include "trend/lists.h"
#include "trend/operation.h"

namespace toolkit::trend {

namespace {

// Runs one statement that changes the schema, in a level of its own.
int exec_change(CDatabase& db, const tk_string& sql)
{
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;
    if (const int failed = CThrowing::exec(db, sql, STMT_FRESH, ROW_NONE)) return failed;
    return level.end();
}

}  // namespace

// Not checked against the function: there the compiler spells tk_string out.
constexpr const char* COLUMN_NAMES =
    "static int toolkit::trend::CLog::column_names("
    "const toolkit::trend::CParamProperties&, std::vector<tk_string>&)";

int CLog::column_names(const CParamProperties& param, std::vector<tk_string>& names)
try {
    names = column_list(param);
    return 0;
} catch (...) {
    return out_of_memory(COLUMN_NAMES);
}

constexpr const char* ADD_PARAM_COLUMNS =
    "int toolkit::trend::CLog::add_param_columns("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "const toolkit::trend::CParamProperties&)";

int CLog::add_param_columns(const CDeviceProperties& device,
                            const std::vector<CPeriodProperties>& periods,
                            const CParamProperties& param)
try {
    TREND_SIGNATURE(fn, ADD_PARAM_COLUMNS);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(param._index>=0);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const std::vector<tk_string> names = column_list(param);
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        for (const tk_string& name : names) {
            tk_string sql = sql_text("ALTER TABLE trends_", device._index, "_", periods[i]._period,
                                     " ADD COLUMN ");
            append_sql(sql, name, " REAL DEFAULT NULL");
            if (const int failed = CThrowing::exec(*_db, sql, STMT_FRESH, ROW_NONE)) return failed;
        }
    }

    return level.end();
} catch (...) {
    return out_of_memory(ADD_PARAM_COLUMNS);
}

constexpr const char* CREATE_TREND_TABLE =
    "int toolkit::trend::CLog::create_trend_table("
    "const toolkit::trend::CPeriodProperties&, "
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&, bool)";

int CLog::create_trend_table(const CPeriodProperties& period, const CDeviceProperties& device,
                             const std::vector<CParamProperties>& params, bool temp)
try {
    TREND_SIGNATURE(fn, CREATE_TREND_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CParamProperties> stored_params;
    if (params.empty()) {
        if (const int failed = check_device(GET_PARAMS, _db, device)) return failed;
        if (const int failed = read_all_params(*_db, device, stored_params)) return failed;
    }
    const tk_string sql = create_trend_table_text(device._index, period._period,
                                                  params.empty() ? stored_params : params, temp);
    if (const int failed = CThrowing::exec(*_db, sql, STMT_FRESH, ROW_NONE)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(CREATE_TREND_TABLE);
}

constexpr const char* CREATE_TREND_TABLES_OF_PERIOD =
    "int toolkit::trend::CLog::create_trend_tables("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::create_trend_tables(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, CREATE_TREND_TABLES_OF_PERIOD);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CDeviceProperties> devices;
    if (const int failed = read_all_devices(*_db, devices)) return failed;
    for (const CDeviceProperties& device : devices)
        if (const int failed = create_trend_table(period, device, {}, false)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(CREATE_TREND_TABLES_OF_PERIOD);
}

constexpr const char* CREATE_TREND_TABLES_OF_DEVICE =
    "int toolkit::trend::CLog::create_trend_tables("
    "const toolkit::trend::CDeviceProperties&)";

int CLog::create_trend_tables(const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, CREATE_TREND_TABLES_OF_DEVICE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    for (const CPeriodProperties& period : periods)
        if (const int failed = create_trend_table(period, device, {}, false)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(CREATE_TREND_TABLES_OF_DEVICE);
}

constexpr const char* REMOVE_TREND_TABLE =
    "int toolkit::trend::CLog::remove_trend_table("
    "const toolkit::trend::CPeriodProperties&, "
    "const toolkit::trend::CDeviceProperties&)";

int CLog::remove_trend_table(const CPeriodProperties& period, const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, REMOVE_TREND_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    return exec_change(*_db, sql_text("DROP TABLE trends_", device._index, "_", period._period));
} catch (...) {
    return out_of_memory(REMOVE_TREND_TABLE);
}

constexpr const char* REMOVE_TREND_TABLES_OF_PERIOD =
    "int toolkit::trend::CLog::remove_trend_tables("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::remove_trend_tables(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, REMOVE_TREND_TABLES_OF_PERIOD);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CDeviceProperties> devices;
    if (const int failed = read_all_devices(*_db, devices)) return failed;
    for (const CDeviceProperties& device : devices)
        if (const int failed = remove_trend_table(period, device)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(REMOVE_TREND_TABLES_OF_PERIOD);
}

constexpr const char* REMOVE_TREND_TABLES_OF_DEVICE =
    "int toolkit::trend::CLog::remove_trend_tables("
    "const toolkit::trend::CDeviceProperties&)";

int CLog::remove_trend_tables(const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, REMOVE_TREND_TABLES_OF_DEVICE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    for (const CPeriodProperties& period : periods)
        if (const int failed = remove_trend_table(period, device)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(REMOVE_TREND_TABLES_OF_DEVICE);
}

constexpr const char* CREATE_PARAM_TABLE =
    "int toolkit::trend::CLog::create_param_table("
    "const toolkit::trend::CDeviceProperties&)";

int CLog::create_param_table(const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, CREATE_PARAM_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    return exec_change(
        *_db, sql_text("CREATE TABLE params_", device._index,
                       " (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL, type "
                       "INTEGER NOT NULL, has_min INTEGER NOT NULL, has_max INTEGER NOT NULL, "
                       "has_avg INTEGER NOT NULL, has_actual INTEGER NOT NULL, has_sum INTEGER "
                       "NOT NULL)"));
} catch (...) {
    return out_of_memory(CREATE_PARAM_TABLE);
}

constexpr const char* REMOVE_PARAM_TABLE =
    "int toolkit::trend::CLog::remove_param_table("
    "const toolkit::trend::CDeviceProperties&)";

int CLog::remove_param_table(const CDeviceProperties& device)
try {
    TREND_SIGNATURE(fn, REMOVE_PARAM_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    return exec_change(*_db, sql_text("DROP TABLE params_", device._index));
} catch (...) {
    return out_of_memory(REMOVE_PARAM_TABLE);
}

// Builds the trend table anew for the parameters, with the rows it has. With `old_params`, which
// then match `params` entry for entry, columns that are new are filled with NULL; without, every
// column of `params` is there already. A step of modify_params() and remove_params().
int CLog::recreate_trend_table(const CPeriodProperties& period, const CDeviceProperties& device,
                               const std::vector<CParamProperties>& params,
                               const std::vector<CParamProperties>& old_params)
{
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(period._period!=0);
    TREND_ASSERT(device._index>=0);
    if (!old_params.empty()) TREND_ASSERT(old_params.size()==params.size());
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    // An empty list makes create_trend_table() read the stored one, which has to be empty too.
    if (params.empty())
        if (const int failed = CThrowing::exec(*_db, sql_text("DELETE FROM params_", device._index),
                                               STMT_FRESH, ROW_NONE))
            return failed;
    if (const int failed = create_trend_table(period, device, params, true)) return failed;
    for (const tk_string& sql :
         {copy_rows_text(device._index, period._period, params, old_params),
          sql_text("DROP TABLE trends_", device._index, "_", period._period),
          sql_text("ALTER TABLE tmp_table RENAME TO trends_", device._index, "_", period._period)})
        if (const int failed = CThrowing::exec(*_db, sql, STMT_FRESH, ROW_NONE)) return failed;

    return level.end();
}

}  // namespace toolkit::trend
