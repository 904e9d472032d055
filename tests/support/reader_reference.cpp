#include "reader_reference.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace reference {

using namespace toolkit::trend;

namespace {

struct column_t {
    const char* _name;
    bool CParamProperties::*_kept;
    COptVal CSample::*_value;
};

const column_t COLUMNS[] = {
    {"min", &CParamProperties::_has_min, &CSample::_min},
    {"max", &CParamProperties::_has_max, &CSample::_max},
    {"avg", &CParamProperties::_has_avg, &CSample::_avg},
    {"actual", &CParamProperties::_has_actual, &CSample::_actual},
    {"sum", &CParamProperties::_has_sum, &CSample::_sum},
};

void lay_over(std::vector<const row_t*>& owners, int64_t origin, const std::vector<row_t>& rows,
              const std::function<bool(const row_t&)>& inside)
{
    // Judged by what was there before any row of this table.
    const std::vector<const row_t*> below = owners;
    for (const row_t& row : rows) {
        if (inside(row)) continue;
        const auto from = static_cast<size_t>((row._start - origin) / STEP);
        const auto to = static_cast<size_t>((row._time - origin) / STEP);
        bool uncovered = false;
        for (size_t i = from; i < to; ++i)
            uncovered = uncovered || !below[i];
        if (!uncovered) continue;
        for (size_t i = from; i < to; ++i) {
            const bool reaches_out = below[i] && ((from > 0 && below[from - 1] == below[i]) ||
                                                  (to < below.size() && below[to] == below[i]));
            if (!reaches_out) owners[i] = &row;
        }
    }
}

// On the scale that runs from 0 through unity to -0.
double on_scale(bool is_pf, double value)
{
    if (!is_pf) return value;
    value = std::min(1.0, std::max(-1.0, value));
    return value < 0.0 ? value + 2.0 : value;
}

double off_scale(bool is_pf, double value) { return is_pf && value > 1.0 ? value - 2.0 : value; }

double share(double percent) { return std::min(100.0, std::max(0.0, percent)); }

CSample sample_of(const std::vector<piece_t>& pieces, size_t i, const CParamProperties& param)
{
    if (pieces.size() == 1) return pieces[0]._row->_samples[i];
    const bool is_pf = param._type == SAMPLE_TYPE_PF;
    CSample sample;
    double weighted = 0.0, weights = 0.0;
    for (const piece_t& piece : pieces) {
        const CSample& row = piece._row->_samples[i];
        if (row._min && (!sample._min || on_scale(is_pf, *row._min) < *sample._min))
            sample._min = on_scale(is_pf, *row._min);
        if (row._max && (!sample._max || on_scale(is_pf, *row._max) > *sample._max))
            sample._max = on_scale(is_pf, *row._max);
        if (row._avg) {
            const double weight =
                share(piece._row->_percent_valid) * static_cast<double>(piece._end - piece._start);
            weighted += weight * on_scale(is_pf, *row._avg);
            weights += weight;
        }
        if (row._actual) sample._actual = *row._actual;
        if (row._sum) sample._sum = (sample._sum ? *sample._sum : 0.0) + *row._sum;
    }
    if (sample._min) sample._min = off_scale(is_pf, *sample._min);
    if (sample._max) sample._max = off_scale(is_pf, *sample._max);
    if (weights > 0.0) sample._avg = off_scale(is_pf, weighted / weights);
    return sample;
}

CInterval point_of(const history_t& history, const std::vector<piece_t>& pieces, int64_t start,
                   int64_t end)
{
    CInterval point;
    point._start = static_cast<time_t>(start);
    point._time = static_cast<time_t>(end);
    point._rows = pieces.size();
    double valid = 0.0;
    for (const piece_t& piece : pieces) {
        point._period = std::max(point._period, piece._row->_period);
        valid += share(piece._row->_percent_valid) * static_cast<double>(piece._end - piece._start);
    }
    const bool is_row = pieces.size() == 1 && pieces[0]._start == start && pieces[0]._end == end;
    point._percent_valid =
        is_row ? share(pieces[0]._row->_percent_valid) : valid / static_cast<double>(end - start);
    for (size_t i = 0; i < history._device._params.size(); ++i)
        point._samples.push_back(sample_of(pieces, i, history._device._params[i]));
    return point;
}

struct place_t {
    bool _given = false;
    bool _alone = false;
    size_t _bucket = 0;
};

// By how much of each bucket the piece has.
place_t place_of(const piece_t& piece, const std::vector<int64_t>& edges, size_t first, size_t last,
                 bool open_front)
{
    std::vector<int64_t> shares(edges.size() - 1);
    size_t touched = 0, whole = 0, most = 0;
    for (size_t i = 0; i + 1 < edges.size(); ++i) {
        shares[i] = std::min(piece._end, edges[i + 1]) - std::max(piece._start, edges[i]);
        if (shares[i] <= 0) continue;
        ++touched;
        if (shares[i] == edges[i + 1] - edges[i]) ++whole;
        if (touched == 1 || shares[i] > shares[most]) most = i;
    }
    const int64_t length = piece._end - piece._start;
    const bool in_range = piece._start < edges[last + 1] && piece._end > edges[first];
    const int64_t before = open_front ? 0 : edges.front() - piece._start;
    const int64_t after = piece._end - edges.back();
    if (touched == 0 || !in_range) return {};
    if (touched == 1 && before <= 0 && after <= 0) return {true, false, most};
    if (touched > 2 || whole > 0) return {true, true, most};
    // Two neighbours, one of which may be outside.
    if (piece._start < edges[first] && length > edges[first + 1] - edges[first])
        return {true, true, first};
    if (piece._end > edges[last + 1] && length > edges[last + 1] - edges[last])
        return {true, true, last};
    if (before > 0) return {shares[0] > before && first == 0, false, 0};
    if (after > 0) return {shares.back() >= after, false, shares.size() - 1};
    return {most >= first && most <= last, false, most};
}

bool is_near(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1.0 + std::fabs(a)); }

