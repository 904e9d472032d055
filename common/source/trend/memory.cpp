#include "trend/memory.h"

#include <sqlite3.h>

#include <algorithm>

#include "columns.h"
#include "throwing.h"

// The proof. Between two recordings the file can come to hold something else in three ways:
//
//   Another connection has committed. SQLite then counts up the data version that a connection
//   sees, once it has begun to read. While a transaction lasts, what it sees stays: so the version
//   is asked for once in each outermost transaction, by its first recording.
//
//   Something of the library has written, through this connection. CStatement::step() notes every
//   statement that can write and every one that fails, begun or not, and rollback_transaction()
//   every rollback, of inner levels too: CDatabase::_disturbed. Only keep() clears it, on the one
//   way on which a recording succeeds. So no operation needs to know of the memory, and none can
//   have been forgotten. A COMMIT that fails is a statement that fails.
//
//   The host has written on the raw handle. SQLite's count of changed rows has moved on.
//
// Whatever of these has happened, everything is forgotten. What none of them shows is a schema
// changed on the raw handle, inside or outside of a transaction, as no row is counted and the data
// version tells of other connections only; and a transaction or savepoint rolled back there after
// the log has recorded in it. A host that has the handle must do neither while the log is open.

namespace toolkit::trend {

namespace {

// An identifier and what is kept of the parameter, in one number.
constexpr int FLAG_BITS = static_cast<int>(AGGREGATES.size());
constexpr int64_t LARGEST_INDEX = INT64_MAX >> FLAG_BITS;

uint64_t flags_of(const CParamProperties& param)
{
    uint64_t flags = 0;
    visit_aggregates([&](const aggregate_t& aggregate) {
        flags = flags << 1 | uint64_t(param.*aggregate._kept);
        return 0;
    });
    return flags;
}

bool is_same(const CParamProperties& param, uint64_t column)
{
    return static_cast<uint64_t>(param._index) == column >> FLAG_BITS &&
           flags_of(param) == (column & ((1U << FLAG_BITS) - 1));
}

}  // namespace

// Tables ---------------------------------------------------------------------------------------

void known_table_t::add_row(int64_t time)
{
    if (_extent) _extent = {std::min(_extent->_oldest, time), std::max(_extent->_newest, time)};
    if (!_waiting) return;
    // Whether an older row waits depends on the coarser table.
    if (time <= _waiting->_after)
        _waiting.reset();
    else
        _waiting = {_waiting->_count + 1,
                    _waiting->_count == 0 ? time : std::min(_waiting->_first, time),
                    _waiting->_after};
}

void known_table_t::remove_rows_up_to(int64_t time)
{
    if (_extent && time >= _extent->_newest)
        _extent.reset();
    else if (_extent)
        _extent->_oldest = time + 1;
    if (_waiting && _waiting->_count > 0 && time >= _waiting->_first) _waiting.reset();
}

void known_table_t::roll_up_all()
{
    // The coarse row has the time of the newest of them, which is the newest row of all.
    _waiting = {0, -1, _extent->_newest};
}

void known_table_t::forget_rows()
{
    _extent.reset();
    _waiting.reset();
}

// Selections -----------------------------------------------------------------------------------

known_selection_t* known_device_t::find_selection(const std::vector<CParamProperties>& params)
{
    for (known_selection_t& selection : _selections)
        if (std::equal(params.begin(), params.end(), selection._columns.begin(),
                       selection._columns.end(), is_same))
            return &selection;
    return nullptr;
}

void known_device_t::add_selection(const std::vector<CParamProperties>& params,
                                   const pool_place_t& insert)
{
    known_selection_t selection;
    selection._columns.reserve(params.size());
    for (const CParamProperties& param : params) {
        if (param._index > LARGEST_INDEX) return;
        selection._columns.push_back(static_cast<uint64_t>(param._index) << FLAG_BITS |
                                     flags_of(param));
    }
    selection._insert = insert;
    if (_selections.size() == MAX_SELECTIONS) _selections.erase(_selections.begin());
    _selections.push_back(std::move(selection));
}

// The memory -----------------------------------------------------------------------------------

int CMemory::prove()
{
    if (_db._disturbed || sqlite3_total_changes64(*_db) != _rows_changed) forget();
    // With nothing to prove nothing is asked: a first recording fails, if it does, as one that has
    // never heard of versions.
    if (_periods.empty() || _db._version_asked) return 0;

    int64_t version = 0;
    if (const int failed = ask_version(version)) return failed;
    if (version != _version) forget();
    _version = version;
    return 0;
}

int CMemory::keep()
{
    // What has been read and what is asked for now are of one transaction.
    if (!_db._version_asked)
        if (const int failed = ask_version(_version)) return failed;
    _rows_changed = sqlite3_total_changes64(*_db);
    _db._disturbed = false;
    return 0;
}

int CMemory::ask_version(int64_t& version)
{
    if (!_data_version) _data_version = CThrowing::stmt(_db, "PRAGMA data_version", STMT_FRESH);
    const stmt_wrapper_t stmt(_data_version);
    if (!stmt || stmt->step() != 1) return -1;
    if (const int failed = stmt->column(0, version, NULL_NOT_OK)) return failed;
    _db._version_asked = true;
    return 0;
}

stmt_ptr_t CMemory::find(const tk_string& sql, pool_place_t& place)
{
    return _db._pool->get(sql, place);
}

stmt_ptr_t CMemory::recall(const pool_place_t& place) { return _db._pool->recall(place); }

void CMemory::forget()
{
    _periods.clear();
    _ratios.clear();
    _devices.clear();
}

known_device_t& CMemory::device(int64_t index)
{
    known_device_t& device = _devices[index];
    device._tables.resize(_periods.size());
    return device;
}

}  // namespace toolkit::trend
