#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "model.h"

struct sqlite3;
struct sqlite3_stmt;

namespace model {

// Reads what a file really holds, past the library, and compares it with what it should hold.
// Nothing is converted on the way: types, names of columns and every bit of a number count.
class file_content_t {
public:
    file_content_t() = default;
    ~file_content_t() { forget(); }

    file_content_t(const file_content_t&) = delete;
    file_content_t& operator=(const file_content_t&) = delete;

    // Reads through a connection of its own, or through `handle`, as one must within a transaction.
    void open(const std::string& name);
    void use(sqlite3* handle);

    // Lets go of connection and statements.
    void forget();

    bool is_open() const { return _handle != nullptr; }

    // The first difference found, or an empty text. With `device` only its tables are looked at.
    std::string difference(const state_t& state, std::optional<int64_t> device);

private:
    class rows_t;

    std::string tables_difference(const state_t& state);
    std::string periods_difference(const state_t& state);
    std::string devices_difference(const state_t& state);
    std::string device_difference(int64_t index, const store_t& store);
    std::string table_difference(const std::string& name, const table_t& table);

    sqlite3* _handle = nullptr;
    bool _own = false;
    std::map<std::string, sqlite3_stmt*> _statements;
};

}  // namespace model
