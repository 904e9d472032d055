#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <thread>

#include "changing.h"
#include "commands/commands.h"
#include "input/input.h"
#include "input/lines.h"
#include "numbers.h"
#include "selection.h"
#include "talk.h"
#include "trend_recorder.h"

namespace trendlog {

namespace {

using steady_t = std::chrono::steady_clock;

constexpr size_t MOST_WAITING = 10000;       // readings of devices that are not known yet
constexpr std::chrono::seconds LEARNING(2);  // at most, of what parameters a device has
constexpr uint64_t SHOWN = 10;               // of the lines that do not fit
constexpr int64_t MS = 1000;
constexpr const char* DEFAULT_PERIODS = "1:2880,15:2976,1440:3650";

// The newest reading's time, for readings of the past.
class CInputClock : public CRecorderClock {
public:
    int64_t wall() override { return _now; }
    int64_t monotonic() override { return _now; }
    bool is_trusted() override { return true; }

    int64_t _now = 0;
};

struct reading_t {
    std::string _device;
    std::string _param;
    double _value = 0;
    int64_t _moment = 0;
};

// A device from its first reading on. Which parameters it has shows when one comes a second time:
// all that are sent have been there then.
struct known_t {
    std::vector<std::string> _params;
    steady_t::time_point _since = steady_t::now();
    bool _is_learned = false;
    bool _is_attached = false;
    bool _is_refused = false;
    std::map<std::string, recorder_handle_t> _handles;
};

class CRecord {
public:
    explicit CRecord(const CArguments& arguments)
        : _arguments(arguments),
          _name(arguments.text("FILE")),
          _zone(arguments.text("--tz", "UTC")),
          _device(arguments.text("--device")),
          _recipe(arguments),
          _replays(arguments.has("--replay")),
          _lines(arguments.text("INPUT", "-"))
    {
        if (arguments.has("--periods"))
            _options._periods = parse_periods(arguments.text("--periods"));
        const auto duration = [&](const char* option, int64_t& milliseconds) {
            if (arguments.has(option)) milliseconds = parse_duration(arguments.text(option)) * MS;
        };
        if (_replays) {
            _options._clock = &_clock;
            _options._commit_every_ms = 3600 * MS;
        }
        duration("--hold", _options._hold_ms);
        duration("--commit-every", _options._commit_every_ms);
        _options._tell = [this](notice_t notice, const char* line) { hear(notice, line); };
        look_at_file();
    }

    exit_code_t run()
    {
        std::string_view line;
        bool more = true;
        while (more && !is_interrupted()) {
            while (_lines.take(line))
                take(line);
            feed(false);
            more = _lines.fill(_replays ? -1 : 500);
        }
        while (_lines.take(line))
            take(line);
        end_input();
        feed(true);
        return finish();
    }

private:
    // The file ----------------------------------------------------------------------------------

    // What is the matter with it is said as everywhere, and what it has is asked for.
    void look_at_file()
    {
        struct stat status {};
        const bool is_new = stat(_name.c_str(), &status) != 0 || status.st_size == 0;
        if (is_new) {
            if (_options._periods.empty()) _options._periods = parse_periods(DEFAULT_PERIODS);
            return;
        }
        CLogFile file(_arguments, TO_CHANGE);
        file.change([] { return 0; });
        _options._wal = file.pragma_text("journal_mode") == "wal";
        for (const CDeviceProperties& device : file.devices())
            _stored[device._path] = file.params(device);
    }

    void open()
    {
        _options._max_devices = std::max<size_t>(64, _known.size() * 2);
        if (_recorder.open(_name, _options) != 0) throw failure_t(_name + ": " + _last_told);
        std::vector<CPeriodProperties> periods;
        if (_recorder.log()->get_periods(periods) != 0 || periods.empty())
            throw failure_t(_name + ": its periods cannot be read");
        _step = static_cast<int64_t>(periods.front()._period) * 60 * MS;
    }

    // Lines -------------------------------------------------------------------------------------

    void take(std::string_view line)
    {
        try {
            if (_lines.is_cut()) throw bad_line_t("longer than a line can be");
            const size_t begin = line.find_first_not_of(" \t");
            if (!_input && (begin == std::string_view::npos || line[begin] == '#')) return;
            if (!_input) _input = make_input(_arguments, line, _zone);
            entry_t entry;
            if (_input->parse(line, entry)) take(entry);
        } catch (const bad_line_t& bad) {
            misfit(bad.what());
        } catch (const bad_input_t& bad) {
            throw failure_t(_lines.name() + ": " + bad.what());
        }
    }

