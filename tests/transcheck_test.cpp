#include "transcheck.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "database.h"
#include "database_fixture.h"

namespace toolkit::trend {
namespace {

const char* const DESTRUCTION = "toolkit::trend::CTransCheck::~CTransCheck()";
const char* const SAME_LEVEL = "_level==_db->_nest_lvl";

static_assert(!std::is_copy_constructible<CTransCheck>::value, "looks once");

class transaction_check : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(_db->open("trend.db", 10, false, true, false, 0, 0, 0, true), 0);
    }

    const std::shared_ptr<CDatabase> _db = std::make_shared<CDatabase>();
};

TEST_F(transaction_check, passes_without_a_transaction) { const CTransCheck check(_db); }

TEST_F(transaction_check, passes_when_every_level_has_been_closed)
{
    const CTransCheck check(_db);
    ASSERT_EQ(_db->begin_transaction(), 0);
    ASSERT_EQ(_db->begin_transaction(), 0);
    _db->rollback_transaction();
    ASSERT_EQ(_db->end_transaction(), 0);
}

TEST_F(transaction_check, compares_with_the_level_that_it_found)
{
    ASSERT_EQ(_db->begin_transaction(), 0);
    {
        const CTransCheck check(_db);
        ASSERT_EQ(_db->begin_transaction(), 0);
        ASSERT_EQ(_db->end_transaction(), 0);
    }
    ASSERT_EQ(_db->end_transaction(), 0);
}

TEST_F(transaction_check, stops_at_a_level_left_open)
{
    const auto forget_to_end = [&] {
        const CTransCheck check(_db);
        static_cast<void>(_db->begin_transaction());
    };
    EXPECT_STOPS_IN(forget_to_end(), DESTRUCTION, SAME_LEVEL);

    ASSERT_EQ(_db->begin_transaction(), 0);
    EXPECT_STOPS_IN(forget_to_end(), DESTRUCTION, SAME_LEVEL);
    ASSERT_EQ(_db->end_transaction(), 0);
}

TEST_F(transaction_check, stops_at_a_level_of_the_caller_that_was_closed)
{
    ASSERT_EQ(_db->begin_transaction(), 0);
    const auto end_too_much = [&] {
        const CTransCheck check(_db);
        _db->rollback_transaction();
    };
    EXPECT_STOPS_IN(end_too_much(), DESTRUCTION, SAME_LEVEL);
    ASSERT_EQ(_db->end_transaction(), 0);
}

TEST_F(transaction_check, checks_nothing_without_a_connection)
{
    const CTransCheck check{std::shared_ptr<CDatabase>()};
}

TEST_F(transaction_check, keeps_the_connection_that_it_looks_at)
{
    auto log = std::make_shared<CDatabase>();
    const std::weak_ptr<CDatabase> connection = log;
    {
        const CTransCheck check(log);
        log.reset();
        EXPECT_FALSE(connection.expired());
    }
    EXPECT_TRUE(connection.expired());
}

}  // namespace
}  // namespace toolkit::trend
