// That the comparison with the model is a real one: what would be wrong is seen, and cut down.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "file_content.h"
#include "generator.h"
#include "operations.h"
#include "session.h"
#include "shrink.h"

namespace {

using model::kind_t;
using model::operation_t;
using model::operations_t;

operation_t call(kind_t kind)
{
    operation_t op;
    op.kind = kind;
    op.name = "log.db";
    op.capacity = 5;
    op.device = {"pump", "", 1};
    op.params = {{"flow", model::VALUE, {false, false, true, false, false}, 1}};
    op.samples = {{model::ABSENT, model::ABSENT, 2.5, model::ABSENT, model::ABSENT}};
    op.period = {1, 10};
    op.time = 60;
    return op;
}

// A session whose log holds one row.
class comparison : public testing::Test {
protected:
    comparison()
    {
        for (const kind_t kind : {kind_t::OPEN, kind_t::ADD_PERIOD, kind_t::ADD_DEVICE,
                                  kind_t::ADD_PARAMS, kind_t::RECORD})
            EXPECT_EQ("", _session.step(call(kind)));
    }

    // Changes the file behind the library's back.
    static void tamper(const char* sql)
    {
        sqlite3* handle = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open("log.db", &handle));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(handle, sql, nullptr, nullptr, nullptr));
        sqlite3_close(handle);
    }

    std::string difference_after(const char* sql)
    {
        tamper(sql);
        return _session.difference();
    }

    model::session_t _session{false};
};

TEST_F(comparison, sees_a_value_that_is_off_by_one_bit)
{
    EXPECT_NE("", difference_after("UPDATE trends_1_1 SET param_1_avg = 2.5000000000000004"));
}

TEST_F(comparison, sees_an_absent_value)
{
    EXPECT_NE("", difference_after("UPDATE trends_1_1 SET param_1_avg = NULL"));
}

TEST_F(comparison, sees_another_percentage)
{
    EXPECT_NE("", difference_after("UPDATE trends_1_1 SET percent_valid = 99"));
}

TEST_F(comparison, sees_a_row_too_many_and_a_row_too_few)
{
    EXPECT_NE("", difference_after("INSERT INTO trends_1_1 VALUES (120, 100, 1)"));
    EXPECT_NE("", difference_after("DELETE FROM trends_1_1"));
}

TEST_F(comparison, sees_a_row_at_another_time)
{
    EXPECT_NE("", difference_after("UPDATE trends_1_1 SET time = 61"));
}

TEST_F(comparison, sees_a_column_of_another_name)
{
    EXPECT_NE("", difference_after("ALTER TABLE trends_1_1 RENAME param_1_avg TO param_1_sum"));
}

TEST_F(comparison, sees_changed_configuration)
{
    EXPECT_NE("", difference_after("UPDATE params_1 SET has_sum = 1"));
    tamper("UPDATE params_1 SET has_sum = 0");
    EXPECT_EQ("", _session.difference());

    EXPECT_NE("", difference_after("UPDATE periods SET max_entries = 11"));
    tamper("UPDATE periods SET max_entries = 10");
    EXPECT_EQ("", _session.difference());

    EXPECT_NE("", difference_after("UPDATE devices SET guid = ''"));
    tamper("UPDATE devices SET guid = NULL");
    EXPECT_EQ("", _session.difference());

    EXPECT_NE("", difference_after("CREATE TABLE tmp_table (idx)"));
    tamper("DROP TABLE tmp_table");
    EXPECT_EQ("", _session.difference());

    EXPECT_NE("", difference_after("PRAGMA user_version = 1"));
}

TEST_F(comparison, sees_what_only_a_transaction_has_so_far)
{
    EXPECT_EQ("", _session.step(call(kind_t::BEGIN)));
    operation_t later = call(kind_t::RECORD);
    later.time = 120;
    EXPECT_EQ("", _session.step(later));
    EXPECT_EQ("", _session.difference());

    model::file_content_t committed;
    committed.open("log.db");
    EXPECT_NE("", committed.difference(_session.model().state(), std::nullopt));
}

TEST_F(comparison, sees_another_result_and_another_report)
{
    tamper("DELETE FROM trends_1_1");

    // The model refuses the row that the file no longer has.
    EXPECT_NE(std::string::npos,
              _session.step(call(kind_t::RECORD)).find("result: the log says 0, not -1"));
}

TEST_F(comparison, sees_rows_read_that_should_be_others)
{
    tamper("UPDATE trends_1_1 SET param_1_avg = 7");
    operation_t read = call(kind_t::READ);
    read.periods = {{1, 10}};
    EXPECT_NE(std::string::npos, _session.step(read).find("row 0 read: the log says"));
}

TEST(generate, gives_the_same_sequence_for_the_same_seed)
{
    const operations_t first = model::generate(7, 300);
    const operations_t second = model::generate(7, 300);
    const operations_t other = model::generate(8, 300);
    std::string text;
    std::string same_text;
    std::string other_text;
    for (size_t i = 0; i < first.size(); ++i) {
        text += model::describe(first[i]);
        same_text += model::describe(second[i]);
        other_text += model::describe(other[i]);
    }
    EXPECT_EQ(300u, first.size());
    EXPECT_EQ(text, same_text);
    EXPECT_NE(text, other_text);
}

bool has_time(const operations_t& operations, int64_t time)
{
    for (const operation_t& op : operations)
        if (op.kind == kind_t::RECORD && op.time == time) return true;
    return false;
}

TEST(shrink, leaves_only_the_calls_that_matter)
{
    operations_t operations(200, call(kind_t::RECORD));
    for (size_t i = 0; i < operations.size(); ++i)
        operations[i].time = static_cast<int64_t>(i);
    const operations_t left = model::shrink(
        operations,
        [](const operations_t& candidate) {
            return has_time(candidate, 17) && has_time(candidate, 163);
        },
        1000);

    ASSERT_EQ(2u, left.size());
    EXPECT_EQ(17, left[0].time);
    EXPECT_EQ(163, left[1].time);
    EXPECT_TRUE(left[0].params.empty());
}

TEST(shrink, stops_after_the_given_number_of_tries)
{
    size_t tries = 0;
    model::shrink(
        operations_t(200, call(kind_t::RECORD)),
        [&](const operations_t&) {
            ++tries;
            return false;
        },
        10);
    EXPECT_EQ(10u, tries);
}

}  // namespace