    void end_input()
    {
        try {
            if (_input) _input->end();
        } catch (const bad_line_t& bad) {
            misfit(bad.what());
        }
    }

    void misfit(const std::string& cause)
    {
        if (++_misfits > SHOWN) return;
        remark(_lines.name() + ", line " + std::to_string(_lines.number()) + ": " + cause);
        if (_misfits == SHOWN) remark("lines that do not fit are only counted from here on");
    }

    void take(const entry_t& entry)
    {
        const std::string device = _device.empty() ? entry._device : _device;
        if (device.empty()) throw bad_line_t("no device; --device names it for all lines");
        if (!entry._has_time && _replays) throw bad_line_t("no time");
        const int64_t moment = entry._has_time ? entry._time_ms : now_ms();
        for (const entry_value_t& value : entry._values) {
            if (value._aggregate != -1)
                throw bad_line_t("'" + value._param +
                                 "' has aggregates; readings have one value, rows are for import");
            if (value._param.empty()) throw bad_line_t("a parameter without a name");
        }
        known_t& known = _known[device];
        for (const entry_value_t& value : entry._values) {
            if (!value._value) continue;
            const auto found = std::find(known._params.begin(), known._params.end(), value._param);
            if (found == known._params.end())
                known._params.push_back(value._param);
            else
                known._is_learned = true;
            _waiting.push_back({device, value._param, *value._value, moment});
        }
    }

    static int64_t now_ms()
    {
        using namespace std::chrono;
        return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    }

    // Readings ----------------------------------------------------------------------------------

    // Hands the readings on in the order in which they have come, up to one whose device is not
    // known well enough; all of them at the end.
    void feed(bool all)
    {
        while (!_waiting.empty()) {
            const reading_t reading = _waiting.front();
            known_t& known = _known[reading._device];
            const bool is_known = known._is_learned || all || _waiting.size() > MOST_WAITING ||
                                  (!_replays && steady_t::now() - known._since > LEARNING);
            if (!is_known) break;
            known._is_learned = true;
            set_clock(reading._moment);
            if (!_recorder.is_open()) open();
            if (!known._is_refused && known._handles.count(reading._param) == 0)
                attach(reading._device, known);
            if (known._is_refused)
                ++_refused_devices_readings;
            else
                push(reading, known);
            _waiting.pop_front();
        }
        if (_recorder.is_open() && !_replays) tick();
    }

    void push(const reading_t& reading, const known_t& known)
    {
        if (_recorder.push(known._handles.at(reading._param), reading._value, reading._moment) != 0)
            return;
        const int64_t begin = open_interval();
        while (!_recent.empty() && _recent.front()._moment <= begin)
            _recent.pop_front();
        _recent.push_back(reading);
    }

    int64_t open_interval()
    {
        const int64_t now = _replays ? _clock._now : now_ms();
        return (now - 1) / _step * _step;
    }

    // In a replay time goes on with the readings; what they have passed is closed and committed.
    void set_clock(int64_t moment)
    {
        if (!_replays || moment <= _clock._now) return;
        const bool passes = _recorder.is_open() && moment > open_interval() + _step;
        _clock._now = moment;
        if (passes) tick();
    }

    void tick() { static_cast<void>(_recorder.tick()); }

    // A device with parameters that have not been there before: a recorder takes them at its start
    // alone, and what it was told of the open intervals is told again. What held from before them
    // is unknown there.
    void attach(const std::string& path, known_t& known)
    {
        const bool is_full = _attached >= _options._max_devices;
        if (known._is_attached || is_full) {
            _is_reopening = true;
            _recorder.close();
            _is_reopening = false;
            add_stats();
            open();
            _attached = 0;
            for (auto& [other, each] : _known)
                if (each._is_attached) attach_one(other, each);
            if (!known._is_attached) attach_one(path, known);
            const std::deque<reading_t> recent = std::move(_recent);
            _recent.clear();
            for (const reading_t& reading : recent) {
                const known_t& of = _known[reading._device];
                if (of._is_refused || reading._moment <= open_interval()) continue;
                const recorder_handle_t param = of._handles.at(reading._param);
                if (_recorder.push(param, reading._value, reading._moment) != 0) continue;
                ++_taken_again;
                _recent.push_back(reading);
            }
            return;
        }
        attach_one(path, known);
    }

