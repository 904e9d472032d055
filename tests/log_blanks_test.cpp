// Filling gaps with blank rows.

#include <algorithm>

#include "clock.h"
#include "count_changes.h"
#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"

namespace {

const std::string FILL_BLANK_VALUES =
    "int toolkit::trend::CLog::fill_blank_values(const toolkit::trend::CDeviceProperties&, time_t, "
    "bool)";
const std::string CALC_PERIOD_RATIOS =
    "static int toolkit::trend::CLog::calc_period_ratios(const "
    "std::vector<toolkit::trend::CPeriodProperties>&, std::vector<long unsigned int>&)";

const std::string PERIODS = "SELECT * FROM periods";
const std::string PARAMS_1 = "SELECT * FROM params_1 ORDER BY idx ASC";
const std::string NEWEST_1_1 = "SELECT max(time) FROM trends_1_1";
const std::string OLDEST_1_1 = "SELECT min(time) FROM trends_1_1";

const std::string BLANK_1_1 = "INSERT INTO trends_1_1 (time, percent_valid) VALUES (?,0)";
const std::string COPY_1_1 =
    "INSERT INTO trends_1_1 (time, percent_valid) SELECT time+?, 0 FROM trends_1_1 WHERE time > ? "
    "LIMIT ?";

std::string blank(time_t time, const std::string& table = "trends_1_1")
{
    return "INSERT INTO " + table + " (time, percent_valid) VALUES (" + std::to_string(time) +
           ",0)";
}

std::string copies(long shift, time_t after, long limit, const std::string& table = "trends_1_1")
{
    return "INSERT INTO " + table + " (time, percent_valid) SELECT time+" + std::to_string(shift) +
           ", 0 FROM " + table + " WHERE time > " + std::to_string(after) + " LIMIT " +
           std::to_string(limit);
}

class fill_blank_values : public log_fixture {
protected:
    // A device with these periods and one row at 6000, on the boundary of minute 100.
    CDeviceParams pump(std::initializer_list<CPeriodProperties> periods)
    {
        add_periods(periods);
        const CDeviceParams device = add_device("pump", {param("u", "avg")});
        record(device, 6000, {1.0});
        return device;
    }

    int fill(const CDeviceParams& device, time_t now, bool mark_valid = false)
    {
        return _log.fill_blank_values(device._device, now, mark_valid);
    }

    // The blank rows that filling inserts into one table, as statements with their values.
    texts_t inserts(const CDeviceParams& device, time_t now, const std::string& table)
    {
        statement_trace trace;
        EXPECT_EQ(fill(device, now), 0);
        texts_t found;
        for (const std::string& text : trace.expanded())
            if (text.find("INSERT INTO " + table + " (time, percent_valid)") == 0)
                found.push_back(text);
        return found;
    }

    // The times of one period's rows, also while they are not committed.
    std::vector<time_t> times(const CDeviceParams& device, const CPeriodProperties& period)
    {
        CDeviceData read;
        EXPECT_EQ(_log.get_trend_data(read, device, {period}, {-1, -1}, 0, 0, true, false), 0);
        std::vector<time_t> found;
        for (const CSnapshot& row : read._snapshots)
            found.push_back(row._time);
        return found;
    }

    void expect_nothing_left(const std::string& before)
    {
        EXPECT_EQ(dump(), before);
        EXPECT_TRUE(at_level_0());
    }
};

// What is written -------------------------------------------------------------------------------

TEST_F(fill_blank_values, appends_one_row_for_every_missing_interval)
{
    const CDeviceParams device = pump({{1, 100}});
    EXPECT_QUIET(fill(device, 6180), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1"),
              "6000|100.0|1.0\n6060|0.0|NULL\n6120|0.0|NULL\n6180|0.0|NULL");
}

TEST_F(fill_blank_values, goes_on_from_a_newest_row_at_0)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceParams device = add_device("pump", {param("u", "avg")});
    record(device, 0, {1.0});
    EXPECT_QUIET(fill(device, 120), 0);
    // The trim at the end takes the row at 0: its cutoff does not go below that.
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "60\n120");
}

