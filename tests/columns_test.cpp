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

std::string appended(const CParamProperties& param)
{
    tk_string text = "time";
    append_columns(text, {param});
    return text;
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

TEST(append_columns, puts_a_comma_before_each_name)
{
    EXPECT_EQ("time, param_3_min, param_3_max, param_3_avg, param_3_actual, param_3_sum",
              appended(param(3, true, true, true, true, true)));
    EXPECT_EQ("time, param_12_max, param_12_sum",
              appended(param(12, false, true, false, false, true)));
    EXPECT_EQ("time", appended(param(12, false, false, false, false, false)));
}

TEST(columns_size, is_never_exceeded)
{
    const CParamProperties longest = param(INT64_MIN, true, true, true, true, true);
    EXPECT_LE(appended(longest).size() - std::string("time").size(), columns_size({longest}));
    EXPECT_EQ(3 * columns_size({longest}), columns_size({longest, longest, longest}));
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
