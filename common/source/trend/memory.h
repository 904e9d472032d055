#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "database.h"
#include "stmtpool.h"
#include "trend_api.h"

// What recording has read of a log's file and need not read again.
//
// The contract: what is remembered is at every moment what reading it then would give. The proof
// stands in memory.cpp; recording and roll-up only recall what is there and read what is not.

namespace toolkit::trend {

// One table of a device. Whatever of it is not known has to be read.
struct known_table_t {
    struct extent_t {
        int64_t _oldest;  // no row is older; after a trim there need not be a row of just this time
        int64_t _newest;  // the time of the newest row
    };

    // The rows that are newer than all of the next coarser table.
    struct waiting_t {
        int64_t _count;
        int64_t _first;  // the oldest of them, where there are any
        int64_t _after;  // what is newer than this waits as well
    };

    // Each after the file has been changed like that.
    void add_row(int64_t time);
    void remove_rows_up_to(int64_t time);
    void roll_up_all();  // all that waited, in one row of the coarser table
    void forget_rows();

    std::optional<extent_t> _extent;
    std::optional<waiting_t> _waiting;
    pool_place_t _roll_up;  // the statement that rolls it up
};

// The parameters that a snapshot has values for, and the statement that stores it.
struct known_selection_t {
    std::vector<uint64_t> _columns;  // per parameter its identifier and what it keeps
    pool_place_t _insert;
};

struct known_device_t {
    // Few hosts have more than one. The oldest makes room for the next.
    static constexpr size_t MAX_SELECTIONS = 4;

    known_selection_t* find_selection(const std::vector<CParamProperties>& params);
    void add_selection(const std::vector<CParamProperties>& params, const pool_place_t& insert);

    bool _has_params = false;            // some are stored
    std::vector<known_table_t> _tables;  // one per period
    std::vector<known_selection_t> _selections;
};

// Grows with the devices that are recorded: by 1 KB each at most with three periods and as many
// selections as above, and by 8 bytes for each parameter of a selection.
class CMemory {
public:
    explicit CMemory(CDatabase& db) : _db(db) {}

    // To be called in the transaction of each recording, first and last: forgets what cannot be
    // proven, and declares proven what recording has read and done since. Without a keep() after it
    // everything is forgotten. A failure is that of a statement, reported.
    int prove();
    int keep();

    // The configured periods, finest first, and their ratios; empty when they are not known.
    std::vector<CPeriodProperties> _periods;
    std::vector<unsigned long> _ratios;

    // Wants the periods to be known.
    known_device_t& device(int64_t index);

    // The pooled statement of a text, and of the place where it was found; the latter is empty
    // where the pool keeps it no longer.
    stmt_ptr_t find(const tk_string& sql, pool_place_t& place);
    stmt_ptr_t recall(const pool_place_t& place);

    // The list that was read last, kept for its memory only: without it each reading would allocate
    // a text per parameter.
    std::vector<CParamProperties> _params;

private:
    void forget();
    int ask_version(int64_t& version);

    CDatabase& _db;
    std::unordered_map<int64_t, known_device_t> _devices;
    int64_t _version = 0;       // of the file, as this connection sees it
    int64_t _rows_changed = 0;  // by this connection
    stmt_ptr_t _data_version;
};

// The connection of a log.
class CLogDatabase : public CDatabase {
public:
    CMemory _memory{*this};
};

// Every connection that CLog works with is one of its own making.
inline CMemory& memory_of(CDatabase& db) { return static_cast<CLogDatabase&>(db)._memory; }

}  // namespace toolkit::trend
