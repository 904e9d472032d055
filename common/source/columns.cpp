#include "columns.h"

#include <algorithm>

#include "sqlformat.h"

namespace toolkit::trend {

namespace {

constexpr size_t COLUMN_SIZE = sizeof(", param__actual") + MAX_DIGITS;  // at most

}  // namespace

void append_columns(tk_string& text, const CParamProperties& param)
{
    // Written in place, the digits once for all columns: a device has hundreds of them, and every
    // snapshot names each one.
    const size_t start = text.size();
    text.resize(start + AGGREGATES.size() * COLUMN_SIZE);
    char* const begin = text.data() + start;
    char* out = begin;
    size_t stem = 0;
    for (const aggregate_t& aggregate : AGGREGATES) {
        if (!(param.*aggregate._kept)) continue;
        if (stem == 0) {
            out = write_piece(write_piece(write_piece(out, ", param_"), param._index), "_");
            stem = static_cast<size_t>(out - begin);
        } else {
            out = write_piece(out, std::string_view(begin, stem));
        }
        out = write_piece(out, aggregate._name);
    }
    text.resize(start + static_cast<size_t>(out - begin));
}

size_t columns_size(const std::vector<CParamProperties>& params)
{
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
