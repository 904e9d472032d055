#pragma once

#include <cstdint>
#include <vector>

#include "aggregates.h"
#include "reader/picker.h"
#include "trend_reader.h"

namespace toolkit::trend {

// One row after the other becomes a point.
class point_t {
public:
    // The parameters must outlive the point.
    explicit point_t(const std::vector<CParamProperties>& params);

    void clear() { _interval._rows = 0; }
    bool empty() const { return _interval._rows == 0; }
    size_t rows() const { return _interval._rows; }

    // Adds a row of a period of so many minutes: what `row` holds from column 1 on, for the part of
    // its interval that is its own.
    int add(const CStatement& row, unsigned long period, const piece_t& piece);

    // The point, as it stands for this interval. Rows can be added no more.
    const CInterval& finish(int64_t start, int64_t end);

private:
    int set(const CStatement& row);
    int fold(const CStatement& row, double weight);
    void widen();

    const std::vector<CParamProperties>& _params;
    CInterval _interval;
    double _percent_valid = 0.0;   // of the first row, as stored
    double _first_weight = 0.0;    // of the first row
    double _weights = 0.0;         // of all rows
    int64_t _start = 0, _end = 0;  // of the first row's part

    // While there are several rows power factors are kept on the scale of the accumulators, and
    // averages here.
    std::vector<accumulator_t> _averages;
};

}  // namespace toolkit::trend
