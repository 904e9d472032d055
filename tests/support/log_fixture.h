#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "expect.h"
#include "rows.h"
#include "trend_api.h"

// A parameter record that is not stored yet: a quantity or a power factor, and the aggregates that
// it keeps, as in param("u", "min max avg") or pf("cosphi", "avg").
toolkit::trend::CParamProperties param(const std::string& path, const std::string& kept);
toolkit::trend::CParamProperties pf(const std::string& path, const std::string& kept);

// A sample with only this value, for parameters that keep several.
toolkit::trend::CSample min(double value);
toolkit::trend::CSample max(double value);
toolkit::trend::CSample avg(double value);
toolkit::trend::CSample actual(double value);
toolkit::trend::CSample sum(double value);

// What CLog::open() is given, with the values that the tests' logs have.
struct open_args {
    bool _read_only = false;
    bool _create = true;
    size_t _pool_capacity = 100;
    bool _temp_in_memory = false;
    size_t _page_size = 0;
    size_t _cache_bytes = 0;
    size_t _heap_limit = 0;
    bool _wal = true;
};

int open_log(toolkit::trend::CLog& log, const std::string& file, const open_args& args = {});

// A test of an open log in a fresh file. The helpers stop the test when the log refuses what they
// ask of it or says anything about it.
class log_fixture : public testing::Test {
protected:
    using CDeviceData = toolkit::trend::CDeviceData;
    using CDeviceParams = toolkit::trend::CDeviceParams;
    using CDeviceProperties = toolkit::trend::CDeviceProperties;
    using CLog = toolkit::trend::CLog;
    using COptVal = toolkit::trend::COptVal;
    using CParamProperties = toolkit::trend::CParamProperties;
    using CPeriodProperties = toolkit::trend::CPeriodProperties;
    using CSample = toolkit::trend::CSample;
    using CSnapshot = toolkit::trend::CSnapshot;

    void SetUp() override { open(); }

    // Opens `_file`, for the second time with the connection and its pool anew.
    void open(const open_args& args = {});
    void reopen(const open_args& args = {});

    void add_period(unsigned long minutes, size_t max_entries);
    void add_periods(std::initializer_list<CPeriodProperties> periods);

    // A device with its identifier, and one with stored parameters too, ready for recording. At
    // least one period must be there before a device gets parameters.
    CDeviceProperties add_device(const std::string& path, const std::string& guid = "");
    CDeviceParams add_device(const std::string& path, std::vector<CParamProperties> params);

    // Adds parameters to a device that is stored; what comes back has these only.
    CDeviceParams add_params(const CDeviceProperties& device, std::vector<CParamProperties> params);

    // Records one row, `values` with one number per parameter, taken for each aggregate that the
    // parameter keeps (NAN for no value), or `samples` with one sample per parameter.
    void record(const CDeviceParams& device, time_t time, std::initializer_list<double> values,
                double percent_valid = 100.0);
    void record(const CDeviceParams& device, time_t time, std::initializer_list<CSample> samples,
                double percent_valid = 100.0);

    // Another connection commits, without a change: what recording remembers of the file is not
    // proven any more.
    void have_others_commit() const;

    // What `_file` holds, see rows.h: as committed, not what an open transaction has changed.
    std::string rows(const std::string& sql) const { return ::rows(_file, sql); }
    std::string dump() const { return ::dump(_file); }

    // Whether no transaction level is open: a level that is begun and ended now talks to SQLite.
    bool at_level_0();

    const std::string _file = "trend.db";  // in the test's own folder
    CLog _log;

private:
    void record_snapshot(const CDeviceParams& device, const CSnapshot& snapshot);
};
