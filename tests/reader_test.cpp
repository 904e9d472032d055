#include <sqlite3.h>

#include <cmath>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "faults.h"
#include "log_fixture.h"
#include "sqlite_watch.h"
#include "trend_reader.h"

using namespace toolkit::trend;

namespace {

constexpr const char* READER = "int toolkit::trend::CReader::";
constexpr const char* REQUEST = "const toolkit::trend::CReadRequest&";
constexpr const char* VISITOR = "const toolkit::trend::interval_visitor_t&";

// Minutes and fives of one device with one parameter.
class reader_fixture : public log_fixture {
protected:
    using CReader = toolkit::trend::CReader;

    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {5, 100}});
        _device = add_device(
            "pump", {param("power", "min max avg actual sum"), pf("cosphi", "min max avg")});
        _request._device = _device._device;
    }

    void record_minutes(int from, int to)
    {
        for (int minute = from; minute <= to; ++minute)
            record(_device, 60 * minute, {1.0 * minute, 0.5});
    }

    interval_visitor_t keep()
    {
        _lines.clear();
        return [this](const CDeviceParams&, const CInterval& row) {
            _lines += line(row);
            return true;
        };
    }

    static std::string line(const CInterval& row)
    {
        const COptVal avg = row._samples[0]._avg;
        char text[120];
        std::snprintf(text, sizeof text, "(%jd, %jd] %lu x%zu %g%% %s%g\n",
                      static_cast<intmax_t>(row._start), static_cast<intmax_t>(row._time),
                      row._period, row._rows, row._percent_valid, avg ? "" : "no ",
                      avg ? *avg : 0.0);
        return text;
    }

    void execute(const std::string& sql)
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(_file.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    // Every view by name, with a request.
    using view_t = std::function<int(CReader&, const CReadRequest&, const interval_visitor_t&)>;
    struct named_view_t {
        std::string _signature;
        bool _visits;
        view_t _run;
    };
    static std::vector<named_view_t> views()
    {
        const std::string request = REQUEST, visitor = VISITOR;
        return {{std::string(READER) + "rows(" + request +
                     ", const std::vector<toolkit::trend::CPeriodProperties>&, bool, bool, " +
                     visitor + ")",
                 true,
                 [](CReader& reader, const CReadRequest& asked, const interval_visitor_t& visit) {
                     return reader.rows(asked, {}, true, false, visit);
                 }},
                {std::string(READER) + "best_rows(" + request + ", " + visitor + ")", true,
                 [](CReader& reader, const CReadRequest& asked, const interval_visitor_t& visit) {
                     return reader.best_rows(asked, visit);
                 }},
                {std::string(READER) + "buckets(" + request + ", const toolkit::trend::edges_t&, " +
                     visitor + ")",
                 true,
                 [](CReader& reader, const CReadRequest& asked, const interval_visitor_t& visit) {
                     return reader.buckets(asked, {0, 300, 900}, visit);
                 }},
                {std::string(READER) + "points(" + request + ", size_t, " + visitor + ")", true,
                 [](CReader& reader, const CReadRequest& asked, const interval_visitor_t& visit) {
                     return reader.points(asked, 10, visit);
                 }},
                {std::string(READER) + "extremes(" + request +
                     ", std::vector<toolkit::trend::CExtremes>&)",
                 false,
                 [](CReader& reader, const CReadRequest& asked, const interval_visitor_t&) {
                     std::vector<CExtremes> extremes;
                     return reader.extremes(asked, extremes);
                 }},
                {std::string(READER) + "coverage(" + request +
                     ", std::vector<toolkit::trend::CCoverage>&)",
                 false, [](CReader& reader, const CReadRequest& asked, const interval_visitor_t&) {
                     std::vector<CCoverage> coverage;
                     return reader.coverage(asked, coverage);
                 }}};
    }

    void expect_refusal(const CReadRequest& request, const std::string& why)
    {
        for (const named_view_t& view : views()) {
            CReader reader(_log);
            EXPECT_REPORTS(view._run(reader, request, keep()), -1,
                           view._signature + ": Error: " + why + "\n");
        }
        EXPECT_TRUE(at_level_0() || !_log.is_open());
    }

    CDeviceParams _device;
    CReadRequest _request;
    std::string _lines;
};

// Requests ------------------------------------------------------------------------------------

using reader_request = reader_fixture;

