#include "sweep.h"

#include <sqlite3.h>

#include <memory>
#include <stdexcept>

#include "disk.h"
#include "memory.h"

using namespace toolkit::trend;

namespace {

// Points of one fault have numbers of their own.
constexpr size_t FAULT_SPAN = 10000000;

class sweep_t {
public:
    sweep_t(const step_t& step, setting_t setting, const std::vector<fault_t>& faults, size_t first,
            size_t stride)
        : _step(step), _setting(setting), _faults(faults), _first(first), _stride(stride)
    {
    }

    // What the step does when nothing fails.
    void begin()
    {
        set_up();
        _before = crashed_view();
        _expected = _step._run(*_log, _setting);
        _after = live_view();
        if (_expected._code != _step._success || _before.empty() || _after[0] == '!')
            throw std::runtime_error("the step fails by itself");
        _log.reset();
        settle();
        _memory_used = sqlite3_memory_used();
        _blocks = memory::blocks();
    }

    void end(std::string& failure)
    {
        settle();
        if (memory::blocks() != _blocks)
            failure = std::to_string(memory::blocks() - _blocks) + " blocks leaked";
    }

    std::string describe(size_t n) const
    {
        return _faults[n / FAULT_SPAN]._name + ", number " +
               std::to_string(_first + n % FAULT_SPAN * _stride);
    }

    void take(point_t& point)
    {
        const fault_t& fault = _faults[point._n / FAULT_SPAN];
        set_up();

        fault._arm(_first + point._n % FAULT_SPAN * _stride);
        answer_t answer = _step._run(*_log, _setting);
        if (fault._disarm() == 0) {
            // There was no such call: the next fault, if there is one.
            point._counts = false;
            const size_t next = point._n / FAULT_SPAN + 1;
            point._next = next == _faults.size() ? point_t::DONE : next * FAULT_SPAN;
            _log.reset();
            return;
        }

        judge(answer, point._failure);
        _log.reset();
        if (disk::open_files() != 0) point._failure += " files left open;";
        if (sqlite3_memory_used() != _memory_used) point._failure += " SQLite's memory leaked;";
    }

private:
    void set_up()
    {
        disk::restore(base_image(_step._base, _setting._wal));
        _log = std::make_unique<CLog>();
        if (!_step._opens && prepare(*_log, _setting) != 0)
            throw std::runtime_error("can't prepare the log");
    }

    // Without faults, so that what the library and the tests keep for the next time is what they
    // always keep.
    void settle()
    {
        for (int i = 0; i < 2; ++i) {
            set_up();
            _step._run(*_log, _setting);
            record_elsewhere(*_log);
            _log.reset();
        }
        disk::restore({});
        forget_views();
    }

    void judge(const answer_t& answer, std::string& failure)
    {
        const bool done = answer._code == _expected._code;
        const std::string left = crashed_view();
        if (done) {
            if (left != _after) failure += " success without the new state;";
            const bool begins = _expected._text.compare(0, answer._text.size(), answer._text) == 0;
            if (_step._tolerant ? !begins : answer._text != _expected._text)
                failure += " success with a wrong answer: " + answer._text + ";";
        } else {
            if (left != _before && left != _after)
                failure += " failure with a mixed state: " + left.substr(0, 200) + ";";
            if (_step._opens && _log->is_open()) failure += " open after a failed open;";
            repeat(left, failure);
        }

        // The rest wants a log that is open and the devices that the prepared one has.
        if (!_log->is_open() || _step._base != step_t::LOG) return;
        if (record_elsewhere(*_log) != 0) failure += " the log does not record any more;";
        if (live_view()[0] == '!') failure += " the file is damaged in the end;";
    }

    void repeat(const std::string& left, std::string& failure)
    {
        const answer_t again = _step._run(*_log, _setting);
        const std::string now = live_view();
        if (now != _after) {
            failure += " repeating does not bring the new state: " + now.substr(0, 200) + ";";
            return;
        }
        // What failed only in being committed may be there all the same; it is not there twice.
        if (again._code != _expected._code && left != _after)
            failure += " repeating fails: " + std::to_string(again._code) + ";";
        if (again._code == _expected._code && again._text != _expected._text)
            failure += " repeating gives a wrong answer: " + again._text + ";";
    }

    const step_t& _step;
    setting_t _setting;
    const std::vector<fault_t>& _faults;
    size_t _first;
    size_t _stride;

    std::unique_ptr<CLog> _log;
    std::string _before;
    std::string _after;
    answer_t _expected;
    sqlite3_int64 _memory_used = 0;
    size_t _blocks = 0;
};

}  // namespace

std::vector<job_t> sweep_jobs(const std::vector<fault_t>& faults, size_t first, size_t stride)
{
    std::vector<job_t> jobs;
    for (const step_t& step : steps()) {
        for (const setting_t& setting : SETTINGS) {
            base_image(step._base, setting._wal);  // once for all children
            const auto sweep = std::make_shared<sweep_t>(step, setting, faults, first, stride);
            job_t job;
            job._name = std::string(step._name) + " (" + setting.name() + ")";
            job._begin = [sweep] { sweep->begin(); };
            job._take = [sweep](point_t& point) { sweep->take(point); };
            job._end = [sweep](std::string& failure) { sweep->end(failure); };
            job._describe = [sweep](size_t n) { return sweep->describe(n); };
            jobs.push_back(std::move(job));
        }
    }
    disk::restore({});
    return jobs;
}

void install_faults()
{
    memory::install();
    disk::install();
}
