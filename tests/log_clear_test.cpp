// Deleting rows of a time range.

#include "count_changes.h"
#include "faults.h"
#include "log_fixture.h"
#include "sql_reports.h"
#include "trace.h"
#include "widths.h"

namespace {

const std::string CLEAR_TREND_DATA =
    "int toolkit::trend::CLog::clear_trend_data(const toolkit::trend::CDeviceProperties&, const "
    "timebounds_t&)";
const std::string GET_LATEST_TIMESTAMP =
    "int toolkit::trend::CLog::get_latest_timestamp(const toolkit::trend::CDeviceProperties&, "
    "time_t&)";

const std::string PERIODS = "SELECT * FROM periods";
const std::string NEWEST_1_1 = "SELECT max(time) FROM trends_1_1";

// Two devices with rows at minutes 1 to 6 and every second one of them in the coarser table.
class clear_trend_data : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {2, 100}});
        ASSERT_EQ(_log.begin_transaction(), 0);
        for (const char* path : {"pump", "fan"}) {
            const CDeviceParams device = add_device(path, {param("u", "avg")});
            for (time_t time = 60; time <= 360; time += 60)
                record(device, time, {1.0});
            _pump = path == std::string("pump") ? device : _pump;
        }
        ASSERT_EQ(_log.end_transaction(), 0);
    }

    int clear(time_t first, time_t second)
    {
        return _log.clear_trend_data(_pump._device, {first, second});
    }

    std::string left()
    {
        return rows("SELECT group_concat(time, ' ') FROM trends_1_1") + " / " +
               rows("SELECT group_concat(time, ' ') FROM trends_1_2");
    }

    void expect_nothing_deleted(const std::string& before)
    {
        EXPECT_EQ(dump(), before);
        EXPECT_TRUE(at_level_0());
    }

    CDeviceParams _pump;
};

// Which rows go -----------------------------------------------------------------------------------

TEST_F(clear_trend_data, deletes_between_both_bounds_from_every_period)
{
    EXPECT_QUIET(clear(120, 240), 1);
    EXPECT_EQ(left(), "60 300 360 / 360");
}

TEST_F(clear_trend_data, bounds_between_the_rows_delete_what_lies_within)
{
    EXPECT_QUIET(clear(61, 299), 1);
    EXPECT_EQ(left(), "60 300 360 / 360");
}

TEST_F(clear_trend_data, minus_1_leaves_a_side_open)
{
    EXPECT_QUIET(clear(-1, 120), 1);
    EXPECT_EQ(left(), "180 240 300 360 / 240 360");
    EXPECT_QUIET(clear(300, -1), 1);
    EXPECT_EQ(left(), "180 240 / 240");
}

TEST_F(clear_trend_data, open_on_both_sides_deletes_every_row_of_the_device)
{
    EXPECT_QUIET(clear(-1, -1), 0);
    EXPECT_EQ(left(), "NULL / NULL");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_2_1"), "6");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_2_2"), "3");
}

TEST_F(clear_trend_data, bounds_that_cross_delete_nothing)
{
    const std::string before = dump();
    EXPECT_QUIET(clear(240, 120), 1);
    EXPECT_EQ(dump(), before);
}

TEST_F(clear_trend_data, bound_of_0_is_a_time)
{
    record(_pump, 0, {1.0});
    EXPECT_QUIET(clear(0, 0), 1);
    EXPECT_EQ(left(), "60 120 180 240 300 360 / 120 240 360");
    EXPECT_QUIET(clear(0, -1), 0);
    EXPECT_EQ(left(), "NULL / NULL");
}

TEST_F(clear_trend_data, leaves_the_configuration_alone)
{
    const std::string configuration =
        "SELECT * FROM periods UNION ALL SELECT idx, path FROM "
        "devices UNION ALL SELECT idx, path FROM params_1";
    const std::string before = rows(configuration);
    EXPECT_QUIET(clear(-1, -1), 0);
    EXPECT_EQ(rows(configuration), before);
    record(_pump, 60, {2.0});
    record(_pump, 120, {4.0});
    EXPECT_EQ(rows("SELECT * FROM trends_1_2"), "120|100.0|3.0");
}

