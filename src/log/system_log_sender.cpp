#include "log/system_log_sender.h"

#include "log/call_deadline.h"
#include "log/error_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace kest {

namespace {

constexpr timeval kTimeout{0, 500000};
// The longest text that is kept.
constexpr std::size_t kMostKept = 8448;

// The header of a message: priority, time and name of the program.
class Head {
public:
    explicit Head(int priority) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        std::array<char, 32> date{"Jan  1 00:00:00"}; // when the time cannot be converted
        if (localtime_r(&now, &local) != nullptr)
            std::strftime(date.data(), date.size(), "%b %e %H:%M:%S", &local);
        const int size =
            std::snprintf(text_.data(), text_.size(), "<%d>%s %.32s: ", LOG_USER | priority,
                          date.data(), program_invocation_short_name);
        size_ = size > 0 ? std::min(static_cast<std::size_t>(size), text_.size() - 1) : 0;
    }
    std::string_view Get() const { return {text_.data(), size_}; }

private:
    std::array<char, 96> text_{};
    std::size_t size_ = 0;
};

std::string_view Beginning(std::string_view text, std::size_t most) {
    return text.size() <= most ? text : text.substr(0, most - std::min(most, kCutSign.size()));
}

} // namespace

std::size_t LongestDatagram(const Descriptor &socket) {
    constexpr int usual = 212992;
    constexpr std::size_t ofKernel = 32; // bytes that the kernel uses of the buffer
    int size = 0;
    socklen_t length = sizeof size;
    if (!socket || getsockopt(socket.Get(), SOL_SOCKET, SO_SNDBUF, &size, &length) == -1)
        size = usual;
    return static_cast<std::size_t>(size) - ofKernel;
}

SystemLogSender::~SystemLogSender() {
    if (owner_ != getpid())
        return;
    timeLeft_ = kTimeout;
    if (const Descriptor socket = Connect())
        SendKept(socket);
}

void SystemLogSender::StartAnewAfterFork() {
    const pid_t self = getpid();
    if (std::exchange(owner_, self) == self)
        return;
    kept_.Clear();
    dropped_ = 0;
    timeLeft_ = kTimeout;
}

void SystemLogSender::Write(int priority, std::string_view text) {
    StartAnewAfterFork();
    const Head head(priority);
    const Descriptor socket = Connect();
    if (!socket || SendKept(socket) != Answer::Taken ||
        Send(socket, head.Get(), text) != Answer::Taken)
        Keep(head.Get(), text);
}

Descriptor SystemLogSender::CatchUp() {
    StartAnewAfterFork();
    timeLeft_ = {};
    Descriptor socket;
    if (!kept_.IsEmpty() || dropped_ != 0)
        socket = Connect();
    const Answer answer = socket ? SendKept(socket) : Answer::Absent;
    timeLeft_ = kTimeout;
    return answer == Answer::Busy ? std::move(socket) : Descriptor();
}

void SystemLogSender::Keep(std::string_view head, std::string_view text) {
    const std::string_view kept = Beginning(text, kMostKept);
    std::array<char, kMostKept + kCutSign.size()> cut{};
    std::size_t size = kept.copy(cut.data(), kept.size());
    if (kept.size() != text.size())
        size += kCutSign.copy(cut.data() + size, kCutSign.size());
    if (!KeepReport(head) || !kept_.Push(head, {cut.data(), size}))
        ++dropped_;
}

// Appends the number of messages that are missing here. Returns false when there is no space.
bool SystemLogSender::KeepReport(std::string_view head) {
    if (dropped_ == 0)
        return true;
    std::array<char, 128> report{};
    const SourceTag tag = TagOf(__FILE__);
    const int size = std::snprintf(report.data(), report.size(),
                                   "%.*s:%d system log was busy, %u messages are lost", tag.length,
                                   tag.text, __LINE__, dropped_);
    if (!kept_.Push(head, {report.data(), static_cast<std::size_t>(std::max(size, 0))}))
        return false;
    dropped_ = 0;
    return true;
}

Descriptor SystemLogSender::Connect() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket ||
        connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1)
        return {};
    return socket;
}

SystemLogSender::Answer SystemLogSender::SendKept(const Descriptor &socket) {
    for (; !kept_.IsEmpty(); kept_.Pop())
        if (const Answer answer = Send(socket, kept_.Front(), {}); answer != Answer::Taken)
            return answer;
    if (dropped_ == 0)
        return Answer::Taken;
    KeepReport(Head(LOG_ERR).Get());
    const Answer answer = Send(socket, kept_.Front(), {});
    if (answer == Answer::Taken)
        kept_.Pop();
    return answer;
}

SystemLogSender::Answer SystemLogSender::Send(const Descriptor &socket, std::string_view head,
                                              std::string_view text) {
    const std::size_t most = LongestDatagram(socket) - head.size();
    const std::string_view taken = Beginning(text, most);
    const std::string_view sign = taken.size() == text.size() ? std::string_view() : kCutSign;
    const auto part = [](std::string_view bytes) {
        return iovec{const_cast<char *>(bytes.data()), bytes.size()};
    };
    std::array<iovec, 3> parts{part(head), part(taken), part(sign)};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    if (sendmsg(socket.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) != -1)
        return Answer::Taken;
    if (errno != EAGAIN)
        return Answer::Absent;
    const CallDeadline deadline(timeLeft_);
    ssize_t sent = -1;
    while (sent == -1 && !deadline.IsOver() && (errno == EAGAIN || errno == EINTR))
        sent = sendmsg(socket.Get(), &message, MSG_NOSIGNAL);
    timeLeft_ = deadline.Left();
    return sent != -1 ? Answer::Taken : Answer::Busy;
}

} // namespace kest
