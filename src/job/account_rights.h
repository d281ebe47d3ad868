// Irrevocable change to another account.

#ifndef JOB_ACCOUNT_RIGHTS_H
#define JOB_ACCOUNT_RIGHTS_H

#include <string>
#include <sys/types.h>

namespace kest {

// Takes on the groups, group and user of the account irrevocably, for work on behalf of the
// account. When any step fails, returns false with errno set; the process must then end without
// doing the work. For root's own account only the groups change. The process also joins
// `extraGroup`, unless it is kNoGroup.
constexpr gid_t kNoGroup = static_cast<gid_t>(-1);
bool BecomeAccount(const std::string &name, uid_t uid, gid_t gid, gid_t extraGroup = kNoGroup);

} // namespace kest

#endif
