#include "generator.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace model {

namespace {

constexpr int64_t LAST_TIME = 2000000000;  // fits a time_t of 32 bits with room to spare

// The standard's distributions differ between libraries; these do not.
class random_t {
public:
    explicit random_t(uint64_t seed) : _state(seed) {}

    uint64_t next()
    {
        uint64_t z = (_state += 0x9e3779b97f4a7c15);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

    // 0 to n - 1.
    size_t below(size_t n) { return static_cast<size_t>(next() % n); }
    int64_t between(int64_t low, int64_t high)
    {
        return low + static_cast<int64_t>(next() % static_cast<uint64_t>(high - low + 1));
    }
    bool chance(unsigned int percent) { return next() % 100 < percent; }
    bool per_mille(unsigned int rate) { return next() % 1000 < rate; }
    double unit() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }

    template <typename Items>
    const auto& pick(const Items& items)
    {
        return items[below(items.size())];
    }
    template <typename Item>
    Item pick(std::initializer_list<Item> items)
    {
        return items.begin()[below(items.size())];
    }

private:
    uint64_t _state;
};

class generator_t {
public:
    explicit generator_t(uint64_t seed) : _random(seed) {}

    operations_t run(size_t count)
    {
        operations_t operations = beginning();
        for (const operation_t& op : operations)
            apply(op, _log);
        while (operations.size() < count) {
            operation_t op = next();
            op.by = somebody(op);
            if (out_of_bounds(op, _log)) continue;
            _failed = apply(op, _log).code < 0;
            _log.reports.clear();
            _log.others.clear();
            operations.push_back(std::move(op));
        }
        return operations;
    }

private:
    const state_t& state() const { return _log.state(); }

    static operation_t of(kind_t kind)
    {
        operation_t op;
        op.kind = kind;
        return op;
    }

    // A log with periods of usable ratios, for most of what can be done needs them.
    operations_t beginning()
    {
        static const std::vector<std::vector<uint64_t>> CHAINS = {
            {1},     {1, 5},       {1, 2, 4, 8},   {1, 5, 15},  {1, 15, 60},
            {1, 60}, {2, 6},       {1, 3, 12, 60}, {5, 15, 60}, {1, 4, 40},
            {7, 14}, {1, 2, 1440}, {15, 60, 1440}, {1, 10, 100}};
        operations_t operations = {open(true)};
        for (const uint64_t minutes : _random.pick(CHAINS)) {
            operation_t op = of(kind_t::ADD_PERIOD);
            op.period = {minutes, some_rows()};
            operations.push_back(op);
        }
        return operations;
    }

    operation_t open(bool create)
    {
        operation_t op = of(kind_t::OPEN);
        op.name = "log.db";
        op.create = create;
        op.capacity = _random.pick<uint64_t>({1, 2, 3, 7, 30, 100});
        return op;
    }

    // Mostly the log itself.
    by_t somebody(const operation_t& op)
    {
        if (!changes(op.kind) || !_random.chance(_run > 0 ? 3 : 20)) return by_t::THE_LOG;
        if (op.kind == kind_t::CLEAR && _random.chance(50)) return by_t::THE_HANDLE;
        return _random.pick({by_t::ANOTHER_LOG, by_t::ANOTHER_IN_BETWEEN});
    }

    operation_t next()
    {
        if (!_log.is_open()) return _random.chance(60) ? reopen() : other();
        if (_log.is_read_only() && _random.chance(8)) return reopen();
        if (_run > 0) {
            --_run;
            if (state().devices.count(_run_device) != 0 && !_random.per_mille(30))
                return record(named(_run_device));
        }
        return other();
    }

    operation_t other()
    {
        struct choice_t {
            unsigned int share;
            operation_t (generator_t::*make)();
        };
        static const choice_t CHOICES[] = {
            {90, &generator_t::start_run},     {90, &generator_t::some_record},
            {100, &generator_t::fill},         {190, &generator_t::read},
            {22, &generator_t::clear},         {55, &generator_t::list},
            {25, &generator_t::helper},        {120, &generator_t::transaction},
            {36, &generator_t::change_period}, {36, &generator_t::change_device},
            {40, &generator_t::add_params},    {40, &generator_t::modify_params},
            {16, &generator_t::remove_params}, {16, &generator_t::reopen},
            {6, &generator_t::housekeeping}};
        unsigned int total = 0;
        for (const choice_t& choice : CHOICES)
            total += choice.share;
        auto left = static_cast<unsigned int>(_random.below(total));
        for (const choice_t& choice : CHOICES) {
            if (left < choice.share) return (this->*choice.make)();
            left -= choice.share;
        }
        return list();
    }

