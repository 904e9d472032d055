#include "workers.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <new>
#include <stdexcept>

namespace {

constexpr size_t TEXT_SIZE = 8192;

// What a child tells, in memory that outlives it.
struct report_t {
    size_t _point;   // the one at work
    size_t _points;  // done by all children of the job
    bool _finished;
    size_t _met[COUNTERS];
    size_t _used;
    char _text[TEXT_SIZE];  // failures, one a line

    void add(const std::string& line)
    {
        const size_t count = std::min(line.size(), TEXT_SIZE - 1 - _used);
        std::memcpy(_text + _used, line.data(), count);
        _used += count;
    }
};

class worker_t {
public:
    worker_t()
    {
        void* const shared = mmap(nullptr, sizeof(report_t), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) throw std::runtime_error("mmap");
        _report = static_cast<report_t*>(shared);
        _stderr = memfd_create("stderr", 0);
        if (_stderr < 0) throw std::runtime_error("memfd_create");
    }

    ~worker_t()
    {
        munmap(_report, sizeof(report_t));
        close(_stderr);
    }

    worker_t(const worker_t&) = delete;
    worker_t& operator=(const worker_t&) = delete;

    void start(const job_t& job)
    {
        _job = &job;
        *_report = report_t{};
        fork_at(0);
    }

    pid_t pid() const { return _pid; }
    const job_t* job() const { return _job; }

    // The child has ended. True when its job is done, else it goes on in a new one.
    bool ended(int status, tally_t& tally, const may_stop_t& may_stop)
    {
        _pid = -1;
        if (!_report->_finished) {
            const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            const std::string said = last_words();
            ++_report->_points;
            if (may_stop && may_stop(signal, said)) {
                ++tally._stops;
            } else {
                _report->add(point_name(_report->_point) +
                             (signal == SIGALRM
                                  ? "did not come back"
                                  : "ended the process, status " + std::to_string(status)) +
                             ": " + said + "\n");
                ++_crashes;
            }
            if (_crashes < 20) {
                fork_at(_report->_point + 1);
                return false;
            }
        }
        _crashes = 0;
        tally._points += _report->_points;
        for (size_t i = 0; i < COUNTERS; ++i)
            tally._met[i] += _report->_met[i];
        const std::string text(_report->_text, _report->_used);
        for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            tally._failures.push_back(text.substr(at, end - at));
        return true;
    }

private:
    std::string point_name(size_t n) const
    {
        return _job->_name + ", " +
               (_job->_describe ? _job->_describe(n) : "point " + std::to_string(n)) + ": ";
    }

    // On one line.
    std::string last_words() const
    {
        char bytes[600];
        const off_t size = lseek(_stderr, 0, SEEK_END);
        const off_t start = std::max<off_t>(0, size - static_cast<off_t>(sizeof bytes));
        const ssize_t count = pread(_stderr, bytes, sizeof bytes, start);
        std::string text(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        std::replace(text.begin(), text.end(), '\n', ' ');
        return text;
    }

    void fork_at(size_t first)
    {
        std::fflush(nullptr);
        _pid = fork();
        if (_pid < 0) throw std::runtime_error("fork");
        if (_pid > 0) return;

        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(_stderr, STDERR_FILENO);
        work(first);
        _exit(0);
    }

    void work(size_t first)
    {
        try {
            if (_job->_begin) _job->_begin();
        } catch (const std::exception& e) {
            tell(_job->_name + ": exception: " + e.what());
            _report->_finished = true;
            return;
        }
        for (size_t n = first; n != point_t::DONE;) {
            _report->_point = n;
            forget_stderr();
            if (_seconds != 0) alarm(_seconds);
            point_t point{n, "", true, n + 1, {}};
            try {
                _job->_take(point);
            } catch (const std::exception& e) {
                point._failure += std::string("exception: ") + e.what();
            }
            alarm(0);
            if (!point._failure.empty())
                tell(point_name(n) + point._failure + " [" + last_words() + "]");
            if (point._counts) ++_report->_points;
            for (const size_t met : point._met)
                ++_report->_met[met];
            n = point._next;
        }
        std::string failure;
        if (_job->_end) _job->_end(failure);
        if (!failure.empty()) tell(_job->_name + ": " + failure);
        _report->_finished = true;
    }

    void tell(std::string line)
    {
        std::replace(line.begin(), line.end(), '\n', ' ');
        if (line.size() > 1500) line.resize(1500);
        _report->add(line + "\n");
    }

    void forget_stderr() const
    {
        if (ftruncate(_stderr, 0) == 0) lseek(_stderr, 0, SEEK_SET);
    }

public:
    unsigned int _seconds = 0;

private:
    report_t* _report = nullptr;
    int _stderr = -1;
    const job_t* _job = nullptr;
    pid_t _pid = -1;
    int _crashes = 0;
};

}  // namespace

std::string tally_t::failures() const
{
    std::string text;
    for (size_t i = 0; i < _failures.size() && i < 30; ++i)
        text += _failures[i] + "\n";
    return text;
}

tally_t run_jobs(const std::vector<job_t>& jobs, unsigned int seconds, const may_stop_t& may_stop)
{
    tally_t tally;
    const auto processors = static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    std::vector<worker_t> workers(std::min(processors, jobs.size()));
    std::map<pid_t, worker_t*> running;
    size_t next = 0;
    for (worker_t& worker : workers) {
        worker._seconds = seconds;
        worker.start(jobs[next++]);
        running[worker.pid()] = &worker;
    }
    while (!running.empty()) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, 0);
        const auto found = running.find(pid);
        if (found == running.end()) continue;
        worker_t& worker = *found->second;
        running.erase(found);
        if (worker.ended(status, tally, may_stop)) {
            if (next == jobs.size()) continue;
            worker.start(jobs[next++]);
        }
        running[worker.pid()] = &worker;
    }
    return tally;
}

size_t setting(const char* name, size_t otherwise)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? otherwise : static_cast<size_t>(std::strtoull(value, nullptr, 10));
}
