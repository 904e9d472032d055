#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "changing.h"
#include "commands/commands.h"
#include "disk.h"
#include "new_file.h"
#include "numbers.h"
#include "output/sink.h"
#include "selection.h"
#include "talk.h"

namespace trendlog {

namespace {

// A table of rows, and where it goes.
struct table_t {
    int64_t _device = 0;
    unsigned long _period = 0;
    std::string _columns;      // of the old table, as SQL
    std::string _new_columns;  // of the new one
    size_t _count = 0;
    int64_t _new_device = 0;
    std::string _path;
    size_t _kept = 0;  // rows
    int64_t _first = -1;
    int64_t _last = -1;
    bool _is_empty = false;
    bool _is_whole = false;  // both ends can be read
};

struct lost_t {
    uint64_t _saved = 0;
    uint64_t _lost = 0;     // intervals in what cannot be read
    uint64_t _invalid = 0;  // rows that no log has written
    bool _is_lost = false;  // the whole table
};

// A statement of the damaged file: any step may fail.
class CQuery {
public:
    CQuery(sqlite3* db, const std::string& sql)
    {
        _code = sqlite3_prepare_v2(db, sql.c_str(), -1, &_statement, nullptr);
    }
    ~CQuery() { sqlite3_finalize(_statement); }

    CQuery(const CQuery&) = delete;
    CQuery& operator=(const CQuery&) = delete;

    bool step()
    {
        if (_statement) _code = sqlite3_step(_statement);
        return _code == SQLITE_ROW;
    }
    bool has_failed() const { return _code != SQLITE_ROW && _code != SQLITE_DONE; }
    int code() const { return _code; }
    sqlite3_stmt* operator*() { return _statement; }

    int64_t integer(int column) const { return sqlite3_column_int64(_statement, column); }
    bool is(int column, int type) const { return sqlite3_column_type(_statement, column) == type; }
    std::string text(int column) const
    {
        const unsigned char* const text = sqlite3_column_text(_statement, column);
        return text ? reinterpret_cast<const char*>(text) : "";
    }

private:
    sqlite3_stmt* _statement = nullptr;
    int _code = SQLITE_OK;
};

class CSalvage {
public:
    explicit CSalvage(const CArguments& arguments)
        : _name(arguments.text("FILE")),
          _patience_s(arguments.has("--timeout") ? parse_duration(arguments.text("--timeout")) : 5)
    {
    }
    ~CSalvage()
    {
        sqlite3_close(_old);
        sqlite3_close(_new);
    }

    CSalvage(const CSalvage&) = delete;
    CSalvage& operator=(const CSalvage&) = delete;

    // What there is to save. Throws where there is nothing.
    void read_configuration()
    {
        open();
        read_table_names();
        read_periods();
        read_devices();
        for (CDeviceParams& device : _devices)
            read_params(device);
        CQuery labels(_old, "SELECT device, param, unit, label FROM trend_labels");
        while (labels.step())
            _labels.push_back({labels.text(0), labels.text(1), labels.text(2), labels.text(3)});
    }

