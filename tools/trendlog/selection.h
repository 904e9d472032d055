#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "log_file.h"
#include "output/writer.h"
#include "times.h"
#include "trend_reader.h"

// What the commands that read have in common: what to read, and rows of it as cells.

namespace trendlog {

// One of the aggregates that a parameter may keep, in the order in which everything shows them.
struct aggregate_name_t {
    const char* _name;
    bool CParamProperties::*_kept;
    COptVal CSample::*_value;
};
extern const std::vector<aggregate_name_t> AGGREGATE_NAMES;

// The device of DEVICE with the parameters of PARAM, all where none is named, and of each the
// aggregates of --agg, all that are kept without it. Throws failure_t or usage_t for what there is
// not.
CDeviceParams select_params(CLogFile& file, const CArguments& arguments);
// The same of a device and words.
CDeviceParams select_params(CLogFile& file, const CDeviceProperties& device,
                            const std::vector<std::string>& params,
                            const std::vector<std::string>& aggregates);

// The periods that --period names, none without it, all of them for "all".
std::vector<CPeriodProperties> select_periods(CLogFile& file, const CArguments& arguments);

// Where the rows of a device begin and end, of all its periods; {-1, -1} without rows.
timebounds_t stored_bounds(CLogFile& file, const CDeviceProperties& device);

// --from and --to. A window is what is after `from`, up to and including `to`, so that windows that
// meet have no row in common. -1 for an end that is left open.
struct moments_t {
    int64_t _from = -1;
    int64_t _to = -1;
};
moments_t select_window(const CArguments& arguments, const CZone& zone, const timebounds_t& stored);
// As the library wants it.
timebounds_t bounds_of(const moments_t& window);

// Rows as cells: [device,] start, end, time, period, percent_valid, then PARAM.min and so on. Of
// several devices the columns are those of all, and each row has cells for its own.
class CRowShape {
public:
    explicit CRowShape(bool with_device) : _with_device(with_device) {}

    void add(CLogFile& file, const CDeviceParams& device);
    const columns_t& columns() const { return _columns; }
    // Good until the next call, and as long as the arguments are.
    const cells_t& cells(const CDeviceParams& device, const CInterval& interval);

private:
    size_t column_of(const std::string& param, const aggregate_name_t& aggregate,
                     const std::string& unit);

    bool _with_device;
    columns_t _columns;
    cells_t _cells;
    // Of each device the column of each value in order.
    std::map<int64_t, std::vector<size_t>> _places;
};

// What to read of a device, row by row.
struct row_source_t {
    CReadRequest _request;
    std::vector<CPeriodProperties> _periods;  // empty for the best rows
    bool _newest_first = false;
};

// Hands the rows to `visit` until it says false. It is done in reads of at most 50 ms, so that
// nobody who writes waits for longer, each going on where the one before has ended; what `visit`
// puts into the sink is written between them. Within a read of the caller's it is part of that.
// Throws as CLogFile::read().
using row_visitor_t = std::function<bool(const CDeviceParams&, const CInterval&)>;
void for_each_row(CLogFile& file, const row_source_t& source, CSink& sink,
                  const row_visitor_t& visit);

}  // namespace trendlog
