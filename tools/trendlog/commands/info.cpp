#include <unistd.h>

#include <cmath>

#include "commands/commands.h"
#include "disk.h"
#include "numbers.h"
#include "selection.h"
#include "talk.h"

namespace trendlog {

namespace {

constexpr int64_t WAL_PAGES = 4000;  // more than checkpoints leave

struct device_info_t {
    CDeviceParams _device;
    std::vector<CCoverage> _tables;
    bool _has_newest = false;
    CInterval _newest;
    CDeviceParams _newest_of;
};

struct file_info_t {
    int64_t _bytes = 0;
    int64_t _wal_bytes = -1;  // -1 where there is none
    int64_t _schema = 0;
    int64_t _page_size = 0;
    int64_t _pages = 0;
    int64_t _free_pages = 0;
    std::string _journal_mode;
    std::vector<device_info_t> _devices;
    std::vector<std::string> _warnings;
};

// What a check would find without reading the rows.
void collect_warnings(CLogFile& file, file_info_t& info, const CZone& zone)
{
    std::vector<std::string>& warnings = info._warnings;
    const std::vector<CPeriodProperties>& periods = file.periods();
    if (periods.empty()) warnings.push_back("no periods: nothing can be recorded");
    for (size_t i = 1; i < periods.size(); ++i) {
        const unsigned long finer = periods[i - 1]._period, coarser = periods[i]._period;
        const std::string names = duration_text(static_cast<int64_t>(coarser) * 60) + " and " +
                                  duration_text(static_cast<int64_t>(finer) * 60);
        if (coarser % finer != 0)
            warnings.push_back("periods " + names +
                               ": the one is no multiple of the other, "
                               "recording fails");
        else if (periods[i - 1]._max_entries < 2 * (coarser / finer))
            warnings.push_back("periods " + names +
                               ": the finer one keeps fewer rows than two of "
                               "the coarser one are made of");
    }
    if (info._free_pages >= 16 && info._free_pages >= info._pages / 4)
        warnings.push_back(counted(static_cast<uint64_t>(info._free_pages), "page") + " of " +
                           number_text(info._pages) +
                           " are free; `trendlog vacuum` gives them back");
    if (info._wal_bytes > WAL_PAGES * info._page_size)
        warnings.push_back("the write-ahead log has " + size_text(info._wal_bytes) +
                           ": something keeps it from being emptied");
    for (const device_info_t& device : info._devices)
        for (const CCoverage& table : device._tables)
            if (table._last > present())
                warnings.push_back(device._device._device._path + ": rows of " +
                                   duration_text(static_cast<int64_t>(table._period._period) * 60) +
                                   " end in the future, at " + zone.text(table._last));
}

file_info_t collect(CLogFile& file, const CZone& zone)
{
    file_info_t info;
    info._bytes = file_size(file.name());
    info._wal_bytes = file_size(file.name() + "-wal");
    info._schema = file.pragma("user_version");
    info._page_size = file.pragma("page_size");
    info._pages = file.pragma("page_count");
    info._free_pages = file.pragma("freelist_count");
    info._journal_mode = file.pragma_text("journal_mode");
    for (const CDeviceProperties& device : file.devices()) {
        device_info_t one;
        one._device._device = device;
        one._device._params = file.params(device);
        if (!one._device._params.empty() && !file.periods().empty()) {
            CReadRequest request;
            request._device = device;
            file.read([&] { return CReader(file.log()).coverage(request, one._tables); });
        }
        info._devices.push_back(one);
    }
    file.read([&] {
        return CReader(file.log()).latest([&](const CDeviceParams& of, const CInterval& row) {
            for (device_info_t& device : info._devices)
                if (device._device._device._index == of._device._index) {
                    device._newest_of = of;
                    device._newest = row;
                    device._has_newest = true;
                }
            return true;
        });
    });
    collect_warnings(file, info, zone);
    return info;
}

// For people -----------------------------------------------------------------------------------

std::string bar(double percent)
{
    constexpr int WIDTH = 10;
    const bool blocks = has_utf8();
    std::string text;
    const double full = percent / 100 * WIDTH;
    for (int i = 0; i < WIDTH; ++i) {
        if (full >= i + 1 - 1e-9)
            text += blocks ? "█" : "#";
        else if (full > i)
            text += blocks ? "▌" : "+";
        else
            text += blocks ? "░" : ".";
    }
    return text;
}

std::string percent_text(double percent)
{
    if (percent > 99.9 && percent < 100) percent = 99.9;
    char text[NUMBER_SIZE];
    return std::string(
               text,
               std::to_chars(text, text + sizeof text, percent, std::chars_format::fixed, 1).ptr) +
           " %";
}

std::string values_text(const CParamProperties& param, const CSample& sample)
{
    std::string text;
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES) {
        if (!(param.*aggregate._kept)) continue;
        const COptVal value = sample.*aggregate._value;
        text += (text.empty() ? "" : "  ") + std::string(aggregate._name) + " " +
                (value ? short_number(*value) : "-");
    }
    return text;
}

void write_device(CLogFile& file, const device_info_t& info, const CZone& zone, CSink& sink)
{
    const CDeviceProperties& device = info._device._device;
    const CLabel& label = file.label(device._path);
    sink.add("\n" + device._path + (label._label.empty() ? "" : "  " + label._label) + "\n");
    if (info._device._params.empty()) sink.add("  no parameters\n");
    for (const CCoverage& table : info._tables) {
        std::string line =
            "  " + padded(duration_text(static_cast<int64_t>(table._period._period) * 60), 4);
        if (table._first == -1) {
            sink.add(line + "  no rows\n");
            continue;
        }
        line += "  " + zone.short_text(table._first) + " to " + zone.short_text(table._last);
        line += "  " + padded(number_text(table._rows), 7, true);
        line += table._rows == 1 ? " row   " : " rows  ";
        line +=
            bar(table._percent_valid) + " " + padded(percent_text(table._percent_valid), 7, true);
        sink.add(line + "\n");
    }
    if (!info._has_newest) return;
    sink.add("  newest, " + duration_text(static_cast<int64_t>(info._newest._period) * 60) +
             " up to " + zone.text(info._newest._time) + ", " +
             percent_text(info._newest._percent_valid) + " valid:\n");
    size_t width = 0;
    for (const CParamProperties& param : info._newest_of._params)
        width = std::max(width, shown_width(param._path));
    for (size_t i = 0; i < info._newest_of._params.size(); ++i) {
        const CParamProperties& param = info._newest_of._params[i];
        const CLabel& unit = file.label(device._path, param._path);
        sink.add("    " + padded(param._path, width) + "  " +
                 values_text(param, info._newest._samples[i]) +
                 (unit._unit.empty() ? "" : "  " + unit._unit) +
                 (unit._label.empty() ? "" : "  (" + unit._label + ")") + "\n");
    }
}

void write_text(CLogFile& file, const file_info_t& info, const CZone& zone, CSink& sink)
{
    sink.add(file.name() + ": trend log, schema " + number_text(info._schema) + "\n");
    sink.add("  " + size_text(info._bytes) + ", " +
             counted(static_cast<uint64_t>(info._pages), "page") + " of " +
             number_text(info._page_size) + " bytes, " + number_text(info._free_pages) + " free; " +
             (info._journal_mode == "wal"
                  ? "write-ahead log of " + size_text(std::max<int64_t>(0, info._wal_bytes))
                  : "no write-ahead log") +
             "\n");
    std::string periods;
    for (const CPeriodProperties& period : file.periods()) {
        const auto seconds = static_cast<int64_t>(period._period) * 60;
        periods += (periods.empty() ? "" : ", ") + duration_text(seconds) + " for " +
                   duration_text(seconds * static_cast<int64_t>(period._max_entries)) + " (" +
                   std::to_string(period._max_entries) + ")";
    }
    sink.add("  keeps " + (periods.empty() ? "nothing" : periods) + "\n");
    for (const device_info_t& device : info._devices)
        write_device(file, device, zone, sink);
    const bool colour = wants_colour(STDOUT_FILENO);
    if (!info._warnings.empty()) sink.add("\n");
    for (const std::string& warning : info._warnings)
        sink.add((colour ? "\033[1;33mwarning\033[0m: " : "warning: ") + warning + "\n");
}

// For programs ---------------------------------------------------------------------------------

// An object or a list, member by member.
class CJson {
public:
    explicit CJson(std::string& text) : _text(text) {}

