// The runtime directory, which holds the staged programs.
//
// It lies in a directory where anybody may make one first, and root runs what lies in it. So it is
// judged by its descriptor: root's own, and closed for writing to everybody else.

#ifndef JOB_RUNTIME_DIRECTORY_H
#define JOB_RUNTIME_DIRECTORY_H

#include "base/descriptor.h"

#include <fcntl.h>
#include <string>
#include <sys/types.h>

namespace kest {

constexpr const char *kRuntimeDirectory = "/tmp/kestcrond";

// Where the copy of a job's program is, by the full job name.
inline std::string StagedPath(const std::string &jobName) {
    return std::string(kRuntimeDirectory) + "/" + jobName;
}

// Makes the runtime directory when there is none of root's own, and moves what stands in its place
// aside, unless that is a file of root's (ENOTDIR). It comes into being under a fresh name, so that
// nobody can be quicker. Returns its descriptor, or none with errno set.
Descriptor MakeRuntimeDirectory();

// Opens the runtime directory with the access mode `access`. Returns none, with errno set, when it
// is not there, is a link, belongs to anybody but root or can be written to by others (EPERM).
Descriptor OpenRuntimeDirectory(int access = O_PATH);

// What stands at the runtime directory's path. Two states that compare equal are those of one
// directory in which nothing was put, replaced or removed, or both are those of none.
class RuntimeDirectoryState {
public:
    // The present state.
    static RuntimeDirectoryState Now();

    bool operator==(const RuntimeDirectoryState &other) const;
    bool operator!=(const RuntimeDirectoryState &other) const { return !(*this == other); }

    // Whether it is a directory of root's own that nobody else can write to.
    bool IsSafe() const { return isSafe_; }
    // Whether it is a directory of root's own that is closed to everybody else: a load that cannot
    // have a mount namespace is copying programs into it.
    bool IsClosed() const { return isClosed_; }

private:
    bool isSafe_ = false;
    bool isClosed_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    timespec changed_{};
};

// Whether the program at `path` may be run as the account `uid`: one in the runtime directory only
// when that is safe, and the program belongs to root or that account, so that nobody else can have
// put it there. When it may not, errno is set.
bool IsFitToRun(const std::string &path, uid_t uid);

} // namespace kest

#endif
