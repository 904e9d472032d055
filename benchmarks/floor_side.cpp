#include "floor_side.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "functions.h"

using namespace toolkit::trend;

namespace {

constexpr int64_t SPARE_INTERVALS = 10;
constexpr const char* KEPT[] = {"min", "max", "avg", "actual"};

// A value with its type, for which SQLite takes its lock once.
int64_t integer(sqlite3_stmt* stmt, int col)
{
    sqlite3_value* value = sqlite3_column_value(stmt, col);
    return sqlite3_value_type(value) == SQLITE_INTEGER ? sqlite3_value_int64(value) : -1;
}

double real(sqlite3_stmt* stmt, int col)
{
    sqlite3_value* value = sqlite3_column_value(stmt, col);
    return sqlite3_value_type(value) == SQLITE_FLOAT ? sqlite3_value_double(value)
                                                     : std::numeric_limits<double>::quiet_NaN();
}

int64_t first_byte(sqlite3_stmt* stmt, int col)
{
    sqlite3_value* value = sqlite3_column_value(stmt, col);
    return sqlite3_value_type(value) == SQLITE_TEXT ? *sqlite3_value_text(value) : -1;
}

int64_t length(const CPeriodProperties& period)
{
    return static_cast<int64_t>(period._period) * 60;
}

// The oldest time that a trim with spare intervals leaves.
int64_t first_kept(const CPeriodProperties& period, int64_t newest)
{
    const int64_t rows = static_cast<int64_t>(period._max_entries) + SPARE_INTERVALS;
    return std::max<int64_t>(newest - rows * length(period), 0);
}

}  // namespace

