#include "input/lines.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "talk.h"
#include "trendlog.h"

namespace trendlog {

namespace {

constexpr size_t PIECE = 65536;
constexpr size_t LONGEST = 1 << 20;  // what comes in must not fill the memory

}  // namespace

CLines::CLines(const std::string& name) : _name(name == "-" ? "standard input" : name)
{
    _fd = name == "-" ? dup(STDIN_FILENO) : ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (_fd < 0) throw failure_t(_name + ": " + std::strerror(errno));
    struct stat status {};
    if (fstat(_fd, &status) == 0 && S_ISREG(status.st_mode)) _size = status.st_size;
    if (S_ISDIR(status.st_mode)) {
        ::close(_fd);
        throw failure_t(_name + ": a folder, not a file");
    }
}

CLines::~CLines() { ::close(_fd); }

bool CLines::take(std::string_view& line)
{
    for (;;) {
        const size_t end = _text.find('\n', _begin);
        const bool is_whole = end != std::string::npos;
        if (!is_whole && _text.size() - _begin < LONGEST && !(_at_end && _begin < _text.size()))
            return false;
        const size_t stop = is_whole ? end : _text.size();
        line = std::string_view(_text).substr(_begin, stop - _begin);
        _begin = is_whole ? end + 1 : stop;
        const bool rest = _skips;
        _skips = !is_whole && !_at_end;
        if (rest) continue;
        _is_cut = _skips || line.size() > LONGEST;
        ++_number;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        return true;
    }
}

bool CLines::fill(int milliseconds)
{
    if (_at_end) return false;
    _taken += static_cast<int64_t>(_begin);
    _text.erase(0, _begin);
    _begin = 0;
    pollfd wanted = {_fd, POLLIN, 0};
    const int ready = poll(&wanted, 1, milliseconds);
    if (ready == 0 || (ready < 0 && errno == EINTR)) return true;

    const size_t size = _text.size();
    _text.resize(size + PIECE);
    const ssize_t got = read(_fd, &_text[size], PIECE);
    _text.resize(size + static_cast<size_t>(got > 0 ? got : 0));
    if (got < 0 && errno != EINTR && errno != EAGAIN)
        throw failure_t(_name + ": cannot be read: " + std::strerror(errno));
    if (got == 0) _at_end = true;
    return !_at_end || !_text.empty();
}

double CLines::share() const
{
    if (_size <= 0) return -1;
    return static_cast<double>(_taken + static_cast<int64_t>(_begin)) / static_cast<double>(_size);
}

}  // namespace trendlog
