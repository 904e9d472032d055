#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "database.h"
#include "trend_repair.h"

namespace toolkit::trend {

constexpr int GIVEN_UP = 2;  // by the host's callback; no code of a call that has failed

// Tells the host how far the work is, some two hundred times.
class CProgress {
public:
    explicit CProgress(const progress_t& callback) : _callback(callback) {}

    void expect(uint64_t total) { _total = total; }

    // GIVEN_UP where the host does not want to go on.
    int reach(uint64_t done);

private:
    const progress_t& _callback;
    uint64_t _total = 0;
    uint64_t _next = 0;  // when to tell again
};

// One rebuild, within a transaction level of the caller's. The range is found first, then the
// finest table is made whole, then the coarser ones one after the other.
class CRebuild {
public:
    CRebuild(CDatabase& db, const CRebuildRequest& request, CRebuildResult& result)
        : _db(db), _request(request), _result(result), _progress(request._progress)
    {
    }

    // Reports under the name `fn`.
    int carry_out(const char* fn);

private:
    // A period and what the work needs to know of its table.
    struct level_t {
        CPeriodProperties _period;
        int64_t _length = 0;       // in seconds
        unsigned long _group = 1;  // how many rows of the next finer level make one of this
        int64_t _oldest = -1;      // row, before the work; -1 for none
        int64_t _end = 0;          // of the last group that is complete and in the range
    };

    int read_configuration(const char* fn);
    int find_range(const char* fn);
    int find_rows();
    int extend_forwards(const char* fn);
    int extend_backwards(const char* fn);

    int merge_rows();
    int merge_row(const CSnapshot& row, const tk_string& merging);
    int has_values(int64_t time, bool& values);
    int fill_missing();
    int64_t first_to_fill(int64_t oldest) const;
    int recompute(size_t idx);
    int recompute_group(size_t idx, int64_t begin, const tk_string& roll_up);
    int drop_beyond_groups(size_t idx);

    // How many rows the finer table has for the group of `idx` that begins there; 0 unless every
    // one of its intervals has a row that ends on the grid.
    int look_at_group(size_t idx, int64_t begin, unsigned long& rows);

    // How many rows of the table end after the one time and up to the other; those off the grid.
    int count_rows(size_t idx, int64_t after, int64_t until, int64_t& count);
    int count_off_grid(size_t idx, int64_t after, int64_t until, int64_t& count);

    // Deletes these rows, which are then kept no longer.
    int delete_rows(size_t idx, int64_t after, int64_t until);

    // Tells how far the level is.
    int tell(size_t idx, int64_t time);
    uint64_t intervals(const level_t& level) const;

    CDatabase& _db;
    const CRebuildRequest& _request;
    CRebuildResult& _result;
    CProgress _progress;

    std::vector<level_t> _levels;  // finest first
    std::vector<CParamProperties> _params;
    int64_t _newest = -1;     // row of the finest period
    int64_t _newest_end = 0;  // of its interval
    int64_t _from = 0;        // the range is what ends after this
    int64_t _to = 0;          // and not after that
};

}  // namespace toolkit::trend
