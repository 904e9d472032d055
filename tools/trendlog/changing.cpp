#include "changing.h"

#include <algorithm>

#include "numbers.h"
#include "output/sink.h"
#include "selection.h"
#include "talk.h"
#include "times.h"
#include "trend_transaction.h"

namespace trendlog {

bool is_dry_run(const CArguments& arguments) { return arguments.has("--dry-run"); }

bool has_consent(const CLogFile& file, const CArguments& arguments, const outcome_t& outcome)
{
    if (outcome._dropped == 0 || arguments.has("--yes") || is_dry_run(arguments)) return true;
    if (!can_ask())
        file.fail("nothing done, since this would be: " + outcome._text +
                  "; -y agrees to that, and there is no terminal to ask at");
    return ask(file.name() + ": this would be: " + outcome._text + ". Go on?");
}

void tell_outcome(const CLogFile& file, const CArguments& arguments, const std::string& text)
{
    CSink sink;
    sink.add(file.name() + ": " + (is_dry_run(arguments) ? "dry run, nothing done: " : "") + text +
             "\n");
    sink.flush();
}

exit_code_t make_change(CLogFile& file, const CArguments& arguments, const change_t& work)
{
    outcome_t outcome;
    bool is_made = false;
    const auto attempt = [&](bool may_drop) {
        file.change([&] {
            outcome = {};
            CTransaction transaction(file.log());
            if (const int failed = transaction.failed()) return failed;
            if (const int failed = work(file.log(), outcome)) return failed;
            is_made = !is_dry_run(arguments) && (may_drop || outcome._dropped == 0);
            return is_made ? transaction.commit() : 0;
        });
    };
    attempt(arguments.has("--yes"));
    if (!is_made && !is_dry_run(arguments)) {
        if (!has_consent(file, arguments, outcome)) {
            say(file.name() + ": nothing done");
            return EXIT_FAILED;
        }
        attempt(true);
    }
    tell_outcome(file, arguments, outcome._text);
    return EXIT_DONE;
}

// Within a change ------------------------------------------------------------------------------

namespace {

std::string known_ones(std::vector<std::string> names)
{
    constexpr size_t SHOWN = 5;
    std::string text;
    for (size_t i = 0; i < std::min(SHOWN, names.size()); ++i)
        text += (i == 0 ? "'" : ", '") + names[i] + "'";
    if (names.size() > SHOWN) text += " and " + std::to_string(names.size() - SHOWN) + " more";
    return text.empty() ? "none" : text;
}

}  // namespace

int find_device(CLogFile& file, const std::string& path, CDeviceProperties& device)
{
    std::vector<CDeviceProperties> devices;
    if (const int failed = file.log().get_devices(devices)) return failed;
    std::vector<std::string> names;
    for (const CDeviceProperties& each : devices) {
        names.push_back(each._path);
        if (each._path != path) continue;
        device = each;
        return 0;
    }
    file.fail("there is no device '" + path + "'; it has " + known_ones(names));
}

int find_param(CLogFile& file, const CDeviceProperties& device, const std::string& path,
               CParamProperties& param)
{
    std::vector<CParamProperties> params;
    if (const int failed = file.log().get_params(device, params)) return failed;
    std::vector<std::string> names;
    for (const CParamProperties& each : params) {
        names.push_back(each._path);
        if (each._path != path) continue;
        param = each;
        return 0;
    }
    file.fail("device '" + device._path + "' has no parameter '" + path + "'; it has " +
              known_ones(names));
}

int look_at_tables(CLog& log, const CDeviceProperties& device,
                   const std::vector<CParamProperties>& params, const timebounds_t& bounds,
                   std::vector<CCoverage>& tables)
{
    tables.clear();
    std::vector<CParamProperties> stored;
    std::vector<CPeriodProperties> periods;
    if (const int failed = log.get_params(device, stored)) return failed;
    if (const int failed = log.get_periods(periods)) return failed;
    if (stored.empty() || periods.empty()) return 0;
    CReadRequest request;
    request._device = device;
    request._params = params;
    request._bounds = bounds;
    return CReader(log).coverage(request, tables);
}

uint64_t rows_of(const std::vector<CCoverage>& tables)
{
    uint64_t rows = 0;
    for (const CCoverage& table : tables)
        rows += static_cast<uint64_t>(table._rows);
    return rows;
}

namespace {

// Writes each label that `renamed` changes under its new name, and drops it under the old one.
int rewrite_labels(CLog& log, const std::function<bool(CLabel&)>& renamed)
{
    std::vector<CLabel> labels;
    if (const int failed = read_labels(log, labels)) return failed;
    for (const CLabel& label : labels) {
        CLabel moved = label;
        if (!renamed(moved)) continue;
        if (const int failed = write_label(log, {label._device, label._param, "", ""}))
            return failed;
        if (moved._device.empty()) continue;
        if (const int failed = write_label(log, moved)) return failed;
    }
    return 0;
}

}  // namespace

int move_labels(CLog& log, const std::string& device, const std::string& new_device)
{
    return rewrite_labels(log, [&](CLabel& label) {
        if (label._device != device) return false;
        label._device = new_device;
        return true;
    });
}

int move_labels(CLog& log, const std::string& device, const std::string& param,
                const std::string& new_param)
{
    return rewrite_labels(log, [&](CLabel& label) {
        if (label._device != device || label._param != param) return false;
        label._param = new_param;
        if (new_param.empty()) label._device.clear();
        return true;
    });
}

// Of options -----------------------------------------------------------------------------------

namespace {

std::vector<std::string> split(const std::string& text)
{
    CArguments words;
    words._values[""] = {text};
    return words.list("");
}

struct kind_name_t {
    const char* _name;
    reading_kind_t _kind;
    std::vector<const char*> _keep;
};

const std::vector<kind_name_t> KINDS = {
    {"gauge", READING_GAUGE, {"min", "max", "avg"}},
    {"pf", READING_POWER_FACTOR, {"min", "max", "avg"}},
    {"counter", READING_COUNTER, {"sum"}},
    {"total", READING_TOTAL, {"sum"}},
};

const kind_name_t& kind_entry(reading_kind_t kind)
{
    const auto found = std::find_if(KINDS.begin(), KINDS.end(),
                                    [&](const kind_name_t& each) { return each._kind == kind; });
    return found == KINDS.end() ? KINDS.front() : *found;
}

}  // namespace

std::vector<CPeriodProperties> parse_periods(const std::string& text)
{
    std::vector<CPeriodProperties> periods;
    for (const std::string& part : split(text)) {
        const size_t colon = part.find(':');
        uint32_t rows = 0;
        if (colon == std::string::npos || !read_number(part.substr(colon + 1), rows) || rows == 0)
            throw usage_t("'" + part +
                          "' is no period with its number of rows; they are like 1:2880,15:2976");
        periods.emplace_back(parse_period(part.substr(0, colon)), rows);
    }
    if (periods.empty()) throw usage_t("no periods; they are like 1:2880,15:2976");
    for (size_t i = 0; i + 1 < periods.size(); ++i) {
        const unsigned long finer = periods[i]._period, coarser = periods[i + 1]._period;
        if (coarser / finer < 2 || coarser % finer != 0)
            throw usage_t("a period of " + duration_text(int64_t(coarser) * 60) +
                          " cannot be made of rows of " + duration_text(int64_t(finer) * 60) +
                          ": each is a multiple of the one before");
        if (periods[i]._max_entries / 2 < coarser / finer)
            throw usage_t("period " + duration_text(int64_t(finer) * 60) +
                          " keeps too few rows: two rows of " +
                          duration_text(int64_t(coarser) * 60) + " are made of " +
                          std::to_string(coarser / finer * 2));
    }
    return periods;
}

CRecipe::CRecipe(const CArguments& arguments) : _keep(arguments.list("--keep"))
{
    for (const std::string& name : _keep) {
        const auto is_it = [&](const aggregate_name_t& each) { return name == each._name; };
        if (std::none_of(AGGREGATE_NAMES.begin(), AGGREGATE_NAMES.end(), is_it))
            throw usage_t("--keep: '" + name + "' is none of min, max, avg, actual, sum");
    }
    if (arguments.has("--keep") && _keep.empty()) throw usage_t("--keep: nothing is kept");
    for (const std::string& word : arguments.list("--kind")) {
        const size_t equal = word.rfind('=');
        const std::string param = equal == std::string::npos ? "" : word.substr(0, equal);
        const std::string kind = equal == std::string::npos ? word : word.substr(equal + 1);
        const auto found = std::find_if(KINDS.begin(), KINDS.end(), [&](const kind_name_t& each) {
            return kind == each._name;
        });
        if (found == KINDS.end())
            throw usage_t("--kind: '" + kind + "' is none of gauge, pf, counter, total");
        _kinds.emplace_back(param, found->_kind);
    }
}

reading_kind_t CRecipe::kind_of(const std::string& param) const
{
    reading_kind_t kind = READING_LISTEND;
    for (const auto& [name, each] : _kinds) {
        if (name == param) return each;
        if (name.empty()) kind = each;
    }
    return kind;
}

CParamProperties CRecipe::make(const std::string& param) const
{
    const kind_name_t& kind = kind_entry(kind_of(param));
    CParamProperties made;
    made._path = param;
    made._type = kind._kind == READING_POWER_FACTOR ? SAMPLE_TYPE_PF : SAMPLE_TYPE_VALUE;
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
        made.*aggregate._kept =
            _keep.empty() ? std::find(kind._keep.begin(), kind._keep.end(),
                                      std::string(aggregate._name)) != kind._keep.end()
                          : std::find(_keep.begin(), _keep.end(), aggregate._name) != _keep.end();
    return made;
}

const options_t& recipe_options()
{
    static const options_t options = {
        {"--keep", "A,...", "of new ones: min,max,avg (unless given), actual, sum"},
        {"--kind", "P=KIND,...", "of new ones: gauge (unless given), pf, counter, total"},
    };
    return options;
}

}  // namespace trendlog
