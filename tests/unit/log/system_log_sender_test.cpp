#include "log/system_log_sender.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace kest {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;

// A log that reads only on request.
class Listener {
public:
    explicit Listener(const std::string &path)
        : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }

    // Reads one datagram; empty when there is none.
    std::string Next() {
        std::string datagram(1U << 20U, '\0');
        const ssize_t size = recv(socket_.Get(), datagram.data(), datagram.size(), 0);
        datagram.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return datagram;
    }

    // The texts of all received messages, after checking the prefix of each.
    std::vector<std::string> Texts() {
        std::vector<std::string> texts;
        const std::regex form(R"(<(\d+)>[A-Z][a-z][a-z] [ \d]\d \d\d:\d\d:\d\d unit_tests: )");
        for (std::string datagram = Next(); !datagram.empty(); datagram = Next()) {
            std::smatch parts;
            EXPECT_TRUE(std::regex_search(datagram, parts, form)) << datagram.substr(0, 80);
            EXPECT_EQ(parts.position(), 0);
            texts.push_back(parts[1].str() + " " + parts.suffix().str());
        }
        return texts;
    }

private:
    Descriptor socket_;
};

class SystemLogSenderTest : public testing::Test {
protected:
    // Sends numbered texts until one is not accepted at once. Returns how many were sent.
    int FillUp() {
        int count = 0;
        for (;; ++count) {
            const auto start = std::chrono::steady_clock::now();
            sender_->Write(LOG_ERR, std::to_string(count));
            if (std::chrono::steady_clock::now() - start > milliseconds(300))
                return count + 1;
        }
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("log");
    std::unique_ptr<SystemLogSender> sender_ = std::make_unique<SystemLogSender>(path_);
};

std::string Err(const std::string &text) {
    return std::to_string(LOG_USER | LOG_ERR) + " " + text;
}

TEST_F(SystemLogSenderTest, WritesAsSyslogDoes) {
    Listener listener(path_);
    sender_->Write(LOG_ERR, "cronjob:7 error period");
    sender_->Write(LOG_INFO, "%s");
    EXPECT_THAT(listener.Texts(), ElementsAre(Err("cronjob:7 error period"), "14 %s"));
    EXPECT_FALSE(sender_->CatchUp());
}

TEST_F(SystemLogSenderTest, CutsAndMarksLongTexts) {
    Listener listener(path_);
    const std::string text(std::size_t{1} << 20, 'x');
    sender_->Write(LOG_ERR, text);
    const std::vector<std::string> texts = listener.Texts();
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_GT(texts[0].size(), 30000U);
    EXPECT_EQ(texts[0], Err(text.substr(0, texts[0].size() - Err(" [cut]").size())) + " [cut]");
}

TEST_F(SystemLogSenderTest, KeepsTheOrderWithABusyLog) {
    Listener listener(path_);
    const int sent = FillUp();
    // Later writes do not wait, and nothing is lost.
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i)
        sender_->Write(LOG_ERR, std::to_string(sent + i));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
    std::vector<std::string> expected;
    expected.reserve(static_cast<std::size_t>(sent) + 100);
    for (int i = 0; i < sent + 100; ++i)
        expected.push_back(Err(std::to_string(i)));
    std::vector<std::string> found = listener.Texts();
    EXPECT_LT(found.size(), expected.size());
    while (Descriptor more = sender_->CatchUp()) {
        pollfd poll{more.Get(), POLLOUT, 0};
        for (const std::string &text : listener.Texts())
            found.push_back(text);
        EXPECT_EQ(::poll(&poll, 1, 5000), 1) << "the log accepts more";
    }
    for (const std::string &text : listener.Texts())
        found.push_back(text);
    EXPECT_EQ(found, expected);
}

