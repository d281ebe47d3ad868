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

// Whether the job with this full name is defined in an account directory. No other source has a
// label that begins in the same way.
bool IsOfAccountDirectory(const std::string &jobName);

// Whether the definition `config` runs as a package account: "user" contains the class of the
// account anywhere in its text.
bool IsOfPackage(const Json::Value &config);

// The name of the account: "package_username" for a package, otherwise the text of "user" itself,
// so that "rootjob" is an account name too. Nothing for a package without a name and for a user
// without a class.
std::optional<std::string> AccountOf(const Json::Value &config);

} // namespace kest

#endif
