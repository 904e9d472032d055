#include "reader/buckets.h"

#include <algorithm>
#include <limits>

#include "trend/values.h"

namespace toolkit::trend {

namespace {

constexpr int64_t LATEST = std::numeric_limits<int64_t>::max();
constexpr int64_t EARLIEST = std::numeric_limits<int64_t>::min();

// Lengths of the grid in minutes; beyond the last one they double.
constexpr int64_t DAY = 1440;
constexpr int64_t LADDER[] = {1,   2,   5,   10,  15,      30,      60,       120,
                              180, 360, 720, DAY, 2 * DAY, 7 * DAY, 14 * DAY, 28 * DAY};

// Everything up to the first edge that is later than 0 is in the first bucket: rows have no times
// before 0, only the first of them may begin there.
int64_t grid_number(int64_t moment, int64_t length)
{
    return (std::max<int64_t>(moment, 1) - 1) / length;
}

int64_t capped_product(int64_t a, int64_t b)
{
    int64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? LATEST : product;
}

// The lengths one after the other, in `unit` seconds.
class ladder_t {
public:
    explicit ladder_t(int64_t unit) : _unit(unit) {}

    int64_t next()
    {
        if (_step < std::size(LADDER))
            _length = capped_product(LADDER[_step++], _unit);
        else
            _length = capped_product(_length, 2);
        return _length;
    }

private:
    const int64_t _unit;
    size_t _step = 0;
    int64_t _length = 0;
};

// Doubling brings in no factor but 2, which a finest period may have in any power.
bool has_multiple(int64_t finest)
{
    int64_t odd = finest / SECONDS_PER_MINUTE;
    while (odd % 2 == 0)
        odd /= 2;
    return std::any_of(std::begin(LADDER), std::end(LADDER),
                       [&](int64_t minutes) { return minutes % odd == 0; });
}

}  // namespace

buckets_t::buckets_t(const edges_t& edges) : _edges(&edges)
{
    for (size_t i = 1; i < edges.size(); ++i) {
        int64_t length = 0;
        if (__builtin_sub_overflow(int64_t{edges[i]}, int64_t{edges[i - 1]}, &length))
            length = LATEST;
        _longest = std::max(_longest, length);
    }
}

int64_t buckets_t::number(int64_t moment) const
{
    if (_start < moment && moment <= _end) return _number;
    if (_edges)
        _number = std::lower_bound(_edges->begin(), _edges->end(), moment) - _edges->begin() - 1;
    else
        _number = grid_number(moment, _longest);
    _start = start(_number);
    _end = end(_number);
    return _number;
}

int64_t buckets_t::start(int64_t number) const
{
    if (!_edges) return capped_product(number, _longest);
    if (number < 0) return EARLIEST;
    return number < count() + 1 ? int64_t{(*_edges)[static_cast<size_t>(number)]} : LATEST;
}

bool buckets_t::hold(int64_t start, int64_t end) const { return number(start + 1) == number(end); }

int64_t buckets_t::count() const { return static_cast<int64_t>(_edges->size()) - 1; }

int64_t grid_length(int64_t finest, int64_t first, int64_t last, size_t most, int64_t after)
{
    ladder_t ladder(has_multiple(finest) ? SECONDS_PER_MINUTE : finest);
    for (;;) {
        const int64_t length = ladder.next();
        if (length <= after || (length % finest != 0 && length != LATEST)) continue;
        const int64_t before = grid_number(last, length) - grid_number(first, length);
        if (static_cast<uint64_t>(before) < most) return length;
    }
}

}  // namespace toolkit::trend
