#include "recorder/impl.h"
#include "report.h"

// The calls of the host: what is thrown ends here, and a recorder that was never opened answers.

namespace toolkit::trend {

namespace {

int not_open()
{
    report("toolkit::trend::CRecorder: %s: it is not open", notice_name(NOTICE_MISUSE));
    return NOTICE_MISUSE;
}

}  // namespace

CRecorderClock::~CRecorderClock() = default;

CRecorder::CRecorder() = default;

CRecorder::~CRecorder()
{
    if (is_open() && !_impl->is_inherited()) static_cast<void>(close());
}

int CRecorder::open(const tk_string& name, const CRecorderOptions& options)
{
    return open(&name, nullptr, options);
}

int CRecorder::open(CLog& log, const CRecorderOptions& options)
{
    return open(nullptr, &log, options);
}

int CRecorder::open(const tk_string* name, CLog* log, const CRecorderOptions& options)
try {
    if (!_impl) _impl = std::make_unique<CImpl>();
    const bool was_open = _impl->is_open();
    int failed = NOTICE_FAILED;
    try {
        failed = _impl->open(name, log, options);
    } catch (...) {
        failed = _impl->tell(NOTICE_FAILED, "out of memory");
    }
    if (failed && !was_open) _impl->let_go();
    return failed;
} catch (...) {
    report("toolkit::trend::CRecorder: %s: out of memory", notice_name(NOTICE_FAILED));
    return NOTICE_FAILED;
}

bool CRecorder::is_open() const { return _impl && _impl->is_open(); }

int CRecorder::attach(const CRecorderDevice& device, CRecorderHandles& handles)
try {
    return _impl ? _impl->attach(device, handles) : not_open();
} catch (...) {
    return _impl->tell(NOTICE_FAILED, "out of memory");
}

int CRecorder::push(recorder_handle_t param, double value, int64_t moment)
{
    return _impl ? _impl->push(param, value, moment) : not_open();
}

int CRecorder::push(recorder_handle_t param, double value)
{
    return _impl ? _impl->push_now(param, value) : not_open();
}

int CRecorder::record(recorder_handle_t device, const CSnapshot& snapshot)
{
    return _impl ? _impl->record(device, snapshot) : not_open();
}

int CRecorder::tick() { return _impl ? _impl->tick() : not_open(); }

int CRecorder::flush() { return _impl ? _impl->flush() : not_open(); }

int CRecorder::close() { return _impl ? _impl->close() : not_open(); }

int CRecorder::get_open_interval(recorder_handle_t device, CSnapshot& snapshot)
try {
    return _impl ? _impl->get_open_interval(device, snapshot) : not_open();
} catch (...) {
    return _impl->tell(NOTICE_FAILED, "out of memory");
}

CRecorderStats CRecorder::stats() const { return _impl ? _impl->stats() : CRecorderStats(); }

CLog* CRecorder::log() { return _impl ? _impl->log() : nullptr; }

}  // namespace toolkit::trend
