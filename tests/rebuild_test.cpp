// Bringing late and corrected rows into the coarse ones.

#include <cmath>
#include <fstream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trend_repair.h"

namespace {

using namespace toolkit::trend;

const std::string FN =
    "int toolkit::trend::rebuild(CLog&, const CRebuildRequest&, CRebuildResult&): Error: ";

// One device with one average; minutes are recorded with their number as the value.
class rebuild : public log_fixture {
protected:
    void make_log(std::initializer_list<CPeriodProperties> periods)
    {
        add_periods(periods);
        _pump = add_device("pump", {param("u", "avg")});
        _request._device = _pump._device;
        _request._params = _pump._params;
    }

    void record_minutes(int first, int last)
    {
        ASSERT_EQ(_log.begin_transaction(), 0);
        for (int minute = first; minute <= last; ++minute)
            record(_pump, minute * 60, {double(minute)});
        ASSERT_EQ(_log.end_transaction(), 0);
    }

    void fill_up_to(int minute)
    {
        ASSERT_EQ(_log.fill_blank_values(_pump._device, minute * 60, false), 0);
    }

    static CSnapshot row(int minute, double value, double percent_valid = 100.0)
    {
        CSnapshot made;
        made._time = minute * 60;
        made._percent_valid = percent_valid;
        made._samples = {avg(value)};
        return made;
    }

    // Numbers of the result that are not 0, and the range in minutes.
    std::string made(int code = 0)
    {
        EXPECT_QUIET(toolkit::trend::rebuild(_log, _request, _result), code);
        std::string text =
            std::to_string(_result._range.first) + " to " + std::to_string(_result._range.second);
        if (_result._extended) text += " extended";
        for (const auto& [name, count] :
             std::vector<std::pair<std::string, uint64_t>>{{"merged", _result._merged},
                                                           {"replaced", _result._replaced},
                                                           {"refused", _result._refused},
                                                           {"too old", _result._too_old},
                                                           {"blanks", _result._blanks},
                                                           {"recomputed", _result._recomputed},
                                                           {"kept", _result._kept}})
            if (count > 0) text += ", " + std::to_string(count) + " " + name;
        EXPECT_TRUE(at_level_0());
        return text;
    }

    std::string fives() const { return rows("SELECT time/60, param_1_avg FROM trends_1_5"); }

    void expect_refusal(const std::string& why)
    {
        const std::string before = dump();
        EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1, FN + why + "\n");
        EXPECT_EQ(before, dump());
        EXPECT_TRUE(at_level_0());
    }

    CDeviceParams _pump;
    CRebuildRequest _request;
    CRebuildResult _result;
};

// Merging ---------------------------------------------------------------------------------------

TEST_F(rebuild, puts_a_late_row_in_the_place_of_a_blank_one)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 2);
    fill_up_to(3);
    record_minutes(4, 7);
    EXPECT_EQ(fives(), "5|3.0");  // of 1, 2, 4 and 5, the blank row weighing nothing

    _request._rows = {row(3, 33.0)};
    _request._bounds = {180, 180};
    EXPECT_EQ(made(), "1 to 300, 1 merged, 1 recomputed");
    EXPECT_EQ(fives(), "5|9.0");  // 1 + 2 + 33 + 4 + 5 = 45
    EXPECT_EQ(rows("SELECT * FROM trends_1_1 WHERE time = 180"), "180|100.0|33.0");
}

TEST_F(rebuild, fills_a_missing_time_with_a_late_row)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 2);
    record_minutes(4, 4);
    _request._rows = {row(3, 3.0)};
    EXPECT_EQ(made(), "1 to 240, 1 merged");
    record_minutes(5, 5);
    EXPECT_EQ(fives(), "5|3.0");
}

