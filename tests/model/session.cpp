#include "session.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

namespace model {

namespace {

namespace tt = toolkit::trend;

constexpr char FILE_NAME[] = "log.db";
constexpr size_t STEPS_BETWEEN_FULL_COMPARISONS = 50;

// The handle of the connection that was opened last.
sqlite3* newest_handle = nullptr;

extern "C" int note_handle(sqlite3* handle, char**, const sqlite3_api_routines*)
{
    newest_handle = handle;
    return SQLITE_OK;
}

// Records of the library -----------------------------------------------------------------------

constexpr bool tt::CParamProperties::*KEEPS[AGGREGATES] = {
    &tt::CParamProperties::_has_min, &tt::CParamProperties::_has_max,
    &tt::CParamProperties::_has_avg, &tt::CParamProperties::_has_actual,
    &tt::CParamProperties::_has_sum};

constexpr tt::COptVal tt::CSample::*VALUES[AGGREGATES] = {&tt::CSample::_min, &tt::CSample::_max,
                                                          &tt::CSample::_avg, &tt::CSample::_actual,
                                                          &tt::CSample::_sum};

tt::CDeviceProperties to_library(const device_t& device)
{
    tt::CDeviceProperties record;
    record._path = device.path;
    record._guid = device.guid;
    record._index = device.index;
    return record;
}

device_t from_library(const tt::CDeviceProperties& record)
{
    return {record._path, record._guid, record._index};
}

tt::CPeriodProperties to_library(const period_t& period)
{
    return {static_cast<unsigned long>(period.minutes), static_cast<size_t>(period.rows)};
}

std::vector<tt::CPeriodProperties> to_library(const std::vector<period_t>& periods)
{
    std::vector<tt::CPeriodProperties> records;
    for (const period_t& period : periods)
        records.push_back(to_library(period));
    return records;
}

std::vector<tt::CParamProperties> to_library(const std::vector<param_t>& params)
{
    std::vector<tt::CParamProperties> records;
    for (const param_t& param : params) {
        tt::CParamProperties& record = records.emplace_back();
        record._path = param.path;
        record._type = static_cast<tt::sample_type_t>(param.type);
        record._index = param.index;
        for (size_t i = 0; i < AGGREGATES; ++i)
            record.*KEEPS[i] = param.keeps[i];
    }
    return records;
}

std::vector<param_t> from_library(const std::vector<tt::CParamProperties>& records)
{
    std::vector<param_t> params;
    for (const tt::CParamProperties& record : records) {
        param_t& param = params.emplace_back();
        param.path = record._path;
        param.type = record._type;
        param.index = record._index;
        for (size_t i = 0; i < AGGREGATES; ++i)
            param.keeps[i] = record.*KEEPS[i];
    }
    return params;
}

tt::CSnapshot to_library(const operation_t& op)
{
    tt::CSnapshot snapshot;
    snapshot._time = static_cast<time_t>(op.time);
    snapshot._percent_valid = op.percent;
    for (const values_t& values : op.samples) {
        tt::CSample& sample = snapshot._samples.emplace_back();
        for (size_t i = 0; i < AGGREGATES; ++i)
            sample.*VALUES[i] = tt::COptVal(values[i]);
    }
    return snapshot;
}

read_row_t from_library(const tt::CSnapshot& snapshot)
{
    read_row_t row = {snapshot._period, snapshot._time, snapshot._percent_valid, {}};
    for (const tt::CSample& sample : snapshot._samples) {
        values_t& values = row.values.emplace_back();
        for (size_t i = 0; i < AGGREGATES; ++i)
            values[i] = sample.*VALUES[i] ? *(sample.*VALUES[i]) : ABSENT;
    }
    return row;
}

timebounds_t bounds_of(const operation_t& op)
{
    return {static_cast<time_t>(op.first), static_cast<time_t>(op.second)};
}

int open_log(tt::CLog& log, const operation_t& op, bool wal)
{
    const int code = log.open(op.name, op.read_only, op.create, static_cast<size_t>(op.capacity),
                              !wal, 0, 0, 0, wal);
    // Nothing here survives the process, so nothing need reach the disk.
    if (code == 0) {
        sqlite3_exec(newest_handle, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
        if (!wal)
            sqlite3_exec(newest_handle, "PRAGMA journal_mode = MEMORY", nullptr, nullptr, nullptr);
    }
    return code;
}

// Replies --------------------------------------------------------------------------------------

std::string text(const std::vector<param_t>& params)
{
    std::string out;
    for (const param_t& param : params) {
        out +=
            std::to_string(param.index) + " \"" + param.path + "\" " + std::to_string(param.type);
        for (const bool kept : param.keeps)
            out += kept ? " 1" : " 0";
        out += "; ";
    }
    return out;
}

std::string text(const std::vector<device_t>& devices)
{
    std::string out;
    for (const device_t& device : devices)
        out += std::to_string(device.index) + " \"" + device.path + "\" \"" + device.guid + "\"; ";
    return out;
}

std::string text(const std::vector<period_t>& periods)
{
    std::string out;
    for (const period_t& period : periods)
        out += std::to_string(period.minutes) + " x " + std::to_string(period.rows) + "; ";
    return out;
}

std::string text(const std::vector<uint64_t>& numbers)
{
    std::string out;
    for (const uint64_t number : numbers)
        out += std::to_string(number) + " ";
    return out;
}

std::string text(const read_row_t& row)
{
    std::string out = std::to_string(row.minutes) + " min, " + std::to_string(row.time) + ", " +
                      model::text(row.percent) + " %:";
    for (const values_t& values : row.values) {
        for (const double value : values)
            out += " " + model::text(value);
        out += ";";
    }
    return out;
}

bool same(const read_row_t& a, const read_row_t& b)
{
    if (a.minutes != b.minutes || a.time != b.time || !model::same(a.percent, b.percent) ||
        a.values.size() != b.values.size())
        return false;
    for (size_t i = 0; i < a.values.size(); ++i)
        for (size_t j = 0; j < AGGREGATES; ++j)
            if (!model::same(a.values[i][j], b.values[i][j])) return false;
    return true;
}

std::string differs(const std::string& what, const std::string& found, const std::string& expected)
{
    return found == expected ? "" : what + ": the log says " + found + ", not " + expected;
}

// Times must follow one another exactly; rows of one time may come in any order, and limit and
// offset may pick any of them.
std::string rows_difference(const std::vector<read_row_t>& found, const read_result_t& expected)
{
    if (found.size() != expected.end - expected.begin)
        return differs("rows read", std::to_string(found.size()),
                       std::to_string(expected.end - expected.begin));

    std::vector<bool> used(expected.rows.size(), false);
    for (size_t i = 0; i < found.size(); ++i) {
        const size_t place = expected.begin + i;
        const int64_t time = expected.rows[place].time;
        size_t first = place;
        while (first > 0 && expected.rows[first - 1].time == time)
            --first;
        bool matched = false;
        for (size_t j = first; j < used.size() && expected.rows[j].time == time && !matched; ++j)
            if (!used[j] && same(found[i], expected.rows[j])) used[j] = matched = true;
        if (!matched)
            return "row " + std::to_string(i) + " read: the log says\n" + text(found[i]) +
                   "\nnot\n" + text(expected.rows[place]);
    }
    return "";
}

std::string reply_difference(const operation_t& op, const reply_t& found, const reply_t& expected)
{
    std::string difference =
        differs("result", std::to_string(found.code), std::to_string(expected.code));
    if (difference.empty())
        difference = differs("ratios", text(found.ratios), text(expected.ratios));
    if (!difference.empty() || expected.code != 0) return difference;

    difference = differs("periods", text(found.periods), text(expected.periods));
    if (difference.empty())
        difference = differs("devices", text(found.devices), text(expected.devices));
    if (difference.empty())
        difference = differs("parameters", text(found.params), text(expected.params));
    if (difference.empty())
        difference = differs("time", std::to_string(found.time), std::to_string(expected.time));
    if (difference.empty())
        difference = differs("index", std::to_string(found.index), std::to_string(expected.index));
    if (difference.empty() && op.kind == kind_t::READ)
        difference = rows_difference(found.read.rows, expected.read);
    return difference;
}

bool fit(const std::vector<std::string>& lines, const reports_t& expected)
{
    for (size_t i = 0; i < expected.size(); ++i) {
        const std::string& line = expected[i];
        if (line == "**") return true;
        if (i == lines.size()) return false;
        const bool open_end = !line.empty() && line.back() == '*';
        const size_t size = open_end ? line.size() - 1 : std::string::npos;
        if (lines[i].compare(0, size, line, 0, size) != 0) return false;
    }
    return lines.size() == expected.size();
}

std::string reports_difference(const std::vector<std::string>& lines, const reports_t& expected)
{
    if (fit(lines, expected)) return "";
    std::string out = "the log reports\n";
    for (const std::string& line : lines)
        out += "  " + line + "\n";
    out += "not\n";
    for (const std::string& line : expected)
        out += "  " + line + "\n";
    return out;
}

}  // namespace

// Captured errors ------------------------------------------------------------------------------

captured_errors_t::captured_errors_t(const std::string& name)
    : _file(::open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND, 0600)),
      _saved(dup(STDERR_FILENO))
{
    if (_file < 0 || _saved < 0 || dup2(_file, STDERR_FILENO) < 0)
        throw std::system_error(errno, std::generic_category(), name);
}

captured_errors_t::~captured_errors_t()
{
    dup2(_saved, STDERR_FILENO);
    ::close(_saved);
    ::close(_file);
}

std::vector<std::string> captured_errors_t::lines()
{
    const off_t end = lseek(_file, 0, SEEK_END);
    std::string written(static_cast<size_t>(end - _seen), '\0');
    if (!written.empty() && pread(_file, written.data(), written.size(), _seen) < 0)
        throw std::system_error(errno, std::generic_category(), "pread");
    _seen = end;

    std::vector<std::string> lines;
    for (size_t begin = 0; begin < written.size();) {
        const size_t newline = std::min(written.find('\n', begin), written.size());
        lines.push_back(written.substr(begin, newline - begin));
        begin = newline + 1;
    }
    return lines;
}

// Session --------------------------------------------------------------------------------------

session_t::session_t(bool wal, bool forgetful)
    : _wal(wal), _forgetful(forgetful), _errors("stderr.txt")
{
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(note_handle));
}

