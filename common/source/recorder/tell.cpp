#include <cstdarg>
#include <cstdio>

#include "recorder/impl.h"
#include "report.h"

namespace toolkit::trend {

const char* notice_name(notice_t notice)
{
    static const char* const names[] = {
        "none",    "late",     "future",   "duplicate", "not_finite", "out_of_limits", "off_grid",
        "unknown", "overflow", "rejected", "gap",       "unfinished", "abandoned",     "busy",
        "full",    "failed",   "misuse",   "clock",     "rebuild",    "merged"};
    static_assert(sizeof names / sizeof *names == NOTICE_LISTEND);
    TREND_ASSERT(notice>=NOTICE_NONE);
    TREND_ASSERT(notice<NOTICE_LISTEND);
    return names[notice];
}

int CRecorder::CImpl::called_while_telling() noexcept
{
    ++_stats._notices[NOTICE_MISUSE];
    return NOTICE_MISUSE;
}

int CRecorder::CImpl::tell(notice_t notice, const char* fmt, ...) noexcept
{
    ++_stats._notices[notice];
    if (_in_use) return notice;  // from within: counted, or it would go on for ever
    char line[512];              // long paths are cut
    va_list args;
    va_start(args, fmt);
    static_cast<void>(std::vsnprintf(line, sizeof line, fmt, args));
    va_end(args);
    if (!_options._tell) {
        report("toolkit::trend::CRecorder: %s: %s", notice_name(notice), line);
        return notice;
    }
    _in_use = true;
    try {
        _options._tell(notice, line);
    } catch (...) {
        // Telling has no result that it could change.
    }
    _in_use = false;
    return notice;
}

}  // namespace toolkit::trend
