#pragma once

#include <charconv>
#include <cstddef>
#include <string_view>
#include <type_traits>

#include "trend_api.h"

// Composes SQL text of literals and whole numbers, without a buffer that could be too small:
//
//     sql_text("DROP TABLE trends_", device._index, "_", period._period)

namespace toolkit::trend {

constexpr size_t MAX_DIGITS = 20;  // of a 64-bit number with its sign

inline void append_piece(tk_string& text, std::string_view piece) { text.append(piece); }

template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
void append_piece(tk_string& text, Number number)
{
    char digits[MAX_DIGITS];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    text.append(digits, static_cast<size_t>(end - digits));
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
