#include <chrono>
#include <thread>

#include "recorder/impl.h"
#include "trend_transaction.h"

namespace toolkit::trend {

// Runs `work` in one transaction, again when another process has written first or is writing: it
// looks again then. A notice that `work` returns is final, -1 is a failure of the log.
int CRecorder::CImpl::in_transaction(const std::function<int()>& work)
{
    constexpr int ATTEMPTS = 40;  // with a millisecond more between them each time
    if (!_log->is_open()) return tell(NOTICE_MISUSE, "the log is not open");
    if (is_inside_transaction()) return tell(NOTICE_MISUSE, "%s", reason(NOTICE_MISUSE));
    notice_t why = NOTICE_BUSY;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt));
        why = NOTICE_BUSY;
        if (is_busy()) continue;
        {
            CTransaction whole(*_log);
            const int failed = whole.failed() ? -1 : work();
            if (failed > 0) return failed;
            if (failed == 0 && whole.commit() == 0) return 0;
        }
        why = why_it_failed();
        // Without the other connection there is no telling.
        if (!_name.empty() && why != NOTICE_BUSY) break;
    }
    return tell(why, why == NOTICE_BUSY ? "another process is writing the file"
                                        : "the log has refused to set it up");
}

}  // namespace toolkit::trend
