#include "model.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <utility>

namespace model {

namespace {

// Thrown when a call fails, with the code that it returns.
struct failure_t {
    int code;
};

constexpr char ADD_PERIOD[] =
    "int toolkit::trend::CLog::add_period(const toolkit::trend::CPeriodProperties&)";
constexpr char MODIFY_PERIOD[] =
    "int toolkit::trend::CLog::modify_period(const toolkit::trend::CPeriodProperties&)";
constexpr char REMOVE_PERIOD[] =
    "int toolkit::trend::CLog::remove_period(const toolkit::trend::CPeriodProperties&)";
constexpr char ADD_DEVICE[] =
    "int toolkit::trend::CLog::add_device(toolkit::trend::CDeviceProperties&)";
constexpr char MODIFY_DEVICE[] =
    "int toolkit::trend::CLog::modify_device(const toolkit::trend::CDeviceProperties&)";
constexpr char REMOVE_DEVICE[] =
    "int toolkit::trend::CLog::remove_device(const toolkit::trend::CDeviceProperties&)";
constexpr char ADD_PARAMS[] =
    "int toolkit::trend::CLog::add_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";
constexpr char ADD_PARAM[] =
    "int toolkit::trend::CLog::add_param(const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, toolkit::trend::CParamProperties&)";
constexpr char MODIFY_PARAMS[] =
    "int toolkit::trend::CLog::modify_params(const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&)";
constexpr char REMOVE_PARAMS[] =
    "int toolkit::trend::CLog::remove_params(const toolkit::trend::CDeviceProperties&, "
    "const std::vector<toolkit::trend::CParamProperties>&)";
constexpr char GET_PERIODS[] =
    "int toolkit::trend::CLog::get_periods(std::vector<toolkit::trend::CPeriodProperties>&)";
constexpr char GET_DEVICES[] =
    "int toolkit::trend::CLog::get_devices(std::vector<toolkit::trend::CDeviceProperties>&)";
constexpr char GET_PARAMS[] =
    "int toolkit::trend::CLog::get_params(const toolkit::trend::CDeviceProperties&, "
    "std::vector<toolkit::trend::CParamProperties>&)";
constexpr char ADD_TREND_DATA[] =
    "int toolkit::trend::CLog::add_trend_data(const toolkit::trend::CDeviceParams&, "
    "const toolkit::trend::CSnapshot&)";
constexpr char GET_LATEST_TIMESTAMP[] =
    "int toolkit::trend::CLog::get_latest_timestamp(const toolkit::trend::CDeviceProperties&, "
    "time_t&)";
constexpr char FILL_BLANK_VALUES[] =
    "int toolkit::trend::CLog::fill_blank_values(const toolkit::trend::CDeviceProperties&, "
    "time_t, bool)";
constexpr char GET_TREND_DATA[] =
    "int toolkit::trend::CLog::get_trend_data(toolkit::trend::CDeviceData&, "
    "const toolkit::trend::CDeviceParams&, "
    "const std::vector<toolkit::trend::CPeriodProperties>&, const timebounds_t&, size_t, size_t, "
    "bool, bool)";
constexpr char CLEAR_TREND_DATA[] =
    "int toolkit::trend::CLog::clear_trend_data(const toolkit::trend::CDeviceProperties&, "
    "const timebounds_t&)";
constexpr char NEXT_INTERVAL_BOUNDARY[] =
    "static time_t toolkit::trend::CLog::next_interval_boundary(long unsigned int, time_t)";
constexpr char CALC_PERIOD_RATIOS[] =
    "static int toolkit::trend::CLog::calc_period_ratios("
    "const std::vector<toolkit::trend::CPeriodProperties>&, std::vector<long unsigned int>&)";
constexpr char VACUUM[] = "int toolkit::trend::CLog::vacuum()";
constexpr char CHECKPOINT[] = "int toolkit::trend::CLog::checkpoint()";
constexpr char OPEN[] =
    "int toolkit::trend::CLog::open(const tk_string&, bool, bool, size_t, bool, size_t, size_t, "
    "size_t, bool)";
constexpr char DATABASE_OPEN[] =
    "int toolkit::trend::CDatabase::open(const tk_string&, size_t, bool, bool, bool, size_t, "
    "size_t, size_t, bool)";
constexpr char PREPARE[] = "int toolkit::trend::CStatement::prepare(const tk_string&)";
constexpr char STEP[] = "int toolkit::trend::CStatement::step()";
constexpr char RESET[] = "int toolkit::trend::CStatement::reset()";

constexpr char INVALID_PARAM_ID[] = "invalid param id";

constexpr uint64_t LARGEST_32 = 0xffffffff;
constexpr int64_t SPARE_INTERVALS = 10;

// What a file gives back of a number stored in it: SQLite keeps whole numbers of a REAL column as
// integers, which have no negative zero.
double kept(double value) { return value == 0 ? 0.0 : value; }

// Rolling up -----------------------------------------------------------------------------------

// A power factor on the scale that runs through unity: 0 to 1 as it is, -1 to 0 as 1 to 2.
double wrap(double factor)
{
    const double inside = factor > 1 ? 1.0 : factor >= -1 ? factor : -1.0;
    return inside < 0 ? inside + 2 : inside;
}

double unwrap(double wrapped) { return wrapped > 1 ? wrapped - 2 : wrapped; }

double weight(double percent) { return percent > 100 ? 100.0 : percent >= 0 ? percent : 0.0; }

// A column of a group of rows, with the weight of each.
struct series_t {
    std::vector<double> values;
    std::vector<double> percents;
};

// The row that has the group's best value, the earliest of several; the last row when none has a
// value.
size_t best_row(const series_t& series, aggregate_t aggregate)
{
    size_t best = series.values.size() - 1;
    bool found = false;
    for (size_t i = 0; i < series.values.size(); ++i) {
        const double value = series.values[i];
        if (std::isnan(value)) continue;
        if (!found ||
            (aggregate == MIN ? value < series.values[best] : value > series.values[best]))
            best = i;
        found = true;
    }
    return best;
}

double extreme(const series_t& series, aggregate_t aggregate, bool power_factor)
{
    if (!power_factor) return series.values[best_row(series, aggregate)];

    series_t wrapped = series;
    for (double& value : wrapped.values)
        if (!std::isnan(value)) value = wrap(value);
    return unwrap(wrapped.values[best_row(wrapped, aggregate)]);
}

// Each product is added with one rounding, in the order of the rows.
double weighted_average(const series_t& series, bool power_factor)
{
    double total = 0;
    double weights = 0;
    for (size_t i = 0; i < series.values.size(); ++i) {
        const double w = weight(series.percents[i]);
        if (std::isnan(series.values[i]) || w == 0) continue;
        total = std::fma(power_factor ? wrap(series.values[i]) : series.values[i], w, total);
        weights += w;
    }
    if (weights == 0) return ABSENT;
    return power_factor ? unwrap(total / weights) : total / weights;
}

// One addition after the other. SQLite has carried the rounding error along since 3.43, which this
// does not follow.
double sum(const std::vector<double>& values)
{
    double total = 0;
    bool found = false;
    for (const double value : values) {
        if (std::isnan(value)) continue;
        total += value;
        found = true;
    }
    return found ? total : ABSENT;
}

// The coarse row of rows begin to end of the fine table.
std::vector<double> coarse_row(const table_t& fine, size_t begin, size_t end,
                               const std::vector<param_t>& params)
{
    std::vector<double> percents;
    for (size_t i = begin; i < end; ++i)
        percents.push_back(fine.row(i)[0]);

    const auto series_of = [&](const std::string& name) {
        series_t series;
        series.percents = percents;
        for (size_t i = begin; i < end; ++i)
            series.values.push_back(fine.row(i)[1 + *fine.column(name)]);
        return series;
    };

    // Actual values come from the row that decided the last minimum or maximum of an ordinary
    // parameter; without one from the newest row.
    size_t decisive = end - begin - 1;
    for (const param_t& param : params)
        for (const aggregate_t aggregate : {MIN, MAX})
            if (param.type == VALUE && param.keeps[aggregate]) {
                param_t only = param;
                only.keeps = {};
                only.keeps[aggregate] = true;
                decisive = best_row(series_of(column_names(only)[0]), aggregate);
            }

    std::vector<double> row = {sum(percents) / static_cast<double>(percents.size())};
    for (const param_t& param : params) {
        const std::vector<std::string> names = column_names(param);
        size_t name = 0;
        for (size_t aggregate = 0; aggregate < AGGREGATES; ++aggregate) {
            if (!param.keeps[aggregate]) continue;
            const series_t series = series_of(names[name++]);
            const bool power_factor = param.type == POWER_FACTOR;
            switch (aggregate) {
                case MIN:
                    row.push_back(extreme(series, MIN, power_factor));
                    break;
                case MAX:
                    row.push_back(extreme(series, MAX, power_factor));
                    break;
                case AVG:
                    row.push_back(weighted_average(series, power_factor));
                    break;
                case ACTUAL:
                    row.push_back(series.values[decisive]);
                    break;
                default:
                    row.push_back(sum(series.values));
            }
        }
    }
    return row;
}

}  // namespace

// Tables ---------------------------------------------------------------------------------------

std::vector<std::string> column_names(const param_t& param)
{
    static const char* const SUFFIXES[AGGREGATES] = {"min", "max", "avg", "actual", "sum"};
    std::vector<std::string> names;
    for (size_t i = 0; i < AGGREGATES; ++i)
        if (param.keeps[i])
            names.push_back("param_" + std::to_string(param.index) + "_" + SUFFIXES[i]);
    return names;
}

std::string trend_table_name(int64_t device, uint64_t minutes)
{
    return "trends_" + std::to_string(device) + "_" + std::to_string(minutes);
}

std::string param_table_name(int64_t device) { return "params_" + std::to_string(device); }

bool same(double a, double b)
{
    return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

size_t table_t::after(int64_t time) const
{
    return static_cast<size_t>(std::upper_bound(times.begin(), times.end(), time) - times.begin());
}

bool table_t::has(int64_t time) const
{
    return std::binary_search(times.begin(), times.end(), time);
}

std::optional<size_t> table_t::column(const std::string& name) const
{
    const auto found = std::find(columns.begin(), columns.end(), name);
    if (found == columns.end()) return std::nullopt;
    return static_cast<size_t>(found - columns.begin());
}

void table_t::insert(int64_t time, const std::vector<double>& row)
{
    const auto place = static_cast<std::ptrdiff_t>(after(time));
    times.insert(times.begin() + place, time);
    const auto cell = cells.insert(cells.begin() + place * static_cast<std::ptrdiff_t>(width()),
                                   row.begin(), row.end());
    std::transform(cell, cell + static_cast<std::ptrdiff_t>(row.size()), cell, kept);
}

void table_t::erase(size_t begin, size_t end)
{
    const auto first = static_cast<std::ptrdiff_t>(begin);
    const auto last = static_cast<std::ptrdiff_t>(end);
    const auto wide = static_cast<std::ptrdiff_t>(width());
    times.erase(times.begin() + first, times.begin() + last);
    cells.erase(cells.begin() + first * wide, cells.begin() + last * wide);
}

// Failing --------------------------------------------------------------------------------------

// A failed call outside a host's transaction leaves nothing behind. Inside one it leaves what it
// had done so far: only the outermost level can give work up.
template <typename Work>
int log_t::attempt(Work work)
{
    state_t before;
    if (_level == 0) before = _now;
    try {
        work();
        return 0;
    } catch (const failure_t& failure) {
        if (_level == 0) _now = std::move(before);
        return failure.code;
    }
}

void log_t::refuse(const char* signature, const char* why)
{
    say(std::string(signature) + ": Error: " + why);
    throw failure_t{-1};
}

void log_t::fail_to_prepare(const std::string& why)
{
    say(std::string(PREPARE) + ": sqlite3_prepare(): 1 (" + why);
    throw failure_t{-1};
}

// The statement's reset repeats the failure, after the comment of the operation if it has one.
reports_t log_t::step_reports(int code, const std::string& why, const std::string& comment)
{
    const std::string what = std::to_string(code) + " (" + why;
    reports_t lines = {std::string(STEP) + ": sqlite3_step(): " + what};
    if (!comment.empty()) lines.push_back(comment);
    lines.push_back(std::string(RESET) + ": sqlite3_reset(): " + what);
    return lines;
}

void log_t::fail_to_step(int code, const std::string& why, const std::string& comment)
{
    for (const std::string& line : step_reports(code, why, comment))
        say(line);
    throw failure_t{-1};
}

void log_t::want_open(const char* signature)
{
    if (!_open) refuse(signature, "DB not open");
}

void log_t::want_period(const char* signature, const period_t& period)
{
    want_open(signature);
    if (period.minutes == 0 || period.minutes > LARGEST_32) refuse(signature, "invalid period");
    if (period.rows == 0 || period.rows > LARGEST_32) refuse(signature, "invalid max_entries");
}

void log_t::want_device(const char* signature, const device_t& device)
{
    want_open(signature);
    if (device.path.empty()) refuse(signature, "empty device path");
    if (device.index < 0) refuse(signature, "invalid device id");
}

void log_t::want_write()
{
    if (_read_only) fail_to_step(8, "attempt to write a readonly database)");
}

// What is stored ---------------------------------------------------------------------------------

const store_t* log_t::find(const device_t& device) const
{
    const auto found = _now.devices.find(device.index);
    return found == _now.devices.end() ? nullptr : found->second.get();
}

// The device, or the failure of a statement over its table when there is none.
const store_t& log_t::stored(const device_t& device, const char* table)
{
    const store_t* store = find(device);
    if (store == nullptr) fail_to_prepare("no such table: " + std::string(table) + "*");
    return *store;
}

store_t& log_t::change(int64_t device)
{
    std::shared_ptr<const store_t>& store = _now.devices.at(device);
    if (store.use_count() > 1) store = std::make_shared<store_t>(*store);
    return const_cast<store_t&>(*store);  // made above or in add_device(), where it is not const
}

table_t& log_t::change(int64_t device, uint64_t minutes)
{
    return change(device).tables.at(minutes);
}

std::vector<period_t> log_t::periods_now() const
{
    std::vector<period_t> periods;
    for (const auto& [minutes, rows] : _now.periods)
        periods.push_back({minutes, rows});
    return periods;
}

std::vector<param_t> log_t::params_now(const char* signature, const device_t& device)
{
    want_device(signature, device);
    if (find(device) == nullptr) or_else(-1, step_reports(1, "no such table: params_*"));
    std::vector<param_t> params;
    for (const auto& [index, param] : stored(device, "params_").params)
        params.push_back(param);
    return params;
}

// Lifecycle --------------------------------------------------------------------------------------

int log_t::open(const std::string& name, bool read_only, bool create, uint64_t capacity)
{
    close();
    return attempt([&] {
        if (name.empty()) {
            say(std::string(DATABASE_OPEN) + ": empty DB name");
            throw failure_t{-1};
        }
        if (capacity == 0) refuse(OPEN, "invalid pool capacity");
        if (!_exists && (read_only || !create)) {
            say(std::string(DATABASE_OPEN) + ": can't open DB '" + name + "'");
            throw failure_t{14};
        }
        _exists = true;
        _open = true;
        _read_only = read_only;
    });
}

void log_t::close()
{
    if (_level > 0) _now = _before;
    _level = 0;
    _open = false;
    _read_only = false;
}

int log_t::begin()
{
    if (_level++ == 0) _before = _now;
    return 0;
}

int log_t::commit()
{
    --_level;
    return 0;
}

void log_t::roll_back()
{
    if (--_level == 0) _now = _before;
}

int log_t::vacuum()
{
    return attempt([&] {
        want_open(VACUUM);
        if (_level > 0) fail_to_step(1, "cannot VACUUM from within a transaction)");
        want_write();
    });
}

int log_t::checkpoint()
{
    return attempt([&] { want_open(CHECKPOINT); });
}

// Listing ----------------------------------------------------------------------------------------

int log_t::list_periods(std::vector<period_t>& periods)
{
    return attempt([&] {
        want_open(GET_PERIODS);
        periods = periods_now();
    });
}

int log_t::list_devices(std::vector<device_t>& devices)
{
    return attempt([&] {
        want_open(GET_DEVICES);
        devices.clear();
        for (const auto& [index, store] : _now.devices)
            devices.push_back({store->path, store->guid, index});
    });
}

int log_t::list_params(const device_t& device, std::vector<param_t>& params)
{
    return attempt([&] {
        // The listing takes a step that fails for the end of the list.
        want_device(GET_PARAMS, device);
        if (find(device) == nullptr) or_else(0, step_reports(1, "no such table: params_*"));
        params = params_now(GET_PARAMS, device);
    });
}

// Periods ----------------------------------------------------------------------------------------

int log_t::add_period(const period_t& period)
{
    return attempt([&] {
        want_period(ADD_PERIOD, period);
        want_write();
        if (_now.periods.count(period.minutes) != 0)
            fail_to_step(1555, "UNIQUE constraint failed: periods.period)");
        _now.periods[period.minutes] = period.rows;

        std::vector<int64_t> devices;
        for (const auto& [index, store] : _now.devices)
            devices.push_back(index);
        for (const int64_t index : devices) {
            store_t& store = change(index);
            table_t& table = store.tables[period.minutes];
            for (const auto& [id, param] : store.params)
                for (const std::string& name : column_names(param))
                    table.columns.push_back(name);
        }
    });
}

int log_t::modify_period(const period_t& period)
{
    return attempt([&] {
        want_period(MODIFY_PERIOD, period);
        want_write();
        const auto found = _now.periods.find(period.minutes);
        if (found != _now.periods.end()) found->second = period.rows;

        std::vector<int64_t> devices;
        for (const auto& [index, store] : _now.devices)
            devices.push_back(index);
        for (const int64_t index : devices) {
            if (found == _now.periods.end()) {
                const std::string why =
                    "no such table: " + trend_table_name(index, period.minutes) + ")";
                or_else(-1, step_reports(1, why));
                fail_to_prepare(why);
            }
            trim(index, period, false);
        }
    });
}

int log_t::remove_period(const period_t& period)
{
    return attempt([&] {
        want_period(REMOVE_PERIOD, period);
        want_write();
        const bool known = _now.periods.erase(period.minutes) != 0;

        std::vector<int64_t> devices;
        for (const auto& [index, store] : _now.devices)
            devices.push_back(index);
        for (const int64_t index : devices) {
            if (!known)
                fail_to_prepare("no such table: " + trend_table_name(index, period.minutes) + ")");
            change(index).tables.erase(period.minutes);
        }
    });
}

// The end of the interval that holds `now`, which is never `now` itself.
int64_t log_t::next_boundary(uint64_t minutes, int64_t now)
{
    if (minutes == 0) {
        say(std::string(NEXT_INTERVAL_BOUNDARY) + ": Error: invalid period");
        return -1;
    }
    const auto length = static_cast<int64_t>(minutes * 60);
    return now - now % length + length;
}

int64_t log_t::previous_boundary(uint64_t minutes, int64_t now)
{
    const int64_t next = next_boundary(minutes, now);
    return next == -1 ? -1 : next - static_cast<int64_t>(minutes * 60);
}

int log_t::ratios(const std::vector<period_t>& periods, std::vector<uint64_t>& ratios)
{
    return attempt([&] {
        ratios.resize(periods.size());
        for (size_t i = 0; i + 1 < periods.size(); ++i) {
            ratios[i] = periods[i + 1].minutes / periods[i].minutes;
            if (ratios[i] < 2) refuse(CALC_PERIOD_RATIOS, "period ratio too low");
            if (periods[i + 1].minutes % periods[i].minutes != 0)
                refuse(CALC_PERIOD_RATIOS, "oddball period ratio");
        }
    });
}

std::vector<uint64_t> log_t::ratios_of(const std::vector<period_t>& periods)
{
    std::vector<uint64_t> result;
    if (const int code = ratios(periods, result)) throw failure_t{code};
    return result;
}

// Devices ----------------------------------------------------------------------------------------

namespace {

// Which of the two texts that must be unique another device has, as the failure names it.
std::string taken_text(const state_t& state, const device_t& device)
{
    bool path = false;
    bool guid = false;
    for (const auto& [index, store] : state.devices) {
        if (index == device.index) continue;
        path = path || store->path == device.path;
        guid = guid || (!device.guid.empty() && store->guid == device.guid);
    }
    return path && guid ? "*" : path ? "path)" : guid ? "guid)" : "";
}

}  // namespace

int log_t::add_device(device_t& device)
{
    return attempt([&] {
        want_open(ADD_DEVICE);
        if (device.path.empty()) refuse(ADD_DEVICE, "empty device path");
        want_write();
        const std::string taken = taken_text(_now, {device.path, device.guid, NONE});
        if (!taken.empty()) fail_to_step(2067, "UNIQUE constraint failed: devices." + taken);

        device.index = _now.devices.empty() ? 1 : _now.devices.rbegin()->first + 1;
        store_t store;
        store.path = device.path;
        store.guid = device.guid;
        for (const auto& [minutes, rows] : _now.periods)
            store.tables[minutes];
        _now.devices[device.index] = std::make_shared<store_t>(std::move(store));
    });
}

int log_t::modify_device(const device_t& device)
{
    return attempt([&] {
        want_device(MODIFY_DEVICE, device);
        want_write();
        if (_now.devices.count(device.index) == 0) return;
        const std::string taken = taken_text(_now, device);
        if (!taken.empty()) fail_to_step(2067, "UNIQUE constraint failed: devices." + taken);
        store_t& store = change(device.index);
        store.path = device.path;
        store.guid = device.guid;
    });
}

int log_t::remove_device(const device_t& device)
{
    return attempt([&] {
        want_device(REMOVE_DEVICE, device);
        want_write();
        if (_now.devices.erase(device.index) == 0)
            fail_to_prepare("no such table: " + param_table_name(device.index) + ")");
    });
}

// Parameters -------------------------------------------------------------------------------------

int log_t::add_params(const device_t& device, std::vector<param_t>& params)
{
    return attempt([&] {
        want_device(ADD_PARAMS, device);
        if (params.empty()) refuse(ADD_PARAMS, "empty param list");
        for (param_t& param : params)
            add_param(device, param);
    });
}

void log_t::add_param(const device_t& device, param_t& param)
{
    const char* wrong =
        param.path.empty()                                  ? "empty parameter path"
        : param.type != VALUE && param.type != POWER_FACTOR ? "unsupported parameter type"
        : param.keeps == decltype(param.keeps){}
            ? "at least one of min/max/avg/actual/sum must be 'true' to add a parameter"
            : nullptr;
    if (find(device) == nullptr)
        or_else(-1, wrong != nullptr ? reports_t{std::string(ADD_PARAM) + ": Error: " + wrong}
                                     : step_reports(1, "no such table: params_*"));
    const store_t& store = stored(device, "params_");
    if (wrong != nullptr) refuse(ADD_PARAM, wrong);
    want_write();
    for (const auto& [index, other] : store.params)
        if (other.path == param.path)
            fail_to_step(2067,
                         "UNIQUE constraint failed: " + param_table_name(device.index) + ".path)");

    param.index = store.params.empty() ? 1 : store.params.rbegin()->first + 1;
    store_t& changed = change(device.index);
    changed.params[param.index] = param;
    for (auto& [minutes, table] : changed.tables) {
        for (const std::string& name : column_names(param)) {
            if (table.column(name)) fail_to_prepare("duplicate column name: " + name + ")");

            // The column goes to the right of every row and is empty there.
            std::vector<double> cells;
            for (size_t i = 0; i < table.size(); ++i) {
                cells.insert(cells.end(), table.row(i), table.row(i) + table.width());
                cells.push_back(ABSENT);
            }
            table.cells = std::move(cells);
            table.columns.push_back(name);
        }
    }
}

// The two refusals that look at the list as a whole: no parameter may lose its path, or be replaced
// for good by one that takes its path. They are for lists that could be stored entry by entry;
// another list is refused where its loop stops.
void log_t::want_modifiable(const char* signature, const store_t& store,
                            const std::vector<param_t>& sorted)
{
    std::map<int64_t, std::string> paths;
    for (const auto& [index, param] : store.params)
        paths[index] = param.path;
    for (const param_t& param : sorted) {
        const auto found = store.params.find(param.index);
        if (found == store.params.end() || found->second.type != param.type) return;
        for (auto i = paths.begin(); i != paths.end();)
            i = i->second == param.path ? paths.erase(i) : std::next(i);
        paths[param.index] = param.path;
    }
    for (const param_t& param : sorted)
        if (param.path.empty()) refuse(signature, "empty parameter path");
    if (paths.size() != store.params.size()) refuse(signature, "duplicate parameter path");
}

// Stores the parameter over what has its identifier or its path.
void log_t::store_param(const device_t& device, const param_t& param)
{
    want_write();
    store_t& store = change(device.index);
    for (auto i = store.params.begin(); i != store.params.end();)
        i = i->second.path == param.path ? store.params.erase(i) : std::next(i);
    store.params[param.index] = param;
}

namespace {

std::vector<param_t> sorted_by_index(std::vector<param_t> params)
{
    std::stable_sort(params.begin(), params.end(),
                     [](const param_t& a, const param_t& b) { return a.index < b.index; });
    return params;
}

}  // namespace

int log_t::modify_params(const device_t& device, const std::vector<param_t>& params)
{
    return attempt([&] {
        want_device(MODIFY_PARAMS, device);
        if (params.empty()) refuse(MODIFY_PARAMS, "empty param list");
        const std::vector<param_t> sorted = sorted_by_index(params);
        const std::vector<param_t> old_params = params_now(GET_PARAMS, device);
        std::vector<param_t> new_params = old_params;
        want_modifiable(MODIFY_PARAMS, stored(device, ""), sorted);

        for (size_t i = 0; i < sorted.size(); ++i) {
            const param_t& param = sorted[i];
            if (param.index < 0) refuse(MODIFY_PARAMS, INVALID_PARAM_ID);
            const auto old = std::find_if(old_params.begin(), old_params.end(),
                                          [&](const param_t& p) { return p.index == param.index; });
            if (old == old_params.end())
                refuse(MODIFY_PARAMS,
                       ("can't update non-existent parameter '" + param.path + "' at index " +
                        std::to_string(i) + " (internal ID = " + std::to_string(param.index) + ")")
                           .c_str());
            if (old->type != param.type) {
                say(param.path + ": Error: attempt to change type of parameter '" + param.path +
                    "' (" + std::to_string(old->type) + " -> " + std::to_string(param.type) + ")");
                throw failure_t{-1};
            }
            new_params[static_cast<size_t>(old - old_params.begin())] = param;
            store_param(device, param);
        }
        for (const period_t& period : periods_now())
            rebuild(device.index, period.minutes, new_params, &old_params);
    });
}

int log_t::remove_params(const device_t& device, const std::vector<param_t>& params)
{
    return attempt([&] {
        want_device(REMOVE_PARAMS, device);
        if (params.empty()) refuse(REMOVE_PARAMS, "empty param list");
        std::vector<param_t> new_params = params_now(GET_PARAMS, device);

        for (const param_t& param : sorted_by_index(params)) {
            if (param.index < 0) refuse(REMOVE_PARAMS, INVALID_PARAM_ID);
            want_write();
            change(device.index).params.erase(param.index);
            new_params.erase(
                std::remove_if(new_params.begin(), new_params.end(),
                               [&](const param_t& p) { return p.index == param.index; }),
                new_params.end());
        }
        for (const period_t& period : periods_now())
            rebuild(device.index, period.minutes, new_params, nullptr);
    });
}

// Gives the table the columns of `params`. Those that the old parameters have not are empty;
// without old parameters every column is taken over.
void log_t::rebuild(int64_t device, uint64_t minutes, const std::vector<param_t>& params,
                    const std::vector<param_t>* old_params)
{
    if (params.empty()) change(device).params.clear();
    if (_now.leftover) fail_to_prepare("table tmp_table already exists)");

    std::set<std::string> old_names;
    if (old_params != nullptr)
        for (const param_t& param : *old_params)
            for (const std::string& name : column_names(param))
                old_names.insert(name);

    table_t fresh;
    for (const param_t& param : params)
        for (const std::string& name : column_names(param))
            fresh.columns.push_back(name);
    _now.leftover = true;
    _now.leftover_table = fresh;

    const table_t& old = _now.devices.at(device)->tables.at(minutes);
    std::vector<std::optional<size_t>> sources;
    for (const std::string& name : fresh.columns) {
        const bool blank = old_params != nullptr && old_names.count(name) == 0;
        if (!blank && !old.column(name)) fail_to_prepare("no such column: " + name + ")");
        sources.push_back(blank ? std::nullopt : old.column(name));
    }
    for (size_t i = 0; i < old.size(); ++i) {
        fresh.times.push_back(old.times[i]);
        fresh.cells.push_back(old.row(i)[0]);
        for (const std::optional<size_t>& source : sources)
            fresh.cells.push_back(source ? old.row(i)[1 + *source] : ABSENT);
    }
    change(device, minutes) = std::move(fresh);
    _now.leftover = false;
}

// Recording --------------------------------------------------------------------------------------

int log_t::record(const device_t& device, const std::vector<param_t>& params, int64_t time,
                  double percent, const std::vector<values_t>& samples)
{
    return attempt([&] {
        want_open(ADD_TREND_DATA);
        if (params.empty()) refuse(ADD_TREND_DATA, "empty param list");
        want_device(ADD_TREND_DATA, device);
        if (time < 0) refuse(ADD_TREND_DATA, "invalid timestamp");
        if (samples.size() != params.size()) refuse(ADD_TREND_DATA, "bad sample size");

        const std::vector<period_t> periods = periods_now();
        if (periods.empty()) refuse(ADD_TREND_DATA, "no configured periods");
        const std::vector<uint64_t> ratios = ratios_of(periods);
        const std::vector<param_t> all_params = params_now(GET_PARAMS, device);
        if (all_params.empty()) refuse(ADD_TREND_DATA, "no configured parameters");

        const uint64_t finest = periods[0].minutes;
        const std::string name = trend_table_name(device.index, finest);
        const table_t& old = _now.devices.at(device.index)->tables.at(finest);
        std::vector<double> row(old.width(), ABSENT);
        row[0] = percent;
        for (const param_t& param : params)
            if (param.index < 0) refuse(ADD_TREND_DATA, INVALID_PARAM_ID);
        for (size_t i = 0; i < params.size(); ++i) {
            const std::vector<std::string> names = column_names(params[i]);
            size_t next = 0;
            for (size_t aggregate = 0; aggregate < AGGREGATES; ++aggregate) {
                if (!params[i].keeps[aggregate]) continue;
                const std::optional<size_t> column = old.column(names[next]);
                if (!column) {
                    const std::string why =
                        "table " + name + " has no column named " + names[next] + ")";
                    or_else(-1, step_reports(1, why));
                    say(std::string(PREPARE) + ": sqlite3_prepare(): 1 (" + why);
                    say("Can't prepare SQL (1): 'INSERT INTO " + name + " (*");
                    throw failure_t{-1};
                }
                row[1 + *column] = samples[i][aggregate];
                ++next;
            }
        }

        want_write();
        if (std::isnan(percent))
            fail_to_step(1299, "NOT NULL constraint failed: " + name + ".percent_valid)");
        if (old.has(time)) fail_to_step(1555, "UNIQUE constraint failed: " + name + ".time)");
        change(device.index, finest).insert(time, row);
        roll_up(device.index, periods, ratios, 0, all_params);
    });
}

int log_t::latest(const device_t& device, int64_t& time)
{
    return attempt([&] {
        want_device(GET_LATEST_TIMESTAMP, device);
        if (_now.periods.empty()) refuse(GET_LATEST_TIMESTAMP, "no configured periods");
        if (find(device) == nullptr) or_else(-1, step_reports(1, "no such table: trends_*"));
        time = stored(device, "trends_").tables.begin()->second.newest();
    });
}

// Deletes what lies as many intervals before the newest row as the table keeps, or longer.
void log_t::trim(int64_t device, const period_t& period, bool spare)
{
    const table_t& table = _now.devices.at(device)->tables.at(period.minutes);
    if (table.empty()) return;

    const auto intervals = static_cast<int64_t>(period.rows) + (spare ? SPARE_INTERVALS : 0);
    const int64_t span = intervals * static_cast<int64_t>(period.minutes * 60);
    const int64_t cutoff = std::max<int64_t>(table.newest() - span, 0);
    if (cutoff < table.oldest()) return;
    want_write();
    change(device, period.minutes).erase(0, table.after(cutoff));
}

// Groups the rows of period idx that are newer than the newest row of the next coarser period,
// writes one coarse row per full group, and goes on with the coarser period.
void log_t::roll_up(int64_t device, const std::vector<period_t>& periods,
                    const std::vector<uint64_t>& ratios, size_t idx,
                    const std::vector<param_t>& params)
{
    if (idx + 1 == periods.size()) {
        trim(device, periods[idx], true);
        return;
    }
    const uint64_t minutes = periods[idx].minutes;
    const uint64_t coarse_minutes = periods[idx + 1].minutes;
    const auto table = [&](uint64_t of) -> const table_t& {
        return _now.devices.at(device)->tables.at(of);
    };

    const int64_t rolled_up = std::max<int64_t>(table(coarse_minutes).newest(), 0);
    const size_t stragglers = table(minutes).size() - table(minutes).after(rolled_up);
    if (stragglers < ratios[idx]) return;
    trim(device, periods[idx], true);

    // The parameters must be the ones that both tables were made for.
    size_t wanted = 0;
    bool complete = true;
    for (const param_t& param : params)
        for (const std::string& name : column_names(param)) {
            ++wanted;
            complete = complete && table(minutes).column(name).has_value();
        }
    const std::string name = trend_table_name(device, coarse_minutes);
    const std::string insert = "INSERT INTO " + name + " SELECT *";
    if (!complete || wanted != table(coarse_minutes).columns.size()) {
        or_else(-1, step_reports(1, "*", "Possible problem with SQL stmt: '" + insert));
        say(std::string(PREPARE) + ": sqlite3_prepare(): 1 (*");
        say("Can't prepare SQL (2): '" + insert);
        throw failure_t{-1};
    }

    // Trimming may have taken rows of the groups: the survivors are grouped anew from the oldest,
    // and what no survivor is left for is not written.
    const table_t fine = table(minutes);
    const size_t survivors = fine.after(rolled_up);
    const auto ratio = static_cast<size_t>(ratios[idx]);
    for (size_t group = 0; group < stragglers / ratio; ++group) {
        const size_t begin = survivors + group * ratio;
        const size_t end = std::min(begin + ratio, fine.size());
        if (begin >= end) break;
        want_write();
        const std::vector<double> row = coarse_row(fine, begin, end, params);
        if (std::isnan(row[0]))
            fail_to_step(1299, "NOT NULL constraint failed: " + name + ".percent_valid)",
                         "Possible problem with SQL stmt: '" + insert);
        change(device, coarse_minutes).insert(fine.times[end - 1], row);
    }
    roll_up(device, periods, ratios, idx + 1, params);
}

// Blank filling ----------------------------------------------------------------------------------

int log_t::fill(const device_t& device, int64_t now, bool mark_valid)
{
    return attempt([&] {
        want_open(FILL_BLANK_VALUES);
        if (device.index < 0 || device.path.empty()) refuse(FILL_BLANK_VALUES, "invalid device id");
        if (now < -1) refuse(FILL_BLANK_VALUES, "invalid fill time");

        const std::vector<period_t> periods = periods_now();
        const std::vector<uint64_t> ratios = ratios_of(periods);
        const std::vector<param_t> params = params_now(GET_PARAMS, device);
        if (params.empty()) return;
        for (size_t idx = 0; idx < periods.size(); ++idx)
            fill_period(device.index, periods, ratios, idx, params, now, mark_valid);
    });
}

// Every missing interval up to `now` gets a blank row, but never more than the newest that the
// period keeps. The first few, enough for one row of the next period, are rolled up at once.
void log_t::fill_period(int64_t device, const std::vector<period_t>& periods,
                        const std::vector<uint64_t>& ratios, size_t idx,
                        const std::vector<param_t>& params, int64_t now, bool mark_valid)
{
    const period_t& period = periods[idx];
    const auto step = static_cast<int64_t>(period.minutes * 60);
    const auto most = static_cast<int64_t>(period.rows);

    int64_t last = _now.devices.at(device)->tables.at(period.minutes).newest();
    if (last < 0) return;
    const auto add_blank = [&] {
        want_write();
        last += step;
        table_t& table = change(device, period.minutes);
        std::vector<double> row(table.width(), ABSENT);
        row[0] = mark_valid ? 1.0 : 0.0;
        table.insert(last, row);
    };

    for (uint64_t n = 0; n < ratios[idx] && last + step <= now; ++n)
        add_blank();
    roll_up(device, periods, ratios, idx, params);

    const int64_t missing = last < now ? (now - last) / step : 0;
    if (missing > most) last += (missing - most) * step;
    while (last + step <= now)
        add_blank();
    trim(device, period, true);
}

// Reading ----------------------------------------------------------------------------------------

int log_t::read(const read_request_t& request, read_result_t& result)
{
    return attempt([&] {
        want_device(GET_TREND_DATA, request.device);
        if (request.first < -1 || request.second < -1) refuse(GET_TREND_DATA, "invalid time range");

        result = {};
        result.params = request.params;
        if (result.params.empty() && find(request.device) == nullptr) {
            reports_t lines = step_reports(1, "no such table: params_*");
            lines.push_back(std::string(GET_TREND_DATA) + ": Error: empty parameter list");
            or_else(-1, lines);
        }
        if (result.params.empty()) result.params = params_now(GET_PARAMS, request.device);
        if (result.params.empty()) refuse(GET_TREND_DATA, "empty parameter list");
        const std::vector<period_t> periods =
            request.periods.empty() ? periods_now() : request.periods;
        if (periods.empty()) refuse(GET_TREND_DATA, "empty period list");

        const auto table_of = [&](const period_t& period) -> const table_t& {
            const store_t& store = stored(request.device, "trends_");
            const auto found = store.tables.find(period.minutes);
            if (found == store.tables.end()) fail_to_prepare("no such *");
            return found->second;
        };

        // A row of a coarser period is left out from where any finer one begins.
        std::map<uint64_t, int64_t> bounds;
        if (request.no_overlap) {
            or_else(-1, {step_reports(1, "no such table: trends_*")[0], "**"});
            for (const period_t& period : periods) {
                int64_t& bound = bounds[period.minutes] = NONE;
                for (const period_t& finer : periods) {
                    const int64_t oldest = table_of(finer).oldest();
                    if (finer.minutes < period.minutes && oldest != NONE &&
                        (bound == NONE || oldest < bound))
                        bound = oldest;
                }
            }
            others.pop_back();
        }

        for (const param_t& param : result.params)
            if (param.index < 0) refuse(GET_TREND_DATA, INVALID_PARAM_ID);

        for (const period_t& period : periods) {
            const table_t& table = table_of(period);
            for (const param_t& param : result.params)
                for (const std::string& name : column_names(param))
                    if (!table.column(name)) fail_to_prepare("no such *");
        }

        for (const period_t& period : periods) {
            const table_t& table = table_of(period);
            for (size_t i = 0; i < table.size(); ++i) {
                const int64_t time = table.times[i];
                if (request.first != -1 && time < request.first) continue;
                if (request.second != -1 && time > request.second) continue;
                if (request.no_overlap && bounds[period.minutes] >= 0 &&
                    time >= bounds[period.minutes])
                    continue;
                read_row_t row = {period.minutes, time, table.row(i)[0], {}};
                for (const param_t& param : result.params) {
                    values_t values = NO_VALUES;
                    const std::vector<std::string> names = column_names(param);
                    size_t next = 0;
                    for (size_t aggregate = 0; aggregate < AGGREGATES; ++aggregate)
                        if (param.keeps[aggregate])
                            values[aggregate] = table.row(i)[1 + *table.column(names[next++])];
                    row.values.push_back(values);
                }
                result.rows.push_back(std::move(row));
            }
        }
        std::stable_sort(result.rows.begin(), result.rows.end(),
                         [&](const read_row_t& a, const read_row_t& b) {
                             return request.ascending ? a.time < b.time : a.time > b.time;
                         });
        const size_t size = result.rows.size();
        result.begin = static_cast<size_t>(std::min<uint64_t>(request.offset, size));
        const size_t rest = size - result.begin;
        const auto limit = static_cast<size_t>(std::min<uint64_t>(request.limit, rest));
        result.end = result.begin + (request.limit == 0 ? rest : limit);
    });
}

// Clearing ---------------------------------------------------------------------------------------

int log_t::clear(const device_t& device, int64_t first, int64_t second)
{
    bool rows_left = false;
    const int code = attempt([&] {
        want_open(CLEAR_TREND_DATA);
        if (device.index < 0 || device.path.empty()) refuse(CLEAR_TREND_DATA, "invalid device id");
        if (first < -1 || second < -1) refuse(CLEAR_TREND_DATA, "bad time bounds");

        for (const period_t& period : periods_now()) {
            stored(device, "trends_");
            want_write();
            table_t& table = change(device.index, period.minutes);
            const size_t begin = first == -1 ? 0 : table.after(first - 1);
            const size_t end = second == -1 ? table.size() : table.after(second);
            if (begin < end) table.erase(begin, end);
        }
        int64_t newest = NONE;
        if (const int failed = latest(device, newest)) throw failure_t{failed};
        rows_left = newest != NONE;
    });
    return code != 0 ? code : rows_left ? 1 : 0;
}

}  // namespace model
