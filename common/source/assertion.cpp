#include <cstdio>
#include <cstdlib>

#include "trend_base.h"

namespace toolkit::trend {

void assertion_failed(const char* file, unsigned int line, const char* function,
                      const char* condition) noexcept
{
    std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, condition);
    std::fflush(stderr);  // a host may have led it into a file that is buffered; abort() drops that
    std::abort();
}

}  // namespace toolkit::trend
