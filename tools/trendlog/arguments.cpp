#include "command.h"
#include "numbers.h"

namespace trendlog {

std::string CArguments::text(const std::string& name, const std::string& otherwise) const
{
    const auto found = _values.find(name);
    return found == _values.end() || found->second.empty() ? otherwise : found->second.back();
}

std::vector<std::string> CArguments::words(const std::string& name) const
{
    const auto found = _values.find(name);
    return found == _values.end() ? std::vector<std::string>() : found->second;
}

std::vector<std::string> CArguments::list(const std::string& name) const
{
    std::vector<std::string> parts;
    const std::string all = text(name);
    for (size_t begin = 0; begin < all.size();) {
        const size_t end = std::min(all.find(',', begin), all.size());
        if (end > begin) parts.push_back(all.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

int64_t CArguments::integer(const std::string& name, int64_t otherwise, int64_t least,
                            int64_t most) const
{
    if (!has(name)) return otherwise;
    int64_t value = 0;
    if (!read_number(text(name), value) || value < least || value > most)
        throw usage_t(name + ": '" + text(name) + "' is no whole number of " + number_text(least) +
                      " or more");
    return value;
}

double CArguments::number(const std::string& name, double otherwise, double least,
                          double most) const
{
    if (!has(name)) return otherwise;
    double value = 0;
    if (!read_number(text(name), value) || !(value >= least && value <= most))
        throw usage_t(name + ": '" + text(name) + "' is no number from " + short_number(least) +
                      " to " + short_number(most));
    return value;
}

options_t operator+(options_t a, const options_t& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const options_t& common_options()
{
    static const options_t options = {
        {"--timeout", "TIME", "wait for a locked file, 5s unless given"},
        {"--quiet", "", "no progress and no remarks"},
        {"--help", "", "this text", {}, "-h"},
    };
    return options;
}

const options_t& output_options()
{
    static const options_t options = {
        {"--format",
         "FORMAT",
         "table (on a terminal), csv (else), tsv, json, jsonl",
         {"table", "csv", "tsv", "json", "jsonl"}},
        {"--tz", "ZONE", "show times and mean dates there, UTC unless given"},
    };
    return options;
}

const options_t& window_options()
{
    static const options_t options = {
        {"--from", "TIME", "from after this moment on: 2018-03-01, now-7d, last-1d"},
        {"--to", "TIME", "up to and including this moment"},
    };
    return options;
}

const options_t& dry_run_options()
{
    static const options_t options = {
        {"--dry-run", "", "count what would change, and change nothing"},
        {"--yes", "", "do it without asking", {}, "-y"},
    };
    return options;
}

}  // namespace trendlog
