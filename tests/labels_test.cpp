#include "trend_labels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "allocations.h"
#include "expect.h"
#include "faults.h"
#include "log_fixture.h"
#include "rows.h"
#include "trend_transaction.h"

namespace {

using namespace toolkit::trend;

const std::string READ =
    "int toolkit::trend::read_labels(const CLog&, std::vector<CLabel>&): Error: ";
const std::string WRITE = "int toolkit::trend::write_label(CLog&, const CLabel&): Error: ";

class labels : public log_fixture {
protected:
    // Device, parameter, unit and label of each, between bars.
    std::string all() const
    {
        std::vector<CLabel> read;
        EXPECT_QUIET(read_labels(_log, read), 0);
        std::string text;
        for (const CLabel& label : read)
            text +=
                label._device + "|" + label._param + "|" + label._unit + "|" + label._label + "\n";
        return text;
    }
};

TEST_F(labels, are_none_in_a_file_without_the_table)
{
    std::vector<CLabel> read(3);
    EXPECT_QUIET(read_labels(_log, read), 0);
    EXPECT_TRUE(read.empty());
    EXPECT_EQ("0", rows("SELECT count(*) FROM sqlite_master WHERE name = 'trend_labels'"));
}

TEST_F(labels, are_read_by_device_and_parameter)
{
    EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", "Shaft power"}), 0);
    EXPECT_QUIET(write_label(_log, {"pump", "", "", "Cooling water"}), 0);
    EXPECT_QUIET(write_label(_log, {"fan", "speed", "1/min", ""}), 0);
    EXPECT_EQ(
        "fan|speed|1/min|\n"
        "pump|||Cooling water\n"
        "pump|power|kW|Shaft power\n",
        all());
}

TEST_F(labels, one_takes_the_place_of_the_one_before)
{
    EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", "Shaft power"}), 0);
    EXPECT_QUIET(write_label(_log, {"pump", "power", "MW", ""}), 0);
    EXPECT_EQ("pump|power|MW|\n", all());
}

TEST_F(labels, an_empty_one_goes)
{
    EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", ""}), 0);
    EXPECT_QUIET(write_label(_log, {"pump", "", "", "Cooling water"}), 0);
    EXPECT_QUIET(write_label(_log, {"pump", "power", "", ""}), 0);
    EXPECT_EQ("pump|||Cooling water\n", all());
}

TEST_F(labels, an_empty_one_makes_no_table)
{
    const std::string before = dump();
    EXPECT_QUIET(write_label(_log, {"pump", "power", "", ""}), 0);
    EXPECT_EQ(before, dump());
}

TEST_F(labels, texts_end_at_a_zero_byte)
{
    EXPECT_QUIET(write_label(_log, {std::string("pump\0x", 6), std::string("p\0x", 3),
                                    std::string("kW\0x", 4), std::string("l\0x", 3)}),
                 0);
    EXPECT_EQ("pump|p|kW|l\n", all());
    EXPECT_EQ("4", rows("SELECT length(device) FROM trend_labels"));
}

TEST_F(labels, are_part_of_the_callers_transaction)
{
    {
        CTransaction transaction(_log);
        EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", ""}), 0);
        EXPECT_EQ("pump|power|kW|\n", all());
    }
    EXPECT_EQ("", all());
}

TEST_F(labels, outlast_everything_that_the_log_does)
{
    add_periods({{1, 100}, {5, 100}});
    const CDeviceParams pump = add_device("pump", {param("power", "avg")});
    EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", ""}), 0);
    EXPECT_QUIET(_log.remove_device(pump._device), 0);
    EXPECT_QUIET(_log.vacuum(), 0);
    reopen();
    EXPECT_EQ("pump|power|kW|\n", all());
}

TEST_F(labels, want_an_open_log)
{
    _log.close();
    std::vector<CLabel> read;
    EXPECT_REPORTS(read_labels(_log, read), -1, READ + "DB not open\n");
    EXPECT_REPORTS(write_label(_log, {"pump", "", "", "x"}), -1, WRITE + "DB not open\n");
}

TEST_F(labels, want_a_device)
{
    const std::string before = dump();
    EXPECT_REPORTS(write_label(_log, {"", "power", "kW", ""}), -1, WRITE + "empty device path\n");
    EXPECT_REPORTS(write_label(_log, {std::string(1, '\0'), "power", "kW", ""}), -1,
                   WRITE + "empty device path\n");
    EXPECT_EQ(before, dump());
}

TEST_F(labels, of_another_kind_are_a_failure)
{
    run_sql(_file, "CREATE TABLE trend_labels (device, param, unit, label)");
    for (const char* const row : {"NULL, 'p', 'kW', 'x'", "'d', NULL, 'kW', 'x'",
                                  "'d', 'p', 5, 'x'", "'d', 'p', 'kW', 5"}) {
        run_sql(_file, "DELETE FROM trend_labels; INSERT INTO trend_labels VALUES (" +
                           std::string(row) + ")");
        std::vector<CLabel> read;
        const std::string said = capture_stderr([&] { EXPECT_NE(0, read_labels(_log, read)); });
        EXPECT_EQ(1, std::count(said.begin(), said.end(), '\n')) << row << said;
        EXPECT_TRUE(at_level_0());
    }
}

TEST_F(labels, cannot_be_written_into_a_table_without_their_columns)
{
    run_sql(_file, "CREATE TABLE trend_labels (device, param)");
    const std::string before = dump();
    std::vector<CLabel> read;
    const std::string said = capture_stderr([&] {
        EXPECT_EQ(-1, read_labels(_log, read));
        EXPECT_EQ(-1, write_label(_log, {"pump", "power", "kW", ""}));
    });
    EXPECT_NE(std::string::npos, said.find("no such column: unit"));
    EXPECT_NE(std::string::npos, said.find("no column named unit"));
    EXPECT_EQ(before, dump());
}

TEST_F(labels, are_not_written_into_a_log_that_is_read_only)
{
    open_args args;
    args._read_only = true;
    args._create = false;
    reopen(args);
    const std::string said = capture_stderr([&] {
        EXPECT_NE(0, write_label(_log, {"pump", "power", "kW", ""}));
    });
    EXPECT_NE(std::string::npos, said.find("attempt to write a readonly database"));
    EXPECT_TRUE(at_level_0());
}

// Every allocation of the call in turn fails: it says so in one line and changes nothing.
template <typename Call>
void sweep_memory(const Call& call)
{
    for (size_t n = 1;; ++n) {
        int result = 0;
        bool reached = false;
        const std::string said = capture_stderr([&] {
            const allocations::fail_at failing(n);
            result = call();
            reached = failing.reached();
        });
        if (!reached) break;
        ASSERT_EQ(-1, result) << n;
        ASSERT_EQ(1, std::count(said.begin(), said.end(), '\n')) << said;
        ASSERT_EQ(said.size() - 23, said.rfind(": Error: out of memory\n")) << said;
    }
}

TEST_F(labels, answer_memory_that_runs_out_in_one_line)
{
    const std::string text(100, 'x');
    ASSERT_EQ(0, write_label(_log, {text, text, text, text}));
    const std::string before = dump();
    const CLabel another = {text, text + "2", text, text};
    const CLabel none = {text, text, "", ""};
    _log.begin_transaction();
    sweep_memory([&] { return write_label(_log, another); });
    _log.rollback_transaction();
    EXPECT_EQ(before, dump());
    _log.begin_transaction();
    sweep_memory([&] { return write_label(_log, none); });
    _log.rollback_transaction();
    EXPECT_EQ(before, dump());
    std::vector<CLabel> read;
    sweep_memory([&] { return read_labels(_log, read); });
    EXPECT_EQ(1u, read.size());
    EXPECT_TRUE(at_level_0());
}

TEST_F(labels, stay_as_they_were_where_a_statement_cannot_be_prepared)
{
    EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", "Shaft power"}), 0);
    for (const CLabel& label :
         {CLabel{"fan", "speed", "1/min", ""}, CLabel{"pump", "power", "", ""}, CLabel{}}) {
        SCOPED_TRACE(label._device);
        const std::string before = dump();
        for (int n = 1;; ++n) {
            ASSERT_LT(n, 10);
            reopen();
            const deny_prepare denied(n);
            std::vector<CLabel> read;
            int result = 0;
            const std::string said = capture_stderr([&] {
                result = label._device.empty() ? read_labels(_log, read) : write_label(_log, label);
            });
            if (!denied.struck()) {
                EXPECT_EQ(result, 0);
                EXPECT_GT(n, 2);
                break;
            }
            EXPECT_EQ(result, -1);
            EXPECT_NE(said, "");
            EXPECT_TRUE(at_level_0());
            EXPECT_EQ(dump(), before);
        }
    }
}

TEST_F(labels, of_a_read_that_breaks_off_are_a_failure)
{
    EXPECT_QUIET(write_label(_log, {"pump", "power", "kW", "Shaft power"}), 0);
    for (const char* sql :
         {"BEGIN",
          "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'trend_labels'",
          "SELECT device, param, unit, label FROM trend_labels ORDER BY device, param"}) {
        const interrupt_step broken(sql);
        std::vector<CLabel> read;
        int result = 0;
        capture_stderr([&] { result = read_labels(_log, read); });
        EXPECT_EQ(result, -1) << sql;
        EXPECT_TRUE(at_level_0());
    }
    const interrupt_step broken("BEGIN");
    int result = 0;
    capture_stderr([&] { result = write_label(_log, {"pump", "power", "W", ""}); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(all(), "pump|power|kW|Shaft power\n");
}

}  // namespace
