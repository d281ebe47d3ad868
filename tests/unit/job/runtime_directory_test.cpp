#include "job/runtime_directory.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest {

namespace {

const std::string kProgram = std::string(kRuntimeDirectory) + "/x";

// Runs `check` in a process that has its own, empty "/tmp". Returns the number of the expectation
// that failed, or 0.
template <typename Check>
int WithOwnTmp(Check check) {
    return InChild([&check] {
        if (unshare(CLONE_NEWNS) == -1 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1 ||
            mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == -1)
            return 100;
        return check();
    });
}

bool HasOwner(const char *path, uid_t uid, mode_t mode) {
    struct stat status {};
    return lstat(path, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == uid &&
           (status.st_mode & 07777) == mode;
}

TEST(MakeRuntimeDirectory, CreatesItOnce) {
    EXPECT_EQ(WithOwnTmp([] {
                  if (!MakeRuntimeDirectory() || !HasOwner(kRuntimeDirectory, 0, 0755))
                      return 1;
                  const RuntimeDirectoryState before = RuntimeDirectoryState::Now();
                  if (!MakeRuntimeDirectory() || RuntimeDirectoryState::Now() != before)
                      return 2;
                  return std::distance(std::filesystem::directory_iterator("/tmp"), {}) == 1 ? 0
                                                                                             : 3;
              }),
              0);
}

TEST(MakeRuntimeDirectory, MovesOtherObjectsAside) {
    enum { kDirectory, kFull, kFile, kLink };
    for (const int kind : {kDirectory, kFull, kFile, kLink})
        EXPECT_EQ(WithOwnTmp([kind] {
                      if (kind == kLink)
                          std::filesystem::create_directory_symlink("/usr", kRuntimeDirectory);
                      else if (kind == kFile)
                          WriteText(kRuntimeDirectory, "in the way");
                      else
                          std::filesystem::create_directory(kRuntimeDirectory);
                      if (kind == kFull)
                          WriteText(kProgram, "planted");
                      if (lchown(kRuntimeDirectory, kOtherAccount, kOtherAccount) == -1)
                          return 1;
                      if (!MakeRuntimeDirectory() || !HasOwner(kRuntimeDirectory, 0, 0755))
                          return 2;
                      return std::filesystem::is_empty(kRuntimeDirectory) ? 0 : 3;
                  }),
                  0)
            << kind;
}

TEST(OpenRuntimeDirectory, RejectsADirectoryThatOthersCanChange) {
    const struct {
        uid_t owner;
        mode_t mode;
        int error; // 0 if it is opened
    } rows[] = {
        {0, 0755, 0},      {0, 0700, 0},     {0, 0775, EPERM},
        {0, 01777, EPERM}, {0, 0757, EPERM}, {kOtherAccount, 0755, EPERM},
    };
    for (const auto &row : rows)
        EXPECT_EQ(WithOwnTmp([&row] {
                      if (mkdir(kRuntimeDirectory, 0700) == -1 ||
                          chown(kRuntimeDirectory, row.owner, 0) == -1 ||
                          chmod(kRuntimeDirectory, row.mode) == -1)
                          return 100;
                      errno = 0;
                      const bool opened = static_cast<bool>(OpenRuntimeDirectory());
                      const bool isSafe = RuntimeDirectoryState::Now().IsSafe();
                      return opened == (row.error == 0) && isSafe == opened && errno == row.error
                                 ? 0
                                 : 1;
                  }),
                  0)
            << row.owner << " " << std::oct << row.mode;
    EXPECT_EQ(WithOwnTmp([] {
                  std::filesystem::create_directory_symlink("/usr", kRuntimeDirectory);
                  return OpenRuntimeDirectory() ? 1 : 0;
              }),
              0);
}

TEST(RuntimeDirectoryState, ChangesWithItsEntries) {
    EXPECT_EQ(WithOwnTmp([] {
                  MakeRuntimeDirectory();
                  const RuntimeDirectoryState empty = RuntimeDirectoryState::Now();
                  WriteText(kProgram, "");
                  const RuntimeDirectoryState full = RuntimeDirectoryState::Now();
                  if (full == empty || RuntimeDirectoryState::Now() != full)
                      return 1;
                  chmod(kRuntimeDirectory, 0700);
                  if (!RuntimeDirectoryState::Now().IsClosed() || full.IsClosed())
                      return 2;
                  unlink(kProgram.c_str());
                  rmdir(kRuntimeDirectory);
                  return RuntimeDirectoryState::Now().IsSafe() ? 3 : 0;
              }),
              0);
}

TEST(IsFitToRun, IsTrueForProgramsOfRootAndTheAccount) {
    const struct {
        uid_t owner;
        uid_t account;
        bool isFit;
    } rows[] = {
        {0, 0, true},
        {0, kOtherAccount, true},
        {kOtherAccount, kOtherAccount, true},
        {kOtherAccount, 0, false},
        {kOtherAccount, kOtherAccount + 1, false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(WithOwnTmp([&row] {
                      MakeRuntimeDirectory();
                      WriteText(kProgram, "");
                      if (chown(kProgram.c_str(), row.owner, 0) == -1)
                          return 100;
                      errno = 0;
                      const bool isFit = IsFitToRun(kProgram, row.account);
                      return isFit == row.isFit && (isFit || errno == EPERM) ? 0 : 1;
                  }),
                  0)
            << row.owner << " " << row.account;
}

TEST(IsFitToRun, IsFalseInADirectoryOfAnotherAccount) {
    EXPECT_EQ(WithOwnTmp([] {
                  MakeRuntimeDirectory();
                  WriteText(kProgram, "");
                  if (chown(kRuntimeDirectory, kOtherAccount, 0) == -1)
                      return 100;
                  if (IsFitToRun(kProgram, 0) || errno != EPERM)
                      return 1;
                  std::filesystem::remove_all(kRuntimeDirectory);
                  if (IsFitToRun(kProgram, 0) || errno != ENOENT)
                      return 2;
                  return IsFitToRun("/bin/sh", 0) ? 0 : 3;
              }),
              0);
}

} // namespace

} // namespace kest
