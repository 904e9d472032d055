// Any bytes are damage to a log's files and a sequence of calls of the log that finds them. A
// target for libFuzzer: nothing but a documented assertion may end a call, and nothing may be left
// behind.

#include <sqlite3.h>

#include <array>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_set>
#include <vector>

#include "damage.h"
#include "disk.h"
#include "fuzz_bytes.h"
#include "scenario.h"
#include "trend_api.h"

using namespace toolkit::trend;

// An assertion ends the input, not the process
// ------------------------------------------------------

namespace {

std::jmp_buf at_assertion;

}  // namespace

namespace toolkit::trend {

// Instead of the library's own. Nothing of what is jumped over is used again.
void assertion_failed(const char* file, unsigned int line, const char* function,
                      const char* condition) noexcept
{
    const std::string said = std::string("Assertion `") + condition + "' failed.";
    if (!damage::is_documented(said)) {
        std::fprintf(stderr, "%s:%u: %s: %s\n", file, line, function, said.c_str());
        std::abort();
    }
    std::longjmp(at_assertion, 1);
}

}  // namespace toolkit::trend

namespace {

// SQLite's memory, so that an abandoned connection's can be taken back
// ------------------------------

sqlite3_mem_methods original;
std::unordered_set<void*> blocks;

void* allocate(int size)
{
    void* const block = original.xMalloc(size);
    if (block != nullptr) blocks.insert(block);
    return block;
}

void release(void* block)
{
    blocks.erase(block);
    original.xFree(block);
}

void* reallocate(void* block, int size)
{
    blocks.erase(block);
    void* const moved = original.xRealloc(block, size);
    blocks.insert(moved != nullptr ? moved : block);
    return moved;
}

void start_sqlite()
{
    sqlite3_initialize();
    disk::install();
}

// Every block outside of a connection is SQLite's own and goes with the shutdown.
void restart_sqlite()
{
    sqlite3_shutdown();
    for (void* const block : blocks)
        original.xFree(block);
    blocks.clear();
    start_sqlite();
}

// Damage ------------------------------------------------------------------------------------------

size_t offset_in(const std::string& file, fuzz_bytes_t& bytes)
{
    const size_t offset = bytes.below(256) << 8U | bytes.below(256);
    return file.empty() ? 0 : offset % file.size();
}

void damage_file(std::string& file, fuzz_bytes_t& bytes)
{
    const unsigned int way = bytes.below(5);
    const size_t start = offset_in(file, bytes);
    if (way == 0) {
        file.resize(start);
    } else if (way == 1) {
        const size_t from = offset_in(file, bytes) / 512 * 512;
        file.replace(start / 512 * 512, 512, file.substr(from, 512));
    } else if (way == 2) {
        file.replace(start, bytes.below(256), bytes.below(256),
                     static_cast<char>(bytes.below(256)));
    } else if (way == 3 && !file.empty()) {
        file[start] ^= static_cast<char>(1U << bytes.below(8));
    } else {
        for (unsigned int i = 0, count = bytes.below(32) + 1; i < count; ++i)
            if (start + i < file.size()) file[start + i] = static_cast<char>(bytes.below(256));
    }
}

void put_damaged_files(fuzz_bytes_t& bytes)
{
    static const std::vector<disk::image_t> intact = damage::intact_images();
    disk::image_t image = intact[bytes.below(static_cast<unsigned int>(intact.size()))];
    for (unsigned int i = bytes.below(4); i > 0; --i) {
        auto victim = image.begin();
        std::advance(victim, bytes.below(static_cast<unsigned int>(image.size())));
        damage_file(victim->second, bytes);
    }
    disk::restore(image);
    for (unsigned int i = bytes.below(4); i > 0; --i)
        damage::change(damage::foreign_change(
            [&](size_t n) { return bytes.below(static_cast<unsigned int>(n)); }));
}

// Calls -------------------------------------------------------------------------------------------

constexpr unsigned int MOST_CALLS = 40;
constexpr unsigned long MINUTES[] = {1, 5, 15, 2, 30, 60, 7, 0, 4294967295};
constexpr size_t ROWS[] = {12, 1, 3, 8, 100, 0, 4294967295};
constexpr time_t TIMES[] = {-1, 0, 60, 300, 900, 1740, 2000, 100000};
constexpr double NUMBERS[] = {1, 0, -1, 0.5, 1e300, -0.25, 100, 7};
const char* const PATHS[] = {"plant/pump", "plant/bystander", "added", "u", "cosphi", ""};

// A host that takes what the log tells it, and calls in any order.
class host_t {
public:
    explicit host_t(fuzz_bytes_t& bytes) : _bytes(bytes) {}

