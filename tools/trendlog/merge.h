#pragma once

#include <functional>
#include <string>
#include <vector>

#include "changing.h"
#include "input/input.h"

namespace trendlog {

struct numbered_entry_t : entry_t {
    uint64_t _line = 0;
};

struct merge_counts_t {
    uint64_t _recorded = 0;
    uint64_t _merged = 0;    // that were late
    uint64_t _replaced = 0;  // that were late and changed a row with values
    uint64_t _present = 0;   // that met a row with values
    uint64_t _added = 0;     // parameters
    uint64_t _recomputed = 0;
};

// Puts rows from elsewhere into the finest period of one device, as if they had been recorded in
// time: newer ones than the newest row are recorded on the clock, with blank rows before them where
// some are missing; late ones are merged, and coarse rows made anew.
class CMerger {
public:
    // Told of each line that does not fit; it may throw to end the merge.
    using complaint_t = std::function<void(uint64_t line, const std::string& cause)>;

    CMerger(CLogFile& file, const CArguments& arguments, complaint_t complain);

    // Puts them in, within the caller's transaction. The library's code; throws failure_t. Entries
    // that name another device are left out and counted nowhere. May be called again with the same
    // ones after a transaction that has failed.
    int merge(const std::vector<numbered_entry_t>& entries, merge_counts_t& counts);

private:
    struct row_t {
        CSnapshot _snapshot;
        std::vector<bool> _names;  // the parameters that the line says something of
        uint64_t _line = 0;
    };
    struct target_t {
        size_t _param = 0;
        int _aggregate = -1;
    };

    int find_device();
    int find_params(const std::vector<numbered_entry_t>& entries, merge_counts_t& counts);
    bool find_target(const entry_value_t& value, target_t& target) const;
    int find_spare_rows();
    bool make_row(const numbered_entry_t& entry, row_t& row, merge_counts_t& counts) const;
    void make_rows(const std::vector<numbered_entry_t>& entries, std::vector<row_t>& rows,
                   merge_counts_t& counts) const;
    int merge_late(const std::vector<row_t>& rows, merge_counts_t& counts);
    int record(const CSnapshot& snapshot, time_t& latest);

    CLogFile& _file;
    std::string _path;
    CRecipe _recipe;
    bool _adds;
    bool _replaces;
    complaint_t _complain;
    std::vector<CPeriodProperties> _periods;
    CDeviceParams _device;
    time_t _latest = -1;
    std::vector<int64_t> _spare;  // times of rows that are older than what is kept, ascending
};

}  // namespace trendlog