TEST_F(clear_trend_data, recording_goes_on_after_newer_rows_were_cleared)
{
    EXPECT_QUIET(clear(200, -1), 1);
    record(_pump, 240, {7.0});
    EXPECT_EQ(rows("SELECT * FROM trends_1_2 WHERE time > 120"), "240|100.0|4.0");
}

// What it tells -----------------------------------------------------------------------------------

TEST_F(clear_trend_data, tells_1_while_the_finest_period_holds_a_row)
{
    EXPECT_QUIET(clear(-1, 300), 1);
    EXPECT_EQ(left(), "360 / 360");
}

TEST_F(clear_trend_data, tells_0_when_only_coarser_periods_hold_rows)
{
    run_sql(_file, "DELETE FROM trends_1_1 WHERE time < 300");
    EXPECT_QUIET(clear(300, 360), 0);
    EXPECT_EQ(left(), "NULL / 120 240");
}

TEST_F(clear_trend_data, tells_0_for_a_device_that_had_no_rows)
{
    EXPECT_QUIET(_log.clear_trend_data(add_device("idle"), {-1, -1}), 0);
}

TEST_F(clear_trend_data, row_at_time_0_counts_as_one)
{
    record(_pump, 0, {1.0});
    EXPECT_QUIET(clear(60, -1), 1);
}

// Which statements run
// ------------------------------------------------------------------------------

TEST_F(clear_trend_data, bounds_stand_in_the_text_as_numbers)
{
    struct example_t {
        timebounds_t bounds;
        std::string filter;
    };
    for (const example_t& example :
         {example_t{{1000, 2000}, " WHERE time >= 1000 AND time <= 2000"},
          example_t{{-1, 2000}, " WHERE time <= 2000"},
          example_t{{1000, -1}, " WHERE time >= 1000"}, example_t{{-1, -1}, ""},
          example_t{{0, 0}, " WHERE time >= 0 AND time <= 0"}}) {
        ASSERT_EQ(_log.begin_transaction(), 0);
        statement_trace trace;
        EXPECT_GE(clear(example.bounds.first, example.bounds.second), 0);
        EXPECT_EQ(trace.texts(),
                  (texts_t{PERIODS, "DELETE FROM trends_1_1" + example.filter,
                           "DELETE FROM trends_1_2" + example.filter, PERIODS, NEWEST_1_1}));
        _log.rollback_transaction();
    }
}

TEST_F(clear_trend_data, text_names_device_and_period)
{
    add_device("third");
    ASSERT_EQ(_log.remove_period({1, 100}), 0);
    ASSERT_EQ(_log.remove_period({2, 100}), 0);
    add_period(15, 100);
    const CDeviceProperties fourth = add_device("fourth");
    statement_trace trace;
    EXPECT_EQ(_log.clear_trend_data(fourth, {1000, 2000}), 0);
    EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", PERIODS,
                                      "DELETE FROM trends_4_15 WHERE time >= 1000 AND time <= 2000",
                                      PERIODS, "SELECT max(time) FROM trends_4_15", "COMMIT"}));
}

#if TREND_WIDE_TIMES
TEST_F(clear_trend_data, times_beyond_32_bits_are_written_whole)
{
    statement_trace trace;
    EXPECT_EQ(
        clear(static_cast<time_t>(int64_t{5000000000}), static_cast<time_t>(int64_t{6000000000})),
        1);
    EXPECT_EQ(trace.texts().at(2),
              "DELETE FROM trends_1_1 WHERE time >= 5000000000 AND time <= 6000000000");
}
#endif

TEST_F(clear_trend_data, deletions_never_enter_the_pool)
{
    clear(1000, 2000);
    statement_trace trace;
    clear(1000, 2000);
    EXPECT_EQ(trace.prepared(),
              (texts_t{"DELETE FROM trends_1_1 WHERE time >= 1000 AND time <= 2000",
                       "DELETE FROM trends_1_2 WHERE time >= 1000 AND time <= 2000"}));
}

// Within a host's own transaction
// -------------------------------------------------------------------

