// An immutable text in memory that several texts may share.

#ifndef BASE_SHARED_TEXT_H
#define BASE_SHARED_TEXT_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace kest {

// Copies share the memory.
class SharedText {
public:
    // An empty one.
    SharedText() = default;

    explicit SharedText(std::string_view text);

    std::string_view View() const { return {begin_.get(), size_}; }
    bool IsEmpty() const { return size_ == 0; }

    // Moves the text to the end of `block`, which must have the capacity for it.
    void MoveTo(const std::shared_ptr<std::string> &block);

private:
    std::shared_ptr<const char> begin_; // of the text; owns the block that contains it
    std::size_t size_ = 0;
};

} // namespace kest

#endif
