#pragma once

#include <string>
#include <string_view>

namespace trendlog {

// Standard output, in large pieces. One that nobody reads any more throws closed_t, any other
// failure is a failure_t.
struct closed_t {};

class CSink {
public:
    ~CSink() = default;

    void add(std::string_view text)
    {
        _text += text;
        if (!_held && _text.size() >= SIZE) flush();
    }

    // What is to be added to directly, and then said to be complete.
    std::string& text() { return _text; }
    void added()
    {
        if (!_held && _text.size() >= SIZE) flush();
    }

    // Nothing is written while it is held: not as long as a read keeps others from the file, and
    // whoever reads our output is slow.
    void hold(bool held) { _held = held; }
    size_t size() const { return _text.size(); }

    void flush();

private:
    static constexpr size_t SIZE = 65536;
    std::string _text;
    bool _held = false;
};

}  // namespace trendlog
