#pragma once

#include <memory>

#include "database.h"
#include "trend_api.h"

namespace toolkit::trend {

// The connection of a log, for what stands beside it; empty while the log is closed.
struct log_access_t {
    static const std::shared_ptr<CDatabase>& connection(const CLog& log) { return log._db; }
};

}  // namespace toolkit::trend
