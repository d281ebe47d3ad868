#include "ctl/messages.h"

#include "log/system_log.h"

#include <utility>

namespace {

std::vector<std::string> &Messages() {
    static std::vector<std::string> messages;
    return messages;
}

} // namespace

void WriteSystemLog(int /*priority*/, const char *text) {
    const std::string message = text;
    Messages().push_back(message.substr(message.find(' ') + 1));
}

std::vector<std::string> TakeMessages() {
    return std::exchange(Messages(), {});
}
