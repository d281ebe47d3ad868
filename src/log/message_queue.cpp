#include "log/message_queue.h"

#include <cstring>

namespace kest {

bool MessageQueue::Push(std::string_view head, std::string_view text) {
    const std::size_t size = head.size() + text.size();
    if (count_ == kMostMessages || size > kMostBytes - used_)
        return false;
    head.copy(bytes_.data() + used_, head.size());
    text.copy(bytes_.data() + used_ + head.size(), text.size());
    used_ += size;
    sizes_[count_++] = size;
    return true;
}

void MessageQueue::Pop() {
    used_ -= sizes_[0];
    std::memmove(bytes_.data(), bytes_.data() + sizes_[0], used_);
    --count_;
    std::memmove(sizes_.data(), sizes_.data() + 1, count_ * sizeof sizes_[0]);
}

void MessageQueue::Clear() {
    count_ = 0;
    used_ = 0;
}

} // namespace kest
