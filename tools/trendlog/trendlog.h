#pragma once

// The command `trendlog`: looks into a log's file, configures it, records, moves data, takes care.
//
// Its shape:
//
//   main.cpp            the table of commands, nothing else
//   commands/<verb>.cpp one command a file: its entry in the table (arguments, options, help,
//                       examples) and its work, a function from CArguments to an exit code
//   command.h           what an entry of the table is. Parsing (cli.cpp), help (help.cpp), manual
//                       page and completion (manual.cpp) are made from it, and from nothing else
//   log_file.h          opens a log to look at it or to change it, and says in one line why not
//   selection.h         what commands have in common: devices and parameters by name, windows
//   times.h, numbers.h  times, durations and zones; numbers as text
//   output/writer.h     what a command gives out: columns and rows; one writer a file behind it
//   talk.h              all that is said on standard error
//
// A command throws failure_t to end with one line on standard error, writes its rows to a CWriter,
// and touches neither standard output nor standard error itself.

#include <stdexcept>
#include <string>

#include "trend_api.h"

namespace trendlog {

using namespace toolkit::trend;

enum exit_code_t : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_FINDINGS = 3,  // of `check`: a warning or an error
    EXIT_BUSY = 4       // locked, or not a log of ours
};

// Ends the command: its text is said in one line, and the code is the program's.
struct failure_t : std::runtime_error {
    explicit failure_t(const std::string& text, exit_code_t code = EXIT_FAILED)
        : std::runtime_error(text), _code(code)
    {
    }

    exit_code_t _code;
};

// What has been asked makes no sense.
struct usage_t : failure_t {
    explicit usage_t(const std::string& text) : failure_t(text, EXIT_USAGE) {}
};

}  // namespace trendlog
