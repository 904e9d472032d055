#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <vector>

#include "trend_api.h"

// Which columns a parameter has in the trend tables.

namespace toolkit::trend {

// What a parameter can keep of an interval.
struct aggregate_t {
    std::string_view _name;         // "min" in param_7_min
    bool CParamProperties::*_kept;  // whether the parameter keeps it
    COptVal CSample::*_value;       // where a sample carries it
};

// In the order in which their columns stand in every trend table and their flags in every parameter
// table.
constexpr std::array<aggregate_t, 5> AGGREGATES = {{
    {"min", &CParamProperties::_has_min, &CSample::_min},
    {"max", &CParamProperties::_has_max, &CSample::_max},
    {"avg", &CParamProperties::_has_avg, &CSample::_avg},
    {"actual", &CParamProperties::_has_actual, &CSample::_actual},
    {"sum", &CParamProperties::_has_sum, &CSample::_sum},
}};

// Calls visit(aggregate) for one after the other until it returns anything but 0, which is then the
// result. For what is done per column of a snapshot: unlike in a loop, members and names are known
// where the call is compiled.
template <typename Visit>
int visit_aggregates(const Visit& visit)
{
    int failed = 0;
    std::apply(
        [&](const auto&... aggregate) {
            static_cast<void>((((failed = visit(aggregate)) == 0) && ...));
        },
        AGGREGATES);
    return failed;
}

// Writes ", param_7_min, param_7_max": every column of the parameters, each after a comma. There
// must be room for columns_size(); the result is where the next character goes.
char* write_columns(char* out, const std::vector<CParamProperties>& params);

// How many characters write_columns() touches at most.
size_t columns_size(const std::vector<CParamProperties>& params);

// Whether any aggregate is kept.
bool keeps_anything(const CParamProperties& param);

// The names of the parameter's columns.
std::vector<tk_string> column_list(const CParamProperties& param);

}  // namespace toolkit::trend
