// Every view against what can fail under it, one place after the other: it is a failure, never a
// short answer, the nesting level is what it was, and made again the call does its work.

#include <gtest/gtest.h>

#include <sqlite3.h>

#include "allocations.h"
#include "faults.h"
#include "log_fixture.h"
#include "trend_reader.h"

using namespace toolkit::trend;

namespace {

const std::string READER = "int toolkit::trend::CReader::";
const std::string REQUEST = "const toolkit::trend::CReadRequest&";
const std::string VISITOR = "const toolkit::trend::interval_visitor_t&";

class reader_failure : public log_fixture {
protected:
    struct view_t {
        std::string _signature;
        std::function<int(CReader&)> _run;
    };

    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 100}, {5, 100}, {15, 100}});
        _device = add_device("pump", {param("power", "min max avg actual sum")});
        for (int minute = 1; minute <= 40; ++minute)
            record(_device, 60 * minute, {1.0 * (minute % 7)});
        // Coarse rows that count and such that do not, and equal extremes.
        execute(
            "DELETE FROM trends_1_1 WHERE time <= 900 OR time BETWEEN 1500 AND 1600;"
            "DELETE FROM trends_1_5 WHERE time = 1200");
        _request._device = _narrow._device = _device._device;
        _narrow._bounds = {1310, 1320};  // shorter than any row, and within coarse ones
        _visit = [this](const CDeviceParams&, const CInterval&) {
            ++_visits;
            return true;
        };
        const edges_t edges = {0, 240, 1000, 1500, 2400};
        _views = {
            {READER + "rows(" + REQUEST +
                 ", const std::vector<toolkit::trend::CPeriodProperties>&, bool, bool, " + VISITOR +
                 ")",
             [this](CReader& reader) { return reader.rows(_request, {}, true, true, _visit); }},
            {READER + "best_rows(" + REQUEST + ", " + VISITOR + ")",
             [this](CReader& reader) { return reader.best_rows(_request, _visit); }},
            {READER + "best_rows(" + REQUEST + ", " + VISITOR + ")",
             [this](CReader& reader) { return reader.best_rows(_narrow, _visit); }},
            {READER + "buckets(" + REQUEST + ", const toolkit::trend::edges_t&, " + VISITOR + ")",
             [this, edges](CReader& reader) { return reader.buckets(_request, edges, _visit); }},
            {READER + "points(" + REQUEST + ", size_t, " + VISITOR + ")",
             [this](CReader& reader) { return reader.points(_request, 8, _visit); }},
            {READER + "points(" + REQUEST + ", size_t, " + VISITOR + ")",
             [this](CReader& reader) { return reader.points(_narrow, 1, _visit); }},
            {READER + "extremes(" + REQUEST + ", std::vector<toolkit::trend::CExtremes>&)",
             [this](CReader& reader) { return reader.extremes(_request, _extremes); }},
            {READER + "extremes(" + REQUEST + ", std::vector<toolkit::trend::CExtremes>&)",
             [this](CReader& reader) { return reader.extremes(_narrow, _extremes); }},
            {READER + "coverage(" + REQUEST + ", std::vector<toolkit::trend::CCoverage>&)",
             [this](CReader& reader) { return reader.coverage(_request, _coverage); }},
            {READER + "latest(" + VISITOR + ")",
             [this](CReader& reader) { return reader.latest(_visit); }}};
    }

    void execute(const std::string& sql)
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(_file.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    // Runs a view with the n-th of something failing, for every n, and with none at last; each time
    // after `prepare`.
    template <typename Fault>
    void sweep(
        const view_t& view, const std::function<void()>& prepare = [] {})
    {
        SCOPED_TRACE(view._signature);
        for (int n = 1;; ++n) {
            ASSERT_LT(n, 10000);
            prepare();
            CReader reader(_log);
            int result = 0;
            bool struck = false;
            std::string reports;
            {
                Fault fault(n);
                reports = capture_stderr([&] { result = view._run(reader); });
                struck = fault.struck();
            }
            EXPECT_TRUE(at_level_0());
            if (!struck) {
                EXPECT_EQ(0, result);
                EXPECT_EQ("", reports);
                EXPECT_GT(n, 1);
                return;
            }
            EXPECT_EQ(-1, result) << n;
            EXPECT_NE("", reports) << n;
        }
    }

    CDeviceParams _device;
    CReadRequest _request;
    CReadRequest _narrow;
    interval_visitor_t _visit;
    size_t _visits = 0;
    std::vector<CExtremes> _extremes;
    std::vector<CCoverage> _coverage;
    std::vector<view_t> _views;
};

TEST_F(reader_failure, of_any_prepare_is_one_of_the_view)
{
    // Nothing is in the pool, not even what begins a transaction.
    open_args args;
    args._create = false;
    for (const view_t& view : _views)
        sweep<deny_prepare>(view, [&] { reopen(args); });
}

