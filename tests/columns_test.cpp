#include "columns.h"

#include <gmock/gmock.h>

#include "expect.h"

using namespace toolkit::trend;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

CParamProperties param(int64_t index, bool min, bool max, bool avg, bool actual, bool sum)
{
    CParamProperties made;
    made._index = index;
    made._has_min = min;
    made._has_max = max;
    made._has_avg = avg;
    made._has_actual = actual;
    made._has_sum = sum;
    return made;
}

std::vector<std::string> names_of(const CParamProperties& param)
{
    std::vector<tk_string> names{"left over"};
    EXPECT_EQ(0, CLog::column_names(param, names));
    return names;
}

// What write_columns() writes, seen to stay within the room that it asks for.
std::string written(const std::vector<CParamProperties>& params)
{
    const std::string guard = "#guard#";
    std::string text = std::string(columns_size(params), '-') + guard;
    const char* end = write_columns(text.data(), params);
    EXPECT_EQ(guard, text.substr(columns_size(params)));
    return text.substr(0, static_cast<size_t>(end - text.data()));
}

}  // namespace

TEST(column_names, come_in_the_order_min_max_avg_actual_sum)
{
    EXPECT_THAT(
        names_of(param(3, true, true, true, true, true)),
        ElementsAre("param_3_min", "param_3_max", "param_3_avg", "param_3_actual", "param_3_sum"));
}

TEST(column_names, are_those_of_the_kept_aggregates_only)
{
    EXPECT_THAT(names_of(param(7, false, false, false, true, false)),
                ElementsAre("param_7_actual"));
    EXPECT_THAT(names_of(param(8, true, false, true, false, false)),
                ElementsAre("param_8_min", "param_8_avg"));
    EXPECT_THAT(names_of(param(9, false, false, false, false, false)), IsEmpty());
}

TEST(column_names, carry_identifiers_of_64_bits)
{
    EXPECT_THAT(names_of(param(INT64_MAX, false, true, false, false, false)),
                ElementsAre("param_9223372036854775807_max"));
    EXPECT_THAT(names_of(param(-1, false, false, false, false, true)), ElementsAre("param_-1_sum"));
}

TEST(write_columns, puts_a_comma_before_each_name)
{
    EXPECT_EQ(", param_3_min, param_3_max, param_3_avg, param_3_actual, param_3_sum",
              written({param(3, true, true, true, true, true)}));
    EXPECT_EQ(", param_12_max, param_12_sum, param_4_avg",
              written({param(12, false, true, false, false, true),
                       param(4, false, false, true, false, false)}));
    EXPECT_EQ("", written({param(12, false, false, false, false, false)}));
}

TEST(columns_size, is_never_exceeded)
{
    const CParamProperties shortest = param(0, false, false, false, false, true);
    for (const int64_t index : {int64_t{0}, int64_t{9}, int64_t{10}, INT64_MAX, INT64_MIN}) {
        const CParamProperties whole = param(index, true, true, true, true, true);
        EXPECT_LE(written({whole}).size(), columns_size({whole}));
        EXPECT_LE(written({shortest, whole, whole}).size(), columns_size({shortest, whole, whole}));
        EXPECT_LE(written({whole, shortest}).size(), columns_size({whole, shortest}));
    }
    EXPECT_EQ("", written({}));
}

TEST(keeps_anything, is_true_for_any_one_aggregate)
{
    EXPECT_TRUE(keeps_anything(param(1, true, false, false, false, false)));
    EXPECT_TRUE(keeps_anything(param(1, false, true, false, false, false)));
    EXPECT_TRUE(keeps_anything(param(1, false, false, true, false, false)));
    EXPECT_TRUE(keeps_anything(param(1, false, false, false, true, false)));
    EXPECT_TRUE(keeps_anything(param(1, false, false, false, false, true)));
    EXPECT_FALSE(keeps_anything(param(1, false, false, false, false, false)));
}

TEST(operation_prefix, is_pf_for_power_factors_and_empty_for_values)
{
    EXPECT_STREQ("", operation_prefix(SAMPLE_TYPE_VALUE));
    EXPECT_STREQ("pf", operation_prefix(SAMPLE_TYPE_PF));
}

TEST(operation_prefix, stops_at_any_other_type)
{
    EXPECT_STOPS(operation_prefix(SAMPLE_TYPE_LISTEND), "false");
    EXPECT_STOPS(operation_prefix(static_cast<sample_type_t>(-1)), "false");
}
