#pragma once

// The readings that demo.cpp records, from a CSV file.

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

struct reading_t {
    time_t _time = 0;             // seconds since the Unix epoch, the end of the interval
    std::vector<double> _values;  // one per quantity; NaN where there was none
};

struct readings_t {
    std::string _device;
    std::vector<std::string> _quantities;
    unsigned long _minutes = 1;  // between two readings
    std::vector<reading_t> _rows;
};

inline std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> fields(1);
    for (const char c : line) {
        if (c == ',')
            fields.emplace_back();
        else if (c != '\r')
            fields.back() += c;
    }
    return fields;
}

// Reads "time,name,name,..." and rows of numbers, the time in whole minutes of seconds. No rows
// when the file is not like that.
inline readings_t readings_from_csv(const std::string& file)
{
    readings_t readings;
    std::ifstream stream(file);
    std::string line;
    if (!std::getline(stream, line)) return readings;
    readings._quantities = split(line);
    if (readings._quantities.size() < 2) return readings;
    readings._quantities.erase(readings._quantities.begin());

    while (std::getline(stream, line)) {
        const std::vector<std::string> fields = split(line);
        if (fields.size() != readings._quantities.size() + 1) return {};
        reading_t reading;
        reading._time = static_cast<time_t>(std::strtoll(fields[0].c_str(), nullptr, 10));
        for (size_t i = 1; i < fields.size(); ++i) {
            char* end = nullptr;
            const double value = std::strtod(fields[i].c_str(), &end);
            reading._values.push_back(
                end == fields[i].c_str() ? std::numeric_limits<double>::quiet_NaN() : value);
        }
        readings._rows.push_back(reading);
    }
    if (readings._rows.size() < 2) return {};

    const time_t step = readings._rows[1]._time - readings._rows[0]._time;
    if (step < 60 || step % 60 != 0) return {};
    readings._minutes = static_cast<unsigned long>(step / 60);
    const size_t name = file.find_last_of('/') + 1;
    readings._device = file.substr(name, file.find_last_of('.') - name);
    return readings;
}
