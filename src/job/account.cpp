#include "job/account.h"

#include "base/json_members.h"

namespace kest {

namespace {

bool Mentions(const Json::Value &config, const char *word) {
    return TextMember(config, "user").find(word) != std::string::npos;
}

} // namespace

bool IsOfAccountDirectory(const std::string &jobName) {
    return jobName.rfind(std::string(kAccountSource) + "-", 0) == 0;
}

bool IsOfPackage(const Json::Value &config) {
    return Mentions(config, "package");
}

std::optional<std::string> AccountOf(const Json::Value &config) {
    if (IsOfPackage(config))
        return Member(config, "package_username").isString()
                   ? std::optional<std::string>(TextMember(config, "package_username"))
                   : std::nullopt;
    if (Mentions(config, "system") || Mentions(config, "root"))
        return TextMember(config, "user");
    return std::nullopt;
}

} // namespace kest
