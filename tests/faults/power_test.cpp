// The power goes at every write. What had been synced is on the disk; of the rest each sector of
// 512 bytes may have arrived or not, whatever was written before or after it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "disk.h"
#include "scenario.h"
#include "sweep.h"
#include "trend_recorder.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

constexpr size_t SECTOR = 512;

// What happens to that which was not synced.
enum fate_t { LOST, KEPT, TORN };

// A run as the disk has seen it, with the states between two commits.
struct run_t {
    std::string _name;
    bool _wal;
    disk::image_t _start;
    std::vector<std::string> _states;  // at the start, then at each mark among the events
    std::vector<disk::event_t> _events;
};

using run_ptr_t = std::shared_ptr<const run_t>;

// Runs `work` on a log on that disk; it calls back after each thing done, with its result.
template <typename Work>
run_ptr_t record_run(const std::string& name, bool wal, const disk::image_t& start, Work work)
{
    const auto run = std::make_shared<run_t>();
    run->_name = name;
    run->_wal = wal;
    run->_start = start;
    disk::restore(start);
    run->_states.push_back(crashed_view());

    CLog log;
    disk::start_recording();
    work(log, [&](int failed) {
        if (failed) throw std::runtime_error(name + " fails by itself");
        // What commits nothing cannot be lost.
        const std::string state = live_view();
        if (state != run->_states.back()) run->_states.push_back(state);
        disk::mark(run->_states.size() - 1);
    });
    run->_events = disk::stop_recording();
    return run;
}

class manual_clock : public CRecorderClock {
public:
    int64_t wall() override { return _now; }
    int64_t monotonic() override { return _now; }
    bool is_trusted() override { return true; }

    int64_t _now = 1'800'000'000'001;
};

