#include "platform/kestsdk.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"

#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace kest {

namespace {

class MkdirTest : public testing::Test {
protected:
    // The result for `name` inside the test's directory.
    int Make(const std::string &name, mode_t mode, int parents = 1, uid_t owner = 0) {
        errno = 0;
        return KESTFSMkdirP(directory_.File(name).c_str(), nullptr, parents, owner, owner, mode);
    }
    bool IsDirectory(const std::string &name) {
        return std::filesystem::is_directory(directory_.File(name));
    }

    TemporaryDirectory directory_;
};

TEST_F(MkdirTest, SetsTheModeWhateverTheUmask) {
    int number = 0;
    for (const mode_t mask : {0U, 022U, 077U, 0777U})
        for (const mode_t mode : {0750U, 0755U, 0700U, 01777U}) {
            const Umask umask(mask);
            const std::string top = "top" + std::to_string(++number);
            EXPECT_EQ(Make(top + "/middle/last", mode), 0);
            for (const std::string &name : {top, top + "/middle"})
                EXPECT_EQ(ModeOf(directory_.File(name)), 0755U) << name;
            EXPECT_EQ(ModeOf(directory_.File(top + "/middle/last")), mode);
        }
}

TEST_F(MkdirTest, SetsTheOwnerOfNewDirectories) {
    EXPECT_EQ(Make("a/b", 0750, 1, kOtherAccount), 0);
    for (const char *name : {"a", "a/b"}) {
        struct stat status {};
        ASSERT_EQ(stat(directory_.File(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, kOtherAccount);
        EXPECT_EQ(status.st_gid, kOtherAccount);
    }
}

TEST_F(MkdirTest, KeepsExistingDirectories) {
    ASSERT_EQ(Make("a", 0701), 0);
    ASSERT_EQ(Make("a/b", 0701), 0);
    WriteText(directory_.File("a/b/file"), "kept");
    EXPECT_EQ(Make("a/b", 0755, 1, kOtherAccount), 0);
    EXPECT_EQ(Make("a/b/c", 0755, 1, kOtherAccount), 0);
    for (const char *name : {"a", "a/b"}) {
        struct stat status {};
        ASSERT_EQ(stat(directory_.File(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 0U);
        EXPECT_EQ(status.st_mode & 07777U, 0701U);
    }
    EXPECT_EQ(ReadText(directory_.File("a/b/file")), "kept");
    EXPECT_EQ(ModeOf(directory_.File("a/b/c")), 0755U);
}

TEST_F(MkdirTest, IgnoresRedundantSlashes) {
    EXPECT_EQ(Make("a//b/", 0755), 0);
    EXPECT_TRUE(IsDirectory("a/b"));
    EXPECT_EQ(Make("a/b//", 0755), 0);
}

TEST_F(MkdirTest, FollowsALinkToADirectory) {
    ASSERT_EQ(Make("real", 0711), 0);
    std::filesystem::create_symlink("real", directory_.File("link"));
    EXPECT_EQ(Make("link", 0755), 0);
    EXPECT_EQ(Make("link/inner", 0755), 0);
    EXPECT_TRUE(IsDirectory("real/inner"));
    EXPECT_EQ(ModeOf(directory_.File("real")), 0711U);
}

TEST_F(MkdirTest, FailsWhenAnotherObjectExists) {
    WriteText(directory_.File("file"), "kept");
    std::filesystem::create_symlink("nowhere", directory_.File("dangling"));
    struct Row {
        const char *name;
        int error;
    };
    const Row rows[] = {
        {"file", ENOTDIR},
        {"file/below", ENOTDIR},
        {"file/far/below", ENOTDIR},
        {"dangling", EEXIST},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Make(row.name, 0755), -1) << row.name;
        EXPECT_EQ(errno, row.error) << row.name;
    }
    EXPECT_EQ(ReadText(directory_.File("file")), "kept");
    EXPECT_THAT(directory_.Names(), testing::ElementsAre("dangling", "file"));
}

TEST_F(MkdirTest, CreatesParentsOnlyOnRequest) {
    EXPECT_EQ(Make("a/b", 0755, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(PathExists(directory_.File("a")));
    EXPECT_EQ(Make("a", 0755, 0), 0);
    EXPECT_EQ(Make("a/b", 0755, 0), 0);
}

TEST_F(MkdirTest, FailsWithoutPermission) {
    std::filesystem::permissions(directory_.Path(), std::filesystem::perms(0755));
    EXPECT_EQ(InChild([this] {
                  if (setuid(kOtherAccount) != 0)
                      return 1;
                  return Make("a", 0755) == -1 && errno == EACCES ? 0 : 2;
              }),
              0);
    EXPECT_FALSE(PathExists(directory_.File("a")));
}

// The test has its own "/run", with the file that the controller writes.
TEST(KESTVorldStatusGet, ReadsWhatTheControllerWrote) {
    struct Row {
        const char *content; // null: no file
        int result;
        int status;
    };
    const Row rows[] = {
        {nullptr, 0, 7}, {"2", 0, 2},    {"2\n", 0, 2},         {"-1 \n", 0, -1}, {"0", 0, 0},
        {"", -1, 7},     {"two", -1, 7}, {"2 2", -1, 7},        {" 2", -1, 7},    {"+2", -1, 7},
        {"2x", -1, 7},   {"0x2", -1, 7}, {"2147483648", -1, 7},
    };
    EXPECT_EQ(InChild([&rows] {
                  if (unshare(CLONE_NEWNS) != 0 ||
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                      mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
                      return 1;
                  for (const Row &row : rows) {
                      std::filesystem::remove("/run/kestvorld.status");
                      if (row.content != nullptr)
                          WriteText("/run/kestvorld.status", row.content);
                      SCOPED_TRACE(row.content == nullptr ? "no file" : row.content);
                      int status = 7;
                      EXPECT_EQ(KESTVorldStatusGet(2, &status), row.result);
                      EXPECT_EQ(status, row.status);
                  }
                  return testing::Test::HasFailure() ? 2 : 0;
              }),
              0);
}

TEST(KESTUserGetUGID, FindsAnAccount) {
    uid_t uid = 12345;
    gid_t gid = 12345;
    EXPECT_EQ(KESTUserGetUGID("root", &uid, &gid), 0);
    EXPECT_EQ(uid, 0U);
    EXPECT_EQ(gid, 0U);
    EXPECT_EQ(KESTUserGetUGID("nobody", &uid, &gid), 0);
    EXPECT_EQ(uid, kOtherAccount);
    EXPECT_EQ(gid, kOtherAccount);
}

TEST(KESTUserGetUGID, StoresNothingForAnUnknownAccount) {
    for (const char *name : {"", "no-such-account", "root ", "Root", "0", "root:x"}) {
        uid_t uid = 12345;
        gid_t gid = 54321;
        EXPECT_EQ(KESTUserGetUGID(name, &uid, &gid), -1) << name;
        EXPECT_EQ(uid, 12345U);
        EXPECT_EQ(gid, 54321U);
    }
}

} // namespace

} // namespace kest
