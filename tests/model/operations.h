#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model.h"

// The calls that a host can make of a log, as data: a sequence of them can be generated, replayed,
// cut down and printed.
namespace model {

enum class kind_t {
    OPEN,
    CLOSE,
    BEGIN,
    COMMIT,
    ROLL_BACK,
    VACUUM,
    CHECKPOINT,
    LIST_PERIODS,
    LIST_DEVICES,
    LIST_PARAMS,
    ADD_PERIOD,
    MODIFY_PERIOD,
    REMOVE_PERIOD,
    NEXT_BOUNDARY,
    PREVIOUS_BOUNDARY,
    RATIOS,
    ADD_DEVICE,
    MODIFY_DEVICE,
    REMOVE_DEVICE,
    ADD_PARAMS,
    MODIFY_PARAMS,
    REMOVE_PARAMS,
    RECORD,
    LATEST,
    FILL,
    READ,
    CLEAR,
};

// Who makes a call. The last one deletes a device's rows on the raw handle, in place of CLEAR.
enum class by_t {
    THE_LOG,
    ANOTHER_LOG,         // on the same file
    ANOTHER_IN_BETWEEN,  // the same, after the log has begun a transaction and before it reads
    THE_HANDLE,
};

// One call with its arguments; which of the fields count depends on the kind.
struct operation_t {
    kind_t kind = kind_t::LIST_PERIODS;
    by_t by = by_t::THE_LOG;

    device_t device;
    std::vector<param_t> params;

    // OPEN
    std::string name;
    bool read_only = false;
    bool create = true;
    uint64_t capacity = 0;

    period_t period;                // the one that is configured, or whose boundary is asked for
    std::vector<period_t> periods;  // READ and RATIOS
    std::vector<uint64_t> ratios;   // RATIOS: what the caller's list holds before

    int64_t time = 0;               // RECORD; FILL and the boundaries: "now"
    double percent = 100;           // RECORD
    std::vector<values_t> samples;  // RECORD
    bool mark_valid = false;        // FILL

    // READ, the first two also CLEAR
    int64_t first = NONE;
    int64_t second = NONE;
    uint64_t limit = 0;
    uint64_t offset = 0;
    bool ascending = true;
    bool no_overlap = false;
    bool in_place = false;  // the result object is the request
};

using operations_t = std::vector<operation_t>;

// What a call gives back. The lists and numbers mean something only for the kinds that return them,
// and, but for the ratios, only after a success.
struct reply_t {
    int64_t code = 0;
    std::vector<period_t> periods;
    std::vector<device_t> devices;
    std::vector<param_t> params;
    std::vector<uint64_t> ratios;
    int64_t time = 0;
    int64_t index = NONE;
    read_result_t read;
};

// Makes the call of the model.
reply_t apply(const operation_t& op, log_t& log);

// The call as a reader of a failed test wants to see it: one line, nothing left out.
std::string describe(const operation_t& op);

// A number as it must be written in a program to be the same to the last bit.
std::string text(double value);

// Whether the call changes what the file holds.
bool changes(kind_t kind);

// Whether the call must not be made of a log in this state: it would end the process by an
// assertion, or its result depends on the clock. Everything that the generator avoids, and that a
// replay of a shortened sequence passes over, stands here and only here.
bool out_of_bounds(const operation_t& op, const log_t& log);

// What there is to vary in a sequence: shorter lists, plainer values. Used to make a failing
// sequence easier to read.
std::vector<operation_t> simpler(const operation_t& op);

}  // namespace model