TEST_F(fill_blank_values, blank_rows_count_as_1_percent_valid_on_request)
{
    const CDeviceParams device = pump({{1, 100}});
    EXPECT_QUIET(fill(device, 6300, true), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_1 WHERE time > 6000"),
              "6060|1.0|NULL\n6120|1.0|NULL\n6180|1.0|NULL\n6240|1.0|NULL\n6300|1.0|NULL");
}

TEST_F(fill_blank_values, blank_rows_read_back_without_values)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("u", "min max avg actual sum")});
    record(device, 60, {1.0});
    EXPECT_QUIET(fill(device, 120), 0);
    CDeviceData read;
    ASSERT_EQ(_log.get_trend_data(read, device, {}, {120, 120}, 0, 0, true, false), 0);
    ASSERT_EQ(read._snapshots.size(), 1u);
    EXPECT_EQ(read._snapshots[0]._percent_valid, 0.0);
    const CSample& sample = read._snapshots[0]._samples.at(0);
    EXPECT_FALSE(sample._min || sample._max || sample._avg || sample._actual || sample._sum);
}

TEST_F(fill_blank_values, stops_at_the_last_interval_that_is_not_after_now)
{
    const CDeviceParams device = pump({{1, 100}});
    EXPECT_QUIET(fill(device, 6119), 0);
    EXPECT_EQ(rows("SELECT max(time) FROM trends_1_1"), "6060");
    EXPECT_QUIET(fill(device, 6120), 0);
    EXPECT_EQ(rows("SELECT max(time) FROM trends_1_1"), "6120");
}

TEST_F(fill_blank_values, continues_the_grid_of_the_newest_row)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 6007, {2.0});
    EXPECT_QUIET(fill(device, 6200), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "6000\n6007\n6067\n6127\n6187");
}

TEST_F(fill_blank_values, adds_nothing_before_the_next_interval_or_for_a_time_that_is_past)
{
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    const std::string before = dump();
    for (const time_t now : {6059, 6000, 5000, 0})
        EXPECT_QUIET(fill(device, now), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(fill_blank_values, leaves_empty_tables_empty)
{
    add_periods({{1, 100}, {15, 100}});
    const CDeviceParams device = add_device("pump", {param("u", "avg")});
    const std::string before = dump();
    EXPECT_QUIET(fill(device, 60000), 0);
    EXPECT_EQ(dump(), before);
}

TEST_F(fill_blank_values, leaves_a_coarse_table_empty_that_has_no_row_yet)
{
    // Three minutes make no quarter of an hour.
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    EXPECT_QUIET(fill(device, 6120), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "3");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_15"), "0");
}

TEST_F(fill_blank_values, device_without_parameters_gets_no_rows)
{
    add_period(1, 100);
    CDeviceParams device;
    device._device = add_device("pump");
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (6000, 100.0)");
    EXPECT_QUIET(fill(device, 9000), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "6000");
}

TEST_F(fill_blank_values, fills_the_device_named_only)
{
    const CDeviceParams device = pump({{1, 100}});
    const CDeviceParams fan = add_device("fan", {param("u", "avg")});
    record(fan, 6000, {1.0});
    EXPECT_QUIET(fill(fan, 6060), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "6000");
    EXPECT_EQ(rows("SELECT time FROM trends_2_1"), "6000\n6060");
}

TEST_F(fill_blank_values, takes_the_present_for_minus_1)
{
    const CDeviceParams device = pump({{1, 100}});
    const fixed_clock clock(6130);
    EXPECT_QUIET(fill(device, -1), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "6000\n6060\n6120");
}

TEST_F(fill_blank_values, rows_recorded_afterwards_follow_the_blank_ones)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    EXPECT_QUIET(fill(device, 6180), 0);
    record(device, 6240, {4.0});

    // Validity (100 + 0 + 0 + 0 + 100) / 5, average of the two that have a value.
    EXPECT_EQ(rows("SELECT * FROM trends_1_5"), "6240|40.0|2.5");
}

TEST_F(fill_blank_values, keeps_the_grid_of_coarse_rows_over_a_gap)
{
    // Without the four blank rows the group would end with minute 109.
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    for (time_t time = 6060; time <= 6360; time += 60)
        record(device, time, {1.0});
    EXPECT_QUIET(fill(device, 6480), 0);
    record(device, 6540, {1.0});
    EXPECT_EQ(rows("SELECT time, percent_valid FROM trends_1_5"), "6240|100.0\n6540|60.0");
}

// Every period ----------------------------------------------------------------------------------

TEST_F(fill_blank_values, rolls_up_the_first_group_and_fills_coarser_tables_on_their_own)
{
    const CDeviceParams device = pump({{1, 1440}, {15, 1440}});
    EXPECT_QUIET(fill(device, 12030), 0);

    // 1 row of 15 is valid in the group that ends at 6840; what follows is filled by quarters.
    EXPECT_EQ(rows("SELECT time, round(percent_valid, 6), param_1_avg FROM trends_1_15"),
              "6840|6.666667|1.0\n7740|0.0|NULL\n8640|0.0|NULL\n9540|0.0|NULL\n10440|0.0|NULL\n"
              "11340|0.0|NULL");
}

TEST_F(fill_blank_values, takes_the_periods_from_the_finest_to_the_coarsest)
{
    const CDeviceParams device = pump({{15, 100}, {1, 100}, {60, 100}});
    statement_trace trace;
    EXPECT_EQ(fill(device, 6000 + 70 * 60), 0);
    texts_t order;
    for (const std::string& text : trace.texts())
        if (text.find(" (time, percent_valid) VALUES") != std::string::npos)
            if (order.empty() || order.back() != text) order.push_back(text);
    EXPECT_EQ(order,
              (texts_t{BLANK_1_1, "INSERT INTO trends_1_15 (time, percent_valid) VALUES (?,0)"}));
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "71");
    EXPECT_EQ(rows("SELECT time FROM trends_1_15"), "6840\n7740\n8640\n9540");
    EXPECT_EQ(rows("SELECT time FROM trends_1_60"), "9540");
}

