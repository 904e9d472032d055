#pragma once

#include "trend_api.h"

namespace toolkit::trend {

// A transaction of the host's around several calls of a log: begun when the object is made, rolled
// back when it goes, unless commit() has been called. Whoever leaves on a failure just returns:
//
//     CTransaction transaction(log);
//     if (const int failed = transaction.failed()) return failed;
//     if (const int failed = log.add_trend_data(device, snapshot)) return failed;
//     return transaction.commit();
//
// The log must be open, which is an assertion, and outlive the object. Nested transactions end in
// the opposite order of their beginning, as objects in nested blocks do: one that is committed
// before one within it answers 0 for work that the inner one then undoes. Only the outermost one
// talks to SQLite: **an inner one that is rolled back gives up nothing by itself**, so who called
// it passes its failure on and does not commit either. What the object has begun it ends: do not
// call end_transaction() or rollback_transaction() for it.
//
// A log that is closed, or opened anew, while the transaction is open has lost its work. Then
// commit() reports it, and the end of the object does nothing: it leaves what has been begun on
// the new file alone. (Only a copy of the log keeps the connection, with the transaction open.)
class [[nodiscard]] CTransaction {
public:
    explicit CTransaction(CLog& log) : _log(log), _failed(log.begin_transaction())
    {
        if (!_failed) _db = log._db;
    }
    ~CTransaction()
    {
        if (is_open()) _log.rollback_transaction();
    }

    CTransaction(const CTransaction&) = delete;
    CTransaction& operator=(const CTransaction&) = delete;

    // Why it could not be begun: the code of begin_transaction(), 0 when it was. Ask before the
    // first call: without a transaction every call is stored by itself.
    int failed() const { return _failed; }

    // Whether it has been begun, its log is still open on the same file, and commit() has not been
    // called.
    bool is_open() const
    {
        const std::shared_ptr<CDatabase> db = _db.lock();
        return db && db == _log._db;
    }

    // Ends the transaction. 0 when its work is stored or, for a nested one, left to the outer one;
    // else the code of end_transaction(), and the work is undone (or, if the last step of the
    // commit is what failed, stored whole). There is nothing to roll back after it in either case.
    // A transaction that could not be begun gives failed() again. Reports "Error: transaction has
    // ended", -1, when it has been called before or the log has been closed.
    int commit()
    {
        if (_failed) return _failed;
        if (!is_open()) {
            CLog::err(0,
                      "int toolkit::trend::CTransaction::commit(): Error: transaction has ended");
            return -1;
        }
        _db.reset();
        return _log.end_transaction();
    }

private:
    CLog& _log;
    std::weak_ptr<CDatabase> _db;  // the connection with the transaction, empty once it has ended
    int _failed;
};

}  // namespace toolkit::trend