bool is_same(const COptVal& a, const COptVal& b, bool exact, bool is_pf)
{
    if (!a || !b) return !a && !b;
    if (exact) return *a == *b;
    if (!is_pf) return is_near(*a, *b);
    // The ends of the scale meet.
    const double apart = std::fabs(on_scale(true, *a) - on_scale(true, *b));
    return is_near(std::min(apart, 2.0 - apart), 0.0);
}

bool is_same(const std::vector<CParamProperties>& params, const CInterval& a, const CInterval& b)
{
    const bool exact = a._rows == 1;
    if (a._start != b._start || a._time != b._time || a._period != b._period ||
        a._rows != b._rows || !is_near(a._percent_valid, b._percent_valid))
        return false;
    for (size_t i = 0; i < params.size(); ++i)
        for (const column_t& column : COLUMNS) {
            const bool is_pf = params[i]._type == SAMPLE_TYPE_PF && column._value != &CSample::_sum;
            if (params[i].*column._kept &&
                !is_same(a._samples[i].*column._value, b._samples[i].*column._value, exact, is_pf))
                return false;
        }
    return true;
}

std::string number(const COptVal& value, bool exact)
{
    if (!value) return "-";
    char digits[40];
    std::snprintf(digits, sizeof digits, exact ? "%a" : "%.9g", *value + 0.0);
    return digits;
}

}  // namespace

int64_t history_t::newest() const
{
    int64_t newest = 0;
    for (const auto& table : _tables)
        if (!table.empty()) newest = std::max(newest, table.back()._time);
    return newest;
}

history_t load(const std::string& file, const CDeviceParams& device,
               const std::vector<unsigned long>& periods)
{
    history_t history;
    history._device = device;
    sqlite3* db = nullptr;
    if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) throw std::runtime_error("can't open");
    for (const unsigned long period : periods) {
        std::string sql = "SELECT time, percent_valid";
        for (const CParamProperties& param : device._params)
            for (const column_t& column : COLUMNS)
                if (param.*column._kept)
                    sql += ", param_" + std::to_string(param._index) + "_" + column._name;
        sql += " FROM trends_" + std::to_string(device._device._index) + "_" +
               std::to_string(period) + " ORDER BY time";
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db));
        std::vector<row_t>& rows = history._tables.emplace_back();
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            row_t row;
            row._period = period;
            row._time = sqlite3_column_int64(stmt, 0);
            row._start = row._time - 60 * static_cast<int64_t>(period);
            if (!rows.empty()) row._start = std::max(row._start, rows.back()._time);
            row._percent_valid = sqlite3_column_double(stmt, 1);
            int col = 2;
            for (const CParamProperties& param : device._params) {
                CSample& sample = row._samples.emplace_back();
                for (const column_t& column : COLUMNS)
                    if (param.*column._kept) {
                        if (sqlite3_column_type(stmt, col) == SQLITE_FLOAT)
                            sample.*column._value = sqlite3_column_double(stmt, col);
                        ++col;
                    }
            }
            rows.push_back(row);
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return history;
}