// Row by row, then doubling ---------------------------------------------------------------------

TEST_F(fill_blank_values, doubles_the_run_after_one_coarse_interval_row_by_row)
{
    const CDeviceParams device = pump({{1, 1440}, {15, 1440}});
    EXPECT_EQ(inserts(device, 12030, "trends_1_1"),
              (texts_t{blank(6060), blank(6120), blank(6180), blank(6240), blank(6300), blank(6360),
                       blank(6420), blank(6480), blank(6540), blank(6600), blank(6660), blank(6720),
                       blank(6780), blank(6840), blank(6900), copies(900, 6000, -1),
                       copies(1800, 6000, -1), copies(3600, 6000, 40)}));
    EXPECT_EQ(rows("SELECT count(*), min(time), max(time) FROM trends_1_1"), "101|6000|12000");
}

TEST_F(fill_blank_values, coarsest_period_doubles_from_its_first_row)
{
    const CDeviceParams device = pump({{1, 1440}});
    EXPECT_EQ(inserts(device, 6600, "trends_1_1"),
              (texts_t{blank(6060), copies(60, 6000, -1), copies(120, 6000, -1),
                       copies(240, 6000, -1), copies(480, 6000, 2)}));
    EXPECT_EQ(rows("SELECT count(*), max(time) FROM trends_1_1"), "11|6600");
}

TEST_F(fill_blank_values, coarser_table_doubles_its_own_run)
{
    // Its run begins after the row that the roll-up has written, at 6840.
    const CDeviceParams device = pump({{1, 1440}, {15, 1440}});
    EXPECT_EQ(
        inserts(device, 12030, "trends_1_15"),
        (texts_t{blank(7740, "trends_1_15"), copies(900, 6840, -1, "trends_1_15"),
                 copies(1800, 6840, -1, "trends_1_15"), copies(3600, 6840, 1, "trends_1_15")}));
}

