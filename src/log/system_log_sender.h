// Sends messages to the system log.

#ifndef LOG_SYSTEM_LOG_SENDER_H
#define LOG_SYSTEM_LOG_SENDER_H

#include "base/descriptor.h"
#include "log/message_queue.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/time.h>
#include <sys/types.h>

namespace kest {

// Sends messages to the log's socket in the form of syslog(3). Messages that the socket does not
// accept are kept in order and sent later, with the next message or by CatchUp. Messages that do
// not fit are counted, and a message in their place reports the number. Each message uses a new
// socket, so that no descriptor stays open and a restarted log is found.
//
// Between two calls of CatchUp, all messages together wait for a busy log for half a second at
// most.
//
// A forked process begins with no kept messages: they belong to its parent.
class SystemLogSender {
public:
    explicit SystemLogSender(std::string path) : path_(std::move(path)) {}
    SystemLogSender(const SystemLogSender &) = delete;
    SystemLogSender &operator=(const SystemLogSender &) = delete;
    // Tries to send the kept messages a last time.
    ~SystemLogSender();

    // A text that is too long for the socket or the queue is cut and marked. errno may change.
    void Write(int priority, std::string_view text);

    // Sends kept messages without blocking. Returns a descriptor that polls as writable when the
    // log accepts more, or an empty one when no message is kept or no process reads the log.
    Descriptor CatchUp();

private:
    enum class Answer { Taken, Busy, Absent };

    void StartAnewAfterFork();
    void Keep(std::string_view head, std::string_view text);
    bool KeepReport(std::string_view head);
    Descriptor Connect() const;
    Answer SendKept(const Descriptor &socket);
    Answer Send(const Descriptor &socket, std::string_view head, std::string_view text);

    std::string path_;
    MessageQueue kept_;
    unsigned dropped_ = 0;
    timeval timeLeft_{};
    pid_t owner_ = 0;
};

// An upper bound of the length of a message that the socket accepts, in bytes.
std::size_t LongestDatagram(const Descriptor &socket);

} // namespace kest

#endif
