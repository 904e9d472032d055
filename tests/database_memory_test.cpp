// Connection and statement against memory that runs out at each of their allocations in turn: no
// exception leaves them, one line says so under the operation's own name, and made again the call
// does its work. Beginning and ending a transaction is in database_transaction_test.cpp.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "allocations.h"
#include "database.h"
#include "database_fixture.h"

namespace toolkit::trend {
namespace {

using testing::AnyOf;

const std::string OPEN =
    "int toolkit::trend::CDatabase::open(const tk_string&, size_t, bool, bool, bool, size_t, "
    "size_t, size_t, bool)";
const std::string STMT =
    "toolkit::trend::stmt_ptr_t toolkit::trend::CDatabase::stmt(const tk_string&, bool)";
const std::string EXEC = "int toolkit::trend::CDatabase::exec(const tk_string&, bool, bool)";
const std::string GET_INTVAL =
    "int toolkit::trend::CDatabase::get_intval(const tk_string&, int64_t&, bool, bool)";
const std::string UPDATE_CACHE_SIZE = "int toolkit::trend::CDatabase::update_cache_size(size_t)";
const std::string BEGIN = "int toolkit::trend::CDatabase::begin_transaction()";
const std::string END = "int toolkit::trend::CDatabase::end_transaction()";
const std::string COLUMN_TEXT =
    "int toolkit::trend::CStatement::column(size_t, tk_string&, bool) const";
const std::string OUT_OF_MEMORY = ": Error: out of memory\n";

// Made before memory runs out.
const tk_string INSERT = "INSERT INTO t VALUES(1) -- in a text that has no room in itself";
const tk_string COUNT = "SELECT count(*) FROM t -- in a text that has no room in itself";

class short_of_memory : public database_fixture {
protected:
    void start_anew()
    {
        ASSERT_EQ(open(), 0);  // with an empty pool
        raw("DROP TABLE IF EXISTS t; CREATE TABLE t(a)");
    }

    // `call` gives 0 when it has done its work, else -1, and lets `reporter` or one of its steps,
    // which begin and end transactions, say why.
    void expect_reports(const std::string& reporter, const std::function<int()>& call)
    {
        bool by_itself = false;
        bool reached = true;
        size_t n = 1;
        for (; reached; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            start_anew();
            int result = 0;
            const std::string said = capture_stderr([&] {
                const allocations::fail_at fault(n);
                result = call();
                reached = fault.reached();
            });
            EXPECT_EQ(result, reached ? -1 : 0);
            if (!reached) {
                EXPECT_EQ(said, "");
            } else {
                EXPECT_THAT(said, AnyOf(reporter + OUT_OF_MEMORY, BEGIN + OUT_OF_MEMORY,
                                        END + OUT_OF_MEMORY));
                by_itself |= said == reporter + OUT_OF_MEMORY;
                EXPECT_EQ(rows("SELECT count(*) FROM t"), "0");
                EXPECT_QUIET(call(), 0);
            }
            EXPECT_FALSE(in_transaction());
            if (HasFailure()) return;
        }
        EXPECT_TRUE(by_itself);
        EXPECT_GT(n, 2U);
    }
};

TEST_F(short_of_memory, open_says_so)
{
    open_args args;
    args._cache_bytes = 1048576;
    expect_reports(OPEN, [&] { return open(args); });
}

TEST_F(short_of_memory, stmt_says_so_and_gives_none)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED})
        expect_reports(STMT, [&] { return _db.stmt(COUNT, fresh) ? 0 : -1; });
}

TEST_F(short_of_memory, exec_says_so_and_changes_nothing)
{
    for (const bool fresh : {STMT_FRESH, STMT_POOLED})
        expect_reports(EXEC, [&] { return _db.exec(INSERT, fresh, ROW_NONE); });
}

TEST_F(short_of_memory, get_intval_says_so)
{
    int64_t out = 0;
    for (const bool fresh : {STMT_FRESH, STMT_POOLED})
        expect_reports(GET_INTVAL, [&] { return _db.get_intval(COUNT, out, fresh, NULL_NOT_OK); });
}

TEST_F(short_of_memory, update_cache_size_says_so)
{
    expect_reports(UPDATE_CACHE_SIZE, [&] { return _db.update_cache_size(1048576); });
}

TEST_F(short_of_memory, text_of_a_column_says_so_and_leaves_what_was_there)
{
    raw("CREATE TABLE texts AS SELECT 'a text that has no room in itself, nor in the one before'");
    CStatement stmt("SELECT * FROM texts", _db);
    ASSERT_EQ(stmt.step(), 1);
    tk_string out = "before";
    const auto read = [&] {
        const allocations::fail_at fault(1);
        return stmt.column(0, out, NULL_NOT_OK);
    };
    EXPECT_REPORTS(read(), -1, COLUMN_TEXT + OUT_OF_MEMORY);
    EXPECT_EQ(out, "before");

    EXPECT_QUIET(stmt.column(0, out, NULL_NOT_OK), 0);
    EXPECT_EQ(out, "a text that has no room in itself, nor in the one before");
}

}  // namespace
}  // namespace toolkit::trend
