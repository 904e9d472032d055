// Every call of SQLite's to the disk and every request for memory fails while a recorder records,
// once or for a while: no row is stored twice, and none is lost. TREND_FAULTS_EVERY takes one in so
// many of them, TREND_FAULTS_SEED says which.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "disk.h"
#include "memory.h"
#include "sweep.h"
#include "trend_recorder.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

constexpr int64_t START = 1'800'000'000'000;
constexpr int64_t MINUTE = 60'000;
constexpr int64_t MINUTES = 17;
constexpr size_t DEVICES = 2;

class manual_clock : public CRecorderClock {
public:
    int64_t wall() override { return START + _now; }
    int64_t monotonic() override { return _now; }
    bool is_trusted() override { return true; }

    int64_t _now = 1;
};

// A host that records two devices and commits every two minutes. What it reads of two of them it
// may learn late.
class host_t {
public:
    host_t(bool wal, bool late) : _is_late(late)
    {
        _options._periods = {{1, 40}, {5, 12}, {15, 8}};
        _options._wal = wal;
        _options._max_devices = DEVICES;
        _options._hold_ms = MINUTE / 2;
        _options._commit_every_ms = 2 * MINUTE;
        _options._late = late ? LATE_MERGE : LATE_REFUSE;
        _options._merge_every_ms = MINUTE;
        _options._clock = &_clock;
        _options._tell = [](notice_t, const char*) {};
        for (size_t i = 0; i < DEVICES; ++i) {
            CRecorderDevice device;
            device._path = "device with a long path, number " + std::to_string(i);
            device._params.resize(1);
            device._params[0]._path = "u";
            device._params[0]._has_max = device._params[0]._has_avg = true;
            _devices.push_back(device);
        }
        _handles.resize(DEVICES);
    }

    int open()
    {
        if (const int failed = _recorder.open("trend.db", _options)) return failed;
        for (size_t i = 0; i < DEVICES; ++i)
            if (const int failed = _recorder.attach(_devices[i], _handles[i])) return failed;
        return 0;
    }

    // Reads in the middle of the minute, and ticks when it is over.
    int record(int64_t minute)
    {
        if (!_is_late || (minute != 4 && minute != 5)) {
            if (read(minute) != 0) return -1;
        }
        if (_is_late && minute == 6 && read(4) + read(5) != 0) return -1;
        _clock._now = minute * MINUTE + 1;
        return _recorder.tick();
    }

    static double value_of(size_t device, int64_t minute)
    {
        return static_cast<double>(minute) + 100.0 * static_cast<double>(device);
    }

    int read(int64_t minute)
    {
        int failed = 0;
        for (size_t i = 0; i < DEVICES; ++i)
            failed += _recorder.push(_handles[i]._params[0], value_of(i, minute),
                                     START + minute * MINUTE - MINUTE / 2);
        return failed;
    }

    CRecorder& operator*() { return _recorder; }

    // What is wrong with what it has recorded.
    std::string wrong()
    {
        CLog& log = *_recorder.log();
        std::vector<CDeviceProperties> devices;
        if (log.get_devices(devices) != 0 || devices.size() != DEVICES) return " devices;";
        for (size_t i = 0; i < DEVICES; ++i) {
            CDeviceParams request;
            request._device = devices[i];
            CDeviceData data;
            if (log.get_trend_data(data, request, {{1, 40}}, {-1, -1}, 0, 0, true, false) != 0)
                return " no read;";
            if (data._snapshots.size() != MINUTES) return " not every row;";
            for (int64_t minute = 1; minute <= MINUTES; ++minute) {
                const CSnapshot& row = data._snapshots[static_cast<size_t>(minute) - 1];
                if (int64_t{row._time} * 1000 != START + minute * MINUTE) return " a wrong time;";
                // Held for half a minute, and no longer.
                if (row._percent_valid != 50.0 || !row._samples[0]._avg ||
                    *row._samples[0]._avg != value_of(i, minute))
                    return " a wrong row;";
            }
            if (log.get_trend_data(data, request, {{15, 8}}, {-1, -1}, 0, 0, true, false) != 0)
                return " no read;";
            if (data._snapshots.size() != 1 ||
                int64_t{data._snapshots[0]._time} * 1000 != START + 15 * MINUTE ||
                std::fabs(*data._snapshots[0]._samples[0]._avg - value_of(i, 8)) > 1e-9)
                return " a wrong coarse row;";
        }
        const CRecorderStats stats = _recorder.stats();
        if (stats._rows != DEVICES * (_is_late ? MINUTES - 2 : MINUTES))
            return " rows counted wrong;";
        if (stats._merged != (_is_late ? 2 * DEVICES : 0)) return " late rows counted wrong;";
        if (stats._notices[NOTICE_OVERFLOW] + stats._notices[NOTICE_REJECTED] +
                stats._notices[NOTICE_LATE] !=
            0)
            return " rows given up;";
        return "";
    }

private:
    bool _is_late;
    manual_clock _clock;
    CRecorderOptions _options;
    std::vector<CRecorderDevice> _devices;
    std::vector<CRecorderHandles> _handles;
    CRecorder _recorder;
};

// Where the faults are armed.
enum phase_t { OPENING, RECORDING, MERGING };

