#include "selection.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <limits>

#include "numbers.h"
#include "talk.h"

namespace trendlog {

const std::vector<aggregate_name_t> AGGREGATE_NAMES = {
    {"min", &CParamProperties::_has_min, &CSample::_min},
    {"max", &CParamProperties::_has_max, &CSample::_max},
    {"avg", &CParamProperties::_has_avg, &CSample::_avg},
    {"actual", &CParamProperties::_has_actual, &CSample::_actual},
    {"sum", &CParamProperties::_has_sum, &CSample::_sum},
};

// What to read ---------------------------------------------------------------------------------

CDeviceParams select_params(CLogFile& file, const CArguments& arguments)
{
    return select_params(file, file.device(arguments.text("DEVICE")), arguments.words("PARAM"),
                         arguments.list("--agg"));
}

CDeviceParams select_params(CLogFile& file, const CDeviceProperties& device,
                            const std::vector<std::string>& names,
                            const std::vector<std::string>& aggregates)
{
    for (const std::string& name : aggregates) {
        const auto is_it = [&](const aggregate_name_t& each) { return name == each._name; };
        if (std::none_of(AGGREGATE_NAMES.begin(), AGGREGATE_NAMES.end(), is_it))
            throw usage_t("--agg: '" + name + "' is none of min, max, avg, actual, sum");
    }

    CDeviceParams selected;
    selected._device = device;
    const std::vector<CParamProperties> all = file.params(device);
    if (all.empty()) file.fail("device '" + device._path + "' has no parameters");
    if (names.empty()) selected._params = all;
    for (const std::string& name : names) {
        const auto found = std::find_if(all.begin(), all.end(), [&](const CParamProperties& param) {
            return param._path == name;
        });
        if (found == all.end()) {
            std::string known;
            for (const CParamProperties& param : all)
                known += (known.empty() ? "'" : ", '") + param._path + "'";
            file.fail("device '" + device._path + "' has no parameter '" + name + "'; it has " +
                      known);
        }
        selected._params.push_back(*found);
    }

    bool any = false;
    for (CParamProperties& param : selected._params)
        for (const aggregate_name_t& aggregate : AGGREGATE_NAMES) {
            const bool wanted = aggregates.empty() ||
                                std::find(aggregates.begin(), aggregates.end(), aggregate._name) !=
                                    aggregates.end();
            bool& kept = param.*aggregate._kept;
            kept = kept && wanted;
            any = any || kept;
        }
    if (!any) file.fail("none of these parameters keeps what --agg asks for");
    return selected;
}

std::vector<CPeriodProperties> select_periods(CLogFile& file, const CArguments& arguments)
{
    if (arguments.text("--period") == "all") return file.periods();
    std::vector<CPeriodProperties> selected;
    for (const std::string& word : arguments.list("--period")) {
        const unsigned long minutes = parse_period(word);
        size_t before = selected.size();
        for (const CPeriodProperties& period : file.periods())
            if (period._period == minutes) selected.push_back(period);
        if (selected.size() == before)
            file.fail("there is no period of " + duration_text(int64_t(minutes) * 60) +
                      "; `trendlog periods` lists them");
    }
    return selected;
}

timebounds_t stored_bounds(CLogFile& file, const CDeviceProperties& device)
{
    int64_t first = std::numeric_limits<int64_t>::max(), last = -1;
    const std::vector<CPeriodProperties>& periods = file.periods();
    file.read([&] {
        for (const CPeriodProperties& period : periods) {
            const std::string sql = "SELECT min(time), max(time) FROM trends_" +
                                    number_text(device._index) + "_" +
                                    std::to_string(period._period);
            sqlite3_stmt* statement = nullptr;
            int code = sqlite3_prepare_v2(file.handle(), sql.c_str(), -1, &statement, nullptr);
            if (code == SQLITE_OK) code = sqlite3_step(statement);
            if (code == SQLITE_ROW && sqlite3_column_type(statement, 0) != SQLITE_NULL) {
                const auto length = static_cast<int64_t>(period._period) * 60;
                first = std::min(first, int64_t(sqlite3_column_int64(statement, 0)) - length);
                last = std::max(last, int64_t(sqlite3_column_int64(statement, 1)));
            }
            sqlite3_finalize(statement);
            if (code != SQLITE_ROW) file.fail_with_code(code);
        }
        return 0;
    });
    if (last == -1) return {-1, -1};
    return {static_cast<time_t>(std::max<int64_t>(first, 0)), static_cast<time_t>(last)};
}

moments_t select_window(const CArguments& arguments, const CZone& zone, const timebounds_t& stored)
{
    const clock_t clock = {present(), [&] { return int64_t(stored.first); },
                           [&] { return int64_t(stored.second); }};
    moments_t window;
    if (arguments.has("--from")) window._from = parse_time(arguments.text("--from"), zone, clock);
    if (arguments.has("--to")) window._to = parse_time(arguments.text("--to"), zone, clock);
    if (window._from != -1 && window._to != -1 && window._from >= window._to)
        throw usage_t("--from is not before --to");
    return window;
}

timebounds_t bounds_of(const moments_t& window)
{
    constexpr int64_t LATEST = std::numeric_limits<time_t>::max();
    const int64_t first = window._from == -1 ? -1 : window._from + 1;
    return {static_cast<time_t>(std::min(first, LATEST)),
            static_cast<time_t>(std::min(window._to, LATEST))};
}

// Rows as cells --------------------------------------------------------------------------------

void CRowShape::add(CLogFile& file, const CDeviceParams& device)
{
    if (_columns.empty()) {
        if (_with_device) _columns.push_back({"device"});
        _columns.push_back({"start", COLUMN_NUMBER, "", true});
        _columns.push_back({"end", COLUMN_NUMBER, "", true});
        _columns.push_back({"time", COLUMN_TIME});
        _columns.push_back({"period", COLUMN_PERIOD});
        _columns.push_back({"percent_valid", COLUMN_PERCENT, "valid %"});
    }
    std::vector<size_t>& places = _places[device._device._index];
    for (const CParamProperties& param : device._params)
        for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
            if (param.*aggregate._kept)
                places.push_back(column_of(param._path, aggregate,
                                           file.label(device._device._path, param._path)._unit));
    _cells.resize(_columns.size());
}

// Values of a parameter stand together, also where devices keep different ones of it.
size_t CRowShape::column_of(const std::string& param, const aggregate_name_t& aggregate,
                            const std::string& unit)
{
    size_t place = _columns.size();
    for (size_t i = 0; i < _columns.size(); ++i) {
        if (_columns[i]._param != param) continue;
        if (_columns[i]._aggregate == aggregate._name) return i;
        place = i + 1;
    }
    for (auto& [device, places] : _places)
        for (size_t& each : places)
            each += each >= place ? 1 : 0;
    column_t column = {
        param + "." + aggregate._name, COLUMN_NUMBER, "", false, param, aggregate._name};
    column._title = unit.empty() ? param : param + " " + unit;
    _columns.insert(_columns.begin() + static_cast<std::ptrdiff_t>(place), column);
    return place;
}

const cells_t& CRowShape::cells(const CDeviceParams& device, const CInterval& interval)
{
    size_t i = 0;
    if (_with_device) _cells[i++] = cell_t(std::string_view(device._device._path));
    _cells[i++] = int64_t(interval._start);
    _cells[i++] = int64_t(interval._time);
    _cells[i++] = int64_t(interval._time);
    _cells[i++] = static_cast<int64_t>(interval._period);
    _cells[i++] = interval._percent_valid;
    if (_places.size() > 1)
        for (; i < _cells.size(); ++i)
            _cells[i] = cell_t();

    const std::vector<size_t>& places = _places.at(device._device._index);
    size_t n = 0;
    for (size_t p = 0; p < device._params.size(); ++p)
        for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
            if (device._params[p].*aggregate._kept)
                _cells[places[n++]] = interval._samples[p].*aggregate._value;
    return _cells;
}

// Row by row -----------------------------------------------------------------------------------

namespace {

using steady_t = std::chrono::steady_clock;
constexpr std::chrono::milliseconds SLICE(50);
constexpr size_t MOST_HELD = 1 << 20;  // bytes for standard output

// Reads oldest first, or newest first of named periods: each read goes on behind the last time.
class CSlices {
public:
    CSlices(CLogFile& file, const row_source_t& source, CSink& sink, const row_visitor_t& visit)
        : _file(file),
          _source(source),
          _sink(sink),
          _visit(visit),
          _is_limited(!file.is_reading()),
          _request(source._request)
    {
    }