TEST_F(SystemLogSenderTest, ReturnsADescriptorOnlyWhenWaitingHelps) {
    EXPECT_FALSE(sender_->CatchUp());
    sender_->Write(LOG_ERR, "nobody listens");
    EXPECT_FALSE(sender_->CatchUp());
    Listener listener(path_);
    EXPECT_FALSE(sender_->CatchUp());
    EXPECT_THAT(listener.Texts(), ElementsAre(Err("nobody listens")));
    FillUp();
    const Descriptor more = sender_->CatchUp();
    ASSERT_TRUE(more);
    pollfd poll{more.Get(), POLLOUT, 0};
    EXPECT_EQ(::poll(&poll, 1, 0), 0);
}

TEST_F(SystemLogSenderTest, CountsLostMessages) {
    const std::size_t most = MessageQueue::kMostMessages;
    for (std::size_t i = 0; i < most + 44; ++i)
        sender_->Write(LOG_ERR, std::to_string(i));
    Listener listener(path_);
    sender_->Write(LOG_ERR, "at last");
    const std::vector<std::string> texts = listener.Texts();
    ASSERT_GE(texts.size(), 10U) << "the socket accepts some";
    std::vector<std::string> found = texts;
    while (sender_->CatchUp())
        for (const std::string &text : listener.Texts())
            found.push_back(text);
    for (const std::string &text : listener.Texts())
        found.push_back(text);
    ASSERT_EQ(found.size(), most + 2);
    EXPECT_EQ(found[most - 1], Err(std::to_string(most - 1)));
    EXPECT_THAT(found,
                testing::Contains(testing::MatchesRegex(
                    "11 system_log_sender:[0-9]+ system log was busy, 4[45] messages are lost")));
}

TEST_F(SystemLogSenderTest, KeepsTheBeginningOfALongText) {
    sender_->Write(LOG_ERR, std::string(200000, 'x'));
    sender_->Write(LOG_ERR, "next");
    Listener listener(path_);
    sender_->CatchUp();
    const std::vector<std::string> texts = listener.Texts();
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_THAT(texts[0], testing::EndsWith("xxx [cut]"));
    EXPECT_GT(texts[0].size(), 8192U);
    EXPECT_EQ(texts[1], Err("next"));
}

TEST_F(SystemLogSenderTest, FindsARestartedLog) {
    {
        Listener first(path_);
        sender_->Write(LOG_ERR, "one");
    }
    sender_->Write(LOG_ERR, "two");
    Listener second(path_);
    sender_->Write(LOG_ERR, "three");
    EXPECT_THAT(second.Texts(), ElementsAre(Err("two"), Err("three")));
}

TEST_F(SystemLogSenderTest, LeavesKeptMessagesToTheParent) {
    sender_->Write(LOG_ERR, "of the parent");
    Listener listener(path_);
    EXPECT_EQ(InChild([this] {
                  sender_->Write(LOG_ERR, "of the child");
                  sender_.reset();
                  return 0;
              }),
              0);
    EXPECT_THAT(listener.Texts(), ElementsAre(Err("of the child")));
    sender_->CatchUp();
    EXPECT_THAT(listener.Texts(), ElementsAre(Err("of the parent")));
}

TEST_F(SystemLogSenderTest, SendsKeptMessagesWhenItEnds) {
    sender_->Write(LOG_ERR, "kept");
    Listener listener(path_);
    sender_.reset();
    EXPECT_THAT(listener.Texts(), ElementsAre(Err("kept")));
}

TEST_F(SystemLogSenderTest, DoesNotWaitLongWhenItEnds) {
    Listener listener(path_);
    FillUp();
    const auto start = std::chrono::steady_clock::now();
    sender_.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(10));
}

TEST_F(SystemLogSenderTest, LimitsItsWaitForASlowLog) {
    // Between two calls of CatchUp it waits for half a second in total, whatever the number of
    // messages.
    Listener listener(path_);
    const auto start = std::chrono::steady_clock::now();
    FillUp();
    for (int i = 0; i < 1000; ++i)
        sender_->Write(LOG_ERR, "more");
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(10));
}

} // namespace

} // namespace kest