TEST_F(rebuild, leaves_a_row_with_values_alone_unless_asked)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 5);
    _request._rows = {row(3, 33.0, 50.0)};
    EXPECT_EQ(made(), "1 to 300, 1 refused, 1 recomputed");
    EXPECT_EQ(fives(), "5|3.0");

    _request._replace = true;
    EXPECT_EQ(made(), "1 to 300, 1 replaced, 1 recomputed");
    // (1 + 2 + 4 + 5 + 33 / 2) / 4.5
    EXPECT_EQ(rows("SELECT time, percent_valid, round(param_1_avg, 9) FROM trends_1_5"),
              "300|90.0|6.333333333");
}

TEST_F(rebuild, keeps_the_values_of_parameters_that_are_left_out)
{
    add_periods({{1, 100}, {5, 100}});
    _pump = add_device("pump", {param("u", "avg sum"), param("i", "max")});
    for (int minute = 1; minute <= 5; ++minute)
        record(_pump, minute * 60, {double(minute), 10.0 * minute});
    _request._device = _pump._device;
    _request._params = {_pump._params[1]};
    _request._rows = {row(5, 0.0, 80.0)};
    _request._rows[0]._samples = {max(7.0)};
    _request._replace = true;
    EXPECT_EQ(made(), "1 to 300, 1 replaced, 1 recomputed");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1 WHERE time = 300"), "300|80.0|5.0|5.0|7.0");
    EXPECT_EQ(rows("SELECT time, percent_valid, param_1_sum, param_2_max FROM trends_1_5"),
              "300|96.0|15.0|40.0");
}

TEST_F(rebuild, sees_that_the_second_row_of_a_time_meets_the_first)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(2, 5);
    _request._rows = {row(1, 11.0), row(1, 12.0)};
    EXPECT_EQ(made(), "1 to 300, 1 merged, 1 refused, 1 recomputed");
    EXPECT_EQ(rows("SELECT param_1_avg FROM trends_1_1 WHERE time = 60"), "11.0");
}

TEST_F(rebuild, leaves_out_rows_that_the_next_trim_would_delete)
{
    make_log({{1, 10}, {5, 100}});
    record_minutes(31, 60);
    EXPECT_EQ(rows("SELECT min(time)/60 FROM trends_1_1"), "41");
    _request._rows = {row(40, 1.0), row(20, 1.0), row(41, 1.0)};
    EXPECT_EQ(made(), "901 to 3600, 1 refused, 2 too old, 4 recomputed, 2 kept");
    EXPECT_EQ(rows("SELECT min(time)/60 FROM trends_1_1"), "41");
}

TEST_F(rebuild, merges_rows_from_before_the_first_one)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(11, 15);
    _request._rows = {row(3, 3.0)};
    // Two blank rows before it and seven behind.
    EXPECT_EQ(made(), "1 to 900, 1 merged, 9 blanks, 3 recomputed");
    EXPECT_EQ(fives(), "5|3.0\n10|NULL\n15|13.0");
}

TEST_F(rebuild, merges_behind_the_last_group_without_beginning_one)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 6);
    fill_up_to(7);
    record_minutes(8, 8);
    _request._rows = {row(7, 7.0)};
    EXPECT_EQ(made(), "1 to 480, 1 merged, 1 recomputed");
    record_minutes(9, 10);
    EXPECT_EQ(fives(), "5|3.0\n10|8.0");
}

// Blank rows ------------------------------------------------------------------------------------

TEST_F(rebuild, makes_blank_rows_of_missing_minutes_up_to_the_last_group)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 2);
    record_minutes(4, 5);
    record_minutes(7, 7);  // the fifth row, off the grid
    EXPECT_EQ(fives(), "7|3.8");

    EXPECT_EQ(made(), "1 to 420, 1 blanks, 1 recomputed");
    EXPECT_EQ(fives(), "5|3.0");
    EXPECT_EQ(rows("SELECT * FROM trends_1_1 WHERE time = 180"), "180|0.0|NULL");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1 WHERE time = 360"), "0");
}