    CJson& open(char bracket, std::string_view name = {})
    {
        between(name);
        _text += bracket;
        _first = true;
        return *this;
    }
    void close(char bracket)
    {
        _text += bracket;
        _first = false;
    }
    void add(std::string_view name, int64_t value)
    {
        between(name);
        append_number(_text, value);
    }
    void add(std::string_view name, const COptVal& value)
    {
        between(name);
        if (value)
            append_json(_text, *value);
        else
            _text += "null";
    }
    void add(std::string_view name, const std::string& value)
    {
        between(name);
        append_json(_text, std::string_view(value));
    }
    void add_null(std::string_view name)
    {
        between(name);
        _text += "null";
    }

private:
    void between(std::string_view name)
    {
        if (!_first) _text += ", ";
        _first = false;
        if (name.empty()) return;
        append_json(_text, name);
        _text += ": ";
    }

    std::string& _text;
    bool _first = true;
};

void add_time(CJson& json, const char* name, time_t time)
{
    if (time == -1)
        json.add_null(name);
    else
        json.add(name, int64_t(time));
}

void write_device_json(CLogFile& file, const device_info_t& info, const CZone& zone, CJson& json)
{
    const std::string& path = info._device._device._path;
    json.open('{');
    json.add("device", path);
    json.add("label", file.label(path)._label);
    json.open('[', "tables");
    for (const CCoverage& table : info._tables) {
        json.open('{');
        json.add("period", static_cast<int64_t>(table._period._period));
        json.add("rows", table._rows);
        json.add("blank_rows", table._blank_rows);
        json.add("holes", table._holes);
        add_time(json, "start", table._start);
        add_time(json, "first", table._first);
        add_time(json, "last", table._last);
        json.add("percent_valid", COptVal(table._percent_valid));
        json.close('}');
    }
    json.close(']');
    if (info._has_newest) {
        json.open('{', "newest");
        json.add("start", int64_t(info._newest._start));
        json.add("end", int64_t(info._newest._time));
        json.add("time", zone.text(info._newest._time));
        json.add("period", static_cast<int64_t>(info._newest._period));
        json.add("percent_valid", COptVal(info._newest._percent_valid));
        json.open('{', "values");
        for (size_t i = 0; i < info._newest_of._params.size(); ++i) {
            const CParamProperties& param = info._newest_of._params[i];
            json.open('{', param._path);
            for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
                if (param.*aggregate._kept)
                    json.add(aggregate._name, info._newest._samples[i].*aggregate._value);
            json.close('}');
        }
        json.close('}');
        json.close('}');
    }
    json.close('}');
}

void write_json(CLogFile& file, const file_info_t& info, const CZone& zone, CSink& sink)
{
    CJson json(sink.text());
    json.open('{');
    json.add("file", file.name());
    json.add("schema", info._schema);
    json.add("bytes", info._bytes);
    json.add("page_size", info._page_size);
    json.add("pages", info._pages);
    json.add("free_pages", info._free_pages);
    json.add("journal_mode", info._journal_mode);
    json.add("wal_bytes", std::max<int64_t>(0, info._wal_bytes));
    json.open('[', "periods");
    for (const CPeriodProperties& period : file.periods()) {
        json.open('{');
        json.add("period", static_cast<int64_t>(period._period));
        json.add("keep_rows", static_cast<int64_t>(period._max_entries));
        json.close('}');
    }
    json.close(']');
    json.open('[', "devices");
    for (const device_info_t& device : info._devices)
        write_device_json(file, device, zone, json);
    json.close(']');
    json.open('[', "warnings");
    for (const std::string& warning : info._warnings)
        json.add("", warning);
    json.close(']');
    json.close('}');
    sink.add("\n");
}

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);
    const file_info_t info = collect(file, zone);
    CSink sink;
    if (arguments.text("--format") == "json" || arguments.has("--json"))
        write_json(file, info, zone, sink);
    else
        write_text(file, info, zone, sink);
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t info_command()
{
    return {
        "info",
        SECTION_LOOK,
        "Say what the file is, at a glance",
        "Its size, periods and devices; of each table the first and the last row, how many there "
        "are and how much of the time is valid; the newest values; and a warning for what can be "
        "seen to be wrong without reading all of it (`trendlog check` does).",
        {{"FILE", "the log"}},
        options_t{{"--format", "FORMAT", "table (unless said else) or json", {"table", "json"}},
                  {"--json", "", "the same as --format json"},
                  output_options()[1]} +
            common_options(),
        {{"trendlog info plant.db", "What there is"},
         {"trendlog info plant.db --json", "The same for a program"}},
        run};
}

}  // namespace trendlog
