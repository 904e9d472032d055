// What the views of a reader cost beside SQLite's C API at the same rows: prepared, stepped, and
// every value taken, in one transaction. The floor knows beforehand which rows of which table the
// view reads; both sides count them, and their counts are compared.
//
// The log is large. It is made once, in the folder that the environment variable TREND_BENCH_KEEP
// names, or in the current one.

#include "reader_bench.h"

#include <sqlite3.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "meter.h"
#include "plant.h"
#include "trend_reader.h"

using namespace toolkit::trend;

namespace {

constexpr int64_t DAY = 86400;
constexpr size_t PARAMS = 8;
constexpr int VALUES = 4 * static_cast<int>(PARAMS);

void want(bool fine, const char* what)
{
    if (!fine) throw std::runtime_error(what);
}

struct log_size_t {
    int64_t _fine_days;  // of minutes, and of quarters
    int64_t _days;

    int64_t end() const { return _days * DAY; }
    int64_t fine_start() const { return (_days - _fine_days) * DAY; }
};

class connection_t {
public:
    explicit connection_t(const std::string& file)
    {
        want(sqlite3_open_v2(file.c_str(), &_db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr) == SQLITE_OK,
             "can't open");
    }
    ~connection_t() { sqlite3_close(_db); }

    connection_t(const connection_t&) = delete;
    connection_t& operator=(const connection_t&) = delete;

    void run(const std::string& sql)
    {
        want(sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
             sqlite3_errmsg(_db));
    }
    sqlite3* operator*() const { return _db; }

private:
    sqlite3* _db = nullptr;
};

void fill_table(connection_t& db, int64_t minutes, int64_t start, int64_t end)
{
    std::string sql = "WITH RECURSIVE t(time) AS (SELECT " + std::to_string(start + 60 * minutes) +
                      " UNION ALL SELECT time + " + std::to_string(60 * minutes) +
                      " FROM t WHERE time < " + std::to_string(end) + ") INSERT INTO trends_1_" +
                      std::to_string(minutes) + " SELECT time, 100.0";
    for (int i = 0; i < VALUES; ++i)
        sql += ", (time / 60 * " + std::to_string(i + 7) + " % 1000) * 0.125";
    db.run(sql + " FROM t");
}

std::string log_file(const log_size_t& size)
{
    const char* folder = std::getenv("TREND_BENCH_KEEP");
    std::string file = folder ? std::string(folder) + "/" : std::string();
    file += "trend_reader_bench_" + std::to_string(size._fine_days) + ".db";
    {
        connection_t there(file);
        sqlite3_stmt* stmt = nullptr;
        const bool complete =
            sqlite3_prepare_v2(*there, "SELECT * FROM complete", -1, &stmt, nullptr) == SQLITE_OK;
        sqlite3_finalize(stmt);
        if (complete) return file;
    }
    plant_t plant{1, PARAMS};
    plant._periods = {{1, static_cast<size_t>(size._fine_days) * 1440},
                      {15, static_cast<size_t>(size._fine_days) * 96},
                      {1440, static_cast<size_t>(size._days)}};
    make_log(file, plant);
    connection_t db(file);
    db.run("PRAGMA synchronous = OFF; BEGIN");
    fill_table(db, 1, size.fine_start(), size.end());
    fill_table(db, 15, size.fine_start(), size.end());
    fill_table(db, 1440, 0, size.end());
    db.run("CREATE TABLE complete (yes); COMMIT; PRAGMA wal_checkpoint(TRUNCATE)");
    return file;
}

// The job
// ------------------------------------------------------------------------------------------

struct range_t {
    int64_t _minutes;  // the table
    int64_t _start;    // rows later than this
    int64_t _end;      // up to this
};

struct job_t {
    const char* _name;
    int64_t _length;  // of the window before the log's end, 0 for everything
    size_t _points;
    int64_t _iterations;
};

timebounds_t window_of(const job_t& job, const log_size_t& size)
{
    if (job._length == 0) return {1, static_cast<time_t>(size.end())};
    return {static_cast<time_t>(size.end() - job._length + 1), static_cast<time_t>(size.end())};
}

// The rows by the header's words: everything lies on the grid.
std::vector<range_t> ranges_of(const job_t& job, const log_size_t& size)
{
    const timebounds_t window = window_of(job, size);
    int64_t bucket = 0;
    for (const int64_t minutes : {1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440, 2880, 10080,
                                  20160, 40320, 80640, 161280}) {
        bucket = 60 * minutes;
        if ((window.second - 1) / bucket - (window.first - 1) / bucket <
            static_cast<int64_t>(job._points))
            break;
    }
    const int64_t start = (window.first - 1) / bucket * bucket;
    if (bucket >= DAY) return {{1440, start, size.end()}};
    const int64_t fine = bucket % 900 == 0 ? 15 : 1;
    const int64_t seam = size.fine_start();
    if (start >= seam) return {{fine, start, size.end()}};
    return {{1440, start / DAY * DAY, seam}, {fine, seam, size.end()}};
}

class floor_reader {
public:
    explicit floor_reader(const std::string& file) : _db(file) {}

