// The recipes of docs/reliability.md, with every read, write, sync and lock failing in turn.

#include "recipes.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "disk.h"
#include "memory.h"
#include "scenario.h"
#include "sweep.h"

namespace {

class recipes : public testing::Test {
protected:
    static void SetUpTestSuite() { install_faults(); }

    void SetUp() override
    {
        _row.first._device._path = "plant/pump";
        _row.first._device._index = 1;
        _row.first._params.resize(1);
        _row.first._params[0]._index = 1;
        _row.first._params[0]._has_avg = true;
        _row.second._samples.resize(1);
        _row.second._samples[0]._avg = 1.0;
    }

    std::pair<CDeviceParams, CSnapshot> row(time_t time) const
    {
        std::pair<CDeviceParams, CSnapshot> row = _row;
        row.second._time = time;
        return row;
    }

    // The recipe with each call failing once: the file is as before or as wanted, and when the
    // recipe has failed it succeeds the next time.
    void sweep(const std::function<int(CLog&)>& recipe)
    {
        size_t points = 0;
        for (const setting_t& setting : SETTINGS) {
            disk::restore(base_image(step_t::LOG, setting._wal));
            std::string before;
            std::string after;
            {
                CLog log;
                ASSERT_EQ(prepare(log, setting), 0);
                before = live_view();
                ASSERT_EQ(recipe(log), 0);
                after = live_view();
            }
            for (const disk::call_t call : {disk::READ, disk::WRITE, disk::SYNC, disk::LOCK}) {
                for (size_t n = 1;; ++n) {
                    disk::restore(base_image(step_t::LOG, setting._wal));
                    CLog log;
                    ASSERT_EQ(prepare(log, setting), 0);
                    disk::arm(call, SQLITE_IOERR, n, false);
                    const int result = recipe(log);
                    if (disk::disarm() == 0) break;
                    ++points;
                    const std::string left = crashed_view();
                    EXPECT_TRUE(left == after || (result != 0 && left == before));
                    EXPECT_TRUE(result == 0 || recipe(log) == 0) << "call " << call << ", " << n;
                    EXPECT_EQ(live_view(), after) << "call " << call << ", number " << n;
                }
            }
        }
        std::printf("Recipe: %zu points\n", points);
        EXPECT_GT(points, 20U);
    }

    std::pair<CDeviceParams, CSnapshot> _row;
};

}  // namespace

TEST_F(recipes, stand_in_the_text_as_they_are_here)
{
    const auto text_of = [](const std::string& file) {
        std::ifstream in(file);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    std::string source = text_of(TREND_SOURCE_DIR "/tests/faults/recipes.h");
    for (size_t at = 0; (at = source.find("inline ", at)) != std::string::npos;)
        source.erase(at, 7);
    // Without the indentation of continued lines, which loses a word's length with "inline".
    const auto squeezed = [](const std::string& text) {
        std::string result;
        for (const char c : text)
            if (c != ' ' && c != '\n') result += c;
        return result;
    };
    const std::string document = text_of(TREND_SOURCE_DIR "/docs/reliability.md");
    size_t programs = 0;
    const std::string fence = "```cpp\n";
    for (size_t at = 0; (at = document.find(fence, at)) != std::string::npos; ++programs) {
        at += fence.size();
        const std::string program = document.substr(at, document.find("```", at) - at);
        EXPECT_NE(squeezed(source).find(squeezed(program)), std::string::npos) << program;
    }
    EXPECT_EQ(programs, 3U);
}

TEST_F(recipes, rows_are_stored_together)
{
    sweep([&](CLog& log) { return record_together(log, {row(1800), row(1860), row(1920)}); });
}

TEST_F(recipes, a_row_is_stored_among_other_writers)
{
    sweep([&](CLog& log) {
        const auto [device, snapshot] = row(1800);
        return record_among_others(log, device, snapshot);
    });
}

TEST_F(recipes, recording_resumes_after_the_newest_row)
{
    sweep([&](CLog& log) {
        time_t next = -1;
        const int failed = resume(log, _row.first._device, 1, 2000, next);
        EXPECT_TRUE(failed != 0 || next == 2040);
        return failed;
    });
}
