#include "plant.h"

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

using namespace toolkit::trend;

namespace {

void want(bool fine, const std::string& what)
{
    if (!fine) throw std::runtime_error(what);
}

using connection_t = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
using statement_t = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

connection_t open_connection(const std::string& file)
{
    sqlite3* db = nullptr;
    const int failed = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    connection_t connection(db, sqlite3_close);
    want(failed == 0, "can't open " + file);
    return connection;
}

void run_all(sqlite3* db, const std::string& sql)
{
    want(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == 0, sqlite3_errmsg(db));
}

// The rows of a query, each handed to `row`.
template <typename Row>
void for_each_row(sqlite3* db, const std::string& sql, Row row)
{
    sqlite3_stmt* stmt = nullptr;
    want(sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == 0, sqlite3_errmsg(db));
    const statement_t owner(stmt, sqlite3_finalize);
    int code = 0;
    while ((code = sqlite3_step(stmt)) == SQLITE_ROW)
        row(stmt);
    want(code == SQLITE_DONE, sqlite3_errmsg(db));
}

std::string text_of(sqlite3_stmt* stmt, int col)
{
    return reinterpret_cast<const char*>(sqlite3_column_text(stmt, col));
}

std::string device_path(size_t number) { return "plant/line/device" + std::to_string(number); }

void make_first_device(const std::string& file, const plant_t& plant)
{
    CLog log;
    want(log.open(file, false, true, 100, false, 0, 0, 0, true) == 0, "can't make a log");
    for (const CPeriodProperties& period : plant._periods)
        want(log.add_period(period) == 0, "can't add a period");
    const CDeviceParams like = device_of(plant, 1);
    CDeviceProperties device;
    device._path = like._device._path;
    std::vector<CParamProperties> params = like._params;
    want(log.begin_transaction() == 0, "can't begin");
    want(log.add_device(device) == 0, "can't add a device");
    want(log.add_params(device, params) == 0, "can't add parameters");
    want(log.end_transaction() == 0, "can't commit");
    want(device._index == like._device._index, "unexpected device");
    want(params.back()._index == like._params.back()._index, "unexpected parameters");
}

// Adding them by the library would read the whole schema anew at every column.
void copy_first_device(const std::string& file, const plant_t& plant)
{
    const connection_t db = open_connection(file);
    std::vector<std::pair<std::string, std::string>> tables;
    for_each_row(db.get(),
                 "SELECT name, sql FROM sqlite_schema WHERE name GLOB 'trends_1_*' OR name = "
                 "'params_1'",
                 [&](sqlite3_stmt* row) { tables.emplace_back(text_of(row, 0), text_of(row, 1)); });

    run_all(db.get(), "BEGIN");
    for (size_t number = 2; number <= plant._devices; ++number) {
        const std::string id = std::to_string(number);
        for (const auto& [name, sql] : tables) {
            std::string other = name;
            other.replace(name.find("_1") + 1, 1, id);
            std::string text = sql;
            text.replace(text.find(name), name.size(), other);
            run_all(db.get(), text);
        }
        run_all(db.get(), "INSERT INTO params_" + id + " SELECT * FROM params_1");
        run_all(db.get(),
                "INSERT INTO devices VALUES (" + id + ",'" + device_path(number) + "',NULL)");
    }
    run_all(db.get(), "COMMIT");
}

void fill_tables(const std::string& file, const plant_t& plant)
{
    constexpr int spare = 10;  // rows more than the period's own number stay in the table
    const connection_t db = open_connection(file);
    run_all(db.get(), "BEGIN");
    for (size_t number = 1; number <= plant._devices; ++number)
        for (const CPeriodProperties& period : plant._periods) {
            const std::string minutes = std::to_string(period._period);
            const std::string rows = std::to_string(period._max_entries + spare);
            std::string sql = "WITH RECURSIVE t(n, m) AS (SELECT 0, " +
                              std::to_string(history_end(plant)) + " - (" + rows + " - 1) * " +
                              minutes + " UNION ALL SELECT n + 1, m + " + minutes +
                              " FROM t WHERE n + 1 < " + rows + ") INSERT INTO trends_" +
                              std::to_string(number) + "_" + minutes + " SELECT 60 * m, 100.0";
            for (size_t i = 0; i < plant._params; ++i)
                sql += ", m % 10000, m % 10000 + 1.0, m % 10000 + 0.5, m % 10000";
            run_all(db.get(), sql + " FROM t");
        }
    run_all(db.get(), "COMMIT");
}

// The first column of a query's last row.
int64_t integer(const std::string& file, const std::string& sql)
{
    int64_t value = -1;
    for_each_row(open_connection(file).get(), sql,
                 [&](sqlite3_stmt* row) { value = sqlite3_column_int64(row, 0); });
    return value;
}

// Its memory is none of the benchmark's.
template <typename Work>
void in_a_process_of_its_own(const std::string& what, Work work)
{
    const pid_t child = fork();
    want(child >= 0, "can't fork");
    if (child == 0) {
        try {
            work();
        } catch (const std::exception& failure) {
            CLog::err(0, "%s", failure.what());
            _exit(1);
        }
        _exit(0);
    }
    int status = 0;
    want(waitpid(child, &status, 0) == child && status == 0, "can't " + what);
}

// FNV-1a over 32 bits: a number that a benchmark's counter holds exactly.
class checksum_t {
public:
    void add(const void* data, size_t size)
    {
        const auto* bytes = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < size; ++i)
            _sum = (_sum ^ bytes[i]) * 16777619U;
    }