TEST_F(fill_blank_values, copy_that_just_fits_has_no_limit)
{
    const CDeviceParams device = pump({{1, 1440}, {5, 1440}});
    EXPECT_EQ(inserts(device, 6600, "trends_1_1"),
              (texts_t{blank(6060), blank(6120), blank(6180), blank(6240), blank(6300),
                       copies(300, 6000, -1)}));
}

TEST_F(fill_blank_values, long_gap_costs_about_log2_statements)
{
    // 60 rows one by one, then 60 x 2^10 + 38560 by eleven copies; of 1665 hours one, then eleven.
    const CDeviceParams device = pump({{1, 200000}, {60, 200000}});
    statement_trace trace;
    EXPECT_EQ(fill(device, 6000 + 100000 * 60), 0);
    EXPECT_EQ(trace.times_run(BLANK_1_1), 60);
    EXPECT_EQ(trace.times_run(COPY_1_1), 11);
    EXPECT_EQ(trace.times_run("INSERT INTO trends_1_60 (time, percent_valid) VALUES (?,0)"), 1);
    EXPECT_EQ(trace.times_run("INSERT INTO trends_1_60 (time, percent_valid) SELECT time+?, 0 FROM "
                              "trends_1_60 WHERE time > ? LIMIT ?"),
              11);
    EXPECT_LT(trace.texts().size(), 110u);
    EXPECT_EQ(rows("SELECT count(*), max(time) FROM trends_1_1"), "100001|6006000");
    EXPECT_EQ(rows("SELECT count(*), max(time) FROM trends_1_60"), "1666|6003540");
}

TEST_F(fill_blank_values, gap_of_any_length_is_closed_without_holes)
{
    const CDeviceParams device = pump({{1, 1000}, {5, 1000}});
    std::vector<time_t> expected = {6000};
    for (time_t now = 6030; now < 6000 + 100 * 60; now += 60) {
        ASSERT_EQ(_log.begin_transaction(), 0);
        EXPECT_EQ(fill(device, now), 0);
        EXPECT_EQ(times(device, {1, 1000}), expected);
        _log.rollback_transaction();
        expected.push_back(expected.back() + 60);
    }
}

TEST_F(fill_blank_values, mark_is_part_of_both_texts)
{
    const CDeviceParams device = pump({{1, 100}});
    statement_trace trace;
    EXPECT_EQ(fill(device, 6120, true), 0);
    EXPECT_EQ(trace.times_run("INSERT INTO trends_1_1 (time, percent_valid) VALUES (?,1)"), 1);
    EXPECT_EQ(trace.times_run("INSERT INTO trends_1_1 (time, percent_valid) SELECT time+?, 1 FROM "
                              "trends_1_1 WHERE time > ? LIMIT ?"),
              1);
}

// What the table cannot keep --------------------------------------------------------------------

TEST_F(fill_blank_values, skips_what_is_older_than_the_newest_entries)
{
    // Of 15 intervals the first 5 get no rows; the old row lies within the ten spare ones.
    const CDeviceParams device = pump({{1, 10}});
    EXPECT_EQ(inserts(device, 6900, "trends_1_1"),
              (texts_t{blank(6360), copies(60, 6300, -1), copies(120, 6300, -1),
                       copies(240, 6300, -1), copies(480, 6300, 2)}));
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"),
              "6000\n6360\n6420\n6480\n6540\n6600\n6660\n6720\n6780\n6840\n6900");
}

TEST_F(fill_blank_values, does_not_skip_as_many_intervals_as_there_are_entries)
{
    const CDeviceParams device = pump({{1, 10}});
    EXPECT_QUIET(fill(device, 6659), 0);
    EXPECT_EQ(rows("SELECT count(*), max(time) FROM trends_1_1"), "11|6600");
}