TEST_F(reader_request, of_a_closed_log_is_refused)
{
    _log.close();
    for (const named_view_t& view : views()) {
        CReader reader(_log);
        EXPECT_REPORTS(view._run(reader, _request, keep()), -1,
                       view._signature + ": Error: DB not open\n");
    }
    EXPECT_REPORTS(CReader(_log).latest(keep()), -1,
                   std::string(READER) + "latest(" + VISITOR + "): Error: DB not open\n");
}

TEST_F(reader_request, without_a_device_is_refused)
{
    CReadRequest request;
    expect_refusal(request, "empty device path");
    request._device._path = "pump";
    expect_refusal(request, "invalid device id");
}

TEST_F(reader_request, with_a_bound_below_minus_1_is_refused)
{
    _request._bounds = {-2, -1};
    expect_refusal(_request, "invalid time range");
    _request._bounds = {-1, -2};
    expect_refusal(_request, "invalid time range");
}

TEST_F(reader_request, with_a_parameter_that_is_not_stored_is_refused)
{
    _request._params = _device._params;
    _request._params[1]._index = -1;
    expect_refusal(_request, "invalid param id");
}

TEST_F(reader_request, of_a_device_without_parameters_is_refused)
{
    _request._device = add_device("bare");
    expect_refusal(_request, "empty parameter list");
}

TEST_F(reader_request, of_a_log_without_periods_is_refused)
{
    execute("DELETE FROM periods");
    expect_refusal(_request, "empty period list");
}

TEST_F(reader_request, without_a_visitor_is_refused)
{
    for (const named_view_t& view : views()) {
        if (!view._visits) continue;
        CReader reader(_log);
        EXPECT_REPORTS(view._run(reader, _request, nullptr), -1,
                       view._signature + ": Error: no visitor\n");
    }
    EXPECT_REPORTS(CReader(_log).latest(nullptr), -1,
                   std::string(READER) + "latest(" + VISITOR + "): Error: no visitor\n");
}

TEST_F(reader_request, names_the_parameters_that_the_samples_follow)
{
    record_minutes(1, 1);
    _request._params = {_device._params[1]};
    size_t visits = 0;
    for (const named_view_t& view : views()) {
        CReader reader(_log);
        EXPECT_EQ(view._run(reader, _request,
                            [&](const CDeviceParams& device, const CInterval& row) {
                                EXPECT_EQ("pump", device._device._path);
                                EXPECT_EQ(1U, device._params.size());
                                EXPECT_EQ(1U, row._samples.size());
                                EXPECT_EQ(0.5, *row._samples[0]._avg);
                                ++visits;
                                return true;
                            }),
                  0);
    }
    EXPECT_EQ(4U, visits);
}

TEST_F(reader_request, with_its_ends_the_wrong_way_round_finds_nothing)
{
    record_minutes(1, 10);
    _request._bounds = {300, 200};
    for (const named_view_t& view : views()) {
        CReader reader(_log);
        EXPECT_QUIET(view._run(reader, _request, keep()), 0);
        EXPECT_EQ("", _lines);
    }
}

// Visitors ------------------------------------------------------------------------------------

using reader_visitor = reader_fixture;

