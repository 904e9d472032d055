#pragma once

#include <memory>

#include "database.h"
#include "trend_base.h"

namespace toolkit::trend {

// Asserts, when it goes, that the connection's nesting level is what it was when it came: an
// operation that forgets to end a level would keep everything after it from being committed.
class TREND_EXPORT CTransCheck {
public:
    explicit CTransCheck(const std::shared_ptr<CDatabase>& db);
    ~CTransCheck();

    CTransCheck(const CTransCheck&) = delete;
    CTransCheck& operator=(const CTransCheck&) = delete;

private:
    std::shared_ptr<CDatabase> _db;
    int _level;
};

}  // namespace toolkit::trend
