#include "job/runtime_directory.h"

#include "base/errno_guard.h"
#include "base/move_aside.h"
#include "platform/kestsdk.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace kest {

namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

Descriptor OpenDirectory(int access) {
    return Descriptor(open(kRuntimeDirectory, access | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Whether another object of root's exists at the path. The operator is responsible for it.
bool IsTakenByRoot() {
    const ErrnoGuard errnoGuard;
    struct stat status {};
    return lstat(kRuntimeDirectory, &status) == 0 && status.st_uid == 0 &&
           !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode);
}

Descriptor OpenRootsDirectory() {
    Descriptor directory = OpenDirectory(O_RDONLY);
    struct stat status {};
    if (directory && fstat(directory.Get(), &status) == 0 && status.st_uid == 0)
        return directory;
    return {};
}

// Renames the directory `fresh` to the runtime directory. An object that exists there gets the name
// `fresh`. Another account may create and remove objects at that path at the same time, and each of
// the two calls fails in a different case.
bool PutInPlace(const std::string &fresh) {
    constexpr int tries = 64;
    for (int i = 0; i < tries; ++i) {
        if (std::rename(fresh.c_str(), kRuntimeDirectory) == 0)
            return true;
        if (renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, kRuntimeDirectory, RENAME_EXCHANGE) == 0)
            return true;
        // The file system cannot exchange two names.
        if (errno == EINVAL || errno == ENOSYS)
            MoveAside(kRuntimeDirectory);
    }
    return false;
}

bool MakeAndPutInPlace() {
    std::string place = std::string(kRuntimeDirectory) + ".XXXXXX";
    if (mkdtemp(place.data()) == nullptr)
        return errno == ENOENT && KESTFSMkdirP(kRuntimeDirectory, nullptr, 1, 0, 0, 0755) != -1;
    const std::string fresh = place + "/" + "moved-aside";
    const bool made =
        KESTFSMkdirP(fresh.c_str(), nullptr, 1, 0, 0, 0755) != -1 && PutInPlace(fresh);
    const ErrnoGuard errnoGuard;
    if (!made)
        rmdir(fresh.c_str());
    rmdir(
        place.c_str()); // fails when an object was moved aside, which stays in the closed directory
    return made;
}

} // namespace

Descriptor MakeRuntimeDirectory() {
    {
        const ErrnoGuard errnoGuard;
        if (Descriptor directory = OpenRootsDirectory())
            return directory;
    }
    if (IsTakenByRoot()) {
        errno = ENOTDIR;
        return {};
    }
    return MakeAndPutInPlace() ? OpenRootsDirectory() : Descriptor();
}

Descriptor OpenRuntimeDirectory(int access) {
    Descriptor directory = OpenDirectory(access);
    struct stat status {};
    if (!directory || fstat(directory.Get(), &status) == -1)
        return {};
    if (status.st_uid == 0 && (status.st_mode & kWritableByOthers) == 0)
        return directory;
    errno = EPERM;
    return {};
}

RuntimeDirectoryState RuntimeDirectoryState::Now() {
    const ErrnoGuard errnoGuard;
    const Descriptor directory = OpenDirectory(O_PATH);
    RuntimeDirectoryState state;
    struct stat status {};
    if (!directory || fstat(directory.Get(), &status) == -1 || status.st_uid != 0)
        return state;
    state.isClosed_ = (status.st_mode & S_IXOTH) == 0;
    state.isSafe_ = (status.st_mode & kWritableByOthers) == 0;
    state.device_ = status.st_dev;
    state.inode_ = status.st_ino;
    state.changed_ = status.st_mtim;
    return state;
}

bool RuntimeDirectoryState::operator==(const RuntimeDirectoryState &other) const {
    const auto all = [](const RuntimeDirectoryState &state) {
        return std::tuple(state.isSafe_, state.isClosed_, state.device_, state.inode_,
                          state.changed_.tv_sec, state.changed_.tv_nsec);
    };
    return all(*this) == all(other);
}

bool IsFitToRun(const std::string &path, uid_t uid) {
    const std::string prefix = std::string(kRuntimeDirectory) + "/";
    if (path.compare(0, prefix.size(), prefix) != 0)
        return true;
    const Descriptor directory = OpenRuntimeDirectory();
    struct stat status {};
    if (!directory ||
        fstatat(directory.Get(), path.c_str() + prefix.size(), &status, AT_SYMLINK_NOFOLLOW) == -1)
        return false;
    if (status.st_uid == 0 || status.st_uid == uid)
        return true;
    errno = EPERM;
    return false;
}

} // namespace kest
