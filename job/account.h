// The account that a definition names.

#ifndef JOB_ACCOUNT_H
#define JOB_ACCOUNT_H

#include <json/value.h>
#include <optional>
#include <string>

// Whether the definition `config` is of a package: the class of an account is found anywhere in the
// text of "user".
bool IsOfPackage(const Json::Value &config);

// The name of the account: that of a package's is "package_username", any other user is an account
// of that very name, so that "rootjob" is one. Nothing for a package without a name and for a user
// of no class.
std::optional<std::string> AccountOf(const Json::Value &config);

#endif
