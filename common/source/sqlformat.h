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

// A literal, whose length the compiler knows.
template <size_t N>
char* write_piece(char* out, const char (&literal)[N])
{
    std::memcpy(out, literal, N - 1);
    return out + (N - 1);
}

template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
char* write_piece(char* out, Number number)
{
    return std::to_chars(out, out + MAX_DIGITS, number).ptr;
}

template <typename... Pieces>
char* write_pieces(char* out, const Pieces&... pieces)
{
    ((out = write_piece(out, pieces)), ...);
    return out;
}

// How long a piece can be whose type tells.
template <typename Piece>
constexpr size_t max_size()
{
    static_assert(std::is_integral_v<Piece> || std::is_array_v<Piece>);
    return std::is_integral_v<Piece> ? MAX_DIGITS : sizeof(Piece) - 1;
}

// A text of literals and numbers alone, put together before any memory is asked for.
template <typename... Pieces>
tk_string sql_text(const Pieces&... pieces)
{
    char text[(max_size<Pieces>() + ...)];
    const char* end = write_pieces(text, pieces...);
    return tk_string(text, static_cast<size_t>(end - text));
}

inline size_t piece_size(std::string_view piece) { return piece.size(); }

template <size_t N>
size_t piece_size(const char (&)[N])
{
    return N - 1;
}

template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
size_t piece_size(Number)
{
    return MAX_DIGITS;
}

// Room for the longest that the pieces can be is made once, and they are written in place.
template <typename... Pieces>
void append_sql(tk_string& text, const Pieces&... pieces)
{
    const size_t start = text.size();
    text.resize(start + (piece_size(pieces) + ...));
    const char* end = write_pieces(text.data() + start, pieces...);
    text.resize(static_cast<size_t>(end - text.data()));
}

}  // namespace toolkit::trend
