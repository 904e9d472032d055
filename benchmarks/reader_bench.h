#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>

// Adds the benchmarks of CReader: points of a log of a year of minutes and quarters of an hour and
// ten years of days, and single rows, each beside the floor.
using add_benchmark_t = std::function<void(const std::string& name, int64_t iterations,
                                           const std::function<void(benchmark::State&)>& run)>;
void add_reader_benchmarks(bool brief, const add_benchmark_t& add);
