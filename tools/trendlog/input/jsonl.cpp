#include <nlohmann/json.hpp>

#include "input/input.h"
#include "selection.h"

namespace trendlog {

namespace {

using json_t = nlohmann::ordered_json;  // parameters are added in the order of the line

COptVal value_of(const std::string& name, const json_t& value)
{
    if (value.is_null()) return {};
    if (value.is_boolean()) return value.get<bool>() ? 1.0 : 0.0;
    if (!value.is_number()) throw bad_line_t(name + ": not a number");
    return value.get<double>();
}

std::string text_of(const json_t& value)
{
    if (!value.is_string()) throw bad_line_t("device: not a text");
    return value.get<std::string>();
}

// {"time": 1514764860.25, "device": "plant/pump", "values": {"power": 3.2}}, a value being one or
// one for each aggregate, {"min": 1, "max": 5}.
class CJsonlInput : public CInput {
public:
    CJsonlInput(const names_t& names, const CZone& zone) : _names(names), _zone(zone) {}

    bool parse(std::string_view line, entry_t& entry) override
    {
        if (line.find_first_not_of(" \t") == std::string_view::npos) return false;
        entry = {};
        const json_t object = json_t::parse(line, nullptr, false);
        if (object.is_discarded()) throw bad_line_t("not JSON");
        if (!object.is_object()) throw bad_line_t("not a JSON object");
        if (!object.contains("values")) throw bad_line_t("no \"values\"");
        for (const auto& [name, value] : object.items()) {
            if (name == "time") {
                take_time(value, entry);
            } else if (name == "device") {
                entry._device = text_of(value);
            } else if (name == "percent_valid" || name == "period") {
                add_value(entry, name, value_of(name, value));
            } else if (name == "values") {
                take_values(value, entry);
            } else if (name != "start" && name != "end") {
                throw bad_line_t("\"" + name + "\" is not known");
            }
        }
        return true;
    }

private:
    void take_time(const json_t& value, entry_t& entry) const
    {
        if (value.is_number())
            entry._time_ms = time_of_seconds(value.get<double>());
        else if (value.is_string())
            entry._time_ms = read_time(value.get<std::string>(), _zone);
        else
            throw bad_line_t("a time that is neither a number nor a text");
        entry._has_time = true;
    }

    void take_values(const json_t& values, entry_t& entry) const
    {
        if (!values.is_object()) throw bad_line_t("\"values\" is no object");
        for (const auto& [name, value] : values.items()) {
            const auto found = _names.find(name);
            const std::string& param = found == _names.end() ? name : found->second;
            if (!value.is_object()) {
                entry._values.push_back({param, -1, value_of(name, value)});
                continue;
            }
            for (const auto& [word, each] : value.items())
                entry._values.push_back({param, aggregate_of(word), value_of(name, each)});
        }
    }

    static int aggregate_of(const std::string& name)
    {
        for (size_t i = 0; i < AGGREGATE_NAMES.size(); ++i)
            if (name == AGGREGATE_NAMES[i]._name) return static_cast<int>(i);
        throw bad_line_t("\"" + name + "\" is none of min, max, avg, actual, sum");
    }

    const names_t _names;
    const CZone& _zone;
};

}  // namespace

input_t make_jsonl_input(const names_t& names, const CZone& zone)
{
    return std::make_unique<CJsonlInput>(names, zone);
}

}  // namespace trendlog
