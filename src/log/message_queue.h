// A queue of messages for the system log.

#ifndef LOG_MESSAGE_QUEUE_H
#define LOG_MESSAGE_QUEUE_H

#include <array>
#include <cstddef>
#include <string_view>

namespace kest {

// Keeps up to 256 messages and 64 KiB in order. Allocates no memory: the message may be that there
// is none left.
class MessageQueue {
public:
    static constexpr std::size_t kMostMessages = 256;
    static constexpr std::size_t kMostBytes = 65536;

    bool IsEmpty() const { return count_ == 0; }
    // Appends a message that is given in two parts. Returns false when there is no space for it.
    bool Push(std::string_view head, std::string_view text);
    // The first message, which must be there; valid until the queue changes.
    std::string_view Front() const { return {bytes_.data(), sizes_[0]}; }
    void Pop();
    void Clear();

private:
    std::array<char, kMostBytes>
        bytes_; // the messages one after another; not written to before the first
    std::array<std::size_t, kMostMessages> sizes_{};
    std::size_t count_ = 0;
    std::size_t used_ = 0;
};

} // namespace kest

#endif