TEST_F(clear_trend_data, belongs_to_the_transaction_of_the_host)
{
    const std::string before = dump();
    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(clear(-1, -1), 0);
    EXPECT_EQ(dump(), before);
    _log.rollback_transaction();
    expect_nothing_deleted(before);

    ASSERT_EQ(_log.begin_transaction(), 0);
    EXPECT_QUIET(clear(-1, -1), 0);
    record(_pump, 420, {1.0});
    EXPECT_QUIET(clear(480, -1), 1);
    ASSERT_EQ(_log.end_transaction(), 0);
    EXPECT_EQ(left(), "420 / NULL");
}

// Failures
// ------------------------------------------------------------------------------------------

TEST_F(clear_trend_data, checks_its_arguments_in_order_before_it_touches_the_file)
{
    CDeviceProperties device;
    timebounds_t bounds = {-2, -2};
    const auto refused = [&](const std::string& why) {
        statement_trace trace;
        EXPECT_REPORTS(_log.clear_trend_data(device, bounds), -1,
                       CLEAR_TREND_DATA + ": Error: " + why + "\n");
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
    refused("bad time bounds");
    bounds = {5, -2};
    refused("bad time bounds");
    bounds = {-2, 5};
    refused("bad time bounds");
    EXPECT_EQ(rows("SELECT count(*) FROM trends_1_1"), "6");
}

TEST_F(clear_trend_data, log_without_periods_has_no_finest_one)
{
    ASSERT_EQ(_log.remove_period({1, 100}), 0);
    ASSERT_EQ(_log.remove_period({2, 100}), 0);
    EXPECT_REPORTS(clear(-1, -1), -1, GET_LATEST_TIMESTAMP + ": Error: no configured periods\n");
    EXPECT_TRUE(at_level_0());
}

TEST_F(clear_trend_data, table_that_is_not_there_takes_everything_back)
{
    run_sql(_file, "DROP TABLE trends_1_2");
    const std::string before = dump();
    EXPECT_REPORTS(clear(-1, -1), -1, prepare_report("no such table: trends_1_2"));
    expect_nothing_deleted(before);
}

TEST_F(clear_trend_data, deletion_that_fails_takes_everything_back)
{
    run_sql(_file,
            "CREATE TRIGGER kept BEFORE DELETE ON trends_1_2 BEGIN SELECT RAISE(ABORT, 'kept'); "
            "END");
    const std::string before = dump();
    EXPECT_REPORTS(clear(-1, -1), -1, step_and_reset_report(1811, "kept"));
    expect_nothing_deleted(before);
}

TEST_F(clear_trend_data, fails_rather_than_follow_a_list_that_was_cut_short)
{
    reopen();
    const std::string before = dump();
    for (int at_row = 1; at_row <= 3; ++at_row) {
        SCOPED_TRACE(at_row);
        interrupt_step fault(PERIODS, at_row);
        EXPECT_REPORTS(clear(-1, -1), -1, step_and_reset_report(9, "interrupted"));
        expect_nothing_deleted(before);
    }
}

TEST_F(clear_trend_data, unread_newest_time_does_not_tell_that_nothing_is_left)
{
    const std::string before = dump();
    interrupt_step fault(NEWEST_1_1);
    capture_stderr([&] { EXPECT_EQ(clear(-1, 100), -1); });
    expect_nothing_deleted(before);
}

TEST_F(clear_trend_data, passes_on_a_refused_commit)
{
    const std::string before = dump();
    {
        refuse_commit refusal;
        EXPECT_REPORTS(clear(-1, -1), -1, step_and_reset_report(531, "constraint failed"));
    }
    expect_nothing_deleted(before);
}

TEST_F(clear_trend_data, positive_code_is_not_rolled_back_and_its_open_level_is_stopped)
{
    count_changes fault;
    EXPECT_STOPS(clear(-1, -1), "_level==_db->_nest_lvl");
}

TEST_F(clear_trend_data, newest_time_that_is_no_number_is_such_a_code)
{
    run_sql(_file,
            "DROP TABLE trends_1_1;"
            "CREATE VIEW trends_1_1 AS SELECT 'noon' AS time;"
            "CREATE TRIGGER cleared INSTEAD OF DELETE ON trends_1_1 BEGIN SELECT 1; END");
    EXPECT_STOPS(clear(-1, -1), "_level==_db->_nest_lvl");
}

}  // namespace
