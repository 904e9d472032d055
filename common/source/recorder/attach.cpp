#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <iterator>

#include "columns.h"
#include "recorder/impl.h"
#include "trend/checks.h"

// From a device as the host wants it to one that is stored so, and ready to be fed.

namespace toolkit::trend {

// What an attempt to store the device comes to.
struct CRecorder::CImpl::plan_t {
    CDeviceProperties _device;
    std::vector<CParamProperties> _stored;

    std::vector<CParamProperties> _params;  // in the host's order, as they will be stored
    std::vector<CParamProperties> _modified;
    std::vector<CParamProperties> _removed;
    bool _told = false;  // what it costs, at an attempt before

    device_t _built;
    std::vector<parameter_t> _built_params;
};

namespace {

// Texts are stored up to their first zero byte.
bool is_same_text(const tk_string& a, const tk_string& b)
{
    return std::strcmp(a.c_str(), b.c_str()) == 0;
}

CParamProperties properties_of(const CRecorderParam& wanted)
{
    CParamProperties param;
    param._path = wanted._path;
    param._type = wanted._kind == READING_POWER_FACTOR ? SAMPLE_TYPE_PF : SAMPLE_TYPE_VALUE;
    param._has_min = wanted._has_min;
    param._has_max = wanted._has_max;
    param._has_avg = wanted._has_avg;
    param._has_actual = wanted._has_actual;
    param._has_sum = wanted._has_sum;
    return param;
}

// Whether readings of the kind give all that is wanted of them.
bool gives(const CRecorderParam& wanted)
{
    const bool extremes = wanted._has_min || wanted._has_max || wanted._has_avg;
    switch (wanted._kind) {
        case READING_COUNTER:
            return !extremes;
        case READING_TOTAL:
            return !extremes && !wanted._has_actual;
        default:
            return !wanted._has_sum;
    }
}

bool is_same(const CParamProperties& a, const CParamProperties& b)
{
    return std::all_of(AGGREGATES.begin(), AGGREGATES.end(), [&](const aggregate_t& aggregate) {
        return a.*aggregate._kept == b.*aggregate._kept;
    });
}

size_t number_of_values(const std::vector<CParamProperties>& params)
{
    size_t number = 0;
    for (const CParamProperties& param : params)
        for (const aggregate_t& aggregate : AGGREGATES)
            if (param.*aggregate._kept) ++number;
    return number;
}

}  // namespace

int CRecorder::CImpl::attach(const CRecorderDevice& wanted, CRecorderHandles& handles)
{
    if (const int failed = check_usable()) return failed;
    if (const int failed = check_wanted(wanted)) return failed;

    plan_t plan;
    _params.reserve(_params.size() + wanted._params.size());
    if (merges()) _late_params.reserve(_params.size() + wanted._params.size());
    handles._params.resize(wanted._params.size());
    const int failed = in_transaction([&] {
        if (const int wrong = find_device(wanted, plan)) return wrong;
        if (const int wrong = plan_params(wanted, plan)) return wrong;
        tell_cost(plan);
        if (const int wrong = change_params(plan)) return wrong;
        return build_device(wanted, plan);
    });
    if (failed) return failed;

    // From here on nothing can fail.
    handles._device = static_cast<recorder_handle_t>(_devices.size());
    for (size_t i = 0; i < plan._built_params.size(); ++i) {
        handles._params[i] = static_cast<recorder_handle_t>(_params.size());
        _params.push_back(plan._built_params[i]);
        if (merges()) _late_params.push_back(plan._built_params[i]);
    }
    _devices.push_back(std::move(plan._built));
    device_t& device = _devices.back();
    const int64_t now = _time.present();
    int64_t start = std::max<int64_t>(now - 1, 0) / _step * _step;
    if (_time.is_stamped()) start = std::max(start, device._found * MS_PER_SECOND);
    begin_interval(device, device._open, start);
    return 0;
}

int CRecorder::CImpl::check_wanted(const CRecorderDevice& wanted)
{
    const char* path = wanted._path.c_str();
    if (is_empty_path(wanted._path)) return tell(NOTICE_MISUSE, "a device without a path");
    for (const device_t& device : _devices)
        if (is_same_text(device._data._device._path, wanted._path))
            return tell(NOTICE_MISUSE, "'%s' is attached already", path);
    if (_devices.size() == _options._max_devices)
        return tell(NOTICE_MISUSE, "'%s' is one device more than _max_devices", path);
    if (wanted._params.empty()) return tell(NOTICE_MISUSE, "'%s' has no parameter", path);
    for (const CRecorderParam& param : wanted._params)
        if (const int failed = check_wanted(wanted, param)) return failed;
    return 0;
}

int CRecorder::CImpl::check_wanted(const CRecorderDevice& wanted, const CRecorderParam& param)
{
    const char* path = param._path.c_str();
    const auto has_path = [&](const CRecorderParam& other) {
        return is_same_text(other._path, param._path);
    };
    if (is_empty_path(param._path))
        return tell(NOTICE_MISUSE, "'%s': a parameter without a path", wanted._path.c_str());
    if (std::count_if(wanted._params.begin(), wanted._params.end(), has_path) > 1)
        return tell(NOTICE_MISUSE, "'%s': twice the same parameter", path);
    if (param._kind < READING_GAUGE || param._kind >= READING_LISTEND)
        return tell(NOTICE_MISUSE, "'%s': a kind that there is not", path);
    if (!keeps_anything(properties_of(param)))
        return tell(NOTICE_MISUSE, "'%s': no aggregate is kept", path);
    if (!wanted._ready && !gives(param))
        return tell(NOTICE_MISUSE, "'%s': an aggregate that readings of its kind do not give",
                    path);
    if (!(param._lowest <= param._highest) || !(param._max_rate > 0.0))
        return tell(NOTICE_MISUSE, "'%s': limits that exclude everything", path);
    if (param._hold_ms < 0 || param._max_gap_ms < 0)
        return tell(NOTICE_MISUSE, "'%s': a negative duration", path);
    return 0;
}

int CRecorder::CImpl::find_device(const CRecorderDevice& wanted, plan_t& plan)
{
    std::vector<CDeviceProperties> devices;
    if (_log->get_devices(devices) != 0) return -1;
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const auto& device) {
        return is_same_text(device._path, wanted._path);
    });
    if (found == devices.end()) {
        plan._device = CDeviceProperties();
        plan._device._path = stored_text(wanted._path);
        plan._device._guid = wanted._guid;
        if (_log->add_device(plan._device) != 0) return -1;
    } else {
        plan._device = *found;
    }
    return _log->get_params(plan._device, plan._stored) != 0 ? -1 : 0;
}

