// The benchmarks. Each is named by its case and by who does the work, "record_1x8/library": cases
// with a floor are run by both, in a file of their own each. An iteration is one transaction or one
// call; the counter `items` says how many snapshots, rows or calls it stands for.
//
// Every benchmark checks what it has done. A label says what has been recorded, filled or read, and
// the counter `result` is a checksum of the file or of the values: benchmarks with the same label
// must have the same. With --brief everything runs for a moment only.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "database.h"
#include "floor_side.h"
#include "library_side.h"
#include "meter.h"
#include "plant.h"
#include "reader_bench.h"
#include "trend_recorder.h"
#ifdef TREND_BENCH_RRD
#include "rrd_side.h"
#endif

namespace {

bool brief = false;
bool anything_failed = false;
std::map<std::string, double> results;  // by label

void want(bool fine, const char* what)
{
    if (!fine) throw std::runtime_error(what);
}

// A file of its own in the current folder, gone afterwards.
class scratch_file {
public:
    scratch_file() { remove_all(); }
    ~scratch_file() { remove_all(); }

    scratch_file(const scratch_file&) = delete;
    scratch_file& operator=(const scratch_file&) = delete;

    static constexpr const char* NAME = "trend_bench.db";
    const std::string _name = NAME;

private:
    void remove_all() const
    {
        for (const char* suffix : {"", "-wal", "-shm"})
            std::remove((_name + suffix).c_str());
    }
};

// What the timed part of a benchmark costs besides time, as counters.
class cost_t {
public:
    cost_t()
    {
        forget_peak_memory();
        _resident = resident_memory();
        _written = bytes_written();
    }

    void stop()
    {
        _written = bytes_written() - _written;
        _peak = peak_memory();
    }

    void tell(benchmark::State& state, size_t items) const
    {
        const auto per_iteration = static_cast<double>(items);
        const auto all = per_iteration * static_cast<double>(state.iterations());
        state.counters["items"] = per_iteration;
        state.counters["bytes_per_item"] = static_cast<double>(_written) / all;
        state.counters["peak"] = static_cast<double>(_peak);
        state.counters["peak_growth"] = static_cast<double>(_peak - _resident);
    }

private:
    int64_t _resident = 0;
    int64_t _written = 0;
    int64_t _peak = 0;
};

std::string describe(const plant_t& plant)
{
    std::string text = std::to_string(plant._devices) + "x" + std::to_string(plant._params);
    for (const toolkit::trend::CPeriodProperties& period : plant._periods)
        text += ", " + std::to_string(period._max_entries) + " of " +
                std::to_string(period._period) + " min";
    return text;
}

void compare(benchmark::State& state, const std::string& label, double result)
{
    state.SetLabel(label);
    state.counters["result"] = result;
    const auto known = results.emplace(label, result).first;
    want(known->second == result, "another benchmark had another result");
}

// Recording ------------------------------------------------------------------------------------

struct recording_t {
    const char* _name;
    plant_t _plant;
    bool _history;      // begin with full tables
    int _minutes_each;  // snapshots of every device in a transaction, 0 for a commit each
    int64_t _warm_up;   // minutes recorded before anything is measured
    int64_t _iterations;
    bool _sync = true;
    size_t _pool_capacity = 0;
    bool _others = false;  // another connection commits before every snapshot, untimed
};

// Another connection to the file, which changes it without changing what it holds.
class other_connection {
public:
    explicit other_connection(bool wanted)
    {
        if (wanted) want(sqlite3_open(scratch_file::NAME, &_db) == SQLITE_OK, "can't open");
    }
    ~other_connection() { sqlite3_close(_db); }

    other_connection(const other_connection&) = delete;
    other_connection& operator=(const other_connection&) = delete;