session_t::~session_t()
{
    _transaction.forget();
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(note_handle));
}

int session_t::open(const operation_t& op)
{
    const int code = open_log(_log, op, _wal);
    _handle = newest_handle;
    return code;
}

// The call of the library.
reply_t session_t::call(const operation_t& op, tt::CLog& log)
{
    reply_t reply;
    tt::CDeviceProperties device = to_library(op.device);
    std::vector<tt::CParamProperties> params = to_library(op.params);
    const auto period = static_cast<unsigned long>(op.period.minutes);
    const auto time = static_cast<time_t>(op.time);

    switch (op.kind) {
        case kind_t::OPEN:
            reply.code = open(op);
            break;
        case kind_t::CLOSE:
            _log.close();
            break;
        case kind_t::BEGIN:
            reply.code = log.begin_transaction();
            break;
        case kind_t::COMMIT:
            reply.code = log.end_transaction();
            break;
        case kind_t::ROLL_BACK:
            log.rollback_transaction();
            break;
        case kind_t::VACUUM:
            reply.code = log.vacuum();
            break;
        case kind_t::CHECKPOINT:
            reply.code = log.checkpoint();
            break;
        case kind_t::LIST_PERIODS: {
            std::vector<tt::CPeriodProperties> periods(1);
            reply.code = log.get_periods(periods);
            for (const tt::CPeriodProperties& record : periods)
                reply.periods.push_back({record._period, record._max_entries});
            break;
        }
        case kind_t::LIST_DEVICES: {
            std::vector<tt::CDeviceProperties> devices(1);
            reply.code = log.get_devices(devices);
            for (const tt::CDeviceProperties& record : devices)
                reply.devices.push_back(from_library(record));
            break;
        }
        case kind_t::LIST_PARAMS:
            params.resize(1);
            reply.code = log.get_params(device, params);
            break;
        case kind_t::ADD_PERIOD:
            reply.code = log.add_period(to_library(op.period));
            break;
        case kind_t::MODIFY_PERIOD:
            reply.code = log.modify_period(to_library(op.period));
            break;
        case kind_t::REMOVE_PERIOD:
            reply.code = log.remove_period(to_library(op.period));
            break;
        case kind_t::NEXT_BOUNDARY:
            reply.code = tt::CLog::next_interval_boundary(period, time);
            break;
        case kind_t::PREVIOUS_BOUNDARY:
            reply.code = tt::CLog::previous_interval_boundary(period, time);
            break;
        case kind_t::RATIOS: {
            std::vector<unsigned long> ratios(op.ratios.begin(), op.ratios.end());
            reply.code = tt::CLog::calc_period_ratios(to_library(op.periods), ratios);
            reply.ratios.assign(ratios.begin(), ratios.end());
            break;
        }
        case kind_t::ADD_DEVICE:
            reply.code = log.add_device(device);
            reply.index = device._index;
            break;
        case kind_t::MODIFY_DEVICE:
            reply.code = log.modify_device(device);
            break;
        case kind_t::REMOVE_DEVICE:
            reply.code = log.remove_device(device);
            break;
        case kind_t::ADD_PARAMS:
            reply.code = log.add_params(device, params);
            break;
        case kind_t::MODIFY_PARAMS:
            reply.code = log.modify_params(device, params);
            break;
        case kind_t::REMOVE_PARAMS:
            reply.code = log.remove_params(device, params);
            break;
        case kind_t::RECORD: {
            tt::CDeviceParams data;
            data._device = device;
            data._params = params;
            reply.code = log.add_trend_data(data, to_library(op));
            break;
        }
        case kind_t::LATEST: {
            time_t latest = 77;
            reply.code = log.get_latest_timestamp(device, latest);
            reply.time = latest;
            break;
        }
        case kind_t::FILL:
            reply.code = log.fill_blank_values(device, time, op.mark_valid);
            break;
        case kind_t::READ: {
            tt::CDeviceParams request;
            request._device = device;
            request._params = params;
            tt::CDeviceData data;
            data._params.resize(2);
            data._snapshots.resize(3);
            if (op.in_place) static_cast<tt::CDeviceParams&>(data) = request;
            reply.code =
                log.get_trend_data(data, op.in_place ? data : request, to_library(op.periods),
                                   bounds_of(op), static_cast<size_t>(op.limit),
                                   static_cast<size_t>(op.offset), op.ascending, op.no_overlap);
            params = data._params;
            reply.devices = {from_library(data._device)};
            for (const tt::CSnapshot& snapshot : data._snapshots)
                reply.read.rows.push_back(from_library(snapshot));
            break;
        }
        case kind_t::CLEAR:
            reply.code = log.clear_trend_data(device, bounds_of(op));
            break;
    }
    reply.params = from_library(params);
    return reply;
}

