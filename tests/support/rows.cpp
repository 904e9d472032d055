#include "rows.h"

#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

#include "sqlite_watch.h"

namespace {

class connection {
public:
    connection(const std::string& file, int flags)
    {
        sqlite3* db = nullptr;
        const int result = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
        _db.reset(db);
        check(result, file);
        sqlite3_busy_timeout(db, 5000);
    }

    void run(const std::string& sql)
    {
        check(sqlite3_exec(_db.get(), sql.c_str(), nullptr, nullptr, nullptr), sql);
    }

    // Calls `row` with the statement at each row.
    template <typename Row>
    void each_row(const std::string& sql, Row row)
    {
        sqlite3_stmt* prepared = nullptr;
        check(sqlite3_prepare_v2(_db.get(), sql.c_str(), -1, &prepared, nullptr), sql);
        const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> stmt(prepared,
                                                                         sqlite3_finalize);
        int result = SQLITE_ROW;
        while ((result = sqlite3_step(stmt.get())) == SQLITE_ROW)
            row(stmt.get());
        check(result == SQLITE_DONE ? SQLITE_OK : result, sql);
    }

private:
    void check(int result, const std::string& what)
    {
        if (result != SQLITE_OK) throw std::runtime_error(what + ": " + sqlite3_errmsg(_db.get()));
    }

    const unwatched _unseen;
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> _db{nullptr, sqlite3_close};
};

// As the shell prints it.
std::string text(sqlite3_stmt* stmt, int col)
{
    if (sqlite3_column_type(stmt, col) == SQLITE_NULL) return "NULL";
    const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(stmt, col));
    if (bytes == nullptr) return "";
    return std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(stmt, col)));
}

// Tells 1 from 1.0 and from '1', and two reals that differ in their last bit.
std::string exact(sqlite3_stmt* stmt, int col)
{
    std::array<char, 40> real{};
    switch (sqlite3_column_type(stmt, col)) {
        case SQLITE_FLOAT:
            std::snprintf(real.data(), real.size(), "real %.17g", sqlite3_column_double(stmt, col));
            return real.data();
        case SQLITE_TEXT:
            return "'" + text(stmt, col) + "'";
        case SQLITE_BLOB:
            return "x'" + text(stmt, col) + "'";
        default:
            return text(stmt, col);
    }
}

template <typename Column>
std::string joined(sqlite3_stmt* stmt, Column column)
{
    std::string row;
    for (int col = 0; col < sqlite3_column_count(stmt); ++col)
        row += (col == 0 ? "" : "|") + column(stmt, col);
    return row;
}

}  // namespace

std::string rows(const std::string& file, const std::string& sql)
{
    std::string all;
    bool first = true;
    connection db(file, SQLITE_OPEN_READONLY);
    db.each_row(sql, [&](sqlite3_stmt* stmt) {
        all += (first ? "" : "\n") + joined(stmt, text);
        first = false;
    });
    return all;
}

std::string dump(const std::string& file)
{
    std::string all;
    std::vector<std::string> tables;
    connection db(file, SQLITE_OPEN_READONLY);
    db.run("BEGIN");

    const auto add = [&](sqlite3_stmt* stmt) { all += joined(stmt, exact) + "\n"; };
    db.each_row("PRAGMA user_version", add);
    db.each_row("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY type, name", add);
    db.each_row("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name",
                [&](sqlite3_stmt* stmt) { tables.push_back(text(stmt, 0)); });
    for (const std::string& table : tables) {
        all += table + ":\n";
        db.each_row("SELECT * FROM \"" + table + "\" ORDER BY rowid", add);
    }
    return all;
}

void run_sql(const std::string& file, const std::string& sql)
{
    connection(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).run(sql);
}

void disorder_rows(const std::string& file, const std::string& table)
{
    const auto number = [&](const std::string& sql) { return std::stoul(rows(file, sql)); };
    const size_t page_size = number("PRAGMA page_size");
    const size_t root = number("SELECT rootpage FROM sqlite_master WHERE name = '" + table + "'");
    std::string bytes = file_bytes(file);
    const auto byte = [&](size_t at) { return static_cast<unsigned char>(bytes.at(at)); };
    const auto two_bytes = [&](size_t at) { return size_t(byte(at)) << 8 | byte(at + 1); };
    const auto page_at = [&](size_t at) {
        return ((two_bytes(at) << 16 | two_bytes(at + 2)) - 1) * page_size;
    };
    const auto after_number = [&](size_t at) {
        while (byte(at) >= 0x80)
            ++at;
        return at + 1;
    };

    const size_t top = (root - 1) * page_size;
    if (byte(top) != 5) throw std::runtime_error(table + " has a single page");
    std::vector<size_t> leaves;
    for (size_t i = 1; i < two_bytes(top + 3); ++i)
        leaves.push_back(page_at(top + two_bytes(top + 12 + 2 * i)));
    if (leaves.empty()) throw std::runtime_error(table + " has fewer than three pages");
    for (const size_t leaf : leaves) {
        if (byte(leaf) != 13) throw std::runtime_error(table + " has more levels of pages");
        for (size_t i = 0; i < two_bytes(leaf + 3); ++i) {
            const size_t key = after_number(leaf + two_bytes(leaf + 8 + 2 * i));
            const size_t last = after_number(key) - 1;
            for (size_t at = key; at < last; ++at)
                bytes[at] = '\x80';
            bytes[last] = 1;
        }
    }
    std::ofstream(file, std::ios::binary) << bytes;
}

std::string file_bytes(const std::string& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) throw std::runtime_error("can't read " + file);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string test_data(const std::string& name)
{
    return file_bytes(std::string(TREND_TEST_DATA_DIR "/") + name);
}
