#include <algorithm>

#include "changing.h"
#include "commands/commands.h"
#include "numbers.h"
#include "talk.h"
#include "times.h"

namespace trendlog {

namespace {

std::string name_of(const CPeriodProperties& period)
{
    return duration_text(static_cast<int64_t>(period._period) * 60);
}

int find_period(CLogFile& file, const std::string& text, CPeriodProperties& period)
{
    const unsigned long minutes = parse_period(text);
    std::vector<CPeriodProperties> periods;
    if (const int failed = file.log().get_periods(periods)) return failed;
    std::string known;
    for (const CPeriodProperties& each : periods) {
        known += (known.empty() ? "" : ", ") + name_of(each);
        if (each._period != minutes) continue;
        period = each;
        return 0;
    }
    file.fail("there is no period of " + name_of({minutes, 0}) + "; it has " +
              (known.empty() ? "none" : known));
}

// Rows of one period in the tables of all devices.
int count_rows(CLog& log, const CPeriodProperties& period, uint64_t& rows)
{
    rows = 0;
    std::vector<CDeviceProperties> devices;
    if (const int failed = log.get_devices(devices)) return failed;
    for (const CDeviceProperties& device : devices) {
        std::vector<CCoverage> tables;
        if (const int failed = look_at_tables(log, device, {}, {-1, -1}, tables)) return failed;
        for (const CCoverage& table : tables)
            if (table._period._period == period._period) rows += static_cast<uint64_t>(table._rows);
    }
    return 0;
}

size_t rows_to_keep(const CArguments& arguments)
{
    if (!arguments.has("--keep-rows")) throw usage_t("--keep-rows says how many rows are kept");
    return static_cast<size_t>(arguments.integer("--keep-rows", 0, 1, UINT32_MAX));
}

// What check_log() would find about how many rows the periods keep.
std::string advice(const std::vector<CPeriodProperties>& periods)
{
    std::string text;
    for (size_t i = 0; i + 1 < periods.size(); ++i) {
        const unsigned long rows = periods[i + 1]._period / periods[i]._period * 2;
        if (periods[i]._max_entries < rows)
            text += "; beware: period " + name_of(periods[i]) + " keeps too few rows, two of " +
                    name_of(periods[i + 1]) + " are made of " + std::to_string(rows);
    }
    return text;
}

// Adding ---------------------------------------------------------------------------------------

// Coarse rows are counted from the oldest finer row that is there, so that is to be the first one
// after a boundary of the new period: what is before goes, less than one row of the new period.
int cut_to_boundary(CLogFile& file, const CDeviceProperties& device, const CPeriodProperties& finer,
                    const CPeriodProperties& period)
{
    std::vector<CCoverage> tables;
    if (const int failed = look_at_tables(file.log(), device, {}, {-1, -1}, tables)) return failed;
    const auto found = std::find_if(tables.begin(), tables.end(), [&](const CCoverage& table) {
        return table._period._period == finer._period;
    });
    if (found == tables.end() || found->_rows == 0) return 0;  // it begins on a boundary

    const auto step = static_cast<int64_t>(finer._period) * 60;
    const auto length = static_cast<int64_t>(period._period) * 60;
    const int64_t last = found->_last, first = found->_first;
    const int64_t kept = static_cast<int64_t>(finer._max_entries) * step;
    const int64_t start = std::max<int64_t>({first - step, last - kept, 0});
    const int64_t boundary = (start + length - 1) / length * length;
    if (last - boundary < step)
        file.fail("too early: device '" + device._path + "' has no row of " + name_of(finer) +
                  " yet that begins a row of " + name_of(period) + "; there is one from " +
                  CZone().text(boundary + step) + " on");
    const auto entries = static_cast<size_t>((last - boundary) / step);
    return file.log().trim_period_table(device, {finer._period, entries}, false);
}

// With rows of the next finer period that are there, on the clock.
int fill_period(CLogFile& file, const std::vector<CPeriodProperties>& periods,
                const CPeriodProperties& period)
{
    CLog& log = file.log();
    const auto added = std::lower_bound(periods.begin(), periods.end(), period);
    if (added == periods.begin()) return 0;  // the finest one begins empty
    const size_t finer = static_cast<size_t>(added - periods.begin()) - 1;
    std::vector<unsigned long> ratios;
    if (const int failed = CLog::calc_period_ratios(periods, ratios)) return failed;

    std::vector<CDeviceProperties> devices;
    if (const int failed = log.get_devices(devices)) return failed;
    for (const CDeviceProperties& device : devices) {
        std::vector<CParamProperties> params;
        if (const int failed = log.get_params(device, params)) return failed;
        if (params.empty()) continue;
        if (const int failed = cut_to_boundary(file, device, periods[finer], period)) return failed;
        if (const int failed = log.propagate_recent_samples(device, periods, ratios, finer, params))
            return failed;
    }
    return 0;
}

int rows_of_all(CLog& log, const std::vector<CPeriodProperties>& periods, uint64_t& rows)
{
    rows = 0;
    for (const CPeriodProperties& period : periods) {
        uint64_t each = 0;
        if (const int failed = count_rows(log, period, each)) return failed;
        rows += each;
    }
    return 0;
}

exit_code_t run_add(const CArguments& arguments)
{
    const CPeriodProperties period(parse_period(arguments.text("PERIOD")), rows_to_keep(arguments));
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        std::vector<CPeriodProperties> periods;
        if (const int failed = log.get_periods(periods)) return failed;
        const std::vector<CPeriodProperties> before = periods;
        const auto place = std::lower_bound(periods.begin(), periods.end(), period);
        if (place != periods.end() && place->_period == period._period)
            file.fail("there is a period of " + name_of(period) +
                      " already; `trendlog period set` changes it");
        periods.insert(place, period);
        for (size_t i = 0; i + 1 < periods.size(); ++i)
            if (periods[i + 1]._period % periods[i]._period != 0)
                file.fail("a period of " + name_of(periods[i + 1]) + " cannot be made of rows of " +
                          name_of(periods[i]) +
                          ": each period is a multiple of the next finer one");

        uint64_t had = 0, has = 0, made = 0;
        if (const int failed = rows_of_all(log, before, had)) return failed;
        if (const int failed = log.add_period(period)) return failed;
        if (const int failed = fill_period(file, periods, period)) return failed;
        if (const int failed = rows_of_all(log, before, has)) return failed;
        if (const int failed = count_rows(log, period, made)) return failed;
        outcome._dropped = had > has ? had - has : 0;
        outcome._text = "period " + name_of(period) + " added, " + counted(made, "row") + " made";
        if (outcome._dropped > 0)
            outcome._text += ", " + counted(outcome._dropped, "finer row") +
                             " dropped before its first boundary or beyond what is kept";
        outcome._text += advice(periods);
        return 0;
    });
}

