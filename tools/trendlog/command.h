#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "trendlog.h"

namespace trendlog {

// The words behind a command.
struct argument_t {
    const char* _name;  // "FILE", by which the command asks for it
    const char* _help;
    bool _required = true;
    bool _many = false;  // takes all words that are left; the last one only
};

struct option_t {
    const char* _name;                       // "--from", by which the command asks for it
    const char* _value;                      // what its value is called, "TIME"; empty for a flag
    const char* _help;                       // what it does, with the default
    std::vector<const char*> _choices = {};  // the only values that there are
    const char* _short = "";                 // "-y"
};

// A line that the tests run, in a folder with the log plant.db, and that must succeed.
struct example_t {
    const char* _line;
    const char* _what;
};

enum section_t { SECTION_LOOK, SECTION_CHANGE, SECTION_DATA };

// What the user has given.
class CArguments {
public:
    bool has(const std::string& name) const { return _values.count(name) != 0; }

    // The value of an argument or option, `otherwise` where it was left out.
    std::string text(const std::string& name, const std::string& otherwise = "") const;

    // Its values, of an argument with many words or of an option with a list between commas.
    std::vector<std::string> words(const std::string& name) const;
    std::vector<std::string> list(const std::string& name) const;

    // A number of an option, within the bounds or a usage_t.
    int64_t integer(const std::string& name, int64_t otherwise, int64_t least,
                    int64_t most = INT64_MAX) const;
    double number(const std::string& name, double otherwise, double least, double most) const;

    std::map<std::string, std::vector<std::string>> _values;
};

// An entry of the table. Each command's file has a function that gives its own.
struct command_t {
    const char* _name;  // "info", or two words, "period add"
    section_t _section;
    const char* _summary;  // a line of the list of commands
    const char* _text;     // what there is to say besides, a few sentences
    std::vector<argument_t> _arguments;
    std::vector<option_t> _options;
    std::vector<example_t> _examples;  // two
    exit_code_t (*_run)(const CArguments&);
};

using commands_t = std::vector<command_t>;

// Options that several commands share, to be put together with their own.
using options_t = std::vector<option_t>;
options_t operator+(options_t a, const options_t& b);
const options_t& common_options();   // of every command: --timeout --quiet --help
const options_t& output_options();   // of those that give out rows: --format --tz
const options_t& window_options();   // --from --to
const options_t& dry_run_options();  // of those that change content: --dry-run -y

// Parses, runs, and gives the program's exit code. Nothing is thrown.
int run_program(const commands_t& commands, int argc, char** argv);

// The command's usage, options and examples, within 80 columns and 24 lines.
std::string help_text(const command_t& command);
// The list of commands.
std::string overview_text(const commands_t& commands);
// The manual page in mdoc, and the completion for bash.
std::string manual_text(const commands_t& commands);
std::string completion_text(const commands_t& commands);

}  // namespace trendlog
