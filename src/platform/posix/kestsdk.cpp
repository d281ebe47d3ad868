#include "platform/kestsdk.h"

#include "base/descriptor.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using kest::Descriptor;
using kest::ReadAll;

namespace {

constexpr const char *kStatusFile = "/var/run/kestvorld.status";

// Whether `path` is a directory; errno is ENOTDIR when another object exists there.
bool IsDirectory(const char *path) {
    struct stat status {};
    if (stat(path, &status) == -1)
        return false;
    if (S_ISDIR(status.st_mode))
        return true;
    errno = ENOTDIR;
    return false;
}

bool MakeDirectory(const char *path, uid_t uid, gid_t gid, mode_t mode) {
    if (IsDirectory(path))
        return true;
    if (errno != ENOENT)
        return false;
    // Created closed; gets its mode after its owner, so that no other account can enter it before.
    return mkdir(path, 0700) == 0 && chown(path, uid, gid) == 0 && chmod(path, mode) == 0;
}

// Parents are readable by all: accounts must reach the directories below them.
bool MakeParents(const std::string &path, uid_t uid, gid_t gid) {
    constexpr mode_t mode = 0755;
    for (auto slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        if (!MakeDirectory(path.substr(0, slash).c_str(), uid, gid, mode))
            return false;
    return true;
}

} // namespace

int KESTFSMkdirP(const char *path, const char * /*base*/, int parents, uid_t uid, gid_t gid,
                 mode_t mode) {
    const int error = errno;
    if (parents != 0 && !IsDirectory(path) && !MakeParents(path, uid, gid))
        return -1;
    if (!MakeDirectory(path, uid, gid, mode))
        return -1;
    errno = error; // a missing directory is not a failure
    return 0;
}

int KESTUserGetUGID(const char *name, uid_t *uid, gid_t *gid) {
    std::vector<char> strings(1024);
    struct passwd entry {};
    struct passwd *found = nullptr;
    while (getpwnam_r(name, &entry, strings.data(), strings.size(), &found) == ERANGE)
        strings.resize(strings.size() * 2);
    if (found == nullptr)
        return -1;
    *uid = found->pw_uid;
    *gid = found->pw_gid;
    return 0;
}

int KESTVorldStatusGet(int /*query*/, int *status) {
    const int error = errno;
    const Descriptor file(open(kStatusFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file && errno == ENOENT) {
        errno = error; // nothing has been reported
        return 0;
    }
    std::string text;
    if (!file || !ReadAll(file.Get(), 64, text))
        return -1;
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0)
        text.pop_back();
    int reported = 0;
    const char *end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, reported);
    if (read.ec != std::errc() || read.ptr != end)
        return -1;
    *status = reported;
    return 0;
}
