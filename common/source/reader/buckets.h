#pragma once

#include <cstddef>
#include <cstdint>

#include "trend_reader.h"

namespace toolkit::trend {

// Buckets of time, side by side: between given edges, or on a grid that is locked to absolute time.
// A moment that is an edge belongs to the bucket that ends there.
class buckets_t {
public:
    // The edges must outlive the buckets. Bucket 0 begins at the first one; everything before it is
    // bucket -1, everything after the last edge is one bucket too.
    explicit buckets_t(const edges_t& edges);

    // Buckets of so many seconds; number 0 ends at the first multiple, and has all before it.
    explicit buckets_t(int64_t length) : _edges(nullptr), _longest(length) {}

    // The number of the bucket that has the moment.
    int64_t number(int64_t moment) const;

    // Where a bucket begins and ends.
    int64_t start(int64_t number) const;
    int64_t end(int64_t number) const { return start(number + 1); }

    // Whether the interval is wholly inside one bucket.
    bool hold(int64_t start, int64_t end) const;

    // A longer row is in no bucket.
    int64_t longest() const { return _longest; }

    // How many there are; none but on edges.
    int64_t count() const;

private:
    const edges_t* _edges;  // null for a grid
    int64_t _longest = 0;
    // Found last: moments come in ascending order, many of them in one bucket.
    mutable int64_t _number = 0, _start = 0, _end = 0;
};

// The length in seconds of the shortest buckets of the grid, multiples of `finest` seconds, of
// which there are at most `most` between two moments, both included. A bucket of the length before
// was too short where `after` is not 0: then it is the next longer one at least.
int64_t grid_length(int64_t finest, int64_t first, int64_t last, size_t most, int64_t after);

}  // namespace toolkit::trend
