#include "log/error_log.h"

#include "log/printable.h"
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

// A C-style variadic function, because %m and the compiler's check of formats belong to those.
// NOLINTNEXTLINE(cert-dcl50-cpp)
void LogErrorAt(const char *file, int line, const char *text, ...) {
    const ErrnoKept kept;
    const int error = errno;
    // Longer than any system log takes; what does not fit is cut off.
    std::array<char, 8192> message{};
    va_list arguments;
    va_start(arguments, text);
    // The analyser does not see that va_start initialises the list.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    std::vsnprintf(message.data(), message.size(), text, arguments);
    va_end(arguments);
    const SourceTag tag = TagOf(file);
    const std::string printable = Printable(message.data());
    if (error != 0)
        syslog(LOG_ERR, "%.*s:%d %s (%s)", tag.length, tag.text, line, printable.c_str(),
               std::strerror(error));
    else
        syslog(LOG_ERR, "%.*s:%d %s", tag.length, tag.text, line, printable.c_str());
}