std::vector<piece_t> pick(const history_t& history, const std::function<bool(const row_t&)>& inside)
{
    int64_t origin = 0;
    for (const auto& table : history._tables)
        for (const row_t& row : table)
            origin = std::min(origin, row._start);
    std::vector<const row_t*> owners(static_cast<size_t>((history.newest() - origin) / STEP));

    // Inside buckets: at each step the coarsest, until it ends.
    for (size_t i = 0; i < owners.size();) {
        const int64_t from = origin + static_cast<int64_t>(i) * STEP;
        const row_t* chosen = nullptr;
        for (const auto& table : history._tables)
            for (const row_t& row : table)
                if (row._start <= from && from < row._time && inside(row)) chosen = &row;
        if (!chosen) {
            ++i;
            continue;
        }
        for (; origin + static_cast<int64_t>(i) * STEP < chosen->_time; ++i)
            owners[i] = chosen;
    }
    for (const auto& table : history._tables)
        lay_over(owners, origin, table, inside);

    std::vector<piece_t> pieces;
    for (size_t i = 0; i < owners.size(); ++i) {
        if (!owners[i]) continue;
        const int64_t from = origin + static_cast<int64_t>(i) * STEP;
        if (i == 0 || owners[i - 1] != owners[i]) pieces.push_back({owners[i], from, from});
        pieces.back()._end = from + STEP;
    }
    return pieces;
}

std::vector<CInterval> points(const history_t& history, const std::vector<int64_t>& edges,
                              size_t first, size_t last, bool open_front)
{
    int64_t longest = 0;
    for (size_t i = 0; i + 1 < edges.size(); ++i)
        longest = std::max(longest, edges[i + 1] - edges[i]);
    const auto inside = [&](const row_t& row) {
        const int64_t start = row._start, end = row._time;
        if (60 * static_cast<int64_t>(row._period) > longest) return false;
        if (end <= edges.front() || start >= edges.back()) return true;
        for (size_t i = 0; i + 1 < edges.size(); ++i)
            if (((open_front && i == 0) || edges[i] <= start) && end <= edges[i + 1]) return true;
        return false;
    };
    const std::vector<piece_t> pieces = pick(history, inside);

    std::vector<CInterval> points;
    std::vector<piece_t> group;
    int64_t floor = edges.front();
    for (size_t i = 0; i < pieces.size(); ++i) {
        const piece_t& piece = pieces[i];
        const place_t place = place_of(piece, edges, first, last, open_front);
        if (!place._given) {
            floor = piece._end;
            continue;
        }
        if (group.empty() && i > 0) floor = pieces[i - 1]._end;
        group.push_back(piece);
        if (i + 1 < pieces.size()) {
            const place_t next = place_of(pieces[i + 1], edges, first, last, open_front);
            if (next._given && !next._alone && !place._alone && next._bucket == place._bucket)
                continue;
        }

        int64_t start = group.front()._start, end = group.back()._end;
        const int64_t from = edges[place._bucket], to = edges[place._bucket + 1];
        const bool own = place._alone || (group.size() == 1 && (start < from || end > to) &&
                                          end - start > to - from);
        if (!own) {
            if (start >= from) start = std::max(from, floor);
            if (end < to) end = i + 1 < pieces.size() ? std::min(to, pieces[i + 1]._start) : to;
        }
        points.push_back(point_of(history, group, start, end));
        group.clear();
    }
    return points;
}

bool same(const std::vector<CParamProperties>& params, const std::vector<CInterval>& some,
          const std::vector<CInterval>& others)
{
    return std::equal(
        some.begin(), some.end(), others.begin(), others.end(),
        [&](const CInterval& a, const CInterval& b) { return is_same(params, a, b); });
}

std::string text(const std::vector<CParamProperties>& params,
                 const std::vector<CInterval>& intervals)
{
    std::string lines;
    for (const CInterval& interval : intervals) {
        const bool exact = interval._rows == 1;
        lines += "(" + std::to_string(interval._start) + ", " + std::to_string(interval._time) +
                 "] " + std::to_string(interval._period) + " min, " +
                 std::to_string(interval._rows) + " rows, " +
                 number(interval._percent_valid, false) + " %:";
        for (size_t i = 0; i < params.size(); ++i)
            for (const column_t& column : COLUMNS)
                if (params[i].*column._kept)
                    lines += " " + number(interval._samples[i].*column._value, exact);
        lines += "\n";
    }
    return lines;
}

}  // namespace reference