TEST_F(reader_failure, of_any_bind_is_one_of_the_view)
{
    for (const view_t& view : _views)
        if (view._signature.find("latest") == std::string::npos) sweep<refuse_bind>(view);
}

// Makes the n-th step fail, of whatever statement but BEGIN and COMMIT, by an interrupt. Not the
// one that ends a query of a single value, which is known by then.
class interrupt_any_step : public sqlite_watch {
public:
    explicit interrupt_any_step(int n) : _left(n) {}

    bool struck() const { return _left <= 0; }

    void before_step(sqlite3_stmt* stmt) override
    {
        const std::string sql = sqlite3_sql(stmt);
        if (sql == "BEGIN" || sql == "COMMIT" || sql == "ROLLBACK" || _left <= 0) return;
        for (const char* single : {"SELECT max(", "SELECT min(", "SELECT count(", "SELECT sum("})
            if (sqlite3_stmt_busy(stmt) != 0 && sql.rfind(single, 0) == 0) return;
        if (--_left > 0) return;
        sqlite3_progress_handler(
            sqlite3_db_handle(stmt), 1, [](void*) { return 1; }, nullptr);
    }
    void after_step(sqlite3_stmt* stmt, int) override
    {
        sqlite3_progress_handler(sqlite3_db_handle(stmt), 0, nullptr, nullptr);
    }

private:
    int _left;
};

TEST_F(reader_failure, of_any_step_is_one_of_the_view)
{
    for (const view_t& view : _views)
        sweep<interrupt_any_step>(view);
}

TEST_F(reader_failure, of_the_commit_is_one_of_the_view)
{
    for (const view_t& view : _views) {
        SCOPED_TRACE(view._signature);
        CReader reader(_log);
        int result = 0;
        {
            refuse_commit fault;
            static_cast<void>(capture_stderr([&] { result = view._run(reader); }));
            EXPECT_TRUE(fault.struck());
        }
        EXPECT_EQ(-1, result);
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(reader_failure, of_memory_is_told_in_one_line)
{
    const std::string begin = "int toolkit::trend::CDatabase::begin_transaction()";
    const std::string end = "int toolkit::trend::CDatabase::end_transaction()";
    for (const view_t& view : _views) {
        SCOPED_TRACE(view._signature);
        for (size_t n = 1;; ++n) {
            ASSERT_LT(n, 10000U);
            CReader reader(_log);
            int result = 0;
            bool reached = false;
            const std::string reports = capture_stderr([&] {
                allocations::fail_at fault(n);
                result = view._run(reader);
                reached = fault.reached();
            });
            EXPECT_TRUE(at_level_0());
            if (!reached) {
                EXPECT_EQ(0, result);
                EXPECT_GT(n, 1U);
                break;
            }
            EXPECT_EQ(-1, result) << n;
            const std::string out = ": Error: out of memory\n";
            if (reports != begin + out && reports != end + out) {
                EXPECT_EQ(view._signature + out, reports) << n;
            }
        }
    }
}

TEST_F(reader_failure, of_rows_out_of_order_ends_the_view)
{
    execute(
        "WITH RECURSIVE t(time) AS (SELECT 2460 UNION ALL SELECT time + 60 FROM t WHERE "
        "time < 60000) INSERT INTO trends_1_1 SELECT time, 100.0, 1.0, 2.0, 1.5, 1.5, 9.0 FROM t");
    _log.close();
    disorder_rows(_file, "trends_1_1");
    open();
    CReader reader(_log);
    const std::string report = "Rows of 'trends_1_1' are out of order: the file is damaged\n";
    EXPECT_REPORTS(reader.best_rows(_request, _visit), -1, report);
    EXPECT_REPORTS(reader.buckets(_request, {0, 30000, 60000}, _visit), -1, report);
    EXPECT_REPORTS(reader.extremes(_request, _extremes), -1, report);
    EXPECT_REPORTS(reader.coverage(_request, _coverage), -1, report);
    EXPECT_TRUE(at_level_0());
}

TEST_F(reader_failure, never_comes_of_a_long_window)
{
    // Other statements may be needed, but nothing for each of 10,000 rows.
    for (const view_t& view : _views) {
        SCOPED_TRACE(view._signature);
        CReader reader(_log);
        const auto requests = [&] {
            return allocations::in([&] { ASSERT_EQ(view._run(reader), 0); });
        };
        static_cast<void>(requests());  // fills the pool
        const size_t few = requests();
        execute(
            "WITH RECURSIVE t(time) AS (SELECT 2460 UNION ALL SELECT time + 60 FROM t WHERE "
            "time < 600000) INSERT INTO trends_1_1 SELECT time, 100.0, 1.0, 2.0, 1.5, 1.5, 9.0 "
            "FROM t");
        static_cast<void>(requests());
        EXPECT_LT(requests(), few + 100);
        execute("DELETE FROM trends_1_1 WHERE time > 2400");
    }
}

}  // namespace
