#include "base/printable.h"

namespace kest {

Escape EscapeOf(char character) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto code = static_cast<unsigned char>(character);
    if (code >= 0x20 && code != 0x7f)
        return {character};
    if (character == '\n')
        return {'\\', 'n'};
    if (character == '\t')
        return {'\\', 't'};
    return {'\\', 'x', digits[code / 16U], digits[code % 16U]};
}

std::string Printable(std::string_view text) {
    std::string printable;
    printable.reserve(text.size());
    for (const char character : text)
        printable += EscapeOf(character).data();
    return printable;
}

namespace {

bool ContinuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

} // namespace

std::string WithoutMiddle(std::string text, std::size_t most) {
    if (text.size() <= most)
        return text;
    constexpr std::size_t sign = 48; // at least as long as it can be
    std::size_t start = (most - sign) / 2;
    std::size_t end = text.size() - (most - sign) / 2;
    while (start > 0 && ContinuesCharacter(text[start]))
        --start;
    while (end < text.size() && ContinuesCharacter(text[end]))
        ++end;
    return text.replace(start, end - start,
                        " [... " + std::to_string(end - start) + " bytes left out ...] ");
}

} // namespace kest
