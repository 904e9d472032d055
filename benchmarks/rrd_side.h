#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plant.h"
#include "trend_api.h"

// The peer: round-robin files of librrd, one for each device, in the current folder. They keep
// minimum, maximum, average and last value for the plant's periods, of one number per parameter and
// minute, where a snapshot of the log has four. An update is a text, changes a mapped file in place
// and is never synced.
class rrd_side {
public:
    // Files that begin at `minute`. They are removed at the end.
    rrd_side(const plant_t& plant, int64_t minute);
    ~rrd_side();

    rrd_side(const rrd_side&) = delete;
    rrd_side& operator=(const rrd_side&) = delete;

    // There are no transactions.
    void begin() {}
    void end() {}

    void record(size_t device, const toolkit::trend::CSnapshot& snapshot);

    // The average that is stored for the device's first parameter and the minute that ends at
    // `time`.
    double stored_average(size_t device, time_t time) const;

private:
    std::vector<std::string> _files;
    std::string _update;
};
