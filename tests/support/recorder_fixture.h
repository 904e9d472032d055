#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "expect.h"
#include "rows.h"
#include "trend_recorder.h"

// A clock that the test sets. Both hands move together unless the test steps one of them.
class test_clock : public toolkit::trend::CRecorderClock {
public:
    int64_t wall() override { return _wall; }
    int64_t monotonic() override { return _monotonic; }
    bool is_trusted() override { return _trusted; }

    void pass(int64_t ms)
    {
        _wall += ms;
        _monotonic += ms;
    }

    int64_t _wall = 1'800'000'000'001;  // just after a boundary of the hour, not of the day
    int64_t _monotonic = 5'000;
    bool _trusted = true;
};

// A parameter as the recorder wants it, with the aggregates that it keeps: "min max avg".
toolkit::trend::CRecorderParam gauge(const std::string& path, const std::string& kept = "avg");
toolkit::trend::CRecorderParam power_factor(const std::string& path,
                                            const std::string& kept = "avg");
toolkit::trend::CRecorderParam counter(const std::string& path, const std::string& kept = "sum");
toolkit::trend::CRecorderParam total(const std::string& path);

// A test of a recorder with a clock of its own, on a fresh file. Moments are in milliseconds after
// START, and rows are given by their times in seconds after it.
class recorder_fixture : public testing::Test {
protected:
    static constexpr int64_t START = 1'800'000'000'000;

    recorder_fixture();

    // Opens `_file` with `_options`, and again.
    void open();
    void reopen();

    // A device with these parameters, of which the handles are kept in `_params`.
    void attach(std::vector<toolkit::trend::CRecorderParam> params,
                const std::string& path = "pump");

    // Takes a reading of the n-th parameter attached last, and the result of it.
    int push(size_t param, double value, int64_t moment)
    {
        return _recorder->push(_params.at(param), value, START + moment);
    }

    // Sets the clock to that moment, both hands, and ticks.
    int tick_at(int64_t moment);

    // What has been told since the last call, one line each: "late: 'u': ...".
    std::string told() { return std::exchange(_told, {}); }

    // The rows of the table of `period`, with the times in seconds after START:
    // "60|100.0|5.0\n120|...".
    std::string rows(const std::string& columns, unsigned long period = 1, int64_t device = 1);

    int64_t count(toolkit::trend::notice_t notice)
    {
        return static_cast<int64_t>(_recorder->stats()._notices[notice]);
    }

    const std::string _file = "trend.db";
    std::string _told;
    test_clock _clock;
    toolkit::trend::CRecorderOptions _options;
    std::unique_ptr<toolkit::trend::CRecorder> _recorder =
        std::make_unique<toolkit::trend::CRecorder>();
    toolkit::trend::recorder_handle_t _device = 0;
    std::vector<toolkit::trend::recorder_handle_t> _params;
};
