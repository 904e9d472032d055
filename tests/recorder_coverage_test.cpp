#include "recorder/coverage.h"

#include <gtest/gtest.h>

namespace toolkit::trend {

// Spans of 5 with holes of 5 between them, from 0 on.
class recorder_coverage : public testing::Test {
protected:
    void add_spans(int64_t count)
    {
        for (int64_t k = 0; k < count; ++k)
            _coverage.add(10 * k, 10 * k + 5);
    }

    void SetUp() override { _coverage.begin(0, 1000); }

    CCoverage _coverage;
};

TEST_F(recorder_coverage, counts_a_span_that_fills_a_hole)
{
    add_spans(3);
    _coverage.add(4, 8);  // 3 of the first hole
    EXPECT_EQ(18, _coverage.known(1000));
    _coverage.add(5, 10);  // the other 2
    EXPECT_EQ(20, _coverage.known(1000));
}

// Sixteen holes are remembered: of seventeen the oldest one stays unknown for good.
TEST_F(recorder_coverage, forgets_the_oldest_hole)
{
    add_spans(18);
    EXPECT_EQ(90, _coverage.known(1000));
    _coverage.add(5, 10);
    EXPECT_EQ(90, _coverage.known(1000));
    _coverage.add(15, 20);
    EXPECT_EQ(95, _coverage.known(1000));
}

TEST_F(recorder_coverage, forgets_the_older_part_of_a_hole_that_is_split_when_it_is_the_oldest)
{
    add_spans(17);
    _coverage.add(6, 8);  // of the hole from 5 to 10; from 5 to 6 there is no room
    EXPECT_EQ(87, _coverage.known(1000));
    _coverage.add(5, 6);
    EXPECT_EQ(87, _coverage.known(1000));
    _coverage.add(8, 10);
    EXPECT_EQ(89, _coverage.known(1000));
}

}  // namespace toolkit::trend
