#include "log/printable.h"

std::string Printable(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string printable;
    printable.reserve(text.size());
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code >= 0x20 && code != 0x7f)
            printable += character;
        else if (character == '\n')
            printable += "\\n";
        else if (character == '\t')
            printable += "\\t";
        else
            printable.append("\\x").append(1, digits[code / 16U]).append(1, digits[code % 16U]);
    }
    return printable;
}