// A recorder that commits minute by minute, from its first start to its fifth coarse row. Twice it
// learns something late.
void record_with_recorder(CLog& log, const std::function<void(int)>& acknowledge)
{
    manual_clock clock;
    CRecorderOptions options;
    options._periods = {{1, 10}, {2, 4}, {4, 3}};
    options._late = LATE_MERGE;
    options._merge_every_ms = 0;
    options._clock = &clock;
    options._tell = [](notice_t, const char*) {};
    CRecorder recorder;
    CRecorderDevice pump;
    CRecorderHandles handles;
    pump._path = "plant/pump";
    pump._params.resize(1);
    pump._params[0]._path = "u";
    pump._params[0]._has_max = true;
    acknowledge(recorder.open(log, options));
    acknowledge(recorder.attach(pump, handles));
    for (int minute = 0; minute < 20; ++minute) {
        clock._now += minute == 6 ? 600'000 : 60'000;  // once a gap to fill
        acknowledge(recorder.flush());
        acknowledge(recorder.push(handles._params[0], minute, clock._now));
        if (minute != 8 && minute != 15) continue;
        acknowledge(recorder.push(handles._params[0], 100 + minute, clock._now - 390'000));
        acknowledge(recorder.flush());
    }
    acknowledge(recorder.close());
}

// Everything that changes a file, in every way of using it.
std::vector<run_ptr_t> record_runs()
{
    std::vector<run_ptr_t> runs;
    for (const setting_t& setting : SETTINGS) {
        runs.push_back(record_run("building up (" + setting.name() + ")", setting._wal, {},
                                  [&](CLog& log, const auto& acknowledge) {
                                      acknowledge(open_log(log, setting, true));
                                      build_up(log, acknowledge);
                                  }));
        runs.push_back(record_run("recorder (" + setting.name() + ")", setting._wal, {},
                                  [&](CLog& log, const auto& acknowledge) {
                                      acknowledge(open_log(log, setting, true));
                                      record_with_recorder(log, acknowledge);
                                  }));
        for (const step_t& step : steps()) {
            if (step.is(step_t::READS)) continue;
            runs.push_back(record_run(
                std::string(step._name) + " (" + setting.name() + ")", setting._wal,
                base_image(step._base, setting._wal), [&](CLog& log, const auto& acknowledge) {
                    if (!step.is(step_t::OPENS)) acknowledge(prepare(log, setting, step._traits));
                    acknowledge(step._run(log, setting)._code == step._success ? 0 : -1);
                }));
        }
    }
    return runs;
}

// The disk at one moment: what is on the medium for certain, and what is on its way there.
class medium_t {
public:
    explicit medium_t(disk::image_t start) : _synced(start), _seen(std::move(start)) {}

    void take(const disk::event_t& event)
    {
        switch (event._kind) {
            case disk::event_t::SYNCED:
                settle(event._file);
                if (event._durable) settle_deletions();
                break;
            case disk::event_t::DELETED:
                // Until the folder is synced the file may come back, as it was when it went.
                if (_synced.count(event._file) != 0) _deleted.insert(event._file);
                settle(event._file);
                _seen.erase(event._file);
                if (event._durable) settle_deletions();
                break;
            case disk::event_t::CREATED:
                if (_deleted.erase(event._file) != 0) _synced.erase(event._file);
                _seen[event._file];
                break;
            case disk::event_t::MARK:
                break;
            default:
                apply(_seen, event);
                _pending.push_back(&event);
        }
    }

    disk::image_t after_cut(fate_t fate, std::mt19937& random) const
    {
        if (fate == KEPT) return _seen;
        disk::image_t image = _synced;
        if (fate == LOST) return image;
        bool all_deleted = true;
        for (const std::string& name : _deleted) {
            if (random() % 2)
                image.erase(name);
            else
                all_deleted = false;
        }
        for (const disk::event_t* event : _pending) {
            if (event->_kind == disk::event_t::TRUNCATED) {
                // File systems keep the order of their own changes: a file is not shortened on the
                // medium while the journal that went before is still there.
                if (all_deleted && random() % 2) apply(image, *event);
                continue;
            }
            for (size_t at = 0; at < event->_bytes.size();) {
                const size_t end =
                    std::min((event->_offset + at) / SECTOR * SECTOR + SECTOR - event->_offset,
                             event->_bytes.size());
                if (random() % 2)
                    apply(image, {event->_kind, event->_file, event->_offset + at,
                                  event->_bytes.substr(at, end - at)});
                at = end;
            }
        }
        return image;
    }

private:
    static void apply(disk::image_t& image, const disk::event_t& event)
    {
        std::string& bytes = image[event._file];
        if (event._kind == disk::event_t::TRUNCATED) {
            bytes.resize(event._offset);
            return;
        }
        bytes.resize(std::max(bytes.size(), event._offset + event._bytes.size()));
        bytes.replace(event._offset, event._bytes.size(), event._bytes);
    }

    void settle(const std::string& file)
    {
        const auto seen = _seen.find(file);
        if (seen != _seen.end()) _synced[file] = seen->second;
        forget(file);
    }

    void settle_deletions()
    {
        for (const std::string& file : _deleted)
            _synced.erase(file);
        _deleted.clear();
    }

    void forget(const std::string& file)
    {
        _pending.erase(std::remove_if(_pending.begin(), _pending.end(),
                                      [&](const auto* event) { return event->_file == file; }),
                       _pending.end());
    }

    disk::image_t _synced;
    disk::image_t _seen;             // by the processes, while there is power
    std::set<std::string> _deleted;  // but perhaps not on the medium yet
    std::vector<const disk::event_t*> _pending;
};

// Cuts the power before event `n`, in each of the ways, and looks at what is left.
class cuts_t {
public:
    cuts_t(run_ptr_t run, size_t torn) : _run(std::move(run)), _fates(2 + torn) {}

    void begin()
    {
        _medium = std::make_unique<medium_t>(_run->_start);
        _taken = _acknowledged = 0;
    }

    void take(point_t& point)
    {
        const size_t at = point._n / _fates;
        for (; _taken < at; ++_taken)
            advance(_taken);
        if (at == _run->_events.size() && point._n % _fates == _fates - 1)
            point._next = point_t::DONE;

        const size_t way = point._n % _fates;
        std::mt19937 random(static_cast<unsigned int>(point._n));
        const fate_t fate = way == 0 ? LOST : way == 1 ? KEPT : TORN;
        disk::restore(_medium->after_cut(fate, random));

        // In rollback-journal mode the last commit stands once its journal is gone for good, which
        // nothing waits for.
        const std::string found = crashed_view();
        const size_t oldest = _run->_wal || _acknowledged == 0 ? _acknowledged : _acknowledged - 1;
        const size_t newest = std::min(_acknowledged + 1, _run->_states.size() - 1);
        size_t state = oldest;
        while (state <= newest && _run->_states[state] != found)
            ++state;
        if (state > newest) {
            const auto& states = _run->_states;
            const auto other = std::find(states.begin(), states.end(), found);
            point._failure =
                "after " + std::to_string(_acknowledged) + " acknowledged steps " +
                (other == states.end() ? "a state that never was: " + found.substr(0, 200)
                                       : "state " + std::to_string(other - states.begin()));
        }

        // The library opens it too, and goes on.
        CLog log;
        if (open_log(log, {_run->_wal, true}, true) != 0)
            point._failure += " the log does not open;";
        CDeviceProperties device;
        device._path = "plant/after";
        if (log.add_device(device) != 0) point._failure += " the log does not go on;";
    }

private:
    void advance(size_t i)
    {
        const disk::event_t& event = _run->_events[i];
        _medium->take(event);
        if (event._kind == disk::event_t::MARK) _acknowledged = event._offset;
    }

    run_ptr_t _run;
    size_t _fates;
    std::unique_ptr<medium_t> _medium;
    size_t _taken = 0;
    size_t _acknowledged = 0;
};

}  // namespace

TEST(power, is_cut_at_every_write)
{
    install_faults();
    const size_t torn = setting("TREND_FAULTS_TORN", 3);
    std::vector<job_t> jobs;
    for (const run_ptr_t& run : record_runs()) {
        const auto cuts = std::make_shared<cuts_t>(run, torn);
        job_t job;
        job._name = run->_name;
        job._begin = [cuts] { cuts->begin(); };
        job._take = [cuts](point_t& point) { cuts->take(point); };
        jobs.push_back(std::move(job));
    }

    const tally_t tally = run_jobs(jobs, 20);
    std::printf("Power-cut images: %zu, %zu failing\n", tally._points, tally._failures.size());
    // Fewer when less of what is torn is taken.
    EXPECT_GE(tally._points, torn >= 3 ? 47000U : 20000U);
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}
