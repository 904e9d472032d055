#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "trend_reader.h"

// What the views of a reader should give, worked out the long way: rows are read from the bare
// tables with SQLite, and every step of time is looked at by itself. All times are multiples of
// STEP seconds.
namespace reference {

constexpr int64_t STEP = 20;

struct row_t {
    unsigned long _period = 0;
    int64_t _start = 0;  // clipped by the row before it in its table
    int64_t _time = 0;
    double _percent_valid = 0.0;
    std::vector<toolkit::trend::CSample> _samples;
};

struct piece_t {
    const row_t* _row = nullptr;
    int64_t _start = 0;
    int64_t _end = 0;
};

struct history_t {
    toolkit::trend::CDeviceParams _device;
    std::vector<std::vector<row_t>> _tables;  // finest first

    int64_t newest() const;
};

history_t load(const std::string& file, const toolkit::trend::CDeviceParams& device,
               const std::vector<unsigned long>& periods);

// The pieces of time of the rows that are picked, all of them; `inside` says whether a row lies
// in a bucket.
std::vector<piece_t> pick(const history_t& history,
                          const std::function<bool(const row_t&)>& inside);

// One point per bucket between neighbouring edges, and those that rows have by themselves. `first`
// and `last` are the buckets that are wanted, numbered from 0. With `open_front` nothing is before
// the first bucket: what begins there is inside it.
std::vector<toolkit::trend::CInterval> points(const history_t& history,
                                              const std::vector<int64_t>& edges, size_t first,
                                              size_t last, bool open_front = false);

// Whether they are the same, to the last bit where a row is all that there is, and but for the
// order of additions where values were computed from several.
bool same(const std::vector<toolkit::trend::CParamProperties>& params,
          const std::vector<toolkit::trend::CInterval>& some,
          const std::vector<toolkit::trend::CInterval>& others);

// One line for each interval: start, end, period, rows, percent valid and values.
std::string text(const std::vector<toolkit::trend::CParamProperties>& params,
                 const std::vector<toolkit::trend::CInterval>& intervals);

}  // namespace reference
