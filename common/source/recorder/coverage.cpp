#include "recorder/coverage.h"

#include <algorithm>

namespace toolkit::trend {

void CCoverage::begin(int64_t start, int64_t end)
{
    _start = _until = start;
    _end = end;
    _known = 0;
    _num_holes = 0;
}

void CCoverage::add(int64_t from, int64_t to)
{
    from = std::max(from, _start);
    to = std::min(to, _end);
    if (from >= to) return;

    if (from > _until)
        insert_hole(_num_holes, {_until, from});
    else if (from < _until)
        take_from_holes(from, std::min(to, _until));
    if (to > _until) {
        _known += to - std::max(from, _until);
        _until = to;
    }
}

int64_t CCoverage::known(int64_t now) const { return _known - std::max<int64_t>(_until - now, 0); }

void CCoverage::shift(int64_t by)
{
    _start += by;
    _end += by;
    _until += by;
    for (size_t i = 0; i < _num_holes; ++i) {
        _holes[i]._from += by;
        _holes[i]._to += by;
    }
}

void CCoverage::take_from_holes(int64_t from, int64_t to)
{
    // Newest first: a span that is in order meets none.
    for (size_t i = _num_holes; i-- > 0 && _holes[i]._to > from;) {
        const hole_t hole = _holes[i];
        if (hole._from >= to) continue;
        _known += std::min(to, hole._to) - std::max(from, hole._from);
        std::copy(_holes.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                  _holes.begin() + static_cast<std::ptrdiff_t>(_num_holes),
                  _holes.begin() + static_cast<std::ptrdiff_t>(i));
        --_num_holes;
        if (to < hole._to) insert_hole(i, {to, hole._to});
        if (hole._from < from) insert_hole(i, {hole._from, from});
    }
}

void CCoverage::insert_hole(size_t at, hole_t hole)
{
    if (_num_holes == _holes.size()) {
        if (at == 0) return;  // it would be the oldest one
        std::copy(_holes.begin() + 1, _holes.end(), _holes.begin());
        --_num_holes;
        --at;
    }
    std::copy_backward(_holes.begin() + static_cast<std::ptrdiff_t>(at),
                       _holes.begin() + static_cast<std::ptrdiff_t>(_num_holes),
                       _holes.begin() + static_cast<std::ptrdiff_t>(_num_holes) + 1);
    _holes[at] = hole;
    ++_num_holes;
}

}  // namespace toolkit::trend
