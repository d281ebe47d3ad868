// Text whose bytes are UTF-8 for certain.

#ifndef CTL_DISPLAY_UTF8_H
#define CTL_DISPLAY_UTF8_H

#include <string>
#include <string_view>

namespace kest::ctl {

// `text` with the replacement character in place of each byte that belongs to no character. Names
// of files and jobs may hold any bytes, while formats that others read admit characters only.
std::string ValidUtf8(std::string_view text);

// `text` as it may go to a terminal: without anything that the terminal would obey, or that would
// put what stands beside it in another order. Control characters, bytes that belong to no character
// and marks of writing direction are written as escapes: "\n", "\x1b", "\u202e".
std::string Shown(std::string_view text);

} // namespace kest::ctl

#endif
