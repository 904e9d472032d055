#pragma once

#include <cstddef>
#include <string>

#include "operations.h"

namespace model {

// How a sequence went.
struct verdict_t {
    bool failed = false;
    size_t calls = 0;                         // made, the failing one included
    kind_t last_kind = kind_t::LIST_PERIODS;  // of the last one
    std::string text;                         // what went wrong
};

// Makes the calls of a log and of the model side by side, in a process and a folder of their own,
// so that a crash is a finding like any other. Calls that are out of bounds are passed over. With
// `wal` the file is written through a write-ahead log; with `forgetful` the log remembers nothing
// from one recording to the next.
verdict_t replay(const operations_t& operations, bool wal, bool forgetful = false);

}  // namespace model
