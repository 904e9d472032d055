#include <algorithm>

#include "command.h"
#include "output/writer.h"

namespace trendlog {

namespace {

constexpr size_t WIDTH = 79;

// Words in lines of at most WIDTH columns, all but the first indented.
std::string wrapped(const std::string& text, size_t indent, size_t first)
{
    std::string out;
    size_t column = first;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (column > indent && column + 1 + shown_width(word) > WIDTH) {
            out += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (begin > 0) {
            out += ' ';
            ++column;
        }
        out += word;
        column += shown_width(word);
        begin = end + 1;
    }
    return out;
}

std::string usage_of(const command_t& command)
{
    std::string text = std::string("trendlog ") + command._name;
    for (const argument_t& argument : command._arguments) {
        std::string word = std::string(argument._name) + (argument._many ? "..." : "");
        text += argument._required ? " " + word : " [" + word + "]";
    }
    return text + " [option...]";
}

std::string name_of(const option_t& option)
{
    std::string text = option._name;
    if (*option._short) text = std::string(option._short) + ", " + text;
    return *option._value ? text + " " + option._value : text;
}

}  // namespace

std::string help_text(const command_t& command)
{
    std::string text = "usage: " + wrapped(usage_of(command), 9, 7) + "\n";
    text += wrapped(std::string(command._summary) + ". " + command._text, 0, 0) + "\n";

    std::vector<std::pair<std::string, std::string>> lines;
    for (const argument_t& argument : command._arguments)
        if (std::string(argument._name) != "FILE")
            lines.emplace_back(argument._name, argument._help);
    for (const option_t& option : command._options)
        lines.emplace_back(name_of(option), option._help);
    size_t width = 0;
    for (const auto& [name, help] : lines)
        width = std::max(width, name.size());
    for (const auto& [name, help] : lines)
        text += "  " + padded(name, width) + "  " + wrapped(help, width + 4, width + 4) + "\n";
    for (const example_t& example : command._examples)
        text += "  $ " + std::string(example._line) + "\n";
    return text;
}

std::string overview_text(const commands_t& commands)
{
    std::string text =
        "trendlog COMMAND FILE [argument...] [option...]\n"
        "Looks into the file of a trend log, configures it, moves data and takes care of it.\n";
    const char* const titles[] = {"Looking", "Changing", "Data and care"};
    for (const section_t section : {SECTION_LOOK, SECTION_CHANGE, SECTION_DATA}) {
        bool any = false;
        for (const command_t& command : commands) {
            if (command._section != section) continue;
            if (!any) text += std::string(titles[section]) + ":\n";
            any = true;
            text += "  " + padded(command._name, 14) + "  " + command._summary + "\n";
        }
    }
    return text +
           "`trendlog COMMAND --help` says more, `man trendlog` all. Exit codes: 0 done, 1 "
           "failed,\n"
           "2 usage, 3 findings, 4 locked or not a trend log.\n";
}

}  // namespace trendlog
