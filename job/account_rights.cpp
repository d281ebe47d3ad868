#include "job/account_rights.h"

#include <cerrno>
#include <grp.h>
#include <unistd.h>

bool BecomeAccount(const std::string &name, uid_t uid, gid_t gid) {
    if (initgroups(name.c_str(), gid) == -1 || setresgid(gid, gid, gid) == -1 ||
        setresuid(uid, uid, uid) == -1)
        return false;
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    if (getresuid(&real, &effective, &saved) == -1)
        return false;
    if (real == uid && effective == uid && saved == uid)
        return true;
    errno = EPERM;
    return false;
}
