#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "output/sink.h"
#include "times.h"

// What commands give out: columns once, then rows of cells. A format is a file beside this one.

namespace trendlog {

enum column_kind_t {
    COLUMN_TEXT,
    COLUMN_NUMBER,
    COLUMN_TIME,     // RFC 3339 in the zone of the output
    COLUMN_PERIOD,   // minutes; in tables as a duration
    COLUMN_PERCENT,  // in tables with one decimal
};

struct column_t {
    std::string _name;  // of the CSV header and of JSON
    column_kind_t _kind = COLUMN_TEXT;
    std::string _title = {};      // of tables, where it is another
    bool _only_machines = false;  // left out of tables: what they show in another way
    // Of a value: where JSON has it, under "values", and line protocol as a field.
    std::string _param = {};
    std::string _aggregate = {};
};

struct cell_t {
    enum kind_t {
        NONE,    // there is no such thing: left out of JSON
        ABSENT,  // null, empty
        INTEGER,
        NUMBER,
        TEXT  // not owned
    };

    cell_t() = default;
    cell_t(int64_t value) : _kind(INTEGER), _integer(value) {}
    cell_t(double value) : _kind(NUMBER), _number(value) {}
    cell_t(const COptVal& value) : _kind(value ? NUMBER : ABSENT), _number(value._val) {}
    cell_t(std::string_view text) : _kind(TEXT), _text(text) {}
    static cell_t absent() { return COptVal(); }
    // A text that is absent when it is empty.
    static cell_t text(std::string_view text) { return text.empty() ? absent() : cell_t(text); }

    kind_t _kind = NONE;
    int64_t _integer = 0;
    double _number = 0;
    std::string_view _text = {};
};

using columns_t = std::vector<column_t>;
using cells_t = std::vector<cell_t>;

class CWriter {
public:
    virtual ~CWriter() = default;

    // begin() once, row() for each row with a cell for each column, end() once.
    virtual void begin(const columns_t& columns) = 0;
    virtual void row(const cells_t& cells) = 0;
    virtual void end() = 0;
};

using writer_t = std::unique_ptr<CWriter>;

writer_t make_table_writer(CSink& sink, const CZone& zone);
writer_t make_csv_writer(CSink& sink, const CZone& zone, char separator);
enum json_t { JSON_ARRAY, JSON_LINES };
writer_t make_json_writer(CSink& sink, const CZone& zone, json_t kind);
writer_t make_influx_writer(CSink& sink);

// The writer of --format: a table on a terminal, CSV elsewhere.
writer_t make_writer(const CArguments& arguments, CSink& sink, const CZone& zone);
std::string output_format(const CArguments& arguments);

// For writers and for texts that are put together elsewhere: a JSON string with its quotes, a JSON
// number that reads back as the same double, infinities too.
void append_json(std::string& text, std::string_view value);
void append_json(std::string& text, double value);

// How wide a text is shown: characters, not bytes. Padded to a width, on the left or the right.
size_t shown_width(std::string_view text);
std::string padded(std::string_view text, size_t width, bool to_the_right = false);

}  // namespace trendlog