// The call by whoever makes it.
reply_t session_t::call(const operation_t& op)
{
    switch (op.by) {
        case by_t::THE_LOG:
            // An inner rollback changes nothing, and an outer one of nothing neither.
            if (_forgetful && op.kind == kind_t::RECORD && _log.is_open() &&
                _log.begin_transaction() == 0)
                _log.rollback_transaction();
            return call(op, _log);
        case by_t::THE_HANDLE:
            return delete_rows(op);
        case by_t::ANOTHER_LOG:
        case by_t::ANOTHER_IN_BETWEEN:
            break;
    }
    if (!_other.is_open()) {
        operation_t open;
        open.name = FILE_NAME;
        open.create = false;
        open.capacity = 7;
        open_log(_other, open, _wal);
    }
    if (op.by == by_t::ANOTHER_IN_BETWEEN) _log.begin_transaction();
    return call(op, _other);
}

// As CLEAR deletes them, by SQLite alone.
reply_t session_t::delete_rows(const operation_t& op)
{
    const std::string first = std::to_string(op.first);
    const std::string second = std::to_string(op.second);
    for (const auto& [minutes, rows] : _model.state().periods) {
        const std::string sql = "DELETE FROM trends_" + std::to_string(op.device.index) + "_" +
                                std::to_string(minutes) + " WHERE (time >= " + first + " OR " +
                                first + " = -1) AND (time <= " + second + " OR " + second +
                                " = -1)";
        sqlite3_exec(_handle, sql.c_str(), nullptr, nullptr, nullptr);
    }
    return {};
}

