#include "scenario.h"

#include <sqlite3.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>

#include "memory.h"
#include "trend_reader.h"
#include "trend_repair.h"

using namespace toolkit::trend;

namespace {

constexpr time_t LAST_ROW = 29 * 60;  // of the prepared log: one before all three periods roll up
constexpr time_t LAST_REMEMBERED = 44 * 60;  // as well, of a log that is to remember the device

// What the steps themselves allocate is not the library's to miss.

CParamProperties param(const char* path, sample_type_t type, bool extremes, bool rest)
{
    const memory::unfailing ours;
    CParamProperties param;
    param._path = path;
    param._type = type;
    param._has_min = param._has_max = extremes;
    param._has_avg = true;
    param._has_actual = param._has_sum = rest;
    return param;
}

CDeviceProperties device(const char* path, int64_t index)
{
    const memory::unfailing ours;
    CDeviceProperties device;
    device._path = path;
    device._index = index;
    return device;
}

// The devices of the prepared log.
CDeviceProperties pump() { return device("plant/pump", 1); }
CDeviceProperties bystander() { return device("plant/bystander", 2); }

std::vector<CParamProperties> pump_params()
{
    const memory::unfailing ours;
    std::vector<CParamProperties> params = {param("u", SAMPLE_TYPE_VALUE, true, true),
                                            param("cosphi", SAMPLE_TYPE_PF, true, false),
                                            param("e", SAMPLE_TYPE_VALUE, false, true)};
    for (size_t i = 0; i < params.size(); ++i)
        params[i]._index = static_cast<int64_t>(i) + 1;
    return params;
}

std::vector<CParamProperties> new_params()
{
    const memory::unfailing ours;
    return {param("i", SAMPLE_TYPE_VALUE, true, false),
            param("p", SAMPLE_TYPE_VALUE, false, false)};
}

// The `first` to `last` of them.
std::vector<CParamProperties> pump_params(int first, int last)
{
    const memory::unfailing ours;
    const std::vector<CParamProperties> all = pump_params();
    return {all.begin() + (first - 1), all.begin() + last};
}

int record(CLog& log, const CDeviceProperties& owner, const std::vector<CParamProperties>& params,
           time_t time)
{
    CDeviceParams data;
    CSnapshot snapshot;
    {
        const memory::unfailing ours;
        data._device = owner;
        data._params = params;
        snapshot._time = time;
        snapshot._percent_valid = 100.0;
        const double value = static_cast<double>(time % 1000) / 1000.0;
        snapshot._samples.assign(params.size(), CSample{value, value, value, value, value});
    }
    return log.add_trend_data(data, snapshot);
}

void want(int code, const char* what)
{
    if (code != 0) throw std::runtime_error(what);
}

disk::image_t build_log(bool wal)
{
    disk::restore({});
    CLog log;
    want(open_log(log, {wal, true}, true), "open");
    want(log.add_period({1, 12}), "period");
    want(log.add_period({5, 8}), "period");
    want(log.add_period({15, 4}), "period");
    for (const CDeviceProperties& stored : {pump(), bystander()}) {
        CDeviceProperties added = stored;
        added._guid = "guid of " + stored._path;
        want(log.add_device(added), "device");
        std::vector<CParamProperties> params = pump_params();
        want(log.add_params(added, params), "params");
        for (time_t time = 60; time <= LAST_ROW; time += 60)
            want(record(log, added, params, time), "record");
    }
    log.close();
    return disk::image();
}

// With the pages of a device that is gone.
disk::image_t build_sparse_log(bool wal)
{
    disk::restore(base_image(step_t::LOG, wal));
    CLog log;
    want(open_log(log, {wal, true}, false), "open");
    want(log.remove_device(pump()), "remove");
    log.close();
    return disk::image();
}

// The process went while a transaction was on its way to the disk.
disk::image_t build_crashed_log(bool wal)
{
    disk::restore(base_image(step_t::LOG, wal));
    CLog log;
    want(prepare(log, {wal, false}), "prepare");
    const disk::image_t before = disk::image();
    want(log.begin_transaction(), "begin");
    for (int i = 0; i < 8; ++i) {  // more than the page cache takes
        CDeviceProperties added = device(("plant/" + std::to_string(i)).c_str(), -1);
        want(log.add_device(added), "device");
    }
    const disk::image_t image = disk::image();
    log.rollback_transaction();
    const std::string file = LOG_FILE;
    const bool is_on_its_way =
        wal ? image.at(file + "-wal").size() > before.at(file + "-wal").size()
            : image.at(file) != before.at(file) && !image.at(file + "-journal").empty();
    want(is_on_its_way ? 0 : -1, "spill");
    return image;
}

disk::image_t build_old_log(const char* name)
{
    std::ifstream in(std::string(TREND_TEST_DATA_DIR "/") + name);
    const std::string sql(std::istreambuf_iterator<char>(in), {});
    disk::restore({});
    sqlite3* db = nullptr;
    want(sqlite3_open(LOG_FILE, &db), name);
    want(sqlite3_exec(db, "PRAGMA page_size = 1024", nullptr, nullptr, nullptr), name);
    want(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), name);
    want(sqlite3_close(db), name);
    return disk::image();
}

