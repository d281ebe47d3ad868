// Who may change what the daemon reads as root's or as an account's.

#ifndef CTL_CHECK_RIGHTS_H
#define CTL_CHECK_RIGHTS_H

#include "ctl/check/diagnostic.h"
#include "ctl/check/paths.h"
#include "ctl/system/appliance.h"

#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kest::ctl {

class CheckRights {
public:
    explicit CheckRights(const Appliance &appliance) : appliance_(appliance) {}

    // Adds a warning for each directory on the way to the files of `batch`, for the directory, for
    // each of the files, and for what the links among them lead to, that somebody else than root
    // and the account of the directory could change, and for an account directory that is a link.
    void Check(const JobFileBatch &batch);

    const std::vector<Diagnostic> &Diagnostics() const { return diagnostics_; }

private:
    void CheckLink(const JobFileBatch &batch);
    void CheckWay(const std::string &path);
    bool MayChange(const std::string &path, const std::string &account, bool isWay) const;
    void Warn(const std::string &shown, const std::string &message, const std::string &allowed);

    const Appliance &appliance_;
    std::set<std::string> seen_; // directories above others that were looked at
    std::vector<Diagnostic> diagnostics_;
};

} // namespace kest::ctl

#endif
