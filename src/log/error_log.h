// The one form of a system-log message.

#ifndef LOG_ERROR_LOG_H
#define LOG_ERROR_LOG_H

#include <string_view>

namespace kest {

// Stands at the end of a message that was cut.
constexpr std::string_view kCutSign = " [cut]";

// Writes "TAG:LINE TEXT" to the system log at error priority, where TAG and LINE are as TagOf() has
// them, and TEXT is `text` filled as by printf (%m included). When
// errno is not 0, the error it names follows in brackets. errno is left as it was. Control
// characters are written as Printable() does, so that no name found in a file can forge a line.
[[gnu::format(printf, 3, 4)]] void LogErrorAt(const char *file, int line, const char *text, ...);

// What messages of the source file `file` carry: the name up to its first "." is the tag, which is
// printed with the given length, as by "%.*s". Files of one tag, such as "cronjob.cpp" and
// "cronjob.start.cpp", count their lines from different thousands.
struct SourceTag {
    const char *text;
    int length;
    int firstLine; // what is added to the number of a line
};
SourceTag TagOf(const char *file);

// %m is the C library's own, which __extension__ admits to a pedantic compiler.
#define LOG_ERROR(...) (__extension__ ::kest::LogErrorAt(__FILE__, __LINE__, __VA_ARGS__))

} // namespace kest

#endif
