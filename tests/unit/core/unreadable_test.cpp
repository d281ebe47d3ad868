#include "core/unreadable.h"

#include "tests/unit/support/files.h"

#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace kest {

namespace {

using testing::ElementsAre;

class KeepUnreadableTest : public testing::Test {
protected:
    TemporaryDirectory directory_;
    std::string path_ = directory_.File("document");
    std::string kept_ = directory_.File("document.unreadable");
};

TEST_F(KeepUnreadableTest, KeepsTheLatest) {
    EXPECT_EQ(UnreadableName(path_), kept_);
    for (const char *text : {"first", "second"}) {
        std::filesystem::remove(path_);
        WriteText(path_, text);
        for (int start = 0; start < 3; ++start) {
            EXPECT_TRUE(KeepUnreadable(path_));
            EXPECT_EQ(ReadText(path_), text);
            EXPECT_EQ(ReadText(kept_), text);
            EXPECT_THAT(directory_.Names(), ElementsAre("document", "document.unreadable"));
        }
    }
}

TEST_F(KeepUnreadableTest, KeepsTheTargetOfALink) {
    WriteText(directory_.File("real"), "text");
    std::filesystem::create_symlink("real", path_);
    EXPECT_TRUE(KeepUnreadable(path_));
    EXPECT_FALSE(std::filesystem::is_symlink(kept_));
    EXPECT_EQ(ReadText(kept_), "text");
}

TEST_F(KeepUnreadableTest, CopiesAcrossFileSystems) {
    const std::string elsewhere = "/dev/shm/kestcrond-unreadable-test";
    WriteText(elsewhere, "text");
    std::filesystem::create_symlink(elsewhere, path_);
    EXPECT_TRUE(KeepUnreadable(path_));
    EXPECT_EQ(ReadText(kept_), "text");
    std::filesystem::remove(elsewhere);
}

TEST_F(KeepUnreadableTest, KeepsOnlyFilesThatAreNotEmpty) {
    EXPECT_TRUE(KeepUnreadable(path_));
    std::filesystem::create_directory(path_);
    EXPECT_TRUE(KeepUnreadable(path_));
    std::filesystem::remove(path_);
    WriteText(path_, "");
    EXPECT_TRUE(KeepUnreadable(path_));
    EXPECT_THAT(directory_.Names(), ElementsAre("document"));
}

TEST_F(KeepUnreadableTest, FailsWhenItCannotBeKept) {
    WriteText(path_, "text");
    std::filesystem::create_directories(kept_ + "/full");
    EXPECT_FALSE(KeepUnreadable(path_));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_THAT(directory_.Names(), ElementsAre("document", "document.unreadable"));
}

} // namespace

} // namespace kest
