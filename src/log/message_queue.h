// Messages that wait to be taken.

#ifndef LOG_MESSAGE_QUEUE_H
#define LOG_MESSAGE_QUEUE_H

#include <array>
#include <cstddef>
#include <string_view>

namespace kest {

// Keeps messages in order, up to 256 of them and 64 KiB in all. Asks for no memory: there may be
// none left, and that may be the message.
class MessageQueue {
public:
    static constexpr std::size_t kMostMessages = 256;
    static constexpr std::size_t kMostBytes = 65536;

    bool IsEmpty() const { return count_ == 0; }
    // Puts a message at the end, in two parts. Returns false when there is no space for it.
    bool Push(std::string_view head, std::string_view text);
    // The first message, which must be there; valid until the queue changes.
    std::string_view Front() const { return {bytes_.data(), sizes_[0]}; }
    void Pop();
    void Clear();

private:
    std::array<char, kMostBytes> bytes_; // the messages one after another; not touched before
    std::array<std::size_t, kMostMessages> sizes_{};
    std::size_t count_ = 0;
    std::size_t used_ = 0;
};

} // namespace kest

#endif
