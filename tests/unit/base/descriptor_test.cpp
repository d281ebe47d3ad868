#include "base/descriptor.h"

#include "base/errno_guard.h"
#include "tests/unit/support/child.h"
#include "tests/unit/support/files.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kest {

namespace {

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

int OpenNull() {
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

TEST(Descriptor, ClosesWhatItOwnsAndKeepsErrno) {
    const int fd = OpenNull();
    {
        const Descriptor owner(fd);
        EXPECT_TRUE(owner);
        EXPECT_EQ(owner.Get(), fd);
        errno = ENOSPC;
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(Descriptor());
    EXPECT_FALSE(Descriptor(-1));
}

TEST(Descriptor, MovesOwnership) {
    const int first = OpenNull();
    const int second = OpenNull();
    Descriptor a(first);
    Descriptor b(second);
    b = std::move(a);
    EXPECT_FALSE(IsOpen(second));
    EXPECT_EQ(b.Get(), first);
    Descriptor c(std::move(b));
    EXPECT_TRUE(IsOpen(first));
    const int released = c.Release();
    EXPECT_EQ(released, first);
    EXPECT_FALSE(c);
    EXPECT_TRUE(IsOpen(released));
    close(released);
}

TEST(ErrnoGuard, RestoresErrno) {
    errno = ENOENT;
    {
        const ErrnoGuard errnoGuard;
        errno = EACCES;
    }
    EXPECT_EQ(errno, ENOENT);
}

TEST(OpenRegularFile, OpensFilesOfTheSizeAllowed) {
    const TemporaryDirectory directory;
    WriteText(directory.File("five"), "12345");
    WriteText(directory.File("empty"), "");
    ASSERT_EQ(mkfifo(directory.File("pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("five", directory.File("link").c_str()), 0);
    ASSERT_EQ(symlink("loop", directory.File("loop").c_str()), 0);
    const struct {
        const char *name;
        FileSize allowed;
        int error;
    } rows[] = {
        {"five", {}, 0},         {"five", {5, 5}, 0},     {"five", {6, 9}, EBADMSG},
        {"five", {0, 4}, EFBIG}, {"empty", {}, 0},        {"empty", {1, 9}, EBADMSG},
        {"link", {5, 5}, 0},     {"loop", {}, ELOOP},     {"pipe", {}, EINVAL},
        {".", {}, EISDIR},       {"missing", {}, ENOENT},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Descriptor file = OpenRegularFile(directory.File(row.name), row.allowed);
        EXPECT_EQ(file ? 0 : errno, row.error);
    }
    EXPECT_FALSE(OpenRegularFile("/dev/null"));
    EXPECT_EQ(errno, EINVAL);
}

// Opening some files of the kernel has an effect. Their size is 0.
TEST(OpenRegularFile, ChecksTheSizeBeforeOpening) {
    const TemporaryDirectory directory;
    WriteText(directory.File("empty"), "");
    ASSERT_EQ(chmod(directory.File("empty").c_str(), 0), 0);
    EXPECT_EQ(
        InChild([&] {
            if (chmod(directory.File(".").c_str(), 0755) == -1 || setuid(kOtherAccount) == -1)
                return 1;
            if (OpenRegularFile(directory.File("empty")) || errno != EACCES)
                return 2;
            return OpenRegularFile(directory.File("empty"), {1, 9}) || errno != EBADMSG ? 3 : 0;
        }),
        0);
}

TEST(ReadAll, ReadsUpToItsLimit) {
    const TemporaryDirectory directory;
    const std::string text = std::string(40000, 'x') + std::string("\0\n", 2);
    WriteText(directory.File("file"), text);
    struct Row {
        std::size_t limit;
        bool fits;
    };
    const Row rows[] = {{text.size(), true},
                        {text.size() + 1, true},
                        {text.size() - 1, false},
                        {0, false},
                        {16384, false}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.limit);
        const Descriptor file(open(directory.File("file").c_str(), O_RDONLY | O_CLOEXEC));
        std::string content = "earlier";
        errno = 0;
        EXPECT_EQ(ReadAll(file.Get(), row.limit, content), row.fits);
        if (row.fits)
            EXPECT_EQ(content, text);
        else
            EXPECT_EQ(errno, EFBIG);
    }
}

TEST(ReadAll, FailsForAnUnreadableDescriptor) {
    std::string content;
    EXPECT_FALSE(ReadAll(-1, 10, content));
    EXPECT_EQ(errno, EBADF);
    const Descriptor directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_FALSE(ReadAll(directory.Get(), 10, content));
    EXPECT_EQ(errno, EISDIR);
}

TEST(WriteAll, WritesAllOrFails) {
    // More than a pipe can hold.
    const std::string text(1000000, 'x');
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t writer = StartChild([&] {
        close(ends[0]);
        return WriteAll(ends[1], text) ? 0 : 1;
    });
    close(ends[1]);
    const Descriptor reader(ends[0]);
    std::string content;
    EXPECT_TRUE(ReadAll(reader.Get(), text.size(), content));
    EXPECT_EQ(content, text);
    EXPECT_EQ(ExitStatusOf(writer), 0);

    const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(WriteAll(full.Get(), "x"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(WriteAll(full.Get(), ""));
}

TEST(CloseInheritedDescriptors, LeavesTheStandardStreams) {
    EXPECT_EQ(InChild([] {
                  const int low = OpenNull();
                  const int high = fcntl(low, F_DUPFD, 900);
                  CloseInheritedDescriptors();
                  for (int fd = 3; fd < 1024; ++fd)
                      if (IsOpen(fd))
                          return 1;
                  if (low < 3 || high < 900)
                      return 2;
                  return IsOpen(0) && IsOpen(1) && IsOpen(2) ? 0 : 3;
              }),
              0);
}

} // namespace

} // namespace kest
