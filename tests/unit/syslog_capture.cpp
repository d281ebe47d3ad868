#include "tests/unit/syslog_capture.h"

#include "log/system_log.h"

#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <regex>
#include <sys/mman.h>
#include <syslog.h>

namespace kest {

namespace {

SyslogCapture *&TheCapture() {
    static SyslogCapture *capture = nullptr;
    return capture;
}

constexpr std::size_t kMessageSize = 16384;
char *sharedMessage = nullptr;

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

void WriteSystemLog(int priority, const char *text) {
    if (sharedMessage != nullptr)
        std::snprintf(sharedMessage, kMessageSize, "%s", text);
    else if (TheCapture() != nullptr)
        TheCapture()->Add(priority, text);
}

Descriptor CatchUpWithSystemLog() {
    return {};
}

std::size_t LongestSystemLogText() {
    return kMessageSize;
}

} // namespace kest
