// Histories of starts, gaps, kills and steps of the clock at random: every row of the file must be
// what a plain computation from the readings gives, piece of time by piece of time. In every third
// one what comes late is merged.
// TREND_RECORDER_HISTORIES is how many, TREND_FAULTS_SEED the first.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

namespace fs = std::filesystem;

// All moments are multiples of this, so that within one piece of time nothing changes.
constexpr int64_t PIECE = 250;
constexpr int64_t MINUTE = 60'000;
constexpr int64_t DAY = 15 * MINUTE;  // the coarsest period

struct reading_t {
    int64_t _moment;
    double _value;
};

using readings_t = std::vector<std::vector<reading_t>>;  // by parameter

// A value, or none.
using maybe_t = std::vector<double>;

struct cell_t {
    maybe_t _min, _max, _avg, _actual, _sum;
};

struct row_t {
    double _percent_valid = 0.0;
    std::vector<cell_t> _cells;
};

double on_scale(double pf) { return pf < 0.0 ? pf + 2.0 : pf; }
double off_scale(double val) { return val > 1.0 ? val - 2.0 : val; }

// What the history has brought about, from its readings alone.
class expected_t {
public:
    // Late rows are merged into a table that keeps so many; 0 for not at all.
    expected_t(std::vector<CRecorderParam> params, int64_t kept)
        : _params(std::move(params)), _kept(kept), _readings(_params.size())
    {
    }

    // Whether a reading is to be taken, which it is then.
    bool take(size_t number, double value, int64_t moment)
    {
        const CRecorderParam& param = _params[number];
        std::vector<reading_t>& readings = _readings[number];
        if (moment <= _closed) return _kept > 0 && _stamped && take_late(number, value, moment);
        if (param._kind != READING_TOTAL && !readings.empty() && moment <= readings.back()._moment)
            return false;
        pass(moment);
        readings.push_back({moment, value});
        return true;
    }

    // The clock has come to here: what ended before is closed.
    void pass(int64_t moment)
    {
        const int64_t border = (moment - 1) / MINUTE * MINUTE;
        for (int64_t end = _closed + MINUTE; end <= border; end += MINUTE)
            _waiting[end] = row_of(_readings, end);
        _closed = std::max(_closed, border);
    }

    // The recorder has looked at the clock: late readings end when none has come for a minute.
    void look(int64_t monotonic)
    {
        _monotonic = monotonic;
        if (monotonic - _late_taken >= MINUTE) end_late();
    }

    void end_late()
    {
        if (_late_end > 0) close_late();
        _late_end = 0;
    }

    size_t late_rows() const { return _late_rows.size(); }

    // What becomes of the late rows, none of which is left.
    void merge()
    {
        const int64_t newest = _newest;
        std::map<int64_t, row_t> newer;
        for (const auto& [end, row] : _late_rows) {
            if (end > newest)
                newer.insert({end, row});
            else if ((newest - end) / MINUTE >= _kept + SPARE)
                _open.insert(end);
            else if (end >= _rows.begin()->first && is_blank(_rows[end]))
                _rows[end] = row;
            // Of its group something may be gone, or left out of a long gap: the coarse row stays.
            for (int64_t t = (end - 1) / DAY * DAY + MINUTE; end <= newest && t <= end; t += MINUTE)
                if ((newest - t) / MINUTE >= _kept) _incomplete.insert(t);
        }
        for (const auto& [end, row] : newer)
            append(end, row);
        _newest = _rows.empty() ? -1 : _rows.rbegin()->first;
        _late_rows.clear();
    }

    // Whether there is no telling of a row if late ones could still be merged, or taken into it.
    bool is_open(int64_t end, int64_t length) const
    {
        if (length == MINUTE) return _open.count(end) != 0;
        const auto from = _incomplete.upper_bound(end - length);
        return from != _incomplete.end() && *from <= end;
    }

    // A start; before the clock is trusted what is stored says nothing.
    void start(int64_t now, bool trusted)
    {
        _stamped = trusted;
        _late_end = 0;
        _late_rows.clear();
        _closed = (now - 1) / MINUTE * MINUTE;
        if (trusted) _closed = std::max(_closed, _newest);
        for (auto& readings : _readings)
            readings.clear();
        _waiting.clear();
    }

