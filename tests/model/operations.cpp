#include "operations.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace model {

namespace {

std::string quoted(const std::string& str) { return '"' + str + '"'; }

std::string text(bool value) { return value ? "true" : "false"; }

template <typename Items, typename Text>
std::string list(const Items& items, Text text_of)
{
    std::string out = "{";
    for (size_t i = 0; i < items.size(); ++i)
        out += (i == 0 ? "" : ", ") + text_of(items[i]);
    return out + "}";
}

std::string text(const device_t& device)
{
    return "device " + std::to_string(device.index) + " " + quoted(device.path);
}

std::string text(const period_t& period)
{
    return std::to_string(period.minutes) + " min x " + std::to_string(period.rows);
}

constexpr const char* AGGREGATE_NAMES[AGGREGATES] = {"min", "max", "avg", "actual", "sum"};

std::string text(const param_t& param)
{
    std::string out = std::to_string(param.index) + " " + quoted(param.path);
    out += param.type == VALUE          ? " value"
           : param.type == POWER_FACTOR ? " pf"
                                        : " type " + std::to_string(param.type);
    for (size_t i = 0; i < AGGREGATES; ++i)
        if (param.keeps[i]) out += std::string(" ") + AGGREGATE_NAMES[i];
    return out;
}

std::string text(const param_t& param, const values_t& values)
{
    std::string out = std::to_string(param.index) + ":";
    for (size_t i = 0; i < AGGREGATES; ++i)
        if (param.keeps[i])
            out += std::string(" ") + AGGREGATE_NAMES[i] + "=" + model::text(values[i]);
    return out;
}

std::string text(const std::vector<param_t>& params)
{
    return list(params, [](const param_t& param) { return text(param); });
}

std::string text(const std::vector<period_t>& periods)
{
    return list(periods, [](const period_t& period) { return text(period); });
}

std::string samples_text(const operation_t& op)
{
    std::string out = "{";
    for (size_t i = 0; i < op.params.size(); ++i)
        out += (i == 0 ? "" : "; ") +
               text(op.params[i], i < op.samples.size() ? op.samples[i] : NO_VALUES);
    out += "}";
    if (op.samples.size() != op.params.size())
        out += ", but " + std::to_string(op.samples.size()) + " samples";
    return out;
}

}  // namespace

