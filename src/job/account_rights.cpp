#include "job/account_rights.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <grp.h>
#include <unistd.h>
#include <vector>

namespace kest {

namespace {

bool JoinGroup(gid_t group) {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    groups.push_back(group);
    return count >= 0 && setgroups(groups.size(), groups.data()) == 0;
}

} // namespace

bool BecomeAccount(const std::string &name, uid_t uid, gid_t gid, gid_t extraGroup) {
    if (initgroups(name.c_str(), gid) == -1 || (extraGroup != kNoGroup && !JoinGroup(extraGroup)) ||
        setresgid(gid, gid, gid) == -1 || setresuid(uid, uid, uid) == -1)
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

} // namespace kest
