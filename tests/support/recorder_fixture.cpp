#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

CRecorderParam wanted(reading_kind_t kind, const std::string& path, const std::string& kept)
{
    const auto has = [&](const char* name) { return kept.find(name) != std::string::npos; };
    CRecorderParam param;
    param._path = path;
    param._kind = kind;
    param._has_min = has("min");
    param._has_max = has("max");
    param._has_avg = has("avg");
    param._has_actual = has("actual");
    param._has_sum = has("sum");
    return param;
}

}  // namespace

CRecorderParam gauge(const std::string& path, const std::string& kept)
{
    return wanted(READING_GAUGE, path, kept);
}

CRecorderParam power_factor(const std::string& path, const std::string& kept)
{
    return wanted(READING_POWER_FACTOR, path, kept);
}

CRecorderParam counter(const std::string& path, const std::string& kept)
{
    return wanted(READING_COUNTER, path, kept);
}

CRecorderParam total(const std::string& path) { return wanted(READING_TOTAL, path, "sum"); }

recorder_fixture::recorder_fixture()
{
    _options._periods = {{1, 60}, {15, 16}, {60, 100}};
    _options._clock = &_clock;
    _options._hold_ms = 20'000;
    _options._max_gap_ms = 120'000;
    _options._tell = [this](notice_t notice, const char* line) {
        _told += std::string(notice_name(notice)) + ": " + line + "\n";
    };
}

void recorder_fixture::open() { ASSERT_EQ(_recorder->open(_file, _options), 0) << told(); }

void recorder_fixture::reopen()
{
    _recorder = std::make_unique<CRecorder>();
    open();
}

void recorder_fixture::attach(std::vector<CRecorderParam> params, const std::string& path)
{
    CRecorderDevice device;
    device._path = path;
    device._params = std::move(params);
    CRecorderHandles handles;
    ASSERT_EQ(_recorder->attach(device, handles), 0) << told();
    _device = handles._device;
    _params = handles._params;
}

int recorder_fixture::tick_at(int64_t moment)
{
    _clock.pass(START + moment - _clock._wall);
    return _recorder->tick();
}

std::string recorder_fixture::rows(const std::string& columns, unsigned long period, int64_t device)
{
    return ::rows(_file, "SELECT time - " + std::to_string(START / 1000) + ", " + columns +
                             " FROM trends_" + std::to_string(device) + "_" +
                             std::to_string(period) + " ORDER BY time");
}
