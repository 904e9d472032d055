// What a row added, removed or rolled up does to what is known of a table.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "trend/memory.h"

using toolkit::trend::known_table_t;

namespace {

// A table with rows from 60 to 420 of which the newest, from `first`, wait.
known_table_t table(int64_t count, int64_t first, int64_t after)
{
    known_table_t known;
    known._extent = known_table_t::extent_t{60, 420};
    known._waiting = known_table_t::waiting_t{count, first, after};
    return known;
}

// "oldest-newest, count from first after after", "?" for what is not known.
std::string text(const known_table_t& known)
{
    std::ostringstream out;
    if (known._extent)
        out << known._extent->_oldest << "-" << known._extent->_newest << ", ";
    else
        out << "?, ";
    if (!known._waiting)
        out << "?";
    else if (known._waiting->_count == 0)
        out << "none after " << known._waiting->_after;
    else
        out << known._waiting->_count << " from " << known._waiting->_first << " after "
            << known._waiting->_after;
    return out.str();
}

}  // namespace

TEST(known_table, of_which_nothing_is_known_learns_nothing_from_a_change)
{
    known_table_t known;
    known.add_row(60);
    known.remove_rows_up_to(60);
    EXPECT_EQ(text(known), "?, ?");
}

TEST(known_table, counts_rows_that_are_newer_than_what_waits)
{
    known_table_t known = table(2, 360, 360);
    known.add_row(480);
    EXPECT_EQ(text(known), "60-480, 3 from 360 after 360");
}

TEST(known_table, counts_the_first_row_after_a_roll_up)
{
    known_table_t known = table(2, 360, 360);
    known.roll_up_all();
    EXPECT_EQ(text(known), "60-420, none after 420");
    known.add_row(480);
    EXPECT_EQ(text(known), "60-480, 1 from 480 after 420");
    known.add_row(450);
    EXPECT_EQ(text(known), "60-480, 2 from 450 after 420");
}

TEST(known_table, does_not_know_whether_an_older_row_waits)
{
    known_table_t known = table(2, 360, 360);
    known.add_row(350);
    EXPECT_EQ(text(known), "60-420, ?");

    known = table(0, -1, 420);
    known.add_row(30);
    EXPECT_EQ(text(known), "30-420, ?");

    known = table(0, -1, 420);
    known.add_row(420);  // of the time of the newest coarse row
    EXPECT_EQ(text(known), "60-420, ?");
}

TEST(known_table, loses_its_oldest_rows)
{
    known_table_t known = table(2, 360, 360);
    known.remove_rows_up_to(120);
    EXPECT_EQ(text(known), "121-420, 2 from 360 after 360");

    known = table(0, -1, 420);
    known.remove_rows_up_to(419);
    EXPECT_EQ(text(known), "420-420, none after 420");
}

TEST(known_table, does_not_know_how_many_of_what_waited_are_left)
{
    known_table_t known = table(2, 360, 360);
    known.remove_rows_up_to(360);
    EXPECT_EQ(text(known), "361-420, ?");
}

TEST(known_table, does_not_know_whether_anything_is_left)
{
    known_table_t known = table(0, -1, 420);
    known.remove_rows_up_to(420);
    EXPECT_EQ(text(known), "?, none after 420");
}

TEST(known_table, forgets_its_rows)
{
    known_table_t known = table(2, 360, 360);
    known.forget_rows();
    EXPECT_EQ(text(known), "?, ?");
}
