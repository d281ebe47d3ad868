#include "log/system_log.h"

#include "log/system_log_sender.h"

#include <sys/socket.h>

namespace kest {

namespace {

// Kept messages are sent when the process ends.
SystemLogSender &TheSender() {
    static SystemLogSender sender("/dev/log");
    return sender;
}

} // namespace

void WriteSystemLog(int priority, const char *text) {
    TheSender().Write(priority, text);
}

Descriptor CatchUpWithSystemLog() {
    return TheSender().CatchUp();
}

std::size_t LongestSystemLogText() {
    return LongestDatagram(Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
}

} // namespace kest