    void attach_one(const std::string& path, known_t& known)
    {
        CRecorderDevice device;
        device._path = path;
        for (const std::string& param : known._params)
            device._params.push_back(make_param(path, param));
        CRecorderHandles handles;
        if (_recorder.attach(device, handles) != 0) {
            known._is_refused = true;
            known._is_attached = false;
            say(_name + ": '" + path + "' is not recorded: " + _last_told +
                (_last_told.find("no aggregate is kept") == std::string::npos
                     ? ""
                     : "; --kind says what it is"));
            return;
        }
        ++_attached;
        known._is_attached = true;
        known._handles.clear();
        for (size_t i = 0; i < known._params.size(); ++i)
            known._handles[known._params[i]] = handles._params[i];
    }

    // One that is stored is what it is there, unless --keep asks for more. Whether it is a counter
    // or a total is not seen by what is stored: --kind says it at each start, and without that one
    // that keeps sums alone is refused.
    CRecorderParam make_param(const std::string& device, const std::string& name) const
    {
        CParamProperties param = _recipe.make(name);
        reading_kind_t kind = _recipe.kind_of(name);
        const auto stored = _stored.find(device);
        if (stored != _stored.end())
            for (const CParamProperties& each : stored->second) {
                if (each._path != name) continue;
                if (!_recipe.has_keep()) param = each;
                if (kind == READING_LISTEND && each._type == SAMPLE_TYPE_PF)
                    kind = READING_POWER_FACTOR;
            }
        if (kind == READING_LISTEND) kind = READING_GAUGE;
        CRecorderParam made;
        made._path = name;
        made._kind = kind;
        const bool is_gauge = kind == READING_GAUGE || kind == READING_POWER_FACTOR;
        made._has_min = param._has_min && is_gauge;
        made._has_max = param._has_max && is_gauge;
        made._has_avg = param._has_avg && is_gauge;
        made._has_actual = param._has_actual && kind != READING_TOTAL;
        made._has_sum = param._has_sum && !is_gauge;
        const bool keeps_nothing = !made._has_min && !made._has_max && !made._has_avg &&
                                   !made._has_actual && !made._has_sum;
        if (keeps_nothing && _recipe.kind_of(name) != READING_LISTEND)
            (is_gauge ? made._has_avg : made._has_sum) = true;
        return made;
    }

    // Telling -----------------------------------------------------------------------------------

    // What is refused comes line by line as fast as readings do: it is counted and told at the end.
    // What concerns the file or the clock is told at once.
    void hear(notice_t notice, const char* line)
    {
        _last_told = line;
        if (_is_reopening && notice == NOTICE_UNFINISHED) return;
        switch (notice) {
            case NOTICE_BUSY:
                if (_total._notices[NOTICE_BUSY]++ == 0) remark(_name + ": " + line);
                break;
            case NOTICE_FULL:
            case NOTICE_FAILED:
            case NOTICE_CLOCK:
            case NOTICE_REBUILD:
            case NOTICE_OVERFLOW:
            case NOTICE_REJECTED:
            case NOTICE_ABANDONED:
                remark(_name + ": " + line);
                break;
            default:
                if (_first_of[notice].empty()) _first_of[notice] = line;
        }
    }

    void add_stats()
    {
        const CRecorderStats stats = _recorder.stats();
        for (size_t i = 0; i < NOTICE_LISTEND; ++i)
            if (i != NOTICE_BUSY)
                _total._notices[i] += stats._notices[i];  // that is counted at once
        _total._readings += stats._readings;
        _total._rows += stats._rows;
        _total._resets += stats._resets;
    }

