// Makes arbitrary bytes safe to print.

#ifndef CTL_DISPLAY_UTF8_H
#define CTL_DISPLAY_UTF8_H

#include <string>
#include <string_view>

namespace kest::ctl {

// `text` with each byte that is not part of valid UTF-8 replaced by U+FFFD, for output formats that
// require UTF-8. Names of files and jobs may contain any bytes.
std::string ValidUtf8(std::string_view text);

// `text` made safe for a terminal. Control characters, bytes that are not part of valid UTF-8,
// invisible characters and marks of writing direction are written as escape sequences: "\n",
// "\x1b", "\u202e".
std::string Shown(std::string_view text);

} // namespace kest::ctl

#endif
