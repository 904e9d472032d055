#include <algorithm>

#include "command.h"

namespace trendlog {

namespace {

// A text for mdoc: what it would take for a request or an escape stays text.
std::string mdoc(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool begins = i == 0 || text[i - 1] == '\n';
        if (begins && (text[i] == '.' || text[i] == '\'')) out += "\\&";
        if (text[i] == '\\')
            out += "\\e";
        else if (text[i] == '-')
            out += "\\-";
        else
            out += text[i];
    }
    return out;
}

// Sentences begin on lines of their own, as mdoc wants them, and lines are short.
std::string sentences(const std::string& text)
{
    constexpr size_t LONG = 64;
    std::string out;
    size_t column = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool ends = i > 0 && (text[i - 1] == '.' || text[i - 1] == '?' || column > LONG);
        const bool breaks = text[i] == ' ' && ends;
        out += breaks ? '\n' : text[i];
        column = breaks ? 0 : column + 1;
    }
    return mdoc(out);
}

std::string manual_of(const command_t& command)
{
    std::string text = std::string(".It Cm ") + command._name;
    for (const argument_t& argument : command._arguments) {
        text += argument._required ? " Ar " : " Op Ar ";
        text += argument._name;
        if (argument._many) text += " ...";
    }
    text += "\n" + sentences(std::string(command._summary) + ". " + command._text) + "\n";
    text += ".Bl -tag -width Ds -compact\n";
    for (const argument_t& argument : command._arguments)
        if (std::string(argument._name) != "FILE")
            text +=
                std::string(".It Ar ") + argument._name + "\n" + sentences(argument._help) + "\n";
    for (const option_t& option : command._options) {
        const auto& common = common_options();
        const auto is_same = [&](const option_t& each) { return each._name == option._name; };
        if (std::any_of(common.begin(), common.end(), is_same)) continue;
        text += ".It ";
        if (*option._short) text += "Fl " + mdoc(option._short + 1) + " , ";
        text += "Fl " + mdoc(option._name + 1);
        if (*option._value) text += std::string(" Ar ") + option._value;
        text += "\n" + sentences(option._help) + "\n";
    }
    text += ".El\n.Bd -literal -offset indent\n";
    for (const example_t& example : command._examples)
        text += "# " + mdoc(example._what) + "\n" + mdoc(example._line) + "\n";
    return text + ".Ed\n";
}

}  // namespace

std::string manual_text(const commands_t& commands)
{
    std::string text =
        ".Dd $Mdocdate$\n"
        ".Dt TRENDLOG 1\n"
        ".Os\n"
        ".Sh NAME\n"
        ".Nm trendlog\n"
        ".Nd look into the file of a trend log, configure it, move data, take care of it\n"
        ".Sh SYNOPSIS\n"
        ".Nm trendlog\n"
        ".Ar command\n"
        ".Ar file\n"
        ".Op Ar argument ...\n"
        ".Op Ar option ...\n"
        ".Sh DESCRIPTION\n";
    text += sentences(
        "A trend log is one SQLite file in which devices have rows of values, one for each "
        "interval of a period, and coarser rows made of them. Data is given out on standard "
        "output, everything else is said on standard error. A file that is only looked at is "
        "opened read-only and not changed by one byte.");
    text += "\n.Ss Options of every command\n.Bl -tag -width Ds -compact\n";
    for (const option_t& option : common_options()) {
        text += ".It Fl " + mdoc(option._name + 1);
        if (*option._value) text += std::string(" Ar ") + option._value;
        text += "\n" + sentences(option._help) + "\n";
    }
    text +=
        ".El\n"
        ".Ss Times\n";
    text += sentences(
        "Epoch seconds, RFC 3339 with any offset, a date or a date with a time in the zone of "
        "--tz, now, today, and first and last, the first and the last moment that is stored; each "
        "of these words with a duration added or taken away, like now-7d. Durations have the "
        "units s, m, h, d and w. A row is named by the end of its interval: a day begins after "
        "midnight and includes the next one.");
    text += "\n";
    const char* const titles[] = {"Commands that look", "Commands that change",
                                  "Commands for data and care"};
    for (const section_t section : {SECTION_LOOK, SECTION_CHANGE, SECTION_DATA}) {
        const auto is_in = [&](const command_t& command) { return command._section == section; };
        if (std::none_of(commands.begin(), commands.end(), is_in)) continue;
        text += std::string(".Ss ") + titles[section] + "\n.Bl -tag -width Ds\n";
        for (const command_t& command : commands)
            if (is_in(command)) text += manual_of(command);
        text += ".El\n";
    }
    return text +
           ".Sh ENVIRONMENT\n"
           ".Bl -tag -width Ds\n"
           ".It Ev NO_COLOR\n"
           "Where it is set, nothing is coloured.\n"
           ".It Ev TZ\n"
           "What\n"
           ".Fl \\-tz Ar local\n"
           "stands for.\n"
           ".El\n"
           ".Sh EXIT STATUS\n"
           "0 when done, 1 after a failure, 2 for wrong usage, 3 when\n"
           ".Cm check\n"
           "has found a warning or an error, 4 when the file is locked or not a trend log.\n";
}