    // Lifecycle and transactions -----------------------------------------------------------------

    operation_t reopen()
    {
        if (_log.is_open() && _random.chance(50)) return of(kind_t::CLOSE);
        operation_t op = open(_random.chance(70));
        op.read_only = _random.chance(_log.is_read_only() ? 5 : 15);
        if (_random.chance(4)) op.name.clear();
        if (_random.chance(4)) op.capacity = 0;
        return op;
    }

    // After a failure a transaction is mostly given up, as it should be, but not always.
    operation_t transaction()
    {
        const int level = _log.level();
        if (level == 0 || (level < 3 && _random.chance(15))) return of(kind_t::BEGIN);
        const bool keep = _random.chance(_failed ? 30 : 65);
        return of(keep ? kind_t::COMMIT : kind_t::ROLL_BACK);
    }

    operation_t housekeeping()
    {
        return of(_random.chance(50) ? kind_t::VACUUM : kind_t::CHECKPOINT);
    }

    // Configuration ------------------------------------------------------------------------------

    uint64_t some_rows()
    {
        return _random.chance(3)    ? 1000
               : _random.chance(20) ? static_cast<uint64_t>(_random.between(1, 3))
                                    : static_cast<uint64_t>(_random.between(4, 40));
    }

    period_t some_period()
    {
        period_t period = {_random.pick<uint64_t>({1, 2, 5, 15, 60, 120, 1440}), some_rows()};
        if (!state().periods.empty() && _random.chance(85)) {
            auto stored = state().periods.begin();
            std::advance(stored, _random.below(state().periods.size()));
            period.minutes = stored->first;
        }
        if (_random.chance(3)) period.minutes = 0;
        if (_random.chance(3)) period.rows = 0;
        return period;
    }

    operation_t change_period()
    {
        operation_t op =
            of(_random.pick({kind_t::MODIFY_PERIOD, kind_t::MODIFY_PERIOD, kind_t::REMOVE_PERIOD,
                             kind_t::ADD_PERIOD, kind_t::ADD_PERIOD}));
        op.period = some_period();

        // Ratios that cannot be are left in place for a while now and then.
        std::vector<period_t> periods;
        for (const auto& [minutes, rows] : state().periods)
            periods.push_back({minutes, rows});
        if (op.kind == kind_t::ADD_PERIOD && _random.chance(85)) {
            if (periods.size() >= 4) return of(kind_t::LIST_PERIODS);
            op.period.minutes =
                periods.empty() ? 1
                                : periods.back().minutes * _random.pick<uint64_t>({2, 3, 5, 12});
            if (op.period.minutes > 1440) op.period.minutes = 1440;
        }
        std::vector<uint64_t> ratios;
        log_t scratch;
        if (!periods.empty() && scratch.ratios(periods, ratios) != 0 && _random.chance(70)) {
            op.kind = kind_t::REMOVE_PERIOD;
            op.period = {_random.pick(periods).minutes, 1};
        }
        if (op.kind == kind_t::REMOVE_PERIOD && periods.size() < 2 && _random.chance(80))
            op.kind = kind_t::MODIFY_PERIOD;
        return op;
    }

    device_t named(int64_t index)
    {
        const auto found = state().devices.find(index);
        if (found == state().devices.end()) return {"nowhere", "", index};
        return {found->second->path, found->second->guid, index};
    }

    // A stored device most of the time.
    device_t some_device()
    {
        device_t device = {"nowhere", "", 99};
        if (!state().devices.empty()) {
            auto stored = state().devices.begin();
            std::advance(stored, _random.below(state().devices.size()));
            device = named(stored->first);
        }
        if (_random.per_mille(15)) device.path.clear();
        if (_random.per_mille(15)) device.index = NONE;
        if (_random.per_mille(15)) device.index = _random.between(0, 9);
        return device;
    }