    void read_all()
    {
        while (_more) {
            _ended = false;
            _sink.hold(true);
            _file.read([&] { return read_slice(); });
            _sink.hold(false);
            _sink.added();
            throw_if_interrupted();
            if (!_ended || (_source._newest_first && _last == 0)) return;
            _any = false;
            if (_source._newest_first)
                _request._bounds.second = static_cast<time_t>(_last - 1);
            else
                _request._bounds.first = static_cast<time_t>(_last + 1);
        }
    }

private:
    int read_slice()
    {
        _began = steady_t::now();
        CReader reader(_file.log());
        const auto take = [&](const CDeviceParams& device, const CInterval& row) {
            return visit(device, row);
        };
        if (_source._periods.empty()) return reader.best_rows(_request, take);
        return reader.rows(_request, _source._periods, !_source._newest_first, false, take);
    }

    bool visit(const CDeviceParams& device, const CInterval& row)
    {
        // Rows of several periods may end at one time: no read may end between them.
        if (_any && row._time != _last && is_over()) {
            _ended = true;
            return false;
        }
        // What has been read before may be gone by now, and a coarser row be there instead.
        const bool overlaps = _source._periods.empty() && row._start < _last;
        _any = true;
        if (overlaps) {
            CInterval rest = row;
            rest._start = static_cast<time_t>(_last);
            _last = row._time;
            return _more = _visit(device, rest);
        }
        _last = row._time;
        return _more = _visit(device, row);
    }