    // Everything of this start lies so much later.
    void move(int64_t by, int64_t monotonic)
    {
        _monotonic = monotonic;
        std::map<int64_t, row_t> moved;
        for (const auto& [end, row] : _waiting)
            moved[end + by] = row;
        _waiting = moved;
        for (auto& readings : _readings)
            for (reading_t& reading : readings)
                reading._moment += by;
        _closed += by;
        _stamped = true;
        if (_closed >= _newest) return;
        // Recorded once by a clock that was ahead. What has been read since is late.
        for (const auto& readings : _readings)
            if (_kept > 0 && !readings.empty() && readings.back()._moment > _closed) {
                _late = _readings;
                _late_end = _closed + MINUTE;
                _late_taken = _monotonic;
            }
        _closed = _newest;
    }

    void commit()
    {
        for (const auto& [end, row] : _waiting) {
            if (end <= _newest) {
                if (_kept > 0 && !is_blank(row)) _late_rows.emplace_back(end, row);
                continue;
            }
            if (_rows.empty() && is_blank(row)) continue;
            append(end, row);
        }
        _waiting.clear();
        if (!_rows.empty())
            for (int64_t t = _rows.rbegin()->first + MINUTE; t <= _closed; t += MINUTE)
                _rows[t] = blank_row();
        _newest = _rows.empty() ? -1 : _rows.rbegin()->first;
    }

    int64_t newest() const { return _newest; }
    int64_t closed() const { return _closed; }

    // The rows of a period that is made of `ratio` of these each.
    std::map<int64_t, row_t> rolled_up(const std::map<int64_t, row_t>& fine, int64_t length,
                                       size_t ratio) const
    {
        std::map<int64_t, std::vector<const row_t*>> groups;
        for (const auto& [end, row] : fine)
            groups[(end + length - 1) / length * length].push_back(&row);
        std::map<int64_t, row_t> coarse;
        for (const auto& [end, group] : groups)
            if (group.size() == ratio) coarse[end] = merged(group);
        return coarse;
    }

    const std::map<int64_t, row_t>& rows() const { return _rows; }

private:
    static bool is_blank(const row_t& row)
    {
        return std::all_of(row._cells.begin(), row._cells.end(), [](const cell_t& cell) {
            return cell._actual.empty() && cell._sum.empty() && cell._avg.empty();
        });
    }

    void append(int64_t end, const row_t& row)
    {
        int64_t t = _rows.empty() ? (end - 1) / DAY * DAY + MINUTE : _rows.rbegin()->first + MINUTE;
        for (; t < end; t += MINUTE)
            _rows[t] = blank_row();
        _rows[end] = row;
    }

    // Trimming leaves so many more.
    static constexpr int64_t SPARE = 10;

    bool take_late(size_t number, double value, int64_t moment)
    {
        if (_late_end == 0 || moment <= _late_end - MINUTE) {
            end_late();
            _late.assign(_params.size(), {});
            _late_end = (moment + MINUTE - 1) / MINUTE * MINUTE;
        }
        _late_taken = _monotonic;
        std::vector<reading_t>& readings = _late[number];
        if (_params[number]._kind != READING_TOTAL && !readings.empty() &&
            moment <= readings.back()._moment)
            return false;
        for (; moment > _late_end; _late_end += MINUTE)
            close_late();
        readings.push_back({moment, value});
        return true;
    }

    void close_late()
    {
        const row_t row = row_of(_late, _late_end);
        if (!is_blank(row)) _late_rows.emplace_back(_late_end, row);
    }

    row_t blank_row() const
    {
        row_t row;
        row._cells.resize(_params.size());
        return row;
    }

    int64_t hold_of(size_t number) const
    {
        const CRecorderParam& param = _params[number];
        return param._kind == READING_COUNTER ? param._max_gap_ms : param._hold_ms;
    }

    // The last reading at or before the moment.
    static const reading_t* reading_at(const std::vector<reading_t>& readings, int64_t moment)
    {
        for (size_t i = readings.size(); i-- > 0;)
            if (readings[i]._moment <= moment) return &readings[i];
        return nullptr;
    }

