#include "file_content.h"

#include <sqlite3.h>

#include <cmath>
#include <cstring>
#include <set>
#include <stdexcept>

#include "operations.h"

namespace model {

// A query, stepped row by row and reset at the end. An error is the difference.
class file_content_t::rows_t {
public:
    rows_t(file_content_t& content, const std::string& sql) : _handle(content._handle)
    {
        sqlite3_stmt*& statement = content._statements[sql];
        if (statement == nullptr) sqlite3_prepare_v2(_handle, sql.c_str(), -1, &statement, nullptr);
        _statement = statement;
        if (_statement == nullptr) {
            _error = sqlite3_errmsg(_handle);
            content._statements.erase(sql);
        }
    }
    ~rows_t() { sqlite3_reset(_statement); }

    rows_t(const rows_t&) = delete;
    rows_t& operator=(const rows_t&) = delete;

    bool next()
    {
        if (_statement == nullptr) return false;
        const int code = sqlite3_step(_statement);
        if (code == SQLITE_ROW) return true;
        if (code != SQLITE_DONE) _error = sqlite3_errmsg(_handle);
        return false;
    }

    const std::string& error() const { return _error; }
    int columns() const { return _statement == nullptr ? 0 : sqlite3_column_count(_statement); }
    const char* name(int column) const { return sqlite3_column_name(_statement, column); }

    // A column as it stands there, its type included.
    std::string cell(int column) const
    {
        switch (sqlite3_column_type(_statement, column)) {
            case SQLITE_INTEGER:
                return std::to_string(sqlite3_column_int64(_statement, column));
            case SQLITE_FLOAT:
                return text(sqlite3_column_double(_statement, column)) + " (real)";
            case SQLITE_NULL:
                return "NULL";
            default:
                return '"' +
                       std::string(
                           reinterpret_cast<const char*>(sqlite3_column_text(_statement, column))) +
                       '"';
        }
    }
    std::string row() const
    {
        std::string out;
        for (int i = 0; i < columns(); ++i)
            out += (i == 0 ? "" : " | ") + cell(i);
        return out;
    }

