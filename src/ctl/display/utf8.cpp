#include "ctl/display/utf8.h"

#include "base/printable.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

namespace kest::ctl {

namespace {

// A range of leading bytes, the length of their characters, and the range of the second byte.
// Further bytes are always 0x80 to 0xBF.
struct Lead {
    unsigned char first;
    unsigned char last;
    std::size_t length;
    unsigned char secondFirst;
    unsigned char secondLast;
};
constexpr std::array<Lead, 9> kLeads{{
    {0x00, 0x7F, 1, 0x80, 0xBF},
    {0xC2, 0xDF, 2, 0x80, 0xBF},
    {0xE0, 0xE0, 3, 0xA0, 0xBF}, // no overlong forms
    {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F}, // no surrogates
    {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF},
    {0xF4, 0xF4, 4, 0x80, 0x8F}, // up to U+10FFFF
}};

bool IsInRange(char byte, unsigned char first, unsigned char last) {
    const auto value = static_cast<unsigned char>(byte);
    return first <= value && value <= last;
}

// The length of the first character; 0 if it is not valid UTF-8.
std::size_t LengthOfFirst(std::string_view text) {
    const auto *const lead = std::find_if(kLeads.begin(), kLeads.end(), [&](const Lead &kind) {
        return IsInRange(text.front(), kind.first, kind.last);
    });
    if (lead == kLeads.end() || text.size() < lead->length)
        return 0;
    for (std::size_t i = 1; i < lead->length; ++i)
        if (i == 1 ? !IsInRange(text[i], lead->secondFirst, lead->secondLast)
                   : !IsInRange(text[i], 0x80, 0xBF))
            return 0;
    return lead->length;
}

// The code point of a character of two or three bytes; 0 for others.
unsigned CodePointOf(std::string_view character) {
    const auto bits = [&](std::size_t i, unsigned mask) {
        return static_cast<unsigned char>(character[i]) & mask;
    };
    if (character.size() == 2)
        return bits(0, 0x1FU) << 6U | bits(1, 0x3FU);
    if (character.size() == 3)
        return bits(0, 0x0FU) << 12U | bits(1, 0x3FU) << 6U | bits(2, 0x3FU);
    return 0;
}

bool IsUnsafe(unsigned number) {
    const auto between = [number](unsigned first, unsigned last) {
        return first <= number && number <= last;
    };
    return between(0x80, 0x9F) || number == 0x061C || between(0x200B, 0x200F) ||
           between(0x2028, 0x202E) || between(0x2066, 0x2069) || number == 0xFEFF;
}

std::string Escaped(char letter, unsigned number) {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), letter == 'x' ? "\\x%02x" : "\\u%04x", number);
    return text.data();
}

} // namespace

std::string ValidUtf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = LengthOfFirst(text);
        if (length == 0)
            valid += "\xEF\xBF\xBD";
        else
            valid += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return valid;
}

std::string Shown(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = LengthOfFirst(text);
        const std::string_view first = text.substr(0, std::max<std::size_t>(length, 1));
        const unsigned number = length == 0 ? 0 : CodePointOf(first);
        if (length == 0)
            shown += Escaped('x', static_cast<unsigned char>(first.front()));
        else if (IsUnsafe(number))
            shown += Escaped('u', number);
        else
            shown += length == 1 ? Printable(first) : std::string(first);
        text.remove_prefix(first.size());
    }
    return shown;
}

} // namespace kest::ctl
