#include "merge.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "numbers.h"
#include "selection.h"
#include "trend_repair.h"

namespace trendlog {

CMerger::CMerger(CLogFile& file, const CArguments& arguments, complaint_t complain)
    : _file(file),
      _path(arguments.text("DEVICE")),
      _recipe(arguments),
      _adds(arguments.has("--add")),
      _replaces(arguments.has("--replace")),
      _complain(std::move(complain))
{
}

int CMerger::merge(const std::vector<numbered_entry_t>& entries, merge_counts_t& counts)
{
    CLog& log = _file.log();
    if (const int failed = log.get_periods(_periods)) return failed;
    if (_periods.empty()) _file.fail("there are no periods; `trendlog period add` adds them");
    if (const int failed = find_device()) return failed;
    if (const int failed = find_params(entries, counts)) return failed;
    if (_device._params.empty()) return 0;
    if (const int failed = log.get_latest_timestamp(_device._device, _latest)) return failed;

    if (const int failed = find_spare_rows()) return failed;

    std::vector<row_t> rows;
    make_rows(entries, rows, counts);
    const auto fresh = std::find_if(
        rows.begin(), rows.end(), [&](const row_t& row) { return row._snapshot._time > _latest; });
    std::vector<row_t> late(rows.begin(), fresh);
    rows.erase(rows.begin(), fresh);
    if (const int failed = merge_late(late, counts)) return failed;
    for (const row_t& row : rows) {
        if (const int failed = record(row._snapshot, _latest)) return failed;
        ++counts._recorded;
    }
    return 0;
}

// The device and its parameters ----------------------------------------------------------------

int CMerger::find_device()
{
    std::vector<CDeviceProperties> devices;
    if (const int failed = _file.log().get_devices(devices)) return failed;
    const auto found =
        std::find_if(devices.begin(), devices.end(),
                     [&](const CDeviceProperties& device) { return device._path == _path; });
    if (found != devices.end()) {
        _device._device = *found;
        return 0;
    }
    if (!_adds) _file.fail("there is no device '" + _path + "'; --add adds it");
    _device._device = {};
    _device._device._path = _path;
    return _file.log().add_device(_device._device);
}

// A name that no parameter has may be one with an aggregate behind it. The whole name comes first:
// parameters may have dots.
bool CMerger::find_target(const entry_value_t& value, target_t& target) const
{
    const auto find = [&](const std::string& name) {
        for (size_t i = 0; i < _device._params.size(); ++i) {
            if (_device._params[i]._path != name) continue;
            target._param = i;
            return true;
        }
        return false;
    };
    target._aggregate = value._aggregate;
    if (find(value._param)) return true;
    const size_t dot = value._param.rfind('.');
    if (dot == std::string::npos || value._aggregate != -1) return false;
    for (size_t i = 0; i < AGGREGATE_NAMES.size(); ++i)
        if (value._param.compare(dot + 1, std::string::npos, AGGREGATE_NAMES[i]._name) == 0) {
            target._aggregate = static_cast<int>(i);
            return find(value._param.substr(0, dot));
        }
    return false;
}

// All parameters that the device has, and with --add those that the lines have besides. Of these
// the aggregates are kept that the lines have, unless --keep says else.
int CMerger::find_params(const std::vector<numbered_entry_t>& entries, merge_counts_t& counts)
{
    if (const int failed = _file.log().get_params(_device._device, _device._params)) return failed;
    if (!_adds) return 0;
    std::vector<CParamProperties> added;
    std::map<std::string, std::vector<int>> wanted;
    std::vector<std::string> order;
    for (const numbered_entry_t& entry : entries) {
        if (!entry._device.empty() && entry._device != _path) continue;
        for (const entry_value_t& value : entry._values) {
            target_t target;
            if (find_target(value, target)) continue;
            std::string name = value._param;
            int aggregate = value._aggregate;
            const size_t dot = name.rfind('.');
            for (size_t i = 0; i < AGGREGATE_NAMES.size() && dot != std::string::npos; ++i)
                if (aggregate == -1 && name.substr(dot + 1) == AGGREGATE_NAMES[i]._name) {
                    aggregate = static_cast<int>(i);
                    name.resize(dot);
                }
            if (name.empty()) continue;  // said of each line
            std::vector<int>& aggregates = wanted[name];
            if (aggregates.empty()) order.push_back(name);
            if (std::find(aggregates.begin(), aggregates.end(), aggregate) == aggregates.end())
                aggregates.push_back(aggregate);
        }
    }
    for (const std::string& name : order) {
        CParamProperties param = _recipe.make(name);
        const std::vector<int>& aggregates = wanted[name];
        const bool is_plain =
            std::find(aggregates.begin(), aggregates.end(), -1) != aggregates.end();
        if (!is_plain && !_recipe.has_keep())
            for (size_t i = 0; i < AGGREGATE_NAMES.size(); ++i)
                param.*AGGREGATE_NAMES[i]._kept =
                    std::find(aggregates.begin(), aggregates.end(), static_cast<int>(i)) !=
                    aggregates.end();
        added.push_back(param);
    }
    if (added.empty()) return 0;
    if (const int failed = _file.log().add_params(_device._device, added)) return failed;
    counts._added += added.size();
    return _file.log().get_params(_device._device, _device._params);
}

// Rows -----------------------------------------------------------------------------------------

// A few rows more than are kept stay until the next trim. Lines for these are no misfits.
int CMerger::find_spare_rows()
{
    _spare.clear();
    if (_latest == -1) return 0;
    const auto kept = static_cast<int64_t>(_periods.front()._max_entries) *
                      static_cast<int64_t>(_periods.front()._period) * 60;
    if (_latest - kept < 0) return 0;
    CDeviceData data;
    CDeviceParams request = _device;
    request._params.resize(1);
    if (const int failed = _file.log().get_trend_data(data, request, {_periods.front()},
                                                      {-1, static_cast<time_t>(_latest - kept)}, 0,
                                                      0, true, false))
        return failed;
    for (const CSnapshot& snapshot : data._snapshots)
        _spare.push_back(snapshot._time);
    return 0;
}

bool CMerger::make_row(const numbered_entry_t& entry, row_t& row, merge_counts_t& counts) const
{
    const auto step = static_cast<int64_t>(_periods.front()._period) * 60;
    const std::string length = duration_text(step);
    const auto refuse = [&](const std::string& cause) {
        _complain(entry._line, cause);
        return false;
    };
    if (!entry._has_time) return refuse("no time");
    const int64_t time = entry._time_ms / 1000;
    if (entry._period != 0 && entry._period * 60 != step)
        return refuse("a row of " + duration_text(entry._period * 60) + ", the finest period is " +
                      length);
    if (entry._time_ms % 1000 != 0 || time % step != 0 || time < step)
        return refuse("no interval of " + length + " ends at " + CZone().text(time));
    if (time > present() + step || time > std::numeric_limits<time_t>::max())
        return refuse(CZone().text(time) + " is in the future");
    const auto kept = static_cast<int64_t>(_periods.front()._max_entries);
    if (std::binary_search(_spare.begin(), _spare.end(), time)) {
        ++counts._present;
        return false;
    }
    if (_latest != -1 && time <= _latest - kept * step)
        return refuse(CZone().text(time) + " is older than what is kept of " + length);

    const double percent = entry._percent_valid ? *entry._percent_valid : 100.0;
    if (!(percent >= 0 && percent <= 100)) return refuse("percent_valid is not within 0 and 100");
    row._line = entry._line;
    row._snapshot = {};
    row._snapshot._time = static_cast<time_t>(time);
    row._snapshot._samples.resize(_device._params.size());
    row._names.assign(_device._params.size(), false);
    bool has_any = false;
    for (const bool plain : {true, false})  // one aggregate goes before all of them
        for (const entry_value_t& value : entry._values) {
            target_t target;
            if (!find_target(value, target))
                return refuse("'" + value._param + "' is no parameter of '" + _path +
                              "'; --add adds it, --map names another");
            if ((target._aggregate == -1) != plain) continue;
            const CParamProperties& param = _device._params[target._param];
            row._names[target._param] = true;
            CSample& sample = row._snapshot._samples[target._param];
            has_any = has_any || value._value;
            if (!plain) {
                const aggregate_name_t& aggregate =
                    AGGREGATE_NAMES[static_cast<size_t>(target._aggregate)];
                if (!(param.*aggregate._kept) && value._value)
                    return refuse("'" + param._path + "' does not keep " + aggregate._name);
                sample.*aggregate._value = value._value;
                continue;
            }
            for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
                sample.*aggregate._value = value._value;
        }
    row._snapshot._percent_valid = has_any || entry._percent_valid ? percent : 0.0;
    return true;
}

void CMerger::make_rows(const std::vector<numbered_entry_t>& entries, std::vector<row_t>& rows,
                        merge_counts_t& counts) const
{
    for (const numbered_entry_t& entry : entries) {
        row_t row;
        if (!entry._device.empty() && entry._device != _path) continue;
        if (make_row(entry, row, counts)) rows.push_back(std::move(row));
    }
    const auto earlier = [](const row_t& a, const row_t& b) {
        return a._snapshot._time < b._snapshot._time;
    };
    if (!std::is_sorted(rows.begin(), rows.end(), earlier))
        std::stable_sort(rows.begin(), rows.end(), earlier);
    const auto same = [&](const row_t& a, const row_t& b) {
        if (a._snapshot._time != b._snapshot._time) return false;
        _complain(b._line, "a second line for " + CZone().text(b._snapshot._time));
        return true;
    };
    rows.erase(std::unique(rows.begin(), rows.end(), same), rows.end());
}

// A row that is changed keeps the values of parameters that the line does not name, so that lines
// that name the same ones go together.
int CMerger::merge_late(const std::vector<row_t>& rows, merge_counts_t& counts)
{
    std::map<std::vector<bool>, std::vector<const row_t*>> groups;
    for (const row_t& row : rows)
        groups[_replaces ? row._names : std::vector<bool>()].push_back(&row);
    for (const auto& [names, group] : groups) {
        const auto is_left_out = [&, named = &names](size_t i) {
            return !named->empty() && !(*named)[i];
        };
        CRebuildRequest request;
        request._device = _device._device;
        for (size_t i = 0; i < _device._params.size(); ++i)
            if (!is_left_out(i)) request._params.push_back(_device._params[i]);
        request._bounds = {group.front()->_snapshot._time, group.back()->_snapshot._time};
        request._replace = _replaces;
        for (const row_t* row : group) {
            CSnapshot snapshot = row->_snapshot;
            snapshot._samples.clear();
            for (size_t i = 0; i < _device._params.size(); ++i)
                if (!is_left_out(i)) snapshot._samples.push_back(row->_snapshot._samples[i]);
            request._rows.push_back(std::move(snapshot));
        }
        if (request._params.empty()) continue;  // lines that name no parameter change nothing
        CRebuildResult result;
        if (const int failed = rebuild(_file.log(), request, result)) return failed;
        counts._merged += result._merged;
        counts._replaced += result._replaced;
        counts._present += result._refused;
        counts._recomputed += result._recomputed;
    }
    return 0;
}

// Records one row such that coarse rows go on ending on the clock: the first one is preceded by a
// blank row at the boundary of the coarsest period, and what is missing becomes blank rows.
int CMerger::record(const CSnapshot& snapshot, time_t& latest)
{
    CLog& log = _file.log();
    const auto step = static_cast<time_t>(_periods.front()._period * 60);
    const time_t last_blank = snapshot._time - step;
    if (latest == -1) {
        CSnapshot blank;
        blank._time =
            CLog::previous_interval_boundary(_periods.back()._period, snapshot._time - 1) + step;
        blank._samples.resize(_device._params.size());
        if (blank._time < snapshot._time) {
            if (const int failed = log.add_trend_data(_device, blank)) return failed;
            latest = blank._time;
        }
    }
    if (latest != -1 && latest < last_blank) {
        // The coarse rows that the gap has cut short are completed first, the finest one first: a
        // roll-up of them together with the blank rows of a long gap would trim their beginning.
        for (size_t i = 1; i < _periods.size(); ++i) {
            const time_t end = CLog::next_interval_boundary(_periods[i]._period, latest);
            if (const int failed =
                    log.fill_blank_values(_device._device, std::min(end, last_blank), false))
                return failed;
        }
        if (const int failed = log.fill_blank_values(_device._device, last_blank, false))
            return failed;
    }
    if (const int failed = log.add_trend_data(_device, snapshot)) return failed;
    latest = snapshot._time;
    return 0;
}

}  // namespace trendlog
