#include "base/shared_text.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace kest {

namespace {

TEST(SharedText, IsEmptyAtFirst) {
    EXPECT_TRUE(SharedText().IsEmpty());
    EXPECT_EQ(SharedText().View(), "");
}

TEST(SharedText, KeepsItsText) {
    SharedText text(std::string(100, 'a'));
    const SharedText copy = text;
    text = SharedText("b");
    EXPECT_EQ(copy.View(), std::string(100, 'a'));
    EXPECT_EQ(text.View(), "b");
}

TEST(SharedText, MovesIntoABlockThatItKeepsAlive) {
    SharedText first("first");
    SharedText second("second");
    SharedText none;
    const SharedText copy = first;
    {
        const auto block = std::make_shared<std::string>();
        block->reserve(11);
        first.MoveTo(block);
        none.MoveTo(block);
        second.MoveTo(block);
        EXPECT_EQ(*block, "firstsecond");
        EXPECT_EQ(first.View().data(), block->data());
        EXPECT_EQ(second.View().data(), block->data() + 5);
    }
    EXPECT_EQ(first.View(), "first");
    EXPECT_EQ(second.View(), "second");
    EXPECT_TRUE(none.IsEmpty());
    EXPECT_EQ(copy.View(), "first");
}

} // namespace

} // namespace kest