    bool is_gauge(size_t number) const
    {
        return _params[number]._kind == READING_GAUGE ||
               _params[number]._kind == READING_POWER_FACTOR;
    }

    row_t row_of(const readings_t& readings, int64_t end) const
    {
        row_t row = blank_row();
        std::set<int64_t> known;  // pieces of time
        bool has_amount = false, only_totals = true;
        for (size_t i = 0; i < _params.size(); ++i) {
            cell_t& cell = row._cells[i];
            only_totals = only_totals && _params[i]._kind == READING_TOTAL;
            if (is_gauge(i))
                gauge_cell(i, readings[i], end, cell, known);
            else if (_params[i]._kind == READING_COUNTER)
                counter_cell(i, readings[i], end, cell, known);
            else
                for (const reading_t& reading : readings[i])
                    if (reading._moment > end - MINUTE && reading._moment <= end) {
                        cell._sum = {(cell._sum.empty() ? 0.0 : cell._sum[0]) + reading._value};
                        has_amount = true;
                    }
        }
        row._percent_valid = only_totals
                                 ? (has_amount ? 100.0 : 0.0)
                                 : 100.0 * static_cast<double>(known.size()) / (MINUTE / PIECE);
        return row;
    }

    void gauge_cell(size_t number, const std::vector<reading_t>& readings, int64_t end,
                    cell_t& cell, std::set<int64_t>& known) const
    {
        const bool pf = _params[number]._kind == READING_POWER_FACTOR;
        const auto scaled = [&](double value) { return pf ? on_scale(value) : value; };
        std::vector<double> seen;
        double weighted = 0.0;
        int64_t pieces = 0;
        for (int64_t at = end - MINUTE; at < end; at += PIECE) {
            const reading_t* reading = reading_at(readings, at);
            if (!reading || at >= reading->_moment + hold_of(number)) continue;
            known.insert(at);
            seen.push_back(scaled(reading->_value));
            weighted += seen.back();
            ++pieces;
        }
        // What was read on the border was not held in any piece.
        for (const reading_t& reading : readings)
            if (reading._moment > end - MINUTE && reading._moment <= end) {
                seen.push_back(scaled(reading._value));
                cell._actual = {reading._value};
            }
        if (seen.empty()) return;
        const auto back = [&](double value) { return pf ? off_scale(value) : value; };
        if (cell._actual.empty()) cell._actual = {back(seen.front())};
        cell._min = {back(*std::min_element(seen.begin(), seen.end()))};
        cell._max = {back(*std::max_element(seen.begin(), seen.end()))};
        cell._avg = {pieces > 0 ? back(weighted / static_cast<double>(pieces)) : cell._actual[0]};
    }

    void counter_cell(size_t number, const std::vector<reading_t>& readings, int64_t end,
                      cell_t& cell, std::set<int64_t>& known) const
    {
        for (size_t i = 0; i < readings.size(); ++i) {
            const reading_t& reading = readings[i];
            if (reading._moment <= end - MINUTE || reading._moment > end) continue;
            cell._actual = {reading._value};
            if (i == 0) continue;
            const reading_t& before = readings[i - 1];
            if (reading._value < before._value) continue;
            if (reading._moment - before._moment > hold_of(number)) continue;
            cell._sum = {(cell._sum.empty() ? 0.0 : cell._sum[0]) + reading._value - before._value};
            for (int64_t at = std::max(before._moment, end - MINUTE); at < reading._moment;
                 at += PIECE)
                known.insert(at);
        }
    }