    std::string some_guid()
    {
        return _random.chance(50) ? "" : _random.pick<const char*>({"g1", "g2", "g3", "g4"});
    }

    operation_t change_device()
    {
        if (state().devices.empty() || _random.chance(state().devices.size() > 3 ? 5 : 35)) {
            operation_t op = of(kind_t::ADD_DEVICE);
            op.device = {
                _random.pick<const char*>({"pump", "fan", "mixer", "oven", "Öfen", "lamp"}),
                some_guid(), _random.between(-1, 5)};
            if (_random.chance(4)) op.device.path.clear();
            return op;
        }
        operation_t op = of(_random.chance(60) ? kind_t::MODIFY_DEVICE : kind_t::REMOVE_DEVICE);
        op.device = some_device();
        if (op.kind == kind_t::MODIFY_DEVICE) {
            op.device.guid = some_guid();
            if (_random.chance(60) && !op.device.path.empty())
                op.device.path = _random.pick<const char*>({"pump", "fan", "tank", "belt"});
        }
        return op;
    }

    std::string some_param_path()
    {
        return _random.pick<const char*>({"U", "I", "P", "cos phi", "flow", "T1", "T2", "level"});
    }

    std::array<bool, AGGREGATES> some_aggregates()
    {
        std::array<bool, AGGREGATES> keeps = {};
        if (_random.chance(20)) keeps.fill(true);
        for (bool& kept : keeps)
            kept = kept || _random.chance(40);
        return keeps;
    }

    std::vector<param_t> stored_params(int64_t device) const
    {
        std::vector<param_t> params;
        const auto found = state().devices.find(device);
        if (found != state().devices.end())
            for (const auto& [index, param] : found->second->params)
                params.push_back(param);
        return params;
    }

    operation_t add_params()
    {
        operation_t op = of(kind_t::ADD_PARAMS);
        op.device = some_device();
        if (stored_params(op.device.index).size() > 4 && !_random.chance(10))
            return modify_params();
        const int64_t count = _random.chance(3) ? 0 : _random.between(1, 3);
        for (int64_t i = 0; i < count; ++i) {
            param_t param;
            param.path = some_param_path();
            param.type = _random.chance(30) ? POWER_FACTOR : VALUE;
            param.keeps = some_aggregates();
            param.index = _random.between(-1, 9);
            if (_random.chance(2)) param.path.clear();
            if (_random.chance(2)) param.type = _random.pick({-1, 2, 7});
            op.params.push_back(param);
        }
        return op;
    }

    // Some of the device's parameters, in any order, now and then one that it does not have.
    std::vector<param_t> some_params(int64_t device)
    {
        std::vector<param_t> params = stored_params(device);
        for (size_t i = params.size(); i > 1; --i)
            std::swap(params[i - 1], params[_random.below(i)]);
        if (!params.empty()) params.resize(1 + _random.below(params.size()));
        if (params.empty() || _random.chance(4)) {
            param_t stranger;
            stranger.path = "stranger";
            stranger.index = _random.pick<int64_t>({-1, 0, 17});
            stranger.keeps[AVG] = true;
            params.push_back(stranger);
        }
        if (_random.chance(1)) params.clear();
        return params;
    }

    operation_t modify_params()
    {
        operation_t op = of(kind_t::MODIFY_PARAMS);
        op.device = some_device();
        op.params = some_params(op.device.index);
        if (!op.params.empty() && _random.chance(5)) op.params.push_back(op.params[0]);
        for (param_t& param : op.params) {
            if (_random.chance(70)) param.keeps = some_aggregates();
            if (_random.chance(30)) param.path = some_param_path();
            if (_random.chance(2)) param.path.clear();
            if (_random.chance(3)) param.type = _random.pick<int>({VALUE, POWER_FACTOR, 2, -3});
        }
        if (op.params.size() > 1 && _random.chance(30))
            std::swap(op.params[0].path, op.params[1].path);
        return op;
    }