    void add_row(sqlite3_stmt* row)
    {
        for (int col = 0; col < sqlite3_column_count(row); ++col) {
            const int type = sqlite3_column_type(row, col);
            add(&type, sizeof(type));
            if (type == SQLITE_FLOAT) {
                const double value = sqlite3_column_double(row, col);
                add(&value, sizeof(value));
            } else if (type == SQLITE_INTEGER) {
                const int64_t value = sqlite3_column_int64(row, col);
                add(&value, sizeof(value));
            } else if (type != SQLITE_NULL) {
                const std::string value = text_of(row, col);
                add(value.data(), value.size());
            }
        }
    }

    uint32_t sum() const { return _sum; }

private:
    uint32_t _sum = 2166136261U;
};

}  // namespace

void make_log(const std::string& file, const plant_t& plant)
{
    in_a_process_of_its_own("make " + file, [&] {
        make_first_device(file, plant);
        copy_first_device(file, plant);
    });
}

void add_history(const std::string& file, const plant_t& plant)
{
    in_a_process_of_its_own("fill " + file, [&] { fill_tables(file, plant); });
}

int64_t history_end(const plant_t& plant)
{
    constexpr uint64_t day = 1440;
    uint64_t days = 0;
    for (const CPeriodProperties& period : plant._periods)
        days = std::max(days, (period._max_entries + 20) * period._period / day + 1);
    return static_cast<int64_t>(days * day);
}

CDeviceParams device_of(const plant_t& plant, size_t number)
{
    CDeviceParams device;
    device._device._path = device_path(number);
    device._device._index = static_cast<int64_t>(number);
    device._params.resize(plant._params);
    for (size_t i = 0; i < plant._params; ++i) {
        CParamProperties& param = device._params[i];
        param._path = "plant/line/device/parameter" + std::to_string(i + 1);
        param._has_min = param._has_max = param._has_avg = param._has_actual = true;
        param._index = static_cast<int64_t>(i + 1);
    }
    return device;
}

size_t statements_of(const plant_t& plant)
{
    const size_t per_device = 2 + plant._periods.size() * 7;
    return 16 + plant._devices * per_device;
}

CSnapshot empty_snapshot(const plant_t& plant)
{
    CSnapshot snapshot;
    snapshot._percent_valid = 100.0;
    snapshot._samples.resize(plant._params);
    return snapshot;
}

void measure(CSnapshot& snapshot, int64_t minute)
{
    snapshot._time = static_cast<time_t>(60 * minute);
    const auto value = static_cast<double>(minute % 10000);
    for (CSample& sample : snapshot._samples) {
        sample._min = value;
        sample._max = value + 1.0;
        sample._avg = value + 0.5;
        sample._actual = value;
    }
}

int64_t count_rows(const std::string& file, const std::string& table)
{
    return integer(file, "SELECT count(*) FROM " + table);
}

int64_t newest_time(const std::string& file, const std::string& table)
{
    return integer(file, "SELECT max(time) FROM " + table);
}

uint32_t checksum(const std::string& file)
{
    const connection_t db = open_connection(file);
    checksum_t sum;
    std::vector<std::string> tables;
    for_each_row(db.get(), "SELECT name, sql FROM sqlite_schema WHERE type = 'table' ORDER BY name",
                 [&](sqlite3_stmt* row) {
                     sum.add_row(row);
                     tables.push_back(text_of(row, 0));
                 });
    for (const std::string& table : tables)
        for_each_row(db.get(), "SELECT * FROM " + table + " ORDER BY 1",
                     [&](sqlite3_stmt* row) { sum.add_row(row); });
    return sum.sum();
}

uint32_t checksum_of_values(const std::string& file, const plant_t& plant, size_t device)
{
    std::string columns = "time, percent_valid";
    for (size_t i = 1; i <= plant._params; ++i)
        for (const char* kept : {"_min", "_max", "_avg", "_actual"})
            columns += ", param_" + std::to_string(i) + kept;

    const connection_t db = open_connection(file);
    checksum_t sum;
    for (const CPeriodProperties& period : plant._periods)
        for_each_row(db.get(),
                     "SELECT " + columns + " FROM trends_" + std::to_string(device) + "_" +
                         std::to_string(period._period) + " ORDER BY time",
                     [&](sqlite3_stmt* row) { sum.add_row(row); });
    return sum.sum();
}