    row_t merged(const std::vector<const row_t*>& group) const
    {
        row_t row = blank_row();
        for (const row_t* fine : group)
            row._percent_valid += fine->_percent_valid / static_cast<double>(group.size());
        for (size_t i = 0; i < _params.size(); ++i) {
            const bool pf = _params[i]._kind == READING_POWER_FACTOR;
            const auto scaled = [&](double value) { return pf ? on_scale(value) : value; };
            const auto back = [&](double value) { return pf ? off_scale(value) : value; };
            cell_t& cell = row._cells[i];
            double weighted = 0.0, weight = 0.0;
            for (const row_t* fine : group) {
                const cell_t& from = fine->_cells[i];
                if (!from._min.empty() &&
                    (cell._min.empty() || scaled(from._min[0]) < scaled(cell._min[0])))
                    cell._min = from._min;
                if (!from._max.empty() &&
                    (cell._max.empty() || scaled(from._max[0]) > scaled(cell._max[0])))
                    cell._max = from._max;
                if (!from._sum.empty())
                    cell._sum = {(cell._sum.empty() ? 0.0 : cell._sum[0]) + from._sum[0]};
                if (!from._avg.empty()) {
                    weighted += scaled(from._avg[0]) * fine->_percent_valid;
                    weight += fine->_percent_valid;
                }
            }
            if (weight > 0.0) cell._avg = {back(weighted / weight)};
        }
        return row;
    }

    std::vector<CRecorderParam> _params;
    int64_t _kept;
    readings_t _readings;  // of this start
    int64_t _closed = 0;
    bool _stamped = false;
    readings_t _late;       // since the last one that was older than the one before
    int64_t _late_end = 0;  // of the interval of the last one, 0 for none
    int64_t _late_taken = 0;
    int64_t _monotonic = 0;
    std::vector<std::pair<int64_t, row_t>> _late_rows;
    std::set<int64_t> _open;  // late rows that may have been too old
    std::set<int64_t>
        _incomplete;  // times of rows that may have been missing as others were merged
    std::map<int64_t, row_t> _waiting;  // closed and not committed
    std::map<int64_t, row_t> _rows;     // committed, without gaps
    int64_t _newest = -1;
};

bool is_close(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1.0 + std::fabs(b)); }

std::string compare(const char* name, bool pf, const COptVal& found, const maybe_t& wanted)
{
    if (!found && wanted.empty()) return "";
    // Just below unity and just above are neighbours, and a sum may come out on either side.
    const auto scaled = [&](double value) { return pf ? on_scale(value) : value; };
    if (found && !wanted.empty() && is_close(scaled(*found), scaled(wanted[0]))) return "";
    std::ostringstream text;
    text.precision(17);
    text << " " << name << " ";
    if (found)
        text << *found;
    else
        text << "absent";
    text << " instead of ";
    if (wanted.empty())
        text << "absent";
    else
        text << wanted[0];
    return text.str();
}

// One history.
class history_t {
public:
    history_t(unsigned int seed, const std::string& folder) : _random(seed), _folder(folder)
    {
        _file = _folder + "0.db";
        _options._periods = {{1, 10 + pick(12)}, {5, 6 + pick(3)}, {15, 4 + pick(4)}};
        _options._clock = &_clock;
        _options._max_ahead_ms = 3600'000;
        _options._believe_after_ms = 24 * 3600'000;
        _options._commit_every_ms = static_cast<int64_t>(pick(4)) * 90'000;
        _options._tell = [this](notice_t notice, const char* line) {
            _told += std::string(notice_name(notice)) + ": " + line + "\n";
        };
        const size_t number = 1 + pick(4);
        for (size_t i = 0; i < number; ++i) {
            CRecorderParam param;
            param._path = "p" + std::to_string(i);
            param._kind = static_cast<reading_kind_t>(pick(4));
            if (i == 0 && pick(4) != 0) param._kind = READING_GAUGE;
            const bool gauge = param._kind <= READING_POWER_FACTOR;
            param._has_min = param._has_max = param._has_avg = gauge;
            param._has_actual = param._kind != READING_TOTAL;
            param._has_sum = !gauge;
            param._hold_ms = PIECE * static_cast<int64_t>(1 + pick(pick(2) ? 200 : 1500));
            param._max_gap_ms = PIECE * static_cast<int64_t>(1 + pick(1000));
            _device._params.push_back(param);
        }
        _device._path = "pump";
        if (pick(3) == 0) _options._late = LATE_MERGE;
        _options._merge_every_ms = MINUTE;
        const auto kept = static_cast<int64_t>(_options._periods[0]._max_entries);
        _expected =
            std::make_unique<expected_t>(_device._params, _options._late == LATE_MERGE ? kept : 0);
        _true_wall = START + PIECE * static_cast<int64_t>(pick(3 * 3600 * 4));
    }