// What a read has found, as text -----------------------------------------------------------------

std::string text_of(const std::vector<CPeriodProperties>& periods)
{
    std::string text;
    for (const CPeriodProperties& period : periods)
        text += std::to_string(period._period) + " " + std::to_string(period._max_entries) + "\n";
    return text;
}

std::string text_of(const std::vector<CDeviceProperties>& devices)
{
    std::string text;
    for (const CDeviceProperties& found : devices)
        text += std::to_string(found._index) + " " + found._path + " " + found._guid + "\n";
    return text;
}

std::string text_of(const std::vector<CParamProperties>& params)
{
    std::string text;
    for (const CParamProperties& found : params)
        text += std::to_string(found._index) + " " + found._path + " " +
                std::to_string(found._type) + (found._has_min ? "m" : "") +
                (found._has_max ? "M" : "") + (found._has_avg ? "a" : "") +
                (found._has_actual ? "l" : "") + (found._has_sum ? "s" : "") + "\n";
    return text;
}

std::string text_of(const CDeviceData& data)
{
    std::string text;
    for (const CSnapshot& row : data._snapshots) {
        text += std::to_string(row._period) + " " + std::to_string(row._time) + " " +
                std::to_string(row._percent_valid);
        for (const CSample& sample : row._samples)
            for (const COptVal& value :
                 {sample._min, sample._max, sample._avg, sample._actual, sample._sum})
                text += value ? " " + std::to_string(*value) : " -";
        text += "\n";
    }
    return text;
}

answer_t read_rows(CLog& log, const std::vector<CParamProperties>& params,
                   const std::vector<CPeriodProperties>& periods, bool no_overlap)
{
    CDeviceParams request;
    request._device = pump();
    {
        const memory::unfailing ours;
        request._params = params;
    }
    CDeviceData data;
    const int code = log.get_trend_data(data, request, periods, {-1, -1}, 0, 0, true, no_overlap);
    const memory::unfailing ours;
    return {code, text_of(data)};
}

answer_t read_rows(CLog& log, bool no_overlap)
{
    const CPeriodProperties all[] = {{1, 12}, {5, 8}, {15, 4}};
    std::vector<CPeriodProperties> periods;
    {
        const memory::unfailing ours;
        periods.assign(std::begin(all), std::end(all));
    }
    return read_rows(log, pump_params(), periods, no_overlap);
}

std::string text_of(const CInterval& interval)
{
    CDeviceData data;
    data._snapshots.push_back(interval);
    return std::to_string(interval._start) + " " + text_of(data);
}

// A view that is given the request and a visitor, which keeps what it has seen; of all parameters.
template <typename View>
answer_t read_view(CLog& log, View view)
{
    CReadRequest request;
    request._device = pump();
    CReader reader(log);
    std::string text;
    const interval_visitor_t visit = [&text](const CDeviceParams&, const CInterval& interval) {
        const memory::unfailing ours;
        text += text_of(interval);
        return true;
    };
    const int code = view(reader, request, visit);
    const memory::unfailing ours;
    return {code, text};
}

