// Giving up root for good.

#ifndef JOB_ACCOUNT_RIGHTS_H
#define JOB_ACCOUNT_RIGHTS_H

#include <string>
#include <sys/types.h>

namespace kest {

// Takes on the account's groups, group and user, none of which can be undone. For work that is done
// on behalf of an account: when any step fails, it returns false with errno set, and the process
// must end without doing that work. It may be called with root's own account, and then changes
// the groups only. It also joins `extraGroup`, unless that is kNoGroup.
constexpr gid_t kNoGroup = static_cast<gid_t>(-1);
bool BecomeAccount(const std::string &name, uid_t uid, gid_t gid, gid_t extraGroup = kNoGroup);

} // namespace kest

#endif
