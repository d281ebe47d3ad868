// Foreign text inside a log line.

#ifndef BASE_PRINTABLE_H
#define BASE_PRINTABLE_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace kest {

// How one character is written, NUL-terminated.
using Escape = std::array<char, 5>;

// Escapes a control character ("\n", "\t", "\x1b"). Returns any other byte unchanged.
Escape EscapeOf(char character);

// Escapes each character of `text`, so that it cannot end its line.
std::string Printable(std::string_view text);

// Returns `text` when it has at most `most` bytes (64 or more). Otherwise returns its beginning and
// its end with the number of omitted bytes in between, at most `most` bytes in all. UTF-8
// characters are not split.
std::string WithoutMiddle(std::string text, std::size_t most);

} // namespace kest

#endif