    operation_t remove_params()
    {
        operation_t op = of(kind_t::REMOVE_PARAMS);
        op.device = some_device();
        op.params = some_params(op.device.index);
        if (op.params.size() > 1 && _random.chance(70)) op.params.resize(1);
        if (!op.params.empty() && _random.chance(5)) op.params.push_back(op.params[0]);
        return op;
    }

    operation_t list()
    {
        operation_t op = of(_random.pick(
            {kind_t::LIST_PERIODS, kind_t::LIST_DEVICES, kind_t::LIST_PARAMS, kind_t::LATEST}));
        op.device = some_device();
        return op;
    }

    operation_t helper()
    {
        operation_t op =
            of(_random.pick({kind_t::NEXT_BOUNDARY, kind_t::PREVIOUS_BOUNDARY, kind_t::RATIOS}));
        op.period = some_period();
        op.time =
            _random.chance(50) ? _random.between(0, LAST_TIME) : 60 * _random.between(0, 2400);
        uint64_t minutes = static_cast<uint64_t>(_random.between(1, 20));
        const int64_t size = _random.between(1, 5);
        for (int64_t i = 0; i < size; ++i) {
            op.periods.push_back({minutes, 1});
            minutes *= static_cast<uint64_t>(_random.between(_random.chance(10) ? 1 : 2, 6));
            if (_random.chance(8)) ++minutes;
        }
        op.ratios.resize(_random.below(7), 77);
        return op;
    }

    // Rows ---------------------------------------------------------------------------------------

    const table_t* finest_table(int64_t device) const
    {
        const auto found = state().devices.find(device);
        if (found == state().devices.end() || found->second->tables.empty()) return nullptr;
        return &found->second->tables.begin()->second;
    }

    int64_t finest_step() const
    {
        if (state().periods.empty()) return 60;
        return static_cast<int64_t>(state().periods.begin()->first) * 60;
    }

    int64_t newest(int64_t device) const
    {
        const table_t* table = finest_table(device);
        return table == nullptr ? NONE : table->newest();
    }

    double some_value()
    {
        if (_random.chance(55)) return static_cast<double>(_random.between(-40, 40)) / 4;
        if (_random.chance(25)) return ABSENT;
        if (_random.chance(45)) return (_random.unit() - 0.5) * 2;
        if (_random.chance(60)) return (_random.unit() - 0.5) * 4000;
        constexpr double INFINITE = std::numeric_limits<double>::infinity();
        return _random.pick({0.0, -0.0, 1.0, -1.0, 1.7, -3.0, 1e308, -1e308, 5e-324, INFINITE,
                             -INFINITE, -1e-300, 9007199254740993.0, 0.1, -0.9, 0.9, 1e17});
    }

    double some_percent()
    {
        if (_random.chance(70)) return 100;
        if (_random.chance(25)) return 0;
        if (_random.chance(90)) return static_cast<double>(_random.between(0, 40)) * 2.5;
        if (_random.chance(60)) return _random.unit() * 100;
        return _random.pick({0.0, -5.0, 150.0, 1e300, -0.0, ABSENT});
    }

    int64_t some_time(int64_t device)
    {
        const int64_t step = finest_step();
        const int64_t last = newest(device);
        if (last == NONE)
            return _random.pick<int64_t>({0, step, 1200000000, 1200000000 + step, 3, 60});

        int64_t time = last + step;
        if (_random.chance(14)) {
            const table_t& table = *finest_table(device);
            switch (_random.below(8)) {
                case 0:
                    time = table.times[_random.below(table.size())];
                    break;
                case 1:
                    time = last - _random.between(0, 30) * step;
                    break;
                case 2:
                    time = last + _random.between(1, 100);
                    break;
                case 3:
                    time = last - _random.between(1, 3000);
                    break;
                case 4:
                    time = last + _random.between(2, 300) * step;
                    break;
                case 5:
                    time = _random.chance(30) ? 0 : last + step * 2;
                    break;
                case 6:
                    time = last + _random.between(2, 5) * step;
                    break;
                default:
                    time = table.oldest() - _random.between(0, 5) * step;
            }
        }
        if (_random.per_mille(3)) time = _random.between(-2, 1);
        return time > LAST_TIME ? last - step : time;
    }

