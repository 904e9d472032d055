#pragma once

#include <cstdarg>

#include "trend_base.h"

// The printer of the whole library and what its messages begin with.

namespace toolkit::trend {

constexpr bool same_text(const char* a, const char* b)
{
    for (; *a == *b; ++a, ++b)
        if (*a == '\0') return true;
    return false;
}

// Prints the text, formatted as by printf, and a newline on standard error.
__attribute__((format(printf, 1, 2))) void report(const char* fmt, ...) noexcept;
void report_list(const char* fmt, va_list args) noexcept;

// Reports "<fn>: Error: <why>" and returns -1.
int refuse(const char* fn, const char* why) noexcept;

// What an operation answers when memory has run out, or a container refuses a size.
int out_of_memory(const char* fn) noexcept;

}  // namespace toolkit::trend

// Names the text that the function's messages begin with: its signature as GCC spells it, whatever
// compiler builds the library. In the developers' builds GCC checks that the text still fits.
#if defined(TREND_CHECK_SIGNATURES) && defined(__GNUC__) && !defined(__clang__)
#define TREND_SIGNATURE(name, text)                                       \
    [[maybe_unused]] constexpr const char* name = text;                   \
    static_assert(::toolkit::trend::same_text(__PRETTY_FUNCTION__, text), \
                  "not the signature of this function")
#else
#define TREND_SIGNATURE(name, text) [[maybe_unused]] constexpr const char* name = text
#endif
