#include "base/shared_text.h"

namespace kest {

SharedText::SharedText(std::string_view text) {
    const auto block = std::make_shared<std::string>(text);
    begin_ = {block, block->data()};
    size_ = text.size();
}

void SharedText::MoveTo(const std::shared_ptr<std::string> &block) {
    const std::size_t offset = block->size();
    block->append(View());
    begin_ = {block, block->data() + offset};
}

} // namespace kest
