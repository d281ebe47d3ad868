// Selects the job files to check and determines how the daemon would read each of them.

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

// The selected files of one directory.
struct JobFileBatch {
    JobDirectory directory; // in a source: the path on the appliance
    bool ofSource = false;
    std::map<std::string, std::string> files;   // name to path, as printed
    std::map<std::string, std::string> planned; // name to path of files to be installed
};

class CheckPaths {
public:
    // With an account, all paths that are added are read as the job files and directories of that
    // account, wherever they are, and share one quota with each other only.
    explicit CheckPaths(const Appliance &appliance, std::string account = {});

    // Adds the four sources. Missing ones are ignored because the daemon creates them.
    void AddSources();

    // Adds a job file, a directory of job files, or the directory of all account directories.
    // Throws Failure if `path` does not exist.
    void AddPath(const std::string &path);

    // Adds a job file, or those of a directory, as if it were installed in the source with that
    // label, which is not that of account directories, or in a directory of the account if there is
    // one. It takes the place of the file of
    // that name. A file that is in a source already belongs to that source. Call AddSources before.
    // Throws Failure if `path` does not exist or the account does not own its directory.
    void AddPlanned(const std::string &path, const std::string &label, const std::string &account);

    // Adds the other directories of the accounts that were added, without selecting files: their
    // files share the quota of the account.
    void AddOtherAccountDirectories();

    // In the order in which the daemon reads them. Directories outside the sources come last.
    std::vector<JobFileBatch> Batches() const;
    // Errors of directories that the daemon refuses, and warnings of those whose account is
    // unknown.
    const std::vector<Diagnostic> &Diagnostics() const { return diagnostics_; }
    // Directories that the caller may not read, with the error.
    const std::vector<std::string> &Unreadable() const { return unreadable_; }

private:
    using Rank = std::pair<std::size_t, std::string>; // source, then directory name

    JobFileBatch *BatchOf(std::size_t source, const std::string &name, const std::string &shown);
    JobFileBatch *BatchAt(const std::string &path, const std::string &shown);
    void AddFiles(JobFileBatch *batch, const std::string &directory, const std::string &shown);
    JobFileBatch *InstalledBatch(const std::string &directory);
    JobFileBatch &PlannedAccountBatch(const std::string &account, const std::string &name);
    JobFileBatch &PlannedBatch(const std::string &label);
    void AddAccounts(const std::string &directory, const std::string &shown);
    void AddAccountPath(const std::string &path, const std::string &shown, bool isDirectory);
    bool GetStatus(const std::string &path, const std::string &shown, struct stat &status);
    std::vector<std::string> NamesOf(const std::string &directory);
    bool IsSource(std::size_t source, const std::string &path) const;
    void Add(Severity severity, const std::string &shown, const std::string &message,
             const Hint &hint);
    void AddError(const std::string &shown, const std::string &message, const Hint &hint);

    const Appliance &appliance_;
    std::string account_;
    std::map<Rank, JobFileBatch> batches_;
    std::vector<Diagnostic> diagnostics_;
    std::vector<std::string> unreadable_;
};

} // namespace kest::ctl

#endif
