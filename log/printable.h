// Text of foreign origin inside a log line.

#ifndef LOG_PRINTABLE_H
#define LOG_PRINTABLE_H

#include <array>
#include <string>
#include <string_view>

// How one character is written, NUL-terminated.
using Escape = std::array<char, 5>;

// A control character as an escape ("\n", "\t", "\x1b"); any other, bytes above 127 included, as it
// is.
Escape EscapeOf(char character);

// `text` with each character written so: it always stays inside its line.
std::string Printable(std::string_view text);

#endif
