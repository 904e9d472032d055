#include "input/input.h"

#include <algorithm>
#include <cmath>

#include "numbers.h"

namespace trendlog {

namespace {

std::string quoted(const std::string& text)
{
    constexpr size_t SHOWN = 40;
    return "'" + (text.size() > SHOWN ? text.substr(0, SHOWN) + "..." : text) + "'";
}

names_t read_names(const CArguments& arguments)
{
    names_t names;
    for (const std::string& word : arguments.list("--map")) {
        const size_t equal = word.find('=');
        if (equal == std::string::npos || equal == 0 || equal + 1 == word.size())
            throw usage_t("--map: '" + word + "' is not like column=parameter");
        names[word.substr(0, equal)] = word.substr(equal + 1);
    }
    return names;
}

// A header of CSV has a column for the time; a line of line protocol has a field, and a space
// before it.
bool is_csv(std::string_view line)
{
    const size_t space = line.find(' ');
    return space == std::string_view::npos || line.find('=', space) == std::string_view::npos;
}

}  // namespace

input_t make_input(const CArguments& arguments, std::string_view first_line, const CZone& zone)
{
    const names_t names = read_names(arguments);
    std::string format = arguments.text("--format");
    if (format.empty()) {
        const size_t begin = first_line.find_first_not_of(" \t\xef\xbb\xbf");
        const bool is_json = begin != std::string_view::npos && first_line[begin] == '{';
        format = is_json ? "jsonl" : is_csv(first_line) ? "csv" : "influx";
    }
    if (format == "jsonl") return make_jsonl_input(names, zone);
    if (format == "influx") return make_influx_input(names);
    return make_csv_input(names, zone);
}

const options_t& input_options()
{
    static const options_t options = {
        {"--format",
         "FORMAT",
         "csv, jsonl, influx (line protocol); as the first line looks",
         {"csv", "jsonl", "influx"}},
        {"--map", "COLUMN=P,...", "what columns of other names are"},
        {"--tz", "ZONE", "of times without an offset, UTC unless given"},
    };
    return options;
}

int64_t time_of_seconds(double seconds)
{
    constexpr double LATEST = 9e12;  // far beyond any date, and no overflow
    if (!(seconds >= 0 && seconds < LATEST)) throw bad_line_t("a time that is out of range");
    return static_cast<int64_t>(std::llround(seconds * 1000));
}

int64_t read_time(const std::string& text, const CZone& zone)
{
    double seconds = 0;
    if (read_number(text, seconds) || parse_rfc3339(text, seconds)) return time_of_seconds(seconds);
    try {
        if (!text.empty() && text[0] >= '0' && text[0] <= '9')
            return parse_time(text, zone, {0}) * 1000;
    } catch (const usage_t&) {
        // said below
    }
    throw bad_line_t(text.empty() ? "no time" : quoted(text) + " is no time");
}

COptVal read_value(const std::string& name, const std::string& text)
{
    double value = 0;
    if (text.empty()) return {};
    if (!read_number(text, value)) throw bad_line_t(name + ": " + quoted(text) + " is no number");
    return value;
}

void add_value(entry_t& entry, const std::string& name, const COptVal& value)
{
    if (name == "start" || name == "end") return;  // `time` says it
    if (name == "percent_valid") {
        entry._percent_valid = value;
    } else if (name == "period") {
        if (value && !(*value >= 1 && *value <= UINT32_MAX)) throw bad_line_t("no such period");
        if (value) entry._period = static_cast<int64_t>(*value);
    } else {
        entry._values.push_back({name, -1, value});
    }
}

}  // namespace trendlog
