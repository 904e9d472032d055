#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>

#include "recorder/impl.h"
#include "trend_transaction.h"

// What only a connection beside the log's own can tell: whose file it is, before it is opened for
// writing, and whether somebody else has it locked, which the log would wait for.

namespace toolkit::trend {

namespace {

bool exists(const tk_string& name)
{
    struct stat status = {};
    return stat(name.c_str(), &status) == 0 && status.st_size > 0;
}

// Runs a statement without waiting for locks; the result is SQLite's code.
int run(CDatabase& db, const char* sql)
{
    return sqlite3_exec(*db, sql, nullptr, nullptr, nullptr) & 0xff;
}

bool is_locked(int code) { return code == SQLITE_BUSY || code == SQLITE_LOCKED; }

// Changes whenever another connection commits. -1 where it cannot be read, as without memory for
// its text.
int64_t data_version(CDatabase& db)
{
    int64_t version = -1;
    const auto take = [](void* out, int, char** values, char**) {
        if (values[0]) *static_cast<int64_t*>(out) = std::strtoll(values[0], nullptr, 10);
        return 0;
    };
    sqlite3_exec(*db, "PRAGMA data_version", take, &version, nullptr);
    return version;
}

}  // namespace

// A file with tables, but none of a log, belongs to somebody else. Nothing of a file in
// write-ahead mode is left behind either: where its companions are there, somebody has it open or
// has crashed, and reading leaves them alone; else the last one to close removes them, which only
// one that may write does. -1 where another process was in the way.
int CRecorder::CImpl::look_into(const tk_string& name, size_t& num_periods)
{
    if (!exists(name)) return 0;
    const bool read_only = exists(name + "-wal");
    CDatabase file;
    if (file.open(name, 1, read_only, false, false, 0, 0, 0, false) != 0)
        return tell(NOTICE_FAILED, "'%s' cannot be opened", name.c_str());
    const int code = run(file, "SELECT 1 FROM sqlite_master");
    if (is_locked(code)) return -1;
    if (code != SQLITE_OK)
        return tell(NOTICE_FAILED, "'%s' cannot be read: %s", name.c_str(), sqlite3_errstr(code));

    int64_t tables = -1;
    if (file.get_intval("SELECT count(*) FROM sqlite_master", tables, STMT_FRESH, NULL_OK) != 0 ||
        tables < 0)
        return -1;
    if (tables == 0) return 0;
    int64_t columns = -1;
    if (file.get_intval("SELECT (SELECT count(*) FROM pragma_table_info('periods') "
                        "WHERE name IN ('period', 'max_entries')) + "
                        "(SELECT count(*) FROM pragma_table_info('devices') "
                        "WHERE name IN ('idx', 'path'))",
                        columns, STMT_FRESH, NULL_OK) != 0 ||
        columns < 0)
        return -1;
    if (columns != 4)
        return tell(NOTICE_MISUSE, "'%s' holds tables of somebody else", name.c_str());
    int64_t periods = -1;
    if (file.get_intval("SELECT count(*) FROM periods", periods, STMT_FRESH, NULL_OK) != 0 ||
        periods < 0)
        return -1;
    num_periods = static_cast<size_t>(periods);
    return 0;
}

int CRecorder::CImpl::open_side()
{
    _side = std::make_unique<CDatabase>();
    return _side->open(_name, 1, false, false, false, 0, 0, 0, false);
}

// What cannot be rolled back would lock the log out for ever: without memory that is, and only the
// end of the connection helps. The next look makes another one.
void CRecorder::CImpl::end_look()
{
    if (sqlite3_get_autocommit(**_side) == 0) run(*_side, "ROLLBACK");
    if (sqlite3_get_autocommit(**_side) == 0) _side.reset();
}

// A rollback that failed has left the log's own transaction open, which would look like somebody
// else's. It is made up for as another one begins.
bool CRecorder::CImpl::settle()
{
    if (!_is_unsettled) return true;
    const CTransaction next(*_log);
    _is_unsettled = next.failed() != 0;
    return !_is_unsettled;
}

// Another one may begin right after the look. The log then waits until that one has ended.
bool CRecorder::CImpl::is_busy()
{
    if (_name.empty()) return false;
    if (!settle()) return false;
    if (!_side && open_side() != 0) _side.reset();
    if (!_side) return false;
    const int code = run(*_side, "BEGIN EXCLUSIVE");
    if (code == SQLITE_OK) _version = data_version(*_side);
    end_look();
    return is_locked(code);
}

// The log has printed the codes, but its results do not have them. Who wrote first is seen by the
// version of the data; else a commit that changes nothing meets what the log's has met.
notice_t CRecorder::CImpl::why_it_failed()
{
    _is_unsettled = true;
    if (!_side || !settle()) return NOTICE_FAILED;
    const int64_t version = data_version(*_side);
    if (version >= 0 && version != _version) return NOTICE_BUSY;
    int code = run(*_side, "BEGIN EXCLUSIVE");
    if (code == SQLITE_OK) code = run(*_side, "PRAGMA user_version = 2");
    if (code == SQLITE_OK) code = run(*_side, "COMMIT");
    end_look();
    if (is_locked(code)) return NOTICE_BUSY;
    return code == SQLITE_FULL ? NOTICE_FULL : NOTICE_FAILED;
}

}  // namespace toolkit::trend
