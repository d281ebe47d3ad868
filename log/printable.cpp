#include "log/printable.h"

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
