#include "recorder/parameter.h"

#include <algorithm>

namespace toolkit::trend {

void parameter_t::take_gauge(double value, int64_t moment, CCoverage& known)
{
    advance(moment);
    _last = moment;
    _value = value;
    note(value);
    known.add(moment, known_until());
}

void parameter_t::take_total(double value)
{
    _sum += value;
    _has_sum = true;
}

parameter_t::step_t parameter_t::step_of(double value, int64_t moment) const
{
    if (_last == NO_MOMENT) return STEP_START;
    if (value < _value) return STEP_RESET;
    if (moment - _last > _longest) return STEP_GAP;
    const double seconds = static_cast<double>(moment - _last) / 1000.0;
    return value - _value > _max_rate * seconds ? STEP_JUMP : STEP_RISE;
}

void parameter_t::take_counter(step_t step, double value, int64_t moment, CCoverage& known)
{
    if (step == STEP_RISE) {
        take_total(value - _value);
        known.add(_last, moment);
    }
    _last = moment;
    _value = value;
    _seen = true;
}

void parameter_t::advance(int64_t moment)
{
    const int64_t until = std::min(moment, known_until());
    if (is_gauge() && until > _from) {
        // Held into the interval it counts as a reading of it does.
        note(_value);
        add_weighted(_mean, scaled(_value), static_cast<double>(until - _from));
    }
    _from = std::max(_from, moment);
}

CSample parameter_t::sample() const
{
    CSample sample;
    if (_seen) sample._actual = _value;
    if (_has_sum) sample._sum = _sum;
    if (!_seen || !is_gauge()) return sample;
    sample._min = unscaled(_min.val);
    sample._max = unscaled(_max.val);
    // A single reading on the border holds for no time at all in the interval that it closes.
    sample._avg = _mean.count > 0.0 ? unscaled(_mean.val / _mean.count) : _value;
    return sample;
}

void parameter_t::begin(int64_t start, CCoverage& known)
{
    _from = start;
    _seen = _has_sum = false;
    _min = _max = _mean = accumulator_t{};
    _sum = 0.0;
    if (is_gauge()) known.add(_last, known_until());
}

void parameter_t::shift(int64_t by)
{
    _from += by;
    if (_last != NO_MOMENT) _last += by;
}

void parameter_t::note(double value)
{
    _seen = true;
    add_minimum(_min, scaled(value));
    add_maximum(_max, scaled(value));
}

double parameter_t::scaled(double value) const
{
    return _kind == READING_POWER_FACTOR ? wrap_power_factor(value) : value;
}

double parameter_t::unscaled(double value) const
{
    return _kind == READING_POWER_FACTOR ? unwrap_power_factor(value) : value;
}

}  // namespace toolkit::trend
