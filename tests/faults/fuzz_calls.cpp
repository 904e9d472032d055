// Any bytes are a sequence of calls, made of a log and of the model of it: they must agree after
// each. A target for libFuzzer.

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "../model/operations.h"
#include "../model/session.h"
#include "fuzz_bytes.h"
#include "recorder.h"

using namespace model;

namespace {

constexpr size_t MOST_CALLS = 60;
constexpr uint64_t MINUTES[] = {1, 5, 15, 2, 60, 0, 7, 4294967295};
constexpr uint64_t ROWS[] = {10, 1, 3, 0, 100, 4294967295};
constexpr double PERCENTS[] = {100, 0, 50};
constexpr int64_t INDEXES[] = {1, 2, 3, 0, -1, 7};
constexpr double NUMBERS[] = {0, 1, -1, 0.5, ABSENT, 1e300, -0.25, 100};
const char* const PATHS[] = {"a", "b", "c", ""};

param_t a_param(fuzz_bytes_t& bytes)
{
    param_t param;
    param.path = bytes.one_of(PATHS);
    param.type = static_cast<int>(bytes.below(2));
    const unsigned int kept = bytes.below(32);
    for (size_t i = 0; i < AGGREGATES; ++i)
        param.keeps[i] = (kept >> i & 1U) != 0;
    param.index = bytes.one_of(INDEXES);
    return param;
}

operation_t an_operation(fuzz_bytes_t& bytes, int64_t& clock)
{
    operation_t op;
    op.kind = static_cast<kind_t>(bytes.below(static_cast<unsigned int>(kind_t::CLEAR) + 1));
    op.device.path = bytes.one_of(PATHS);
    op.device.index = bytes.one_of(INDEXES);
    op.name = "log.db";
    op.capacity = bytes.below(8) == 0 ? 1 : 20;
    op.period = {bytes.one_of(MINUTES), bytes.one_of(ROWS)};
    for (unsigned int i = bytes.below(4); i > 0; --i)
        op.periods.push_back({bytes.one_of(MINUTES), bytes.one_of(ROWS)});
    for (unsigned int i = bytes.below(4); i > 0; --i)
        op.params.push_back(a_param(bytes));

    clock += bytes.below(4) * 60;
    op.time = bytes.below(16) == 15 ? 100000 : clock;
    op.percent = bytes.one_of(PERCENTS);
    for (size_t i = 0; i < op.params.size(); ++i) {
        values_t values = NO_VALUES;
        for (double& value : values)
            value = bytes.one_of(NUMBERS);
        op.samples.push_back(values);
    }
    op.mark_valid = bytes.below(2) != 0;
    op.first = bytes.below(3) == 0 ? clock - 600 : NONE;
    op.second = bytes.below(3) == 0 ? clock - 60 : NONE;
    if (op.first < NONE) op.first = 0;
    if (op.second < NONE) op.second = 0;
    op.limit = bytes.below(4);
    op.offset = bytes.below(3);
    op.ascending = bytes.below(2) != 0;
    op.no_overlap = bytes.below(2) != 0;
    return op;
}

std::string difference(fuzz_bytes_t& bytes)
{
    const recorder::folder_t folder;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder._path);
    session_t session(bytes.below(2) != 0);
    int64_t clock = 0;
    operation_t op;
    op.kind = kind_t::OPEN;
    op.name = "log.db";
    op.capacity = 20;
    std::string calls;
    std::string found;
    for (size_t i = 0; i < MOST_CALLS && found.empty(); ++i) {
        if (!out_of_bounds(op, session.model())) {
            calls += describe(op) + "\n";
            found = session.step(op);
        }
        if (!bytes.more()) break;
        op = an_operation(bytes, clock);
    }
    if (found.empty()) found = session.difference();
    std::filesystem::current_path(before);
    return found.empty() ? "" : calls + found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_bytes_t bytes(data, size);
    const std::string found = difference(bytes);
    if (!found.empty()) {
        std::fprintf(stderr, "%s\n", found.c_str());
        std::abort();
    }
    return 0;
}
