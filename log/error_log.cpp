#include "log/error_log.h"

#include "log/printable.h"
#include "log/system_log.h"
#include "platform/errno_kept.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

SourceTag TagOf(const char *file) {
    const char *slash = std::strrchr(file, '/');
    const char *name = slash == nullptr ? file : slash + 1;
    return {name, static_cast<int>(std::strcspn(name, "."))};
}

namespace {

// Longer than any system log takes; what does not fit is cut off.
using MessageBuffer = std::array<char, 8192>;

// No memory is asked for: there may be none left, and that may be the message.
void EscapeInto(MessageBuffer &printable, const MessageBuffer &message) {
    std::size_t size = 0;
    for (const char *character = message.data(); *character != '\0'; ++character)
        for (const char part : EscapeOf(*character))
            if (part != '\0' && size + 1 < printable.size())
                printable.at(size++) = part;
}

} // namespace

// A C-style variadic function, because %m and the compiler's check of formats belong to those.
// NOLINTNEXTLINE(cert-dcl50-cpp)
void LogErrorAt(const char *file, int line, const char *text, ...) {
    const ErrnoKept kept;
    const int error = errno;
    MessageBuffer message{};
    MessageBuffer printable{};
    va_list arguments;
    va_start(arguments, text);
    // The analyser does not see that va_start initialises the list.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    std::vsnprintf(message.data(), message.size(), text, arguments);
    va_end(arguments);
    const SourceTag tag = TagOf(file);
    EscapeInto(printable, message);
    std::array<char, sizeof printable + 256> whole{};
    if (error != 0)
        std::snprintf(whole.data(), whole.size(), "%.*s:%d %s (%s)", tag.length, tag.text, line,
                      printable.data(), std::strerror(error));
    else
        std::snprintf(whole.data(), whole.size(), "%.*s:%d %s", tag.length, tag.text, line,
                      printable.data());
    WriteSystemLog(LOG_ERR, whole.data());
}
