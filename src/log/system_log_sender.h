// The sending half of the system log.

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

// Sends messages to the log's socket in the form of syslog(3). What the socket does not take is
// kept in order and sent later, by the next message or by CatchUp; what there is no space for is
// counted, and a message says so in its place. Each message has a socket of its own, so that
// nothing is open in between and a log that was started anew is found.
//
// All messages together wait for a busy log for half a second between two calls of CatchUp.
//
// A process that fork made begins with nothing kept: that is its parent's.
class SystemLogSender {
public:
    explicit SystemLogSender(std::string path) : path_(std::move(path)) {}
    SystemLogSender(const SystemLogSender &) = delete;
    SystemLogSender &operator=(const SystemLogSender &) = delete;
    // What is kept is tried for the last time.
    ~SystemLogSender();

    // A text that is longer than the socket takes, or than is kept of one, is cut and says so.
    // errno may change.
    void Write(int priority, std::string_view text);

    // Sends what is kept, as far as it is taken without waiting. Returns a descriptor that polls as
    // writable when the log takes more; none when nothing is kept or nobody listens.
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

// The length beyond which a log's socket takes no message, in bytes. It may take less.
std::size_t LongestDatagram(const Descriptor &socket);

} // namespace kest

#endif
