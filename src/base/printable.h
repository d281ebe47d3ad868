// Text of foreign origin inside a log line.

#ifndef BASE_PRINTABLE_H
#define BASE_PRINTABLE_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace kest {

// How one character is written, NUL-terminated.
using Escape = std::array<char, 5>;

// A control character as an escape ("\n", "\t", "\x1b"); any other, bytes above 127 included, as it
// is.
Escape EscapeOf(char character);

// `text` with each character written so: it always stays inside its line.
std::string Printable(std::string_view text);

// `text` when it has at most `most` bytes; otherwise its beginning and its end, with a sign in
// between that counts the bytes left out, together at most `most` (64 or more). No character of
// UTF-8 is taken apart.
std::string WithoutMiddle(std::string text, std::size_t most);

} // namespace kest

#endif
