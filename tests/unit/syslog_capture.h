// Collects the messages of the code under test to the system log. Replaces log/system_log.cpp, so
// that no message reaches the log of the machine that runs the tests.

#ifndef TESTS_UNIT_SYSLOG_CAPTURE_H
#define TESTS_UNIT_SYSLOG_CAPTURE_H

#include <string>
#include <vector>

namespace kest {

struct SyslogMessage {
    int priority;
    std::string text;
};

// While an object of this class lives, it collects the messages. errno starts at 0, because
// messages may include it.
class SyslogCapture {
public:
    SyslogCapture();
    SyslogCapture(const SyslogCapture &) = delete;
    SyslogCapture &operator=(const SyslogCapture &) = delete;
    ~SyslogCapture();

    const std::vector<SyslogMessage> &Messages() const { return messages_; }

    // The messages without "TAG:LINE ", after checking that each is at error priority and that the
    // tag is `tag` and the line a number.
    std::vector<std::string> Texts(const std::string &tag) const;

    void Add(int priority, const std::string &text) { messages_.push_back({priority, text}); }
    void Clear() { messages_.clear(); }

private:
    std::vector<SyslogMessage> messages_;
    SyslogCapture *outer_;
};

// While an object of this class lives, it collects the last message of this process and its
// children, in memory that they share. For messages of children.
class SharedSyslogCapture {
public:
    SharedSyslogCapture();
    SharedSyslogCapture(const SharedSyslogCapture &) = delete;
    SharedSyslogCapture &operator=(const SharedSyslogCapture &) = delete;
    ~SharedSyslogCapture();

    std::string Message() const { return text_; }

private:
    char *text_;
};

} // namespace kest

#endif
