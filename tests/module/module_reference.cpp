// Prints what the library's aggregate functions make of a query, as the sqlite3 shell would print
// it in list mode: module_reference DATABASE SQL.
//
// With "--record DATABASE" instead it records a day of one device through the library's log, whose
// coarse rows are what the roll-up made of the fine ones.

#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "database.h"
#include "trend_api.h"

using namespace toolkit::trend;

static int print(const char* file, const char* sql)
{
    CDatabase database;
    if (database.open(file, 1, true, false, false, 0, 0, 0, false) != 0) return 1;
    const auto print_row = [](void*, int columns, char** values, char**) {
        for (int i = 0; i < columns; ++i)
            std::printf("%s%s", i ? "|" : "", values[i] ? values[i] : "");
        std::printf("\n");
        return 0;
    };
    return sqlite3_exec(*database, sql, print_row, nullptr, nullptr);
}

static int record(const char* file)
{
    CLog log;
    if (log.open(file, false, true, 20, false, 0, 0, 0, true) != 0) return 1;
    if (log.add_period({1, 2000}) != 0 || log.add_period({15, 2000}) != 0) return 1;

    CDeviceParams data;
    data._device._path = "feeder";
    data._params.resize(2);
    data._params[0]._path = "power";
    data._params[1]._path = "power factor";
    data._params[1]._type = SAMPLE_TYPE_PF;
    for (CParamProperties& param : data._params)
        param._has_min = param._has_max = param._has_avg = true;
    if (log.add_device(data._device) != 0) return 1;
    if (log.add_params(data._device, data._params) != 0) return 1;

    if (log.begin_transaction() != 0) return 1;
    for (int minute = 1; minute <= 1440; ++minute) {
        CSnapshot snapshot;
        snapshot._time = minute * 60;
        snapshot._percent_valid = minute % 11 * 10.0;
        snapshot._samples.resize(2);
        for (size_t i = 0; i < 2; ++i) {
            if (minute % 13 == 0) continue;
            CSample& sample = snapshot._samples[i];
            sample._min = std::sin(minute * 0.01 + double(i));
            sample._max = std::sin(minute * 0.011 + double(i));
            sample._avg = std::sin(minute * 0.012 + double(i));
        }
        if (log.add_trend_data(data, snapshot) != 0) return 1;
    }
    return log.end_transaction();
}

int main(int argc, char** argv)
{
    if (argc != 3) return 2;
    return std::strcmp(argv[1], "--record") == 0 ? record(argv[2]) : print(argv[1], argv[2]);
}
