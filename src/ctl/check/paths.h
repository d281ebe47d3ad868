// Which job files a check is about, and as what each of them is read.

#ifndef CTL_CHECK_PATHS_H
#define CTL_CHECK_PATHS_H

#include "core/job_files.h"
#include "ctl/check/diagnostic.h"
#include "ctl/system/appliance.h"

#include <cstddef>
#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace kest::ctl {

// Files of one directory.
struct JobFileBatch {
    JobDirectory directory; // of a source: its path on the appliance
    bool ofSource = false;
    std::map<std::string, std::string> files; // name to what is printed for it
};

class CheckPaths {
public:
    explicit CheckPaths(const Appliance &appliance);

    // The four sources; those that do not exist are no problem, because the daemon makes them.
    void AddSources();

    // A job file, a directory of them, or the source of the accounts' directories. Throws Failure
    // when there is nothing at `path`.
    void AddPath(const std::string &path);

    // The further directories of the accounts whose directories were added, without files: what
    // lies in them takes of the same quota.
    void AddTheirOtherDirectories();

    // In the order in which the daemon reads them, those of no source last.
    std::vector<JobFileBatch> Batches() const;
    // Directories that the daemon refuses as a whole.
    const std::vector<Diagnostic> &Diagnostics() const { return diagnostics_; }
    // What could not be looked into, in words; it may be all right.
    const std::vector<std::string> &Unreadable() const { return unreadable_; }

private:
    using Rank = std::pair<std::size_t, std::string>; // of the source and, within it, the directory
    JobFileBatch *BatchOf(std::size_t source, const std::string &name, const std::string &shown);
    JobFileBatch *BatchAt(const std::string &path, const std::string &shown);
    void AddFiles(JobFileBatch *batch, const std::string &directory, const std::string &shown);
    void AddAccounts(const std::string &directory, const std::string &shown);
    bool LookAt(const std::string &path, const std::string &shown, struct stat &status);
    std::vector<std::string> NamesOf(const std::string &directory);
    bool IsSource(std::size_t source, const std::string &path) const;
    void Refuse(const std::string &shown, const std::string &message, const std::string &allowed);

    const Appliance &appliance_;
    std::map<Rank, JobFileBatch> batches_;
    std::vector<Diagnostic> diagnostics_;
    std::vector<std::string> unreadable_;
};

} // namespace kest::ctl

#endif
