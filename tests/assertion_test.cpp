// The assertion that stays on: what it prints, and that it stops the process.

// Builds that switch the standard assertion off must not switch this one off.
#ifndef NDEBUG
#define NDEBUG
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>

#include "database.h"
#include "expect.h"
#include "transcheck.h"
#include "trend_api.h"
#include "trend_base.h"

using namespace toolkit::trend;

// Outside the unnamed namespace, which compilers name each in its own way.
namespace tested {

struct sensor {
    int read(int channel) const;
};

constexpr unsigned int line_of_read = __LINE__ + 1;
int sensor::read(int channel) const
{
    TREND_ASSERT(channel>0 && channel!= 7);
    return channel;
}

}  // namespace tested

namespace {

#define NOTHING nullptr

void expect_nothing(const void* pointer) { TREND_ASSERT(pointer==NOTHING); }

template <typename A, typename B>
void expect_same_type()
{
    TREND_ASSERT(std::is_same_v<A, B>);
}

std::string content(const char* file)
{
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

std::string without_blanks(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

#ifdef __clang__
constexpr bool other_blanks = true;  // this compiler puts those of a signature elsewhere
#else
constexpr bool other_blanks = false;
#endif

// A line with the signature, as the library's messages spell it, and the condition.
MATCHER_P2(NamesFunction, signature, condition, "a line of " + std::string(signature))
{
    const std::string wanted =
        ": " + std::string(signature) + ": Assertion `" + condition + "' failed.\n";
    if (other_blanks) return without_blanks(arg).find(without_blanks(wanted)) != std::string::npos;
    return std::string(arg).find(wanted) != std::string::npos;
}

#define EXPECT_STOPS_IN(signature, statement, condition)                        \
    EXPECT_EXIT(static_cast<void>(statement), testing::KilledBySignal(SIGABRT), \
                NamesFunction(signature, condition))

}  // namespace

// The line ---------------------------------------------------------------------------------------

TEST(assertion, prints_file_line_function_and_condition_and_aborts)
{
    const std::string line = std::string(__FILE__) + ":" +
                             std::to_string(tested::line_of_read + 2) +
                             ": int tested::sensor::read(int) const: Assertion `channel>0 && "
                             "channel!= 7' failed.\n";
    EXPECT_EXIT(tested::sensor().read(7), testing::KilledBySignal(SIGABRT),
                testing::StartsWith(line));
}

TEST(assertion, prints_the_condition_as_it_is_spelt)
{
    const int some = 1;
    EXPECT_STOPS(expect_nothing(&some), "pointer==NOTHING");
}

TEST(assertion, takes_a_condition_with_commas)
{
    expect_same_type<int, int>();
    EXPECT_STOPS((expect_same_type<int, char>()), "std::is_same_v<A, B>");
}

TEST(assertion, takes_whatever_can_be_a_condition)
{
    const auto full = std::make_shared<int>(1);
    const std::shared_ptr<int> empty;
    TREND_ASSERT(full);
    EXPECT_STOPS(TREND_ASSERT(empty), "empty");
}

TEST(assertion, loses_no_line_where_standard_error_is_a_buffered_file)
{
    const auto fail_after_two_lines = [] {
        if (std::freopen("host.log", "w", stderr) == nullptr) return;
        std::setvbuf(stderr, nullptr, _IOFBF, 65536);
        CLog::err(0, "pump %d started", 1);
        CLog::err(0, "pump %d stalled", 2);
        assertion_failed("pump.cpp", 12, "void start()", "ready");
    };
    EXPECT_EXIT(fail_after_two_lines(), testing::KilledBySignal(SIGABRT), "");
    // An emulator adds a line of its own.
    EXPECT_THAT(content("host.log"),
                testing::StartsWith("pump 1 started\n"
                                    "pump 2 stalled\n"
                                    "pump.cpp:12: void start(): Assertion `ready' failed.\n"));
}

// When the condition holds -----------------------------------------------------------------------

TEST(assertion, says_nothing_when_the_condition_holds)
{
    EXPECT_QUIET(tested::sensor().read(8), 8);
}

TEST(assertion, evaluates_its_condition_once)
{
    int calls = 0;
    TREND_ASSERT(++calls>0);
    EXPECT_EQ(1, calls);
}

TEST(assertion, is_one_statement)
{
    bool other_branch = false;
    for (const bool condition : {true, false})
        if (condition)
            TREND_ASSERT(condition);
        else
            other_branch = true;
    EXPECT_TRUE(other_branch);
}

TEST(assertion_failed, never_comes_back)
{
    static_assert(noexcept(assertion_failed("", 0, "", "")));
    EXPECT_EXIT(assertion_failed("pump.cpp", 12, "void start()", "ready"),
                testing::KilledBySignal(SIGABRT),
                testing::StartsWith("pump.cpp:12: void start(): Assertion `ready' failed.\n"));
}

// The library's own ------------------------------------------------------------------------------

TEST(assertions_of_a_connection, name_the_operation_that_wants_it_open)
{
    CDatabase db;
    int64_t number = 0;
    EXPECT_STOPS_IN("sqlite3* toolkit::trend::CDatabase::operator*()", *db, "_db!=__null");
    EXPECT_STOPS_IN(
        "toolkit::trend::stmt_ptr_t toolkit::trend::CDatabase::stmt(const tk_string&, bool)",
        db.stmt("SELECT 1", true), "_pool.get()");
    EXPECT_STOPS_IN("int toolkit::trend::CDatabase::exec(const tk_string&, bool, bool)",
                    db.exec("SELECT 1", true, true), "_pool.get()");
    EXPECT_STOPS_IN(
        "int toolkit::trend::CDatabase::get_intval(const tk_string&, int64_t&, bool, bool)",
        db.get_intval("SELECT 1", number, true, true), "_pool.get()");
    EXPECT_STOPS_IN("int toolkit::trend::CDatabase::update_cache_size(size_t)",
                    db.update_cache_size(4096), "_pool.get()");
}

TEST(assertions_of_a_connection, name_the_operation_on_transactions)
{
    CDatabase db;
    EXPECT_STOPS_IN("int toolkit::trend::CDatabase::begin_transaction()", db.begin_transaction(),
                    "_db!=__null");
    EXPECT_STOPS_IN("int toolkit::trend::CDatabase::end_transaction()", db.end_transaction(),
                    "_db!=__null");
    EXPECT_STOPS_IN("void toolkit::trend::CDatabase::rollback_transaction()",
                    db.rollback_transaction(), "_db!=__null");
}

TEST(assertions_of_a_transaction_check, name_its_destructor)
{
    const auto db = std::make_shared<CDatabase>();
    ASSERT_EQ(0, db->open("check.db", 5, false, true, true, 0, 0, 0, false));
    const auto forget_a_level = [&] {
        CTransCheck check(db);
        db->begin_transaction();
    };
    EXPECT_STOPS_IN("toolkit::trend::CTransCheck::~CTransCheck()", forget_a_level(),
                    "_level==_db->_nest_lvl");
}

TEST(assertions_of_a_value, name_its_dereference)
{
    EXPECT_STOPS_IN("const double& toolkit::trend::COptVal::operator*() const", *COptVal(),
                    "*this");
}
