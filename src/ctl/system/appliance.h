// The appliance that is looked at: this one, or another one whose files lie below a directory.

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
    // `root` is empty for this appliance. Its time zone becomes the program's. Throws Failure for
    // anything but a directory.
    explicit Appliance(const std::string &root);

    bool IsThisOne() const { return root_.empty(); }

    // Where the appliance's file `path` is found here; its links are followed as they lead there,
    // the last one too. The file need not exist. Empty, which names
    // nothing, for links that lead in a circle.
    std::string Locate(const std::string &path) const;

    bool HasAccount(const std::string &name) const;
    // The name of the account; nothing when there is none of that number.
    std::optional<std::string> AccountName(uid_t uid) const;

private:
    std::string root_;
    std::map<uid_t, std::string> accounts_; // of another appliance
};

// The names in a directory that are job files or account directories, in the order in which they
// are read. Throws Failure when it cannot be read.
std::vector<std::string> NamesIn(const std::string &directory);

} // namespace kest::ctl

#endif
