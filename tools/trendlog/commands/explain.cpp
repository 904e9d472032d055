#include <algorithm>
#include <cmath>

#include "commands/commands.h"
#include "numbers.h"
#include "selection.h"

namespace trendlog {

namespace {

// What one aggregate of the coarse row should be, and how that was worked out.
struct answer_t {
    COptVal _value;
    std::string _how;
};

struct case_t {
    CParamProperties _param;
    CInterval _coarse;
    std::vector<CInterval> _fine;  // their first sample is that of the parameter

    bool is_factor() const { return _param._type == SAMPLE_TYPE_PF; }
};

// Power factors are ordered and averaged on a scale from 0 over +1 = -1 (at 1) to -0 (at 2).
double on_scale(double value) { return value < 0 ? value + 2 : value; }
double off_scale(double value) { return value > 1 ? value - 2 : value; }

// Sums with the rest that a plain sum would lose: what is worked out here is to be right.
class CSum {
public:
    void add(double value)
    {
        const double next = _sum + value;
        _rest +=
            std::fabs(_sum) >= std::fabs(value) ? (_sum - next) + value : (value - next) + _sum;
        _sum = next;
    }
    double value() const { return _sum + _rest; }

private:
    double _sum = 0;
    double _rest = 0;
};

answer_t extreme_of(const case_t& given, COptVal CSample::*which, bool smallest)
{
    answer_t answer;
    int n = 0;
    for (const CInterval& row : given._fine) {
        const COptVal value = row._samples[0].*which;
        if (!value) continue;
        ++n;
        const double now = given.is_factor() ? on_scale(*value) : *value;
        const double best = !answer._value      ? now
                            : given.is_factor() ? on_scale(*answer._value)
                                                : *answer._value;
        if (!answer._value || (smallest ? now < best : now > best)) answer._value = value;
    }
    answer._how = std::string(smallest ? "smallest" : "largest") + " of " +
                  counted(static_cast<uint64_t>(n), "value");
    return answer;
}

answer_t average_of(const case_t& given)
{
    CSum products, weights;
    for (const CInterval& row : given._fine) {
        const COptVal value = row._samples[0]._avg;
        const double weight = std::clamp(row._percent_valid, 0.0, 100.0);
        if (!value || weight == 0) continue;
        products.add(weight * (given.is_factor() ? on_scale(*value) : *value));
        weights.add(weight);
    }
    answer_t answer;
    if (weights.value() == 0) {
        answer._how = "no row with a weight has a value";
        return answer;
    }
    const double mean = products.value() / weights.value();
    answer._value = given.is_factor() ? off_scale(mean) : mean;
    answer._how = "sum of weight x " + std::string(given.is_factor() ? "scale" : "avg") +
                  " / sum of weights = " + short_number(products.value(), 10) + " / " +
                  short_number(weights.value(), 10);
    if (given.is_factor()) answer._how += " = " + short_number(mean, 10) + " on the scale";
    return answer;
}

answer_t sum_of(const case_t& given)
{
    CSum sum;
    uint64_t n = 0;
    for (const CInterval& row : given._fine)
        if (const COptVal value = row._samples[0]._sum) {
            sum.add(*value);
            ++n;
        }
    answer_t answer;
    if (n > 0) answer._value = sum.value();
    answer._how = "sum of " + counted(n, "value");
    return answer;
}

bool agrees(const COptVal& a, const COptVal& b)
{
    constexpr double TOLERANCE = 1e-9;
    if (!a || !b) return !a && !b;
    return *a == *b || std::fabs(*a - *b) <= TOLERANCE * std::max(1.0, std::fabs(*a));
}

// An actual value is that of one fine row, and which one depends on what the device keeps.
answer_t actual_of(const case_t& given)
{
    answer_t answer;
    const COptVal stored = given._coarse._samples[0]._actual;
    answer._how = "the value of one row";
    for (size_t i = given._fine.size(); i > 0; --i) {
        const COptVal value = given._fine[i - 1]._samples[0]._actual;
        if (!agrees(value, stored)) continue;
        answer._value = value;
        answer._how = i == given._fine.size() ? "the value of the last row"
                                              : "the value of row " + std::to_string(i);
        break;
    }
    return answer;
}

answer_t percent_of(const case_t& given)
{
    CSum sum;
    for (const CInterval& row : given._fine)
        sum.add(row._percent_valid);
    answer_t answer;
    answer._value = sum.value() / static_cast<double>(given._fine.size());
    answer._how =
        "mean = " + short_number(sum.value(), 10) + " / " + std::to_string(given._fine.size());
    return answer;
}

void write_rows(const case_t& given, const CZone& zone, CSink& sink)
{
    columns_t columns = {{"row", COLUMN_NUMBER}, {"time", COLUMN_TIME}, {"weight", COLUMN_NUMBER}};
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
        if (given._param.*aggregate._kept) columns.push_back({aggregate._name, COLUMN_NUMBER});
    const bool with_scale = given.is_factor() && given._param._has_avg;
    if (with_scale) columns.push_back({"scale", COLUMN_NUMBER});
    if (given._param._has_avg) columns.push_back({"weight x", COLUMN_NUMBER});

    const writer_t writer = make_table_writer(sink, zone);
    writer->begin(columns);
    int64_t n = 0;
    for (const CInterval& row : given._fine) {
        const CSample& sample = row._samples[0];
        cells_t cells = {++n, int64_t(row._time), row._percent_valid};
        for (const aggregate_name_t& aggregate : AGGREGATE_NAMES)
            if (given._param.*aggregate._kept) cells.push_back(sample.*aggregate._value);
        double value = sample._avg._val;
        if (with_scale) cells.push_back(COptVal(value = on_scale(value)));
        if (given._param._has_avg)
            cells.push_back(COptVal(value * std::clamp(row._percent_valid, 0.0, 100.0)));
        writer->row(cells);
    }
    writer->end();
}

// What was asked for, and what the rows of the next finer period are.
case_t find_case(CLogFile& file, const CArguments& arguments, const CZone& zone,
                 CPeriodProperties& finer)
{
    const unsigned long minutes = parse_period(arguments.text("--period"));
    CReadRequest request;
    static_cast<CDeviceParams&>(request) =
        select_params(file, file.device(arguments.text("DEVICE")), {arguments.text("PARAM")}, {});
    const std::vector<CPeriodProperties> period = select_periods(file, arguments);
    if (period.size() != 1) throw usage_t("--period: one of them");
    for (const CPeriodProperties& each : file.periods())
        if (each._period < minutes) finer = each;
    if (finer._period == 0)
        file.fail("rows of " + duration_text(static_cast<int64_t>(minutes) * 60) +
                  " are recorded, not made of others: it is the finest period");

    const timebounds_t stored = stored_bounds(file, request._device);
    const clock_t clock = {present(), [&] { return int64_t(stored.first); },
                           [&] { return int64_t(stored.second); }};
    const int64_t time = parse_time(arguments.text("TIME"), zone, clock);
    const int64_t length = static_cast<int64_t>(minutes) * 60;

    case_t given;
    given._param = request._params[0];
    bool found = false;
    request._bounds = {static_cast<time_t>(time), static_cast<time_t>(time + length - 1)};
    const auto take_first = [&](const CDeviceParams&, const CInterval& row) {
        found = true;
        given._coarse = row;
        return false;
    };
    const auto take = [&](const CDeviceParams&, const CInterval& row) {
        given._fine.push_back(row);
        return true;
    };
    file.read([&] {
        CReader reader(file.log());
        if (const int failed = reader.rows(request, period, true, false, take_first)) return failed;
        if (!found) return 0;
        const int64_t end = given._coarse._time;
        request._bounds = {static_cast<time_t>(std::max<int64_t>(0, end - length + 1)),
                           static_cast<time_t>(end)};
        return reader.rows(request, {finer}, true, false, take);
    });
    if (!found)
        file.fail("there is no row of " + duration_text(length) + " that holds " + zone.text(time));
    return given;
}

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    if (!arguments.has("--period")) throw usage_t("--period is required");
    CLogFile file(arguments, TO_LOOK);
    CPeriodProperties finer;
    const case_t given = find_case(file, arguments, zone, finer);
    const unsigned long wanted = given._coarse._period / finer._period;
    const bool is_whole = given._fine.size() == wanted;