TEST_F(fill_blank_values, skips_after_the_first_coarse_interval)
{
    // 5 rows one by one and rolled up; of the 95 intervals left the newest 10; then the trim.
    const CDeviceParams device = pump({{1, 10}, {5, 100}});
    EXPECT_EQ(inserts(device, 12000, "trends_1_1"),
              (texts_t{blank(6060), blank(6120), blank(6180), blank(6240), blank(6300),
                       blank(11460), copies(60, 11400, -1), copies(120, 11400, -1),
                       copies(240, 11400, -1), copies(480, 11400, 2)}));
    EXPECT_EQ(rows("SELECT count(*), min(time), max(time) FROM trends_1_1"), "10|11460|12000");
    EXPECT_EQ(rows("SELECT time FROM trends_1_5 LIMIT 3"), "6240\n6540\n6840");
}

TEST_F(fill_blank_values, gap_of_any_length_leaves_the_newest_entries_of_a_short_table)
{
    // Five one by one, then all that is missing or the newest 7; 17 intervals stay in the table.
    const CDeviceParams device = pump({{1, 7}, {5, 100}});
    for (int gap = 0; gap <= 60; ++gap) {
        std::vector<time_t> expected;
        for (int i = std::max(gap - 16, 0); i <= gap; ++i)
            if (i <= 5 || i > gap - 7) expected.push_back(6000 + i * 60);
        ASSERT_EQ(_log.begin_transaction(), 0);
        EXPECT_EQ(fill(device, 6000 + gap * 60), 0);
        EXPECT_EQ(times(device, {1, 7}), expected) << gap;
        _log.rollback_transaction();
    }
}

TEST_F(fill_blank_values, run_that_the_trim_has_cut_starts_anew)
{
    // 60 rows one by one, of which the trim leaves 15: copied, they would end up after now.
    const CDeviceParams device = pump({{1, 5}, {60, 100}});
    const texts_t run = inserts(device, 9780, "trends_1_1");
    ASSERT_EQ(run.size(), 63u);
    EXPECT_EQ(run[59], blank(9600));
    EXPECT_EQ(texts_t(run.begin() + 60, run.end()),
              (texts_t{blank(9660), copies(60, 9600, -1), copies(120, 9600, 1)}));
    EXPECT_EQ(rows("SELECT count(*), min(time), max(time) FROM trends_1_1"), "15|8940|9780");
}

TEST_F(fill_blank_values, run_that_the_trim_has_just_left_whole_goes_on)
{
    const CDeviceParams device = pump({{1, 50}, {60, 100}});
    const texts_t run = inserts(device, 9780, "trends_1_1");
    ASSERT_EQ(run.size(), 61u);
    EXPECT_EQ(run[60], copies(3600, 6000, 3));
}

TEST_F(fill_blank_values, run_that_has_lost_one_row_starts_anew)
{
    const CDeviceParams device = pump({{1, 49}, {60, 100}});
    const texts_t run = inserts(device, 9780, "trends_1_1");
    ASSERT_EQ(run.size(), 63u);
    EXPECT_EQ(run[60], blank(9660));
}

TEST_F(fill_blank_values, never_writes_after_now_whatever_the_table_keeps)
{
    const CDeviceParams device = pump({{1, 1000}, {60, 100}});
    for (const unsigned entries : {1u, 2u, 5u, 9u, 20u, 48u, 49u, 50u, 51u, 60u})
        for (const int gap : {59, 60, 61, 64, 70, 100, 119, 120, 121, 500}) {
            const time_t now = 6000 + gap * 60 + 17;
            ASSERT_EQ(_log.begin_transaction(), 0);
            ASSERT_EQ(_log.modify_period({1, entries}), 0);
            EXPECT_EQ(fill(device, now), 0);
            EXPECT_EQ(times(device, {1, entries}).back(), 6000 + gap * 60)
                << entries << " entries, " << gap << " intervals";
            _log.rollback_transaction();
        }
}

TEST_F(fill_blank_values, trims_the_table_when_nothing_is_missing)
{
    const CDeviceParams device = pump({{1, 100}, {15, 100}});
    for (time_t time = 6060; time <= 6720; time += 60)
        record(device, time, {1.0});
    run_sql(_file, "UPDATE periods SET max_entries = 1 WHERE period = 1");
    EXPECT_QUIET(fill(device, 6720), 0);
    EXPECT_EQ(rows("SELECT count(*), min(time) FROM trends_1_1"), "11|6120");
}

