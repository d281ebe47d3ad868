#include "base/move_aside.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"

#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace kest {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(IsOwnDirectory, RejectsLinksAndForeignDirectories) {
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory.File("own"));
    std::filesystem::create_directory(directory.File("other"));
    ASSERT_EQ(chown(directory.File("other").c_str(), kOtherAccount, kOtherAccount), 0);
    std::filesystem::create_symlink("own", directory.File("link"));
    WriteText(directory.File("file"), "");
    const struct {
        const char *name;
        int error;
    } rows[] = {
        {"own", 0}, {"other", EPERM}, {"link", ENOTDIR}, {"file", ENOTDIR}, {"missing", ENOENT}};
    for (const auto &row : rows) {
        const bool isOwn = IsOwnDirectory(directory.File(row.name).c_str());
        EXPECT_EQ(isOwn ? 0 : errno, row.error) << row.name;
    }
}

class MoveAsideTest : public testing::Test {
protected:
    // Moves "thing" aside and returns its new path.
    std::string Moved() {
        EXPECT_TRUE(MoveAside(thing_));
        EXPECT_FALSE(PathExists(thing_));
        std::string place;
        for (const std::string &name : directory_.Names())
            if (name.rfind("thing.", 0) == 0)
                place = directory_.File(name);
        EXPECT_EQ(ModeOf(place), 0700U);
        return place + "/thing";
    }

    TemporaryDirectory directory_;
    std::string thing_ = directory_.File("thing");
};

TEST_F(MoveAsideTest, MovesAFile) {
    WriteText(thing_, "content");
    EXPECT_EQ(ReadText(Moved()), "content");
}

TEST_F(MoveAsideTest, MovesADirectoryWithItsContent) {
    std::filesystem::create_directory(thing_);
    WriteText(thing_ + "/inner", "content");
    EXPECT_EQ(ReadText(Moved() + "/inner"), "content");
}

TEST_F(MoveAsideTest, MovesALinkAndNotItsTarget) {
    const std::string target = directory_.File("target");
    WriteText(target, "content");
    std::filesystem::create_symlink(target, thing_);
    EXPECT_EQ(std::filesystem::read_symlink(Moved()), target);
    EXPECT_EQ(ReadText(target), "content");
}

TEST_F(MoveAsideTest, MovesADanglingLink) {
    std::filesystem::create_symlink("nowhere", thing_);
    EXPECT_EQ(std::filesystem::read_symlink(Moved()), "nowhere");
}

TEST_F(MoveAsideTest, MovesASecondObject) {
    WriteText(thing_, "first");
    EXPECT_TRUE(MoveAside(thing_));
    WriteText(thing_, "second");
    EXPECT_TRUE(MoveAside(thing_));
    EXPECT_THAT(directory_.Names(), ElementsAre(StartsWith("thing."), StartsWith("thing.")));
}

TEST_F(MoveAsideTest, LeavesNothingBehindWithoutAnObject) {
    EXPECT_FALSE(MoveAside(thing_));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(directory_.Names(), IsEmpty());
    EXPECT_FALSE(MoveAside(directory_.File("absent/thing")));
    EXPECT_EQ(errno, ENOENT);
}

} // namespace

} // namespace kest
