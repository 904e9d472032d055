// The floor does what the library does when it reads everything afresh: the same statements with
// the same values in the same order. With what it remembers the library leaves the same file.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "floor_side.h"
#include "library_side.h"
#include "plant.h"
#include "rows.h"
#include "trace.h"

namespace {

// Short enough that every table is trimmed within a few hundred snapshots.
plant_t small_plant()
{
    plant_t plant{2, 3};
    plant._periods = {{1, 30}, {5, 20}, {20, 6}};
    return plant;
}

enum history_t { EMPTY_TABLES, FULL_TABLES };

// The library without what recording remembers: a rollback makes it forget, and one of an inner
// level does nothing else.
class forgetful_side : public library_side {
public:
    using library_side::library_side;

    void record(size_t device, const toolkit::trend::CSnapshot& snapshot)
    {
        EXPECT_EQ(0, log().begin_transaction());
        log().rollback_transaction();
        library_side::record(device, snapshot);
    }
};

template <typename Side, typename Work>
texts_t statements_of_work(const std::string& file, const plant_t& plant, Work work,
                           history_t history)
{
    make_log(file, plant);
    if (history == FULL_TABLES) add_history(file, plant);
    Side side(file, plant);
    statement_trace trace;
    work(side);
    texts_t texts = trace.expanded();
    // For the next recording, which would prove by it what it remembers.
    texts.erase(std::remove(texts.begin(), texts.end(), "PRAGMA data_version"), texts.end());
    return texts;
}

template <typename Work>
void expect_same(const plant_t& plant, Work work, history_t history = EMPTY_TABLES)
{
    const texts_t forgetful =
        statements_of_work<forgetful_side>("forgetful.db", plant, work, history);
    const texts_t library = statements_of_work<library_side>("library.db", plant, work, history);
    const texts_t floor = statements_of_work<floor_side>("floor.db", plant, work, history);
    EXPECT_GT(library.size(), 2U);
    EXPECT_LE(library.size(), floor.size());
    EXPECT_EQ(forgetful, floor);
    EXPECT_EQ(dump("forgetful.db"), dump("floor.db"));
    EXPECT_EQ(dump("library.db"), dump("floor.db"));
}

template <typename Side>
void commit_minutes(Side& side, const plant_t& plant, int64_t minutes)
{
    toolkit::trend::CSnapshot snapshot = empty_snapshot(plant);
    for (int64_t minute = 1; minute <= minutes; ++minute) {
        measure(snapshot, minute);
        for (size_t device = 0; device < plant._devices; ++device) {
            side.begin();
            side.record(device, snapshot);
            side.end();
        }
    }
}

template <typename Side>
void record_minutes(Side& side, const plant_t& plant, int64_t minutes)
{
    toolkit::trend::CSnapshot snapshot = empty_snapshot(plant);
    for (int64_t minute = 1; minute <= minutes; ++minute) {
        measure(snapshot, minute);
        for (size_t device = 0; device < plant._devices; ++device)
            side.record(device, snapshot);
    }
}

TEST(floor_side, records_by_the_librarys_statements_with_a_commit_each)
{
    const plant_t plant = small_plant();
    expect_same(plant, [&](auto& side) { commit_minutes(side, plant, 25); });
    EXPECT_EQ("25", rows("floor.db", "SELECT count(*) FROM trends_2_1"));
}

TEST(floor_side, records_by_the_librarys_statements_until_every_table_is_trimmed)
{
    const plant_t plant = small_plant();
    expect_same(plant, [&](auto& side) {
        side.begin();
        record_minutes(side, plant, 400);
        side.end();
    });
    // Each table has ten rows more than its period's number.
    EXPECT_EQ("40", rows("floor.db", "SELECT count(*) FROM trends_2_1"));
    EXPECT_EQ("30", rows("floor.db", "SELECT count(*) FROM trends_2_5"));
    EXPECT_EQ("16", rows("floor.db", "SELECT count(*) FROM trends_2_20"));
}

TEST(floor_side, goes_on_after_a_history_by_the_librarys_statements)
{
    const plant_t plant = small_plant();
    const auto work = [&](auto& side) {
        toolkit::trend::CSnapshot snapshot = empty_snapshot(plant);
        for (int64_t minute = 1; minute <= 45; ++minute) {
            measure(snapshot, history_end(plant) + minute);
            side.begin();
            side.record(1, snapshot);
            side.end();
        }
    };
    expect_same(plant, work, FULL_TABLES);
    // As many rows as before, and one of the second table waits for three more to be rolled up.
    EXPECT_EQ("40", rows("floor.db", "SELECT count(*) FROM trends_2_1"));
    EXPECT_EQ("31", rows("floor.db", "SELECT count(*) FROM trends_2_5"));
    EXPECT_EQ("16", rows("floor.db", "SELECT count(*) FROM trends_2_20"));
}

TEST(floor_side, fills_by_the_librarys_statements)
{
    const plant_t plant = small_plant();
    expect_same(plant, [&](auto& side) {
        commit_minutes(side, plant, 3);
        for (int64_t minute : {4, 11, 60, 1000})
            side.fill(0, 60 * minute);
    });
}

TEST(floor_side, reads_by_the_librarys_statements)
{
    const plant_t plant = small_plant();
    const auto work = [&](auto& side) {
        commit_minutes(side, plant, 100);
        for (bool no_overlap : {false, true})
            for (const timebounds_t& bounds :
                 {timebounds_t(-1, -1), timebounds_t(1200, -1), timebounds_t(1200, 4800)}) {
                EXPECT_GT(side.read(0, 3, bounds, no_overlap), 10U);
                EXPECT_GT(side.sum_of_values(), 0.0);
            }
    };
    expect_same(plant, work);
}

TEST(floor_side, reads_the_same_values)
{
    const plant_t plant = small_plant();
    make_log("a.db", plant);
    add_history("a.db", plant);
    library_side library("a.db", plant);
    floor_side floor("a.db", plant);
    EXPECT_EQ(40U + 30U + 16U, library.read(0, 3, {-1, -1}, false));
    EXPECT_EQ(40U + 30U + 16U, floor.read(0, 3, {-1, -1}, false));
    EXPECT_EQ(library.sum_of_values(), floor.sum_of_values());
}

}  // namespace