    void commit()
    {
        want(sqlite3_exec(_db, "PRAGMA user_version = 2", nullptr, nullptr, nullptr) == SQLITE_OK,
             "can't commit");
    }

private:
    sqlite3* _db = nullptr;
};

// What the library remembers of its devices, in bytes of memory blocks: what a recording gives back
// that cannot prove it. The file stays as it was.
int64_t remembered(library_side& side, const plant_t& plant, int64_t minute)
{
    toolkit::trend::CSnapshot snapshot = empty_snapshot(plant);
    measure(snapshot, minute);
    side.begin();
    want(side.log().begin_transaction() == 0, "can't begin");
    side.log().rollback_transaction();
    const allocations_t allocations;
    side.record(0, snapshot);
    const int64_t kept = -allocations.now();
    side.log().rollback_transaction();
    return kept;
}

template <typename Side>
void record_minute(Side& side, const plant_t& plant, toolkit::trend::CSnapshot& snapshot,
                   int64_t minute)
{
    measure(snapshot, minute);
    for (size_t device = 0; device < plant._devices; ++device)
        side.record(device, snapshot);
}

template <typename Side>
void record(benchmark::State& state, Side& side, const recording_t& job)
{
    const plant_t& plant = job._plant;
    toolkit::trend::CSnapshot snapshot = empty_snapshot(plant);
    int64_t minute = job._history ? history_end(plant) : 0;
    side.begin();
    for (int64_t i = 0; i < job._warm_up; ++i)
        record_minute(side, plant, snapshot, ++minute);
    side.end();

    other_connection other(job._others);
    cost_t cost;
    for (auto _ : state) {
        if (job._others) {
            state.PauseTiming();
            other.commit();
            state.ResumeTiming();
        }
        if (job._minutes_each == 0) {
            record_minute(side, plant, snapshot, ++minute);
        } else {
            side.begin();
            for (int i = 0; i < job._minutes_each; ++i)
                record_minute(side, plant, snapshot, ++minute);
            side.end();
        }
    }
    cost.stop();
    cost.tell(state, plant._devices * static_cast<size_t>(std::max(job._minutes_each, 1)));
}

int64_t minutes_recorded(const recording_t& job, int64_t iterations)
{
    return job._warm_up + iterations * static_cast<int64_t>(std::max(job._minutes_each, 1));
}

// Every table of the last device ends where it should and has the rows that it should: all of them
// where recording began with empty tables, else as many as are kept, and those that came since the
// last roll-up, which trims.
void check_recorded(const scratch_file& file, const recording_t& job, int64_t minutes)
{
    const plant_t& plant = job._plant;
    const int64_t begin = job._history ? history_end(plant) : 0;
    for (size_t i = 0; i < plant._periods.size(); ++i) {
        const auto length = static_cast<int64_t>(plant._periods[i]._period);
        const int64_t added = minutes / length;
        int64_t expected = added;
        if (job._history) {
            expected = static_cast<int64_t>(plant._periods[i]._max_entries) + 10;
            if (i + 1 < plant._periods.size())
                expected += added % static_cast<int64_t>(plant._periods[i + 1]._period /
                                                         plant._periods[i]._period);
        }
        const std::string table =
            "trends_" + std::to_string(plant._devices) + "_" + std::to_string(length);
        want(count_rows(file._name, table) == expected, "a table has not the rows it should");
        want(added == 0 || newest_time(file._name, table) == 60 * (begin + added * length),
             "a table does not end where it should");
    }
}

template <typename Side>
void run_recording(benchmark::State& state, const recording_t& job)
{
    const scratch_file file;
    const without_sync quick(!job._sync);
    make_log(file._name, job._plant);
    if (job._history) add_history(file._name, job._plant);
    {
        if constexpr (std::is_same_v<Side, library_side>) {
            Side side(file._name, job._plant, job._pool_capacity);
            record(state, side, job);
            const int64_t minutes = minutes_recorded(job, static_cast<int64_t>(state.iterations()));
            state.counters["remembered"] = static_cast<double>(remembered(
                side, job._plant, (job._history ? history_end(job._plant) : 0) + minutes + 1));
            // 1 KB a device and 10 bytes a parameter, in one selection each.
            state.counters["allowed"] =
                static_cast<double>(job._plant._devices * (1024 + 10 * job._plant._params));
        } else {
            Side side(file._name, job._plant);
            record(state, side, job);
        }
    }
    const int64_t minutes = minutes_recorded(job, static_cast<int64_t>(state.iterations()));
    check_recorded(file, job, minutes);
    compare(state,
            "record " + describe(job._plant) + (job._history ? ", full at first: " : ": ") +
                std::to_string(minutes) + " minutes",
            checksum(file._name));
}

#ifdef TREND_BENCH_RRD
void run_rrd(benchmark::State& state, const recording_t& job)
{
    const int64_t begin = history_end(job._plant);
    rrd_side side(job._plant, begin);
    record(state, side, job);

    toolkit::trend::CSnapshot last = empty_snapshot(job._plant);
    measure(last, begin + minutes_recorded(job, static_cast<int64_t>(state.iterations())));
    want(side.stored_average(job._plant._devices - 1, last._time) == *last._samples[0]._avg,
         "the last snapshot is not stored");
}
#endif

// The recorder ---------------------------------------------------------------------------------

struct recorder_job_t {
    const char* _name;
    plant_t _plant;
    int64_t _commit_minutes;
    bool _readings;  // one a second of each parameter, instead of a ready row a minute
    int64_t _iterations;
};

class bench_clock : public toolkit::trend::CRecorderClock {
public:
    int64_t wall() override { return _now; }
    int64_t monotonic() override { return _now; }
    bool is_trusted() override { return true; }

