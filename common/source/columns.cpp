#include "columns.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "sqlformat.h"

namespace toolkit::trend {

namespace {

constexpr size_t COLUMN_SIZE = sizeof(", param__actual") + MAX_DIGITS;  // at most

// What a column's name is made of, in blocks of fixed size: such a copy takes an instruction or
// two, one of the true length a call. Each piece overwrites what the block before had too much.
constexpr size_t STEM_BLOCK = 32;
constexpr size_t NAME_BLOCK = 8;
static_assert(sizeof(", param__") + MAX_DIGITS <= STEM_BLOCK);

using name_block_t = std::array<char, NAME_BLOCK>;

constexpr std::array<name_block_t, AGGREGATES.size()> name_blocks()
{
    std::array<name_block_t, AGGREGATES.size()> blocks{};
    for (size_t i = 0; i < blocks.size(); ++i)
        for (size_t k = 0; k < AGGREGATES[i]._name.size(); ++k)
            blocks[i][k] = AGGREGATES[i]._name[k];
    return blocks;
}

}  // namespace

void append_columns(tk_string& text, const std::vector<CParamProperties>& params)
{
    // Written in place: a device has hundreds of columns, and every snapshot names each one.
    static constexpr auto NAMES = name_blocks();
    const size_t start = text.size();
    text.resize(start + columns_size(params) + STEM_BLOCK + NAME_BLOCK);
    char* out = text.data() + start;
    for (const CParamProperties& param : params) {
        char stem[STEM_BLOCK] = ", param_";
        char* const digits = stem + sizeof(", param_") - 1;
        const auto length =
            static_cast<size_t>(write_piece(write_piece(digits, param._index), "_") - stem);
        for (size_t i = 0; i < AGGREGATES.size(); ++i) {
            if (!(param.*AGGREGATES[i]._kept)) continue;
            std::memcpy(out, stem, STEM_BLOCK);
            out += length;
            std::memcpy(out, NAMES[i].data(), NAME_BLOCK);
            out += AGGREGATES[i]._name.size();
        }
    }
    text.resize(static_cast<size_t>(out - text.data()));
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