namespace {

std::string joined(const std::vector<const char*>& words)
{
    std::string text;
    for (const char* const word : words)
        text += (text.empty() ? "" : " ") + std::string(word);
    return text;
}

}  // namespace

std::string completion_text(const commands_t& commands)
{
    std::vector<std::string> first;  // the first word of each command
    std::string second, options, values;
    for (const command_t& command : commands) {
        const std::string name = command._name;
        const size_t space = name.find(' ');
        if (std::find(first.begin(), first.end(), name.substr(0, space)) == first.end())
            first.push_back(name.substr(0, space));
        if (space != std::string::npos)
            second += "        " + name.substr(0, space) + ") second+=' " + name.substr(space + 1) +
                      "' ;;&\n";
        std::string names;
        for (const option_t& option : command._options) {
            names += " " + std::string(option._name);
            if (!option._choices.empty())
                values += "        '" + name + " " + option._name + "') words='" +
                          joined(option._choices) + "' ;;\n";
        }
        options += "        '" + name + "') words='" + names.substr(1) + "' ;;\n";
    }
    std::string all;
    for (const std::string& word : first)
        all += (all.empty() ? "" : " ") + word;

    return "# Completion of trendlog for bash: commands, options, their values, files.\n"
           "_trendlog() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
           "    local command=${COMP_WORDS[1]} words='' second='' at=2\n"
           "    COMPREPLY=()\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W '" +
           all +
           "' -- \"$word\")\n"
           "        return\n"
           "    fi\n"
           "    case $command in\n" +
           second +
           "        *) ;;\n"
           "    esac\n"
           "    if [ -n \"$second\" ]; then\n"
           "        if [ \"$COMP_CWORD\" -eq 2 ]; then\n"
           "            mapfile -t COMPREPLY < <(compgen -W \"$second\" -- \"$word\")\n"
           "            return\n"
           "        fi\n"
           "        command=\"$command ${COMP_WORDS[2]}\"\n"
           "        at=3\n"
           "    fi\n"
           "    case \"$command $before\" in\n" +
           values +
           "        *) ;;\n"
           "    esac\n"
           "    if [ -z \"$words\" ] && [[ $word == -* ]]; then\n"
           "        case $command in\n" +
           options +
           "            *) ;;\n"
           "        esac\n"
           "    fi\n"
           "    if [ -n \"$words\" ]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
           "    elif [ \"$COMP_CWORD\" -eq \"$at\" ]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
           "    fi\n"
           "}\n"
           "complete -o filenames -o bashdefault -F _trendlog trendlog\n";
}

}  // namespace trendlog
