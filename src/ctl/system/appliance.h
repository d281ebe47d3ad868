// The appliance to read: the running system, or another one whose files are below a directory.

#ifndef CTL_SYSTEM_APPLIANCE_H
#define CTL_SYSTEM_APPLIANCE_H

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kest::ctl {

class Appliance {
public:
    // `root` is empty for the running system. Throws Failure if `root` is not a directory.
    explicit Appliance(const std::string &root);

    bool IsLocal() const { return root_.empty(); }

    // The path on the running system of the appliance's file `path`. All links are resolved within
    // the appliance, including the last component. The file need not exist. Empty, which is not the
    // path of any file, if the links form a loop.
    std::string Locate(const std::string &path) const;

    // Whether there is an account database. A build tree may have none.
    bool HasAccounts() const { return IsLocal() || !accounts_.empty(); }
    bool HasAccount(const std::string &name) const;
    // The name of an account; nothing if it does not exist.
    std::optional<std::string> AccountName(uid_t uid) const;
    // The home directory of an account, as the account database has it; nothing if the account does
    // not exist.
    std::optional<std::string> HomeOf(const std::string &name) const;

private:
    std::string root_;
    // Only of another appliance.
    std::map<uid_t, std::string> accounts_;
    std::map<std::string, std::string> homes_;
};

// The entries of a directory except hidden ones, in the order in which the daemon reads them.
// Throws Failure if the directory cannot be read.
std::vector<std::string> NamesIn(const std::string &directory);

} // namespace kest::ctl

#endif