int CRecorder::CImpl::plan_params(const CRecorderDevice& wanted, plan_t& plan)
{
    plan._params.clear();
    plan._modified.clear();
    plan._removed = wanted._exact ? plan._stored : std::vector<CParamProperties>();
    for (const CRecorderParam& wanted_param : wanted._params) {
        CParamProperties param = properties_of(wanted_param);
        const auto has_path = [&](const CParamProperties& other) {
            return is_same_text(other._path, param._path);
        };
        const auto stored = std::find_if(plan._stored.begin(), plan._stored.end(), has_path);
        if (stored != plan._stored.end()) {
            if (stored->_type != param._type)
                return tell(NOTICE_MISUSE, "'%s' is stored as another type", param._path.c_str());
            param._index = stored->_index;
            if (!wanted._exact)
                for (const aggregate_t& aggregate : AGGREGATES)
                    param.*aggregate._kept = param.*aggregate._kept || (*stored).*aggregate._kept;
            if (!is_same(param, *stored)) plan._modified.push_back(param);
            plan._removed.erase(
                std::remove_if(plan._removed.begin(), plan._removed.end(), has_path),
                plan._removed.end());
        }
        plan._params.push_back(param);
    }
    return 0;
}

void CRecorder::CImpl::tell_cost(plan_t& plan)
{
    const size_t times = (plan._modified.empty() ? 0 : 1) + (plan._removed.empty() ? 0 : 1);
    if (times == 0 || plan._told) return;
    plan._told = true;
    uint64_t rows = 0;
    for (const CPeriodProperties& period : _periods)
        rows += period._max_entries;
    tell(NOTICE_REBUILD,
         "'%s': %zu parameters change, %zu are removed: its %zu tables of at most %" PRIu64
         " rows in all are rebuilt, %zu times",
         plan._device._path.c_str(), plan._modified.size(), plan._removed.size(), _periods.size(),
         rows, times);
}

