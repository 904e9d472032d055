// How large the pool of statements should be, as CLog::open() says.

#include <gtest/gtest.h>

#include <string>

#include "log_fixture.h"
#include "trace.h"

using namespace toolkit::trend;

namespace {

constexpr size_t DEVICES = 3;
constexpr size_t PERIODS = 3;  // 1, 3 and 6 minutes
constexpr time_t COARSEST = 6;

class pool_size : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        add_periods({{1, 20}, {3, 20}, {6, 20}});
        for (size_t i = 0; i < DEVICES; ++i)
            _devices.push_back(add_device("pump " + std::to_string(i), {param("power", "avg")}));
    }

    // A pool of `capacity` that has seen all of recording, the trim of every table included.
    void record_with(size_t capacity)
    {
        open_args args;
        args._pool_capacity = capacity;
        reopen(args);
        ASSERT_EQ(0, _log.begin_transaction());
        while (_minute < 40 * COARSEST)
            record_tick();
        ASSERT_EQ(0, _log.end_transaction());
    }

    // One more minute of all devices, in a transaction; how much is prepared for it.
    size_t record_tick()
    {
        ++_minute;
        const statement_trace trace;
        EXPECT_EQ(0, _log.begin_transaction());
        for (const CDeviceParams& device : _devices)
            record(device, _minute * 60, {1.0});
        EXPECT_EQ(0, _log.end_transaction());
        return trace.prepared().size();
    }

    std::vector<CDeviceParams> _devices;
    time_t _minute = 0;
};

}  // namespace

TEST_F(pool_size, of_five_per_device_and_period_and_four_prepares_nothing_twice)
{
    record_with(5 * DEVICES * PERIODS + 4);
    for (time_t i = 0; i < 2 * COARSEST; ++i)
        EXPECT_EQ(0U, record_tick()) << "minute " << _minute;
}

TEST_F(pool_size, of_three_per_device_and_three_serves_what_completes_no_coarse_row)
{
    record_with(3 * DEVICES + 3);
    for (int round = 0; round < 4; ++round) {
        record_tick();                 // the first after a coarse row
        EXPECT_EQ(0U, record_tick());  // the second
        EXPECT_NE(0U, record_tick());  // completes the next one
    }
}
