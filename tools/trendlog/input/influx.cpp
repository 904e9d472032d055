#include "input/input.h"
#include "numbers.h"

namespace trendlog {

namespace {

// measurement,tag=value field=1,other=2i 1514764860000000000: the device is the tag `device`, else
// the measurement. Fields that are texts say nothing here.
class CInfluxInput : public CInput {
public:
    explicit CInfluxInput(const names_t& names) : _names(names) {}

    bool parse(std::string_view line, entry_t& entry) override
    {
        const size_t begin = line.find_first_not_of(" \t");
        if (begin == std::string_view::npos || line[begin] == '#') return false;
        entry = {};
        _text = line.substr(begin);
        _at = 0;
        entry._device = word(", ");
        while (take(',')) {
            const std::string name = word("=, ");
            if (!take('=')) throw bad_line_t("tag '" + name + "' has no value");
            const std::string value = word(", ");
            if (name == "device") entry._device = value;
            if (name == "period") add_value(entry, name, read_value(name, value));
        }
        if (!take(' ')) throw bad_line_t("no fields: not line protocol");
        do {
            take_field(entry);
        } while (take(','));
        if (take(' ')) take_time(entry);
        return true;
    }

private:
    bool take(char wanted)
    {
        if (_at >= _text.size() || _text[_at] != wanted) return false;
        ++_at;
        return true;
    }

    // Up to one of `ends` that has no backslash before it.
    std::string word(std::string_view ends)
    {
        std::string text;
        for (; _at < _text.size() && ends.find(_text[_at]) == std::string_view::npos; ++_at) {
            const bool escapes =
                _text[_at] == '\\' && _at + 1 < _text.size() &&
                std::string_view(",= ").find(_text[_at + 1]) != std::string_view::npos;
            if (escapes) ++_at;
            text += _text[_at];
        }
        return text;
    }

    void take_field(entry_t& entry)
    {
        const std::string name = word("=, ");
        if (name.empty() || !take('=')) throw bad_line_t("no field: not line protocol");
        if (take('"')) {
            for (; _at < _text.size() && _text[_at] != '"'; ++_at)
                if (_text[_at] == '\\') ++_at;
            if (!take('"')) throw bad_line_t(name + ": a quote that is not closed");
            return;
        }
        std::string value = word(", ");
        const auto found = _names.find(name);
        const std::string& param = found == _names.end() ? name : found->second;
        for (const char* const word : {"t", "T", "true", "True", "TRUE"})
            if (value == word) return add_value(entry, param, 1.0);
        for (const char* const word : {"f", "F", "false", "False", "FALSE"})
            if (value == word) return add_value(entry, param, 0.0);
        if (!value.empty() && (value.back() == 'i' || value.back() == 'u')) value.pop_back();
        if (value.empty()) throw bad_line_t(name + ": no value");
        add_value(entry, param, read_value(name, value));
    }

    void take_time(entry_t& entry)
    {
        int64_t nanoseconds = 0;
        const std::string text(_text.substr(_at));
        if (!read_number(text, nanoseconds) || nanoseconds < 0)
            throw bad_line_t("'" + text + "' is no time in nanoseconds");
        entry._time_ms = nanoseconds / 1000000;
        entry._has_time = true;
    }

    const names_t _names;
    std::string_view _text;
    size_t _at = 0;
};

}  // namespace

input_t make_influx_input(const names_t& names) { return std::make_unique<CInfluxInput>(names); }

}  // namespace trendlog