TEST_F(rebuild, seeds_before_the_first_row_as_the_guide_does)
{
    make_log({{1, 100}, {5, 100}, {10, 100}});
    record_minutes(14, 21);  // rolled up at 18
    EXPECT_EQ(fives(), "18|16.0");
    EXPECT_EQ(made(), "601 to 1260, 3 blanks, 3 recomputed");
    EXPECT_EQ(rows("SELECT time/60, percent_valid, param_1_avg FROM trends_1_5"),
              "15|40.0|14.5\n20|100.0|18.0");
    EXPECT_EQ(rows("SELECT time/60, percent_valid FROM trends_1_10"), "20|70.0");
}

TEST_F(rebuild, makes_no_blank_rows_of_trimmed_ones)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 20);
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time <= 480");  // 1 to 8
    EXPECT_EQ(made(), "1 to 1200, 2 recomputed, 2 kept");
    EXPECT_EQ(fives(), "5|3.0\n10|8.0\n15|13.0\n20|18.0");
}

TEST_F(rebuild, makes_no_more_blank_rows_than_the_table_keeps)
{
    make_log({{1, 5}, {5, 1000}});
    record_minutes(1, 2);
    record_minutes(100000, 100000);
    // 5, ten spare ones and a group are 20 intervals, of which the newest has a row.
    EXPECT_EQ(made(), "1 to 6000000, 19 blanks, 4 recomputed");
    EXPECT_EQ(rows("SELECT count(*), max(time) FROM trends_1_5"), "4|6000000");
}

TEST_F(rebuild, of_a_single_period_fills_its_holes)
{
    make_log({{1, 100}});
    record_minutes(2, 2);
    record_minutes(5, 5);
    _request._rows = {row(3, 3.0)};
    EXPECT_EQ(made(), "61 to 300, 1 merged, 1 blanks");
    EXPECT_EQ(rows("SELECT time/60, percent_valid FROM trends_1_1"),
              "2|100.0\n3|100.0\n4|0.0\n5|100.0");
}

// Coarse rows -----------------------------------------------------------------------------------

TEST_F(rebuild, recomputes_the_whole_groups_of_the_coarsest_period)
{
    make_log({{1, 100}, {5, 100}, {10, 100}});
    record_minutes(1, 33);
    run_sql(_file, "UPDATE trends_1_5 SET param_1_avg = 0; UPDATE trends_1_10 SET param_1_avg = 0");
    _request._bounds = {13 * 60, 13 * 60};
    EXPECT_EQ(made(), "601 to 1200, 3 recomputed");
    EXPECT_EQ(fives(), "5|0.0\n10|0.0\n15|13.0\n20|18.0\n25|0.0\n30|0.0");
    EXPECT_EQ(rows("SELECT time/60, param_1_avg FROM trends_1_10"), "10|0.0\n20|15.5\n30|0.0");
}

TEST_F(rebuild, takes_open_bounds_for_everything)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 12);
    run_sql(_file, "DELETE FROM trends_1_5");
    EXPECT_EQ(made(), "1 to 720, 2 recomputed");
    EXPECT_EQ(fives(), "5|3.0\n10|8.0");
    _request._bounds = {360, -1};
    EXPECT_EQ(made(), "301 to 720, 1 recomputed");
    _request._bounds = {-1, 0};
    EXPECT_EQ(made(), "-1 to -1");
    _request._bounds = {100000, 200000};
    EXPECT_EQ(made(), "-1 to -1");
}

TEST_F(rebuild, of_an_empty_table_does_nothing)
{
    make_log({{1, 100}, {5, 100}});
    EXPECT_EQ(made(), "-1 to -1");
}

TEST_F(rebuild, makes_a_coarse_row_again_from_kept_rows_of_a_middle_period)
{
    make_log({{1, 100}, {5, 100}, {10, 100}});
    record_minutes(1, 20);
    run_sql(_file,
            "DELETE FROM trends_1_1 WHERE time <= 600; UPDATE trends_1_10 SET param_1_avg = 0");
    EXPECT_EQ(made(), "1 to 1200, 4 recomputed, 2 kept");
    EXPECT_EQ(rows("SELECT time/60, param_1_avg FROM trends_1_10"), "10|5.5\n20|15.5");
}