int CRecorder::CImpl::change_params(plan_t& plan)
{
    if (!plan._removed.empty())
        if (const int failed = _log->remove_params(plan._device, plan._removed)) return failed;
    if (!plan._modified.empty())
        if (const int failed = _log->modify_params(plan._device, plan._modified)) return failed;
    std::vector<CParamProperties> added;
    const auto is_new = [](const CParamProperties& param) { return param._index < 0; };
    std::copy_if(plan._params.begin(), plan._params.end(), std::back_inserter(added), is_new);
    if (added.empty()) return 0;
    if (_log->add_params(plan._device, added) != 0) return -1;
    auto next = added.begin();
    for (CParamProperties& param : plan._params)
        if (is_new(param)) param._index = (next++)->_index;
    return 0;
}

// Everything that takes memory, before the transaction ends.
int CRecorder::CImpl::build_device(const CRecorderDevice& wanted, plan_t& plan)
{
    time_t newest = -1;
    if (_log->get_latest_timestamp(plan._device, newest) != 0) return -1;
    const char* path = plan._device._path.c_str();
    if (newest >= 0 && int64_t{newest} % (_step / MS_PER_SECOND) != 0)
        return tell(NOTICE_MISUSE, "'%s': its newest row, of %" PRId64 ", does not end on the grid",
                    path, int64_t{newest});

    device_t& device = plan._built;
    device._data._device = plan._device;
    device._data._params = plan._params;
    device._snapshot._samples.assign(plan._params.size(), CSample());
    device._ready = wanted._ready;
    device._first = _params.size();
    device._num_values = number_of_values(plan._params);
    device._found = device._latest = int64_t{newest};
    device._has_totals_only =
        std::all_of(wanted._params.begin(), wanted._params.end(),
                    [](const CRecorderParam& param) { return param._kind == READING_TOTAL; });

    size_t words = CRowQueue::words(device._num_values);
    for (const device_t& other : _devices)
        words += CRowQueue::words(other._num_values);
    if (words > _queue->capacity())
        return tell(NOTICE_MISUSE, "'%s': _max_bytes are too few for a row of every device", path);
    _queue->prepare(device._num_values);
    if (_late && CRowQueue::words(device._num_values) > _late->capacity())
        return tell(NOTICE_MISUSE, "'%s': _late_bytes are too few for a row", path);
    if (_late) _late->prepare(device._num_values);
    _values.resize(std::max(_values.size(), device._num_values));
    _row._samples.reserve(plan._params.size());
    _blank._samples.reserve(plan._params.size());

    plan._built_params.clear();
    for (const CRecorderParam& wanted_param : wanted._params) {
        const bool is_pf = wanted_param._kind == READING_POWER_FACTOR;
        const bool is_counter = wanted_param._kind == READING_COUNTER;
        parameter_t param;
        param._device = static_cast<uint32_t>(_devices.size());
        param._kind = wanted_param._kind;
        param._lowest = is_pf ? std::max(wanted_param._lowest, -1.0) : wanted_param._lowest;
        param._highest = is_pf ? std::min(wanted_param._highest, 1.0) : wanted_param._highest;
        param._max_rate = wanted_param._max_rate;
        const int64_t longest = is_counter ? wanted_param._max_gap_ms : wanted_param._hold_ms;
        const int64_t usual = is_counter ? _options._max_gap_ms : _options._hold_ms;
        param._longest = std::min(longest != 0 ? longest : usual, LONGEST_DURATION);
        plan._built_params.push_back(param);
    }
    return 0;
}

}  // namespace toolkit::trend
