#pragma once

#include "database.h"

namespace toolkit::trend {

// One level of the connection's nested transaction, owned by the operation that opened it: rolled
// back on every way out that has not ended it. A statement that must be reset before the rollback
// is simply declared after the level.
class CTransLevel {
public:
    explicit CTransLevel(CDatabase& db) : _db(db) {}
    ~CTransLevel()
    {
        if (_open) _db.rollback_transaction();
    }

    CTransLevel(const CTransLevel&) = delete;
    CTransLevel& operator=(const CTransLevel&) = delete;

    int begin()
    {
        const int failed = _db.begin_transaction();
        _open = failed == 0;
        return failed;
    }

    // Closes the level whether or not the commit succeeds: the connection cleans up a failed COMMIT
    // itself, and there is no level left to roll back.
    int end()
    {
        _open = false;
        return _db.end_transaction();
    }

private:
    CDatabase& _db;
    bool _open = false;  // begun, and neither ended nor rolled back
};

}  // namespace toolkit::trend