answer_t read_extremes(CLog& log)
{
    CReadRequest request;
    request._device = pump();
    std::vector<CExtremes> extremes;
    const int code = CReader(log).extremes(request, extremes);
    const memory::unfailing ours;
    std::string text;
    for (const CExtremes& found : extremes)
        for (const CExtreme& extreme : {found._min, found._max})
            text += std::to_string(extreme._value._val) + " " + std::to_string(extreme._start) +
                    " " + std::to_string(extreme._time) + "\n";
    return {code, text};
}

answer_t read_coverage(CLog& log)
{
    CReadRequest request;
    request._device = pump();
    std::vector<CCoverage> coverage;
    const int code = CReader(log).coverage(request, coverage);
    const memory::unfailing ours;
    std::string text;
    for (const CCoverage& found : coverage)
        text += std::to_string(found._rows) + " " + std::to_string(found._holes) + " " +
                std::to_string(found._bytes) + "\n";
    return {code, text};
}

// Lists parameters and periods before it reads.
answer_t read_all_rows(CLog& log) { return read_rows(log, {}, {}, false); }

// What a check finds. One that finds damage has met the fault: it is not the whole check.
answer_t check(CLog& log)
{
    std::vector<CFinding> findings;
    const int code = check_log(log, LAST_ROW, findings);
    const memory::unfailing ours;
    answer_t answer = {code, ""};
    for (const CFinding& finding : findings) {
        if (finding._kind == FINDING_DAMAGE) answer._code = -1;
        answer._text += finding._text + "\n";
    }
    return answer;
}

// Replaces a row and makes the coarse ones anew.
answer_t rebuild_pump(CLog& log, bool dry_run)
{
    CRebuildRequest request;
    {
        const memory::unfailing ours;
        request._device = pump();
        request._params = pump_params();
        request._bounds = {20 * 60, 20 * 60};
        request._rows.resize(1);
        request._rows[0]._time = 20 * 60;
        request._rows[0]._percent_valid = 50.0;
        request._rows[0]._samples.assign(request._params.size(), CSample{9, 9, 0.5, 0.5, 9});
        request._replace = true;
        request._dry_run = dry_run;
    }
    CRebuildResult result;
    const int code = rebuild(log, request, result);
    const memory::unfailing ours;
    return {code, code != 0 ? ""
                            : std::to_string(result._replaced) + " " +
                                  std::to_string(result._recomputed) + " " +
                                  std::to_string(result._kept)};
}

template <typename Record>
answer_t listed(int code, const std::vector<Record>& records)
{
    const memory::unfailing ours;
    return {code, text_of(records)};
}

answer_t list_periods(CLog& log)
{
    std::vector<CPeriodProperties> periods;
    const int code = log.get_periods(periods);
    return listed(code, periods);
}

answer_t list_devices(CLog& log)
{
    std::vector<CDeviceProperties> devices;
    const int code = log.get_devices(devices);
    return listed(code, devices);
}

answer_t list_params(CLog& log)
{
    std::vector<CParamProperties> params;
    const int code = log.get_params(pump(), params);
    return listed(code, params);
}

// The steps --------------------------------------------------------------------------------------

// A host's transaction, as a host has to write it.
template <typename Calls>
answer_t in_transaction(CLog& log, Calls calls)
{
    if (const int failed = log.begin_transaction()) return {failed, ""};
    if (const int failed = calls()) {
        log.rollback_transaction();
        return {failed, ""};
    }
    return {log.end_transaction(), ""};
}

// In a host's transaction that changes nothing or shall not.
template <typename Calls>
answer_t between(CLog& log, Calls calls)
{
    if (const int failed = log.begin_transaction()) return {failed, ""};
    answer_t answer = calls();
    log.rollback_transaction();
    return answer;
}

