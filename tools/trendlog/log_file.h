#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "command.h"
#include "trend_labels.h"
#include "trendlog.h"

struct sqlite3;

namespace trendlog {

// How a log is opened.
//
// To look at it: read-only. The file is not changed by one byte, and no companion stays that was
// not there before. What would need a change first is a failure: an older schema, a journal or a
// write-ahead log that a crash has left over, a file in write-ahead mode that nobody has open where
// this user may not make its companions.
//
// To change it: as a host does, with `create` for one that need not be there. To bring it up to
// date: one whose schema may be older, and with --dry-run stays so.
enum purpose_t { TO_LOOK, TO_CHANGE, TO_CREATE, TO_UPGRADE };

// A log for the time of a command. Every failure names the file, the cause and what to do.
class CLogFile {
public:
    CLogFile(const CArguments& arguments, purpose_t purpose);
    ~CLogFile();

    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;

    const std::string& name() const { return _name; }
    CLog& log() { return _log; }

    // Calls of the library: `work` gives their result, and one that is not 0 is a failure. A file
    // that others have locked is waited for at most --timeout, and so nowhere else. read() keeps
    // the lock for readers until `work` is done; change() makes sure that nobody writes, nor keeps
    // a commit waiting, when it begins, and does it again when another writer was faster: it is one
    // transaction, or one call. Within read() the file is that of one moment where `work` is one
    // call or one transaction; a read within a read is part of that.
    void read(const std::function<int()>& work);
    void change(const std::function<int()>& work);
    bool is_reading() const { return _reading; }

    // Everything in the file's configuration and labels, read once.
    const std::vector<CPeriodProperties>& periods();
    const std::vector<CDeviceProperties>& devices();
    std::vector<CParamProperties> params(const CDeviceProperties& device);
    // The unit and the label of a parameter, or of the device where `param` is empty.
    const CLabel& label(const std::string& device, const std::string& param = "");

    // By path. Throws failure_t with the paths that there are.
    const CDeviceProperties& device(const std::string& path);

    // A number or a word of SQLite's own: "page_count", "journal_mode".
    int64_t pragma(const char* name);
    std::string pragma_text(const char* name);

    // SQL on that connection, waiting for locks; a failure ends the command.
    void run(const char* sql);
    // The schema that the file had when it was opened.
    int64_t schema() const { return _schema; }

    // A connection beside the log's. Commands that change rows or configuration only read from it.
    sqlite3* handle() { return _handle; }

    // Ends the command with what SQLite or the library says of this file.
    [[noreturn]] void fail(const std::string& cause, exit_code_t code = EXIT_FAILED) const;
    [[noreturn]] void fail_with_code(int code) const;
    [[noreturn]] void fail_with_library_line() const;

private:
    void check_header();
    void check_companions();
    void open_handle();
    void check_schema();
    void close() noexcept;
    [[noreturn]] void fail_with_library_line(const std::string& line) const;

    static int wait(void* file, int count);

    std::string _name;
    purpose_t _purpose;
    int64_t _patience_ms;  // for a lock
    int64_t _waited_since_ms = 0;
    int64_t _schema = -1;
    sqlite3* _handle = nullptr;
    bool _removes_companions = false;
    CLog _log;

    bool _reading = false;
    bool _has_periods = false;
    bool _has_devices = false;
    bool _has_labels = false;
    std::vector<CPeriodProperties> _periods;
    std::vector<CDeviceProperties> _devices;
    std::vector<CLabel> _labels;
};

}  // namespace trendlog