TEST_F(rebuild, does_not_bring_back_what_a_coarse_table_has_trimmed)
{
    make_log({{1, 1000}, {5, 2}});
    record_minutes(1, 100);  // 20 groups; two and ten spare ones are left
    EXPECT_EQ(rows("SELECT count(*), min(time)/60 FROM trends_1_5"), "12|45");
    EXPECT_EQ(made(), "1 to 6000, 12 recomputed");
    EXPECT_EQ(rows("SELECT count(*), min(time)/60 FROM trends_1_5"), "12|45");
    run_sql(_file, "DELETE FROM trends_1_5");
    EXPECT_EQ(made(), "1 to 6000, 12 recomputed");
    EXPECT_EQ(rows("SELECT count(*), min(time)/60 FROM trends_1_5"), "12|45");
}

TEST_F(rebuild, takes_every_row_of_an_interval)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 4);
    record(_pump, 270, {45.0});  // half past four, the fifth row
    record_minutes(5, 5);
    EXPECT_EQ(rows("SELECT time, param_1_avg FROM trends_1_5"), "270|11.0");
    EXPECT_EQ(made(), "1 to 300, 1 recomputed");
    EXPECT_EQ(rows("SELECT time, param_1_avg FROM trends_1_5"), "300|10.0");
}

TEST_F(rebuild, leaves_the_grid_of_a_device_that_is_recorded_past_the_minute)
{
    make_log({{1, 100}, {5, 100}});
    for (int minute = 0; minute < 12; ++minute)
        record(_pump, minute * 60 + 7, {double(minute)});
    const std::string before = dump();
    _request._bounds = {1, 299};
    EXPECT_EQ(made(), "1 to 300, 1 recomputed");
    EXPECT_EQ(before, dump());
}

// Off the grid ----------------------------------------------------------------------------------

class rebuild_off_grid : public rebuild {
protected:
    // The third minute is missing, so that the rows of 6, 11 and 16 minutes are made.
    void SetUp() override
    {
        rebuild::SetUp();
        make_log({{1, 100}, {5, 100}});
        record_minutes(1, 2);
        record_minutes(4, 17);
        _request._bounds = {180, 180};
        _request._rows = {row(3, 3.0)};
        ASSERT_EQ(fives(), "6|3.6\n11|9.0\n16|14.0");
    }
};

TEST_F(rebuild_off_grid, is_refused_and_says_so) { expect_refusal("coarse rows off the grid"); }

TEST_F(rebuild_off_grid, goes_on_to_the_newest_row_when_asked)
{
    _request._off_grid = OFF_GRID_EXTEND;
    EXPECT_EQ(made(), "1 to 1020 extended, 1 merged, 3 recomputed");
    EXPECT_EQ(fives(), "5|3.0\n10|8.0\n15|13.0");
    record_minutes(18, 20);
    EXPECT_EQ(fives(), "5|3.0\n10|8.0\n15|13.0\n20|18.0");
}

TEST_F(rebuild_off_grid, goes_back_to_where_the_grid_holds)
{
    _request._bounds = {14 * 60, -1};
    _request._rows.clear();
    expect_refusal("coarse rows off the grid");
    _request._off_grid = OFF_GRID_EXTEND;
    EXPECT_EQ(made(), "1 to 1020 extended, 1 blanks, 3 recomputed");
    EXPECT_EQ(fives(), "5|3.0\n10|8.0\n15|13.0");
}

TEST_F(rebuild_off_grid, needs_no_extension_where_the_range_is_everything)
{
    _request._bounds = {-1, -1};
    EXPECT_EQ(made(), "1 to 1020, 1 merged, 3 recomputed");
    EXPECT_EQ(fives(), "5|3.0\n10|8.0\n15|13.0");
}

