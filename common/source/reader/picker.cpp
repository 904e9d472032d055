#include "reader/picker.h"

#include <algorithm>
#include <limits>

namespace toolkit::trend {

namespace {

constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

}  // namespace

picker_t::picker_t(CDatabase& db, int64_t device, const std::vector<CPeriodProperties>& periods,
                   const std::vector<CParamProperties>& params, const buckets_t* buckets)
    : _buckets(buckets), _layers(periods.size() + 1)
{
    for (const CPeriodProperties& period : periods) {
        _rows.emplace_back(db, device, period, &params);
        _times.emplace_back(db, device, period, nullptr);
    }
}

int picker_t::start(int64_t moment)
{
    _begin = moment;
    std::fill(_layers.begin(), _layers.end(), layer_t());
    for (size_t layer = _layers.size() - 1; layer > 0; --layer) {
        scan_t& row = scout(layer);
        if (const int failed = row.look(moment)) return failed;
        // A row that has begun before is clipped and takes places from its own beginning on.
        if (row.found() && row.start() < moment && !is_inside(row)) {
            bool counts = false;
            if (const int failed = judge(layer, row, counts)) return failed;
            if (counts) moment = row.start();
        }
        _layers[layer]._position = _layers[layer]._run_start = moment;
    }
    // What layer 0 gives within a bucket depends on where it begins there.
    if (_buckets) moment = _buckets->start(_buckets->number(moment + 1));
    // Rows may begin before 0.
    _position = moment > 0 ? moment : std::numeric_limits<int64_t>::min();
    return 0;
}

int picker_t::next(bool& found, piece_t& piece)
{
    do
        if (const int failed = pull(_layers.size() - 1, found, piece)) return failed;
    while (found && piece._end <= _begin);
    return 0;
}

int picker_t::pull(size_t number, bool& found, piece_t& piece)
{
    if (number == 0) return pull_inside(found, piece);

    layer_t& layer = _layers[number];
    do
        if (const int failed = pull_below(number)) return failed;
    while (layer._has_below && layer._below._end <= layer._position);

    bool other = false;
    if (!hides(layer, _times[number - 1].length()))
        if (const int failed = find_other(number, other, piece)) return failed;

    if (!other) {
        found = layer._has_below;
        if (!found) return 0;
        piece = layer._below;
        layer._has_below = false;
        if (piece._start > layer._position) layer._run_start = piece._start;
        layer._position = piece._end;
        return 0;
    }

    while (layer._has_below && layer._below._end <= piece._end) {
        layer._has_below = false;
        if (const int failed = pull_below(number)) return failed;
    }
    if (layer._has_below) piece._end = std::min(piece._end, layer._below._start);
    layer._position = layer._run_start = piece._end;
    layer._given = piece._row_time;
    found = true;
    return 0;
}

int picker_t::pull_below(size_t number)
{
    layer_t& layer = _layers[number];
    if (layer._has_below && layer._below._end <= layer._position) layer._has_below = false;
    if (layer._has_below || layer._below_ended) return 0;
    if (const int failed = pull(number - 1, layer._has_below, layer._below)) return failed;
    layer._below_ended = !layer._has_below;
    return 0;
}

// Layer 0: at its position the coarsest row that covers it inside a bucket. Where there is none it
// moves to the first moment at which that can be otherwise.
int picker_t::pull_inside(bool& found, piece_t& piece)
{
    found = false;
    if (!_buckets) return 0;
    for (;;) {
        int64_t change = NEVER;
        for (size_t period = _rows.size(); period-- > 0;) {
            scan_t& row = _rows[period];
            if (!may_be_inside(row)) continue;
            if (const int failed = row.look(_position)) return failed;
            if (!row.found()) continue;
            if (row.start() > _position) {
                change = std::min(change, row.start());
            } else if (!is_inside(row)) {
                change = std::min(change, row.time());
            } else {
                piece = {period, row.start(), row.time(), std::max(row.start(), _position),
                         row.time()};
                _position = row.time();
                found = true;
                return 0;
            }
        }
        if (change == NEVER) return 0;
        _position = change;
    }
}

// The first row of the layer's period that begins no later than the next piece from below, and
// counts. One that begins later is looked at again when that piece has been given.
int picker_t::find_other(size_t number, bool& found, piece_t& piece)
{
    const layer_t& layer = _layers[number];
    scan_t& row = scout(number);
    if (const int failed = row.look(std::max(layer._position, layer._given))) return failed;
    if (!row.found() || (layer._has_below && row.start() > layer._below._start)) return 0;
    if (!is_inside(row))
        if (const int failed = judge(number, row, found)) return failed;
    // One that does not count is covered from below, so that the one after it begins too late.
    if (found)
        piece = {number - 1, row.start(), row.time(), std::max(row.start(), layer._position),
                 row.time()};
    return 0;
}

// Where a layer looks for its rows. Those of a period that layer 0 gives too are looked at there:
// mostly at the same row, and one statement less is prepared.
scan_t& picker_t::scout(size_t number)
{
    scan_t& rows = _rows[number - 1];
    return may_be_inside(rows) ? rows : _times[number - 1];
}

bool picker_t::may_be_inside(const scan_t& row) const
{
    return _buckets && row.length() <= _buckets->longest();
}

bool picker_t::is_inside(const scan_t& row) const
{
    return may_be_inside(row) && _buckets->hold(row.start(), row.time());
}

// Whether the layer's next piece from below goes on without a gap, so long before and so far that
// any row of this length at the position is covered: it need not be looked at.
bool picker_t::hides(const layer_t& layer, int64_t length) const
{
    return layer._has_below && layer._below._start == layer._position &&
           layer._position - layer._run_start >= length &&
           layer._below._end - layer._position >= length;
}

// Whether a row that is in no bucket counts: where better ranks leave something of it uncovered.
int picker_t::judge(size_t number, const scan_t& row, bool& counts)
{
    layer_t& layer = _layers[number];
    if (layer._judged != row.time()) {
        bool covered = false;
        if (const int failed = covers(number - 1, _times.size(), row.start(), row.time(), covered))
            return failed;
        layer._judged = row.time();
        layer._counts = !covered;
    }
    counts = layer._counts;
    return 0;
}

// Whether the interval, of a row of `period` that is in no bucket, is covered by better ranks of
// the periods below number `below`. Coarser ones go first: they have fewer rows, and leave only
// gaps to the finer ones.
int picker_t::covers(size_t period, size_t below, int64_t start, int64_t end, bool& covered)
{
    covered = start >= end;
    // Its own period covers nothing of it, and a coarser one only with what lies inside a bucket.
    while (below > 0 &&
           (below - 1 == period || (below - 1 > period && !may_be_inside(_times[below - 1]))))
        --below;
    if (covered || below == 0) return 0;

    scan_t& probe = _times[below - 1];
    int64_t moment = start;
    while (!covered) {
        if (const int failed = probe.look(moment)) return failed;
        if (!probe.found() || probe.start() >= end)
            return covers(period, below - 1, start, end, covered);
        const int64_t gap_end = probe.start();
        moment = probe.time();
        if (below - 1 > period && !is_inside(probe)) continue;
        if (const int failed = covers(period, below - 1, start, gap_end, covered)) return failed;
        if (!covered) return 0;
        start = moment;
        covered = start >= end;
    }
    return 0;
}

}  // namespace toolkit::trend
