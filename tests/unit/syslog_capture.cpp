// The checked variants are defined below, so no call may be redirected to them here.
#undef _FORTIFY_SOURCE

#include "tests/unit/syslog_capture.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <sys/mman.h>
#include <syslog.h>

namespace {

SyslogCapture *&TheCapture() {
    static SyslogCapture *capture = nullptr;
    return capture;
}

constexpr std::size_t kMessageSize = 16384;
char *sharedMessage = nullptr;

void Collect(int priority, const char *format, va_list arguments) {
    std::array<char, kMessageSize> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    if (sharedMessage != nullptr)
        std::memcpy(sharedMessage, text.data(), text.size());
    else if (TheCapture() != nullptr)
        TheCapture()->Add(priority, text.data());
}

} // namespace

SyslogCapture::SyslogCapture() : outer_(TheCapture()) {
    TheCapture() = this;
    errno = 0;
}

SyslogCapture::~SyslogCapture() {
    TheCapture() = outer_;
}

SharedSyslogCapture::SharedSyslogCapture()
    : text_(static_cast<char *>(
          mmap(nullptr, kMessageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    sharedMessage = text_;
    errno = 0;
}

SharedSyslogCapture::~SharedSyslogCapture() {
    sharedMessage = nullptr;
    munmap(text_, kMessageSize);
}

std::vector<std::string> SyslogCapture::Texts(const std::string &tag) const {
    std::vector<std::string> texts;
    const std::regex form("([^:]*):([1-9][0-9]*) ([^]*)");
    for (const SyslogMessage &message : messages_) {
        std::smatch parts;
        EXPECT_EQ(message.priority, LOG_ERR) << message.text;
        if (std::regex_match(message.text, parts, form) && parts[1] == tag)
            texts.push_back(parts[3]);
        else
            ADD_FAILURE() << "no message of " << tag << ": " << message.text;
    }
    return texts;
}

extern "C" {

// The C library declares them with names of its own for the parameters.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Collect(priority, format, arguments);
    va_end(arguments);
}

void vsyslog(int priority, const char *format, va_list arguments) {
    Collect(priority, format, arguments);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

// What a build with _FORTIFY_SOURCE calls instead. The names are the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void __syslog_chk(int priority, int flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void __vsyslog_chk(int priority, int flag, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

void __syslog_chk(int priority, int /*flag*/, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Collect(priority, format, arguments);
    va_end(arguments);
}

void __vsyslog_chk(int priority, int /*flag*/, const char *format, va_list arguments) {
    Collect(priority, format, arguments);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

} // extern "C"