TEST_F(rebuild_off_grid, keeps_a_row_that_reaches_into_what_has_been_trimmed)
{
    // Of the row of 11 minutes only the rows from 9 on are left, so that and the one before stay;
    // the group up to 15 minutes is whole, but the one of 11 minutes knows more of it than others.
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time <= 480");
    _request._bounds = {-1, -1};
    _request._rows.clear();
    EXPECT_EQ(made(), "301 to 1020, 3 kept");
    EXPECT_EQ(fives(), "6|3.6\n11|9.0\n16|14.0");

    record_minutes(18, 27);
    EXPECT_EQ(fives(), "6|3.6\n11|9.0\n16|14.0\n21|19.0\n26|24.0");
    EXPECT_EQ(made(), "301 to 1620, 2 recomputed, 2 kept");
    EXPECT_EQ(fives(), "6|3.6\n11|9.0\n20|18.0\n25|23.0");
}

TEST_F(rebuild, keeps_coarse_rows_of_middle_rows_that_are_off_the_grid)
{
    make_log({{1, 100}, {5, 100}, {10, 100}});
    record_minutes(1, 2);
    record_minutes(4, 23);  // rows of 6, 11, 16 and 21 minutes, and of 11 and 21
    _request._bounds = {14 * 60, 20 * 60};
    _request._off_grid = OFF_GRID_EXTEND;
    _request._dry_run = true;
    EXPECT_EQ(made(), "1 to 1380 extended, 1 blanks, 6 recomputed");

    // Without the minutes the middle rows stay, and so do those that are made of them.
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time < 1380");
    EXPECT_EQ(made(), "601 to 1380 extended, 5 kept");
}

TEST_F(rebuild, takes_away_a_row_off_the_grid_in_the_first_group_of_all)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 6);
    run_sql(_file, "INSERT INTO trends_1_5 VALUES (180, 100, 1)");
    EXPECT_EQ(made(), "1 to 360, 1 recomputed");
    EXPECT_EQ(fives(), "5|3.0");
}

// Dry run, progress, transactions ---------------------------------------------------------------

TEST_F(rebuild_off_grid, counts_in_a_dry_run_and_changes_nothing)
{
    const std::string before = dump();
    _request._off_grid = OFF_GRID_EXTEND;
    _request._dry_run = true;
    EXPECT_EQ(made(), "1 to 1020 extended, 1 merged, 3 recomputed");
    EXPECT_EQ(before, dump());
}

TEST_F(rebuild_off_grid, tells_how_far_it_is)
{
    _request._off_grid = OFF_GRID_EXTEND;
    std::vector<uint64_t> told;
    uint64_t all = 0;
    _request._progress = [&](uint64_t done, uint64_t total) {
        told.push_back(done);
        all = total;
        return true;
    };
    made();
    // One row to merge, 17 intervals of a minute, and 3 of five minutes.
    EXPECT_EQ(all, 21u);
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.front(), 0u);
    EXPECT_EQ(told.back(), 21u);
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
}

TEST_F(rebuild, tells_a_long_way_in_some_two_hundred_steps)
{
    make_log({{1, 5000}, {5, 5000}});
    record_minutes(1, 3000);
    int calls = 0;
    _request._progress = [&](uint64_t, uint64_t) { return ++calls > 0; };
    made();
    EXPECT_GT(calls, 100);
    EXPECT_LE(calls, 210);
}

TEST_F(rebuild_off_grid, can_be_given_up_at_every_step_and_changes_nothing)
{
    const std::string before = dump();
    _request._off_grid = OFF_GRID_EXTEND;
    _request._bounds = {-1, -1};
    _request._rows.push_back(row(4, 4.0));
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time = 780");
    const std::string holed = dump();
    int last = 0;
    int calls = 0;
    _request._progress = [&](uint64_t, uint64_t) { return ++calls != last; };
    for (last = 1;; ++last) {
        calls = 0;
        int result = -1;
        EXPECT_EQ(
            capture_stderr([&] { result = toolkit::trend::rebuild(_log, _request, _result); }), "");
        if (result == 0) break;
        EXPECT_EQ(result, 1);
        EXPECT_EQ(holed, dump());
        EXPECT_TRUE(at_level_0());
    }
    EXPECT_GT(last, 10);
    EXPECT_NE(before, dump());
}