    void run()
    {
        open();
        for (unsigned int i = 0; i < MOST_CALLS && _bytes.more(); ++i)
            call();
    }

private:
    bool yes() { return _bytes.below(2) != 0; }

    void open()
    {
        _level = 0;
        const bool read_only = _bytes.below(8) == 7;
        const bool create = _bytes.below(4) != 3;
        const size_t capacity = yes() ? 20 : 1;
        const bool temp_in_memory = yes();
        _log.open(LOG_FILE, read_only, create, capacity, temp_in_memory, 1024, yes() ? 0 : 8192, 0,
                  yes());
        look();
    }

    // Takes all that is there to be used by the calls to come.
    void look()
    {
        if (_log.get_periods(_periods) != 0) _periods.clear();
        if (_log.get_devices(_devices) != 0) _devices.clear();
        _owner = CDeviceParams();
        _owner._device._path = "plant/pump";
        _owner._device._index = 1;
        if (!_devices.empty())
            _owner._device = _devices[_bytes.below(static_cast<unsigned int>(_devices.size()))];
        if (_log.get_params(_owner._device, _owner._params) != 0) _owner._params.clear();
    }

    CPeriodProperties a_period() { return {_bytes.one_of(MINUTES), _bytes.one_of(ROWS)}; }

    std::vector<CParamProperties> some_params()
    {
        std::vector<CParamProperties> params;
        for (const CParamProperties& param : _owner._params)
            if (yes()) params.push_back(param);
        return params;
    }

    CParamProperties changed(CParamProperties param)
    {
        if (yes()) param._path = _bytes.one_of(PATHS);
        const unsigned int kept = _bytes.below(32);
        param._has_min = (kept & 1U) != 0;
        param._has_max = (kept & 2U) != 0;
        param._has_avg = (kept & 4U) != 0;
        param._has_actual = (kept & 8U) != 0;
        param._has_sum = (kept & 16U) != 0;
        return param;
    }

    COptVal a_value() { return yes() ? COptVal(_bytes.one_of(NUMBERS)) : COptVal(); }

    void record()
    {
        CDeviceParams data = _owner;
        if (_bytes.below(4) == 3) data._params = some_params();
        CSnapshot snapshot;
        time_t latest = -1;
        if (_log.get_latest_timestamp(_owner._device, latest) != 0) latest = -1;
        const bool follows = _bytes.below(4) != 3 && latest >= 0 && latest < 1000000000;
        snapshot._time = follows ? latest + 60 : _bytes.one_of(TIMES);
        snapshot._percent_valid = _bytes.one_of(NUMBERS);
        snapshot._samples.resize(data._params.size());
        for (CSample& sample : snapshot._samples)
            sample = {a_value(), a_value(), a_value(), a_value(), a_value()};
        for (unsigned int i = _bytes.below(16) + 1; i > 0; --i, snapshot._time += 60)
            _log.add_trend_data(data, snapshot);
    }

    // Never up to the present: millions of rows, where a damaged period keeps so many.
    void fill()
    {
        if (_periods.empty()) return;
        const time_t now = _bytes.one_of(TIMES);
        _log.fill_blank_values(_owner._device, now == -1 ? 3600 : now, yes());
    }

    void read()
    {
        CDeviceData data;
        CDeviceParams request = _owner;
        if (yes()) request._params = some_params();
        std::vector<CPeriodProperties> periods;
        for (const CPeriodProperties& period : _periods)
            if (yes()) periods.push_back(period);
        if (_bytes.below(8) == 7) periods.emplace_back(_bytes.one_of(MINUTES), size_t(5));
        const timebounds_t bounds = {_bytes.one_of(TIMES), _bytes.one_of(TIMES)};
        const size_t limit = _bytes.below(8);
        const size_t offset = _bytes.below(4);
        const bool ascending = yes();
        _log.get_trend_data(data, request, periods, bounds, limit, offset, ascending, yes());
    }