    bool is_over()
    {
        constexpr unsigned EVERY = 16;
        if (_sink.size() >= MOST_HELD) return true;
        if (!_is_limited || ++_rows % EVERY != 0) return false;
        return steady_t::now() - _began >= SLICE;
    }

    CLogFile& _file;
    const row_source_t& _source;
    CSink& _sink;
    const row_visitor_t& _visit;
    bool _is_limited;  // in time
    CReadRequest _request;
    steady_t::time_point _began;
    unsigned _rows = 0;
    int64_t _last = std::numeric_limits<int64_t>::min();
    bool _any = false;    // in this read
    bool _ended = false;  // by us: there may be more
    bool _more = true;
};

// Best rows come oldest first. Newest first they are read in stretches, each up to where the one
// before begins, and each a few times as long as the one before while it holds few rows.
void best_rows_backwards(CLogFile& file, const row_source_t& source, CSink& sink,
                         const row_visitor_t& visit)
{
    constexpr size_t MANY = 2000;
    const timebounds_t stored = stored_bounds(file, source._request._device);
    if (stored.second == -1) return;
    const timebounds_t& asked = source._request._bounds;
    const int64_t first = std::max<int64_t>(asked.first, stored.first);
    int64_t last = asked.second == -1 ? stored.second : std::min(asked.second, stored.second);
    int64_t length = static_cast<int64_t>(file.periods().front()._period) * 60 * 500;
    bool more = true;
    while (more && last >= first) {
        const int64_t begin = std::max(first, last - length);
        CReadRequest request = source._request;
        request._bounds = {static_cast<time_t>(begin), static_cast<time_t>(last)};
        std::vector<CInterval> rows;
        CDeviceParams device;
        file.read([&] {
            return CReader(file.log())
                .best_rows(request, [&](const CDeviceParams& of, const CInterval& row) {
                    if (rows.empty()) device = of;
                    rows.push_back(row);
                    return true;
                });
        });
        for (size_t i = rows.size(); i > 0 && more; --i)
            more = visit(device, rows[i - 1]);
        sink.added();
        throw_if_interrupted();
        last = rows.empty() ? begin - 1 : std::min<int64_t>(begin - 1, rows.front()._start);
        if (rows.size() < MANY) length *= 4;
    }
}

}  // namespace

void for_each_row(CLogFile& file, const row_source_t& source, CSink& sink,
                  const row_visitor_t& visit)
{
    if (source._newest_first && source._periods.empty())
        best_rows_backwards(file, source, sink, visit);
    else
        CSlices(file, source, sink, visit).read_all();
}

}  // namespace trendlog
