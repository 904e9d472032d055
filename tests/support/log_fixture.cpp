#include "log_fixture.h"

#include <sstream>
#include <stdexcept>
#include <utility>

#include "trace.h"

using namespace toolkit::trend;

namespace {

CParamProperties make_param(const std::string& path, sample_type_t type, const std::string& kept)
{
    CParamProperties made;
    made._path = path;
    made._type = type;
    std::istringstream words(kept);
    for (std::string word; words >> word;) {
        if (word == "min")
            made._has_min = true;
        else if (word == "max")
            made._has_max = true;
        else if (word == "avg")
            made._has_avg = true;
        else if (word == "actual")
            made._has_actual = true;
        else if (word == "sum")
            made._has_sum = true;
        else
            throw std::invalid_argument("no such aggregate: " + word);
    }
    return made;
}

CSample make_sample(COptVal CSample::*which, double value)
{
    CSample made;
    made.*which = value;
    return made;
}

// Ends the test: what a helper was asked for is what the test stands on.
template <typename Call>
void must(const std::string& what, Call call)
{
    int result = 0;
    const std::string said = capture_stderr([&] { result = call(); });
    if (result == 0 && said.empty()) return;
    throw std::runtime_error(what + " returned " + std::to_string(result) + "\n" + said);
}

}  // namespace

CParamProperties param(const std::string& path, const std::string& kept)
{
    return make_param(path, SAMPLE_TYPE_VALUE, kept);
}

CParamProperties pf(const std::string& path, const std::string& kept)
{
    return make_param(path, SAMPLE_TYPE_PF, kept);
}

CSample min(double value) { return make_sample(&CSample::_min, value); }
CSample max(double value) { return make_sample(&CSample::_max, value); }
CSample avg(double value) { return make_sample(&CSample::_avg, value); }
CSample actual(double value) { return make_sample(&CSample::_actual, value); }
CSample sum(double value) { return make_sample(&CSample::_sum, value); }

int open_log(CLog& log, const std::string& file, const open_args& args)
{
    return log.open(file, args._read_only, args._create, args._pool_capacity, args._temp_in_memory,
                    args._page_size, args._cache_bytes, args._heap_limit, args._wal);
}

void log_fixture::open(const open_args& args)
{
    must("open", [&] { return open_log(_log, _file, args); });
}

void log_fixture::reopen(const open_args& args)
{
    _log.close();
    open(args);
}

void log_fixture::add_period(unsigned long minutes, size_t max_entries)
{
    add_periods({CPeriodProperties(minutes, max_entries)});
}

void log_fixture::add_periods(std::initializer_list<CPeriodProperties> periods)
{
    for (const CPeriodProperties& period : periods)
        must("add_period", [&] { return _log.add_period(period); });
}

CDeviceProperties log_fixture::add_device(const std::string& path, const std::string& guid)
{
    CDeviceProperties device;
    device._path = path;
    device._guid = guid;
    must("add_device", [&] { return _log.add_device(device); });
    return device;
}

CDeviceParams log_fixture::add_device(const std::string& path, std::vector<CParamProperties> params)
{
    return add_params(add_device(path), std::move(params));
}

CDeviceParams log_fixture::add_params(const CDeviceProperties& device,
                                      std::vector<CParamProperties> params)
{
    CDeviceParams all{device, std::move(params)};
    must("add_params", [&] { return _log.add_params(all._device, all._params); });
    return all;
}

void log_fixture::record(const CDeviceParams& device, time_t time,
                         std::initializer_list<double> values, double percent_valid)
{
    CSnapshot snapshot;
    snapshot._time = time;
    snapshot._percent_valid = percent_valid;
    for (const double value : values)
        snapshot._samples.push_back(CSample{value, value, value, value, value});
    record_snapshot(device, snapshot);
}

void log_fixture::record(const CDeviceParams& device, time_t time,
                         std::initializer_list<CSample> samples, double percent_valid)
{
    CSnapshot snapshot;
    snapshot._time = time;
    snapshot._percent_valid = percent_valid;
    snapshot._samples = samples;
    record_snapshot(device, snapshot);
}

void log_fixture::record_snapshot(const CDeviceParams& device, const CSnapshot& snapshot)
{
    must("add_trend_data", [&] { return _log.add_trend_data(device, snapshot); });
}

void log_fixture::have_others_commit() const
{
    // An update to what is there already would leave the file as it was.
    run_sql(_file,
            "UPDATE periods SET max_entries = max_entries + 1; "
            "UPDATE periods SET max_entries = max_entries - 1");
}

bool log_fixture::at_level_0()
{
    const statement_trace trace;
    must("begin_transaction", [&] { return _log.begin_transaction(); });
    must("end_transaction", [&] { return _log.end_transaction(); });
    return trace.texts() == texts_t{"BEGIN", "COMMIT"};
}