    void change_params()
    {
        std::vector<CParamProperties> params = some_params();
        for (CParamProperties& param : params)
            param = changed(param);
        if (yes()) {
            _log.remove_params(_owner._device, params);
        } else if (yes()) {
            _log.modify_params(_owner._device, params);
        } else if (!_periods.empty()) {
            CParamProperties added;
            added._path = _bytes.one_of(PATHS);
            added._type = yes() ? SAMPLE_TYPE_VALUE : SAMPLE_TYPE_PF;
            params.push_back(changed(added));
            _log.add_params(_owner._device, params);
        }
    }

    void change_devices()
    {
        CDeviceProperties device = _owner._device;
        if (yes()) device._path = _bytes.one_of(PATHS);
        if (yes()) device._guid = _bytes.one_of(PATHS);
        const unsigned int way = _bytes.below(3);
        if (way == 0) _log.add_device(device);
        if (way == 1) _log.modify_device(device);
        if (way == 2) _log.remove_device(device);
    }

    void change_periods()
    {
        CPeriodProperties period = a_period();
        if (!_periods.empty() && yes())
            period = _periods[_bytes.below(static_cast<unsigned int>(_periods.size()))];
        const unsigned int way = _bytes.below(3);
        if (way == 0) _log.add_period(period);
        if (way == 1) _log.modify_period({period._period, _bytes.one_of(ROWS)});
        if (way == 2) _log.remove_period(period);
    }

    void turn_transaction()
    {
        if (!_log.is_open()) return;
        if (_level == 0 || _bytes.below(3) == 2) {
            if (_log.begin_transaction() == 0) ++_level;
            return;
        }
        --_level;
        if (yes())
            _log.end_transaction();
        else
            _log.rollback_transaction();
    }

    void call()
    {
        switch (_bytes.below(14)) {
            case 0:
            case 1:
                record();
                break;
            case 2:
            case 3:
                read();
                break;
            case 4:
                fill();
                break;
            case 5:
                _log.clear_trend_data(_owner._device, {_bytes.one_of(TIMES), _bytes.one_of(TIMES)});
                break;
            case 6:
                change_params();
                break;
            case 7:
                change_devices();
                break;
            case 8:
                change_periods();
                break;
            case 9:
            case 10:
                turn_transaction();
                break;
            case 11:
                _log.checkpoint();
                break;
            case 12:
                if (yes())
                    open();
                else
                    _log.vacuum();
                break;
            default:
                look();
        }
    }

    fuzz_bytes_t& _bytes;
    CLog _log;
    std::vector<CPeriodProperties> _periods;
    std::vector<CDeviceProperties> _devices;
    CDeviceParams _owner;
    unsigned int _level = 0;  // of the host's own transaction
};

// False when an assertion has ended it.
bool comes_back(fuzz_bytes_t& bytes)
{
    if (setjmp(at_assertion) != 0) return false;
    host_t(bytes).run();
    return true;
}

}  // namespace

// What an assertion leaves behind is nobody's any more.
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &original);
    sqlite3_mem_methods watched = original;
    watched.xMalloc = allocate;
    watched.xFree = release;
    watched.xRealloc = reallocate;
    sqlite3_config(SQLITE_CONFIG_MALLOC, &watched);
    start_sqlite();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_bytes_t bytes(data, size);
    put_damaged_files(bytes);
    const size_t files = disk::open_files();
    const size_t kept = blocks.size();
    if (!comes_back(bytes)) {
        restart_sqlite();
    } else if (disk::open_files() != files || blocks.size() != kept) {
        std::fprintf(stderr, "%zu files and %zu blocks of SQLite's are left\n",
                     disk::open_files() - files, blocks.size() - kept);
        std::abort();
    }
    disk::restore({});
    return 0;
}
