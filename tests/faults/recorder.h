#pragma once

// A host that records minute by minute and may be killed at any moment, and what its file must hold
// whatever happened: the value of every row follows from its time.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "trend_api.h"

namespace recorder {

// What every log of this host has.
extern const std::vector<toolkit::trend::CPeriodProperties> PERIODS;

// Opens the log and stores what is missing of periods, device and parameters, as a host does after
// every start. -1 when a call fails; call it again then.
int start(toolkit::trend::CLog& log, const std::string& file, bool wal, const std::string& device,
          toolkit::trend::CDeviceParams& data);

// The row of the n-th minute, and recording it.
toolkit::trend::CSnapshot snapshot_of(size_t minute);
int record(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& data, size_t minute);

// The newest minute that the log has, 0 when there is none; -1 when it can't be read.
long newest(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& data);

// Makes every value of these first minutes so much larger than it was recorded, by one rebuild. No
// minute may have been trimmed.
int correct(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& data, size_t minutes,
            size_t shift);

// By how much the newest value is larger than it was recorded; -1 when it can't be read.
long shift_of(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& data);

// Whether the device's rows are what recording up to the newest minute has to leave: without gaps,
// values and roll-ups right, all larger by `shift`, none missing. Empty, or what is wrong.
std::string wrong_rows(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& data,
                       size_t shift = 0);

// Whether each view of a reader shows one moment of the first minutes of a device that others
// correct meanwhile; `others` lets them, within the view. Empty, or what is wrong.
std::string wrong_views(toolkit::trend::CLog& log, const toolkit::trend::CDeviceParams& data,
                        size_t minutes, const std::function<void()>& others);

// What SQLite finds wrong with the file; empty when nothing is.
std::string damage(const std::string& file);

// An empty folder in memory if there is one, as its name with a slash, removed by the destructor.
class folder_t {
public:
    folder_t();
    ~folder_t();

    folder_t(const folder_t&) = delete;
    folder_t& operator=(const folder_t&) = delete;

    const std::string _path;
};

}  // namespace recorder
