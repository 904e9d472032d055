#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <type_traits>

// What `call` writes on standard error, however much it is.
std::string capture_stderr(const std::function<void()>& call);

// Whether one line of `output` says that the assertion with exactly this condition failed. There
// may be other lines: an emulator reports the signal in one of its own.
bool names_condition(const std::string& output, const std::string& condition);

MATCHER_P(StopsAt, condition, "a line that names the condition " + std::string(condition))
{
    return names_condition(arg, condition);
}

// The call returns `result` and writes exactly `text` on standard error, the last newline included:
//
//     EXPECT_REPORTS(_log.vacuum(), -1, "int toolkit::trend::CLog::vacuum(): Error: DB not
//     open\n");
#define EXPECT_REPORTS(call, result, text)                                                \
    do {                                                                                  \
        std::decay_t<decltype(call)> returned_here{};                                     \
        const std::string written_here = capture_stderr([&] { returned_here = (call); }); \
        EXPECT_EQ(returned_here, result) << #call;                                        \
        EXPECT_EQ(written_here, text) << #call;                                           \
    } while (false)

// The call returns `result` and writes nothing on standard error.
#define EXPECT_QUIET(call, result) EXPECT_REPORTS(call, result, "")

// The statement stops the process with an assertion, and with this condition:
//
//     EXPECT_STOPS(db.end_transaction(), "_nest_lvl>0");
#define EXPECT_STOPS(statement, condition) \
    EXPECT_EXIT(static_cast<void>(statement), testing::KilledBySignal(SIGABRT), StopsAt(condition))
