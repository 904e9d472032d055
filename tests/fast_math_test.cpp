// A host that is built with -ffast-math, whose compiler takes every number for one.

#include <gtest/gtest.h>

#include "trend_api.h"

using toolkit::trend::COptVal;

TEST(fast_math, keeps_absent_values_absent)
{
    EXPECT_FALSE(COptVal());
    EXPECT_FALSE(COptVal(std::numeric_limits<double>::quiet_NaN()));
}

TEST(fast_math, keeps_present_values_present)
{
    for (const double value : {0.0, -1.5, std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity()})
        EXPECT_TRUE(COptVal(value)) << value;
}
