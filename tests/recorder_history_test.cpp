// Histories of starts, gaps, kills and steps of the clock at random: every row of the file must be
// what a plain computation from the readings gives, piece of time by piece of time.
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
    explicit expected_t(std::vector<CRecorderParam> params)
        : _params(std::move(params)), _readings(_params.size())
    {
    }

    // Whether a reading is to be taken, which it is then.
    bool take(size_t number, double value, int64_t moment)
    {
        const CRecorderParam& param = _params[number];
        std::vector<reading_t>& readings = _readings[number];
        if (moment <= _closed) return false;
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
            _waiting[end] = row_of(end);
        _closed = std::max(_closed, border);
    }

    // A start; before the clock is trusted what is stored says nothing.
    void start(int64_t now, bool trusted)
    {
        _closed = (now - 1) / MINUTE * MINUTE;
        if (trusted) _closed = std::max(_closed, _newest);
        for (auto& readings : _readings)
            readings.clear();
        _waiting.clear();
    }

    // Everything of this start lies so much later.
    void move(int64_t by)
    {
        std::map<int64_t, row_t> moved;
        for (const auto& [end, row] : _waiting)
            moved[end + by] = row;
        _waiting = moved;
        for (auto& readings : _readings)
            for (reading_t& reading : readings)
                reading._moment += by;
        _closed += by;
        _closed = std::max(_closed, _newest);  // recorded once by a clock that was ahead
    }

    void commit()
    {
        for (const auto& [end, row] : _waiting) {
            if (end <= _newest) continue;
            bool blank = true;
            for (const cell_t& cell : row._cells)
                blank = blank && cell._actual.empty() && cell._sum.empty() && cell._avg.empty();
            if (_rows.empty() && blank) continue;
            if (_rows.empty())
                for (int64_t t = (end - 1) / DAY * DAY + MINUTE; t < end; t += MINUTE)
                    _rows[t] = blank_row();
            for (int64_t t = _rows.empty() ? end : _rows.rbegin()->first + MINUTE; t < end;
                 t += MINUTE)
                _rows[t] = blank_row();
            _rows[end] = row;
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
    const reading_t* reading_at(size_t number, int64_t moment) const
    {
        const std::vector<reading_t>& readings = _readings[number];
        for (size_t i = readings.size(); i-- > 0;)
            if (readings[i]._moment <= moment) return &readings[i];
        return nullptr;
    }

    bool is_gauge(size_t number) const
    {
        return _params[number]._kind == READING_GAUGE ||
               _params[number]._kind == READING_POWER_FACTOR;
    }

    row_t row_of(int64_t end) const
    {
        row_t row = blank_row();
        std::set<int64_t> known;  // pieces of time
        bool has_amount = false, only_totals = true;
        for (size_t i = 0; i < _params.size(); ++i) {
            cell_t& cell = row._cells[i];
            only_totals = only_totals && _params[i]._kind == READING_TOTAL;
            if (is_gauge(i))
                gauge_cell(i, end, cell, known);
            else if (_params[i]._kind == READING_COUNTER)
                counter_cell(i, end, cell, known);
            else
                for (const reading_t& reading : _readings[i])
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

    void gauge_cell(size_t number, int64_t end, cell_t& cell, std::set<int64_t>& known) const
    {
        const bool pf = _params[number]._kind == READING_POWER_FACTOR;
        const auto scaled = [&](double value) { return pf ? on_scale(value) : value; };
        std::vector<double> seen;
        double weighted = 0.0;
        int64_t pieces = 0;
        for (int64_t at = end - MINUTE; at < end; at += PIECE) {
            const reading_t* reading = reading_at(number, at);
            if (!reading || at >= reading->_moment + hold_of(number)) continue;
            known.insert(at);
            seen.push_back(scaled(reading->_value));
            weighted += seen.back();
            ++pieces;
        }
        // What was read on the border was not held in any piece.
        for (const reading_t& reading : _readings[number])
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

    void counter_cell(size_t number, int64_t end, cell_t& cell, std::set<int64_t>& known) const
    {
        const std::vector<reading_t>& readings = _readings[number];
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
    std::vector<std::vector<reading_t>> _readings;  // of this start
    int64_t _closed = 0;
    std::map<int64_t, row_t> _waiting;  // closed and not committed
    std::map<int64_t, row_t> _rows;     // committed, without gaps
    int64_t _newest = -1;
};

bool is_close(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1.0 + std::fabs(b)); }

std::string compare(const char* name, const COptVal& found, const maybe_t& wanted)
{
    if (!found && wanted.empty()) return "";
    if (found && !wanted.empty() && is_close(*found, wanted[0])) return "";
    // Just below unity and just above are neighbours, and a sum may come out on either side.
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
        _expected = std::make_unique<expected_t>(_device._params);
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
        if (_recorder->flush() != 0) fail("the last flush");
        _expected->pass(line());
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
        _expected->move((moved + half) / MINUTE * MINUTE);
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
        note_commit(false);
    }

    void note_commit(bool flushed)
    {
        const uint64_t commits = _recorder->stats()._commits;
        if (commits != _commits || flushed) _expected->commit();
        _commits = commits;
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
            if (_stamped) note_commit(true);
        } else if (what < 87) {  // a clean stop
            if (_recorder->close() != 0 && _stamped) fail("close");
            _expected->pass(line());
            if (_stamped) _expected->commit();
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
        for (size_t i = 0; i < there; ++i, ++last)
            if (last == rows.rend() ||
                int64_t{last->_time} * 1000 !=
                    wanted.rbegin()->first - static_cast<int64_t>(i) * length)
                return fail(table + "no row " + std::to_string(i) + " before the newest");
        for (const CSnapshot& row : rows) {
            const std::string name = table + "row " + std::to_string(row._time) + ":";
            const auto found = wanted.find(int64_t{row._time} * 1000);
            if (found == wanted.end()) return fail(name + " not expected");
            if (!is_close(row._percent_valid, found->second._percent_valid))
                return fail(name + " percent " + std::to_string(row._percent_valid) +
                            " instead of " + std::to_string(found->second._percent_valid));
            for (size_t i = 0; i < row._samples.size(); ++i) {
                const cell_t& cell = found->second._cells[i];
                const CSample& sample = row._samples[i];
                std::string wrong = compare("min", sample._min, cell._min) +
                                    compare("max", sample._max, cell._max) +
                                    compare("avg", sample._avg, cell._avg) +
                                    compare("sum", sample._sum, cell._sum);
                // Of a coarse row it is one that an extreme decides upon.
                if (length == MINUTE) wrong += compare("actual", sample._actual, cell._actual);
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
