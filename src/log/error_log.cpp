#include "log/error_log.h"

#include "base/errno_guard.h"
#include "base/printable.h"
#include "log/system_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <syslog.h>

namespace kest {

namespace {

// docs/design.md lists the same for readers of the log.
struct SourcePart {
    std::string_view name;
    int firstLine;
};
constexpr std::array<SourcePart, 7> kParts{{
    {"cronjob.schedule.cpp", 1000},
    {"cronjob.staging.cpp", 2000},
    {"cronjob.start.cpp", 3000},
    {"cronjob.template.cpp", 4000},
    {"crondaemon.sources.cpp", 1000},
    {"crondaemon.state.cpp", 2000},
    {"crondaemon.watching.cpp", 3000},
}};

} // namespace

SourceTag TagOf(const char *file) {
    const char *slash = std::strrchr(file, '/');
    const char *name = slash == nullptr ? file : slash + 1;
    const auto *const part = std::find_if(kParts.begin(), kParts.end(),
                                          [&](const SourcePart &one) { return one.name == name; });
    return {name, static_cast<int>(std::strcspn(name, ".")),
            part == kParts.end() ? 0 : part->firstLine};
}

namespace {

using MessageBuffer = std::array<char, 8192>;

// Marks the end of a full buffer.
void MarkAsCut(MessageBuffer &message) {
    kCutSign.copy(message.data() + message.size() - 1 - kCutSign.size(), kCutSign.size());
    message.back() = '\0';
}

// Allocates no memory: the message may be that there is none left. Returns whether the whole
// message fits.
bool EscapeInto(MessageBuffer &printable, const MessageBuffer &message) {
    std::size_t size = 0;
    for (const char *character = message.data(); *character != '\0'; ++character)
        for (const char part : EscapeOf(*character)) {
            if (part == '\0')
                continue;
            if (size + 1 == printable.size())
                return false;
            printable.at(size++) = part;
        }
    return true;
}

} // namespace

// A C-style variadic function: %m and the compiler's check of formats need one.
// NOLINTNEXTLINE(cert-dcl50-cpp)
void LogErrorAt(const char *file, int line, const char *text, ...) {
    const ErrnoGuard errnoGuard;
    const int error = errno;
    MessageBuffer message{};
    MessageBuffer printable{};
    va_list arguments;
    va_start(arguments, text);
    // The analyser does not see that va_start initialises the list.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int size = std::vsnprintf(message.data(), message.size(), text, arguments);
    va_end(arguments);
    const SourceTag tag = TagOf(file);
    const bool isWhole = static_cast<std::size_t>(std::max(size, 0)) < message.size();
    if (!EscapeInto(printable, message) || !isWhole)
        MarkAsCut(printable);
    std::array<char, sizeof printable + 256> whole{};
    if (error != 0)
        std::snprintf(whole.data(), whole.size(), "%.*s:%d %s (%s)", tag.length, tag.text,
                      tag.firstLine + line, printable.data(), std::strerror(error));
    else
        std::snprintf(whole.data(), whole.size(), "%.*s:%d %s", tag.length, tag.text,
                      tag.firstLine + line, printable.data());
    WriteSystemLog(LOG_ERR, whole.data());
}

} // namespace kest
