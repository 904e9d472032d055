#include <clocale>
#include <csignal>

#include <CLI/CLI.hpp>

#include "command.h"
#include "output/sink.h"
#include "talk.h"

namespace trendlog {

namespace {

// The command whose name of one or two words the arguments begin with, and how many words it has.
const command_t* find_command(const commands_t& commands, const std::vector<std::string>& words,
                              size_t& n)
{
    for (n = std::min<size_t>(words.size(), 2); n > 0; --n) {
        const std::string name = n == 2 ? words[0] + " " + words[1] : words[0];
        for (const command_t& command : commands)
            if (name == command._name) return &command;
    }
    return nullptr;
}

// The library that parses knows one command at a time, made from its entry in the table.
CArguments parse(const command_t& command, std::vector<std::string> words)
{
    CLI::App app;
    app.set_help_flag();
    CArguments arguments;
    std::map<std::string, std::vector<std::string>> values;
    std::map<std::string, size_t> flags;
    std::vector<std::pair<std::string, CLI::Option*>> options;

    for (const argument_t& argument : command._arguments) {
        CLI::Option* const option =
            app.add_option(argument._name, values[argument._name], argument._help);
        option->required(argument._required);
        if (!argument._many) option->expected(1)->allow_extra_args(false);
        options.emplace_back(argument._name, option);
    }
    for (const option_t& each : command._options) {
        const std::string names =
            *each._short ? std::string(each._short) + "," + each._name : each._name;
        CLI::Option* option = nullptr;
        if (*each._value) {
            option = app.add_option(names, values[each._name], each._help);
            option->expected(1)->allow_extra_args(false)->multi_option_policy(
                CLI::MultiOptionPolicy::TakeLast);
        } else {
            option = app.add_flag(names, flags[each._name], each._help);
        }
        if (!each._choices.empty()) {
            std::vector<std::string> choices(each._choices.begin(), each._choices.end());
            option->check([name = std::string(each._name), choices](const std::string& value) {
                if (std::find(choices.begin(), choices.end(), value) != choices.end())
                    return std::string();
                std::string known;
                for (const std::string& choice : choices)
                    known += (known.empty() ? "" : ", ") + choice;
                return "'" + value + "' is none of " + known;
            });
        }
        options.emplace_back(each._name, option);
    }

    try {
        std::reverse(words.begin(), words.end());
        app.parse(words);
    } catch (const CLI::ParseError& error) {
        throw usage_t(error.what());
    }
    for (const auto& [name, option] : options)
        if (option->count() > 0) arguments._values[name] = values[name];
    return arguments;
}

std::string advice(const std::string& name)
{
    return "; see trendlog " + (name.empty() ? "" : name + " ") + "--help";
}

int print(const std::string& text)
{
    CSink sink;
    sink.add(text);
    sink.flush();
    return EXIT_DONE;
}

int generate(const commands_t& commands, const std::string& what)
{
    if (what == "manual") return print(manual_text(commands));
    if (what == "completion") return print(completion_text(commands));
    throw usage_t("--generate: '" + what + "' is none of manual, completion");
}

int run(const commands_t& commands, const std::vector<std::string>& words)
{
    const std::string first = words.empty() ? "--help" : words[0];
    if (first == "--help" || first == "-h") return print(overview_text(commands));
    if (first == "--version") return print("trendlog " TRENDLOG_VERSION "\n");
    if (first == "--generate" && words.size() == 2) return generate(commands, words[1]);
    size_t begin = 0;
    if (first == "help") {
        const std::vector<std::string> rest(words.begin() + 1, words.end());
        const command_t* const command = find_command(commands, rest, begin);
        return print(command ? help_text(*command) : overview_text(commands));
    }

    const command_t* const command = find_command(commands, words, begin);
    if (!command) throw usage_t("there is no command '" + first + "'" + advice(""));
    const std::vector<std::string> rest(words.begin() + static_cast<std::ptrdiff_t>(begin),
                                        words.end());
    for (const std::string& word : rest)
        if (word == "--help" || word == "-h") return print(help_text(*command));
    try {
        const CArguments arguments = parse(*command, rest);
        if (arguments.has("--quiet")) be_quiet();
        return command->_run(arguments);
    } catch (const usage_t& usage) {
        throw usage_t(usage.what() + advice(command->_name));
    }
}

}  // namespace

int run_program(const commands_t& commands, int argc, char** argv)
{
    int signal = 0;
    try {
        std::setlocale(LC_CTYPE, "");  // which characters the terminal has
        catch_library_lines();
        watch_signals();
        return run(commands, std::vector<std::string>(argv + 1, argv + argc));
    } catch (const failure_t& failure) {
        say(failure.what());
        return failure._code;
    } catch (const closed_t&) {
        return EXIT_DONE;  // whoever reads has enough
    } catch (const interrupted_t& interrupted) {
        signal = interrupted._signal;
    } catch (const std::bad_alloc&) {
        say("not enough memory");
        return EXIT_FAILED;
    } catch (const std::exception& error) {
        say(error.what());
        return EXIT_FAILED;
    }
    // Everything has been cleaned up: now it may end as others expect it to.
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    return EXIT_FAILED;
}

}  // namespace trendlog