const std::vector<step_t> STEPS = {
    {"create", step_t::NOTHING, step_t::OPENS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, true), ""};
     }},
    {"open", step_t::LOG, step_t::OPENS | step_t::KEEPS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, true), ""};
     }},
    {"open as it is", step_t::LOG, step_t::OPENS | step_t::KEEPS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, false), ""};
     }},
    {"open after a crash", step_t::CRASHED_LOG, step_t::OPENS | step_t::KEEPS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, true), ""};
     }},
    {"open to read", step_t::LOG, step_t::OPENS | step_t::KEEPS | step_t::READ_ONLY, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, false, step_t::READ_ONLY), ""};
     }},
    {"open with temporary storage in memory", step_t::LOG, step_t::OPENS | step_t::KEEPS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, true, step_t::TEMPORARY_IN_MEMORY), ""};
     }},
    {"migrate 0", step_t::VERSION_0, step_t::OPENS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, true), ""};
     }},
    {"migrate 1", step_t::VERSION_1, step_t::OPENS, 0,
     [](CLog& log, const setting_t& setting) {
         return answer_t{open_log(log, setting, true), ""};
     }},

    {"add_period", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.add_period({60, 10}), ""};
     }},
    {"modify_period", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.modify_period({1, 3}), ""};
     }},
    {"remove_period", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.remove_period({5, 8}), ""};
     }},

    {"add_device", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         CDeviceProperties added = device("plant/fan", -1);
         return answer_t{log.add_device(added), ""};
     }},
    {"modify_device", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         const CDeviceProperties changed = device("plant/other pump", 1);
         return answer_t{log.modify_device(changed), ""};
     }},
    {"remove_device", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.remove_device(pump()), ""};
     }},

    {"add_params", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         std::vector<CParamProperties> added = new_params();
         return answer_t{log.add_params(pump(), added), ""};
     }},
    {"modify_params", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         std::vector<CParamProperties> changed = pump_params();
         std::swap(changed[0]._path, changed[1]._path);
         changed[0]._has_min = false;
         changed[1]._has_sum = true;
         return answer_t{log.modify_params(pump(), changed), ""};
     }},
    {"modify_params in memory", step_t::LOG, step_t::TEMPORARY_IN_MEMORY, 0,
     [](CLog& log, const setting_t&) {
         std::vector<CParamProperties> changed = pump_params();
         changed[2]._has_min = true;
         return answer_t{log.modify_params(pump(), changed), ""};
     }},
    {"remove_params", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.remove_params(pump(), pump_params(2, 2)), ""};
     }},
    {"remove all params", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.remove_params(pump(), pump_params()), ""};
     }},

    {"record", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {  // rolls up into both coarser periods
         return answer_t{record(log, pump(), pump_params(), LAST_ROW + 60), ""};
     }},
    {"record with temporary storage in memory", step_t::LOG, step_t::TEMPORARY_IN_MEMORY, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{record(log, pump(), pump_params(), LAST_ROW + 60), ""};
     }},
    {"record what is remembered", step_t::LOG, step_t::REMEMBERS, 0,
     [](CLog& log, const setting_t&) {  // rolls up into both coarser periods
         return answer_t{record(log, pump(), pump_params(), LAST_REMEMBERED + 60), ""};
     }},
    {"record a part", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{record(log, pump(), pump_params(3, 3), LAST_ROW + 60), ""};
     }},
    {"fill", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.fill_blank_values(pump(), LAST_ROW + 11 * 60, true), ""};
     }},
    {"fill far", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.fill_blank_values(pump(), 100000, false), ""};
     }},
    {"clear", step_t::LOG, step_t::NO_TRAITS, 1,
     [](CLog& log, const setting_t&) {
         return answer_t{log.clear_trend_data(pump(), {0, 1500}), ""};
     }},
    {"clear all", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.clear_trend_data(pump(), {-1, -1}), ""};
     }},

    {"rebuild", step_t::LOG, step_t::LONG, 0,
     [](CLog& log, const setting_t&) { return rebuild_pump(log, false); }},
    {"rebuild as a dry run", step_t::LOG, step_t::ROLLS_BACK | step_t::LONG, 0,
     [](CLog& log, const setting_t&) { return rebuild_pump(log, true); }},
    {"rebuild of a gap in a host transaction", step_t::LOG, step_t::LONG, 0,
     [](CLog& log, const setting_t&) {  // one row comes back, the others as blank ones
         return in_transaction(log, [&] {
             if (log.clear_trend_data(pump(), {20 * 60, 23 * 60}) != 1) return -1;
             return rebuild_pump(log, false)._code;
         });
     }},

    {"check_log", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) { return check(log); }},
    {"check_log to read only", step_t::LOG, step_t::READS | step_t::READ_ONLY | step_t::LONG, 0,
     [](CLog& log, const setting_t&) { return check(log); }},

    {"get_trend_data", step_t::LOG, step_t::LOOKS, 0,
     [](CLog& log, const setting_t&) { return read_rows(log, false); }},
    {"get_trend_data without overlap", step_t::LOG, step_t::LOOKS, 0,
     [](CLog& log, const setting_t&) { return read_rows(log, true); }},
    {"get_trend_data of everything", step_t::LOG, step_t::READS, 0,
     [](CLog& log, const setting_t&) { return read_all_rows(log); }},
    {"get_periods", step_t::LOG, step_t::LOOKS, 0,
     [](CLog& log, const setting_t&) { return list_periods(log); }},
    {"get_devices", step_t::LOG, step_t::LOOKS, 0,
     [](CLog& log, const setting_t&) { return list_devices(log); }},
    {"get_params", step_t::LOG, step_t::LOOKS, 0,
     [](CLog& log, const setting_t&) { return list_params(log); }},
    {"get_trend_data to read only", step_t::LOG, step_t::READS | step_t::READ_ONLY, 0,
     [](CLog& log, const setting_t&) { return read_all_rows(log); }},
    {"get_devices to read only", step_t::LOG, step_t::READS | step_t::READ_ONLY, 0,
     [](CLog& log, const setting_t&) { return list_devices(log); }},
    {"get_latest_timestamp", step_t::LOG, step_t::READS, 0,
     [](CLog& log, const setting_t&) {
         time_t latest = -2;
         const int code = log.get_latest_timestamp(pump(), latest);
         const memory::unfailing ours;
         return answer_t{code, std::to_string(latest)};
     }},

    {"rows one at a time", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) {
         return read_view(log, [](CReader& reader, const CReadRequest& request,
                                  const interval_visitor_t& visit) {
             return reader.rows(request, {}, false, true, visit);
         });
     }},
    {"best rows", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) {
         return read_view(
             log, [](CReader& reader, const CReadRequest& request,
                     const interval_visitor_t& visit) { return reader.best_rows(request, visit); });
     }},
    {"points", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) {
         return read_view(
             log, [](CReader& reader, const CReadRequest& request,
                     const interval_visitor_t& visit) { return reader.points(request, 5, visit); });
     }},
    {"buckets", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) {  // rows inside of them and across their edges
         return read_view(log, [](CReader& reader, const CReadRequest& request,
                                  const interval_visitor_t& visit) {
             edges_t edges;
             {
                 const memory::unfailing ours;
                 edges = {0, 450, 900, 1100, 1740};
             }
             return reader.buckets(request, edges, visit);
         });
     }},
    {"latest", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) {
         return read_view(
             log, [](CReader& reader, const CReadRequest&, const interval_visitor_t& visit) {
                 return reader.latest(visit);
             });
     }},
    {"extremes", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) { return read_extremes(log); }},
    {"coverage", step_t::LOG, step_t::READS | step_t::LONG, 0,
     [](CLog& log, const setting_t&) { return read_coverage(log); }},

    // A read that breaks off in a host's transaction takes that along, but succeeds.
    {"get_trend_data in a host transaction", step_t::LOG, step_t::TOLERANT, 0,
     [](CLog& log, const setting_t&) {
         return between(log, [&] { return read_rows(log, false); });
     }},
    {"get_trend_data of everything in a host transaction", step_t::LOG, step_t::TOLERANT, 0,
     [](CLog& log, const setting_t&) { return between(log, [&] { return read_all_rows(log); }); }},
    {"get_periods in a host transaction", step_t::LOG, step_t::TOLERANT, 0,
     [](CLog& log, const setting_t&) { return between(log, [&] { return list_periods(log); }); }},
    {"get_devices in a host transaction", step_t::LOG, step_t::TOLERANT, 0,
     [](CLog& log, const setting_t&) { return between(log, [&] { return list_devices(log); }); }},
    {"get_params in a host transaction", step_t::LOG, step_t::TOLERANT, 0,
     [](CLog& log, const setting_t&) { return between(log, [&] { return list_params(log); }); }},

    {"vacuum", step_t::SPARSE_LOG, step_t::VACUUMS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.vacuum(), ""};
     }},
    {"vacuum in memory", step_t::SPARSE_LOG, step_t::VACUUMS | step_t::TEMPORARY_IN_MEMORY, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.vacuum(), ""};
     }},
    {"checkpoint", step_t::LOG, step_t::CHECKPOINTS, 0,
     [](CLog& log, const setting_t&) {
         return answer_t{log.checkpoint(), ""};
     }},
    {"record and checkpoint by itself", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         if (const int failed = log.checkpoint_config(2)) return answer_t{failed, ""};
         return answer_t{record(log, pump(), pump_params(), LAST_ROW + 60), ""};
     }},

    {"host transaction", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return in_transaction(log, [&] {
             for (time_t time = LAST_ROW + 60; time <= LAST_ROW + 180; time += 60)
                 if (const int failed = record(log, pump(), pump_params(), time)) return failed;
             return 0;
         });
     }},
    {"host transaction that is rolled back", step_t::LOG, step_t::ROLLS_BACK, 0,
     [](CLog& log, const setting_t&) {
         return between(log, [&] {
             for (time_t time = LAST_ROW + 60; time <= LAST_ROW + 180; time += 60)
                 if (const int failed = record(log, pump(), pump_params(), time))
                     return answer_t{failed, ""};
             return answer_t{log.remove_device(pump()), ""};
         });
     }},
    {"host transaction on what is remembered", step_t::LOG, step_t::REMEMBERS, 0,
     [](CLog& log, const setting_t&) {
         return in_transaction(log, [&] {
             for (time_t time = LAST_REMEMBERED + 60; time <= LAST_REMEMBERED + 420; time += 60)
                 if (const int failed = record(log, pump(), pump_params(), time)) return failed;
             return 0;
         });
     }},
    {"host transaction on what is remembered, rolled back", step_t::LOG,
     step_t::ROLLS_BACK | step_t::REMEMBERS, 0,
     [](CLog& log, const setting_t&) {
         return between(log, [&] {
             for (time_t time = LAST_REMEMBERED + 60; time <= LAST_REMEMBERED + 180; time += 60)
                 if (const int failed = record(log, pump(), pump_params(), time))
                     return answer_t{failed, ""};
             return answer_t{0, ""};
         });
     }},
    // A listing that breaks off succeeds, but the transaction in which it stands may be gone by
    // then: the rows before and after it belong together all the same.
    {"host transaction that looks", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return in_transaction(log, [&] {
             std::vector<CDeviceProperties> devices;
             for (time_t time = LAST_ROW + 60; time <= LAST_ROW + 120; time += 60) {
                 if (const int failed = record(log, pump(), pump_params(), time)) return failed;
                 if (const int failed = log.get_devices(devices)) return failed;
                 if (const int failed = read_rows(log, false)._code) return failed;
             }
             return record(log, pump(), pump_params(), LAST_ROW + 180);
         });
     }},
    {"host transaction of changes", step_t::LOG, step_t::NO_TRAITS, 0,
     [](CLog& log, const setting_t&) {
         return in_transaction(log, [&] {
             CDeviceProperties added = device("plant/fan", -1);
             if (const int failed = log.add_device(added)) return failed;
             std::vector<CParamProperties> params = new_params();
             if (const int failed = log.add_params(added, params)) return failed;
             if (const int failed = record(log, added, params, 60)) return failed;
             return log.remove_device(pump());
         });
     }},
};

}  // namespace

