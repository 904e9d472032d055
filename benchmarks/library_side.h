#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "plant.h"
#include "trend_api.h"

// The library at the benchmarks' work, as a host uses it.
class library_side {
public:
    static constexpr const char* NAME = "library";

    // `pool_capacity` 0: a pool that holds everything.
    library_side(const std::string& file, const plant_t& plant, size_t pool_capacity = 0)
        : _periods(plant._periods)
    {
        for (size_t number = 1; number <= plant._devices; ++number)
            _devices.push_back(device_of(plant, number));
        if (pool_capacity == 0) pool_capacity = statements_of(plant);
        want(_log.open(file, false, false, pool_capacity, false, 0, 0, 0, true));
    }

    void begin() { want(_log.begin_transaction()); }
    void end() { want(_log.end_transaction()); }

    // One snapshot, committed on its own unless between begin() and end().
    void record(size_t device, const toolkit::trend::CSnapshot& snapshot)
    {
        want(_log.add_trend_data(_devices[device], snapshot));
    }

    void fill(size_t device, int64_t now)
    {
        want(_log.fill_blank_values(_devices[device]._device, static_cast<time_t>(now), true));
    }

    // Reads the first `periods` of the plant's periods; the number of rows.
    size_t read(size_t device, size_t periods, const timebounds_t& bounds, bool no_overlap)
    {
        const std::vector<toolkit::trend::CPeriodProperties> some(
            _periods.begin(), _periods.begin() + static_cast<std::ptrdiff_t>(periods));
        _data = toolkit::trend::CDeviceData();
        want(_log.get_trend_data(_data, _devices[device], some, bounds, 0, 0, true, no_overlap));
        return _data._snapshots.size();
    }

    // Of what was read last: the sum of all values, and what the records themselves take.
    double sum_of_values() const
    {
        double sum = 0.0;
        for (const auto& snapshot : _data._snapshots)
            for (const auto& sample : snapshot._samples)
                sum += *sample._min + *sample._max + *sample._avg + *sample._actual;
        return sum;
    }
    size_t bytes_of_records() const
    {
        size_t bytes = 0;
        for (const auto& snapshot : _data._snapshots)
            bytes += sizeof(snapshot) + snapshot._samples.size() * sizeof(snapshot._samples[0]);
        return bytes;
    }

    toolkit::trend::CLog& log() { return _log; }

private:
    static void want(int code)
    {
        if (code != 0) throw std::runtime_error("the library failed");
    }

    std::vector<toolkit::trend::CPeriodProperties> _periods;
    std::vector<toolkit::trend::CDeviceParams> _devices;
    toolkit::trend::CLog _log;
    toolkit::trend::CDeviceData _data;
};