    int64_t _now = 0;
};

// A minute of every device, and a tick at its end; commits come as the job says.
void run_recorder(benchmark::State& state, const recorder_job_t& job)
{
    using namespace toolkit::trend;
    const scratch_file file;
    const without_sync quick;
    const plant_t& plant = job._plant;
    make_log(file._name, plant);
    add_history(file._name, plant);
    bench_clock clock;
    int64_t minute = history_end(plant);
    clock._now = minute * 60'000 + 1;
    const int64_t begin = minute;
    {
        CRecorderOptions options;
        options._clock = &clock;
        options._max_devices = plant._devices;
        options._commit_every_ms = job._commit_minutes * 60'000;
        CRecorder recorder;
        want(recorder.open(file._name, options) == 0, "can't open");
        std::vector<CRecorderHandles> handles(plant._devices);
        for (size_t i = 0; i < plant._devices; ++i) {
            const CDeviceParams stored = device_of(plant, i + 1);
            CRecorderDevice device;
            device._path = stored._device._path;
            device._ready = !job._readings;
            for (const CParamProperties& param : stored._params) {
                CRecorderParam wanted;
                wanted._path = param._path;
                wanted._has_min = wanted._has_max = wanted._has_avg = wanted._has_actual = true;
                device._params.push_back(wanted);
            }
            want(recorder.attach(device, handles[i]) == 0, "can't attach");
        }

        CSnapshot snapshot = empty_snapshot(plant);
        const auto record_minute = [&] {
            ++minute;
            for (const CRecorderHandles& device : handles) {
                if (!job._readings) {
                    measure(snapshot, minute);
                    want(recorder.record(device._device, snapshot) == 0, "a row was refused");
                    continue;
                }
                for (int64_t second = 1; second <= 60; ++second)
                    for (const recorder_handle_t param : device._params)
                        want(recorder.push(param, static_cast<double>(second % 7),
                                           (minute - 1) * 60'000 + second * 1'000) == 0,
                             "a reading was refused");
            }
            clock._now = minute * 60'000 + 1;
            want(recorder.tick() == 0, "a commit failed");
        };
        for (int i = 0; i < 30; ++i)
            record_minute();
        cost_t cost;
        for (auto _ : state)
            for (int i = 0; i < 15; ++i)
                record_minute();
        cost.stop();
        cost.tell(state, plant._devices * 15);
        want(recorder.close() == 0, "rows were lost");
    }
    want(newest_time(file._name, "trends_1_1") == minute * 60, "the last row is missing");
    want(count_rows(file._name, "trends_1_1 WHERE time > " + std::to_string(begin * 60)) ==
             std::min<int64_t>(minute - begin, 1440 + 10 + (minute - begin) % 15),
         "rows are missing");
}

// Filling --------------------------------------------------------------------------------------

struct filling_t {
    const char* _name;
    plant_t _plant;
    int64_t _minutes;  // the gap that each call fills
    int64_t _iterations;
};

template <typename Side>
void run_filling(benchmark::State& state, const filling_t& job)
{
    const scratch_file file;
    make_log(file._name, job._plant);
    add_history(file._name, job._plant);
    {
        const without_sync quick;
        Side side(file._name, job._plant);
        int64_t now = history_end(job._plant);
        side.fill(0, 60 * (now += job._minutes));
        cost_t cost;
        for (auto _ : state)
            side.fill(0, 60 * (now += job._minutes));
        cost.stop();
        cost.tell(state, 1);

        const int64_t last_gap = 60 * (now - job._minutes);
        want(count_rows(file._name, "trends_1_1 WHERE percent_valid = 1 AND time > " +
                                        std::to_string(last_gap)) == job._minutes,
             "the gap is not filled");
    }
    compare(state, job._name, checksum(file._name));
}

// Reading --------------------------------------------------------------------------------------

struct reading_t {
    const char* _name;
    plant_t _plant;
    size_t _periods;
    bool _one_day;  // the last day, instead of everything
    bool _no_overlap;
    int64_t _iterations;
};

size_t rows_to_read(const reading_t& job)
{
    if (job._one_day) return 1440 + 1;  // both ends
    size_t sum = 0;
    size_t covered = 0;  // minutes before the end that finer periods go back
    for (size_t i = 0; i < job._periods; ++i) {
        const size_t length = job._plant._periods[i]._period;
        const size_t rows = static_cast<size_t>(job._plant._periods[i]._max_entries) + 10;
        // Every table ends at the same time.
        sum += rows;
        if (job._no_overlap && i > 0) sum -= std::min(rows, covered / length + 1);
        covered = std::max(covered, (rows - 1) * length);
    }
    return sum;
}

template <typename Side>
void run_reading(benchmark::State& state, const reading_t& job)
{
    const scratch_file file;
    make_log(file._name, job._plant);
    add_history(file._name, job._plant);

    Side side(file._name, job._plant);
    const time_t end = static_cast<time_t>(60 * history_end(job._plant));
    const timebounds_t bounds(job._one_day ? end - 86400 : -1, -1);
    size_t rows = 0;
    int64_t allocated = 0;
    {
        const allocations_t allocations;
        rows = side.read(0, job._periods, bounds, job._no_overlap);
        allocated = allocations.most();
    }
    const double sum = side.sum_of_values();

    cost_t cost;
    for (auto _ : state) {
        rows = side.read(0, job._periods, bounds, job._no_overlap);
        benchmark::DoNotOptimize(rows);
    }
    cost.stop();
    cost.tell(state, rows);
    state.counters["allocated"] = static_cast<double>(allocated);
    state.counters["records"] = static_cast<double>(side.bytes_of_records());

    want(rows == rows_to_read(job), "not the rows that should be read");
    want(side.sum_of_values() == sum, "two reads gave different values");
    compare(state,
            "read " + describe(job._plant) + ": " + std::to_string(job._periods) +
                (job._one_day ? " for a day" : " whole") +
                (job._no_overlap ? " without overlap" : ""),
            sum + static_cast<double>(rows));
}

// Single operations of the library -------------------------------------------------------------

void run_opening(benchmark::State& state, const plant_t& plant)
{
    const scratch_file file;
    make_log(file._name, plant);
    std::vector<toolkit::trend::CPeriodProperties> periods;
    cost_t cost;
    for (auto _ : state) {
        // The first statement reads the schema.
        toolkit::trend::CLog log;
        want(log.open(file._name, false, false, 10, false, 0, 0, 0, true) == 0, "can't open");
        want(log.get_periods(periods) == 0, "can't list periods");
    }
    cost.stop();
    cost.tell(state, 1);
    want(periods.size() == plant._periods.size(), "not every period was listed");
}

// A parameter gains and loses an aggregate, for which every table of the device is built anew.
// After an odd number of changes it has the aggregate, without a value; all others are as before.
void run_rebuilding(benchmark::State& state, const plant_t& plant)
{
    const scratch_file file;
    const without_sync quick;
    make_log(file._name, plant);
    add_history(file._name, plant);
    const uint32_t before = checksum_of_values(file._name, plant, 1);
    {
        library_side side(file._name, plant);
        toolkit::trend::CDeviceParams device = device_of(plant, 1);
        device._params.resize(1);
        cost_t cost;
        for (auto _ : state) {
            device._params[0]._has_sum = !device._params[0]._has_sum;
            want(side.log().modify_params(device._device, device._params) == 0, "can't modify");
        }
        cost.stop();
        cost.tell(state, 1);
    }
    want(checksum_of_values(file._name, plant, 1) == before, "values were lost");
    for (const toolkit::trend::CPeriodProperties& period : plant._periods) {
        const std::string table = "trends_1_" + std::to_string(period._period);
        want(count_rows(file._name, table + " WHERE param_1_sum IS NULL") ==
                 count_rows(file._name, table),
             "the new column is not blank");
    }
}

int count_select(void* count, int action, const char*, const char*, const char*, const char*)
{
    if (action == SQLITE_SELECT) ++*static_cast<size_t*>(count);
    return SQLITE_OK;
}

// Two texts in turns: both stay in a pool of two, neither in a pool of one.
void run_pool(benchmark::State& state, size_t capacity)
{
    const scratch_file file;
    make_log(file._name, {1, 8});
    toolkit::trend::CDatabase db;
    want(db.open(file._name, capacity, false, false, false, 0, 0, 0, true) == 0, "can't open");
    const std::string texts[] = {"SELECT max(time) FROM trends_1_1",
                                 "SELECT min(time) FROM trends_1_1"};
    const auto take_both = [&] {
        for (const std::string& text : texts)
            want(db.stmt(text, toolkit::trend::STMT_POOLED) != nullptr, "can't prepare");
    };
    cost_t cost;
    for (auto _ : state)
        take_both();
    cost.stop();
    cost.tell(state, std::size(texts));

    size_t prepared = 0;  // SQLite asks whether a statement may be when it is prepared
    sqlite3_set_authorizer(*db, count_select, &prepared);
    take_both();
    want(prepared == (capacity > 1 ? 0 : std::size(texts)), "the pool has kept too much or little");
}

// The list -------------------------------------------------------------------------------------

void add(const std::string& name, int64_t iterations,
         const std::function<void(benchmark::State&)>& run)
{
    const auto guarded = [run](benchmark::State& state) {
        try {
            run(state);
        } catch (const std::exception& failure) {
            anything_failed = true;
            state.SkipWithError(failure.what());
        }
    };
    benchmark::RegisterBenchmark(name.c_str(), guarded)
        ->Iterations(brief ? 3 : iterations)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
}

template <typename Job, typename Run>
void add_sides(const Job& job, Run library, Run floor)
{
    const std::string name = job._name;
    add(name + "/library", job._iterations, [=](benchmark::State& state) { library(state, job); });
    add(name + "/floor", job._iterations, [=](benchmark::State& state) { floor(state, job); });
}

plant_t with_fine_rows(size_t devices, size_t params, size_t rows)
{
    plant_t plant{devices, params};
    plant._periods[0]._max_entries = rows;
    return plant;
}

void add_recording(const recording_t& job)
{
    add_sides(job, run_recording<library_side>, run_recording<floor_side>);
}

void add_all()
{
    const int64_t day = brief ? 30 : 1500;  // a little more, so that everything has happened once
    add_recording({"record_1x8", {1, 8}, true, 100, day, 200});
    add_recording({"record_1x100", {1, 100}, true, 100, day, 30});
    add_recording({"record_1x8_commit_each", {1, 8}, true, 0, day, 8000, false});
    add_recording({"record_1x8_others_commit", {1, 8}, true, 0, day, 4000, false, 0, true});
    add_recording({"record_1000x8_tick", {size_t(brief ? 20 : 1000), 8}, false, 1, 16, 45});

    // The library against itself: how much history there is, how many fine rows make a coarse one,
    // and what the pool holds: everything, what recording with the first roll-ups needs, or too
    // little for an insert and a roll-up each. The floor is there for its file.
    const plant_t hundred{size_t(brief ? 5 : 100), 8};
    const plant_t million = with_fine_rows(1, 8, brief ? 10000 : 1000000);
    const plant_t hours{1, 8, {{1, 1440}, {60, 168}, {1440, 366}}};
    const plant_t days{1, 8, {{1, 1440}, {1440, 366}}};
    const size_t with_roll_up = 3 * hundred._devices + 2;
    for (const recording_t& job :
         {recording_t{"record_1x8_day_kept", {1, 8}, true, 100, day, 200, false},
          recording_t{"record_1x8_million_kept", million, true, 100, day, 200, false},
          recording_t{"record_1x8_ratio_60", hours, true, 100, day, 200, false},
          recording_t{"record_1x8_ratio_1440", days, true, 100, day, 100, false},
          recording_t{"record_100x8_all_pooled", hundred, true, 1, 16, 60, false}})
        add_recording(job);
    for (const recording_t& job :
         {recording_t{"record_100x8_plain_pool", hundred, true, 1, 16, 60, false, with_roll_up},
          recording_t{"record_100x8_short_pool", hundred, true, 1, 16, 60, false,
                      with_roll_up - hundred._devices - 1},
          recording_t{"record_100x8_small_pool", hundred, true, 1, 16, 60, false, 64},
          recording_t{"record_100x8_commit_each", hundred, true, 0, 16, 60, false}})
        add(std::string(job._name) + "/library", job._iterations,
            [=](benchmark::State& state) { run_recording<library_side>(state, job); });

    // The peer's jobs: a call each, and a durable minute of a hundred devices.
    const recording_t durable = {"record_100x8_durable", hundred, true, 1, 16, 60};
    add("record_100x8_durable/library", durable._iterations,
        [=](benchmark::State& state) { run_recording<library_side>(state, durable); });
#ifdef TREND_BENCH_RRD
    for (const recording_t& job : {recording_t{"record_1x8_rrd", {1, 8}, true, 0, day, 8000},
                                   recording_t{"record_100x8_rrd", hundred, true, 1, 16, 60}})
        add(std::string(job._name) + "/librrd", job._iterations,
            [=](benchmark::State& state) { run_rrd(state, job); });
#endif

    // Ratios of 2: wide rows are rolled up at every other snapshot.
    plant_t halved{1, 100};
    halved._periods = {{1, 1440}, {2, 720}, {4, 360}};
    add_recording({"roll_up_1x100", halved, true, 100, brief ? 30 : 300, 20});

    for (const recorder_job_t& job :
         {recorder_job_t{"recorder_1x8_minute", {1, 8}, 1, false, 64},
          recorder_job_t{"recorder_1x8_quarter", {1, 8}, 15, false, 64},
          recorder_job_t{"recorder_1x8_hour", {1, 8}, 60, false, 64},
          recorder_job_t{"recorder_1x8_readings", {1, 8}, 1, true, 64},
          recorder_job_t{"recorder_100x8_minute", {100, 8}, 1, false, brief ? 1 : 8},
          recorder_job_t{"recorder_100x8_quarter", {100, 8}, 15, false, brief ? 1 : 8},
          recorder_job_t{"recorder_100x8_hour", {100, 8}, 60, false, brief ? 4 : 16}})
        add(std::string(job._name) + "/library", job._iterations,
            [=](benchmark::State& state) { run_recorder(state, job); });

    for (const size_t devices : {size_t{1}, size_t{100}})
        add("open_" + std::to_string(devices) + "x8/library", 50, [=](benchmark::State& state) {
            run_opening(state, {devices, 8});
        });
    for (const size_t params : {size_t{8}, size_t{100}})
        // An odd number of changes leaves the file different.
        add("rebuild_1x" + std::to_string(params) + "/library", 7, [=](benchmark::State& state) {
            run_rebuilding(state, {1, params});
        });
    add("pool_hit/library", 20000, [](benchmark::State& state) { run_pool(state, 2); });
    add("pool_miss/library", 2000, [](benchmark::State& state) { run_pool(state, 1); });

    for (const filling_t& job :
         {filling_t{"fill_day", {1, 8}, 1440, 20},
          filling_t{"fill_month", with_fine_rows(1, 8, 43200), 43200, brief ? 1 : 5}})
        add_sides(job, run_filling<library_side>, run_filling<floor_side>);

    for (const reading_t& job : {reading_t{"read_8", {1, 8}, 3, false, false, 20},
                                 reading_t{"read_100", {1, 100}, 3, false, false, 4},
                                 reading_t{"read_8_no_overlap", {1, 8}, 3, false, true, 20},
                                 reading_t{"read_100_no_overlap", {1, 100}, 3, false, true, 4},
                                 reading_t{"read_8_one_period", {1, 8}, 1, false, false, 20},
                                 reading_t{"read_100_one_period", {1, 100}, 1, false, false, 4},
                                 reading_t{"read_8_day", {1, 8}, 1, true, false, 20},
                                 reading_t{"read_100_day", {1, 100}, 1, true, false, 4}})
        add_sides(job, run_reading<library_side>, run_reading<floor_side>);

    add_reader_benchmarks(brief, add);
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--brief") == 0) {
            brief = true;
            std::copy(argv + i + 1, argv + argc, argv + i);
            --argc;
            break;
        }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    add_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return anything_failed ? 1 : 0;
}
