#include "core/unreadable.h"

#include "base/errno_guard.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kest {

namespace {

bool IsWorthKeeping(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

// Gives the file a second name, which does not need reading. Copies it when the file system has no
// hard links.
bool LinkOrCopy(const std::string &path, const std::string &fresh) {
    if (linkat(AT_FDCWD, path.c_str(), AT_FDCWD, fresh.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return true;
    std::error_code error;
    if (std::filesystem::copy_file(path, fresh, error))
        return true;
    errno = error.value();
    return false;
}

} // namespace

std::string UnreadableName(const std::string &path) {
    return path + ".unreadable";
}

bool KeepUnreadable(const std::string &path) {
    if (!IsWorthKeeping(path))
        return true;
    const std::string kept = UnreadableName(path);
    const std::string fresh = kept + ".new";
    std::remove(fresh.c_str()); // left behind by a crash
    const bool done = LinkOrCopy(path, fresh) && std::rename(fresh.c_str(), kept.c_str()) == 0;
    // When both names already denote the same file, the rename does nothing and leaves `fresh`.
    const ErrnoGuard error;
    std::remove(fresh.c_str());
    return done;
}

} // namespace kest