TEST_F(rebuild_off_grid, is_part_of_the_hosts_transaction)
{
    const std::string before = dump();
    _request._off_grid = OFF_GRID_EXTEND;
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(toolkit::trend::rebuild(_log, _request, _result), 0);
    _log.rollback_transaction();
    EXPECT_EQ(before, dump());
}

TEST_F(rebuild_off_grid, refuses_inside_a_transaction_what_a_rollback_there_could_not_undo)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    _request._dry_run = true;
    EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1,
                   FN + "dry run inside a transaction\n");
    _request._dry_run = false;
    _request._progress = [](uint64_t, uint64_t) { return true; };
    EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1,
                   FN + "progress callback inside a transaction\n");
    _log.rollback_transaction();
}

// SQLite has the transaction open then, but no level of the host's is.
TEST_F(rebuild_off_grid, makes_up_for_a_rollback_that_could_not_run)
{
    _request._off_grid = OFF_GRID_EXTEND;
    _request._dry_run = true;
    capture_stderr([&] {
        const deny_prepare denied("ROLLBACK");
        EXPECT_EQ(toolkit::trend::rebuild(_log, _request, _result), 0);
    });
    EXPECT_EQ(made(), "1 to 1020 extended, 1 merged, 3 recomputed");
}

// Refusals --------------------------------------------------------------------------------------

TEST_F(rebuild, refuses_what_a_host_may_get_wrong_and_changes_nothing)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 7);
    const CRebuildRequest good = _request;
    const auto refuses = [&](const std::string& why, const std::function<void()>& spoil) {
        SCOPED_TRACE(why);
        _request = good;
        _request._rows = {row(3, 3.0)};
        spoil();
        expect_refusal(why);
    };
    refuses("empty device path", [&] { _request._device._path.clear(); });
    refuses("invalid device id", [&] { _request._device._index = -1; });
    refuses("invalid time range", [&] { _request._bounds = {-2, -1}; });
    refuses("invalid time range", [&] { _request._bounds = {-1, -2}; });
    refuses("invalid time range", [&] { _request._bounds = {300, 299}; });
    refuses("empty param list", [&] { _request._params.clear(); });
    refuses("invalid param id", [&] { _request._params[0]._index = -1; });
    refuses("invalid timestamp", [&] { _request._rows[0]._time = -1; });
    refuses("row outside the bounds", [&] { _request._bounds = {181, -1}; });
    refuses("row outside the bounds", [&] { _request._bounds = {-1, 179}; });
    refuses("bad sample size", [&] { _request._rows[0]._samples.clear(); });
    refuses("invalid percent_valid", [&] { _request._rows[0]._percent_valid = NAN; });
    refuses("invalid percent_valid", [&] { _request._rows[0]._percent_valid = INFINITY; });
    refuses("row newer than the newest one", [&] { _request._rows[0]._time = 421; });
}

TEST_F(rebuild, refuses_a_log_that_is_closed_or_not_configured)
{
    _request._device = add_device("pump");
    expect_refusal("no configured periods");
    add_period(1, 100);
    expect_refusal("no configured parameters");
    _log.close();
    EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1, FN + "DB not open\n");
}

TEST_F(rebuild, fails_where_recording_does)
{
    make_log({{2, 100}, {5, 100}});
    const std::string ratios =
        "static int toolkit::trend::CLog::calc_period_ratios(const "
        "std::vector<toolkit::trend::CPeriodProperties>&, std::vector<long unsigned int>&)";
    EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1,
                   ratios + ": Error: oddball period ratio\n");
}

TEST_F(rebuild, fails_for_a_parameter_that_is_not_stored)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 5);
    const std::string before = dump();
    _request._rows = {row(3, 3.0)};
    _request._replace = true;
    _request._params[0]._index = 9;
    EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1,
                   prepare_report("table trends_1_1 has no column named param_9_avg") +
                       "Can't prepare SQL (5): 'INSERT INTO trends_1_1 (time, percent_valid, "
                       "param_9_avg) VALUES (?,?,?) ON CONFLICT (time) DO UPDATE SET "
                       "percent_valid = excluded.percent_valid, param_9_avg = "
                       "excluded.param_9_avg'\n");
    EXPECT_EQ(before, dump());
}