std::string session_t::step(const operation_t& op)
{
    ++_steps;
    if (op.kind == kind_t::OPEN || op.kind == kind_t::CLOSE) {
        _file.forget();
        _transaction.forget();
    }
    reply_t expected = apply(op, _model);
    const reply_t found = call(op);
    if (op.by == by_t::THE_HANDLE) expected = found;  // what it deletes is what counts

    const std::vector<std::string> lines = _errors.lines();

    std::string difference = reply_difference(op, found, expected);
    if (difference.empty()) difference = reports_difference(lines, _model.reports);
    for (const other_end_t& other : _model.others)
        if (found.code == other.code && fit(lines, other.reports)) difference.clear();
    _model.reports.clear();
    _model.others.clear();
    if (difference.empty() && _log.is_open() != _model.is_open())
        difference = "the log does not agree on being open";
    if (difference.empty()) difference = content_difference(op);
    return difference;
}

// After most calls it is enough to look at the tables of the device that was named.
std::string session_t::content_difference(const operation_t& op)
{
    switch (op.kind) {
        case kind_t::LIST_PARAMS:
        case kind_t::RECORD:
        case kind_t::LATEST:
        case kind_t::FILL:
        case kind_t::READ:
        case kind_t::CLEAR:
            if (_steps % STEPS_BETWEEN_FULL_COMPARISONS == 0) break;
            if (!_model.exists()) break;
            if (_model.level() > 0) {
                _transaction.use(_handle);
                return _transaction.difference(_model.state(), op.device.index);
            }
            if (!_file.is_open()) _file.open(FILE_NAME);
            return _file.difference(_model.state(), op.device.index);
        default:
            break;
    }
    return difference();
}

std::string session_t::difference()
{
    if (!_model.exists())
        return std::filesystem::exists(FILE_NAME) ? "there is a file already" : "";
    if (_model.level() > 0) {
        _transaction.use(_handle);
        return _transaction.difference(_model.state(), std::nullopt);
    }
    if (!_file.is_open()) _file.open(FILE_NAME);
    return _file.difference(_model.state(), std::nullopt);
}

}  // namespace model
