#include <csv.h>

#include <algorithm>

#include "input/input.h"
#include "numbers.h"

namespace trendlog {

namespace {

// A header with `time` and the names of values, or with `time`, `param` and `value`; `device` if
// there are several. Separated by what the header has most of: comma, semicolon or tabulator.
class CCsvInput : public CInput {
public:
    CCsvInput(const names_t& names, const CZone& zone) : _names(names), _zone(zone)
    {
        if (csv_init(&_parser, 0) != 0) throw std::bad_alloc();
    }
    ~CCsvInput() override { csv_free(&_parser); }

    CCsvInput(const CCsvInput&) = delete;
    CCsvInput& operator=(const CCsvInput&) = delete;

    bool parse(std::string_view line, entry_t& entry) override
    {
        if (_columns.empty() && !_is_within) begin(line);
        if (!_is_within) _fields.clear();
        _is_whole = false;
        feed(line);
        feed("\n");
        _is_within = !_is_whole && (_is_within || !is_blank(line));
        if (!_is_whole) return false;
        if (_columns.empty()) {
            take_header();
            return false;
        }
        take_record(entry);
        return true;
    }

    void end() override
    {
        if (_is_within) throw bad_line_t("a quote that is not closed");
    }

private:
    static bool is_blank(std::string_view line)
    {
        return line.find_first_not_of(" \t") == std::string_view::npos;
    }

    // What comes back from C must not throw.
    static void on_field(void* text, size_t size, void* context)
    {
        CCsvInput& self = *static_cast<CCsvInput*>(context);
        try {
            self._fields.emplace_back(static_cast<const char*>(text), size);
        } catch (...) {
            self._has_no_memory = true;
        }
    }

    static void on_record(int, void* context)
    {
        static_cast<CCsvInput*>(context)->_is_whole = true;
    }

    void feed(std::string_view text)
    {
        const size_t done =
            csv_parse(&_parser, text.data(), text.size(), on_field, on_record, this);
        if (_has_no_memory || done != text.size()) throw std::bad_alloc();
    }

    void begin(std::string_view& line)
    {
        constexpr std::string_view MARK = "\xef\xbb\xbf";  // what some programs begin a text with
        if (line.substr(0, MARK.size()) == MARK) line.remove_prefix(MARK.size());
        char separator = ',';
        const auto count = [&](char each) { return std::count(line.begin(), line.end(), each); };
        for (const char each : {';', '\t'})
            if (count(each) > count(separator)) separator = each;
        csv_set_delim(&_parser, static_cast<unsigned char>(separator));
    }

    void take_header()
    {
        for (const std::string& field : _fields) {
            const auto found = _names.find(field);
            _columns.push_back(found == _names.end() ? field : found->second);
        }
        const auto place = [&](const char* name) {
            const auto found = std::find(_columns.begin(), _columns.end(), name);
            return static_cast<size_t>(found - _columns.begin());
        };
        _time = place("time");
        _end = place("end");
        _device = place("device");
        _param = place("param");
        _value = place("value");
        const size_t none = _columns.size();
        _is_long = _param != none && _value != none;
        if (_time == none && _end == none)
            throw bad_input_t(
                "the first line of CSV names its columns, and one of them is `time`; " +
                std::string(none == 0 ? "it is empty" : "it begins with '") +
                (none == 0 ? "" : _columns[0] + "'"));
    }

    void take_record(entry_t& entry)
    {
        entry = {};
        if (_fields.size() != _columns.size())
            throw bad_line_t(counted(_fields.size(), "field") + ", the header has " +
                             std::to_string(_columns.size()));
        const size_t none = _columns.size();
        entry._time_ms = read_time(_fields[_time != none ? _time : _end], _zone);
        entry._has_time = true;
        if (_device != none) entry._device = _fields[_device];
        if (_is_long) {
            entry._values.push_back({_fields[_param], -1, read_value("value", _fields[_value])});
            return;
        }
        for (size_t i = 0; i < none; ++i)
            if (i != _time && i != _end && i != _device && _columns[i] != "start")
                add_value(entry, _columns[i], read_value(_columns[i], _fields[i]));
    }

    const names_t _names;
    const CZone& _zone;
    csv_parser _parser{};
    std::vector<std::string> _fields;
    std::vector<std::string> _columns;
    size_t _time = 0, _end = 0, _device = 0, _param = 0, _value = 0;
    bool _is_long = false;
    bool _is_whole = false;
    bool _is_within = false;  // a record that goes on in the next line
    bool _has_no_memory = false;
};

}  // namespace

input_t make_csv_input(const names_t& names, const CZone& zone)
{
    return std::make_unique<CCsvInput>(names, zone);
}

}  // namespace trendlog
