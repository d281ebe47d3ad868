#include "base/descriptor.h"

#include "base/errno_guard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <linux/openat2.h>
#include <memory>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

namespace kest {

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
    if (this != &other) {
        Close();
        fd_ = other.Release();
    }
    return *this;
}

int Descriptor::Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void Descriptor::Close() {
    if (fd_ >= 0) {
        const ErrnoGuard errnoGuard;
        close(Release());
    }
}

namespace {

constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC; // does not wait for a lease either

// Opens the object at the resolved `path` and follows no further link: an account that could
// replace the file meanwhile can place a device there only by a link.
Descriptor OpenResolved(const std::string &path) {
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), free);
    if (!resolved)
        return {};
    open_how how{};
    how.flags = kReadFlags | O_NOFOLLOW;
    how.resolve = RESOLVE_NO_SYMLINKS;
    Descriptor file(
        static_cast<int>(syscall(SYS_openat2, AT_FDCWD, resolved.get(), &how, sizeof how)));
    if (!file && errno == ENOSYS) // a kernel before 5.6
        file = Descriptor(open(resolved.get(), kReadFlags | O_NOFOLLOW));
    return file;
}

// Opens the file at `path`, which must be the one with this status. Entries of an account directory
// are opened with the rights of the account, so an entry that the account replaces gives it access
// to no other file.
Descriptor OpenAgain(int directory, const std::string &path, const struct stat &status) {
    Descriptor file = directory == AT_FDCWD
                          ? OpenResolved(path)
                          : Descriptor(openat(directory, path.c_str(), kReadFlags));
    struct stat opened {};
    if (!file || fstat(file.Get(), &opened) == -1)
        return {};
    if (opened.st_dev == status.st_dev && opened.st_ino == status.st_ino)
        return file;
    errno = ESTALE;
    return {};
}

// Opens for reading the regular file that `named` refers to and that was found at `path`.
Descriptor Reopen(const Descriptor &named, const struct stat &status, int directory,
                  const std::string &path) {
    const int error = errno;
    Descriptor file(open(("/proc/self/fd/" + std::to_string(named.Get())).c_str(), kReadFlags));
    if (file || errno != ENOENT)
        return file;
    errno = error; // a missing "/proc" is not a failure
    return OpenAgain(directory, path, status);
}

} // namespace

Descriptor OpenRegularFile(const std::string &path, const FileSize &allowed) {
    return OpenRegularFileAt(AT_FDCWD, path, allowed);
}

Descriptor OpenRegularFileAt(int directory, const std::string &path, const FileSize &allowed) {
    const Descriptor named(openat(directory, path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!named || fstat(named.Get(), &status) == -1)
        return {};
    const auto size = static_cast<std::uintmax_t>(status.st_size);
    if (!S_ISREG(status.st_mode))
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    else if (size < allowed.least || size > allowed.most)
        errno = size < allowed.least ? EBADMSG : EFBIG;
    else
        return Reopen(named, status, directory, path);
    return {};
}

Descriptor OpenOwnFile(const std::string &path, int flags) {
    Descriptor file(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) == -1)
        return {};
    if (S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1)
        return file;
    errno = EPERM;
    return {};
}

bool ReadAll(int fd, std::size_t limit, std::string &content) {
    content.clear();
    std::array<char, 4096> block{}; // cleared each time: most files are small
    for (;;) {
        const ssize_t got = read(fd, block.data(), block.size());
        if (got == 0)
            return true;
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        content.append(block.data(), static_cast<std::size_t>(got));
        if (content.size() > limit) {
            errno = EFBIG;
            return false;
        }
    }
}

bool WriteAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

fd_set SelectSetOf(int fd) {
    fd_set set;
    FD_ZERO(&set);
    if (fd != -1)
        FD_SET(fd, &set);
    return set;
}

void CloseInheritedDescriptors(int kept) {
    // Otherwise the C library would not notice that its connection to the system log is closed, and
    // would write messages to the next file that gets the descriptor number.
    closelog();
    const ErrnoGuard error;
    const auto first = static_cast<unsigned>(STDERR_FILENO + 1);
    const auto hole = kept < 0 ? ~0U : static_cast<unsigned>(kept);
    if ((hole <= first || close_range(first, hole - 1, 0) == 0) &&
        (hole == ~0U || close_range(hole + 1, ~0U, 0) == 0))
        return;
    // A kernel before 5.9.
    const auto limit = static_cast<int>(std::min(sysconf(_SC_OPEN_MAX), 65536L));
    for (int fd = STDERR_FILENO + 1; fd < limit; ++fd)
        if (fd != kept)
            close(fd);
}

} // namespace kest