    bool is(int column, int64_t value) const
    {
        return sqlite3_column_type(_statement, column) == SQLITE_INTEGER &&
               sqlite3_column_int64(_statement, column) == value;
    }
    bool is(int column, double value) const
    {
        if (std::isnan(value)) return sqlite3_column_type(_statement, column) == SQLITE_NULL;
        return sqlite3_column_type(_statement, column) == SQLITE_FLOAT &&
               same(sqlite3_column_double(_statement, column), value);
    }

private:
    sqlite3* _handle;
    sqlite3_stmt* _statement = nullptr;
    std::string _error;
};

void file_content_t::open(const std::string& name)
{
    forget();
    if (sqlite3_open_v2(name.c_str(), &_handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
        throw std::runtime_error("can't open " + name + ": " + sqlite3_errmsg(_handle));
    _own = true;
}

void file_content_t::use(sqlite3* handle)
{
    if (_handle == handle) return;
    forget();
    _handle = handle;
    _own = false;
}

void file_content_t::forget()
{
    for (const auto& [sql, statement] : _statements)
        sqlite3_finalize(statement);
    _statements.clear();
    if (_own) sqlite3_close(_handle);
    _handle = nullptr;
    _own = false;
}

std::string file_content_t::difference(const state_t& state, std::optional<int64_t> device)
{
    if (device) {
        const auto found = state.devices.find(*device);
        return found == state.devices.end() ? "" : device_difference(*device, *found->second);
    }
    std::string found = tables_difference(state);
    if (found.empty()) found = periods_difference(state);
    if (found.empty()) found = devices_difference(state);
    for (const auto& [index, store] : state.devices)
        if (found.empty()) found = device_difference(index, *store);
    if (found.empty() && state.leftover)
        found = table_difference("tmp_table", state.leftover_table);
    return found;
}

namespace {

// "where: the file has ..., not ...".
std::string differs(const std::string& where, const std::string& has, const std::string& not_this)
{
    return where + ": the file has " + has + ", not " + not_this;
}

}  // namespace

std::string file_content_t::tables_difference(const state_t& state)
{
    std::set<std::string> expected = {"periods", "devices"};
    for (const auto& [index, store] : state.devices) {
        expected.insert(param_table_name(index));
        for (const auto& [minutes, table] : store->tables)
            expected.insert(trend_table_name(index, minutes));
    }
    if (state.leftover) expected.insert("tmp_table");

    std::string tables;
    for (const std::string& name : expected)
        tables += '"' + name + "\"\n";
    std::string found;
    rows_t rows(*this, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name");
    while (rows.next())
        found += rows.row() + "\n";
    if (!rows.error().empty()) return rows.error();
    if (found != tables) return differs("tables", "\n" + found, "\n" + tables);

    rows_t version(*this, "PRAGMA user_version");
    if (!version.next() || !version.is(0, int64_t(2))) return "the schema version is not 2";
    return "";
}

std::string file_content_t::periods_difference(const state_t& state)
{
    std::string expected;
    for (const auto& [minutes, kept] : state.periods)
        expected += std::to_string(minutes) + " | " + std::to_string(kept) + "\n";
    std::string found;
    rows_t rows(*this, "SELECT * FROM periods ORDER BY period");
    while (rows.next())
        found += rows.row() + "\n";
    if (!rows.error().empty()) return rows.error();
    return found == expected ? "" : differs("periods", "\n" + found, "\n" + expected);
}

std::string file_content_t::devices_difference(const state_t& state)
{
    std::string expected;
    for (const auto& [index, store] : state.devices)
        expected += std::to_string(index) + " | \"" + store->path + "\" | " +
                    (store->guid.empty() ? "NULL" : '"' + store->guid + '"') + "\n";
    std::string found;
    rows_t rows(*this, "SELECT * FROM devices ORDER BY idx");
    while (rows.next())
        found += rows.row() + "\n";
    if (!rows.error().empty()) return rows.error();
    return found == expected ? "" : differs("devices", "\n" + found, "\n" + expected);
}

std::string file_content_t::device_difference(int64_t index, const store_t& store)
{
    std::string expected;
    for (const auto& [id, param] : store.params) {
        expected +=
            std::to_string(id) + " | \"" + param.path + "\" | " + std::to_string(param.type);
        for (const bool kept : param.keeps)
            expected += kept ? " | 1" : " | 0";
        expected += "\n";
    }
    std::string found;
    const std::string name = param_table_name(index);
    rows_t rows(*this, "SELECT * FROM " + name + " ORDER BY idx");
    while (rows.next())
        found += rows.row() + "\n";
    if (!rows.error().empty()) return rows.error();
    if (found != expected) return differs(name, "\n" + found, "\n" + expected);

    for (const auto& [minutes, table] : store.tables) {
        std::string difference = table_difference(trend_table_name(index, minutes), table);
        if (!difference.empty()) return difference;
    }
    return "";
}

std::string file_content_t::table_difference(const std::string& name, const table_t& table)
{
    const auto expected_row = [&](size_t i) {
        std::string out = std::to_string(table.times[i]);
        for (size_t j = 0; j < table.width(); ++j) {
            const double cell = table.row(i)[j];
            out += std::isnan(cell) ? " | NULL" : " | " + text(cell) + " (real)";
        }
        return out;
    };

    rows_t rows(*this, "SELECT * FROM " + name + " ORDER BY time");
    size_t i = 0;
    bool more = rows.next();
    if (!rows.error().empty()) return rows.error();

    std::string names;
    for (int column = 0; column < rows.columns(); ++column)
        names += std::string(" ") + rows.name(column);
    std::string expected_names = " time percent_valid";
    for (const std::string& column : table.columns)
        expected_names += " " + column;
    if (names != expected_names) return differs(name + ", columns", names, expected_names);

    for (; more; more = rows.next(), ++i) {
        const std::string where = name + ", row " + std::to_string(i);
        if (i == table.size()) return differs(where, "\n" + rows.row(), "one");
        bool equal = rows.is(0, table.times[i]);
        for (size_t j = 0; equal && j < table.width(); ++j)
            equal = rows.is(static_cast<int>(j) + 1, table.row(i)[j]);
        if (!equal) return differs(where, "\n" + rows.row() + "\n", "\n" + expected_row(i));
    }
    if (!rows.error().empty()) return rows.error();
    if (i < table.size())
        return differs(name + ", row " + std::to_string(i), "none", "\n" + expected_row(i));
    return "";
}

}  // namespace model