TEST_F(rebuild, fails_for_content_that_no_log_has_written)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 5);
    run_sql(_file, "UPDATE trends_1_1 SET param_1_avg = 'x' WHERE time = 180");
    _request._rows = {row(3, 3.0)};
    EXPECT_REPORTS(
        toolkit::trend::rebuild(_log, _request, _result), -1,
        "int toolkit::trend::CStatement::column(size_t, toolkit::trend::COptVal&) const: "
        "Column type is non-float\n");
    run_sql(_file,
            "ALTER TABLE trends_1_1 RENAME TO old; CREATE TABLE trends_1_1 (time, "
            "percent_valid, param_1_avg); INSERT INTO trends_1_1 VALUES ('late', 1.0, 1.0)");
    EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1,
                   "int toolkit::trend::CStatement::column(size_t, int64_t&, bool) const: Column "
                   "type is non-int\n");
}

TEST_F(rebuild, passes_over_rows_from_before_1970)
{
    make_log({{1, 100}, {5, 100}});
    record_minutes(1, 5);
    run_sql(_file, "UPDATE trends_1_1 SET time = -60 WHERE time = 60");
    EXPECT_EQ(made(), "1 to 300, 1 blanks, 1 recomputed");
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time > 0");
    EXPECT_EQ(made(), "-1 to -1");
}

TEST_F(rebuild, refuses_rows_out_of_order_instead_of_going_round)
{
    make_log({{1, 10000}, {5, 2000}, {10, 1000}});
    record_minutes(1, 9000);
    _log.close();
    const std::string intact = file_bytes(_file);
    // Met while the finest table is filled; while a coarser one is recomputed from one that has no
    // rows of the range; and where what lies behind the range is looked through for coarse rows off
    // the grid, with none and with some.
    struct place_t {
        std::string _table;
        std::string _change;
        time_t _last;  // of the bounds
    };
    for (const auto& [table, change, last] : std::vector<place_t>{
             {"trends_1_1", "", 200000},
             {"trends_1_5", "DELETE FROM trends_1_1 WHERE time < 530000", -1},
             {"trends_1_5", "DELETE FROM trends_1_1 WHERE time < 530000", 200000},
             {"trends_1_10", "UPDATE trends_1_10 SET time = time - 60 WHERE time > 60000",
              60000}}) {
        SCOPED_TRACE(change + " " + std::to_string(intmax_t(last)));
        std::ofstream(_file, std::ios::binary) << intact;
        run_sql(_file, change);
        disorder_rows(_file, table);
        open();
        _request._bounds = {50000, last};
        _request._off_grid = OFF_GRID_EXTEND;
        EXPECT_REPORTS(toolkit::trend::rebuild(_log, _request, _result), -1,
                       "Rows of '" + table + "' are out of order: the file is damaged\n");
        EXPECT_TRUE(at_level_0());
        _log.close();
    }
}

TEST_F(rebuild, works_up_to_the_last_second_that_can_be_stored)
{
    make_log({{1, 100}, {5, 100}});
    const auto last = std::numeric_limits<int64_t>::max();
    run_sql(_file, "INSERT INTO trends_1_1 VALUES (60, 100.0, 1.0), (" + std::to_string(last) +
                       ", 100.0, 1.0)");
    _request._bounds = {static_cast<time_t>(1) << 30, -1};
    EXPECT_QUIET(toolkit::trend::rebuild(_log, _request, _result), 0);
    // What the table keeps before it is trimmed, but for the newest interval: that is behind the
    // last boundary of five minutes.
    EXPECT_EQ(_result._blanks, 100u + 10u + 5u - 1u);
    EXPECT_EQ(_result._recomputed, 22u);
}

}  // namespace
