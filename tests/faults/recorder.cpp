#include "recorder.h"

#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <vector>

#include "trend_reader.h"
#include "trend_repair.h"

using namespace toolkit::trend;

namespace recorder {

const std::vector<CPeriodProperties> PERIODS = {{1, 30}, {5, 12}, {15, 8}};

namespace {

CParamProperties wanted_param()
{
    CParamProperties param;
    param._path = "u";
    param._has_min = param._has_max = param._has_avg = param._has_actual = param._has_sum = true;
    return param;
}

std::string new_folder()
{
    std::string name =
        (access("/dev/shm", W_OK) == 0 ? std::string("/dev/shm")
                                       : std::filesystem::temp_directory_path().string()) +
        "/trend-faults-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error(name);
    return name + "/";
}

bool is(const COptVal& value, double wanted) { return value && std::fabs(*value - wanted) < 1e-9; }

// A row of `length` minutes that ends with minute `last`, where minute n has the value n + shift.
bool is_right(const CSnapshot& row, long length, long last, size_t shift)
{
    const double end = static_cast<double>(last) + static_cast<double>(shift);
    const auto count = static_cast<double>(length);
    const CSample& sample = row._samples.at(0);
    return row._percent_valid == 100.0 && is(sample._min, end - count + 1.0) &&
           is(sample._max, end) && is(sample._avg, end - (count - 1.0) / 2.0) &&
           is(sample._actual, end) && is(sample._sum, count * (end - (count - 1.0) / 2.0));
}

// Finds the periods, the device and its parameter, or adds them.
int set_up(CLog& log, const std::string& device, CDeviceParams& data)
{
    std::vector<CPeriodProperties> periods;
    if (log.get_periods(periods) != 0) return -1;
    for (const CPeriodProperties& period : PERIODS) {
        const auto has_length = [&](const auto& p) { return p._period == period._period; };
        if (std::none_of(periods.begin(), periods.end(), has_length) && log.add_period(period) != 0)
            return -1;
    }

    std::vector<CDeviceProperties> devices;
    if (log.get_devices(devices) != 0) return -1;
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&](const auto& d) { return d._path == device; });
    if (found != devices.end()) {
        data._device = *found;
    } else {
        data._device = CDeviceProperties();
        data._device._path = device;
        if (log.add_device(data._device) != 0) return -1;
    }
    if (log.get_params(data._device, data._params) != 0) return -1;
    if (!data._params.empty()) return 0;
    data._params = {wanted_param()};
    return log.add_params(data._device, data._params);
}

}  // namespace

int start(CLog& log, const std::string& file, bool wal, const std::string& device,
          CDeviceParams& data)
{
    if (!log.is_open())
        if (log.open(file, false, true, 20, false, 0, 0, 0, wal) != 0) return -1;
    if (log.begin_transaction() != 0) return -1;
    if (set_up(log, device, data) == 0) return log.end_transaction();
    log.rollback_transaction();
    return -1;
}

CSnapshot snapshot_of(size_t minute)
{
    const auto value = static_cast<double>(minute);
    CSnapshot snapshot;
    snapshot._time = static_cast<time_t>(minute) * 60;
    snapshot._percent_valid = 100.0;
    snapshot._samples = {CSample{value, value, value, value, value}};
    return snapshot;
}

int record(CLog& log, const CDeviceParams& data, size_t minute)
{
    // Every tenth minute the last ones are made anew along with it, which changes nothing.
    if (minute % 10 != 0) return log.add_trend_data(data, snapshot_of(minute));
    CRebuildRequest request;
    request._device = data._device;
    request._bounds = {static_cast<time_t>(minute - 10) * 60, -1};
    CRebuildResult result;
    if (const int failed = log.begin_transaction()) return failed;
    int failed = log.add_trend_data(data, snapshot_of(minute));
    if (!failed) failed = rebuild(log, request, result);
    if (!failed) return log.end_transaction();
    log.rollback_transaction();
    return failed;
}

long newest(CLog& log, const CDeviceParams& data)
{
    time_t time = -1;
    if (log.get_latest_timestamp(data._device, time) != 0) return -1;
    return time == -1 ? 0 : static_cast<long>(time / 60);
}

int correct(CLog& log, const CDeviceParams& data, size_t minutes, size_t shift)
{
    CRebuildRequest request;
    request._device = data._device;
    request._params = data._params;
    request._replace = true;
    for (size_t minute = 1; minute <= minutes; ++minute) {
        request._rows.push_back(snapshot_of(minute + shift));
        request._rows.back()._time = static_cast<time_t>(minute) * 60;
    }
    CRebuildResult result;
    return rebuild(log, request, result);
}

long shift_of(CLog& log, const CDeviceParams& data)
{
    CDeviceData found;
    if (log.get_trend_data(found, data, {PERIODS[0]}, {-1, -1}, 1, 0, false, false) != 0 ||
        found._snapshots.empty())
        return -1;
    const CSnapshot& row = found._snapshots[0];
    return static_cast<long>(*row._samples.at(0)._avg) - static_cast<long>(row._time / 60);
}

