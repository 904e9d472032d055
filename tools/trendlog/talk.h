#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace trendlog {

// All that is said on standard error. What the library reports there is caught instead: it names
// functions of the library, where the user wants to know what is the matter with the file.

// Begins to catch the library's lines. An assertion's text is let out all the same.
void catch_library_lines();

// The last of the lines caught since the last call, none being empty.
std::string library_line();

// "trendlog: TEXT" in a line.
void say(const std::string& text);

// Says less: no progress and no remarks, failures only.
void be_quiet();
bool is_quiet();

// Puts a question to whoever sits at the terminal, and whether the answer is yes. Without a
// terminal nobody can be asked.
bool can_ask();
bool ask(const std::string& question);

// A remark, left out when quiet.
void remark(const std::string& text);

// Whether standard output or standard error (1, 2) is a terminal; its columns (80 where it does not
// say); whether it has the characters of UTF-8; whether colour is wanted there.
bool is_terminal(int fd);
int terminal_columns();
int terminal_lines();
bool has_utf8();
bool wants_colour(int fd);

// How far work has come, on a terminal after a second of it, in one line that is written over.
class CProgress {
public:
    explicit CProgress(std::string what) : _what(std::move(what)) {}
    ~CProgress();

    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    // So many have been done, which is a share of 0 to 1 of the work; -1 where nobody knows.
    void at(uint64_t done, double share);

private:
    using clock_t = std::chrono::steady_clock;
    std::string _what;
    clock_t::time_point _began = clock_t::now();
    clock_t::time_point _next = _began + std::chrono::seconds(1);
    uint64_t _calls = 0;
    bool _shown = false;
};

// SIGINT and SIGTERM ask for the end instead of bringing it, so that a command leaves nothing
// behind. throw_if_interrupted() throws interrupted_t once one has come.
struct interrupted_t {
    int _signal;
};
void watch_signals();
bool is_interrupted();
void throw_if_interrupted();

}  // namespace trendlog
