#include <chrono>
#include <thread>

#include "recorder/impl.h"

namespace toolkit::trend {

// Runs `work` in one transaction, again when another process has written first or is writing: it
// looks again then. A notice that `work` returns is final, -1 is a failure of the log.
int CRecorder::CImpl::in_transaction(const std::function<int()>& work)
{
    constexpr int ATTEMPTS = 40;  // with a millisecond more between them each time
    notice_t why = NOTICE_FAILED;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt));
        why = NOTICE_BUSY;
        if (is_busy()) continue;
        int failed = _log->begin_transaction();
        if (failed == 0) {
            try {
                failed = work();
            } catch (...) {
                _log->rollback_transaction();
                throw;
            }
            if (failed != 0) _log->rollback_transaction();
            if (failed > 0) return failed;
            if (failed == 0 && _log->end_transaction() == 0) return 0;
        }
        why = why_it_failed();
        // Without the other connection there is no telling.
        if (_side && why != NOTICE_BUSY) break;
    }
    return tell(why, why == NOTICE_BUSY ? "another process is writing the file"
                                        : "the log has refused to set it up");
}

}  // namespace toolkit::trend
