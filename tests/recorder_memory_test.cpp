// What the recorder allocates, and what happens when there is no memory.

#include "allocations.h"

#include <gtest/gtest.h>

#include "recorder_fixture.h"

using namespace toolkit::trend;

namespace {

class recorder_memory : public recorder_fixture {
protected:
    void SetUp() override
    {
        _options._tell = [this](notice_t notice, const char*) { _last_notice = notice; };
        _options._commit_every_ms = 24 * 3'600'000;
    }

    void TearDown() override { _recorder.reset(); }  // which tells once more

    notice_t _last_notice = NOTICE_NONE;
};

}  // namespace

TEST_F(recorder_memory, is_not_asked_for_by_readings_rows_and_ticks)
{
    _options._max_bytes = 4'000;  // for a while only: rows are given up too
    open();
    attach({gauge("u", "min max avg actual"), power_factor("pf"), counter("n"), total("t")});
    CRecorderDevice meter;
    meter._path = "meter";
    meter._ready = true;
    meter._params = {gauge("u")};
    CRecorderHandles handles;
    ASSERT_EQ(_recorder->attach(meter, handles), 0);
    CSnapshot snapshot;
    snapshot._samples = {CSample()};

    EXPECT_EQ(allocations::in([&] {
                  for (int64_t second = 1; second < 7'200; ++second) {
                      _clock.pass(1'000);
                      for (size_t i = 0; i < 4; ++i)
                          push(i, 0.5, second * 1'000);
                      push(0, 0.5, 0);  // late
                      push(0, 5e300, second * 1'000);
                      if (second % 600 < 300) _recorder->tick();
                      if (second % 60 == 0) {
                          snapshot._time = static_cast<time_t>(START / 1'000 + second);
                          _recorder->record(handles._device, snapshot);
                      }
                  }
              }),
              0U);
    EXPECT_GT(count(NOTICE_OVERFLOW), 100);
    EXPECT_GT(count(NOTICE_LATE), 7'000);
    EXPECT_EQ(_recorder->flush(), 0);
}

TEST_F(recorder_memory, is_not_asked_for_by_what_comes_late)
{
    _options._late = LATE_MERGE;
    _options._late_bytes = 4'000;
    open();
    attach({gauge("u", "min max avg actual"), counter("n"), total("t")});
    ASSERT_EQ(tick_at(7'200'000), 0);
    EXPECT_EQ(allocations::in([&] {
                  for (int64_t second = 1; second < 7'000; ++second)
                      for (size_t i = 0; i < 3; ++i)
                          push(i, 0.5, second * 1'000);
                  for (int64_t second = 7'000; second > 60; second -= 60)
                      push(0, 0.5, second * 1'000);
              }),
              0U);
    EXPECT_GT(count(NOTICE_OVERFLOW), 100);
    EXPECT_EQ(count(NOTICE_LATE), 0);
    EXPECT_EQ(_recorder->flush(), 0);
}

TEST_F(recorder_memory, that_runs_out_is_said)
{
    const auto fail_open = [&](size_t n) {
        const allocations::fail_at failing(n);
        return _recorder->open(_file, _options);
    };
    // Before there is anybody to tell it, then to him.
    EXPECT_REPORTS(fail_open(1), NOTICE_FAILED,
                   "toolkit::trend::CRecorder: failed: out of memory\n");
    _options._max_bytes = 1 << 20;
    std::string line;
    line.reserve(100);
    _options._tell = [&](notice_t, const char* text) { line = text; };
    EXPECT_EQ(fail_open(3), NOTICE_FAILED);
    EXPECT_EQ(line, "out of memory");
    open();
    attach({gauge("u")});
    CRecorderDevice fan;
    fan._path = "fan";
    fan._params = {gauge("u")};
    CRecorderHandles handles;
    CSnapshot snapshot;
    {
        const allocations::fail_at failing(1);
        EXPECT_EQ(_recorder->attach(fan, handles), NOTICE_FAILED);
    }
    {
        const allocations::fail_at failing(1);
        EXPECT_EQ(_recorder->get_open_interval(_device, snapshot), NOTICE_FAILED);
    }
    EXPECT_EQ(count(NOTICE_FAILED), 2);
}

TEST_F(recorder_memory, that_runs_out_anywhere_loses_nothing)
{
    // Every request in turn: a start, an hour of readings, a stop.
    size_t failures = 0;
    for (size_t n = 1; n < 100'000; ++n) {
        _recorder = std::make_unique<CRecorder>();
        for (const char* end : {"", "-wal", "-shm"})
            std::remove((_file + end).c_str());
        _clock._wall = START + 1;
        _options._commit_every_ms = 0;
        _options._late = LATE_MERGE;
        _options._merge_every_ms = 0;

        testing::internal::CaptureStderr();
        bool reached = false;
        CRecorderHandles handles;
        CRecorderDevice device;
        device._path = "pump";
        device._params = {gauge("u"), gauge("a path that is longer than a short text")};
        {
            allocations::fail_at failing(n);
            if (_recorder->open(_file, _options) != 0) {
                EXPECT_FALSE(_recorder->is_open());
                EXPECT_EQ(_recorder->open(_file, _options), 0);
            }
            if (_recorder->attach(device, handles) != 0) {
                EXPECT_EQ(_recorder->attach(device, handles), 0);
            }
            _params = handles._params;
            for (int64_t minute = 1; minute <= 16; ++minute) {
                if (minute != 4) push(0, static_cast<double>(minute), minute * 60'000 - 20'000);
                if (minute == 6) push(0, 4.0, 220'000);
                tick_at(minute * 60'000 + 1);
            }
            reached = failing.reached();
        }
        if (_recorder->stats()._notices[NOTICE_FAILED] > 0) ++failures;
        EXPECT_EQ(_recorder->flush(), 0);
        testing::internal::GetCapturedStderr();
        ASSERT_EQ(rows("param_1_avg", 15), "900|8.0") << "request " << n;
        ASSERT_EQ(::rows(_file, "SELECT count(*), sum(param_1_avg) FROM trends_1_1"), "16|136.0");
        ASSERT_EQ(_recorder->stats()._rows, 15U);
        ASSERT_EQ(_recorder->stats()._merged, 1U);
        _recorder.reset();
        if (!reached) break;
    }
    EXPECT_GT(failures, 50U);
}
