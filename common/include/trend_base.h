#pragma once

// What every header of the library needs: the export mark and the assertion that stays on.

#if defined(__GNUC__)
#define TREND_EXPORT __attribute__((visibility("default")))
#else
#define TREND_EXPORT
#endif

namespace toolkit::trend {

// Prints one line on standard error (file, line, function, condition), flushes it and aborts the
// process.
[[noreturn]] TREND_EXPORT void assertion_failed(const char* file, unsigned int line,
                                                const char* function,
                                                const char* condition) noexcept;

}  // namespace toolkit::trend

// States what a correct caller cannot make false. It is checked in every build type: a process that
// would write wrong rows is stopped instead. The condition is printed exactly as it is spelt.
#define TREND_ASSERT(...)                                                                        \
    ((__VA_ARGS__) ? static_cast<void>(0)                                                        \
                   : ::toolkit::trend::assertion_failed(__FILE__, __LINE__, __PRETTY_FUNCTION__, \
                                                        #__VA_ARGS__))
