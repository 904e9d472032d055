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

// What points count.
constexpr size_t BROKEN_OFF = 0;
size_t strike(size_t fault, bool wal) { return 1 + fault * 2 + (wal ? 1 : 0); }

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
        // A rollback journal leaves nothing to checkpoint.
        const bool has_work =
            _step.is(step_t::VACUUMS) || (_step.is(step_t::CHECKPOINTS) && _setting._wal);
        if (work_is_done() == has_work) throw std::runtime_error("the step finds nothing to do");
        _expected = _step._run(*_log, _setting);
        _after = live_view();
        if (_expected._code != _step._success || _before[0] == '!' || _after[0] == '!')
            throw std::runtime_error("the step fails by itself");
        if ((_after == _before) != _step.is(step_t::KEEPS) || !work_is_done())
            throw std::runtime_error("the step does not do what it is for");
        go_on_or_throw();
        _in_the_end = live_view();
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
        const size_t number = point._n / FAULT_SPAN;
        const fault_t& fault = _faults[number];
        set_up();

        fault._arm(_first + point._n % FAULT_SPAN * _stride);
        answer_t answer = _step._run(*_log, _setting);
        if (fault._disarm() == 0 || !can_meet(fault)) {
            // There was no such call: the next fault, if there is one.
            point._counts = false;
            point._next = number + 1 == _faults.size() ? point_t::DONE : (number + 1) * FAULT_SPAN;
            _log.reset();
            return;
        }

        point._met.push_back(strike(number, _setting._wal));
        judge(answer, fault, point);
        _log.reset();
        if (disk::open_files() != 0) point._failure += " files left open;";
        if (sqlite3_memory_used() != _memory_used) point._failure += " SQLite's memory leaked;";
    }

private:
    void set_up()
    {
        disk::restore(base_image(_step._base, _setting._wal));
        _log = std::make_unique<CLog>();
        if (!_step.is(step_t::OPENS) && prepare(*_log, _setting, _step._traits) != 0)
            throw std::runtime_error("can't prepare the log");
    }

    // Without faults, so that what the library and the tests keep for the next time is what they
    // always keep.
    void settle()
    {
        for (int i = 0; i < 2; ++i) {
            set_up();
            _step._run(*_log, _setting);
            go_on_or_throw();
            _log.reset();
        }
        disk::restore({});
        forget_views();
    }

    // SQLite does not look into the pages that it reads to undo changes in its cache: there a disk
    // fails, or it gives what it has.
    bool can_meet(const fault_t& fault) const
    {
        return fault._kind != fault_t::DAMAGE || !_step.is(step_t::ROLLS_BACK);
    }

    void judge(const answer_t& answer, const fault_t& fault, point_t& point)
    {
        std::string& failure = point._failure;
        const bool done = answer._code == _expected._code;
        const bool whole = done && answer._text == _expected._text && work_is_done();
        const std::string left = crashed_view();
        if (done) {
            if (left != _after) failure += " success without the new state;";
            if (!whole && !may_be_partial(answer, fault))
                failure += " success without the whole work: " + answer._text + ";";
            if (!whole && _step.is(step_t::TOLERANT)) point._met.push_back(BROKEN_OFF);
        } else {
            if (left != _before && left != _after)
                failure += " failure with a mixed state: " + left.substr(0, 200) + ";";
            if (_step.is(step_t::OPENS) && _log->is_open()) failure += " open after a failed open;";
        }
        if (!whole) repeat(left, failure);

        go_on(failure);
        const std::string in_the_end = live_view();
        if (in_the_end != _in_the_end)
            failure += " something else in the end: " + in_the_end.substr(0, 200) + ";";
    }

    // A read may have broken off after some lines; a checkpoint leaves what a reader still needs.
    bool may_be_partial(const answer_t& answer, const fault_t& fault) const
    {
        const std::string& text = answer._text;
        if (_step.is(step_t::TOLERANT))
            return (text.empty() || text.back() == '\n') &&
                   _expected._text.compare(0, text.size(), text) == 0;
        return _step.is(step_t::CHECKPOINTS) && fault._kind == fault_t::BUSY;
    }

    // What cannot be seen in the log's rows.
    bool work_is_done() const
    {
        if (_step.is(step_t::VACUUMS)) return free_pages() == 0;
        if (_step.is(step_t::CHECKPOINTS)) return view_of_file_alone() == _before;
        return true;
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
        const bool may_fail = left == _after && !_step.is(step_t::KEEPS);
        if (again._code != _expected._code && !may_fail)
            failure += " repeating fails: " + std::to_string(again._code) + ";";
        if (again._code == _expected._code && (again._text != _expected._text || !work_is_done()))
            failure += " repeating does not do the whole work: " + again._text + ";";
    }

    // The log records on another device; one that is open to read refuses to, until it is opened to
    // write.
    void go_on(std::string& failure)
    {
        if (!_log->is_open() || !_step.has_devices()) return;
        if (_step.is(step_t::READ_ONLY)) {
            if (record_elsewhere(*_log) == 0) failure += " records although it is open to read;";
            if (open_log(*_log, _setting, false) != 0) failure += " does not open to write;";
        }
        if (record_elsewhere(*_log) != 0) failure += " the log does not record any more;";
    }

    void go_on_or_throw()
    {
        std::string failure;
        go_on(failure);
        if (!failure.empty()) throw std::runtime_error(failure);
    }

    const step_t& _step;
    setting_t _setting;
    const std::vector<fault_t>& _faults;
    size_t _first;
    size_t _stride;

    std::unique_ptr<CLog> _log;
    std::string _before;
    std::string _after;
    std::string _in_the_end;  // when the log has gone on after the step
    answer_t _expected;
    sqlite3_int64 _memory_used = 0;
    size_t _blocks = 0;
};

}  // namespace

std::vector<job_t> sweep_jobs(const std::vector<fault_t>& faults, size_t first, size_t stride)
{
    const size_t sampled = setting("TREND_FAULTS_ALL", 0) != 0 ? 1 : 12;
    std::vector<job_t> jobs;
    for (const step_t& step : steps()) {
        for (const setting_t& setting : SETTINGS) {
            base_image(step._base, setting._wal);  // once for all children
            const size_t own = step.is(step_t::LONG) ? stride * sampled : stride;
            const auto sweep = std::make_shared<sweep_t>(step, setting, faults, first, own);
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

size_t strikes(const tally_t& tally, size_t fault, bool wal)
{
    return tally._met.at(strike(fault, wal));
}

size_t reads_broken_off(const tally_t& tally) { return tally._met[BROKEN_OFF]; }

void install_faults()
{
    memory::install();
    disk::install();
}