TEST_F(fill_blank_values, rolls_up_when_nothing_is_missing)
{
    const CDeviceParams device = pump({{1, 100}});
    record(device, 6060, {3.0});
    add_period(2, 100);
    EXPECT_QUIET(fill(device, 6060), 0);
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "6060|100.0|2.0");
}

// Which statements run --------------------------------------------------------------------------

TEST_F(fill_blank_values, runs_these_statements_when_nothing_is_missing)
{
    const CDeviceParams device = pump({{1, 100}});
    statement_trace trace;
    EXPECT_EQ(fill(device, 6059), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", PERIODS, PARAMS_1, NEWEST_1_1, NEWEST_1_1,
                                      OLDEST_1_1, NEWEST_1_1, OLDEST_1_1, "COMMIT"}));
}

TEST_F(fill_blank_values, runs_these_statements_for_a_gap)
{
    const CDeviceParams device = pump({{1, 100}, {2, 100}});
    statement_trace trace;
    EXPECT_EQ(fill(device, 6180), 0);
    const std::string count =
        "SELECT count(time), min(time) FROM trends_1_1 WHERE time > coalesce((SELECT max(time) "
        "FROM trends_1_2),0)";
    const std::string roll_up =
        "INSERT INTO trends_1_2 SELECT max(time), avg(percent_valid), pctavg(param_1_avg, "
        "percent_valid) FROM (SELECT * FROM trends_1_1 WHERE time >= ? LIMIT 2 OFFSET ?)";
    const std::string newest_2 = "SELECT max(time) FROM trends_1_2";
    const std::string oldest_2 = "SELECT min(time) FROM trends_1_2";
    EXPECT_EQ(trace.texts(),
              (texts_t{"BEGIN",
                       PERIODS,
                       PARAMS_1,  //
                       NEWEST_1_1,
                       BLANK_1_1,
                       BLANK_1_1,  // 1 minute
                       count,
                       NEWEST_1_1,
                       OLDEST_1_1,
                       roll_up,
                       newest_2,
                       oldest_2,  //
                       COPY_1_1,
                       NEWEST_1_1,
                       OLDEST_1_1,  //
                       newest_2,    // 2 minutes
                       newest_2,
                       oldest_2,                                                     //
                       "INSERT INTO trends_1_2 (time, percent_valid) VALUES (?,0)",  //
                       newest_2,
                       oldest_2,
                       "COMMIT"}));
}

TEST_F(fill_blank_values, looks_at_empty_tables_once)
{
    add_periods({{1, 100}});
    const CDeviceParams device = add_device("pump", {param("u", "avg")});
    statement_trace trace;
    EXPECT_EQ(fill(device, 60000), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", PERIODS, PARAMS_1, NEWEST_1_1, "COMMIT"}));
    EXPECT_EQ(trace.times_prepared(BLANK_1_1), 0);
}

TEST_F(fill_blank_values, prepares_nothing_the_second_time)
{
    const CDeviceParams device = pump({{1, 10}, {5, 10}});
    EXPECT_EQ(fill(device, 9000), 0);
    statement_trace trace;
    EXPECT_EQ(fill(device, 12000), 0);
    EXPECT_EQ(trace.prepared(), texts_t{});
}

TEST_F(fill_blank_values, copy_is_prepared_only_where_it_is_used)
{
    const CDeviceParams device = pump({{1, 100}});
    statement_trace trace;
    EXPECT_EQ(fill(device, 6060), 0);
    EXPECT_EQ(trace.times_prepared(BLANK_1_1), 1);
    EXPECT_EQ(trace.times_prepared(COPY_1_1), 0);
}

// Within a host's own transaction -----------------------------------------------------------------

TEST_F(fill_blank_values, belongs_to_the_transaction_of_the_host)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(fill(device, 7000), 0);
    EXPECT_EQ(dump(), before);
    _log.rollback_transaction();
    EXPECT_EQ(dump(), before);

    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(fill(device, 6060), 0);
    record(device, 6120, {1.0});
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(rows("SELECT time FROM trends_1_1"), "6000\n6060\n6120");
}

