#include "columns.h"

#include <algorithm>

#include "sqlformat.h"

namespace toolkit::trend {

void append_columns(tk_string& text, const CParamProperties& param)
{
    // The stem is the same for all columns: with hundreds of them per snapshot its digits count.
    const size_t start = text.size();
    size_t stem = 0;
    for (const aggregate_t& aggregate : AGGREGATES) {
        if (!(param.*aggregate._kept)) continue;
        if (stem == 0) {
            append_sql(text, ", param_", param._index, "_");
            stem = text.size() - start;
        } else {
            text.append(text, start, stem);
        }
        text.append(aggregate._name);
    }
}

size_t columns_size(const std::vector<CParamProperties>& params)
{
    constexpr size_t COLUMN_SIZE = sizeof(", param__actual") + MAX_DIGITS;
    return params.size() * AGGREGATES.size() * COLUMN_SIZE;
}

bool keeps_anything(const CParamProperties& param)
{
    return std::any_of(AGGREGATES.begin(), AGGREGATES.end(),
                       [&](const aggregate_t& aggregate) { return param.*aggregate._kept; });
}

std::vector<tk_string> column_list(const CParamProperties& param)
{
    std::vector<tk_string> names;
    for (const aggregate_t& aggregate : AGGREGATES)
        if (param.*aggregate._kept)
            names.push_back(sql_text("param_", param._index, "_", aggregate._name));
    return names;
}

const char* operation_prefix(sample_type_t type)
{
    switch (type) {
        case SAMPLE_TYPE_VALUE:
            return "";
        case SAMPLE_TYPE_PF:
            return "pf";
        default:
            TREND_ASSERT(false);
            return "";
    }
}

}  // namespace toolkit::trend
