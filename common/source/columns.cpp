#include "columns.h"

#include <algorithm>
#include <cstring>

#include "sqlformat.h"

namespace toolkit::trend {

namespace {

// What a parameter's column names begin with, as a block of fixed size: such a copy takes an
// instruction or two, one of the true length a call. What it has too much is overwritten.
constexpr size_t STEM_BLOCK = 32;
static_assert(sizeof(", param__") + MAX_DIGITS <= STEM_BLOCK);

}  // namespace

char* write_columns(char* out, const std::vector<CParamProperties>& params)
{
    for (const CParamProperties& param : params) {
        char stem[STEM_BLOCK] = {};
        const char* stem_end = write_pieces(stem, ", param_", param._index, "_");
        visit_aggregates([&](const aggregate_t& aggregate) {
            if (!(param.*aggregate._kept)) return 0;
            std::memcpy(out, stem, STEM_BLOCK);
            out = write_piece(out + (stem_end - stem), aggregate._name);
            return 0;
        });
    }
    return out;
}

size_t columns_size(const std::vector<CParamProperties>& params)
{
    // By the longest index that is there: the longest that could be would double the text.
    uint64_t largest = 0;  // a negative index, with its sign, is as long as the largest
    for (const CParamProperties& param : params)
        largest = std::max(largest, static_cast<uint64_t>(param._index));
    char digits[MAX_DIGITS];
    const size_t column_size =
        sizeof(", param__actual") - 1 + static_cast<size_t>(write_piece(digits, largest) - digits);
    return params.size() * AGGREGATES.size() * column_size + STEM_BLOCK;
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
            names.push_back(sql_text("param_", param._index, "_").append(aggregate._name));
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
