#include "report.h"

#include <cstdio>

namespace toolkit::trend {

void report(const char* fmt, ...) noexcept
{
    va_list args;
    va_start(args, fmt);
    report_list(fmt, args);
    va_end(args);
}

void report_list(const char* fmt, va_list args) noexcept
{
    std::vfprintf(stderr, fmt, args);
    std::fputc('\n', stderr);
}

int refuse(const char* fn, const char* why) noexcept
{
    report("%s: Error: %s", fn, why);
    return -1;
}

int out_of_memory(const char* fn) noexcept { return refuse(fn, "out of memory"); }

}  // namespace toolkit::trend
