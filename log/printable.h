// Text of foreign origin inside a log line.

#ifndef LOG_PRINTABLE_H
#define LOG_PRINTABLE_H

#include <string>
#include <string_view>

// `text` with its control characters written as escapes ("\n", "\t", "\x1b"); everything else,
// bytes above 127 included, is left as it is. So a text always stays inside its line.
std::string Printable(std::string_view text);

#endif