    size_t read(const std::vector<range_t>& ranges)
    {
        size_t rows = 0;
        _db.run("BEGIN");
        for (const range_t& range : ranges) {
            std::string sql = "SELECT time, percent_valid";
            for (size_t i = 1; i <= PARAMS; ++i)
                for (const char* name : {"min", "max", "avg", "actual"})
                    sql += ", param_" + std::to_string(i) + "_" + name;
            sql += " FROM trends_1_" + std::to_string(range._minutes) +
                   " WHERE time > ? AND time <= ? ORDER BY time";
            sqlite3_stmt* stmt = nullptr;
            want(sqlite3_prepare_v2(*_db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK,
                 "can't prepare");
            sqlite3_bind_int64(stmt, 1, range._start);
            sqlite3_bind_int64(stmt, 2, range._end);
            for (; sqlite3_step(stmt) == SQLITE_ROW; ++rows) {
                benchmark::DoNotOptimize(sqlite3_column_int64(stmt, 0));
                for (int col = 1; col < 2 + VALUES; ++col)
                    benchmark::DoNotOptimize(sqlite3_column_type(stmt, col) == SQLITE_FLOAT
                                                 ? sqlite3_column_double(stmt, col)
                                                 : 0.0);
            }
            sqlite3_finalize(stmt);
        }
        _db.run("COMMIT");
        return rows;
    }

private:
    connection_t _db;
};

class library_reader {
public:
    explicit library_reader(const std::string& file)
    {
        want(_log.open(file, false, false, 30, false, 0, 0, 0, true) == 0, "can't open");
        plant_t plant{1, PARAMS};
        static_cast<CDeviceParams&>(_request) = device_of(plant, 1);
    }

    size_t points(const timebounds_t& window, size_t n, size_t* rows)
    {
        size_t points = 0;
        _request._bounds = window;
        want(CReader(_log).points(_request, n,
                                  [&](const CDeviceParams&, const CInterval& point) {
                                      ++points;
                                      *rows += point._rows;
                                      return true;
                                  }) == 0,
             "the reader failed");
        want(points <= n, "too many points");
        return points;
    }

    size_t rows(const std::vector<CPeriodProperties>& periods)
    {
        size_t rows = 0;
        _request._bounds = {-1, -1};
        want(CReader(_log).rows(_request, periods, true, false,
                                [&](const CDeviceParams&, const CInterval& row) {
                                    benchmark::DoNotOptimize(row._samples.data());
                                    ++rows;
                                    return true;
                                }) == 0,
             "the reader failed");
        return rows;
    }

private:
    CLog _log;
    CReadRequest _request;
};

void tell(benchmark::State& state, const std::string& label, size_t rows, int64_t allocated)
{
    state.SetLabel(label);
    state.counters["items"] = 1;
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["result"] = static_cast<double>(rows);  // compared between the sides
    state.counters["bytes_per_item"] = 0;
    state.counters["allocated"] = static_cast<double>(allocated);
}

}  // namespace

void add_reader_benchmarks(bool brief, const add_benchmark_t& add)
{
    const log_size_t size = brief ? log_size_t{8, 80} : log_size_t{365, 3650};
    const job_t jobs[] = {{"span_100", 0, 100, 20},           {"span_1000", 0, 1000, 20},
                          {"span_10000", 0, 10000, 5},        {"month_100", 30 * DAY, 100, 20},
                          {"month_1000", 30 * DAY, 1000, 20}, {"month_10000", 30 * DAY, 10000, 10},
                          {"day_100", DAY, 100, 200},         {"day_1000", DAY, 1000, 50},
                          {"day_10000", DAY, 10000, 50},      {"hour_100", 3600, 100, 500},
                          {"hour_1000", 3600, 1000, 500},     {"hour_10000", 3600, 10000, 500}};
    for (const job_t& job : jobs) {
        const std::string name = std::string("points_") + job._name;
        const std::string label = name + (brief ? ", brief" : "");
        add(name + "/library", job._iterations, [=](benchmark::State& state) {
            library_reader side(log_file(size));
            size_t rows = 0;
            int64_t allocated = 0;
            {
                const allocations_t allocations;
                side.points(window_of(job, size), job._points, &rows);
                allocated = allocations.most();
            }
            want(allocated <= 64 * 1024, "a view has taken more memory than it may");
            size_t again = 0;
            for (auto _ : state)
                side.points(window_of(job, size), job._points, &again);
            tell(state, label, rows, allocated);
        });
        add(name + "/floor", job._iterations, [=](benchmark::State& state) {
            floor_reader side(log_file(size));
            const std::vector<range_t> ranges = ranges_of(job, size);
            const size_t rows = side.read(ranges);
            for (auto _ : state)
                side.read(ranges);
            tell(state, label, rows, 0);
        });
    }

    // Every minute, one at a time.
    add("rows_minutes/library", 2, [=](benchmark::State& state) {
        library_reader side(log_file(size));
        size_t rows = 0;
        int64_t allocated = 0;
        {
            const allocations_t allocations;
            rows = side.rows({{1, 1}});
            allocated = allocations.most();
        }
        want(allocated <= 64 * 1024, "a view has taken more memory than it may");
        for (auto _ : state)
            side.rows({{1, 1}});
        tell(state, brief ? "rows, brief" : "rows", rows, allocated);
    });
    add("rows_minutes/floor", 2, [=](benchmark::State& state) {
        floor_reader side(log_file(size));
        const std::vector<range_t> all = {{1, -1, size.end()}};
        const size_t rows = side.read(all);
        for (auto _ : state)
            side.read(all);
        tell(state, brief ? "rows, brief" : "rows", rows, 0);
    });
}
