#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "trend_api.h"

// What the benchmarks record: devices that are all alike, numbered from 1, with parameters that
// each keep minimum, maximum, average and actual value.
struct plant_t {
    size_t _devices;
    size_t _params;
    // A day of minutes, a week of quarters of an hour and a year of days.
    std::vector<toolkit::trend::CPeriodProperties> _periods = {{1, 1440}, {15, 672}, {1440, 366}};
};

// Makes the log's file with periods, devices and parameters and not a single row.
void make_log(const std::string& file, const plant_t& plant);

// Fills every table of the log with as many rows as it keeps, up to the end of the day that
// history_end() gives in minutes: recording goes on there in the steady state, with old rows to
// trim.
void add_history(const std::string& file, const plant_t& plant);
int64_t history_end(const plant_t& plant);

// A device as recording wants it, with the identifiers that make_log() gives.
toolkit::trend::CDeviceParams device_of(const plant_t& plant, size_t number);

// How many statements serve everything that the benchmarks do without preparing any twice.
size_t statements_of(const plant_t& plant);

// The snapshot of one minute: of a plant's size and with other values each minute.
toolkit::trend::CSnapshot empty_snapshot(const plant_t& plant);
void measure(toolkit::trend::CSnapshot& snapshot, int64_t minute);

// What a file holds, to be compared: rows of one table, the newest of them, a checksum of schema
// and all rows, and one of a device's values alone, whatever other columns there are.
int64_t count_rows(const std::string& file, const std::string& table);
int64_t newest_time(const std::string& file, const std::string& table);
uint32_t checksum(const std::string& file);
uint32_t checksum_of_values(const std::string& file, const plant_t& plant, size_t device);
