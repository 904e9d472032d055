#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// How much of an interval was known, as a union of spans that come in nearly ascending order.

namespace toolkit::trend {

class CCoverage {
public:
    // Begins anew with the interval (start, end].
    void begin(int64_t start, int64_t end);

    // The span [from, to) is known; what lies outside of the interval does not count.
    void add(int64_t from, int64_t to);

    // How much is known of the time before `now`, which no span that has been added begins after.
    int64_t known(int64_t now) const;

    // Everything lies `by` later.
    void shift(int64_t by);

private:
    struct hole_t {
        int64_t _from, _to;
    };

    void take_from_holes(int64_t from, int64_t to);
    void insert_hole(size_t at, hole_t hole);

    int64_t _end = 0;
    int64_t _until = 0;  // what lies before is known but for holes
    int64_t _known = 0;

    // The newest holes, ascending. Spans of several parameters overlap out of order only by little,
    // so what is older may be forgotten: it stays unknown.
    std::array<hole_t, 16> _holes{};
    size_t _num_holes = 0;
    int64_t _start = 0;
};

}  // namespace toolkit::trend
