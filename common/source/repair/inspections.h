#pragma once

#include <cstdint>
#include <vector>

#include "repair/inspector.h"

// The parts of a check. Each ends with 0, STOPPED, LEFT_OUT or -1.

namespace toolkit::trend {

// What is left of the configuration after what no log has written has been left out.
struct survey_t {
    std::vector<CPeriodProperties> _periods;  // finest first
    std::vector<int64_t>
        _groups;  // how many rows of a period make one of the next, 0 for no number
    std::vector<CDeviceProperties> _devices;
};

// The file: free pages, the write-ahead log.
int inspect_file(CInspector& inspector);

// What SQLite finds.
int inspect_damage(CInspector& inspector);

// Periods and devices, and that the file has the tables for them and nothing that forbids them.
int inspect_configuration(CInspector& inspector, survey_t& survey);

// One device with all of its tables.
int inspect_device(CInspector& inspector, const survey_t& survey, const CDeviceProperties& device);

// The device's list of parameters, and that the table of `period` has their columns.
int inspect_params(CInspector& inspector, const CDeviceProperties& device,
                   std::vector<CParamProperties>& params);
int inspect_columns(CInspector& inspector, const CDeviceProperties& device,
                    const CPeriodProperties& period, const std::vector<CParamProperties>& params);

// The times and values of one table. `group` rows of it make one of the next coarser period, 0 for
// the coarsest.
int inspect_rows(CInspector& inspector, const CDeviceProperties& device,
                 const CPeriodProperties& period, int64_t group,
                 const std::vector<CParamProperties>& params);

// Whether the coarse rows are what the fine ones give, `group` of them one.
int inspect_groups(CInspector& inspector, const CDeviceProperties& device,
                   const CPeriodProperties& fine, const CPeriodProperties& coarse, int64_t group,
                   const std::vector<CParamProperties>& params);

}  // namespace toolkit::trend