std::string setting_t::name() const
{
    return std::string(_wal ? "WAL" : "journal") + (_warm ? ", warm" : ", cold");
}

const std::vector<step_t>& steps() { return STEPS; }

int open_log(CLog& log, const setting_t& setting, bool create, unsigned int traits)
{
    // Small pages make the prepared files many pages long. A cold connection can keep few of them:
    // it reads all the time, and writes in the middle of a transaction. It keeps few statements
    // too: nothing can be left to a COMMIT or ROLLBACK that is ready.
    const size_t cache = setting._warm ? 0 : size_t{5} * 1024;
    const size_t pool = setting._warm ? 20 : 2;
    const bool read_only = (traits & step_t::READ_ONLY) != 0;
    const bool temp_in_memory = (traits & step_t::TEMPORARY_IN_MEMORY) != 0;
    return log.open(LOG_FILE, read_only, create, pool, temp_in_memory, 1024, cache, 0,
                    setting._wal);
}

const disk::image_t& base_image(step_t::base_t base, bool wal)
{
    static std::map<std::pair<step_t::base_t, bool>, disk::image_t> images;
    const auto found = images.find({base, wal});
    if (found != images.end()) return found->second;
    const auto build = [&]() -> disk::image_t {
        switch (base) {
            case step_t::NOTHING:
                return {};
            case step_t::VERSION_0:
                return build_old_log("version_0.sql");
            case step_t::VERSION_1:
                return build_old_log("version_1.sql");
            case step_t::LOG:
                return build_log(wal);
            case step_t::SPARSE_LOG:
                return build_sparse_log(wal);
            case step_t::CRASHED_LOG:
                return build_crashed_log(wal);
        }
        throw std::logic_error("no such base");
    };
    return images[{base, wal}] = build();
}

