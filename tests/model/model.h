#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// What a trend log is said to do, done a second time with plain containers: no database, nothing of
// the library, and none of its records. A test holds the two against one another.
namespace model {

constexpr double ABSENT = std::numeric_limits<double>::quiet_NaN();
constexpr int64_t NONE = -1;

// min, max, avg, actual, sum: the order of everything that comes in fives.
constexpr size_t AGGREGATES = 5;
enum aggregate_t : size_t { MIN, MAX, AVG, ACTUAL, SUM };

using values_t = std::array<double, AGGREGATES>;  // of one parameter; ABSENT is no value
constexpr values_t NO_VALUES = {ABSENT, ABSENT, ABSENT, ABSENT, ABSENT};

enum type_t : int { VALUE = 0, POWER_FACTOR = 1 };

struct param_t {
    std::string path;
    int type = VALUE;
    std::array<bool, AGGREGATES> keeps = {};
    int64_t index = NONE;
};

struct period_t {
    uint64_t minutes = 0;
    uint64_t rows = 0;  // that each of its tables keeps
};

// How a caller names a device.
struct device_t {
    std::string path;
    std::string guid;
    int64_t index = NONE;
};

// A trend table: rows in ascending order of time. A row's cells are its percent valid and then one
// value per column.
struct table_t {
    std::vector<std::string> columns;
    std::vector<int64_t> times;
    std::vector<double> cells;

    size_t width() const { return 1 + columns.size(); }
    size_t size() const { return times.size(); }
    bool empty() const { return times.empty(); }
    const double* row(size_t i) const { return cells.data() + i * width(); }
    int64_t oldest() const { return times.empty() ? NONE : times.front(); }
    int64_t newest() const { return times.empty() ? NONE : times.back(); }

    // Where the first row after `time` stands.
    size_t after(int64_t time) const;
    bool has(int64_t time) const;
    std::optional<size_t> column(const std::string& name) const;
    void insert(int64_t time, const std::vector<double>& row);
    void erase(size_t begin, size_t end);
};

// Everything that belongs to one stored device.
struct store_t {
    std::string path;
    std::string guid;
    std::map<int64_t, param_t> params;
    std::map<uint64_t, table_t> tables;  // by minutes
};

// Everything that a file holds. Copies share what neither has changed since.
struct state_t {
    std::map<uint64_t, uint64_t> periods;  // minutes to rows kept
    std::map<int64_t, std::shared_ptr<const store_t>> devices;
    bool leftover = false;  // a table that a rebuild began and did not finish
    table_t leftover_table;
};

struct read_row_t {
    uint64_t minutes = 0;
    int64_t time = 0;
    double percent = 0;
    std::vector<values_t> values;
};

struct read_request_t {
    device_t device;
    std::vector<param_t> params;
    std::vector<period_t> periods;
    int64_t first = NONE;
    int64_t second = NONE;
    uint64_t limit = 0;
    uint64_t offset = 0;
    bool ascending = true;
    bool no_overlap = false;
};

struct read_result_t {
    std::vector<param_t> params;
    std::vector<read_row_t> rows;  // all of them, in order; limit and offset not yet applied
    size_t begin = 0;              // the part of `rows` that the read returns; rows of one time
    size_t end = 0;                // may come in any order
};

// Lines that a call prints. One that ends in '*' stands for every line that begins so, and a last
// line "**" for any lines.
using reports_t = std::vector<std::string>;

// Another way in which a call may end.
struct other_end_t {
    int code;
    reports_t reports;
};

// One log and its file. An operation returns the code that the log's operation must return and
// adds to `reports` the lines that it must print.
//
// A statement that names what is no longer there fails when it is prepared, or when it runs if it
// has been kept from an earlier call. What is kept is none of the model's business, so `others`
// has the second way.
class log_t {
public:
    // Each is one call of a host.
    int open(const std::string& name, bool read_only, bool create, uint64_t capacity);
    void close();
    int begin();
    int commit();
    void roll_back();
    int vacuum();
    int checkpoint();