    exit_code_t finish()
    {
        if (!_recorder.is_open()) {
            remark(_name + ": no readings have come");
            return EXIT_DONE;
        }
        // What lies in the past is over: its last interval too.
        if (_replays && open_interval() + _step + 1 < now_ms())
            _clock._now = open_interval() + _step + 1;
        commit_rest();
        const int failed = _recorder.close();
        add_stats();
        uint64_t refused = 0;
        for (const notice_t notice : {NOTICE_LATE, NOTICE_FUTURE, NOTICE_DUPLICATE,
                                      NOTICE_NOT_FINITE, NOTICE_OUT_OF_LIMITS, NOTICE_UNKNOWN})
            refused += tell_of(notice, "refused");
        for (const notice_t notice :
             {NOTICE_GAP, NOTICE_UNFINISHED, NOTICE_OVERFLOW, NOTICE_REJECTED, NOTICE_ABANDONED})
            tell_of(notice, "lost");
        if (_misfits > 0) remark(_name + ": " + counted(_misfits, "line") + " did not fit");
        if (_refused_devices_readings > 0)
            remark(_name + ": " + counted(_refused_devices_readings, "reading") +
                   " of devices that are not recorded");
        remark(_name + ": " + counted(_total._readings - _taken_again, "reading") + " taken, " +
               std::to_string(refused) + " refused, " + counted(_total._rows, "row") + " stored");
        if (failed == 0) return EXIT_DONE;
        say(_name + ": " + counted(_total._notices[NOTICE_ABANDONED], "row") +
            " could not be stored");
        return _total._notices[NOTICE_BUSY] > 0 ? EXIT_BUSY : EXIT_FAILED;
    }

    // Who else has the file locked is waited for as everywhere.
    void commit_rest()
    {
        const int64_t patience =
            _arguments.has("--timeout") ? parse_duration(_arguments.text("--timeout")) : 5;
        const steady_t::time_point ends = steady_t::now() + std::chrono::seconds(patience);
        while (_recorder.flush() == NOTICE_BUSY && steady_t::now() < ends)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    uint64_t tell_of(notice_t notice, const char* what) const
    {
        uint64_t n = _total._notices[notice];
        if (notice == NOTICE_UNFINISHED) n -= std::min(n, _taken_again);
        if (n == 0) return 0;
        const auto first = _first_of.find(notice);
        remark(_name + ": " + std::to_string(n) + " " + what + " (" + notice_name(notice) + ")" +
               (first == _first_of.end() ? "" : ", the first one: " + first->second));
        return n;
    }

    const CArguments& _arguments;
    const std::string _name;
    const CZone _zone;
    const std::string _device;
    const CRecipe _recipe;
    const bool _replays;
    CLines _lines;
    input_t _input;
    CRecorderOptions _options;
    CInputClock _clock;
    std::map<std::string, std::vector<CParamProperties>> _stored;
    std::map<std::string, known_t> _known;
    std::deque<reading_t> _waiting;  // for their device to be known
    std::deque<reading_t> _recent;   // of the open intervals
    size_t _attached = 0;
    int64_t _step = 60 * MS;
    std::string _last_told;
    std::map<notice_t, std::string> _first_of;
    CRecorderStats _total;
    uint64_t _taken_again = 0;
    uint64_t _misfits = 0;
    uint64_t _refused_devices_readings = 0;
    bool _is_reopening = false;
    CRecorder _recorder;  // the last one: it goes first, and tells
};

exit_code_t run(const CArguments& arguments) { return CRecord(arguments).run(); }

}  // namespace

command_t record_command()
{
    const options_t own = {
        {"--device", "D", "the device of all lines, for `time,PARAM,PARAM`"},
        {"--periods", "P:N,...", "of a new log; 1:2880,15:2976,1440:3650 unless given"},
    };
    const options_t recorder = {
        {"--hold", "TIME", "how long a value holds after its reading, 3m unless given"},
        {"--commit-every", "TIME", "what a power cut may take; each minute unless given"},
        {"--replay", "", "readings of the past: the time is theirs, not the clock's"},
    };
    return {"record",
            SECTION_DATA,
            "Record readings from standard input as they come",
            "Until its end or SIGTERM. JSON lines {\"time\": T, \"device\": D, \"values\": "
            "{PARAM: 1}}, without time the present; CSV `time,device,param,value`; line protocol. "
            "What is new is added.",
            {{"FILE", "the log, made if there is none"}},
            own + recipe_options() + recorder + input_options() + common_options(),
            {{"trendlog record new.db --quiet <<< '{\"device\": \"pump\", \"values\": {\"t\": 3}}'",
              "A reading of now"},
             {"trendlog record new.db --device d --replay --quiet <<< $'time,t\\n60,1\\n90,2'",
              "Readings of the past"}},
            run};
}

}  // namespace trendlog
