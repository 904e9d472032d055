// What a host does with an installed library: records, reads back, and uses the lower classes.
// Says what went wrong and fails, or prints the width of time_t in bits.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <database.h>
#include <functions.h>
#include <trend_api.h>

using namespace toolkit::trend;

static void expect(bool fact, const char* text)
{
    if (fact) return;
    std::fprintf(stderr, "not so: %s\n", text);
    std::exit(1);
}

#define EXPECT(fact) expect((fact), #fact)

static CParamProperties averaged(const char* path, sample_type_t type)
{
    CParamProperties param;
    param._path = path;
    param._type = type;
    param._has_avg = true;
    return param;
}

// The last second that fits, on a full hour: the library must mean the same by time_t as this file.
static time_t late_start()
{
    const int64_t wide = 4'102'444'800;  // the first second of 2100
    const int64_t narrow = 2'147'482'800;
    return static_cast<time_t>(sizeof(time_t) > 4 ? wide : narrow);
}

int main()
{
    CLog log;
    EXPECT(log.open("consumer.db", false, true, 20, false, 0, 0, 0, true) == 0);
    EXPECT(log.add_period({1, 60}) == 0);
    EXPECT(log.add_period({5, 60}) == 0);

    CDeviceParams data;
    data._device._path = "feeder";
    EXPECT(log.add_device(data._device) == 0);
    data._params = {averaged("power", SAMPLE_TYPE_VALUE), averaged("power factor", SAMPLE_TYPE_PF)};
    EXPECT(log.add_params(data._device, data._params) == 0);

    // 10, 20, 30, 40 and 50 have the average 30; the power factors run through unity.
    const time_t start = late_start();
    const double factors[] = {0.5, 0.75, 1.0, -0.75, -0.5};
    for (int minute = 1; minute <= 5; ++minute) {
        CSnapshot snapshot;
        snapshot._time = start + minute * 60;
        snapshot._percent_valid = 100.0;
        snapshot._samples.resize(2);
        snapshot._samples[0]._avg = 10.0 * minute;
        snapshot._samples[1]._avg = factors[minute - 1];
        EXPECT(log.add_trend_data(data, snapshot) == 0);
    }

    CDeviceData result;
    EXPECT(log.get_trend_data(result, data, {CPeriodProperties(5, 60)}, {-1, -1}, 0, 0, true,
                              false) == 0);
    EXPECT(result._snapshots.size() == 1);
    EXPECT(result._snapshots[0]._time == start + 300);
    EXPECT(result._snapshots[0]._percent_valid == 100.0);
    EXPECT(*result._snapshots[0]._samples[0]._avg == 30.0);
    EXPECT(*result._snapshots[0]._samples[1]._avg == 1.0);
    log.close();

    CDatabase database;
    EXPECT(database.open("consumer.db", 4, true, false, false, 0, 0, 0, false) == 0);
    int64_t newest = -1;
    EXPECT(database.get_intval("SELECT max(time) FROM trends_1_1", newest, STMT_FRESH, NULL_OK) ==
           0);
    EXPECT(newest == int64_t(start) + 300);
    EXPECT(register_custom_functions(*database) == 0);
    EXPECT(database.exec("SELECT pfavg(0.5)", STMT_FRESH, ROW_OK) == 0);

    std::printf("%d\n", static_cast<int>(8 * sizeof(time_t)));
    return 0;
}