int prepare(CLog& log, const setting_t& setting, unsigned int traits)
{
    // The write-ahead log has something in it that the file has not. There it stays when the log
    // is opened anew: the process before has been killed.
    if (const int failed = open_log(log, setting, false, traits & ~step_t::READ_ONLY))
        return failed;
    // One commit, so that a power cut leaves the log before or after it.
    if (const int failed = log.begin_transaction()) return failed;
    if (const int failed = record(log, bystander(), pump_params(), LAST_ROW + 60)) return failed;
    if ((traits & step_t::REMEMBERS) != 0)
        for (time_t time = LAST_ROW + 60; time <= LAST_REMEMBERED; time += 60)
            if (const int failed = record(log, pump(), pump_params(), time)) return failed;
    if (const int failed = log.end_transaction()) return failed;
    if (!setting._warm || (traits & step_t::READ_ONLY) != 0) {
        disk::crash([&] { log.close(); });
        if (const int failed = open_log(log, setting, false, traits)) return failed;
    }
    if (!setting._warm) return 0;

    std::vector<CPeriodProperties> periods;
    std::vector<CDeviceProperties> devices;
    if (const int failed = log.get_periods(periods)) return failed;
    if (const int failed = log.get_devices(devices)) return failed;
    for (const CDeviceProperties& found : devices) {
        CDeviceParams request;
        request._device = found;
        CDeviceData data;
        if (const int failed =
                log.get_trend_data(data, request, periods, {-1, -1}, 0, 0, true, false))
            return failed;
    }
    return 0;
}

