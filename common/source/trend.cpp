// The trend log. Every operation has four beats:
//
//   guard    CTransCheck sees that the nesting level is afterwards what it was before
//   checks   arguments, in a fixed order; a refusal is one line and -1
//   level    CTransLevel opens a transaction level and rolls it back unless it has been ended
//   work     early returns pass the code of what failed on; level.end() is the only way to keep it
//
// around which one handler answers memory that runs out: guard and level have unwound by then.
// Texts of one piece stand at their operation, those assembled in a loop in sqltext.cpp, the
// columns of a parameter in columns.cpp.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>

#include "columns.h"
#include "database.h"
#include "report.h"
#include "runsql.h"
#include "sqlformat.h"
#include "sqltext.h"
#include "transcheck.h"
#include "translevel.h"
#include "trend_api.h"

namespace toolkit::trend {

namespace {

// The signature of get_params(), which reports for create_trend_table() too.
constexpr const char* GET_PARAMS =
    "int toolkit::trend::CLog::get_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";

constexpr int64_t SCHEMA_VERSION = 2;
constexpr int64_t SECONDS_PER_MINUTE = 60;
constexpr int64_t LARGEST_TIME = std::numeric_limits<time_t>::max();
constexpr int64_t SPARE_INTERVALS = 10;  // kept beyond a period's rows by the roll-up's trim

// Checks ---------------------------------------------------------------------------------------

// Print and return -1, or return 0.

int check_open(const char* fn, const std::shared_ptr<CDatabase>& db)
{
    return db ? 0 : refuse(fn, "DB not open");
}

// A text is read back up to its first zero byte. It is stored like that as well: what follows the
// byte would make two paths different to the file and the same to everyone who reads it, and an
// empty path stops every process that lists it.
tk_string stored_text(const tk_string& text) { return text.substr(0, text.find('\0')); }
bool is_empty_path(const tk_string& path) { return path.c_str()[0] == '\0'; }

// Periods and numbers of rows are 32-bit quantities in the file.
bool is_storable(uint64_t n) { return n != 0 && n <= std::numeric_limits<uint32_t>::max(); }

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

// Filling and clearing tell a missing path and a missing identifier by one message.
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

// Listings -------------------------------------------------------------------------------------

// A failing step ends a list as its last row does: a host that looks is served better by a short
// list than by none. Who writes from a list takes the read_all_... functions, which want it whole.

int read_period(const CStatement& row, CPeriodProperties& newprop)
{
    int64_t ival = 0;
    if (const int failed = row.column(0, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    newprop._period = static_cast<uint32_t>(ival);

    if (const int failed = row.column(1, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    newprop._max_entries = static_cast<uint32_t>(ival);
    return 0;
}

int read_device(const CStatement& row, CDeviceProperties& newprop)
{
    if (const int failed = row.column(0, newprop._index, NULL_NOT_OK)) return failed;
    if (const int failed = row.column(1, newprop._path, NULL_NOT_OK)) return failed;
    TREND_ASSERT(!newprop._path.empty());
    return row.column(2, newprop._guid, NULL_OK);
}

int read_param(const CStatement& row, CParamProperties& newprop)
{
    if (const int failed = row.column(0, newprop._index, NULL_NOT_OK)) return failed;
    if (const int failed = row.column(1, newprop._path, NULL_NOT_OK)) return failed;
    TREND_ASSERT(!newprop._path.empty());

    int64_t ival = 0;
    if (const int failed = row.column(2, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT((ival>=0) && (ival<SAMPLE_TYPE_LISTEND));
    newprop._type = static_cast<sample_type_t>(ival);

    size_t col = 3;
    for (const aggregate_t& aggregate : AGGREGATES) {
        if (const int failed = row.column(col++, ival, NULL_NOT_OK)) return failed;
        TREND_ASSERT((ival==0) || (ival==1));
        newprop.*aggregate._kept = ival != 0;
    }
    return 0;
}

// `whole` says whether the list ended because there were no more rows.
template <typename Record>
int read_list(CDatabase& db, const tk_string& sql, int (*read_row)(const CStatement&, Record&),
              std::vector<Record>& records, bool& whole)
{
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;
    const stmt_wrapper_t stmt(db.stmt(sql, STMT_POOLED));
    if (!stmt) return -1;

    // Records that are there already are filled again: their texts keep their memory.
    size_t count = 0;
    int retval = 0;
    int failed = 0;
    while (!failed && (retval = stmt->step()) == 1) {
        if (count == records.size()) records.emplace_back();
        failed = read_row(*stmt, records[count]);
        if (!failed) ++count;
    }
    records.resize(count);
    if (failed) return failed;
    whole = retval == 0;
    return level.end();
}

int read_periods(CDatabase& db, std::vector<CPeriodProperties>& periods, bool& whole)
{
    static const tk_string sql = "SELECT * FROM periods";
    if (const int failed = read_list(db, sql, read_period, periods, whole)) return failed;
    std::sort(periods.begin(), periods.end());
    return 0;
}

int read_devices(CDatabase& db, std::vector<CDeviceProperties>& devices, bool& whole)
{
    return read_list(db, "SELECT * FROM devices", read_device, devices, whole);
}

int read_params(CDatabase& db, const CDeviceProperties& device,
                std::vector<CParamProperties>& params, bool& whole)
{
    const tk_string sql = sql_text("SELECT * FROM params_", device._index, " ORDER BY idx ASC");
    if (const int failed = read_list(db, sql, read_param, params, whole)) return failed;
    TREND_ASSERT(std::is_sorted(params.begin(), params.end()));
    return 0;
}

int read_all_periods(CDatabase& db, std::vector<CPeriodProperties>& periods)
{
    bool whole = false;
    if (const int failed = read_periods(db, periods, whole)) return failed;
    return whole ? 0 : -1;
}

int read_all_devices(CDatabase& db, std::vector<CDeviceProperties>& devices)
{
    bool whole = false;
    if (const int failed = read_devices(db, devices, whole)) return failed;
    return whole ? 0 : -1;
}

int read_all_params(CDatabase& db, const CDeviceProperties& device,
                    std::vector<CParamProperties>& params)
{
    bool whole = false;
    if (const int failed = read_params(db, device, params, whole)) return failed;
    return whole ? 0 : -1;
}

// Single values --------------------------------------------------------------------------------

// get_intval() for a value that something is decided by: one that could not be read is a failure.
int read_intval(CDatabase& db, const tk_string& sql, bool fresh, int64_t& out)
{
    constexpr int64_t UNREAD = std::numeric_limits<int64_t>::min();
    int64_t ival = UNREAD;
    if (const int failed = db.get_intval(sql, ival, fresh, NULL_OK)) return failed;
    if (ival == UNREAD) return -1;
    out = ival;
    return 0;
}

// The times of a trend table's newest and oldest row, -1 when it is empty.
int newest_time(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                int64_t& time)
{
    const tk_string sql =
        sql_text("SELECT max(time) FROM trends_", device._index, "_", period._period);
    return read_intval(db, sql, STMT_POOLED, time);
}

int oldest_time(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
                int64_t& time)
{
    const tk_string sql =
        sql_text("SELECT min(time) FROM trends_", device._index, "_", period._period);
    return read_intval(db, sql, STMT_POOLED, time);
}

// Runs one statement that changes the schema, in a level of its own.
int exec_change(CDatabase& db, const tk_string& sql)
{
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;
    if (const int failed = db.exec(sql, STMT_FRESH, ROW_NONE)) return failed;
    return level.end();
}

// A period that is too long to be stored counts as the longest one that is not.
int64_t interval_length(const CPeriodProperties& period)
{
    constexpr uint64_t LONGEST = std::numeric_limits<uint32_t>::max();
    return static_cast<int64_t>(std::min<uint64_t>(period._period, LONGEST)) * SECONDS_PER_MINUTE;
}

// A time out of the file. Where time_t has 32 bits, a later one reads as the last that it has.
time_t stored_time(int64_t time) { return static_cast<time_t>(std::min(time, LARGEST_TIME)); }

}  // namespace

// Lifecycle ------------------------------------------------------------------------------------

constexpr const char* OPEN =
    "int toolkit::trend::CLog::open(const tk_string&, bool, bool, size_t, bool, "
    "size_t, size_t, size_t, bool)";

int CLog::open(const tk_string& name, bool read_only, bool create, size_t pool_capacity,
               bool temp_in_memory, size_t page_size, size_t cache_bytes, size_t heap_limit,
               bool wal)
try {
    TREND_SIGNATURE(fn, OPEN);
    _db.reset();
    // The pool would throw at its first statement. An empty name is refused by the connection.
    if (pool_capacity == 0 && !is_empty_path(name)) return refuse(fn, "invalid pool capacity");

    _db = std::make_shared<CDatabase>();
    int failed = _db->open(name, pool_capacity, read_only, create, temp_in_memory, page_size,
                           cache_bytes, heap_limit, wal);
    if (!failed && !read_only && create) failed = init_basic_tables();
    if (failed) _db.reset();
    return failed;
} catch (...) {
    _db.reset();
    return out_of_memory(OPEN);
}

void CLog::close() { _db.reset(); }

bool CLog::is_open() const { return _db && _db->is_open(); }

// Transactions ---------------------------------------------------------------------------------

int CLog::begin_transaction()
{
    TREND_ASSERT(_db);
    return _db->begin_transaction();
}

int CLog::end_transaction()
{
    TREND_ASSERT(_db);
    return _db->end_transaction();
}

void CLog::rollback_transaction()
{
    TREND_ASSERT(_db);
    _db->rollback_transaction();
}

// Housekeeping ---------------------------------------------------------------------------------

int CLog::checkpoint()
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CLog::checkpoint()");
    if (const int failed = check_open(fn, _db)) return failed;
    return _db->checkpoint();
}

int CLog::checkpoint_config(int n)
{
    TREND_SIGNATURE(fn, "int toolkit::trend::CLog::checkpoint_config(int)");
    if (const int failed = check_open(fn, _db)) return failed;
    return _db->checkpoint_config(n);
}

constexpr const char* VACUUM = "int toolkit::trend::CLog::vacuum()";

int CLog::vacuum()
try {
    TREND_SIGNATURE(fn, VACUUM);
    if (const int failed = check_open(fn, _db)) return failed;
    return _db->exec("VACUUM", STMT_POOLED, ROW_NONE);
} catch (...) {
    return out_of_memory(VACUUM);
}

void CLog::err(unsigned int, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    report_list(fmt, args);
    va_end(args);
}

// Schema ---------------------------------------------------------------------------------------

// Steps of open(), whose handler and whose transaction they share.

int CLog::init_basic_tables()
{
    TREND_ASSERT(_db);
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* periods =
        "CREATE TABLE IF NOT EXISTS periods (period INTEGER PRIMARY KEY NOT NULL, max_entries "
        "INTEGER NOT NULL)";
    if (const int failed = _db->exec(periods, STMT_FRESH, ROW_NONE)) return failed;
    const char* devices =
        "CREATE TABLE IF NOT EXISTS devices (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE "
        "NOT NULL, guid TEXT UNIQUE)";
    if (const int failed = _db->exec(devices, STMT_FRESH, ROW_NONE)) return failed;
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
        if (const int failed = _db->exec("PRAGMA user_version = 2", STMT_FRESH, ROW_NONE))
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
        if (const int failed = _db->exec(sql, STMT_FRESH, ROW_NONE)) return failed;

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
        if (const int failed = _db->exec(sql, STMT_FRESH, ROW_NONE)) return failed;
    }

    return level.end();
}

// Listing --------------------------------------------------------------------------------------

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

// Periods --------------------------------------------------------------------------------------

constexpr const char* ADD_PERIOD =
    "int toolkit::trend::CLog::add_period("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::add_period(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, ADD_PERIOD);
    CTransCheck check(_db);
    if (const int failed = check_period(fn, _db, period)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* sql = "INSERT INTO periods VALUES (?,?)";
    if (const int failed =
            run_once(*_db, sql, STMT_FRESH, int64_t(period._period), int64_t(period._max_entries)))
        return failed;
    if (const int failed = create_trend_tables(period)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(ADD_PERIOD);
}

constexpr const char* MODIFY_PERIOD =
    "int toolkit::trend::CLog::modify_period("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::modify_period(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, MODIFY_PERIOD);
    CTransCheck check(_db);
    if (const int failed = check_period(fn, _db, period)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    // An unknown period changes no row and is not refused here: the trim meets its missing
    // tables.
    const char* sql = "UPDATE periods SET max_entries = ? WHERE period = ?";
    if (const int failed =
            run_once(*_db, sql, STMT_FRESH, int64_t(period._max_entries), int64_t(period._period)))
        return failed;

    std::vector<CDeviceProperties> devices;
    if (const int failed = read_all_devices(*_db, devices)) return failed;
    for (const CDeviceProperties& device : devices)
        if (const int failed = trim_period_table(device, period, false)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(MODIFY_PERIOD);
}

constexpr const char* REMOVE_PERIOD =
    "int toolkit::trend::CLog::remove_period("
    "const toolkit::trend::CPeriodProperties&)";

int CLog::remove_period(const CPeriodProperties& period)
try {
    TREND_SIGNATURE(fn, REMOVE_PERIOD);
    CTransCheck check(_db);
    // Wants a number of rows although it has no use for it.
    if (const int failed = check_period(fn, _db, period)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const char* sql = "DELETE FROM periods WHERE period = ?";
    if (const int failed = run_once(*_db, sql, STMT_FRESH, int64_t(period._period))) return failed;
    if (const int failed = remove_trend_tables(period)) return failed;

    return level.end();
} catch (...) {
    return out_of_memory(REMOVE_PERIOD);
}

time_t CLog::next_interval_boundary(unsigned long period, time_t now)
{
    TREND_SIGNATURE(fn,
                    "static time_t toolkit::trend::CLog::next_interval_boundary("
                    "long unsigned int, time_t)");
    if (!is_storable(period)) return refuse(fn, "invalid period");
    if (now == -1) {
        now = std::time(nullptr);
        if (now == -1) return refuse(fn, "can't get system time");
    }
    TREND_ASSERT(now>=0);
    const int64_t len = static_cast<int64_t>(period) * SECONDS_PER_MINUTE;
    // Unsigned, since the last boundary of all lies beyond every time.
    const uint64_t boundary = (static_cast<uint64_t>(now / len) + 1) * static_cast<uint64_t>(len);
    return static_cast<time_t>(std::min<uint64_t>(boundary, LARGEST_TIME));
}

time_t CLog::previous_interval_boundary(unsigned long period, time_t now)
{
    const time_t next = next_interval_boundary(period, now);
    if (next == -1) return -1;
    // The last boundary before the next one. One interval less would be wrong where the next one
    // fits no time: the largest time stands for it then, which lies within an interval.
    const int64_t len = static_cast<int64_t>(period) * SECONDS_PER_MINUTE;
    return static_cast<time_t>((next - 1) / len * len);
}

constexpr const char* CALC_PERIOD_RATIOS =
    "static int toolkit::trend::CLog::calc_period_ratios("
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "std::vector<long unsigned int>&)";

int CLog::calc_period_ratios(const std::vector<CPeriodProperties>& periods,
                             std::vector<unsigned long>& ratios)
try {
    TREND_SIGNATURE(fn, CALC_PERIOD_RATIOS);
    TREND_ASSERT(!periods.empty());
    ratios.resize(periods.size());
    for (size_t i = 0; i + 1 < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        ratios[i] = periods[i + 1]._period / periods[i]._period;
        if (ratios[i] < 2) return refuse(fn, "period ratio too low");
        if (periods[i + 1]._period != ratios[i] * periods[i]._period)
            return refuse(fn, "oddball period ratio");
    }
    return 0;
} catch (...) {
    return out_of_memory(CALC_PERIOD_RATIOS);
}

// Devices --------------------------------------------------------------------------------------

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

// Parameters -----------------------------------------------------------------------------------

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

    stmt_wrapper_t stmt(_db->stmt(
        sql_text("INSERT OR REPLACE INTO params_", device._index, " VALUES (?,?,?,?,?,?,?,?)"),
        STMT_POOLED));
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
            report("%s: Error: attempt to change type of parameter (%d -> %d)", param._path.c_str(),
                   stored->_type, param._type);
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

    stmt_wrapper_t stmt(
        _db->stmt(sql_text("DELETE FROM params_", device._index, " WHERE idx = ?"), STMT_FRESH));
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
        if (const int failed =
                _db->exec(sql_text("DELETE FROM params_", device._index), STMT_FRESH, ROW_NONE))
            return failed;
    if (const int failed = create_trend_table(period, device, params, true)) return failed;
    for (const tk_string& sql :
         {copy_rows_text(device._index, period._period, params, old_params),
          sql_text("DROP TABLE trends_", device._index, "_", period._period),
          sql_text("ALTER TABLE tmp_table RENAME TO trends_", device._index, "_", period._period)})
        if (const int failed = _db->exec(sql, STMT_FRESH, ROW_NONE)) return failed;

    return level.end();
}

// Recording ------------------------------------------------------------------------------------

namespace {

// What recording works from. It is read afresh at every call, but into the memory of the last one:
// without it every snapshot would allocate a text per parameter. One call at a time borrows that
// memory; one in another thread, or inside from a callback of SQLite's, has lists of its own.
class CRecordingLists {
public:
    CRecordingLists()
        : _kept(kept()),
          _borrowed(!_kept._lent.test_and_set(std::memory_order_acquire)),
          _lists(_borrowed ? _kept._lists : _own)
    {
    }
    ~CRecordingLists()
    {
        if (_borrowed) _kept._lent.clear(std::memory_order_release);
    }

    CRecordingLists(const CRecordingLists&) = delete;
    CRecordingLists& operator=(const CRecordingLists&) = delete;

    struct lists_t {
        std::vector<CPeriodProperties> _periods;
        std::vector<unsigned long> _ratios;
        std::vector<CParamProperties> _params;
    };
    lists_t* operator->() { return &_lists; }

private:
    struct kept_t {
        std::atomic_flag _lent = ATOMIC_FLAG_INIT;
        lists_t _lists;
    };

    // Never destroyed: a thread may record until the process is gone.
    static kept_t& kept()
    {
        static kept_t& lists = *new kept_t;
        return lists;
    }

    kept_t& _kept;
    bool _borrowed;
    lists_t _own;
    lists_t& _lists;
};

// Inserts the snapshot into the table of `period`. The text depends on the selection of parameters,
// so the pool keeps a statement for each that the host uses.
int insert_sample(CDatabase& db, const CDeviceParams& data, const CSnapshot& snapshot,
                  const CPeriodProperties& period)
{
    const tk_string sql = insert_sample_text(data._device._index, period._period, data._params);
    const stmt_wrapper_t stmt(db.stmt(sql, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (1): '%s'", sql.c_str());
        return -1;
    }

    // Bound in the order in which insert_sample_text() names the columns.
    if (const int failed = bind_all(*stmt, int64_t(snapshot._time), snapshot._percent_valid))
        return failed;
    size_t placeholder = 3;
    for (size_t k = 0; k < data._params.size(); ++k) {
        const CParamProperties& param = data._params[k];
        const CSample& sample = snapshot._samples[k];
        const int failed = visit_aggregates([&](const aggregate_t& aggregate) {
            return param.*aggregate._kept ? stmt->bind(placeholder++, sample.*aggregate._value) : 0;
        });
        if (failed) return failed;
    }
    return stmt->step();
}

}  // namespace

constexpr const char* ADD_TREND_DATA =
    "int toolkit::trend::CLog::add_trend_data("
    "const toolkit::trend::CDeviceParams&, const toolkit::trend::CSnapshot&)";

int CLog::add_trend_data(const CDeviceParams& data, const CSnapshot& snapshot)
try {
    TREND_SIGNATURE(fn, ADD_TREND_DATA);
    CTransCheck check(_db);
    if (const int failed = check_open(fn, _db)) return failed;
    if (data._params.empty()) return refuse(fn, "empty param list");
    if (const int failed = check_device(fn, _db, data._device)) return failed;
    if (snapshot._time < 0) return refuse(fn, "invalid timestamp");
    if (snapshot._samples.size() != data._params.size()) return refuse(fn, "bad sample size");
    // Two opposite infinities in a group have no average, so the group could never be stored.
    if (std::isinf(snapshot._percent_valid)) return refuse(fn, "invalid percent_valid");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    CRecordingLists lists;
    std::vector<CPeriodProperties>& periods = lists->_periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    if (periods.empty()) return refuse(fn, "no configured periods");
    std::vector<unsigned long>& ratios = lists->_ratios;
    ratios.clear();
    if (const int failed = calc_period_ratios(periods, ratios)) return failed;
    std::vector<CParamProperties>& stored_params = lists->_params;
    if (const int failed = read_all_params(*_db, data._device, stored_params)) return failed;
    if (stored_params.empty()) return refuse(fn, "no configured parameters");

    for (const CParamProperties& param : data._params)
        if (param._index < 0) return refuse(fn, "invalid param id");
    if (const int failed = insert_sample(*_db, data, snapshot, periods[0])) return failed;

    // The caller may record a part of the parameters; the roll-up always takes all of them.
    if (const int failed =
            propagate_recent_samples(data._device, periods, ratios, 0, stored_params))
        return failed;

    return level.end();
} catch (...) {
    return out_of_memory(ADD_TREND_DATA);
}

constexpr const char* GET_LATEST_TIMESTAMP =
    "int toolkit::trend::CLog::get_latest_timestamp("
    "const toolkit::trend::CDeviceProperties&, time_t&)";

int CLog::get_latest_timestamp(const CDeviceProperties& device, time_t& timestamp)
try {
    TREND_SIGNATURE(fn, GET_LATEST_TIMESTAMP);
    CTransCheck check(_db);
    if (const int failed = check_device(fn, _db, device)) return failed;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    if (periods.empty()) return refuse(fn, "no configured periods");
    TREND_ASSERT(periods[0]._period!=0);
    int64_t newest = -1;
    if (const int failed = newest_time(*_db, device, periods[0], newest)) return failed;
    timestamp = stored_time(newest);
    TREND_ASSERT(timestamp>=static_cast<time_t>(-1));

    return level.end();
} catch (...) {
    return out_of_memory(GET_LATEST_TIMESTAMP);
}

// Blank filling --------------------------------------------------------------------------------

constexpr const char* FILL_BLANK_VALUES =
    "int toolkit::trend::CLog::fill_blank_values("
    "const toolkit::trend::CDeviceProperties&, time_t, bool)";

int CLog::fill_blank_values(const CDeviceProperties& device, time_t now, bool mark_valid)
try {
    TREND_SIGNATURE(fn, FILL_BLANK_VALUES);
    CTransCheck check(_db);
    if (const int failed = check_owner_of_rows(fn, _db, device)) return failed;
    if (now < -1) return refuse(fn, "invalid fill time");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    if (now == -1) {
        now = std::time(nullptr);
        if (now == -1) return refuse(fn, "can't get time");
    }
    TREND_ASSERT(now>=static_cast<time_t>(0));

    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    std::vector<unsigned long> ratios;
    if (const int failed = calc_period_ratios(periods, ratios)) return failed;
    TREND_ASSERT(periods.size()==ratios.size());
    std::vector<CParamProperties> params;
    if (const int failed = read_all_params(*_db, device, params)) return failed;

    if (!params.empty())
        for (size_t idx = 0; idx < periods.size(); ++idx)
            if (const int failed =
                    fill_period_blanks(device, periods, ratios, idx, params, now, mark_valid))
                return failed;

    return level.end();
} catch (...) {
    return out_of_memory(FILL_BLANK_VALUES);
}

// Fills the table of periods[idx]. A few rows one by one, enough for one row of the next coarser
// period, then by copies of the run of blank rows that double it each time.
int CLog::fill_period_blanks(const CDeviceProperties& device,
                             const std::vector<CPeriodProperties>& periods,
                             const std::vector<unsigned long>& ratios, size_t idx,
                             const std::vector<CParamProperties>& params, time_t now,
                             bool mark_valid)
{
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(!periods.empty());
    TREND_ASSERT(idx<periods.size());
    TREND_ASSERT(periods[idx]._period!=0);
    TREND_ASSERT(periods[idx]._max_entries!=0);
    TREND_ASSERT(ratios.size()==periods.size());
    TREND_ASSERT((ratios[idx]>1) || (idx==(ratios.size()-1)));
    TREND_ASSERT(!params.empty());
    TREND_ASSERT(now!=static_cast<time_t>(-1));

    const CPeriodProperties& period = periods[idx];
    const int64_t step = interval_length(period);
    const int64_t max_entries = static_cast<int64_t>(period._max_entries);
    const int percent_valid = mark_valid ? 1 : 0;
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    int64_t last = -1;  // the newest row
    if (const int failed = newest_time(*_db, device, period, last)) return failed;
    if (last < 0) return level.end();

    tk_string sql = sql_text("INSERT INTO trends_", device._index, "_", period._period,
                             " (time, percent_valid) VALUES (?,", percent_valid, ")");
    stmt_wrapper_t stmt(_db->stmt(sql, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (3): '%s'", sql.c_str());
        return -1;
    }

    int64_t first = last;  // every row after it is a blank row of this run
    int64_t n = 0;         // how many they are
    for (; static_cast<uint64_t>(n) < ratios[idx] && now - last >= step; ++n) {
        last += step;
        if (const int failed = stmt->reset()) return failed;
        if (const int failed = bind_all(*stmt, last)) return failed;
        if (const int failed = run(*stmt)) return failed;
    }

    if (const int failed = propagate_recent_samples(device, periods, ratios, idx, params))
        return failed;

    // The roll-up's trim has taken the oldest rows of a run longer than it keeps: the copies below
    // count on all of them.
    if (n > max_entries + SPARE_INTERVALS) {
        first = last;
        n = 0;
    }

    // What the table could not keep is not written at all.
    if (last < now) {
        const int64_t total = (now - last) / step;
        if (total > max_entries) {
            last += (total - max_entries) * step;
            first = last;
            n = 0;
        }
    }

    bool copying = false;
    while (now - last >= step) {
        const int64_t ntoadd = (now - last) / step;
        TREND_ASSERT(ntoadd>0);
        if (const int failed = stmt->reset()) return failed;
        if (n == 0) {
            last += step;
            n = 1;
            if (const int failed = bind_all(*stmt, last)) return failed;
        } else {
            if (!copying) {
                sql = sql_text("INSERT INTO trends_", device._index, "_", period._period,
                               " (time, percent_valid) SELECT time+?, ", percent_valid,
                               " FROM trends_", device._index, "_", period._period,
                               " WHERE time > ? LIMIT ?");
                stmt = _db->stmt(sql, STMT_POOLED);
                if (!stmt) {
                    report("Can't prepare SQL (4): '%s'", sql.c_str());
                    return -1;
                }
                copying = true;
            }
            // Rows come in ascending time: a limited copy takes the oldest ones and lands on the
            // grid points that are next.
            constexpr int64_t NO_LIMIT = -1;
            const int64_t limit = n > ntoadd ? ntoadd : NO_LIMIT;
            const int64_t added = n > ntoadd ? ntoadd : n;
            if (const int failed = bind_all(*stmt, n * step, first, limit)) return failed;
            last += added * step;
            n += added;
        }
        if (const int failed = run(*stmt)) return failed;
    }

    if (const int failed = trim_period_table(device, period, true)) return failed;
    return level.end();
}

// Reading --------------------------------------------------------------------------------------

namespace {

// SQLite takes a negative limit as none and a negative offset as 0: what it cannot count to must
// not become either.
int64_t sqlite_count(size_t n)
{
    return static_cast<int64_t>(
        std::min<uint64_t>(n, static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
}

// Binds the placeholders of read_text(), in the order in which it writes them.
int bind_read(CStatement& stmt, const std::vector<CPeriodProperties>& period_set,
              const timebounds_t& bounds, bool no_overlap,
              const std::vector<long long>& upper_bounds, size_t limit, size_t offset)
{
    size_t placeholder = 1;
    const auto bind_next = [&](int64_t value) { return stmt.bind(placeholder++, value); };
    for (size_t i = 0; i < period_set.size(); ++i) {
        if (const int failed = bind_next(int64_t(period_set[i]._period))) return failed;
        if (bounds.first != -1)
            if (const int failed = bind_next(bounds.first)) return failed;
        if (bounds.second != -1)
            if (const int failed = bind_next(bounds.second)) return failed;
        if (no_overlap) {
            TREND_ASSERT(upper_bounds[i]>=-1);
            if (const int failed = bind_next(upper_bounds[i])) return failed;
            if (const int failed = bind_next(upper_bounds[i])) return failed;
        }
    }
    if (const int failed = bind_next(limit == 0 ? -1 : sqlite_count(limit))) return failed;
    return offset == 0 ? 0 : bind_next(sqlite_count(offset));
}

}  // namespace

constexpr const char* GET_TREND_DATA =
    "int toolkit::trend::CLog::get_trend_data(toolkit::trend::CDeviceData&, "
    "const toolkit::trend::CDeviceParams&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "const timebounds_t&, size_t, size_t, bool, bool)";

int CLog::get_trend_data(CDeviceData& data, const CDeviceParams& request,
                         const std::vector<CPeriodProperties>& periods, const timebounds_t& bounds,
                         size_t limit, size_t offset, bool ascending, bool no_overlap)
try {
    TREND_SIGNATURE(fn, GET_TREND_DATA);
    CTransCheck check(_db);
    std::vector<CPeriodProperties> period_set = periods;
    if (const int failed = check_device(fn, _db, request._device)) return failed;
    if (bounds.first < -1 || bounds.second < -1) return refuse(fn, "invalid time range");
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    // The request may be part of the result: from here on the result's copy is used.
    data._snapshots.clear();
    data._device = request._device;
    data._params = request._params;
    if (data._params.empty())
        if (const int failed = get_params(data._device, data._params)) return failed;
    if (data._params.empty()) return refuse(fn, "empty parameter list");
    if (period_set.empty())
        if (const int failed = get_periods(period_set)) return failed;
    if (period_set.empty()) return refuse(fn, "empty period list");

    std::vector<long long> upper_bounds;
    if (no_overlap) {
        if (const int failed = get_period_boundaries(data._device, period_set, upper_bounds))
            return failed;
        TREND_ASSERT(upper_bounds.size()==period_set.size());
    }

    for (const CParamProperties& param : data._params) {
        if (param._index >= 0) continue;
        // Deliberately stricter with a caller who left the periods to us.
        TREND_ASSERT(!periods.empty());
        return refuse(fn, "invalid param id");
    }
    const stmt_wrapper_t stmt(_db->stmt(read_text(data._device._index, period_set, data._params,
                                                  bounds, no_overlap, ascending, offset != 0),
                                        STMT_FRESH));
    if (!stmt) return -1;
    if (const int failed =
            bind_read(*stmt, period_set, bounds, no_overlap, upper_bounds, limit, offset))
        return failed;

    CSnapshot snapshot;
    int retval = 0;
    while ((retval = stmt->step()) == 1) {
        if (get_sample(stmt.get(), snapshot, data._params) != 0) return retval;
        data._snapshots.push_back(snapshot);
    }

    // A failing step ends the rows as the last row does.
    return level.end();
} catch (...) {
    return out_of_memory(GET_TREND_DATA);
}

// Decodes the current row of a read into `snapshot`.
int CLog::get_sample(const std::shared_ptr<CStatement>& stmt, CSnapshot& snapshot,
                     const std::vector<CParamProperties>& params)
{
    TREND_ASSERT(_db);
    TREND_ASSERT(stmt);
    TREND_ASSERT(!params.empty());

    int64_t ival = 0;
    if (const int failed = stmt->column(0, ival, NULL_NOT_OK)) return failed;
    TREND_ASSERT(ival>0);
    snapshot._period = static_cast<unsigned long>(ival);
    if (const int failed = stmt->column(1, ival, NULL_NOT_OK)) return failed;
    snapshot._time = stored_time(ival);
    if (const int failed = stmt->column(2, snapshot._percent_valid, NULL_NOT_OK)) return failed;

    snapshot._samples.clear();
    size_t col = 3;
    for (const CParamProperties& param : params) {
        CSample& sample = snapshot._samples.emplace_back();
        for (const aggregate_t& aggregate : AGGREGATES)
            if (param.*aggregate._kept)
                if (const int failed = stmt->column(col++, sample.*aggregate._value)) return failed;
    }
    return 0;
}

// Sets, for each of the periods, the time of the oldest row of any finer one among them; -1 where
// they are empty or there is none. In front of it the period has nothing but rows of its own.
int CLog::get_period_boundaries(const CDeviceProperties& device,
                                const std::vector<CPeriodProperties>& periods,
                                std::vector<long long>& upper_bounds)
{
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(!periods.empty());
    CTransCheck check(_db);
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    std::map<unsigned long, long long> oldest_times;
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(periods[i]._period!=0);
        TREND_ASSERT(periods[i]._max_entries!=0);
        int64_t oldest = -1;
        if (const int failed = oldest_time(*_db, device, periods[i], oldest)) return failed;
        oldest_times[periods[i]._period] = oldest;
    }

    std::map<unsigned long, long long> time_bounds;
    long long bound = -1;
    for (const auto& [period, oldest] : oldest_times) {
        time_bounds[period] = bound;
        if (bound == -1 || (oldest != -1 && oldest < bound)) bound = oldest;
    }

    upper_bounds.resize(periods.size());
    for (size_t i = 0; i < periods.size(); ++i) {
        TREND_ASSERT(time_bounds.count(periods[i]._period));
        upper_bounds[i] = time_bounds.at(periods[i]._period);
    }
    return level.end();
}

// Clearing -------------------------------------------------------------------------------------

constexpr const char* CLEAR_TREND_DATA =
    "int toolkit::trend::CLog::clear_trend_data("
    "const toolkit::trend::CDeviceProperties&, const timebounds_t&)";

int CLog::clear_trend_data(const CDeviceProperties& device, const timebounds_t& bounds)
{
    TREND_SIGNATURE(fn, CLEAR_TREND_DATA);
    CTransCheck check(_db);
    if (const int failed = check_owner_of_rows(fn, _db, device)) return failed;
    if (bounds.first < -1 || bounds.second < -1) return refuse(fn, "bad time bounds");
    if (const int failed = _db->begin_transaction()) return failed;

    // The one operation that opens its level by hand. A positive code leaves it open, deliberately:
    // nothing here should yield one, and the guard then stops the process.
    time_t latest = -1;
    int failed = clear_rows(device, bounds, latest);
    if (failed < 0) _db->rollback_transaction();
    if (failed) return failed;

    failed = _db->end_transaction();
    if (failed) return failed;
    return latest != -1 ? 1 : 0;
}

// Memory that runs out is answered here, so that the level is rolled back above.
int CLog::clear_rows(const CDeviceProperties& device, const timebounds_t& bounds, time_t& latest)
try {
    std::vector<CPeriodProperties> periods;
    if (const int failed = read_all_periods(*_db, periods)) return failed;
    for (const CPeriodProperties& period : periods)
        if (const int failed =
                _db->exec(clear_text(device._index, period._period, bounds), STMT_FRESH, ROW_NONE))
            return failed;
    return get_latest_timestamp(device, latest);
} catch (...) {
    return out_of_memory(CLEAR_TREND_DATA);
}

// Steps ----------------------------------------------------------------------------------------

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
        const stmt_wrapper_t stmt(_db->stmt(
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
            if (const int failed = _db->exec(sql, STMT_FRESH, ROW_NONE)) return failed;
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
    if (const int failed = _db->exec(sql, STMT_FRESH, ROW_NONE)) return failed;

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

// Roll-up --------------------------------------------------------------------------------------

namespace {

// The fine rows that are newer than the newest coarse row.
struct stragglers_t {
    int64_t _count = 0;
    int64_t _first_time = -1;  // of the oldest; -1 when there are none
};

int count_stragglers(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& fine,
                     const CPeriodProperties& coarse, stragglers_t& stragglers)
{
    const stmt_wrapper_t stmt(
        db.stmt(sql_text("SELECT count(time), min(time) FROM trends_", device._index, "_",
                         fine._period, " WHERE time > coalesce((SELECT max(time) FROM trends_",
                         device._index, "_", coarse._period, "),0)"),
                STMT_POOLED));
    if (!stmt) return -1;
    const int retval = stmt->step();
    TREND_ASSERT(retval!=0);
    if (retval < 0) return retval;

    int64_t num_stragglers = 0;
    if (const int failed = stmt->column(0, num_stragglers, NULL_NOT_OK)) return failed;
    int64_t first_new_time = -1;
    if (const int failed = stmt->column(1, first_new_time, NULL_OK)) return failed;
    TREND_ASSERT(num_stragglers>=0);
    if (num_stragglers > 0) TREND_ASSERT(first_new_time!=static_cast<time_t>(-1));
    stragglers = {num_stragglers, first_new_time};
    return 0;
}

// Deletes what has fallen out of the period's retention; `cutoff` is the newest time that went, -1
// when nothing was old enough.
int trim_rows(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& period,
              bool keep_spare, int64_t& cutoff)
{
    cutoff = -1;
    CTransLevel level(db);
    if (const int failed = level.begin()) return failed;

    int64_t last_time = -1;
    if (const int failed = newest_time(db, device, period, last_time)) return failed;
    if (last_time < 0) return level.end();
    int64_t first_time = -1;
    if (const int failed = oldest_time(db, device, period, first_time)) return failed;
    TREND_ASSERT(first_time>=0);

    // Counted in whole intervals first: the product of two large settings would not fit.
    const int64_t span = interval_length(period);
    int64_t oldest_kept = 0;
    if (static_cast<uint64_t>(last_time / span) >= period._max_entries)
        oldest_kept = last_time - static_cast<int64_t>(period._max_entries) * span;
    if (keep_spare) oldest_kept = std::max<int64_t>(oldest_kept - SPARE_INTERVALS * span, 0);
    if (oldest_kept < first_time) return level.end();

    {
        const tk_string sql =
            sql_text("DELETE FROM trends_", device._index, "_", period._period, " WHERE time <= ?");
        if (const int failed = run_once(db, sql, STMT_POOLED, oldest_kept)) return failed;
    }
    cutoff = oldest_kept;
    return level.end();
}

// Writes a coarse row for every full group of stragglers, oldest group first. The groups are
// counted before the trim, which has deleted the rows up to `cutoff`.
int roll_up_groups(CDatabase& db, const CDeviceProperties& device, const CPeriodProperties& fine,
                   const CPeriodProperties& coarse, unsigned long ratio,
                   const std::vector<CParamProperties>& params, const stragglers_t& stragglers,
                   int64_t cutoff)
{
    // Offsets count the rows that are left. Past them a group has nothing to aggregate, and a row
    // of nothing would be refused by the table at every later snapshot.
    int64_t survivors = stragglers._count;
    if (cutoff >= stragglers._first_time) {
        const tk_string sql = sql_text("SELECT count(time) FROM trends_", device._index, "_",
                                       fine._period, " WHERE time > ", cutoff);
        if (const int failed = read_intval(db, sql, STMT_FRESH, survivors)) return failed;
    }

    const tk_string sql = roll_up_text(device._index, fine._period, coarse._period, ratio, params);
    const stmt_wrapper_t stmt(db.stmt(sql, STMT_POOLED));
    if (!stmt) {
        report("Can't prepare SQL (2): '%s'", sql.c_str());
        return -1;
    }

    const int64_t group = static_cast<int64_t>(ratio);
    const int64_t full_groups = stragglers._count / group;
    for (int64_t offset = 0; offset < full_groups * group && offset < survivors; offset += group) {
        if (const int failed = stmt->reset()) return failed;
        if (const int failed = bind_all(*stmt, stragglers._first_time, offset)) return failed;
        if (const int failed = stmt->step()) {
            report("Possible problem with SQL stmt: '%s' (%jd, %jd)", sql.c_str(),
                   static_cast<intmax_t>(stragglers._first_time), static_cast<intmax_t>(offset));
            return failed;
        }
    }
    return 0;
}

}  // namespace

constexpr const char* PROPAGATE_RECENT_SAMPLES =
    "int toolkit::trend::CLog::propagate_recent_samples("
    "const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, "
    "const std::vector<long unsigned int>&, size_t, "
    "const std::vector<toolkit::trend::CParamProperties>&)";

int CLog::propagate_recent_samples(const CDeviceProperties& device,
                                   const std::vector<CPeriodProperties>& periods,
                                   const std::vector<unsigned long>& ratios, size_t idx,
                                   const std::vector<CParamProperties>& params)
try {
    TREND_SIGNATURE(fn, PROPAGATE_RECENT_SAMPLES);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(!periods.empty());
    TREND_ASSERT(idx<periods.size());
    TREND_ASSERT(periods[idx]._period!=0);
    TREND_ASSERT(ratios.size()==periods.size());
    TREND_ASSERT((ratios[idx]>1) || (idx==(periods.size()-1)));
    TREND_ASSERT(!params.empty());
    CTransLevel level(*_db);
    if (const int failed = level.begin()) return failed;

    const CPeriodProperties& period = periods[idx];
    if (idx == periods.size() - 1) {
        if (const int failed = trim_period_table(device, period, true)) return failed;
        return level.end();
    }
    TREND_ASSERT(periods[idx+1]._period!=0);
    const CPeriodProperties& coarse = periods[idx + 1];

    stragglers_t stragglers;
    if (const int failed = count_stragglers(*_db, device, period, coarse, stragglers))
        return failed;
    // Without a full group nothing above can have changed, so neither this table is trimmed nor
    // are the coarser ones looked at.
    if (static_cast<uint64_t>(stragglers._count) < ratios[idx]) return level.end();

    // Trimmed after the count and before any group is read: a table shorter than one group
    // loses its oldest rows here, and the coarse row then stands for the survivors.
    TREND_ASSERT(period._max_entries!=0);
    int64_t cutoff = -1;
    if (const int failed = trim_rows(*_db, device, period, true, cutoff)) return failed;
    if (const int failed =
            roll_up_groups(*_db, device, period, coarse, ratios[idx], params, stragglers, cutoff))
        return failed;
    if (const int failed = propagate_recent_samples(device, periods, ratios, idx + 1, params))
        return failed;

    return level.end();
} catch (...) {
    return out_of_memory(PROPAGATE_RECENT_SAMPLES);
}

constexpr const char* TRIM_PERIOD_TABLE =
    "int toolkit::trend::CLog::trim_period_table("
    "const toolkit::trend::CDeviceProperties&, "
    "const toolkit::trend::CPeriodProperties&, bool)";

int CLog::trim_period_table(const CDeviceProperties& device, const CPeriodProperties& period,
                            bool keep_spare)
try {
    TREND_SIGNATURE(fn, TRIM_PERIOD_TABLE);
    CTransCheck check(_db);
    TREND_ASSERT(_db);
    TREND_ASSERT(device._index>=0);
    TREND_ASSERT(!device._path.empty());
    TREND_ASSERT(period._period!=0);
    TREND_ASSERT(period._max_entries!=0);
    int64_t cutoff = -1;
    return trim_rows(*_db, device, period, keep_spare, cutoff);
} catch (...) {
    return out_of_memory(TRIM_PERIOD_TABLE);
}

}  // namespace toolkit::trend
