#include "talk.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace trendlog {

namespace {

FILE* terminal = nullptr;  // standard error as it was given to us
bool quiet = false;

// The library's lines --------------------------------------------------------------------------

// The newest of what the library has said. What it says of one failure is a few lines.
char caught[4096];
size_t caught_size = 0;

ssize_t keep_lines(void*, const char* text, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        if (caught_size == sizeof caught) {
            caught_size = sizeof caught / 2;
            std::memmove(caught, caught + caught_size, caught_size);
        }
        caught[caught_size++] = text[i];
    }
    return static_cast<ssize_t>(size);
}

// The library stops a program with a line and abort(): that line must not be lost.
void on_abort(int)
{
    const ssize_t written = write(STDERR_FILENO, caught, caught_size);
    static_cast<void>(written);
}

volatile std::sig_atomic_t caught_signal = 0;

void on_signal(int signal) { caught_signal = signal; }

}  // namespace

void catch_library_lines()
{
    terminal = stderr;
    cookie_io_functions_t functions{};
    functions.write = keep_lines;
    FILE* const stream = fopencookie(nullptr, "w", functions);
    if (!stream) return;
    std::setvbuf(stream, nullptr, _IONBF, 0);
    stderr = stream;
    std::signal(SIGABRT, on_abort);
}

std::string library_line()
{
    std::string text(caught, caught_size);
    caught_size = 0;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    const size_t begin = text.find_last_of('\n');
    return begin == std::string::npos ? text : text.substr(begin + 1);
}

// Saying ---------------------------------------------------------------------------------------

void say(const std::string& text)
{
    FILE* const stream = terminal ? terminal : stderr;
    std::fprintf(stream, "trendlog: %s\n", text.c_str());
    std::fflush(stream);
}

bool can_ask() { return is_terminal(STDIN_FILENO) && is_terminal(STDERR_FILENO); }

bool ask(const std::string& question)
{
    std::fprintf(terminal ? terminal : stderr, "%s [y/N] ", question.c_str());
    std::fflush(terminal ? terminal : stderr);
    char answer[64] = {};
    if (!std::fgets(answer, sizeof answer, stdin)) return false;
    return answer[0] == 'y' || answer[0] == 'Y';
}

void be_quiet() { quiet = true; }
bool is_quiet() { return quiet; }

void remark(const std::string& text)
{
    if (!quiet) say(text);
}

// The terminal ---------------------------------------------------------------------------------

namespace {

bool window_size(winsize& size)
{
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ||
           ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0;
}

int number_of(const char* variable)
{
    const char* const text = std::getenv(variable);
    return text ? std::atoi(text) : 0;
}

}  // namespace

bool is_terminal(int fd) { return isatty(fd) != 0; }

int terminal_columns()
{
    winsize size{};
    if (window_size(size) && size.ws_col > 0) return size.ws_col;
    const int told = number_of("COLUMNS");
    return told > 0 ? told : 80;
}

int terminal_lines()
{
    winsize size{};
    if (window_size(size) && size.ws_row > 0) return size.ws_row;
    const int told = number_of("LINES");
    return told > 0 ? told : 24;
}

bool has_utf8() { return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0; }

bool wants_colour(int fd)
{
    const char* const no_colour = std::getenv("NO_COLOR");
    const char* const kind = std::getenv("TERM");
    if (no_colour && *no_colour) return false;
    return is_terminal(fd) && kind && std::strcmp(kind, "dumb") != 0;
}

// Progress -------------------------------------------------------------------------------------

void CProgress::at(uint64_t done, double share)
{
    constexpr uint64_t EVERY = 256;  // the clock is not asked for each row
    if (!terminal || ++_calls % EVERY != 1) return;
    const clock_t::time_point now = clock_t::now();
    if (now < _next || quiet || !is_terminal(STDERR_FILENO)) return;
    _next = now + std::chrono::milliseconds(200);
    _shown = true;

    const double took = std::chrono::duration<double>(now - _began).count();
    std::fprintf(terminal, "\r\033[K%s: %ju, %.0f/s", _what.c_str(), static_cast<uintmax_t>(done),
                 static_cast<double>(done) / took);
    if (share > 0)
        std::fprintf(terminal, ", %.0f %%, %.0f s left", share * 100, took / share - took);
    std::fflush(terminal);
}

CProgress::~CProgress()
{
    if (!_shown) return;
    std::fputs("\r\033[K", terminal);
    std::fflush(terminal);
}

// Signals --------------------------------------------------------------------------------------

void watch_signals()
{
    struct sigaction action {};
    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // the second one ends it whatever it does
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a write says it too
}

bool is_interrupted() { return caught_signal != 0; }

void throw_if_interrupted()
{
    if (caught_signal != 0) throw interrupted_t{caught_signal};
}

}  // namespace trendlog