// Failures
// ------------------------------------------------------------------------------------------

TEST_F(fill_blank_values, checks_its_arguments_in_order_before_it_touches_the_file)
{
    CDeviceProperties device;
    const auto refused = [&](const std::string& why) {
        statement_trace trace;
        EXPECT_REPORTS(_log.fill_blank_values(device, -2, false), -1,
                       FILL_BLANK_VALUES + ": Error: " + why + "\n");
        EXPECT_EQ(trace.texts(), texts_t{});
    };

    _log.close();
    refused("DB not open");
    open();
    refused("invalid device id");
    device._path = "pump";
    refused("invalid device id");
    device._index = 1;
    device._path = "";
    refused("invalid device id");
    device._path = "pump";
    refused("invalid fill time");
}

TEST_F(fill_blank_values, reports_a_clock_that_fails)
{
    const CDeviceParams device = pump({{1, 100}});
    const fixed_clock clock(-1);
    statement_trace trace;
    EXPECT_REPORTS(fill(device, -1), -1, FILL_BLANK_VALUES + ": Error: can't get time\n");
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "ROLLBACK"}));
}

TEST_F(fill_blank_values, clock_before_the_epoch_is_stopped)
{
    const CDeviceParams device = pump({{1, 100}});
    const fixed_clock clock(-5);
    EXPECT_STOPS(fill(device, -1), "now>=static_cast<time_t>(0)");
}

TEST_F(fill_blank_values, log_without_periods_is_stopped)
{
    CDeviceParams device;
    device._device = add_device("pump");
    EXPECT_STOPS(fill(device, 6000), "!periods.empty()");
}

TEST_F(fill_blank_values, period_without_minutes_or_entries_is_stopped)
{
    // Both are read as their low 32 bits.
    const CDeviceParams device = pump({{1, 100}});
    run_sql(_file, "UPDATE periods SET max_entries = 4294967296");
    EXPECT_STOPS(fill(device, 6000), "periods[idx]._max_entries!=0");
    run_sql(_file, "UPDATE periods SET period = 4294967296");
    EXPECT_STOPS(fill(device, 6000), "periods[idx]._period!=0");
}

TEST_F(fill_blank_values, passes_on_periods_that_do_not_fit_one_another)
{
    const CDeviceParams device = pump({{2, 100}});
    add_period(3, 100);
    std::string before = dump();
    EXPECT_REPORTS(fill(device, 9000), -1, CALC_PERIOD_RATIOS + ": Error: period ratio too low\n");
    expect_nothing_left(before);

    ASSERT_EQ(_log.remove_period({3, 100}), 0);
    add_period(5, 100);
    before = dump();
    EXPECT_REPORTS(fill(device, 9000), -1, CALC_PERIOD_RATIOS + ": Error: oddball period ratio\n");
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, device_that_is_not_stored_has_no_parameters_to_read)
{
    CDeviceParams device = pump({{1, 100}});
    device._device._index = 2;
    EXPECT_REPORTS(fill(device, 9000), -1, prepare_report("no such table: params_2"));
    EXPECT_TRUE(at_level_0());
}

TEST_F(fill_blank_values, fails_rather_than_follow_a_list_that_was_cut_short)
{
    CDeviceParams device = pump({{1, 100}, {5, 100}});
    reopen();
    const std::string before = dump();
    for (const std::string& list : {PERIODS, PARAMS_1})
        for (int at_row = 1; at_row <= 2; ++at_row) {
            SCOPED_TRACE(list + " at row " + std::to_string(at_row));
            interrupt_step fault(list, at_row);
            EXPECT_REPORTS(fill(device, 9000), -1, step_and_reset_report(9, "interrupted"));
            expect_nothing_left(before);
        }
}

