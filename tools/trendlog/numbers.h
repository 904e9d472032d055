#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>

namespace trendlog {

// Room for any number of the functions below.
constexpr size_t NUMBER_SIZE = 32;

// The shortest digits that read back as the same double, and an integer: appended to `text`.
inline void append_number(std::string& text, double value)
{
    char digits[NUMBER_SIZE];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

inline void append_number(std::string& text, int64_t value)
{
    char digits[NUMBER_SIZE];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

inline std::string number_text(int64_t value)
{
    std::string text;
    append_number(text, value);
    return text;
}

// For reading: at most so many digits.
inline std::string short_number(double value, int digits = 6)
{
    char text[NUMBER_SIZE];
    return std::string(
        text,
        std::to_chars(text, text + sizeof text, value, std::chars_format::general, digits).ptr);
}

// "1 row", "2 rows".
inline std::string counted(uint64_t n, const char* what)
{
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// Reads the whole of `text`; false where it is no number, or does not fit.
template <typename Number>
bool read_number(const std::string& text, Number& value)
{
    const char* const begin = text.data() + (text.size() > 1 && text[0] == '+' ? 1 : 0);
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(begin, end, value);
    return error == std::errc() && last == end && begin != end;
}

}  // namespace trendlog
