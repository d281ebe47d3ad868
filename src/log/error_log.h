// The form of all messages in the system log.

#ifndef LOG_ERROR_LOG_H
#define LOG_ERROR_LOG_H

#include <string_view>

namespace kest {

// The end of a message that was cut.
constexpr std::string_view kCutSign = " [cut]";

// Writes "TAG:LINE TEXT" to the system log at error priority. TAG and LINE are those of TagOf();
// TEXT is `text` formatted as by printf, %m included. When errno is not 0, its text follows in
// brackets. errno is unchanged. Control characters are escaped as by Printable(), so that a name in
// a file cannot forge a line.
[[gnu::format(printf, 3, 4)]] void LogErrorAt(const char *file, int line, const char *text, ...);

// The tag and first line of messages from the source file `file`. The tag is the name up to its
// first "."; print it with its length, as by "%.*s". Files with the same tag, such as "cronjob.cpp"
// and "cronjob.start.cpp", count their lines from different thousands.
struct SourceTag {
    const char *text;
    int length;
    int firstLine; // is added to the line number
};
SourceTag TagOf(const char *file);

// %m is an extension of the C library; __extension__ silences -Wpedantic.
#define LOG_ERROR(...) (__extension__ ::kest::LogErrorAt(__FILE__, __LINE__, __VA_ARGS__))

} // namespace kest

#endif