TEST_F(reader_visitor, ends_a_view_when_it_has_enough)
{
    record_minutes(1, 10);
    for (const named_view_t& view : views()) {
        if (!view._visits) continue;
        size_t visits = 0;
        CReader reader(_log);
        EXPECT_EQ(view._run(reader, _request,
                            [&](const CDeviceParams&, const CInterval&) {
                                ++visits;
                                return false;
                            }),
                  0);
        EXPECT_EQ(1U, visits);
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(reader_visitor, that_throws_fails_the_view)
{
    record_minutes(1, 10);
    const interval_visitor_t thrower = [](const CDeviceParams&, const CInterval&) -> bool {
        throw std::runtime_error("no");
    };
    for (const named_view_t& view : views()) {
        if (!view._visits) continue;
        CReader reader(_log);
        EXPECT_REPORTS(view._run(reader, _request, thrower), -1,
                       view._signature + ": Error: the visitor has thrown\n");
        EXPECT_TRUE(at_level_0());
    }
    EXPECT_REPORTS(
        CReader(_log).latest(thrower), -1,
        std::string(READER) + "latest(" + VISITOR + "): Error: the visitor has thrown\n");
}

TEST_F(reader_visitor, may_read_the_same_rows_in_turn)
{
    record_minutes(1, 4);
    CReader reader(_log);
    size_t visits = 0;
    EXPECT_EQ(reader.best_rows(_request,
                               [&](const CDeviceParams&, const CInterval&) {
                                   return reader.best_rows(_request, [&](const CDeviceParams&,
                                                                         const CInterval&) {
                                       ++visits;
                                       return true;
                                   }) == 0;
                               }),
              0);
    EXPECT_EQ(16U, visits);
}

TEST_F(reader_visitor, sees_what_the_hosts_open_transaction_has_written)
{
    ASSERT_EQ(_log.begin_transaction(), 0);
    record_minutes(1, 2);
    EXPECT_QUIET(CReader(_log).rows(_request, {}, true, false, keep()), 0);
    EXPECT_EQ("(0, 60] 1 x1 100% 1\n(60, 120] 1 x1 100% 2\n", _lines);
    _log.rollback_transaction();
    EXPECT_QUIET(CReader(_log).rows(_request, {}, true, false, keep()), 0);
    EXPECT_EQ("", _lines);
}

TEST_F(reader_visitor, sees_one_moment_while_another_process_writes)
{
    record_minutes(1, 3);
    for (const named_view_t& view : views()) {
        if (!view._visits) continue;
        std::string before, after;
        CReader reader(_log);
        EXPECT_QUIET(view._run(reader, _request, keep()), 0);
        before = _lines;
        bool written = false;
        EXPECT_EQ(view._run(reader, _request,
                            [&](const CDeviceParams&, const CInterval& row) {
                                after += line(row);
                                if (!written) execute("UPDATE trends_1_1 SET param_1_avg = 9.0");
                                written = true;
                                return true;
                            }),
                  0);
        EXPECT_EQ(before, after);
        execute("UPDATE trends_1_1 SET param_1_avg = time / 60.0");
    }
}

// Rows ----------------------------------------------------------------------------------------

using reader_rows = reader_fixture;

TEST_F(reader_rows, are_those_of_get_trend_data)
{
    record_minutes(1, 12);
    execute("DELETE FROM trends_1_1 WHERE time <= 300");
    for (const bool ascending : {true, false})
        for (const bool no_overlap : {true, false})
            for (const timebounds_t& bounds : {timebounds_t(-1, -1), timebounds_t(300, 480)})
                for (const std::vector<CPeriodProperties>& periods :
                     {std::vector<CPeriodProperties>(), {{1, 1}}, {{5, 7}, {1, 7}}}) {
                    CDeviceData data;
                    ASSERT_EQ(_log.get_trend_data(data, _request, periods, bounds, 0, 0, ascending,
                                                  no_overlap),
                              0);
                    std::string expected;
                    for (const CSnapshot& snapshot : data._snapshots) {
                        CInterval row;
                        static_cast<CSnapshot&>(row) = snapshot;
                        row._start = row._time - 60 * static_cast<time_t>(row._period);
                        expected += line(row);
                    }
                    _request._bounds = bounds;
                    EXPECT_QUIET(
                        CReader(_log).rows(_request, periods, ascending, no_overlap, keep()), 0);
                    EXPECT_EQ(expected, _lines);
                    EXPECT_NE("", _lines);
                }
}

TEST_F(reader_rows, of_a_period_without_length_are_refused)
{
    EXPECT_REPORTS(CReader(_log).rows(_request, {{0, 1}}, true, true, keep()), -1,
                   views()[0]._signature + ": Error: invalid period\n");
}

TEST_F(reader_rows, that_break_off_are_a_failure)
{
    record_minutes(1, 20);
    const std::string wrong =
        "int toolkit::trend::CStatement::column(size_t, "
        "toolkit::trend::COptVal&) const: Column type is non-float\n";
    execute(
        "UPDATE trends_1_1 SET param_1_avg = 'x' WHERE time = 120;"
        "UPDATE trends_1_5 SET param_1_avg = 'x' WHERE time = 300;");
    for (const named_view_t& view : views()) {
        if (!view._visits) continue;
        CReader reader(_log);
        EXPECT_REPORTS(view._run(reader, _request, keep()), -1, wrong);
        EXPECT_TRUE(at_level_0());
    }
    execute("UPDATE trends_1_1 SET param_1_avg = 'x' WHERE time = 1200");
    EXPECT_REPORTS(CReader(_log).latest(keep()), -1, wrong);
}

// Best rows -----------------------------------------------------------------------------------

using reader_best_rows = reader_fixture;

TEST_F(reader_best_rows, take_a_coarse_row_where_the_fine_ones_leave_a_part_of_it)
{
    record_minutes(1, 10);
    execute("DELETE FROM trends_1_1 WHERE time <= 420");
    EXPECT_QUIET(CReader(_log).best_rows(_request, keep()), 0);
    // The five from minute 6 to 10 has lost its first two minutes: it takes the place of the
    // others.
    EXPECT_EQ("(0, 300] 5 x1 100% 3\n(300, 600] 5 x1 100% 8\n", _lines);
}

TEST_F(reader_best_rows, are_clipped_where_finer_ones_reach_beyond_them)
{
    execute(
        "INSERT INTO trends_1_5 (time, percent_valid, param_1_avg) VALUES (330, 50.0, 7.0);"
        "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES"
        " (60, 100.0, 1.0), (120, 100.0, 2.0), (360, 100.0, 6.0);");
    EXPECT_QUIET(CReader(_log).best_rows(_request, keep()), 0);
    // The five is (30, 330]; the minute up to 120 is inside it.
    EXPECT_EQ("(0, 60] 1 x1 100% 1\n(60, 300] 5 x1 50% 7\n(300, 360] 1 x1 100% 6\n", _lines);
}

TEST_F(reader_best_rows, are_the_same_whatever_the_window)
{
    record_minutes(1, 10);
    execute("DELETE FROM trends_1_1 WHERE time <= 420");
    _request._bounds = {310, 320};
    EXPECT_QUIET(CReader(_log).best_rows(_request, keep()), 0);
    EXPECT_EQ("(300, 600] 5 x1 100% 8\n", _lines);
}

// Points --------------------------------------------------------------------------------------

using reader_points = reader_fixture;

TEST_F(reader_points, are_of_the_smallest_length_that_gives_so_many)
{
    record_minutes(1, 10);
    _request._bounds = {1, 600};
    EXPECT_QUIET(CReader(_log).points(_request, 10, keep()), 0);
    EXPECT_EQ(10, std::count(_lines.begin(), _lines.end(), '\n'));
    EXPECT_QUIET(CReader(_log).points(_request, 9, keep()), 0);
    EXPECT_EQ(
        "(0, 120] 1 x2 100% 1.5\n(120, 240] 1 x2 100% 3.5\n(240, 360] 1 x2 100% 5.5\n"
        "(360, 480] 1 x2 100% 7.5\n(480, 600] 1 x2 100% 9.5\n",
        _lines);
    EXPECT_QUIET(CReader(_log).points(_request, 1, keep()), 0);
    EXPECT_EQ("(0, 600] 5 x2 100% 5.5\n", _lines);
}

TEST_F(reader_points, count_the_bucket_of_the_moment_that_a_window_begins_with)
{
    record_minutes(1, 10);
    _request._bounds = {300, 600};  // 300 is in the bucket before
    EXPECT_QUIET(CReader(_log).points(_request, 2, keep()), 0);
    EXPECT_EQ("(0, 300] 5 x1 100% 3\n(300, 600] 5 x1 100% 8\n", _lines);
    EXPECT_QUIET(CReader(_log).points(_request, 1, keep()), 0);
    EXPECT_EQ("(0, 600] 5 x2 100% 5.5\n", _lines);
}

TEST_F(reader_points, are_none_of_a_log_without_rows)
{
    EXPECT_QUIET(CReader(_log).points(_request, 10, keep()), 0);
    EXPECT_EQ("", _lines);
}

TEST_F(reader_points, must_be_one_at_least)
{
    EXPECT_REPORTS(CReader(_log).points(_request, 0, keep()), -1,
                   views()[3]._signature + ": Error: invalid number of points\n");
}

TEST_F(reader_points, double_their_length_beyond_28_days)
{
    record(_device, 60, {1.0, 1.0});
    record(_device, 40 * 86400, {3.0, 1.0});
    _request._bounds = {1, 40 * 86400};
    EXPECT_QUIET(CReader(_log).points(_request, 1, keep()), 0);
    EXPECT_EQ(std::string("(0, 4838400] 1 x2 "), _lines.substr(0, 18));  // 56 days
}

TEST_F(reader_points, of_a_period_that_no_length_is_a_multiple_of_go_by_that_period)
{
    ASSERT_EQ(_log.remove_period({1, 100}), 0);
    ASSERT_EQ(_log.remove_period({5, 100}), 0);
    add_period(11, 100);
    record(_device, 660, {1.0, 1.0});
    record(_device, 1320, {3.0, 1.0});
    EXPECT_QUIET(CReader(_log).points(_request, 2, keep()), 0);
    EXPECT_EQ("(0, 660] 11 x1 100% 1\n(660, 1320] 11 x1 100% 3\n", _lines);
    EXPECT_QUIET(CReader(_log).points(_request, 1, keep()), 0);
    EXPECT_EQ("(0, 1320] 11 x2 100% 2\n", _lines);
}

TEST_F(reader_points, leave_room_for_a_row_that_reaches_beyond_them)
{
    // In minutes there would be two points, and one for (30, 330].
    execute(
        "INSERT INTO trends_1_5 (time, percent_valid, param_1_avg) VALUES (330, 100.0, 7.0);"
        "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES"
        " (390, 100.0, 1.0), (420, 100.0, 4.0)");
    _request._bounds = {301, 400};
    EXPECT_QUIET(CReader(_log).points(_request, 3, keep()), 0);
    EXPECT_EQ("(30, 330] 5 x1 100% 7\n(330, 390] 1 x1 100% 1\n(390, 420] 1 x1 100% 4\n", _lines);
    EXPECT_QUIET(CReader(_log).points(_request, 2, keep()), 0);
    EXPECT_EQ("(330, 600] 1 x2 33.3333% 2\n", _lines);  // 60 s of 1 and 30 s of 4, in 270 s
}

TEST_F(reader_points, leave_room_for_a_row_that_reaches_on)
{
    execute(
        "INSERT INTO trends_1_5 (time, percent_valid, param_1_avg) VALUES (510, 100.0, 7.0);"
        "INSERT INTO trends_1_1 (time, percent_valid, param_1_avg) VALUES"
        " (120, 100.0, 1.0), (180, 100.0, 4.0)");
    _request._bounds = {61, 240};
    EXPECT_QUIET(CReader(_log).points(_request, 4, keep()), 0);
    EXPECT_EQ("(60, 120] 1 x1 100% 1\n(120, 180] 1 x1 100% 4\n(210, 510] 5 x1 100% 7\n", _lines);
    // With three there is no room in minutes; the row leaves half of the second minute's bucket.
    EXPECT_QUIET(CReader(_log).points(_request, 3, keep()), 0);
    EXPECT_EQ("(0, 120] 1 x1 50% 1\n(120, 210] 1 x1 66.6667% 4\n(210, 510] 5 x1 100% 7\n", _lines);
}

TEST_F(reader_points, at_the_end_of_time_are_one_all_the_same)
{
    const int64_t end = std::numeric_limits<time_t>::max();
    execute("INSERT INTO trends_1_1 (time, percent_valid) VALUES (60, 100.0), (" +
            std::to_string(end) + ", 100.0)");
    EXPECT_QUIET(CReader(_log).points(_request, 1, keep()), 0);
    EXPECT_EQ(1, std::count(_lines.begin(), _lines.end(), '\n'));
}

// Buckets -------------------------------------------------------------------------------------

using reader_buckets = reader_fixture;

TEST_F(reader_buckets, hold_what_lies_between_their_edges)
{
    record_minutes(1, 11);
    EXPECT_QUIET(CReader(_log).buckets(_request, {60, 180, 660}, keep()), 0);
    // Minutes 2 and 3; then 4 and 5, the five from 6 to 10, and 11.
    EXPECT_EQ("(60, 180] 1 x2 100% 2.5\n(180, 660] 5 x4 100% 7.5\n", _lines);
}

TEST_F(reader_buckets, count_time_without_rows_as_not_valid)
{
    record(_device, 60, {1.0, 0.5}, 50.0);
    EXPECT_QUIET(CReader(_log).buckets(_request, {0, 120}, keep()), 0);
    EXPECT_EQ("(0, 120] 1 x1 25% 1\n", _lines);
}

TEST_F(reader_buckets, give_way_to_a_row_that_is_longer)
{
    record_minutes(1, 6);
    execute("DELETE FROM trends_1_1 WHERE time <= 300");
    EXPECT_QUIET(CReader(_log).buckets(_request, {0, 120, 240, 360}, keep()), 0);
    EXPECT_EQ("(0, 300] 5 x1 100% 3\n(300, 360] 1 x1 100% 6\n", _lines);
}

TEST_F(reader_buckets, have_of_a_row_across_an_edge_the_greater_part)
{
    record_minutes(1, 10);
    execute("DELETE FROM trends_1_1");
    EXPECT_QUIET(CReader(_log).buckets(_request, {0, 420, 1000}, keep()), 0);
    // The second five is (300, 600]: three of its minutes lie beyond the edge.
    EXPECT_EQ("(0, 300] 5 x1 100% 3\n(300, 1000] 5 x1 42.8571% 8\n", _lines);
}

TEST_F(reader_buckets, fold_values_as_the_roll_up_does)
{
    execute(
        "INSERT INTO trends_1_1 VALUES"
        " (60, 100.0, 1.0, 2.0, 10.0, 5.0, 1.0, 0.9, 0.9, 0.9),"
        " (120, 50.0, -1.0, NULL, 20.0, NULL, 2.0, -0.9, -0.9, -0.9),"
        " (180, 0.0, NULL, 4.0, 99.0, 6.0, NULL, 1.7, -0.25, NULL)");
    CInterval point;
    EXPECT_EQ(CReader(_log).buckets(_request, {0, 180},
                                    [&](const CDeviceParams&, const CInterval& row) {
                                        point = row;
                                        return true;
                                    }),
              0);
    EXPECT_EQ(3U, point._rows);
    EXPECT_EQ(50.0, point._percent_valid);
    EXPECT_EQ(-1.0, *point._samples[0]._min);
    EXPECT_EQ(4.0, *point._samples[0]._max);
    EXPECT_EQ(2000.0 / 150.0, *point._samples[0]._avg);  // 99 weighs nothing
    EXPECT_EQ(6.0, *point._samples[0]._actual);
    EXPECT_EQ(3.0, *point._samples[0]._sum);
    // On their scale 0.9, 1.1 and 1; 0.9, 1.1 and 1.75; (90 + 55) / 150.
    EXPECT_DOUBLE_EQ(0.9, *point._samples[1]._min);
    EXPECT_DOUBLE_EQ(-0.25, *point._samples[1]._max);
    EXPECT_DOUBLE_EQ((90.0 + 55.0) / 150.0, *point._samples[1]._avg);
}

TEST_F(reader_buckets, of_a_single_row_have_its_values_to_the_last_bit)
{
    execute(
        "INSERT INTO trends_1_1 VALUES"
        " (60, 33.3, 0.1, 0.2, 0.3, 0.7, 0.9, 1.7, -1.0, 0.1)");
    CInterval point;
    EXPECT_EQ(CReader(_log).buckets(_request, {0, 60},
                                    [&](const CDeviceParams&, const CInterval& row) {
                                        point = row;
                                        return true;
                                    }),
              0);
    EXPECT_EQ(33.3, point._percent_valid);
    EXPECT_EQ(0.3, *point._samples[0]._avg);
    EXPECT_EQ(1.7, *point._samples[1]._min);
    EXPECT_EQ(-1.0, *point._samples[1]._max);
}

TEST_F(reader_buckets, need_ascending_edges)
{
    for (const edges_t& edges :
         {edges_t(), edges_t{0}, edges_t{0, 60, 60}, edges_t{60, 0}, edges_t{-1, 60}})
        EXPECT_REPORTS(CReader(_log).buckets(_request, edges, keep()), -1,
                       views()[2]._signature + ": Error: invalid edges\n");
}

TEST_F(reader_buckets, outside_the_window_are_not_read)
{
    record_minutes(1, 10);
    _request._bounds = {121, 240};
    EXPECT_QUIET(CReader(_log).buckets(_request, {0, 120, 240, 360}, keep()), 0);
    EXPECT_EQ("(120, 240] 1 x2 100% 3.5\n", _lines);
    _request._bounds = {7000, 8000};
    EXPECT_QUIET(CReader(_log).buckets(_request, {0, 120, 240, 360}, keep()), 0);
    EXPECT_EQ("", _lines);
}

// Extremes ------------------------------------------------------------------------------------

class reader_extremes : public reader_fixture {
protected:
    std::string extremes()
    {
        std::vector<CExtremes> found;
        EXPECT_QUIET(CReader(_log).extremes(_request, found), 0);
        std::string text;
        for (const CExtremes& of : found)
            for (const CExtreme& extreme : {of._min, of._max}) {
                char line[120];
                std::snprintf(line, sizeof line, "%g (%jd, %jd] %lu\n",
                              extreme._value ? *extreme._value : NAN,
                              static_cast<intmax_t>(extreme._start),
                              static_cast<intmax_t>(extreme._time), extreme._period);
                text += line;
            }
        return text;
    }
};

TEST_F(reader_extremes, are_in_the_finest_row_that_holds_them)
{
    record_minutes(1, 10);
    _request._params = {_device._params[0]};
    EXPECT_EQ("1 (0, 60] 1\n10 (540, 600] 1\n", extremes());
    execute("DELETE FROM trends_1_1 WHERE time <= 300");
    EXPECT_EQ("1 (0, 300] 5\n10 (540, 600] 1\n", extremes());
}

TEST_F(reader_extremes, are_those_of_the_window)
{
    record_minutes(1, 10);
    _request._params = {_device._params[0]};
    _request._bounds = {121, 480};
    EXPECT_EQ("3 (120, 180] 1\n8 (420, 480] 1\n", extremes());
}

TEST_F(reader_extremes, of_power_factors_are_on_their_scale)
{
    for (const double cosphi : {0.9, -0.8, -0.95})
        record(_device, 60 * static_cast<time_t>(1 + (cosphi < 0) + (cosphi < -0.9)),
               {1.0, cosphi});
    _request._params = {_device._params[1]};
    EXPECT_EQ("0.9 (0, 60] 1\n-0.8 (60, 120] 1\n", extremes());
}

TEST_F(reader_extremes, that_come_again_are_told_where_more_is_stored)
{
    for (int minute = 1; minute <= 10; ++minute)
        record(_device, 60 * minute, {minute % 5 == 2 ? 0.0 : 1.0, 0.5});
    _request._params = {_device._params[0]};
    EXPECT_EQ("0 (60, 120] 1\n1 (0, 60] 1\n", extremes());
    execute("DELETE FROM trends_1_1 WHERE time <= 300");
    EXPECT_EQ("0 (360, 420] 1\n1 (300, 360] 1\n", extremes());
    execute("DELETE FROM trends_1_1");
    EXPECT_EQ("0 (0, 300] 5\n1 (0, 300] 5\n", extremes());
}

TEST_F(reader_extremes, that_no_log_writes_are_a_failure)
{
    const std::string wrong =
        "int toolkit::trend::CStatement::column(size_t, "
        "toolkit::trend::COptVal&) const: Column type is non-float\n";
    record_minutes(1, 10);
    std::vector<CExtremes> found;
    execute("UPDATE trends_1_1 SET param_1_min = 'x' WHERE time = 60");  // of the smallest five
    EXPECT_REPORTS(CReader(_log).extremes(_request, found), -1, wrong);
    execute("UPDATE trends_1_5 SET param_1_min = 'x'");
    EXPECT_REPORTS(CReader(_log).extremes(_request, found), -1, wrong);
    EXPECT_TRUE(at_level_0());
}

TEST_F(reader_extremes, are_absent_where_there_is_no_value)
{
    const CDeviceParams device = add_device("other", {param("flow", "avg"), param("t", "min max")});
    record(device, 60, {NAN, NAN});
    _request._device = device._device;
    EXPECT_EQ("nan (0, 0] 0\nnan (0, 0] 0\nnan (0, 0] 0\nnan (0, 0] 0\n", extremes());
}

// Coverage ------------------------------------------------------------------------------------

class reader_coverage : public reader_fixture {
protected:
    std::string coverage()
    {
        std::vector<CCoverage> found;
        EXPECT_QUIET(CReader(_log).coverage(_request, found), 0);
        std::string text;
        for (const CCoverage& table : found) {
            char line[160];
            std::snprintf(
                line, sizeof line, "%lu: %jd rows, %jd blank, %jd holes, %jd %jd %jd %g%%\n",
                table._period._period, static_cast<intmax_t>(table._rows),
                static_cast<intmax_t>(table._blank_rows), static_cast<intmax_t>(table._holes),
                static_cast<intmax_t>(table._start), static_cast<intmax_t>(table._first),
                static_cast<intmax_t>(table._last), table._percent_valid);
            text += line;
        }
        return text;
    }
};

TEST_F(reader_coverage, counts_rows_blanks_and_holes)
{
    record_minutes(1, 3);
    record(_device, 360, {1.0, 1.0}, 50.0);
    ASSERT_EQ(_log.fill_blank_values(_device._device, 480, false), 0);
    // Minutes 1 to 3 and 6 to 8; 350 of 800 percent. The five is made of 1, 2, 3, 6 and 7.
    EXPECT_EQ(
        "1: 6 rows, 2 blank, 1 holes, 0 60 480 43.75%\n"
        "5: 1 rows, 0 blank, 0 holes, 120 420 420 70%\n",
        coverage());
    _request._bounds = {120, 180};
    EXPECT_EQ(
        "1: 2 rows, 0 blank, 0 holes, 60 120 180 100%\n"
        "5: 0 rows, 0 blank, 0 holes, -1 -1 -1 0%\n",
        coverage());
}

TEST_F(reader_coverage, tells_how_large_a_table_is)
{
    record_minutes(1, 10);
    std::vector<CCoverage> found;
    EXPECT_QUIET(CReader(_log).coverage(_request, found), 0);
    EXPECT_EQ(4096, found[0]._bytes);
}

TEST_F(reader_coverage, of_content_that_no_log_writes_is_a_failure)
{
    const std::string column = "int toolkit::trend::CStatement::column(size_t, ";
    record_minutes(1, 2);
    std::vector<CCoverage> found;
    execute("UPDATE trends_1_1 SET percent_valid = 'x' WHERE time = 60");
    const std::string wrong_share = column + "double&, bool) const: Column type is non-float\n";
    EXPECT_REPORTS(CReader(_log).coverage(_request, found), -1, wrong_share);
    EXPECT_REPORTS(CReader(_log).best_rows(_request, keep()), -1, wrong_share);
    execute(
        "CREATE TABLE other AS SELECT * FROM trends_1_1; UPDATE other SET time = 60.5 WHERE time "
        "= 60; DROP TABLE trends_1_1; ALTER TABLE other RENAME TO trends_1_1");
    const std::string wrong_time = column + "int64_t&, bool) const: Column type is non-int\n";
    EXPECT_REPORTS(CReader(_log).coverage(_request, found), -1, wrong_time);
    EXPECT_REPORTS(CReader(_log).best_rows(_request, keep()), -1, wrong_time);
    EXPECT_TRUE(at_level_0());
}

TEST_F(reader_coverage, judges_by_the_parameters_that_are_asked_for)
{
    record(_device, 60, {NAN, 1.0});
    EXPECT_EQ("1: 1 rows, 0 blank", coverage().substr(0, 18));
    _request._params = {_device._params[0]};
    EXPECT_EQ("1: 1 rows, 1 blank", coverage().substr(0, 18));
}

// Latest --------------------------------------------------------------------------------------

using reader_latest = reader_fixture;

TEST_F(reader_latest, gives_the_newest_row_of_every_device)
{
    const CDeviceParams second = add_device("fan", {param("speed", "avg")});
    add_device("bare");
    add_device("silent", {param("speed", "avg")});
    record_minutes(1, 6);
    record(second, 120, {8.0});
    std::string paths;
    EXPECT_EQ(CReader(_log).latest([&](const CDeviceParams& device, const CInterval& row) {
        paths += device._device._path + " " + line(row);
        return true;
    }),
              0);
    EXPECT_EQ("pump (300, 360] 1 x1 100% 6\nfan (60, 120] 1 x1 100% 8\n", paths);
}

TEST_F(reader_latest, takes_a_coarse_row_where_it_is_newer)
{
    record_minutes(1, 10);
    execute("DELETE FROM trends_1_1 WHERE time > 540");
    EXPECT_QUIET(CReader(_log).latest(keep()), 0);
    EXPECT_EQ("(300, 600] 5 x1 100% 8\n", _lines);
}

TEST_F(reader_latest, gives_a_row_what_the_one_before_leaves)
{
    record(_device, 60, {1.0, 0.5});
    record(_device, 90, {2.0, 0.5});
    EXPECT_QUIET(CReader(_log).latest(keep()), 0);
    EXPECT_EQ("(60, 90] 1 x1 100% 2\n", _lines);
}

TEST_F(reader_latest, ends_when_the_visitor_has_enough)
{
    add_device("fan", {param("speed", "avg")});
    record_minutes(1, 1);
    size_t visits = 0;
    EXPECT_EQ(CReader(_log).latest([&](const CDeviceParams&, const CInterval&) {
        ++visits;
        return false;
    }),
              0);
    EXPECT_EQ(1U, visits);
}

}  // namespace