floor_side::floor_side(const std::string& file, const plant_t& plant)
    : _plant(plant), _ratios(plant._periods.size()), _devices(plant._devices)
{
    for (size_t i = 0; i + 1 < _ratios.size(); ++i)
        _ratios[i] =
            static_cast<int64_t>(plant._periods[i + 1]._period / plant._periods[i]._period);
    for (size_t i = 0; i < _devices.size(); ++i) {
        _devices[i]._id = static_cast<int64_t>(i + 1);
        _devices[i]._tables.resize(plant._periods.size());
    }

    // The settings of a log's connection.
    if (sqlite3_open_v2(file.c_str(), &_db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
        throw std::runtime_error("can't open " + file);
    sqlite3_extended_result_codes(_db, 1);
    sqlite3_exec(_db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(_db, "PRAGMA page_size=4096", nullptr, nullptr, nullptr);
    register_custom_functions(_db);
    prepare(_begin, "BEGIN");
    prepare(_commit, "COMMIT");
    prepare(_periods, "SELECT * FROM periods");
}

floor_side::~floor_side()
{
    for (sqlite3_stmt* stmt : _all)
        sqlite3_finalize(stmt);
    sqlite3_close(_db);
}

void floor_side::begin()
{
    run(_begin);
    _in_transaction = true;
}

void floor_side::end()
{
    run(_commit);
    _in_transaction = false;
}

void floor_side::record(size_t number, const CSnapshot& snapshot)
{
    const bool own = !_in_transaction;
    if (own) begin();

    device_t& device = _devices[number];
    read_periods();
    read_params(device);

    sqlite3_stmt* insert = ready(device._insert, [&] { return insert_text(device); });
    sqlite3_bind_int64(insert, 1, snapshot._time);
    sqlite3_bind_double(insert, 2, snapshot._percent_valid);
    int placeholder = 3;
    for (const CSample& sample : snapshot._samples)
        for (const COptVal* val : {&sample._min, &sample._max, &sample._avg, &sample._actual})
            sqlite3_bind_double(insert, placeholder++, val->_val);
    run(insert);

    propagate(device, 0);
    if (own) end();
}

void floor_side::propagate(device_t& device, size_t idx)
{
    if (idx + 1 == _ratios.size()) {
        trim(device, idx);
        return;
    }

    table_t& table = device._tables[idx];
    sqlite3_stmt* stmt = ready(table._count, [&] {
        return "SELECT count(time), min(time) FROM " + table_name(device, idx) +
               " WHERE time > coalesce((SELECT max(time) FROM " + table_name(device, idx + 1) +
               "),0)";
    });
    if (sqlite3_step(stmt) != SQLITE_ROW) throw std::runtime_error(sqlite3_errmsg(_db));
    const int64_t count = integer(stmt, 0);
    const int64_t first = integer(stmt, 1);
    sqlite3_reset(stmt);
    if (count < _ratios[idx]) return;

    trim(device, idx);
    sqlite3_stmt* roll_up = ready(table._roll_up, [&] { return roll_up_text(device, idx); });
    for (int64_t offset = 0; offset + _ratios[idx] <= count; offset += _ratios[idx]) {
        sqlite3_bind_int64(roll_up, 1, first);
        sqlite3_bind_int64(roll_up, 2, offset);
        run(roll_up);
    }
    propagate(device, idx + 1);
}

void floor_side::trim(device_t& device, size_t idx)
{
    const int64_t last = newest(device, idx);
    if (last < 0) return;
    const int64_t kept = first_kept(_plant._periods[idx], last);
    if (kept < oldest(device, idx)) return;
    sqlite3_stmt* stmt = ready(device._tables[idx]._trim, [&] {
        return "DELETE FROM " + table_name(device, idx) + " WHERE time <= ?";
    });
    sqlite3_bind_int64(stmt, 1, kept);
    run(stmt);
}

void floor_side::fill(size_t number, int64_t now)
{
    device_t& device = _devices[number];
    begin();
    read_periods();
    read_params(device);
    for (size_t idx = 0; idx < _ratios.size(); ++idx)
        fill_table(device, idx, now);
    end();
}

void floor_side::fill_table(device_t& device, size_t idx, int64_t now)
{
    const CPeriodProperties& period = _plant._periods[idx];
    const int64_t step = length(period);
    const auto max_entries = static_cast<int64_t>(period._max_entries);
    int64_t last = newest(device, idx);
    if (last < 0) return;

    sqlite3_stmt* blank = ready(device._tables[idx]._blank, [&] {
        return "INSERT INTO " + table_name(device, idx) + " (time, percent_valid) VALUES (?,1)";
    });
    const auto add_blank = [&] {
        last += step;
        sqlite3_bind_int64(blank, 1, last);
        run(blank);
    };
    int64_t first = last;
    int64_t n = 0;
    for (; n < _ratios[idx] && now - last >= step; ++n)
        add_blank();
    propagate(device, idx);

    if (n > max_entries + SPARE_INTERVALS) {
        first = last;
        n = 0;
    }
    const int64_t total = (now - last) / step;
    if (last < now && total > max_entries) {
        last += (total - max_entries) * step;
        first = last;
        n = 0;
    }

    while (now - last >= step) {
        if (n == 0) {
            add_blank();
            n = 1;
            continue;
        }
        const int64_t missing = (now - last) / step;
        sqlite3_stmt* copy = ready(device._tables[idx]._copy, [&] {
            const std::string name = table_name(device, idx);
            return "INSERT INTO " + name + " (time, percent_valid) SELECT time+?, 1 FROM " + name +
                   " WHERE time > ? LIMIT ?";
        });
        sqlite3_bind_int64(copy, 1, n * step);
        sqlite3_bind_int64(copy, 2, first);
        sqlite3_bind_int64(copy, 3, n > missing ? missing : -1);
        run(copy);
        const int64_t added = std::min(n, missing);
        last += added * step;
        n += added;
    }
    trim(device, idx);
}

size_t floor_side::read(size_t number, size_t periods, const timebounds_t& bounds, bool no_overlap)
{
    device_t& device = _devices[number];
    const read_t kind(number, periods, bounds.first != -1, bounds.second != -1, no_overlap);
    sqlite3_stmt* stmt =
        ready(_reads[kind], [&] { return read_text(device, periods, bounds, no_overlap); });
    begin();

    std::vector<int64_t> upper_bounds(periods, -1);
    if (no_overlap) {
        int64_t bound = -1;
        for (size_t idx = 0; idx < periods; ++idx) {
            const int64_t time = oldest(device, idx);
            upper_bounds[idx] = bound;
            if (bound == -1 || (time != -1 && time < bound)) bound = time;
        }
    }

    int placeholder = 1;
    for (size_t idx = 0; idx < periods; ++idx) {
        sqlite3_bind_int64(stmt, placeholder++, static_cast<int64_t>(_plant._periods[idx]._period));
        if (bounds.first != -1) sqlite3_bind_int64(stmt, placeholder++, bounds.first);
        if (bounds.second != -1) sqlite3_bind_int64(stmt, placeholder++, bounds.second);
        for (int i = 0; no_overlap && i < 2; ++i)
            sqlite3_bind_int64(stmt, placeholder++, upper_bounds[idx]);
    }
    sqlite3_bind_int64(stmt, placeholder, -1);

    _values.clear();
    const int columns = sqlite3_column_count(stmt);
    size_t rows = 0;
    for (; sqlite3_step(stmt) == SQLITE_ROW; ++rows) {
        for (int col = 0; col < 2; ++col)
            _sink += integer(stmt, col);
        for (int col = 2; col < columns; ++col)
            _values.push_back(real(stmt, col));
    }
    sqlite3_reset(stmt);
    end();
    return rows;
}

double floor_side::sum_of_values() const
{
    double sum = 0.0;
    const size_t per_row = 1 + _plant._params * std::size(KEPT);
    for (size_t i = 0; i < _values.size(); ++i)
        if (i % per_row != 0) sum += _values[i];  // the first of a row is percent_valid
    return sum;
}

size_t floor_side::bytes_of_records() const { return _values.size() * sizeof(double); }

// Statements -----------------------------------------------------------------------------------

template <typename Text>
sqlite3_stmt* floor_side::ready(sqlite3_stmt*& kept, Text text)
{
    if (!kept) prepare(kept, text());
    return kept;
}

void floor_side::prepare(sqlite3_stmt*& kept, const std::string& sql)
{
    if (sqlite3_prepare_v2(_db, sql.c_str(), static_cast<int>(sql.size()), &kept, nullptr) != 0)
        throw std::runtime_error(sqlite3_errmsg(_db));
    _all.push_back(kept);
}

void floor_side::run(sqlite3_stmt* stmt)
{
    if (sqlite3_step(stmt) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(_db));
    sqlite3_reset(stmt);
}

// The integer that a query of one row gives, -1 for NULL.
int64_t floor_side::value(sqlite3_stmt* stmt)
{
    int64_t result = -1;
    while (sqlite3_step(stmt) == SQLITE_ROW)
        result = integer(stmt, 0);
    sqlite3_reset(stmt);
    return result;
}

void floor_side::read_periods()
{
    while (sqlite3_step(_periods) == SQLITE_ROW)
        for (int col = 0; col < 2; ++col)
            _sink += integer(_periods, col);
    sqlite3_reset(_periods);
}

void floor_side::read_params(device_t& device)
{
    sqlite3_stmt* stmt = ready(device._params, [&] {
        return "SELECT * FROM params_" + std::to_string(device._id) + " ORDER BY idx ASC";
    });
    while (sqlite3_step(stmt) == SQLITE_ROW)
        for (int col = 0; col < 8; ++col)
            _sink += col == 1 ? first_byte(stmt, col) : integer(stmt, col);
    sqlite3_reset(stmt);
}

int64_t floor_side::newest(device_t& device, size_t idx)
{
    return value(ready(device._tables[idx]._newest,
                       [&] { return "SELECT max(time) FROM " + table_name(device, idx); }));
}

int64_t floor_side::oldest(device_t& device, size_t idx)
{
    return value(ready(device._tables[idx]._oldest,
                       [&] { return "SELECT min(time) FROM " + table_name(device, idx); }));
}

std::string floor_side::table_name(const device_t& device, size_t idx) const
{
    return "trends_" + std::to_string(device._id) + "_" +
           std::to_string(_plant._periods[idx]._period);
}

std::string floor_side::insert_text(const device_t& device) const
{
    std::string sql = "INSERT INTO " + table_name(device, 0) + " (time, percent_valid";
    std::string values = ") VALUES (?,?";
    for (size_t i = 1; i <= _plant._params; ++i)
        for (const char* name : KEPT) {
            sql += ", param_" + std::to_string(i) + "_" + name;
            values += ",?";
        }
    return sql + values + ")";
}

std::string floor_side::roll_up_text(const device_t& device, size_t idx) const
{
    std::string sql =
        "INSERT INTO " + table_name(device, idx + 1) + " SELECT max(time), avg(percent_valid)";
    for (size_t i = 1; i <= _plant._params; ++i) {
        const std::string param = "param_" + std::to_string(i);
        sql += ", min(" + param + "_min), max(" + param + "_max), pctavg(" + param +
               "_avg, percent_valid), " + param + "_actual";
    }
    return sql + " FROM (SELECT * FROM " + table_name(device, idx) + " WHERE time >= ? LIMIT " +
           std::to_string(_ratios[idx]) + " OFFSET ?)";
}

std::string floor_side::read_text(const device_t& device, size_t periods,
                                  const timebounds_t& bounds, bool no_overlap) const
{
    std::string sql;
    for (size_t idx = 0; idx < periods; ++idx) {
        sql +=
            idx == 0 ? "SELECT ?, time, percent_valid" : "UNION ALL SELECT ?, time, percent_valid";
        for (size_t i = 1; i <= _plant._params; ++i)
            for (const char* name : KEPT)
                sql += ", param_" + std::to_string(i) + "_" + name;
        sql += " FROM " + table_name(device, idx) + " WHERE 1 ";
        if (bounds.first != -1) sql += "AND time >= ? ";
        if (bounds.second != -1) sql += "AND time <= ? ";
        if (no_overlap) sql += "AND (time < ? OR ? < 0) ";
    }
    return sql + "ORDER BY time ASC LIMIT ?";
}
