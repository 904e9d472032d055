#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace trendlog {

// Lines of a file or of standard input, as they come.
class CLines {
public:
    // "-" is standard input. Throws failure_t.
    explicit CLines(const std::string& name);
    ~CLines();

    CLines(const CLines&) = delete;
    CLines& operator=(const CLines&) = delete;

    // The next line that has come, without its end; good until fill(). false where none is there
    // whole. The last one need not have an end.
    bool take(std::string_view& line);

    // Waits for more, for `milliseconds` at most (-1: for as long as it takes) or until a signal.
    // false at the end of the input. Throws failure_t.
    bool fill(int milliseconds);

    // Of the line that was taken last, from 1 on; whether it was too long and has been cut.
    uint64_t number() const { return _number; }
    bool is_cut() const { return _is_cut; }

    const std::string& name() const { return _name; }
    // How much has been taken of how much there is, 0 to 1; -1 where nobody knows.
    double share() const;

private:
    std::string _name;
    int _fd = -1;
    std::string _text;
    size_t _begin = 0;
    bool _at_end = false;
    bool _skips = false;  // the rest of a line that was too long
    bool _is_cut = false;
    uint64_t _number = 0;
    int64_t _size = -1;
    int64_t _taken = 0;
};

}  // namespace trendlog