    CSink sink;
    sink.add(arguments.text("DEVICE") + " " + given._param._path + ": the row of " +
             duration_text(static_cast<int64_t>(given._coarse._period) * 60) + " up to " +
             zone.text(given._coarse._time) + ",\nof which " + std::to_string(given._fine.size()) +
             " of " + std::to_string(wanted) + " rows of " +
             duration_text(static_cast<int64_t>(finer._period) * 60) + " are stored:\n\n");
    write_rows(given, zone, sink);
    sink.add("\n");

    bool all_agree = true;
    const auto write = [&](const char* name, const COptVal& stored, const answer_t& answer) {
        const auto shown = [](const COptVal& value) {
            std::string text;
            if (value) append_number(text, *value);
            return value ? text : std::string("absent");
        };
        sink.add(padded(name, 13) + "  stored  " + shown(stored) + "\n");
        sink.add("               made of " + shown(answer._value) + ", " + answer._how + "\n");
        const bool same = agrees(answer._value, stored);
        if (is_whole) sink.add(same ? "               agrees\n" : "               DIFFERS\n");
        all_agree = all_agree && same;
    };
    if (!given._fine.empty()) {
        const CSample& stored = given._coarse._samples[0];
        const CParamProperties& param = given._param;
        write("percent_valid", given._coarse._percent_valid, percent_of(given));
        if (param._has_min) write("min", stored._min, extreme_of(given, &CSample::_min, true));
        if (param._has_max) write("max", stored._max, extreme_of(given, &CSample::_max, false));
        if (param._has_avg) write("avg", stored._avg, average_of(given));
        if (param._has_actual) write("actual", stored._actual, actual_of(given));
        if (param._has_sum) write("sum", stored._sum, sum_of(given));
    }
    if (!is_whole)
        sink.add("Rows of it are not there, or no longer: whether it agrees cannot be said.\n");
    else if (!all_agree)
        sink.add(
            "It is not what its rows give: they came late, or were changed since. "
            "`trendlog rebuild`\nmakes it anew.\n");
    sink.flush();
    return is_whole && !all_agree ? EXIT_FINDINGS : EXIT_DONE;
}

}  // namespace

command_t explain_command()
{
    return {"explain",
            SECTION_LOOK,
            "Work out one coarse row from its finer rows",
            "Shows the finer rows with their weights, the arithmetic, and whether it gives what is "
            "stored (to 9 digits); the exit code is 3 where it does not.",
            {{"FILE", "the log"},
             {"DEVICE", "its path"},
             {"PARAM", "one parameter"},
             {"TIME", "a moment within the row: last, 2018-03-01, 1519902000"}},
            options_t{{"--period", "P", "of the row: 60 (minutes), 1h, 1d"}, output_options()[1]} +
                common_options(),
            {{"trendlog explain plant.db plant/steel power_factor last --period 1d",
              "Why the newest day has this average"},
             {"trendlog explain plant.db plant/steel power_factor 2018-12-24 --period 1h",
              "Of the hour before Christmas Eve"}},
            run};
}

}  // namespace trendlog