std::string wrong_rows(CLog& log, const CDeviceParams& data, size_t shift)
{
    CDeviceData found;
    if (log.get_trend_data(found, data, PERIODS, {-1, -1}, 0, 0, true, false) != 0)
        return "can't be read";

    constexpr time_t MUCH_LATER = 1000000000;
    std::string warnings;
    const finding_visitor_t take = [&](const CFinding& finding) {
        // The write-ahead log may grow while others read.
        if (finding._severity != SEVERITY_INFORMATION && finding._kind != FINDING_WRITE_AHEAD_LOG)
            warnings += finding._text;
        return true;
    };
    if (check_log(log, MUCH_LATER, take) != 0) return "can't be checked";
    if (!warnings.empty()) return warnings;

    std::map<long, std::vector<long>> minutes;
    for (const CSnapshot& row : found._snapshots) {
        const auto length = static_cast<long>(row._period);
        const auto last = static_cast<long>(row._time / 60);
        const std::string name = "row " + std::to_string(last) + " of " + std::to_string(length);
        if (row._time % 60 != 0 || !is_right(row, length, last, shift)) return "wrong " + name;
        std::vector<long>& of_period = minutes[length];
        if (!of_period.empty() && last != of_period.back() + length) return "gap before " + name;
        of_period.push_back(last);
    }
    if (minutes[1].empty()) return minutes[5].empty() ? "" : "rolled up without rows";

    // The roll-up is part of the recording, so nothing can be missing or left over.
    const long newest = minutes[1].back();
    for (const CPeriodProperties& period : PERIODS) {
        const auto length = static_cast<long>(period._period);
        const std::vector<long>& of_period = minutes[length];
        const long wanted = newest / length * length;
        if ((of_period.empty() ? 0 : of_period.back()) != wanted)
            return "newest row of " + std::to_string(length) + " is not " + std::to_string(wanted);
        const auto kept = std::min(static_cast<long>(period._max_entries), newest / length);
        if (static_cast<long>(of_period.size()) < kept)
            return "only " + std::to_string(of_period.size()) + " rows of " +
                   std::to_string(length);
    }
    return "";
}

std::string wrong_views(CLog& log, const CDeviceParams& data, size_t minutes,
                        const std::function<void()>& others)
{
    CReader reader(log);
    CReadRequest request;
    static_cast<CDeviceParams&>(request) = data;
    request._bounds = {1, static_cast<time_t>(minutes) * 60};
    long shift = -1;  // of the view, by its first row
    std::string wrong;
    const interval_visitor_t take = [&](const CDeviceParams&, const CInterval& row) {
        const auto last = static_cast<long>(row._time / 60);
        const auto length = static_cast<long>((row._time - row._start) / 60);
        if (shift < 0) shift = static_cast<long>(*row._samples[0]._max) - last;
        if (shift < 0 || !is_right(row, length, last, static_cast<size_t>(shift)))
            wrong += " row " + std::to_string(last) + " of " + std::to_string(length);
        others();
        return wrong.empty();
    };
    const edges_t edges = {0, 7 * 60, 15 * 60, static_cast<time_t>(minutes) * 60};
    const std::vector<std::pair<const char*, std::function<int()>>> views = {
        {"rows", [&] { return reader.rows(request, {}, true, false, take); }},
        {"best rows", [&] { return reader.best_rows(request, take); }},
        {"points", [&] { return reader.points(request, 4, take); }},
        {"buckets", [&] { return reader.buckets(request, edges, take); }}};
    for (const auto& [name, run] : views) {
        shift = -1;
        if (run() != 0) return std::string(name) + " can't be read";
        if (!wrong.empty()) return name + wrong;
    }

    std::vector<CExtremes> extremes;
    std::vector<CCoverage> coverage;
    if (reader.extremes(request, extremes) != 0) return "extremes can't be read";
    if (*extremes[0]._max._value - *extremes[0]._min._value != static_cast<double>(minutes - 1))
        return "extremes of two moments";
    if (reader.coverage(request, coverage) != 0) return "coverage can't be read";
    for (const CCoverage& table : coverage)
        if (table._rows != static_cast<int64_t>(minutes / table._period._period))
            return "coverage of half a table";
    return "";
}

std::string damage(const std::string& file)
{
    sqlite3* db = nullptr;
    std::string answer = "can't be opened";
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db, 10000);
        const auto take = [](void* out, int, char** values, char**) {
            *static_cast<std::string*>(out) = values[0];
            return 0;
        };
        if (sqlite3_exec(db, "PRAGMA integrity_check", take, &answer, nullptr) != SQLITE_OK)
            answer = sqlite3_errmsg(db);
    }
    sqlite3_close(db);
    return answer == "ok" ? "" : answer;
}

folder_t::folder_t() : _path(new_folder()) {}

folder_t::~folder_t() { std::filesystem::remove_all(_path); }

}  // namespace recorder
