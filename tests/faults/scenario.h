#pragma once

// Every operation that changes or reads a log, each as a step on a prepared file, and the views of
// the file that a step must leave as they were or as they should be.

#include <functional>
#include <string>
#include <vector>

#include "disk.h"
#include "trend_api.h"

// How a log is used while a step is taken.
struct setting_t {
    bool _wal;
    bool _warm;  // the connection has read everything before, else it has just been opened

    std::string name() const;
};

inline const std::vector<setting_t> SETTINGS = {
    {true, true}, {true, false}, {false, true}, {false, false}};

// What a step returns, and what it has read as text.
struct answer_t {
    int _code = 0;
    std::string _text;
};

struct step_t {
    enum base_t { NOTHING, VERSION_0, VERSION_1, LOG };

    const char* _name;
    base_t _base;
    bool _opens;     // opens the log itself
    bool _tolerant;  // succeeds with the beginning of its text when a read breaks off
    int _success;
    answer_t (*_run)(toolkit::trend::CLog& log, const setting_t& setting);
};

const std::vector<step_t>& steps();

constexpr const char* LOG_FILE = "trend.db";

int open_log(toolkit::trend::CLog& log, const setting_t& setting, bool create);

// The disk on which the step begins, as a process that has ended properly left it.
const disk::image_t& base_image(step_t::base_t base, bool wal);

// Opens the log as the setting wants it, ready for the step.
int prepare(toolkit::trend::CLog& log, const setting_t& setting);

// Configures an empty log and records in it, calling `acknowledge` with each result.
void build_up(toolkit::trend::CLog& log, const std::function<void(int)>& acknowledge);

// Records one row on a device that no step touches: whether the log still works.
int record_elsewhere(toolkit::trend::CLog& log);

// All that the log's file holds, or what SQLite finds wrong with it, beginning with "!". Of the
// crashed file: as the next process would find it if this one were gone now; of the live file: as
// another process sees it now.
std::string crashed_view();  // remembers what it has seen, until forget_views()
void forget_views();
std::string live_view();
std::string view_of(const disk::image_t& image);
