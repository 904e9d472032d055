#include <algorithm>

#include "columns.h"
#include "repair/inspections.h"
#include "sqlformat.h"

namespace toolkit::trend {

namespace {

constexpr int64_t SCHEMA_VERSION = 2;

// Conditions under which a log has written an entry; whatever its types are, they are true or not.
constexpr const char* GOOD_PERIOD =
    "period BETWEEN 1 AND 4294967295 AND typeof(max_entries) = 'integer' AND "
    "max_entries BETWEEN 1 AND 4294967295";
constexpr const char* GOOD_PATH =
    "idx >= 0 AND typeof(path) = 'text' AND path <> '' AND instr(path, char(0)) = 0";
constexpr const char* GOOD_GUID =
    "(guid IS NULL OR (typeof(guid) = 'text' AND guid <> '' AND instr(guid, char(0)) = 0))";
constexpr const char* GOOD_TYPE = "typeof(type) = 'integer' AND type IN (0, 1)";

// Compares the table's columns with what they should be, each as it stands in CREATE TABLE.
int inspect_table(CInspector& inspector, const tk_string& table, const place_t& place,
                  const std::vector<tk_string>& wanted)
{
    std::vector<tk_string> columns;
    const int ended = inspector.each(
        "SELECT name || ' ' || type || CASE WHEN pk THEN ' PRIMARY KEY' ELSE '' END || "
        "CASE WHEN \"notnull\" THEN ' NOT NULL' ELSE '' END FROM pragma_table_info(?)",
        table, place,
        [&](const CStatement& row) {
            columns.push_back(text_of(row, 0));
            return 0;
        },
        table);
    if (ended) return ended;
    if (columns == wanted) return 0;

    const auto name_of = [](const std::vector<tk_string>& list, size_t i) {
        if (i >= list.size()) return tk_string("missing");
        return "'" + list[i] + "'";
    };
    tk_string text = "Table " + table + " is missing.";
    if (!columns.empty()) {
        size_t i = 0;
        while (name_of(columns, i) == name_of(wanted, i))
            ++i;
        text = "Column " + std::to_string(i + 1) + " of " + table + " is " + name_of(columns, i) +
               " and should be " + name_of(wanted, i) + ".";
    }
    return inspector.found_unusable(FINDING_SCHEMA, text, place);
}

// Whether there are entries that no log has written.
int inspect_entries(CInspector& inspector, const tk_string& table, const place_t& place,
                    const tk_string& good, uint64_t& bad)
{
    const int ended = inspector.each("SELECT count(*) FROM " + table + " WHERE NOT (" + good + ")",
                                     table, place, [&](const CStatement& row) {
                                         bad = static_cast<uint64_t>(number_of(row, 0));
                                         return 0;
                                     });
    if (ended || bad == 0) return ended;
    stretch_t stretch;
    stretch._count = bad;
    return inspector.found(
        FINDING_CONFIGURATION,
        "Entries of " + table + " that no log writes: " + std::to_string(bad) + ".", place,
        stretch);
}

int inspect_version(CInspector& inspector)
{
    int64_t version = SCHEMA_VERSION;
    const int ended =
        inspector.each("PRAGMA user_version", "The file", {}, [&](const CStatement& row) {
            version = number_of(row, 0);
            return 0;
        });
    if (ended) return ended;
    if (version == SCHEMA_VERSION) return 0;
    return inspector.found_unusable(
        FINDING_SCHEMA, "The schema version is " + std::to_string(version) + " and should be 2.",
        {});
}

int inspect_periods(CInspector& inspector, survey_t& survey)
{
    uint64_t bad = 0;
    if (const int ended = inspect_entries(inspector, "periods", {}, GOOD_PERIOD, bad)) return ended;
    const int ended =
        inspector.each(tk_string("SELECT period, max_entries FROM periods WHERE ") + GOOD_PERIOD +
                           " ORDER BY period",
                       "periods", {}, [&](const CStatement& row) {
                           survey._periods.emplace_back(static_cast<uint32_t>(number_of(row, 0)),
                                                        static_cast<uint32_t>(number_of(row, 1)));
                           return 0;
                       });
    if (ended) return ended;

    std::vector<CPeriodProperties>& periods = survey._periods;
    survey._groups.assign(periods.size(), 0);
    for (size_t i = 0; i + 1 < periods.size(); ++i) {
        const unsigned long fine = periods[i]._period;
        const unsigned long coarse = periods[i + 1]._period;
        if (coarse % fine == 0) {
            survey._groups[i] = static_cast<int64_t>(coarse / fine);
            continue;
        }
        if (const int stopped = inspector.found(FINDING_PERIOD_RATIO,
                                                "The period of " + std::to_string(coarse) +
                                                    " minutes is no multiple of the one of " +
                                                    std::to_string(fine) + ".",
                                                {"", coarse}))
            return stopped;
    }
    for (size_t i = 0; i < periods.size(); ++i) {
        if (static_cast<uint64_t>(survey._groups[i]) * 2 <= periods[i]._max_entries) continue;
        if (const int stopped = inspector.found(
                FINDING_SHORT_TABLE,
                "The period of " + std::to_string(periods[i]._period) + " minutes keeps " +
                    std::to_string(periods[i]._max_entries) + " rows, and " +
                    std::to_string(survey._groups[i]) + " make one of the next coarser period.",
                {"", periods[i]._period}))
            return stopped;
    }
    return 0;
}

int inspect_devices(CInspector& inspector, survey_t& survey)
{
    const tk_string good = tk_string(GOOD_PATH) + " AND " + GOOD_GUID;
    uint64_t bad = 0;
    if (const int ended = inspect_entries(inspector, "devices", {}, good, bad)) return ended;
    return inspector.each("SELECT idx, path FROM devices WHERE " + good, "devices", {},
                          [&](const CStatement& row) {
                              CDeviceProperties device;
                              device._index = number_of(row, 0);
                              device._path = text_of(row, 1);
                              survey._devices.push_back(device);
                              return 0;
                          });
}

// Tables that take names of the log's, and objects that name its tables.
int inspect_objects(CInspector& inspector)
{
    const char* tables =
        "SELECT name FROM sqlite_master WHERE type = 'table' AND (name = 'tmp_table' OR name GLOB "
        "'trends_*' AND name NOT IN (SELECT 'trends_' || idx || '_' || period FROM devices, "
        "periods) OR name GLOB 'params_*' AND name NOT IN (SELECT 'params_' || idx FROM devices))";
    int ended = inspector.each(tables, "The schema", {}, [&](const CStatement& row) {
        return inspector.found(FINDING_SCHEMA,
                               "Table " + text_of(row, 0) + " belongs to no device and period.");
    });
    if (ended) return ended;

    const char* objects =
        "SELECT type || ' ' || name FROM sqlite_master WHERE type IN ('view', 'trigger') AND "
        "EXISTS (SELECT 1 FROM sqlite_master AS t WHERE t.type = 'table' AND t.name GLOB "
        "'trends_*' AND instr(lower(sqlite_master.sql), t.name) > 0)";
    return inspector.each(objects, "The schema", {}, [&](const CStatement& row) {
        return inspector.found(FINDING_FOREIGN_OBJECT,
                               "The " + text_of(row, 0) +
                                   " names a trend table: no parameter can be changed or removed.");
    });
}

}  // namespace

int inspect_configuration(CInspector& inspector, survey_t& survey)
{
    if (const int ended = inspect_version(inspector)) return ended;
    if (const int ended =
            inspect_table(inspector, "periods", {},
                          {"period INTEGER PRIMARY KEY NOT NULL", "max_entries INTEGER NOT NULL"}))
        return ended;
    if (const int ended =
            inspect_table(inspector, "devices", {},
                          {"idx INTEGER PRIMARY KEY NOT NULL", "path TEXT NOT NULL", "guid TEXT"}))
        return ended;
    if (const int ended = inspect_objects(inspector)) return ended;
    if (const int ended = inspect_periods(inspector, survey)) return ended;
    return inspect_devices(inspector, survey);
}

int inspect_params(CInspector& inspector, const CDeviceProperties& device,
                   std::vector<CParamProperties>& params)
{
    const place_t place = {device._path, 0};
    const tk_string table = sql_text("params_", device._index);
    std::vector<tk_string> wanted = {"idx INTEGER PRIMARY KEY NOT NULL", "path TEXT NOT NULL",
                                     "type INTEGER NOT NULL"};
    tk_string good = tk_string(GOOD_PATH) + " AND " + GOOD_TYPE;
    for (const aggregate_t& aggregate : AGGREGATES) {
        const tk_string flag = "has_" + tk_string(aggregate._name);
        wanted.push_back(flag + " INTEGER NOT NULL");
        append_sql(good, " AND typeof(", flag, ") = 'integer' AND ", flag, " IN (0, 1)");
    }
    if (const int ended = inspect_table(inspector, table, place, wanted)) return ended;
    uint64_t bad = 0;
    if (const int ended = inspect_entries(inspector, table, place, good, bad)) return ended;
    if (bad > 0) return LEFT_OUT;
    return inspector.each("SELECT * FROM " + table + " ORDER BY idx", table, place,
                          [&](const CStatement& row) {
                              CParamProperties param;
                              param._index = number_of(row, 0);
                              param._type = static_cast<sample_type_t>(number_of(row, 2));
                              size_t col = 3;
                              for (const aggregate_t& aggregate : AGGREGATES)
                                  param.*aggregate._kept = number_of(row, col++) != 0;
                              params.push_back(param);
                              return 0;
                          });
}

int inspect_columns(CInspector& inspector, const CDeviceProperties& device,
                    const CPeriodProperties& period, const std::vector<CParamProperties>& params)
{
    std::vector<tk_string> wanted = {"time INTEGER PRIMARY KEY NOT NULL",
                                     "percent_valid REAL NOT NULL"};
    for (const CParamProperties& param : params)
        for (const tk_string& name : column_list(param))
            wanted.push_back(name + " REAL");
    return inspect_table(inspector, sql_text("trends_", device._index, "_", period._period),
                         {device._path, period._period}, wanted);
}

}  // namespace toolkit::trend