    int list_periods(std::vector<period_t>& periods);
    int list_devices(std::vector<device_t>& devices);
    int list_params(const device_t& device, std::vector<param_t>& params);

    int add_period(const period_t& period);
    int modify_period(const period_t& period);
    int remove_period(const period_t& period);

    int add_device(device_t& device);
    int modify_device(const device_t& device);
    int remove_device(const device_t& device);

    int add_params(const device_t& device, std::vector<param_t>& params);
    int modify_params(const device_t& device, const std::vector<param_t>& params);
    int remove_params(const device_t& device, const std::vector<param_t>& params);

    int record(const device_t& device, const std::vector<param_t>& params, int64_t time,
               double percent, const std::vector<values_t>& samples);
    int latest(const device_t& device, int64_t& time);
    int fill(const device_t& device, int64_t now, bool mark_valid);
    int read(const read_request_t& request, read_result_t& result);
    int clear(const device_t& device, int64_t first, int64_t second);

    int64_t next_boundary(uint64_t minutes, int64_t now);
    int64_t previous_boundary(uint64_t minutes, int64_t now);
    int ratios(const std::vector<period_t>& periods, std::vector<uint64_t>& ratios);

    // What stands now: in the file, or in the transaction that is open.
    const state_t& state() const { return _now; }
    bool is_open() const { return _open; }
    bool is_read_only() const { return _read_only; }
    bool exists() const { return _exists; }
    int level() const { return _level; }

    reports_t reports;
    std::vector<other_end_t> others;

private:
    template <typename Work>
    int attempt(Work work);

    void want_open(const char* signature);
    void want_period(const char* signature, const period_t& period);
    void want_device(const char* signature, const device_t& device);
    void want_write();

    const store_t* find(const device_t& device) const;
    const store_t& stored(const device_t& device, const char* table);
    store_t& change(int64_t device);
    table_t& change(int64_t device, uint64_t minutes);

    std::vector<period_t> periods_now() const;
    std::vector<param_t> params_now(const char* signature, const device_t& device);
    std::vector<uint64_t> ratios_of(const std::vector<period_t>& periods);

    void add_param(const device_t& device, param_t& param);
    void want_modifiable(const char* signature, const store_t& store,
                         const std::vector<param_t>& sorted);
    void store_param(const device_t& device, const param_t& param);
    void rebuild(int64_t device, uint64_t minutes, const std::vector<param_t>& params,
                 const std::vector<param_t>* old_params);

    void trim(int64_t device, const period_t& period, bool spare);
    void roll_up(int64_t device, const std::vector<period_t>& periods,
                 const std::vector<uint64_t>& ratios, size_t idx,
                 const std::vector<param_t>& params);
    void fill_period(int64_t device, const std::vector<period_t>& periods,
                     const std::vector<uint64_t>& ratios, size_t idx,
                     const std::vector<param_t>& params, int64_t now, bool mark_valid);

    [[noreturn]] void refuse(const char* signature, const char* why);
    [[noreturn]] void fail_to_prepare(const std::string& why);
    [[noreturn]] void fail_to_step(int code, const std::string& why,
                                   const std::string& comment = "");
    static reports_t step_reports(int code, const std::string& why,
                                  const std::string& comment = "");
    void or_else(int code, const reports_t& lines) { others.push_back({code, lines}); }
    void say(const std::string& line) { reports.push_back(line); }

    bool _exists = false;  // the file
    bool _open = false;
    bool _read_only = false;
    int _level = 0;
    state_t _now;
    state_t _before;  // the open transaction
};

// The names of the columns of a parameter.
std::vector<std::string> column_names(const param_t& param);

std::string trend_table_name(int64_t device, uint64_t minutes);
std::string param_table_name(int64_t device);

// Whether two cells are the same to the last bit, or both absent.
bool same(double a, double b);

}  // namespace model
