// The runtime directory, which holds the staged programs.
//
// Its parent directory is writable by everybody, so any account could create it first, and root
// runs the programs in it. Therefore it is checked by its descriptor: it must belong to root and be
// writable by root only.

#ifndef JOB_RUNTIME_DIRECTORY_H
#define JOB_RUNTIME_DIRECTORY_H

#include "base/descriptor.h"
#include "base/paths.h"

#include <fcntl.h>
#include <string>
#include <sys/types.h>

namespace kest {

// The path of the staged program of the job with this full name.
inline std::string StagedPath(const std::string &jobName) {
    return std::string(kRuntimeDirectory) + "/" + jobName;
}

// Creates the runtime directory unless root has one already. Moves any other object at its path
// aside, unless it is a file of root's (ENOTDIR). The directory is created under a fresh name and
// then renamed, so that no account can interfere. Returns its descriptor, or an empty one with
// errno set.
Descriptor MakeRuntimeDirectory();

// Opens the runtime directory with the access mode `access`. Returns an empty descriptor with errno
// set when it does not exist, is a link, does not belong to root or is writable by others (EPERM).
Descriptor OpenRuntimeDirectory(int access = O_PATH);

// The state of the runtime directory. Two states are equal when they are of the same directory and
// no entry was added, replaced or removed in between, or when there was no directory either time.
class RuntimeDirectoryState {
public:
    // The present state.
    static RuntimeDirectoryState Now();

    bool operator==(const RuntimeDirectoryState &other) const;
    bool operator!=(const RuntimeDirectoryState &other) const { return !(*this == other); }

    // Whether it is a directory that belongs to root and that only root can write to.
    bool IsSafe() const { return isSafe_; }
    // Whether it belongs to root and is closed to all other accounts: a load without a mount
    // namespace is copying programs into it.
    bool IsClosed() const { return isClosed_; }

private:
    bool isSafe_ = false;
    bool isClosed_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    timespec changed_{};
};

// Whether the program at `path` may be run as the account `uid`. A program in the runtime directory
// must belong to root or to that account, and the directory must be safe, so that no other account
// can have placed it. When it may not be run, errno is set.
bool IsFitToRun(const std::string &path, uid_t uid);

} // namespace kest

#endif
