#include "base/move_aside.h"

#include "base/errno_guard.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace kest {

bool IsOwnDirectory(const char *path) {
    struct stat status {};
    if (lstat(path, &status) == -1)
        return false;
    if (S_ISDIR(status.st_mode) && status.st_uid == geteuid())
        return true;
    errno = S_ISDIR(status.st_mode) ? EPERM : ENOTDIR;
    return false;
}

bool MoveAside(const std::string &path) {
    std::string place = path + ".XXXXXX";
    if (mkdtemp(place.data()) == nullptr)
        return false;
    if (std::rename(path.c_str(), (place + path.substr(path.rfind('/'))).c_str()) == 0)
        return true;
    const ErrnoGuard errnoGuard;
    rmdir(place.c_str());
    return false;
}

} // namespace kest