    void write_configuration(const std::string& target)
    {
        CLog log;
        const auto check = [&](int result) {
            if (result == 0) return;
            throw failure_t(target + ": " + library_line());
        };
        check(log.open(target, false, true, 100, false, 0, 0, 0, false));
        for (const CPeriodProperties& period : _periods)
            check(log.add_period(period));
        for (CDeviceParams& device : _devices) {
            CDeviceProperties made = device._device;
            check(log.add_device(made));
            std::vector<CParamProperties> params = device._params;
            if (!params.empty()) check(log.add_params(made, params));
            for (const CPeriodProperties& period : _periods)
                plan(device, made, params, period);
        }
        for (const CLabel& label : _labels)
            if (!label._device.empty()) check(write_label(log, label));
        log.close();
        if (sqlite3_open_v2(target.c_str(), &_new, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
            throw failure_t(target + ": cannot be opened");
    }

    // Table by table, all in one transaction.
    void copy_rows()
    {
        find_bounds();
        execute("BEGIN");
        CProgress progress(_name + ": rows");
        for (const table_t& table : _tables) {
            lost_t lost;
            copy(table, lost, progress);
            _total._saved += lost._saved;
            _total._lost += lost._lost;
            _total._invalid += lost._invalid;
            tell(table, lost);
        }
        execute("COMMIT");
        sqlite3_close(_new);
        _new = nullptr;
    }

    const lost_t& total() const { return _total; }
    bool has_lost() const
    {
        return _total._lost + _total._invalid > 0 || _total._is_lost || _lost_configuration;
    }
    size_t devices() const { return _devices.size(); }
    size_t tables() const { return _names.size(); }

private:
    // Read-only. What a crash has left over belongs to it where SQLite can take it into account;
    // where not, the file is taken as it is.
    void open()
    {
        if (file_size(_name) < 0) throw failure_t(_name + ": there is no such file");
        int code = SQLITE_OK;
        for (const bool as_it_is : {false, true}) {
            sqlite3_close(_old);
            std::string uri = "file:";
            for (const char c : _name)
                uri += c == '%' || c == '?' || c == '#'
                           ? "%" + std::string(1, "0123456789ABCDEF"[c >> 4]) +
                                 "0123456789ABCDEF"[c & 15]
                           : std::string(1, c);
            code = sqlite3_open_v2((uri + (as_it_is ? "?immutable=1" : "")).c_str(), &_old,
                                   SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
            sqlite3_busy_timeout(_old,
                                 static_cast<int>(std::min<int64_t>(_patience_s, 86400) * 1000));
            // With this SQLite reads a file that is shorter than its header says.
            sqlite3_exec(_old, "PRAGMA writable_schema = ON", nullptr, nullptr, nullptr);
            CQuery query(_old, "SELECT count(*) FROM sqlite_master");
            if (code == SQLITE_OK && query.step()) return;
            code = query.code();
            const int kind = code & 0xff;
            if (kind != SQLITE_READONLY && kind != SQLITE_CANTOPEN && kind != SQLITE_CORRUPT) break;
            if (!as_it_is && kind != SQLITE_CORRUPT)
                remark(_name + ": what a crash has left over cannot be taken into account");
        }
        if ((code & 0xff) == SQLITE_BUSY)
            throw failure_t(_name + ": locked by another program", EXIT_BUSY);
        if ((code & 0xff) == SQLITE_NOTADB)
            throw failure_t(_name + ": not an SQLite file, or its beginning is lost", EXIT_BUSY);
        throw failure_t(_name + ": the list of its tables cannot be read (" + sqlite3_errstr(code) +
                        "): nothing can be saved");
    }

    void read_table_names()
    {
        CQuery tables(_old, "SELECT name FROM sqlite_master WHERE type = 'table'");
        while (tables.step()) {
            const std::string name = tables.text(0);
            int64_t device = 0;
            unsigned long period = 0;
            const size_t under = name.rfind('_');
            constexpr size_t PREFIX = 7;
            if (name.compare(0, PREFIX, "trends_") != 0 || under < PREFIX) continue;
            if (read_number(name.substr(PREFIX, under - PREFIX), device) &&
                read_number(name.substr(under + 1), period) && period > 0)
                _names[{device, period}] = name;
        }
        if (_names.empty()) throw failure_t(_name + ": no tables of a trend log", EXIT_BUSY);
    }

    void lose(const std::string& what)
    {
        _lost_configuration = true;
        remark(_name + ": " + what);
    }

    void read_periods()
    {
        CQuery periods(_old, "SELECT period, max_entries FROM periods ORDER BY period");
        while (periods.step())
            _periods.emplace_back(static_cast<unsigned long>(periods.integer(0)),
                                  static_cast<size_t>(periods.integer(1)));
        for (const auto& [key, name] : _names) {
            const unsigned long length = key.second;
            const auto is_it = [&](const CPeriodProperties& each) {
                return each._period == length;
            };
            if (std::any_of(_periods.begin(), _periods.end(), is_it)) continue;
            lose("how many rows of " + duration_text(int64_t(length) * 60) +
                 " are kept is lost: all; `trendlog period set` says it anew");
            _periods.emplace_back(length, UINT32_MAX);
        }
        std::sort(_periods.begin(), _periods.end());
    }

    void read_devices()
    {
        CQuery devices(_old, "SELECT idx, path, guid FROM devices ORDER BY idx");
        while (devices.step()) {
            CDeviceParams device;
            device._device = {devices.text(1), devices.text(2), devices.integer(0)};
            if (!device._device._path.empty()) _devices.push_back(device);
        }
        for (const auto& [key, name] : _names) {
            const int64_t index = key.first;
            const auto is_it = [&](const CDeviceParams& each) {
                return each._device._index == index;
            };
            if (std::any_of(_devices.begin(), _devices.end(), is_it)) continue;
            CDeviceParams device;
            device._device = {"device_" + number_text(index), "", index};
            lose("a device has lost its path; it is '" + device._device._path + "' now");
            _devices.push_back(device);
        }
    }

    void read_params(CDeviceParams& device)
    {
        const std::string index = number_text(device._device._index);
        CQuery params(_old, "SELECT * FROM params_" + index + " ORDER BY idx");
        while (params.step()) {
            CParamProperties param;
            param._index = params.integer(0);
            param._path = params.text(1);
            param._type = params.integer(2) == 1 ? SAMPLE_TYPE_PF : SAMPLE_TYPE_VALUE;
            const int columns = sqlite3_column_count(*params);
            for (size_t i = 0; i < AGGREGATE_NAMES.size(); ++i)
                param.*AGGREGATE_NAMES[i]._kept = static_cast<int>(i) + 3 < columns &&
                                                  params.integer(static_cast<int>(i) + 3) != 0;
            if (!param._path.empty()) device._params.push_back(param);
        }
        if (!params.has_failed()) return;

        // What it has been called is lost, but not its columns.
        device._params.clear();
        for (const auto& [key, name] : _names) {
            if (key.first != device._device._index) continue;
            CQuery columns(_old, "SELECT name FROM pragma_table_info('" + name + "')");
            while (columns.step())
                add_column(columns.text(0), device);
            break;
        }
        lose("the parameters of '" + device._device._path +
             "' have lost their paths and types; they are " + "'param_1' and so on now");
    }

    static void add_column(const std::string& column, CDeviceParams& device)
    {
        const size_t under = column.rfind('_');
        if (column.compare(0, 6, "param_") != 0 || under < 7) return;
        const std::string path = column.substr(0, under);
        for (const aggregate_name_t& aggregate : AGGREGATE_NAMES) {
            if (column.substr(under + 1) != aggregate._name) continue;
            if (device._params.empty() || device._params.back()._path != path) {
                CParamProperties param;
                param._path = path;
                if (!read_number(path.substr(6), param._index)) return;
                device._params.push_back(param);
            }
            device._params.back().*aggregate._kept = true;
        }
    }

    // Rows ----------------------------------------------------------------------------------------

    void plan(const CDeviceParams& device, const CDeviceProperties& made,
              const std::vector<CParamProperties>& params, const CPeriodProperties& period)
    {
        table_t table;
        table._device = device._device._index;
        table._new_device = made._index;
        table._period = period._period;
        table._path = made._path;
        table._kept = period._max_entries;
        for (size_t i = 0; i < params.size(); ++i) {
            std::vector<tk_string> from, to;
            if (CLog::column_names(device._params[i], from) != 0 ||
                CLog::column_names(params[i], to) != 0)
                throw std::bad_alloc();
            for (const tk_string& name : from)
                table._columns += ", " + name;
            for (const tk_string& name : to)
                table._new_columns += ", " + name;
            table._count += from.size();
        }
        _tables.push_back(table);
    }

    static std::string name_of(int64_t device, unsigned long period)
    {
        return "trends_" + number_text(device) + "_" + std::to_string(period);
    }

    // The oldest or newest row of a table, false where it cannot be read.
    bool read_end(table_t& table, bool newest)
    {
        CQuery end(_old, "SELECT time FROM " + name_of(table._device, table._period) +
                             " ORDER BY time" + (newest ? " DESC" : "") + " LIMIT 1");
        if (!end.step()) {
            table._is_empty = end.code() == SQLITE_DONE;
            return table._is_empty;
        }
        if (!end.is(0, SQLITE_INTEGER)) return false;
        (newest ? table._last : table._first) = end.integer(0);
        return true;
    }

    // Where rows of each table are looked for. An end that cannot be read is that of the other
    // tables, or the present, and not further from the other end than rows are kept.
    void find_bounds()
    {
        int64_t first = -1, last = -1;
        for (table_t& table : _tables) {
            table._is_whole = read_end(table, false) && read_end(table, true);
            if (table._first != -1 && (first == -1 || table._first < first)) first = table._first;
            last = std::max(last, table._last);
        }
        const auto coarsest = static_cast<int64_t>(_periods.back()._period) * 60;
        for (table_t& table : _tables) {
            constexpr int64_t SPARE = 100;  // rows that wait for the next trim
            const int64_t length = (static_cast<int64_t>(table._kept) + SPARE) *
                                   static_cast<int64_t>(table._period) * 60;
            const bool has_first = table._first != -1, has_last = table._last != -1;
            if (!has_last) {
                table._last = last != -1 ? last + coarsest : present();
                if (has_first) table._last = std::min(table._last, table._first + length);
            }
            if (!has_first)
                table._first = std::max<int64_t>(
                    {0, table._last - length, first == -1 ? 0 : first - coarsest});
        }
    }

    void copy(const table_t& table, lost_t& lost, CProgress& progress)
    {
        const std::string name = name_of(table._device, table._period);
        const CQuery probe(_old, "SELECT time, percent_valid" + table._columns + " FROM " + name);
        if (probe.code() != SQLITE_OK) {
            lost._is_lost = _total._is_lost = true;
            return;
        }
        if (table._is_empty) return;
        std::string marks = "?,?";
        for (size_t i = 0; i < table._count; ++i)
            marks += ",?";
        CQuery insert(_new, "INSERT OR IGNORE INTO " + name_of(table._new_device, table._period) +
                                " (time, percent_valid" + table._new_columns + ") VALUES (" +
                                marks + ")");
        if (insert.code() != SQLITE_OK) throw failure_t(sqlite3_errmsg(_new));
        copy_range(table, insert, table._first, table._last, lost, progress);
        lost._is_lost = !table._is_whole && lost._saved == 0;
        _total._is_lost = _total._is_lost || lost._is_lost;
    }

    // Forwards up to what cannot be read, then backwards down to it. What is left between is tried
    // by halves, so that a page costs what is in it and nothing around it.
    void copy_range(const table_t& table, CQuery& insert, int64_t first, int64_t last, lost_t& lost,
                    CProgress& progress)
    {
        throw_if_interrupted();
        int64_t low = first, high = last;
        if (scan(table, insert, low, high, true, lost, progress)) return;
        if (scan(table, insert, low, high, false, lost, progress)) return;
        const int64_t step = static_cast<int64_t>(table._period) * 60;
        if (high - low < 8 * step) {
            lost._lost += static_cast<uint64_t>(std::max<int64_t>(1, (high - low) / step + 1));
            return;
        }
        const int64_t middle = low + (high - low) / 2;
        copy_range(table, insert, low, middle, lost, progress);
        copy_range(table, insert, middle + 1, high, lost, progress);
    }

    // true when all from `low` to `high` has been read; else the end that it came from is moved.
    bool scan(const table_t& table, CQuery& insert, int64_t& low, int64_t& high, bool forwards,
              lost_t& lost, CProgress& progress)
    {
        CQuery rows(_old, "SELECT time, percent_valid" + table._columns + " FROM " +
                              name_of(table._device, table._period) +
                              " WHERE time BETWEEN ? AND ? ORDER BY time" +
                              (forwards ? "" : " DESC"));
        sqlite3_bind_int64(*rows, 1, low);
        sqlite3_bind_int64(*rows, 2, high);
        while (rows.step()) {
            const int64_t time = rows.integer(0);
            if (!rows.is(0, SQLITE_INTEGER) || time < low || time > high) break;
            (forwards ? low : high) = forwards ? time + 1 : time - 1;
            if (is_valid(rows, table._count)) {
                store(rows, insert, table._count);
                progress.at(_total._saved + ++lost._saved, -1);
            } else {
                ++lost._invalid;
            }
        }
        return rows.code() == SQLITE_DONE || low > high;
    }

    static bool is_valid(const CQuery& row, size_t count)
    {
        if (row.integer(0) < 0 || !row.is(1, SQLITE_FLOAT)) return false;
        for (size_t i = 0; i < count; ++i) {
            const int column = static_cast<int>(i) + 2;
            if (!row.is(column, SQLITE_FLOAT) && !row.is(column, SQLITE_NULL)) return false;
        }
        return true;
    }

    void store(CQuery& row, CQuery& insert, size_t count)
    {
        for (int i = 0; i < static_cast<int>(count) + 2; ++i)
            sqlite3_bind_value(*insert, i + 1, sqlite3_column_value(*row, i));
        const int code = sqlite3_step(*insert);
        sqlite3_reset(*insert);
        if (code != SQLITE_DONE)
            throw failure_t(std::string("the new log: ") + sqlite3_errmsg(_new));
    }

    void execute(const char* sql)
    {
        if (sqlite3_exec(_new, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
            throw failure_t(std::string("the new log: ") + sqlite3_errmsg(_new));
    }

    void tell(const table_t& table, const lost_t& lost) const
    {
        const std::string what = _name + ": '" + table._path + "', " +
                                 duration_text(static_cast<int64_t>(table._period) * 60) + ": ";
        if (lost._is_lost) remark(what + "nothing of it can be read");
        if (lost._lost > 0)
            remark(what + "up to " + counted(lost._lost, "row") + " cannot be read, " +
                   std::to_string(lost._saved) + " saved");
        if (lost._invalid > 0)
            remark(what + counted(lost._invalid, "row") + " with values that no log has written");
    }

    std::string _name;
    int64_t _patience_s;
    sqlite3* _old = nullptr;
    sqlite3* _new = nullptr;
    std::map<std::pair<int64_t, unsigned long>, std::string> _names;
    std::vector<CPeriodProperties> _periods;
    std::vector<CDeviceParams> _devices;
    std::vector<CLabel> _labels;
    std::vector<table_t> _tables;
    bool _lost_configuration = false;
    lost_t _total;
};

exit_code_t run(const CArguments& arguments)
{
    const std::string name = arguments.text("FILE"), target = arguments.text("NEW");
    CSalvage salvage(arguments);
    salvage.read_configuration();
    CSink sink;
    if (is_dry_run(arguments)) {
        sink.add(name + ": dry run, nothing done: " + counted(salvage.tables(), "table") + " of " +
                 counted(salvage.devices(), "device") + " can be seen, at most " +
                 size_text(file_size(name)) + " would be written to " + folder_of(target) + "\n");
        sink.flush();
        return EXIT_DONE;
    }
    check_space(folder_of(target), file_size(name), "the new log");
    CNewFile file(target);
    salvage.write_configuration(file.part());
    salvage.copy_rows();
    file.keep();
    const lost_t& total = salvage.total();
    sink.add(name + ": " + counted(total._saved, "row") + " of " +
             counted(salvage.devices(), "device") + " saved into " + target +
             (total._lost > 0 ? ", up to " + std::to_string(total._lost) + " lost" : "") +
             (total._invalid > 0 ? ", " + std::to_string(total._invalid) + " invalid" : "") +
             (salvage.has_lost()
                  ? "; `trendlog rebuild` makes coarse rows anew where finer ones are "
                    "there\n"
                  : ", nothing lost\n"));
    sink.flush();
    return salvage.has_lost() ? EXIT_FINDINGS : EXIT_DONE;
}

}  // namespace

command_t salvage_command()
{
    return {
        "salvage",
        SECTION_DATA,
        "Save everything that can be read of a damaged file into a new log",
        "What is lost is counted, and the exit code is 3 then. The damaged file is not changed: "
        "keep it until the new one has been looked at.",
        {{"FILE", "the damaged log"}, {"NEW", "the log to make"}},
        options_t{{"--dry-run", "", "say how much there is to see"}} + common_options(),
        {{"trendlog salvage plant.db saved.db --dry-run", "Whether there is anything to save"},
         {"trendlog salvage plant.db saved.db", "Save it"}},
        run};
}

}  // namespace trendlog
