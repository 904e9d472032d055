#include "reader/point.h"

#include <algorithm>

#include "columns.h"
#include "reader/view.h"
#include "row_values.h"
#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr size_t FIRST_VALUE = 2;  // columns: time, percent_valid, values

double minutes(int64_t start, int64_t end)
{
    return static_cast<double>(end - start) / static_cast<double>(SECONDS_PER_MINUTE);
}

double on_scale(bool is_pf, double value) { return is_pf ? wrap_power_factor(value) : value; }

void fold_value(const aggregate_t& aggregate, CSample& sample, accumulator_t& average, bool is_pf,
                double value, double weight)
{
    COptVal& held = sample.*aggregate._value;
    if (aggregate._value == &CSample::_avg) {
        add_weighted(average, on_scale(is_pf, value), weight);
    } else if (aggregate._value == &CSample::_actual) {
        held._val = value;
    } else if (aggregate._value == &CSample::_sum) {
        held._val = held ? held._val + value : value;
    } else {
        value = on_scale(is_pf, value);
        const bool beyond =
            aggregate._value == &CSample::_min ? value < held._val : value > held._val;
        if (beyond || !held) held._val = value;
    }
}

}  // namespace

point_t::point_t(const std::vector<CParamProperties>& params) : _params(params)
{
    clear();
    _interval._samples.resize(params.size());
    _averages.resize(params.size());
}

int point_t::add(const CStatement& row, unsigned long period, const piece_t& piece)
{
    double percent_valid = 0.0;
    if (const int failed = row.column(1, percent_valid, NULL_NOT_OK)) return failed;
    const double weight = clamp_weight(percent_valid) * minutes(piece._start, piece._end);

    if (empty()) {
        if (const int failed = set(row)) return failed;
        _interval._period = period;
        _percent_valid = percent_valid;
        _first_weight = _weights = weight;
        _start = piece._start;
        _end = piece._end;
    } else {
        if (_interval._rows == 1) widen();
        if (const int failed = fold(row, weight)) return failed;
        _interval._period = std::max(_interval._period, period);
        _weights += weight;
    }
    ++_interval._rows;
    return 0;
}

int point_t::set(const CStatement& row)
{
    row_values_t values(row, FIRST_VALUE);
    for (size_t i = 0; i < _params.size(); ++i) {
        const CParamProperties& param = _params[i];
        CSample& sample = _interval._samples[i];
        const int failed = visit_aggregates([&](const aggregate_t& aggregate) {
            return param.*aggregate._kept ? values.next(sample.*aggregate._value) : 0;
        });
        if (failed) return failed;
    }
    return 0;
}

int point_t::fold(const CStatement& row, double weight)
{
    row_values_t values(row, FIRST_VALUE);
    for (size_t i = 0; i < _params.size(); ++i) {
        const CParamProperties& param = _params[i];
        const bool is_pf = param._type == SAMPLE_TYPE_PF;
        const int failed = visit_aggregates([&](const aggregate_t& aggregate) {
            if (!(param.*aggregate._kept)) return 0;
            COptVal value;
            if (const int wrong = values.next(value)) return wrong;
            if (value)
                fold_value(aggregate, _interval._samples[i], _averages[i], is_pf, value._val,
                           weight);
            return 0;
        });
        if (failed) return failed;
    }
    return 0;
}

// Takes the first row, which has been kept as it is, for the first of several.
void point_t::widen()
{
    for (size_t i = 0; i < _params.size(); ++i) {
        const bool is_pf = _params[i]._type == SAMPLE_TYPE_PF;
        CSample& sample = _interval._samples[i];
        _averages[i] = accumulator_t();
        if (sample._avg) add_weighted(_averages[i], on_scale(is_pf, *sample._avg), _first_weight);
        if (sample._min) sample._min = on_scale(is_pf, *sample._min);
        if (sample._max) sample._max = on_scale(is_pf, *sample._max);
    }
}

const CInterval& point_t::finish(int64_t start, int64_t end)
{
    _interval._start = host_time(start);
    _interval._time = host_time(end);
    // What the first row alone stands for is not divided and multiplied back.
    const bool is_row = _interval._rows == 1 && start == _start && end == _end;
    _interval._percent_valid =
        clamp_weight(is_row ? _percent_valid : _weights / minutes(start, end));
    if (_interval._rows == 1) return _interval;

    for (size_t i = 0; i < _params.size(); ++i) {
        CSample& sample = _interval._samples[i];
        const accumulator_t& average = _averages[i];
        sample._avg = average.count == 0.0 ? COptVal() : COptVal(average.val / average.count);
        if (_params[i]._type != SAMPLE_TYPE_PF) continue;
        for (COptVal CSample::*value : {&CSample::_min, &CSample::_max, &CSample::_avg})
            if (sample.*value) (sample.*value)._val = unwrap_power_factor(*(sample.*value));
    }
    return _interval;
}

}  // namespace toolkit::trend
