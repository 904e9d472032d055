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
    // A sparse log has free pages, a crashed one a transaction that was half written.
    enum base_t { NOTHING, VERSION_0, VERSION_1, LOG, SPARSE_LOG, CRASHED_LOG };

    enum traits_t : unsigned int {
        NO_TRAITS = 0,
        OPENS = 1,                  // opens the log itself
        KEEPS = 2,                  // leaves what the log holds
        READS = KEEPS | 4,          // does nothing but read
        LOOKS = READS | 8,          // would be tolerant in a host's transaction
        TOLERANT = READS | 16,      // succeeds with its first lines when it breaks off
        VACUUMS = KEEPS | 32,       // leaves no free pages
        CHECKPOINTS = KEEPS | 64,   // leaves nothing in the write-ahead log
        ROLLS_BACK = KEEPS | 128,   // undoes what it has done
        READ_ONLY = 256,            // on a log that is open for reading
        TEMPORARY_IN_MEMORY = 512,  // on a log that keeps its temporary storage in memory
        REMEMBERS = 1024,           // on a log that remembers the device, if it is warm
        LONG = 2048,                // makes so many calls that a sweep takes a sample of them
    };

    const char* _name;
    base_t _base;
    unsigned int _traits;
    int _success;
    answer_t (*_run)(toolkit::trend::CLog& log, const setting_t& setting);

    bool is(traits_t trait) const { return (_traits & trait) == trait; }
    bool has_devices() const { return _base >= LOG; }
};

const std::vector<step_t>& steps();

constexpr const char* LOG_FILE = "trend.db";

// Of the traits READ_ONLY and TEMPORARY_IN_MEMORY matter.
int open_log(toolkit::trend::CLog& log, const setting_t& setting, bool create,
             unsigned int traits = step_t::NO_TRAITS);

// The disk on which the step begins, as a process that has ended properly left it.
const disk::image_t& base_image(step_t::base_t base, bool wal);

// Opens the log as the setting and the traits want it, ready for the step.
int prepare(toolkit::trend::CLog& log, const setting_t& setting,
            unsigned int traits = step_t::NO_TRAITS);

// Configures an empty log and records in it, calling `acknowledge` with each result.
void build_up(toolkit::trend::CLog& log, const std::function<void(int)>& acknowledge);

// Records one row on a device that no step touches: whether the log still works.
int record_elsewhere(toolkit::trend::CLog& log);

// All that the log's file holds, or what SQLite finds wrong with it, beginning with "!". Of the
// crashed file: as the next process would find it if this one were gone now; of the file alone: the
// same without its write-ahead log; of the live file: as another process sees it now.
std::string crashed_view();
std::string view_of_file_alone();
void forget_views();  // which both remember

// How many of the live file's pages are free.
int free_pages();
std::string live_view();
std::string view_of(const disk::image_t& image);
