#pragma once

#include <vector>

#include "database.h"
#include "trend_api.h"

namespace toolkit::trend {

// Binds a row to a statement that stores it, in the order in which insert_sample_text() and
// merge_sample_text() name the columns.
int bind_row(CStatement& stmt, const std::vector<CParamProperties>& params, const CSnapshot& row);

}  // namespace toolkit::trend
