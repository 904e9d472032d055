#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "file_content.h"
#include "model.h"
#include "operations.h"
#include "trend_api.h"

struct sqlite3;

namespace model {

// The standard error stream of the process goes into a file for as long as this lives.
class captured_errors_t {
public:
    explicit captured_errors_t(const std::string& name);
    ~captured_errors_t();

    captured_errors_t(const captured_errors_t&) = delete;
    captured_errors_t& operator=(const captured_errors_t&) = delete;

    // The lines written since the last time.
    std::vector<std::string> lines();

private:
    int _file;
    int _saved;
    off_t _seen = 0;
};

// A log and a model of it, and the same calls made of both. It works on files in the working
// folder, which must be empty.
class session_t {
public:
    // With `forgetful` the log forgets before each recording what it remembers.
    explicit session_t(bool wal, bool forgetful = false);
    ~session_t();

    session_t(const session_t&) = delete;
    session_t& operator=(const session_t&) = delete;

    // Makes one call. Returns what differs afterwards: the reply, the lines reported, or the
    // content of the file; empty when nothing does.
    std::string step(const operation_t& op);

    // What differs in the whole file.
    std::string difference();

    const log_t& model() const { return _model; }

private:
    reply_t call(const operation_t& op, toolkit::trend::CLog& log);
    reply_t call(const operation_t& op);
    reply_t delete_rows(const operation_t& op);
    int open(const operation_t& op);
    std::string content_difference(const operation_t& op);

    bool _wal;
    bool _forgetful;
    size_t _steps = 0;
    log_t _model;
    toolkit::trend::CLog _log;
    toolkit::trend::CLog _other;
    captured_errors_t _errors;
    sqlite3* _handle = nullptr;   // of the library's connection
    file_content_t _file;         // through a connection of its own: what is committed
    file_content_t _transaction;  // through the library's connection: what its transaction sees
};

}  // namespace model