    static constexpr int64_t START = 1'800'000'000'000;

    // What is wrong in the end, empty for nothing.
    std::string run()
    {
        start();
        const size_t steps = 20 + pick(150);
        for (size_t i = 0; i < steps && _wrong.empty(); ++i)
            step();
        // In the end the clock is right, and all that is closed is committed.
        trust();
        make_right();
        _expected->pass(line());
        _expected->look(_clock._monotonic);
        if (_recorder->flush() != 0) fail("the last flush");
        note_commit(true);
        check_file();
        if (_recorder->close() != 0) fail("close");
        return _wrong.empty() ? "" : _wrong + "\n" + _told.substr(0, 2000);
    }

    std::string dump() const { return ::dump(_file); }

private:
    size_t pick(size_t n) { return _random() % n; }
    void fail(const std::string& what)
    {
        if (_wrong.empty()) _wrong = what;
    }

    void set_clock()
    {
        _clock._wall = _true_wall + _error;
        _clock._trusted = _trusted;
    }

    void pass(int64_t ms)
    {
        _true_wall += ms;
        _clock._monotonic += ms;
        set_clock();
    }

    // The time that the recorder goes by: the wall's, while that is trusted and believed.
    int64_t line() const { return _true_wall + _line_error; }

    void start()
    {
        _trusted = pick(4) != 0;
        _error = _trusted ? 0 : PIECE * (static_cast<int64_t>(pick(4'000'000)) - 4'000'000);
        _line_error = _error;
        _stamped = _trusted;
        _doubted = false;
        set_clock();
        _recorder = std::make_unique<CRecorder>();
        CRecorderHandles handles;
        if (_recorder->open(_file, _options) != 0 || _recorder->attach(_device, handles) != 0)
            fail("start");
        _params = handles._params;
        _expected->start(line(), _stamped);
        _expected->look(_clock._monotonic);
        _commits = 0;
        _meter = 0.0;
    }

    void trust()
    {
        if (_stamped) return;
        _trusted = true;
        _error = 0;
        set_clock();
        const int64_t moved = -_line_error;
        const int64_t half = moved < 0 ? -MINUTE / 2 : MINUTE / 2;
        _expected->move((moved + half) / MINUTE * MINUTE, _clock._monotonic);
        _line_error = 0;
        _stamped = true;
        tick();
    }

    void make_right()
    {
        if (_error == 0) return;
        _error = 0;
        set_clock();
        if (_doubted) _doubted = false;
        _line_error = 0;
        tick();
    }

    void tick()
    {
        if (_recorder->tick() != 0) fail("tick");
        _expected->pass(line());
        _expected->look(_clock._monotonic);
        note_commit(false);
    }

    void note_commit(bool flushed)
    {
        const uint64_t commits = _recorder->stats()._commits;
        if (commits != _commits || flushed) _expected->commit();
        _commits = commits;
        const size_t late = _recorder->stats()._late_rows;
        if (late == 0) _expected->merge();
        if (late != _expected->late_rows())
            fail(std::to_string(late) + " late rows instead of " +
                 std::to_string(_expected->late_rows()));
    }

    void push()
    {
        const size_t number = pick(_params.size());
        const reading_kind_t kind = _device._params[number]._kind;
        double value = 0.25 * static_cast<double>(pick(400)) - 20.0;
        if (kind == READING_POWER_FACTOR) value = 0.01 * static_cast<double>(pick(199)) - 0.99;
        if (kind == READING_COUNTER) {
            _meter = pick(30) == 0 ? 0.0 : _meter + 0.5 * static_cast<double>(pick(20));
            value = _meter;
        }
        // Now, or some time ago, as the clock on the wall says.
        int64_t ago =
            pick(3) == 0 ? PIECE * static_cast<int64_t>(pick(pick(4) == 0 ? 400 : 20)) : 0;
        if (pick(6) == 0) {  // a border
            const int64_t over = line() % MINUTE;
            ago = over % PIECE == 0 ? over : ago;
        }
        if (_options._late == LATE_MERGE && pick(5) == 0)
            ago = PIECE * static_cast<int64_t>(pick(8000));
        const int64_t moment = _clock._wall - ago;
        const bool expected = _expected->take(number, value, line() - ago);
        const int result = _recorder->push(_params[number], value, moment);
        if ((result == 0) != expected)
            fail("a reading of " + _device._params[number]._path + " at " +
                 std::to_string(line() - ago) + ": " + std::to_string(result));
    }

