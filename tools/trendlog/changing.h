#pragma once

#include <functional>
#include <string>
#include <vector>

#include "log_file.h"
#include "trend_reader.h"
#include "trend_recorder.h"

// What the commands that change a log have in common.

namespace trendlog {

// What a change has come to.
struct outcome_t {
    std::string _text;      // "period 15m removed, with 2976 rows"
    uint64_t _dropped = 0;  // rows and values that are gone by it for good
};

// Makes the change and counts, inside a transaction. 0, or the code of the library's call that
// failed; it may throw too. It may be called again, with an empty outcome.
using change_t = std::function<int(CLog&, outcome_t&)>;

// Makes a change and tells what it has come to. One that drops something is rolled back, told and
// asked about first, unless --yes; with --dry-run every one is rolled back.
exit_code_t make_change(CLogFile& file, const CArguments& arguments, const change_t& work);

// The questions and answers of make_change(), for changes that are no single transaction.
bool is_dry_run(const CArguments& arguments);
// Whether to go on, where so much would be dropped. Throws where nobody can be asked.
bool has_consent(const CLogFile& file, const CArguments& arguments, const outcome_t& outcome);
// One line on standard output.
void tell_outcome(const CLogFile& file, const CArguments& arguments, const std::string& text);

// Within a change ------------------------------------------------------------------------------

// The library's lists as they are in the transaction.
int find_device(CLogFile& file, const std::string& path, CDeviceProperties& device);
int find_param(CLogFile& file, const CDeviceProperties& device, const std::string& path,
               CParamProperties& param);

// What the device's tables hold of `params` within `bounds`; nothing for a device without any.
int look_at_tables(CLog& log, const CDeviceProperties& device,
                   const std::vector<CParamProperties>& params, const timebounds_t& bounds,
                   std::vector<CCoverage>& tables);
// Their rows together.
uint64_t rows_of(const std::vector<CCoverage>& tables);

// Moves the labels of a device, or of one of its parameters, to another path; an empty one drops
// them.
int move_labels(CLog& log, const std::string& device, const std::string& new_device);
int move_labels(CLog& log, const std::string& device, const std::string& param,
                const std::string& new_param);

// Of options -----------------------------------------------------------------------------------

// "1:2880,15:2976": finest first, each a multiple of the one before. Throws usage_t.
std::vector<CPeriodProperties> parse_periods(const std::string& text);

// --keep and --kind: what a new parameter is.
class CRecipe {
public:
    // Throws usage_t.
    explicit CRecipe(const CArguments& arguments);

    // The kind that --kind gives this one, or all; READING_LISTEND without a word about it.
    reading_kind_t kind_of(const std::string& param) const;
    bool has_keep() const { return !_keep.empty(); }

    // With what --keep says, else with what its kind is usually kept with: min, max and avg, or of
    // counters and totals sum.
    CParamProperties make(const std::string& param) const;

private:
    std::vector<std::string> _keep;
    std::vector<std::pair<std::string, reading_kind_t>> _kinds;  // an empty name for all
};
const options_t& recipe_options();  // --keep --kind

}  // namespace trendlog