std::string text(double value)
{
    if (std::isnan(value)) return "absent";
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

namespace {

std::string describe_call(const operation_t& op)
{
    const std::string bounds = std::to_string(op.first) + " to " + std::to_string(op.second);
    switch (op.kind) {
        case kind_t::OPEN:
            return "open " + quoted(op.name) + (op.read_only ? ", read-only" : "") +
                   (op.create ? ", create" : "") + ", pool of " + std::to_string(op.capacity);
        case kind_t::CLOSE:
            return "close";
        case kind_t::BEGIN:
            return "begin_transaction";
        case kind_t::COMMIT:
            return "end_transaction";
        case kind_t::ROLL_BACK:
            return "rollback_transaction";
        case kind_t::VACUUM:
            return "vacuum";
        case kind_t::CHECKPOINT:
            return "checkpoint";
        case kind_t::LIST_PERIODS:
            return "get_periods";
        case kind_t::LIST_DEVICES:
            return "get_devices";
        case kind_t::LIST_PARAMS:
            return "get_params of " + text(op.device);
        case kind_t::ADD_PERIOD:
            return "add_period " + text(op.period);
        case kind_t::MODIFY_PERIOD:
            return "modify_period " + text(op.period);
        case kind_t::REMOVE_PERIOD:
            return "remove_period " + text(op.period);
        case kind_t::NEXT_BOUNDARY:
            return "next_interval_boundary of " + std::to_string(op.period.minutes) + " min at " +
                   std::to_string(op.time);
        case kind_t::PREVIOUS_BOUNDARY:
            return "previous_interval_boundary of " + std::to_string(op.period.minutes) +
                   " min at " + std::to_string(op.time);
        case kind_t::RATIOS:
            return "calc_period_ratios of " + text(op.periods) + " into " +
                   list(op.ratios, [](uint64_t ratio) { return std::to_string(ratio); });
        case kind_t::ADD_DEVICE:
            return "add_device " + quoted(op.device.path) + ", GUID " + quoted(op.device.guid);
        case kind_t::MODIFY_DEVICE:
            return "modify_device " + text(op.device) + ", GUID " + quoted(op.device.guid);
        case kind_t::REMOVE_DEVICE:
            return "remove_device " + text(op.device);
        case kind_t::ADD_PARAMS:
            return "add_params to " + text(op.device) + ": " + text(op.params);
        case kind_t::MODIFY_PARAMS:
            return "modify_params of " + text(op.device) + ": " + text(op.params);
        case kind_t::REMOVE_PARAMS:
            return "remove_params of " + text(op.device) + ": " + text(op.params);
        case kind_t::RECORD:
            return "add_trend_data of " + text(op.device) + " at " + std::to_string(op.time) +
                   ", " + model::text(op.percent) + " % valid: " + samples_text(op);
        case kind_t::LATEST:
            return "get_latest_timestamp of " + text(op.device);
        case kind_t::FILL:
            return "fill_blank_values of " + text(op.device) + " up to " + std::to_string(op.time) +
                   (op.mark_valid ? ", marked valid" : "");
        case kind_t::READ:
            return "get_trend_data of " + text(op.device) + ": params " + text(op.params) +
                   ", periods " + text(op.periods) + ", " + bounds + ", limit " +
                   std::to_string(op.limit) + ", offset " + std::to_string(op.offset) +
                   ", ascending " + text(op.ascending) + ", no overlap " + text(op.no_overlap) +
                   (op.in_place ? ", into the request" : "");
        case kind_t::CLEAR:
            return "clear_trend_data of " + text(op.device) + ": " + bounds;
    }
    return "?";
}

reply_t apply_call(const operation_t& op, log_t& log)
{
    reply_t reply;
    reply.params = op.params;
    switch (op.kind) {
        case kind_t::OPEN:
            reply.code = log.open(op.name, op.read_only, op.create, op.capacity);
            break;
        case kind_t::CLOSE:
            log.close();
            break;
        case kind_t::BEGIN:
            reply.code = log.begin();
            break;
        case kind_t::COMMIT:
            reply.code = log.commit();
            break;
        case kind_t::ROLL_BACK:
            log.roll_back();
            break;
        case kind_t::VACUUM:
            reply.code = log.vacuum();
            break;
        case kind_t::CHECKPOINT:
            reply.code = log.checkpoint();
            break;
        case kind_t::LIST_PERIODS:
            reply.code = log.list_periods(reply.periods);
            break;
        case kind_t::LIST_DEVICES:
            reply.code = log.list_devices(reply.devices);
            break;
        case kind_t::LIST_PARAMS:
            reply.code = log.list_params(op.device, reply.params);
            break;
        case kind_t::ADD_PERIOD:
            reply.code = log.add_period(op.period);
            break;
        case kind_t::MODIFY_PERIOD:
            reply.code = log.modify_period(op.period);
            break;
        case kind_t::REMOVE_PERIOD:
            reply.code = log.remove_period(op.period);
            break;
        case kind_t::NEXT_BOUNDARY:
            reply.code = log.next_boundary(op.period.minutes, op.time);
            break;
        case kind_t::PREVIOUS_BOUNDARY:
            reply.code = log.previous_boundary(op.period.minutes, op.time);
            break;
        case kind_t::RATIOS:
            reply.ratios = op.ratios;
            reply.code = log.ratios(op.periods, reply.ratios);
            break;
        case kind_t::ADD_DEVICE: {
            device_t device = op.device;
            reply.code = log.add_device(device);
            reply.index = device.index;
            break;
        }
        case kind_t::MODIFY_DEVICE:
            reply.code = log.modify_device(op.device);
            break;
        case kind_t::REMOVE_DEVICE:
            reply.code = log.remove_device(op.device);
            break;
        case kind_t::ADD_PARAMS:
            reply.code = log.add_params(op.device, reply.params);
            break;
        case kind_t::MODIFY_PARAMS:
            reply.code = log.modify_params(op.device, op.params);
            break;
        case kind_t::REMOVE_PARAMS:
            reply.code = log.remove_params(op.device, op.params);
            break;
        case kind_t::RECORD:
            reply.code = log.record(op.device, op.params, op.time, op.percent, op.samples);
            break;
        case kind_t::LATEST:
            reply.code = log.latest(op.device, reply.time);
            break;
        case kind_t::FILL:
            reply.code = log.fill(op.device, op.time, op.mark_valid);
            break;
        case kind_t::READ:
            reply.code = log.read({op.device, op.params, op.periods, op.first, op.second, op.limit,
                                   op.offset, op.ascending, op.no_overlap},
                                  reply.read);
            reply.params = reply.read.params;
            reply.devices = {op.device};
            break;
        case kind_t::CLEAR:
            reply.code = log.clear(op.device, op.first, op.second);
            break;
    }
    return reply;
}

// Others cannot write where the log has begun to, nor be told from a log that cannot.
bool is_in_the_way(const operation_t& op, const log_t& log)
{
    if (op.by == by_t::THE_LOG) return false;
    if (!log.is_open() || log.is_read_only() || !changes(op.kind)) return true;
    if (op.by != by_t::THE_HANDLE) return log.level() > 0;
    const auto device = log.state().devices.find(op.device.index);
    return op.kind != kind_t::CLEAR || device == log.state().devices.end() ||
           op.device.path.empty() || log.state().periods.empty() || op.first < NONE ||
           op.second < NONE;
}

}  // namespace

std::string describe(const operation_t& op)
{
    switch (op.by) {
        case by_t::THE_LOG:
            return describe_call(op);
        case by_t::ANOTHER_LOG:
            return "another log: " + describe_call(op);
        case by_t::ANOTHER_IN_BETWEEN:
            return "begin_transaction, another log: " + describe_call(op);
        case by_t::THE_HANDLE:
            return "on the raw handle: " + describe_call(op);
    }
    return "?";
}

reply_t apply(const operation_t& op, log_t& log)
{
    const reply_t reply = apply_call(op, log);
    if (op.by == by_t::ANOTHER_IN_BETWEEN) log.begin();
    return reply;
}

bool changes(kind_t kind)
{
    switch (kind) {
        case kind_t::ADD_PERIOD:
        case kind_t::MODIFY_PERIOD:
        case kind_t::REMOVE_PERIOD:
        case kind_t::ADD_DEVICE:
        case kind_t::MODIFY_DEVICE:
        case kind_t::REMOVE_DEVICE:
        case kind_t::ADD_PARAMS:
        case kind_t::MODIFY_PARAMS:
        case kind_t::REMOVE_PARAMS:
        case kind_t::RECORD:
        case kind_t::FILL:
        case kind_t::CLEAR:
            return true;
        default:
            return false;
    }
}

bool out_of_bounds(const operation_t& op, const log_t& log)
{
    if (is_in_the_way(op, log)) return true;
    const bool checked_device = log.is_open() && !op.device.path.empty() && op.device.index >= 0;
    switch (op.kind) {
        case kind_t::BEGIN:
            return !log.is_open();
        case kind_t::COMMIT:
        case kind_t::ROLL_BACK:
            return log.level() == 0;

        // Inside a transaction its result depends on whether SQLite holds a lock already.
        case kind_t::CHECKPOINT:
            return log.level() > 0;

        case kind_t::NEXT_BOUNDARY:
        case kind_t::PREVIOUS_BOUNDARY:
            return op.time < 0;
        case kind_t::RATIOS:
            if (op.periods.empty()) return true;
            for (size_t i = 0; i < op.periods.size(); ++i)
                if (op.periods[i].minutes == 0 ||
                    (i > 0 && op.periods[i].minutes < op.periods[i - 1].minutes))
                    return true;
            return false;

        // These need a period, the second also a time that is not the clock's.
        case kind_t::ADD_PARAMS:
            return checked_device && !op.params.empty() && log.state().periods.empty();
        case kind_t::FILL:
            return op.time == -1 || (checked_device && op.time >= 0 && log.state().periods.empty());

        // A refused list stores its entries up to the one at fault. Inside a host's transaction
        // they stay, and a parameter with an empty path can never be read again.
        case kind_t::MODIFY_PARAMS:
            if (log.level() == 0) return false;
            for (const param_t& param : op.params)
                if (param.path.empty()) return true;
            return false;

        // A parameter without an identifier needs a list of periods; overlap needs valid periods.
        case kind_t::READ:
            if (!checked_device) return false;
            for (const param_t& param : op.params)
                if (op.periods.empty() && param.index < 0) return true;
            for (const period_t& period : op.periods)
                if (op.no_overlap && (period.minutes == 0 || period.rows == 0)) return true;
            return false;

        default:
            return false;
    }
}

std::vector<operation_t> simpler(const operation_t& op)
{
    std::vector<operation_t> found;
    const auto with = [&](auto change) {
        operation_t copy = op;
        change(copy);
        found.push_back(std::move(copy));
    };
    for (size_t i = 0; i < op.params.size(); ++i)
        with([&](operation_t& copy) {
            const auto at = static_cast<std::ptrdiff_t>(i);
            copy.params.erase(copy.params.begin() + at);
            if (i < copy.samples.size()) copy.samples.erase(copy.samples.begin() + at);
        });
    for (size_t i = 0; i < op.periods.size(); ++i)
        with([&](operation_t& copy) {
            copy.periods.erase(copy.periods.begin() + static_cast<std::ptrdiff_t>(i));
        });
    for (size_t i = 0; i < op.params.size(); ++i)
        for (size_t j = 0; j < AGGREGATES; ++j) {
            if (!op.params[i].keeps[j]) continue;
            with([&](operation_t& copy) { copy.params[i].keeps[j] = false; });
            if (i < op.samples.size() && !std::isnan(op.samples[i][j]))
                with([&](operation_t& copy) { copy.samples[i][j] = ABSENT; });
            if (i < op.samples.size() && op.samples[i][j] != std::trunc(op.samples[i][j]))
                with([&](operation_t& copy) {
                    copy.samples[i][j] = std::trunc(copy.samples[i][j]);
                });
        }
    if (op.kind == kind_t::RECORD && op.percent != 100)
        with([](operation_t& copy) { copy.percent = 100; });
    if (op.first != NONE) with([](operation_t& copy) { copy.first = NONE; });
    if (op.second != NONE) with([](operation_t& copy) { copy.second = NONE; });
    if (op.limit != 0) with([](operation_t& copy) { copy.limit = 0; });
    if (op.offset != 0) with([](operation_t& copy) { copy.offset = 0; });
    if (!op.ascending) with([](operation_t& copy) { copy.ascending = true; });
    if (op.no_overlap) with([](operation_t& copy) { copy.no_overlap = false; });
    if (op.mark_valid) with([](operation_t& copy) { copy.mark_valid = false; });
    if (op.in_place) with([](operation_t& copy) { copy.in_place = false; });
    if (op.by != by_t::THE_LOG) with([](operation_t& copy) { copy.by = by_t::THE_LOG; });
    return found;
}

}  // namespace model
