#include "log/message_queue.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace kest {

namespace {

class MessageQueueTest : public testing::Test {
protected:
    // Takes all messages, in order.
    std::vector<std::string> TakeAll() {
        std::vector<std::string> messages;
        for (; !queue_->IsEmpty(); queue_->Pop())
            messages.emplace_back(queue_->Front());
        return messages;
    }

    const std::unique_ptr<MessageQueue> queue_ = std::make_unique<MessageQueue>();
};

TEST_F(MessageQueueTest, KeepsMessagesInOrder) {
    EXPECT_TRUE(queue_->IsEmpty());
    for (const char *text : {"first", "", "third"})
        EXPECT_TRUE(queue_->Push("head ", text));
    EXPECT_FALSE(queue_->IsEmpty());
    EXPECT_EQ(TakeAll(), (std::vector<std::string>{"head first", "head ", "head third"}));
    EXPECT_TRUE(queue_->Push("", "again"));
    EXPECT_EQ(TakeAll(), std::vector<std::string>{"again"});
}

TEST_F(MessageQueueTest, LimitsTheNumberOfMessages) {
    for (std::size_t i = 0; i < MessageQueue::kMostMessages; ++i)
        EXPECT_TRUE(queue_->Push("", std::to_string(i)));
    EXPECT_FALSE(queue_->Push("", "more"));
    queue_->Pop();
    EXPECT_TRUE(queue_->Push("", "last"));
    const std::vector<std::string> messages = TakeAll();
    EXPECT_EQ(messages.size(), 256U);
    EXPECT_EQ(messages.front(), "1");
    EXPECT_EQ(messages.back(), "last");
}

TEST_F(MessageQueueTest, LimitsTheNumberOfBytes) {
    const std::string half(MessageQueue::kMostBytes / 2, 'x');
    EXPECT_TRUE(queue_->Push("", half));
    EXPECT_FALSE(queue_->Push("y", half));
    EXPECT_TRUE(queue_->Push("y", half.substr(1)));
    EXPECT_FALSE(queue_->Push("", "z"));
    EXPECT_TRUE(queue_->Push("", ""));
    EXPECT_EQ(TakeAll(), (std::vector<std::string>{half, "y" + half.substr(1), ""}));
    EXPECT_TRUE(queue_->Push("", half + half));
}

TEST_F(MessageQueueTest, IsEmptyWhenCleared) {
    queue_->Push("", "x");
    queue_->Clear();
    EXPECT_TRUE(queue_->IsEmpty());
    EXPECT_TRUE(queue_->Push("", std::string(MessageQueue::kMostBytes, 'x')));
}

} // namespace

} // namespace kest
