#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "plant.h"
#include "trend_api.h"

// The least that the design can cost: the library's own statements by SQLite's C API alone. Each is
// prepared at its first use and kept, no text is built after that, nothing is looked up by text and
// nothing is copied. floor_test.cpp holds the statements against the library's, with the values
// bound to them and in their order.
//
// Statements are reset after use but not cleared, since all of their placeholders are bound again.
// A value is taken once and its type looked at, as any program has to that does not trust a file.
class floor_side {
public:
    static constexpr const char* NAME = "floor";

    floor_side(const std::string& file, const plant_t& plant);
    ~floor_side();

    floor_side(const floor_side&) = delete;
    floor_side& operator=(const floor_side&) = delete;

    void begin();
    void end();
    void record(size_t device, const toolkit::trend::CSnapshot& snapshot);
    void fill(size_t device, int64_t now);
    size_t read(size_t device, size_t periods, const timebounds_t& bounds, bool no_overlap);

    double sum_of_values() const;
    size_t bytes_of_records() const;

private:
    struct table_t {
        sqlite3_stmt* _newest = nullptr;
        sqlite3_stmt* _oldest = nullptr;
        sqlite3_stmt* _trim = nullptr;
        sqlite3_stmt* _count = nullptr;
        sqlite3_stmt* _roll_up = nullptr;
        sqlite3_stmt* _blank = nullptr;
        sqlite3_stmt* _copy = nullptr;
    };
    struct device_t {
        int64_t _id = 0;
        sqlite3_stmt* _params = nullptr;
        sqlite3_stmt* _insert = nullptr;
        std::vector<table_t> _tables;
    };

    // What the text of a read depends on: device, number of periods, whether there is a lower and
    // an upper bound, and whether overlaps are suppressed.
    using read_t = std::tuple<size_t, size_t, bool, bool, bool>;

    // The statement in `kept`, made of the text that `text` gives when it is not there yet.
    template <typename Text>
    sqlite3_stmt* ready(sqlite3_stmt*& kept, Text text);

    void prepare(sqlite3_stmt*& kept, const std::string& sql);
    std::string table_name(const device_t& device, size_t idx) const;
    std::string insert_text(const device_t& device) const;
    std::string roll_up_text(const device_t& device, size_t idx) const;
    std::string read_text(const device_t& device, size_t periods, const timebounds_t& bounds,
                          bool no_overlap) const;

    void run(sqlite3_stmt* stmt);
    int64_t value(sqlite3_stmt* stmt);
    void read_periods();
    void read_params(device_t& device);
    int64_t newest(device_t& device, size_t idx);
    int64_t oldest(device_t& device, size_t idx);
    void trim(device_t& device, size_t idx);
    void propagate(device_t& device, size_t idx);
    void fill_table(device_t& device, size_t idx, int64_t now);

    plant_t _plant;
    std::vector<int64_t> _ratios;  // of each period to the next; 0 for the last
    sqlite3* _db = nullptr;
    bool _in_transaction = false;
    sqlite3_stmt* _begin = nullptr;
    sqlite3_stmt* _commit = nullptr;
    sqlite3_stmt* _periods = nullptr;
    std::vector<device_t> _devices;
    std::map<read_t, sqlite3_stmt*> _reads;
    std::vector<sqlite3_stmt*> _all;
    int64_t _sink = 0;            // what is read of the configuration goes here
    std::vector<double> _values;  // of the last read; the next one uses their memory again
};
