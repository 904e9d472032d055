#pragma once

#include <vector>

#include "trend_api.h"
#include "trend_base.h"

// Units and labels of devices and parameters, for display. They stand in a table of their own in
// the log's file, `trend_labels`, which is made when the first one is written; CLog ignores it.
// They go by path: who renames a device or a parameter writes its label anew.

namespace toolkit::trend {

struct CLabel {
    tk_string _device;  // path
    tk_string _param;   // path; empty for the label of the device itself
    tk_string _unit;    // "kW"; empty for none
    tk_string _label;   // "Cooling water pump"; empty for none
};

// All labels of an open log, by device and parameter; none where there is no table. Replaces what
// `labels` holds. Results and reports are those of CLog's listings; "Error: DB not open", -1.
TREND_EXPORT int read_labels(const CLog& log, std::vector<CLabel>& labels);

// Writes one, in place of the one of the same device and parameter; one with neither unit nor label
// goes. Whether there is such a device or parameter is not asked. One transaction, or part of the
// caller's. Reports "Error: DB not open", "Error: empty device path", -1.
TREND_EXPORT int write_label(CLog& log, const CLabel& label);

}  // namespace toolkit::trend
