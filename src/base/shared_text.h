// A text that does not change, in memory that others may share with it.

#ifndef BASE_SHARED_TEXT_H
#define BASE_SHARED_TEXT_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace kest {

// Copies are the same memory.
class SharedText {
public:
    // An empty one.
    SharedText() = default;

    explicit SharedText(std::string_view text);

    std::string_view View() const { return {begin_.get(), size_}; }
    bool IsEmpty() const { return size_ == 0; }

    // Moves it to the end of `block`, whose capacity is large enough for it.
    void MoveTo(const std::shared_ptr<std::string> &block);

private:
    std::shared_ptr<const char> begin_; // of the text; owns what it is a part of
    std::size_t size_ = 0;
};

} // namespace kest

#endif
