// Checks who can change the job files of the four sources.

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

    // Adds a warning for the directory of `batch`, for each of its files and for each directory
    // above them that users other than root and the account of the directory can change. Links are
    // followed. Also adds a warning for an account directory that is a link.
    void Check(const JobFileBatch &batch);

    const std::vector<Diagnostic> &Diagnostics() const { return diagnostics_; }

private:
    void CheckLink(const JobFileBatch &batch);
    void CheckParents(const std::string &path);
    bool MayChange(const std::string &path, const std::string &account, bool isParent) const;
    void Warn(const std::string &shown, const std::string &message, const Hint &hint);

    const Appliance &appliance_;
    std::set<std::string> seen_; // parent directories already checked
    std::vector<Diagnostic> diagnostics_;
};

} // namespace kest::ctl

#endif
