#include "core/account_files.h"

#include "tests/unit/support/files.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest {

namespace {

class AccountFilesTest : public testing::Test {
protected:
    void Write(const std::string &name, const std::string &text) {
        WriteText(directory_.File(name), text);
    }

    Descriptor Open() const { return OpenPath(directory_.Path()); }

    // The files of this directory, read with the rights of `uid`.
    AccountFiles Read(uid_t uid, const AccountQuota &quota = {}) {
        AccountFiles files;
        EXPECT_EQ(ReadAsAccount(Open().Get(), {true, "somebody", uid, uid}, quota, files),
                  AccountReading::Done);
        return files;
    }

    TemporaryDirectory directory_;
};

void BeAccessible(const TemporaryDirectory &directory) {
    ASSERT_EQ(chmod(directory.Path().c_str(), 0755), 0);
}

TEST_F(AccountFilesTest, ReadsInNameOrder) {
    BeAccessible(directory_);
    Write("b", "two");
    Write("a", "one");
    Write(".hidden", "none");
    for (const uid_t uid : {0U, 4711U}) {
        const AccountFiles files = Read(uid);
        ASSERT_EQ(files.files.size(), 2U);
        EXPECT_EQ(files.files[0].name + files.files[0].text, "aone");
        EXPECT_EQ(files.files[1].name + files.files[1].text, "btwo");
        EXPECT_EQ(files.unread, 0U);
        EXPECT_FALSE(files.more);
    }
}

TEST_F(AccountFilesTest, ReadsWithTheRightsOfTheAccount) {
    BeAccessible(directory_);
    Write("closed", "text");
    ASSERT_EQ(chmod(directory_.File("closed").c_str(), 0600), 0);
    Write("empty", "");
    ASSERT_EQ(mkfifo(directory_.File("pipe").c_str(), 0666), 0);
    const AccountFiles files = Read(4711);
    ASSERT_EQ(files.files.size(), 3U);
    EXPECT_EQ(files.files[0].error, EACCES);
    EXPECT_EQ(files.files[1].error, EBADMSG);
    EXPECT_EQ(files.files[2].error, EINVAL);
    EXPECT_EQ(Read(0).files[0].text, "text");
}

TEST_F(AccountFilesTest, ReadsOnlyWithinTheQuota) {
    BeAccessible(directory_);
    for (int i = 0; i < 40; ++i)
        Write(std::to_string(10 + i), std::string(i == 1 ? 5000 : 100, 'x'));
    for (const uid_t uid : {0U, 4711U}) {
        const AccountFiles files = Read(uid, {5 * kLeastCharge, 0});
        // The files within the quota, and the names of some others.
        ASSERT_EQ(files.files.size(), 5 + LeftOut::kMostNames);
        EXPECT_EQ(files.unread, 40 - files.files.size());
        for (std::size_t i = 0; i < files.files.size(); ++i)
            EXPECT_EQ(files.files[i].error, i == 1 || i >= 5 ? EDQUOT : 0) << i;
    }
}

TEST_F(AccountFilesTest, LeavesNoProcess) {
    BeAccessible(directory_);
    Read(4711);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(AccountFilesTest, FailsWithoutADirectory) {
    AccountFiles files;
    EXPECT_EQ(ReadAsAccount(Open().Get(), {true, "somebody", 4711, 4711}, {}, files),
              AccountReading::NotOpened);
    EXPECT_EQ(errno, EACCES);
    Write("file", "");
    const Descriptor file = OpenPath(directory_.File("file"));
    EXPECT_EQ(ReadAsAccount(file.Get(), {true, "root", 0, 0}, {}, files),
              AccountReading::NotOpened);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(AccountFilesTest, ParsesAndCharges) {
    struct {
        const char *text;
        int readError;
        int error;
        std::size_t bytesLeft;
    } const rows[] = {
        {"[{}]", 0, 0, 2048},    {"[{},{},{}]", 0, 0, 0},    {"[{},{},{},{}]", 0, EDQUOT, 2048},
        {"[", 0, EBADMSG, 2048}, {"", EACCES, EACCES, 2048}, {"", EDQUOT, EDQUOT, 2048}};
    for (const auto &row : rows) {
        AccountQuota quota{3 * kLeastCharge, 0};
        AccountFile file{"f", row.readError, row.text};
        JsonOrigin origin;
        Json::Value document;
        EXPECT_EQ(ParseAccountFile(file, quota, origin, document), row.error) << row.text;
        EXPECT_EQ(document.isNull(), row.error != 0) << row.text;
        EXPECT_EQ(quota.bytes, row.bytesLeft) << row.text;
    }
}

TEST(MayBeAccountDirectory, DependsOnOwnerModeAndPath) {
    struct {
        mode_t mode;
        uid_t owner;
        bool isFit;
        bool isFitBehindLink;
    } const rows[] = {{S_IFDIR | 0755, 0, true, false},    {S_IFDIR | 0775, 0, false, false},
                      {S_IFDIR | 01777, 0, false, false},  {S_IFDIR | 0755, 1000, true, true},
                      {S_IFDIR | 0700, 1000, true, true},  {S_IFDIR | 0777, 1000, true, false},
                      {S_IFDIR | 0775, 1000, true, false}, {S_IFREG | 0666, 0, true, true}};
    for (const auto &row : rows) {
        struct stat status {};
        status.st_mode = row.mode;
        status.st_uid = row.owner;
        EXPECT_EQ(MayBeAccountDirectory(status, false), row.isFit) << std::oct << row.mode;
        EXPECT_EQ(MayBeAccountDirectory(status, true), row.isFitBehindLink) << std::oct << row.mode;
    }
}

} // namespace

} // namespace kest
