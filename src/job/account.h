// The account that a definition names.

#ifndef JOB_ACCOUNT_H
#define JOB_ACCOUNT_H

#include <json/value.h>
#include <optional>
#include <string>
#include <sys/types.h>

namespace kest {

// The account that a job runs as.
struct JobUser {
    bool valid = false;
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The label of the source in which accounts have directories of their own.
constexpr const char *kAccountSource = "pkg_nonroot";

// Whether the job of this full name is defined in an account's own directory. No other source's
// label begins like that one's.
bool IsOfAccountDirectory(const std::string &jobName);

// Whether the definition `config` is of a package: the class of an account is found anywhere in the
// text of "user".
bool IsOfPackage(const Json::Value &config);

// The name of the account: that of a package's is "package_username", any other user is an account
// of that very name, so that "rootjob" is one. Nothing for a package without a name and for a user
// of no class.
std::optional<std::string> AccountOf(const Json::Value &config);

} // namespace kest

#endif
