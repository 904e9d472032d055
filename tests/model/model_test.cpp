// Random sequences of calls, made of a log and of a model of it that knows nothing of SQLite. After
// every call both must have given the same answer, reported the same lines, and hold the same. Some
// calls are made by another log on the same file, some rows deleted on the log's raw handle; every
// other pair of seeds has a log that remembers nothing from one recording to the next.
//
// TREND_MODEL_SEED, TREND_MODEL_SEQUENCES and TREND_MODEL_LENGTH change what is run, so that
//
//     TREND_MODEL_SEED=17 TREND_MODEL_SEQUENCES=1 model_test --gtest_filter='*random_calls*/0'
//
// runs one sequence again. One that fails is cut down and printed; TREND_MODEL_TRIES is how many
// shorter ones are tried for that.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "generator.h"
#include "replay.h"
#include "shrink.h"

namespace {

using model::operation_t;
using model::operations_t;

uint64_t from_environment(const char* name, uint64_t otherwise)
{
    const char* value = std::getenv(name);
    return value == nullptr ? otherwise : std::strtoull(value, nullptr, 10);
}

std::string shrunk_report(const operations_t& operations, bool wal, bool forgetful,
                          const model::verdict_t& verdict)
{
    const auto tries = static_cast<size_t>(from_environment("TREND_MODEL_TRIES", 2500));
    const auto fails = [&](const operations_t& candidate) {
        const model::verdict_t again = model::replay(candidate, wal, forgetful);
        return again.failed && again.last_kind == verdict.last_kind;
    };
    operations_t failing = operations;
    failing.resize(std::min(failing.size(), verdict.calls));
    if (!fails(failing)) failing = operations;
    failing = model::shrink(failing, fails, tries);

    std::string report = verdict.text + "\n\nCut down to:\n";
    for (const operation_t& op : failing)
        report += "  " + model::describe(op) + "\n";
    return report + "where\n" + model::replay(failing, wal, forgetful).text;
}

// Runs the sequence of the seed and tells what was wrong with it.
std::string run(uint64_t seed, size_t length, size_t& calls)
{
    const operations_t operations = model::generate(seed, length);
    const bool wal = seed % 2 == 0;
    const bool forgetful = seed % 4 > 1;
    const model::verdict_t verdict = model::replay(operations, wal, forgetful);
    calls += verdict.calls;
    if (!verdict.failed) return "";
    return "TREND_MODEL_SEED=" + std::to_string(seed) + (wal ? ", write-ahead log" : "") +
           (forgetful ? ", remembering nothing\n" : "\n") +
           shrunk_report(operations, wal, forgetful, verdict);
}

class random_calls : public testing::TestWithParam<uint64_t> {};

TEST_P(random_calls, leave_log_and_model_alike)
{
    const uint64_t sequences = from_environment("TREND_MODEL_SEQUENCES", 13);
    const uint64_t length = from_environment("TREND_MODEL_LENGTH", 1000);
    const uint64_t seed = from_environment("TREND_MODEL_SEED", 1) + (GetParam() - 1) * sequences;
    size_t calls = 0;
    for (uint64_t i = 0; i < sequences; ++i) {
        const std::string wrong = run(seed + i, static_cast<size_t>(length), calls);
        if (!wrong.empty()) FAIL() << wrong;
    }
    std::cout << calls << " calls, seeds " << seed << " to " << seed + sequences - 1 << "\n";
    RecordProperty("calls", std::to_string(calls));
}

INSTANTIATE_TEST_SUITE_P(part, random_calls, testing::Range<uint64_t>(1, 9));

}  // namespace
