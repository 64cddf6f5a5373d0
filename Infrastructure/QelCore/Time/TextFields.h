// The digits of the fixed text forms of Elapse and Time: writing fields with leading zeros and
// reading them back the way a 32-bit strtoul in base 10 reads them.
#pragma once

#include <cctype>
#include <cstdint>
#include <string_view>

namespace Qel::Core::TextFields {

inline bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Writes `value` in decimal, at least `width` digits wide with leading zeros; returns the end.
inline char* WriteDecimal(char* out, std::uint64_t value, int width)
{
    char digits[20];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (int i = count; i < width; ++i) *out++ = '0';
    while (count > 0) *out++ = digits[--count];
    return out;
}

// As above for a signed value: a minus sign, then the magnitude's digits.
inline char* WriteSignedDecimal(char* out, std::int64_t value, int width)
{
    std::uint64_t magnitude = static_cast<std::uint64_t>(value);
    if (value < 0) {
        *out++ = '-';
        magnitude = 0U - magnitude;
    }
    return WriteDecimal(out, magnitude, width);
}

// A piece of text as a 32-bit strtoul in base 10 reads it: leading white space, an optional sign,
// then digits up to the first other character. No digits give 0, a value beyond 32 bits gives
// 0xFFFFFFFF, a minus sign negates in 32 bits. The width is that of the unsigned long the text
// forms were defined with, so that texts read the same on every platform.
inline std::uint32_t ReadUnsigned32(std::string_view piece)
{
    std::size_t i = 0;
    while (i < piece.size() && IsSpace(piece[i])) ++i;
    bool bNegative = false;
    if (i < piece.size() && (piece[i] == '+' || piece[i] == '-')) bNegative = piece[i++] == '-';
    std::uint64_t value = 0;
    for (; i < piece.size() && piece[i] >= '0' && piece[i] <= '9'; ++i) {
        value = value * 10 + static_cast<std::uint64_t>(piece[i] - '0');
        if (value > 0xFFFFFFFFULL) return 0xFFFFFFFFU;
    }
    const std::uint32_t result = static_cast<std::uint32_t>(value);
    return bNegative ? 0U - result : result;
}

} // namespace Qel::Core::TextFields