// Changing and removing ------------------------------------------------------------------------

exit_code_t run_set(const CArguments& arguments)
{
    const size_t keep = rows_to_keep(arguments);
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CPeriodProperties period;
        uint64_t had = 0, has = 0;
        if (const int failed = find_period(file, arguments.text("PERIOD"), period)) return failed;
        if (const int failed = count_rows(log, period, had)) return failed;
        const size_t kept = period._max_entries;
        period._max_entries = keep;
        if (const int failed = log.modify_period(period)) return failed;
        if (const int failed = count_rows(log, period, has)) return failed;
        std::vector<CPeriodProperties> periods;
        if (const int failed = log.get_periods(periods)) return failed;
        outcome._dropped = had - has;
        outcome._text = "period " + name_of(period) + " keeps " + counted(keep, "row") + " (" +
                        duration_text(static_cast<int64_t>(period._period * keep) * 60) +
                        ") instead of " + std::to_string(kept);
        if (outcome._dropped > 0)
            outcome._text += ", " + counted(outcome._dropped, "row") + " dropped";
        outcome._text += advice(periods);
        return 0;
    });
}

exit_code_t run_remove(const CArguments& arguments)
{
    CLogFile file(arguments, TO_CHANGE);
    return make_change(file, arguments, [&](CLog& log, outcome_t& outcome) {
        CPeriodProperties period;
        if (const int failed = find_period(file, arguments.text("PERIOD"), period)) return failed;
        if (const int failed = count_rows(log, period, outcome._dropped)) return failed;
        if (const int failed = log.remove_period(period)) return failed;
        std::vector<CPeriodProperties> periods;
        if (const int failed = log.get_periods(periods)) return failed;
        outcome._text = "period " + name_of(period) + " removed, " +
                        counted(outcome._dropped, "row") + " dropped" + advice(periods);
        return 0;
    });
}

const std::vector<argument_t>& arguments_of_all()
{
    static const std::vector<argument_t> arguments = {
        {"FILE", "the log"}, {"PERIOD", "its length: 15 (minutes), 15m, 1h, 1d"}};
    return arguments;
}

const options_t& keep_rows()
{
    static const options_t options = {{"--keep-rows", "N", "how many rows are kept"}};
    return options;
}

}  // namespace

command_t period_add_command()
{
    return {"period add",
            SECTION_CHANGE,
            "Add a period",
            "It is made at once of the rows of the next finer one, on the clock: finer rows before "
            "its first boundary, less than one of its rows, are dropped.",
            arguments_of_all(),
            keep_rows() + dry_run_options() + common_options(),
            {{"trendlog period add house.db 1h --keep-rows 2400 -y", "Hours for a hundred days"},
             {"trendlog period add house.db 1d --keep-rows 3650 --dry-run", "What would be made"}},
            run_add};
}

command_t period_set_command()
{
    return {"period set",
            SECTION_CHANGE,
            "Change how many rows a period keeps",
            "What is beyond is dropped from the tables of all devices.",
            arguments_of_all(),
            keep_rows() + dry_run_options() + common_options(),
            {{"trendlog period set plant.db 15 --keep-rows 3000", "Keep more of the quarters"},
             {"trendlog period set plant.db 1h --keep-rows 720 --dry-run",
              "How much would go if hours were kept for a month"}},
            run_set};
}

command_t period_remove_command()
{
    return {"period remove",
            SECTION_CHANGE,
            "Remove a period with its rows",
            "Of all devices.",
            arguments_of_all(),
            dry_run_options() + common_options(),
            {{"trendlog period remove plant.db 1h --dry-run", "How many rows would go"},
             {"trendlog period remove plant.db 1h -y", "Without being asked"}},
            run_remove};
}

}  // namespace trendlog
