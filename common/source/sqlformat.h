#pragma once

#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "trend_api.h"

// Composes SQL text of literals and whole numbers, without a buffer that could be too small:
//
//     sql_text("DROP TABLE trends_", device._index, "_", period._period)

namespace toolkit::trend {

constexpr size_t MAX_DIGITS = 20;  // of a 64-bit number with its sign

// Write a piece where there is room for it; the result is where the next one goes.
inline char* write_piece(char* out, std::string_view piece)
{
    std::memcpy(out, piece.data(), piece.size());
    return out + piece.size();
}

template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
char* write_piece(char* out, Number number)
{
    return std::to_chars(out, out + MAX_DIGITS, number).ptr;
}

inline void append_piece(tk_string& text, std::string_view piece) { text.append(piece); }

template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
void append_piece(tk_string& text, Number number)
{
    char digits[MAX_DIGITS];
    text.append(digits, static_cast<size_t>(write_piece(digits, number) - digits));
}

inline size_t piece_size(std::string_view piece) { return piece.size(); }

template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
size_t piece_size(Number)
{
    return MAX_DIGITS;
}

template <typename... Pieces>
void append_sql(tk_string& text, const Pieces&... pieces)
{
    (append_piece(text, pieces), ...);
}

template <typename... Pieces>
tk_string sql_text(const Pieces&... pieces)
{
    tk_string text;
    text.reserve((piece_size(pieces) + ...));
    append_sql(text, pieces...);
    return text;
}

}  // namespace toolkit::trend