void build_up(CLog& log, const std::function<void(int)>& acknowledge)
{
    acknowledge(log.add_period({1, 12}));
    acknowledge(log.add_period({5, 8}));
    for (const CDeviceProperties& stored : {pump(), bystander()}) {
        CDeviceProperties added = stored;
        acknowledge(log.add_device(added));
        std::vector<CParamProperties> params = pump_params();
        acknowledge(log.add_params(added, params));
    }
    acknowledge(log.add_period({15, 4}));
    for (time_t time = 60; time <= LAST_ROW; time += 60) {
        acknowledge(record(log, pump(), pump_params(), time));
        if (time % 300 == 0) acknowledge(record(log, bystander(), pump_params(), time));
    }
    acknowledge(log.checkpoint());
    acknowledge(record(log, pump(), pump_params(), LAST_ROW + 60));
}

int record_elsewhere(CLog& log)
{
    return record(log, bystander(), pump_params(1, 1), LAST_ROW + 120);
}

// Views ------------------------------------------------------------------------------------------

namespace {

// A statement's rows, one a line, or the error after "!".
void append_rows(std::string& text, sqlite3* db, const std::string& sql)
{
    sqlite3_stmt* stmt = nullptr;
    int code = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
    if (code == SQLITE_OK) {
        while ((code = sqlite3_step(stmt)) == SQLITE_ROW) {
            for (int col = 0; col < sqlite3_column_count(stmt); ++col) {
                const auto* bytes = static_cast<const char*>(sqlite3_column_blob(stmt, col));
                text +=
                    bytes == nullptr
                        ? "NULL"
                        : std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(stmt, col)));
                text += '|';
            }
            text += '\n';
        }
    }
    if (code != SQLITE_DONE) text = "!" + sql + ": " + sqlite3_errmsg(db) + "\n" + text;
    sqlite3_finalize(stmt);
}

