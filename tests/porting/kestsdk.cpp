#include "platform/kestsdk.h"

#include "base/errno_guard.h"

#include <cerrno>
#include <fstream>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// Where the controller writes "active" or "held".
constexpr const char *kControllerFile = "/run/controller/state";

bool MakeOne(const std::string &path, uid_t uid, gid_t gid, mode_t mode) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        errno = ENOTDIR;
        return S_ISDIR(status.st_mode);
    }
    return errno == ENOENT && mkdir(path.c_str(), 0700) == 0 &&
           chown(path.c_str(), uid, gid) == 0 && chmod(path.c_str(), mode) == 0;
}

} // namespace

int KESTFSMkdirP(const char *path, const char * /*base*/, int parents, uid_t uid, gid_t gid,
                 mode_t mode) {
    const int error = errno;
    const std::string whole = path;
    for (auto slash = whole.find('/', 1); parents != 0 && slash != std::string::npos;
         slash = whole.find('/', slash + 1))
        if (!MakeOne(whole.substr(0, slash), uid, gid, 0755))
            return -1;
    if (!MakeOne(whole, uid, gid, mode))
        return -1;
    errno = error;
    return 0;
}

int KESTUserGetUGID(const char *name, uid_t *uid, gid_t *gid) {
    std::vector<char> texts(1 << 16);
    struct passwd entry {};
    struct passwd *found = nullptr;
    getpwnam_r(name, &entry, texts.data(), texts.size(), &found);
    if (found == nullptr)
        return -1;
    *uid = found->pw_uid;
    *gid = found->pw_gid;
    return 0;
}

int KESTVorldStatusGet(int /*query*/, int *status) {
    constexpr int active = 1;
    constexpr int held = 2;
    const kest::ErrnoGuard errnoGuard;
    std::ifstream file(kControllerFile);
    std::string word;
    if (!file)
        return 0; // the controller has not spoken yet
    file >> word;
    if (word != "active" && word != "held")
        return -1;
    *status = word == "held" ? held : active;
    return 0;
}