job_t job_of(const fault_t& fault, bool wal, phase_t phase)
{
    const size_t stride = setting("TREND_FAULTS_EVERY", 3);
    const size_t first = 1 + setting("TREND_FAULTS_SEED", 0) % stride;
    job_t job;
    const bool opening = phase == OPENING, late = phase == MERGING;
    job._name = fault._name + (wal ? ", WAL" : ", journal") +
                (opening ? ", opening"
                 : late  ? ", merging"
                         : "");
    job._take = [=](point_t& point) {
        disk::restore({});
        host_t host(wal, late);
        if (!opening && host.open() != 0) throw std::runtime_error("open");
        // Merging is what comes after what the other ones have seen.
        int64_t minute = 1;
        for (; late && minute <= 5; ++minute)
            host.record(minute);
        fault._arm(first + point._n * stride);
        size_t struck = 0;
        if (opening && host.open() != 0) {
            struck = fault._disarm();
            if ((*host).is_open()) (*host).close();
            if (host.open() != 0) point._failure += " the second open fails;";
        }
        for (; minute <= 9; ++minute)
            if (!opening) host.record(minute);
        struck += fault._disarm();
        for (minute = opening ? 1 : minute; minute <= MINUTES; ++minute)
            host.record(minute);
        if ((*host).flush() != 0) point._failure += " flush fails without a fault;";
        if (struck == 0) {
            point._counts = false;
            point._next = point_t::DONE;
        }
        point._failure += host.wrong();
    };
    return job;
}

void sweep(const std::vector<fault_t>& faults, const char* name, size_t goal)
{
    install_faults();
    std::vector<job_t> jobs;
    for (const fault_t& fault : faults)
        for (const bool wal : {true, false})
            for (const phase_t phase : {OPENING, RECORDING, MERGING})
                jobs.push_back(job_of(fault, wal, phase));
    const tally_t tally = run_jobs(jobs, 60);
    std::printf("Recorder, failing %s: %zu swept, %zu failing\n", name, tally._points,
                tally._failures.size());
    // A job with fewer calls than the stride may have none of the sample.
    const size_t stride = setting("TREND_FAULTS_EVERY", 3);
    EXPECT_GE(tally._points, stride <= 3 ? goal : goal / stride);
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}

}  // namespace

TEST(recorder_faults, calls_to_the_disk_lose_no_row_and_double_none)
{
    const struct {
        const char* _name;
        disk::call_t _call;
        int _code;
    } failures[] = {
        {"read", disk::READ, SQLITE_IOERR_READ},
        {"write", disk::WRITE, SQLITE_IOERR_WRITE},
        {"write to a full disk", disk::WRITE, SQLITE_FULL},
        {"short write", disk::SHORT_WRITE, SQLITE_IOERR_WRITE},
        {"sync", disk::SYNC, SQLITE_IOERR_FSYNC},
        {"truncate", disk::TRUNCATE, SQLITE_IOERR_TRUNCATE},
        {"open", disk::OPEN, SQLITE_CANTOPEN},
        {"delete", disk::DELETE, SQLITE_IOERR_DELETE},
        {"size", disk::SIZE, SQLITE_IOERR_FSTAT},
        {"access", disk::ACCESS, SQLITE_IOERR_ACCESS},
        {"lock", disk::LOCK, SQLITE_IOERR_LOCK},
        {"unlock", disk::UNLOCK, SQLITE_IOERR_UNLOCK},
        {"map shared memory", disk::SHM_MAP, SQLITE_IOERR_SHMMAP},
        {"lock shared memory", disk::SHM_LOCK, SQLITE_IOERR_SHMLOCK},
    };
    std::vector<fault_t> faults;
    for (const auto& failure : failures)
        for (const bool persistent : {false, true})
            faults.push_back(
                {std::string(failure._name) + (persistent ? " from" : " at"), fault_t::FAILURE,
                 [=](size_t n) { disk::arm(failure._call, failure._code, n, persistent); },
                 disk::disarm});
    // What others have locked they have for a moment: the log waits for it.
    for (const disk::call_t call : {disk::LOCK, disk::SHM_LOCK})
        faults.push_back({"busy", fault_t::BUSY,
                          [=](size_t n) { disk::arm(call, SQLITE_BUSY, n, false); }, disk::disarm});
    sweep(faults, "calls to the disk", 500);
}

TEST(recorder_faults, requests_for_memory_lose_no_row_and_double_none)
{
    std::vector<fault_t> faults;
    const size_t offset = setting("TREND_FAULTS_SEED", 0) % 13;
    for (const bool persistent : {false, true})
        for (const memory::source_t source : {memory::SQLITE, memory::OURS})
            faults.push_back({std::string(source == memory::OURS ? "library" : "SQLite") +
                                  (persistent ? " from" : " at"),
                              fault_t::FAILURE,
                              [=](size_t n) { memory::arm(source, n * 13 - offset, persistent); },
                              memory::disarm});
    sweep(faults, "requests for memory", 500);
}

TEST(recorder_faults, full_disk_is_told_as_such)
{
    install_faults();
    disk::restore({});
    for (const bool wal : {true, false}) {
        disk::restore({});
        host_t host(wal, false);
        ASSERT_EQ(host.open(), 0);
        EXPECT_EQ(host.record(1), 0);
        disk::leave_room(0);
        EXPECT_EQ(host.record(2), NOTICE_FULL);
        disk::make_room();
        for (int64_t minute = 3; minute <= MINUTES; ++minute)
            host.record(minute);
        EXPECT_EQ((*host).flush(), 0);
        EXPECT_EQ(host.wrong(), "");
    }
}