    void step()
    {
        const size_t what = pick(100);
        if (what < 55) {
            pass(PIECE * static_cast<int64_t>(1 + pick(120)));
            for (size_t i = pick(4); i > 0; --i)
                push();
            if (pick(3) != 0) tick();
        } else if (what < 75) {
            pass(PIECE * static_cast<int64_t>(1 + pick(20)));
            push();
        } else if (what < 80) {  // a silence, at times far longer than anything is kept
            pass(PIECE * static_cast<int64_t>(1 + pick(pick(3) == 0 ? 80'000 : 3'000)));
            tick();
        } else if (what < 84) {
            if (_recorder->flush() != 0 && _stamped) fail("flush");
            _expected->pass(line());
            _expected->look(_clock._monotonic);
            if (_stamped) note_commit(true);
        } else if (what < 87) {  // a clean stop
            if (_recorder->close() != 0 && _stamped) fail("close");
            _expected->end_late();
            _expected->pass(line());
            if (_stamped) _expected->commit();
            _expected->merge();
            pass(PIECE * static_cast<int64_t>(1 + pick(3'000)));
            start();
        } else if (what < 90) {  // killed
            kill();
            pass(PIECE * static_cast<int64_t>(1 + pick(3'000)));
            start();
        } else if (what < 94) {
            trust();
        } else if (_stamped && !_doubted && what < 97) {  // a step that is believed
            const int64_t by = PIECE * (static_cast<int64_t>(pick(1600)) - 800);
            _true_wall += by;  // this is the true time from now on
            set_clock();
            tick();
        } else if (_stamped && !_doubted) {  // one that is not, until it is over
            _error = 7200'000 + PIECE * static_cast<int64_t>(pick(10'000));
            _doubted = true;
            set_clock();
            tick();
        } else if (_doubted) {
            make_right();
        }
    }

    // What a crash would have left goes on under another name.
    void kill()
    {
        const std::string next = _folder + std::to_string(++_number) + ".db";
        for (const char* end : {"", "-wal"})
            if (fs::exists(_file + end)) fs::copy_file(_file + end, next + end);
        _recorder.reset();
        for (const char* end : {"", "-wal", "-shm"})
            fs::remove(_file + end);
        _file = next;
    }

    void check_file()
    {
        CLog& log = *_recorder->log();
        std::vector<CDeviceProperties> devices;
        CDeviceParams request;
        if (log.get_devices(devices) != 0 || devices.size() != 1) return fail("devices");
        request._device = devices[0];
        if (log.get_params(devices[0], request._params) != 0) return fail("params");
        std::map<int64_t, row_t> wanted = _expected->rows();
        int64_t length = MINUTE;
        for (const CPeriodProperties& period : _options._periods) {
            const int64_t next = static_cast<int64_t>(period._period) * MINUTE;
            if (next != length)
                wanted = _expected->rolled_up(wanted, next, static_cast<size_t>(next / length));
            length = next;
            CDeviceData data;
            if (log.get_trend_data(data, request, {period}, {-1, -1}, 0, 0, true, false) != 0)
                return fail("read");
            check_table(data._snapshots, wanted, length, period._max_entries);
        }
    }

    void check_table(const std::vector<CSnapshot>& rows, const std::map<int64_t, row_t>& wanted,
                     int64_t length, size_t kept)
    {
        const std::string table = std::to_string(length / MINUTE) + " min: ";
        if (rows.empty() != wanted.empty()) return fail(table + "rows or none");
        if (rows.empty()) return;
        if (int64_t{rows.back()._time} * 1000 != wanted.rbegin()->first)
            return fail(table + "newest row " + std::to_string(rows.back()._time) + " instead of " +
                        std::to_string(wanted.rbegin()->first / 1000));
        // All that is kept is there, without a hole.
        auto last = rows.rbegin();
        const size_t there = std::min(kept, wanted.size());
        for (size_t i = 0; i < there; ++i) {
            const int64_t end = wanted.rbegin()->first - static_cast<int64_t>(i) * length;
            if (last != rows.rend() && int64_t{last->_time} * 1000 == end)
                ++last;
            else if (!_expected->is_open(end, length))
                return fail(table + "no row " + std::to_string(i) + " before the newest");
        }
        for (const CSnapshot& row : rows) {
            const std::string name = table + "row " + std::to_string(row._time) + ":";
            const auto found = wanted.find(int64_t{row._time} * 1000);
            if (found == wanted.end()) return fail(name + " not expected");
            if (_expected->is_open(found->first, length)) continue;
            if (!is_close(row._percent_valid, found->second._percent_valid))
                return fail(name + " percent " + std::to_string(row._percent_valid) +
                            " instead of " + std::to_string(found->second._percent_valid));
            for (size_t i = 0; i < row._samples.size(); ++i) {
                const cell_t& cell = found->second._cells[i];
                const CSample& sample = row._samples[i];
                const bool pf = _device._params[i]._kind == READING_POWER_FACTOR;
                std::string wrong = compare("min", pf, sample._min, cell._min) +
                                    compare("max", pf, sample._max, cell._max) +
                                    compare("avg", pf, sample._avg, cell._avg) +
                                    compare("sum", pf, sample._sum, cell._sum);
                // Of a coarse row it is one that an extreme decides upon.
                if (length == MINUTE) wrong += compare("actual", pf, sample._actual, cell._actual);
                if (!wrong.empty()) return fail(name + " " + _device._params[i]._path + wrong);
            }
        }
    }

    std::mt19937 _random;
    std::string _folder;
    std::string _file;
    size_t _number = 0;
    test_clock _clock;
    CRecorderOptions _options;
    CRecorderDevice _device;
    std::string _told;
    std::unique_ptr<expected_t> _expected;
    std::unique_ptr<CRecorder> _recorder;
    std::vector<recorder_handle_t> _params;

    int64_t _true_wall = 0;
    int64_t _error = 0;       // of the clock on the wall
    int64_t _line_error = 0;  // of the time that the recorder goes by
    bool _trusted = true;
    bool _stamped = true;
    bool _doubted = false;
    uint64_t _commits = 0;
    double _meter = 0.0;
    std::string _wrong;
};

unsigned int setting(const char* name, unsigned int otherwise)
{
    const char* value = std::getenv(name);
    return value ? static_cast<unsigned int>(std::strtoul(value, nullptr, 10)) : otherwise;
}

// In memory if there is such a folder: it is the arithmetic that takes its time, not the disk.
class folder_t {
public:
    folder_t()
        : _path((access("/dev/shm", W_OK) == 0 ? std::string("/dev/shm")
                                               : fs::temp_directory_path().string()) +
                "/trend-history-XXXXXX")
    {
        if (mkdtemp(_path.data()) == nullptr) throw std::runtime_error(_path);
        _path += "/";
    }
    ~folder_t() { fs::remove_all(_path); }

    folder_t(const folder_t&) = delete;
    folder_t& operator=(const folder_t&) = delete;

    std::string _path;
};

}  // namespace

TEST(histories, leave_what_a_plain_computation_from_the_readings_gives)
{
    const unsigned int number = setting("TREND_RECORDER_HISTORIES", 500);
    const unsigned int first = setting("TREND_FAULTS_SEED", 1);
    for (unsigned int i = 0; i < number; ++i) {
        const folder_t folder;
        history_t history(first + i, folder._path);
        ASSERT_EQ(history.run(), "") << "TREND_FAULTS_SEED=" << first + i;
    }
    std::printf("Recorder histories: %u\n", number);
}

TEST(histories, leave_the_same_content_again)
{
    for (unsigned int seed = 1; seed <= 20; ++seed) {
        const folder_t folder, other;
        history_t history(seed, folder._path), again(seed, other._path);
        ASSERT_EQ(history.run(), "");
        ASSERT_EQ(again.run(), "");
        ASSERT_EQ(history.dump(), again.dump()) << "seed " << seed;
    }
}