std::string view(const std::string& file)
{
    const memory::unfailing inside;
    sqlite3* db = nullptr;
    std::string text;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        text = "0|\n";  // as an empty file
    } else {
        std::string tables;
        std::string check;
        append_rows(text, db, "BEGIN");
        append_rows(check, db, "PRAGMA integrity_check");
        append_rows(text, db, "PRAGMA user_version");
        append_rows(text, db, "SELECT type, name, sql FROM sqlite_master ORDER BY type, name");
        append_rows(tables, db,
                    "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name");
        for (size_t at = 0, end = 0; (end = tables.find("|\n", at)) != std::string::npos;
             at = end + 2) {
            const std::string table = tables.substr(at, end - at);
            text += table + ":\n";
            append_rows(text, db, "SELECT * FROM \"" + table + "\" ORDER BY rowid");
        }
        if (check != "ok|\n") text = "!" + check + text;
    }
    sqlite3_close(db);
    return text;
}

}  // namespace

std::string view_of(const disk::image_t& image)
{
    const disk::image_t now = disk::image();
    disk::restore(image);
    const std::string text = view(LOG_FILE);
    disk::restore(now);
    return text;
}

namespace {

// The same bytes have the same view, and a fault often leaves the file as it was.
std::map<std::string, std::string> seen;

}  // namespace

void forget_views() { seen.clear(); }

namespace {

std::string view_of_copy(const disk::image_t& image)
{
    const disk::image_t copy = disk::renamed(image, LOG_FILE, "copy.db");
    std::string bytes;
    for (const auto& [name, content] : copy)
        bytes += name + "\n" + std::to_string(content.size()) + "\n" + content;
    const auto found = seen.find(bytes);
    if (found != seen.end()) return found->second;

    if (seen.size() > 200) seen.clear();
    disk::add(copy);
    std::string text = view("copy.db");
    disk::remove_files("copy.db");
    seen[bytes] = text;
    return text;
}

}  // namespace

std::string crashed_view() { return view_of_copy(disk::image()); }

std::string view_of_file_alone() { return view_of_copy({{LOG_FILE, disk::image().at(LOG_FILE)}}); }

std::string live_view() { return view(LOG_FILE); }

int free_pages()
{
    const memory::unfailing inside;
    sqlite3* db = nullptr;
    std::string text;
    if (sqlite3_open_v2(LOG_FILE, &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK)
        append_rows(text, db, "PRAGMA freelist_count");
    sqlite3_close(db);
    return std::stoi(text);
}