    operation_t record(const device_t& device)
    {
        operation_t op = of(kind_t::RECORD);
        op.device = device;
        op.params = stored_params(device.index);
        if (_random.chance(_run > 0 ? 4 : 25)) op.params = some_params(device.index);
        if (_random.chance(2))
            for (param_t& param : op.params)
                param.keeps[_random.below(AGGREGATES)] ^= true;
        op.time = some_time(device.index);
        op.percent = some_percent();
        op.samples.resize(op.params.size(), NO_VALUES);
        const unsigned int dense = _random.pick({0u, 90u, 100u, 100u});
        for (values_t& values : op.samples)
            for (double& value : values)
                if (_random.chance(dense)) value = some_value();
        if (_random.per_mille(4)) op.samples.push_back(NO_VALUES);
        if (_random.per_mille(4) && !op.samples.empty()) op.samples.pop_back();
        return op;
    }

    operation_t some_record() { return record(some_device()); }

    // Enough rows in a row for coarse ones to form.
    operation_t start_run()
    {
        if (state().periods.empty()) return change_period();
        const device_t device = some_device();
        if (state().devices.count(device.index) == 0) return change_device();
        if (stored_params(device.index).empty()) return add_params();
        _run = _random.between(1, _random.chance(10) ? 130 : 30);
        _run_device = device.index;
        return record(device);
    }

    operation_t fill()
    {
        operation_t op = of(kind_t::FILL);
        op.device = some_device();
        op.mark_valid = _random.chance(30);
        const int64_t step = finest_step();
        op.time = newest(op.device.index) + step * (_random.chance(5) ? _random.between(300, 20000)
                                                                      : _random.between(-2, 60));
        if (_random.chance(40)) op.time += _random.between(-59, 59);
        op.time = std::clamp<int64_t>(op.time, -2, LAST_TIME);
        return op;
    }

    int64_t some_bound(int64_t device)
    {
        if (_random.chance(40)) return NONE;
        if (_random.chance(2)) return -2;
        const table_t* table = finest_table(device);
        if (table == nullptr || table->empty()) return _random.between(0, 1000);
        const int64_t time = table->times[_random.below(table->size())];
        return std::max<int64_t>(time + (_random.chance(30) ? _random.between(-4000, 4000) : 0), 0);
    }

    operation_t read()
    {
        operation_t op = of(kind_t::READ);
        op.device = some_device();
        if (_random.chance(60)) op.params = some_params(op.device.index);
        for (param_t& param : op.params)
            if (_random.chance(15)) param.keeps[_random.below(AGGREGATES)] = false;
        if (_random.chance(60) && !state().periods.empty()) {
            for (const auto& [minutes, rows] : state().periods)
                if (_random.chance(65)) op.periods.push_back({minutes, rows});
            for (size_t i = op.periods.size(); i > 1; --i)
                std::swap(op.periods[i - 1], op.periods[_random.below(i)]);
            if (_random.chance(4)) op.periods.push_back(some_period());
        }
        op.first = some_bound(op.device.index);
        op.second = some_bound(op.device.index);
        if (_random.chance(35)) op.limit = static_cast<uint64_t>(_random.between(1, 30));
        if (_random.chance(30)) op.offset = static_cast<uint64_t>(_random.between(1, 40));
        if (_random.chance(2)) op.limit = std::numeric_limits<uint64_t>::max();
        if (_random.chance(2)) op.offset = std::numeric_limits<uint64_t>::max();
        op.ascending = _random.chance(60);
        op.no_overlap = _random.chance(50);
        op.in_place = _random.chance(5);
        return op;
    }

    operation_t clear()
    {
        operation_t op = of(kind_t::CLEAR);
        op.device = some_device();
        op.first = some_bound(op.device.index);
        op.second = some_bound(op.device.index);
        if (op.first == NONE && op.second == NONE && _random.chance(50)) op.second = 0;
        return op;
    }

    random_t _random;
    log_t _log;
    bool _failed = false;  // the call before
    int64_t _run = 0;      // rows still to record in a row
    int64_t _run_device = NONE;
};

}  // namespace

operations_t generate(uint64_t seed, size_t count) { return generator_t(seed).run(count); }

}  // namespace model
