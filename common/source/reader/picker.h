#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "database.h"
#include "reader/buckets.h"
#include "reader/scan.h"
#include "trend_api.h"

namespace toolkit::trend {

// A row, and the part of its interval that is its own.
struct piece_t {
    size_t _period = 0;      // place in the list of periods
    int64_t _row_start = 0;  // the row's interval
    int64_t _row_time = 0;
    int64_t _start = 0;  // its own part of it
    int64_t _end = 0;
};

// Picks the rows that show every stored moment once, in ascending order.
//
// Rows have ranks. First come those that lie wholly inside a bucket, the coarsest before the finer,
// then all others, the finest before the coarser; without buckets all are others. Of rows inside
// buckets the better rank is taken wherever there is one, and one that has begun ends before
// another begins. Any other row counts only where the better ranks leave a part of its interval
// uncovered; then it takes the place of what lies wholly inside it, and gives up what belongs to
// pieces that reach beyond it.
//
// The work is a pull through layers: layer 0 gives the rows inside buckets, layer k + 1 merges
// layer k with the others of period k. Only one row of each table is looked at at a time, and none
// that is hidden by what has been picked, so that cost follows what is picked. Times alone decide;
// values are read of rows that are taken.
class picker_t {
public:
    // All must outlive the picker. `periods` are ascending; no `buckets` for none.
    picker_t(CDatabase& db, int64_t device, const std::vector<CPeriodProperties>& periods,
             const std::vector<CParamProperties>& params, const buckets_t* buckets);

    // Begins with the first piece that ends after the moment, which is -1 or later.
    int start(int64_t moment);

    // The next piece, if one is found.
    int next(bool& found, piece_t& piece);

    // Makes the piece's row the current one of the statement row().
    int take(const piece_t& piece) { return _rows[piece._period].look(piece._row_time - 1); }
    const CStatement& row(const piece_t& piece) const { return _rows[piece._period].row(); }

private:
    struct layer_t {
        int64_t _position = 0;   // everything up to here has been given
        int64_t _run_start = 0;  // since when the layer below has given it without a gap
        bool _has_below = false;
        bool _below_ended = false;
        piece_t _below;        // the next one from the layer below
        int64_t _given = -1;   // time of the row that it gave itself last
        int64_t _judged = -1;  // time of the row that was judged last
        bool _counts = false;  // and how
    };

    int pull(size_t number, bool& found, piece_t& piece);
    int pull_inside(bool& found, piece_t& piece);
    int pull_below(size_t number);
    int find_other(size_t number, bool& found, piece_t& piece);

    bool may_be_inside(const scan_t& row) const;
    bool is_inside(const scan_t& row) const;
    scan_t& scout(size_t number);
    bool hides(const layer_t& layer, int64_t length) const;
    int judge(size_t number, const scan_t& row, bool& counts);
    int covers(size_t period, size_t below, int64_t start, int64_t end, bool& covered);

    const buckets_t* const _buckets;
    std::deque<scan_t> _rows;   // whole rows: those that are taken, and where layer 0 is
    std::deque<scan_t> _times;  // wherever no values are needed
    std::vector<layer_t> _layers;
    int64_t _position = 0;  // of layer 0
    int64_t _begin = 0;
};

}  // namespace toolkit::trend