TEST_F(fill_blank_values, unread_newest_time_is_a_failure_and_not_an_empty_table)
{
    const CDeviceParams device = pump({{1, 100}});
    const std::string before = dump();
    interrupt_step fault(NEWEST_1_1);
    EXPECT_REPORTS(fill(device, 9000), -1, step_and_reset_report(9, "interrupted"));
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, reports_the_text_of_a_blank_row_that_cannot_be_prepared)
{
    const CDeviceParams device = pump({{1, 100}});
    const std::string before = dump();
    deny_prepare denial(BLANK_1_1);
    EXPECT_REPORTS(
        fill(device, 6000), -1,
        prepare_report("no such column: denied") + "Can't prepare SQL (3): '" + BLANK_1_1 + "'\n");
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, reports_the_text_of_a_copy_that_cannot_be_prepared)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    const std::string before = dump();
    deny_prepare denial(COPY_1_1);
    EXPECT_REPORTS(
        fill(device, 9000), -1,
        prepare_report("no such column: denied") + "Can't prepare SQL (4): '" + COPY_1_1 + "'\n");
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, failing_row_takes_everything_back)
{
    // One of those that come one by one, one of a copy, and one of the coarse table.
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    for (const char* row : {"trends_1_1 WHEN NEW.time = 6120", "trends_1_1 WHEN NEW.time = 6420",
                            "trends_1_5 WHEN NEW.time = 6540"}) {
        SCOPED_TRACE(row);
        run_sql(_file, std::string("CREATE TRIGGER full BEFORE INSERT ON ") + row +
                           " BEGIN SELECT RAISE(ABORT, 'refused'); END");
        const std::string before = dump();
        EXPECT_REPORTS(fill(device, 7000), -1, step_and_reset_report(1811, "refused"));
        expect_nothing_left(before);
        run_sql(_file, "DROP TRIGGER full");
    }
}

TEST_F(fill_blank_values, failing_rollup_takes_everything_back)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    run_sql(_file,
            "CREATE TRIGGER full BEFORE INSERT ON trends_1_5 BEGIN SELECT RAISE(ABORT, 'full'); "
            "END");
    const std::string before = dump();
    capture_stderr([&] { EXPECT_EQ(fill(device, 9000), -1); });
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, failing_trim_takes_everything_back)
{
    const CDeviceParams device = pump({{1, 10}});
    run_sql(_file,
            "CREATE TRIGGER kept BEFORE DELETE ON trends_1_1 BEGIN SELECT RAISE(ABORT, 'kept'); "
            "END");
    const std::string before = dump();
    EXPECT_REPORTS(fill(device, 9000), -1, step_and_reset_report(1811, "kept"));
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, passes_on_a_refused_commit)
{
    const CDeviceParams device = pump({{1, 100}});
    const std::string before = dump();
    {
        refuse_commit refusal;
        EXPECT_REPORTS(fill(device, 9000), -1, step_and_reset_report(531, "constraint failed"));
    }
    expect_nothing_left(before);
}

TEST_F(fill_blank_values, blank_row_that_returns_a_row_is_stopped)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    count_changes fault;
    EXPECT_STOPS(fill(device, 6060), "retval<=0");
}

TEST_F(fill_blank_values, first_row_of_a_run_that_returns_a_row_is_stopped)
{
    const CDeviceParams device = pump({{1, 100}});
    count_changes fault;
    EXPECT_STOPS(fill(device, 6060), "retval<=0");
}

TEST_F(fill_blank_values, is_undone_with_a_transaction_that_sqlite_has_dropped)
{
    const CDeviceParams device = pump({{1, 100}, {5, 100}});
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    record(device, 6060, {2.0});
    {
        interrupt_step fault(COPY_1_1);
        EXPECT_REPORTS(fill(device, 9000), -1, step_and_reset_report(9, "interrupted"));
    }
    EXPECT_REPORTS(fill(device, 9000), -1, step_report(516, "abort due to ROLLBACK"));
    capture_stderr([&] { _log.rollback_transaction(); });
    expect_nothing_left(before);
}

}  // namespace
