#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "times.h"

// What comes in, line by line: CSV, JSON lines or line protocol. A format is a file beside this
// one.

namespace trendlog {

// A line that does not fit, and why.
struct bad_line_t : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Nothing of it fits.
struct bad_input_t : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct entry_value_t {
    std::string _param;
    int _aggregate = -1;  // of AGGREGATE_NAMES; -1 where `_param` is all that the line says
    COptVal _value;
};

// What a line says.
struct entry_t {
    bool _has_time = false;
    int64_t _time_ms = 0;  // since the Unix epoch
    std::string _device;   // empty where it does not say
    int64_t _period = 0;   // minutes; 0 where it does not say
    COptVal _percent_valid;
    std::vector<entry_value_t> _values;
};

// Names of columns and fields that stand for something else, of --map.
using names_t = std::map<std::string, std::string>;

class CInput {
public:
    virtual ~CInput() = default;

    // What the line says, in place of what `entry` held; false where it says nothing: a header, a
    // comment, an empty line, a record that goes on in the next one. Throws bad_line_t,
    // bad_input_t.
    virtual bool parse(std::string_view line, entry_t& entry) = 0;

    // At the end of the input. Throws bad_line_t for a record that has no end.
    virtual void end() {}
};

using input_t = std::unique_ptr<CInput>;

input_t make_csv_input(const names_t& names, const CZone& zone);
input_t make_jsonl_input(const names_t& names, const CZone& zone);
input_t make_influx_input(const names_t& names);

// The format of --format, without it the one that the first line looks like.
input_t make_input(const CArguments& arguments, std::string_view first_line, const CZone& zone);
const options_t& input_options();  // --format --map --tz

// For the formats: epoch seconds, with a fraction or without, RFC 3339, or a date with a time in
// the zone, in milliseconds. Throws bad_line_t.
int64_t read_time(const std::string& text, const CZone& zone);
int64_t time_of_seconds(double seconds);
// Throws bad_line_t; absent for an empty text and for "nan".
COptVal read_value(const std::string& name, const std::string& text);
// Puts a value of that name into the entry: one of the line's own ("percent_valid", "period",
// "start", "end") or one of a parameter.
void add_value(entry_t& entry, const std::string& name, const COptVal& value);

}  // namespace trendlog
