#include "ctl/check/rights.h"

#include "ctl/system/files.h"

#include <sys/stat.h>
#include <utility>

namespace kest::ctl {

void CheckRights::Warn(const std::string &shown, const std::string &message, const Hint &hint) {
    Diagnostic diagnostic;
    diagnostic.file = shown;
    diagnostic.severity = Severity::Warning;
    diagnostic.message = message;
    diagnostic.hint = hint;
    diagnostics_.push_back(std::move(diagnostic));
}

// Whether users other than root and `account` can change the file at `path`, links followed. A
// sticky directory is safe as a parent, because nobody can remove the entries of others from it.
bool CheckRights::MayChange(const std::string &path, const std::string &account,
                            bool isParent) const {
    struct stat status {};
    if (stat(path.c_str(), &status) == -1)
        return false;
    const bool own = !account.empty() && appliance_.AccountName(status.st_uid) == account;
    if (status.st_uid != 0 && !own)
        return true;
    if (isParent && (status.st_mode & S_ISVTX) != 0)
        return false;
    // An account may share its own files with a group.
    return (status.st_mode & S_IWOTH) != 0 ||
           ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_uid == 0);
}

// Checks each directory above `path`, a path on the appliance, once.
void CheckRights::CheckParents(const std::string &path) {
    for (auto end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string directory = path.substr(0, end);
        if (seen_.insert(directory).second && MayChange(appliance_.Locate(directory), {}, true))
            Warn(appliance_.Locate(directory),
                 "users other than root can change this directory and the job files below it",
                 Expected("a directory that only root owns and can write to"));
    }
}

void CheckRights::CheckLink(const JobFileBatch &batch) {
    const std::string &path = batch.directory.path;
    const auto slash = path.rfind('/');
    const std::string itself = appliance_.Locate(path.substr(0, slash)) + path.substr(slash);
    const std::string target = ReadLink(itself);
    if (!target.empty())
        Warn(itself,
             "is a link to " + Quoted(target) +
                 ": whoever can replace the target determines the account of the jobs",
             Expected("a directory"));
}

void CheckRights::Check(const JobFileBatch &batch) {
    if (!batch.ofSource || batch.files.empty())
        return;
    const std::string &account = batch.directory.account;
    const std::string owner = account.empty() ? "root" : "root and " + Quoted(account);
    const std::string directory = appliance_.Locate(batch.directory.path);
    CheckParents(batch.directory.path);
    if (!account.empty())
        CheckLink(batch);
    if (MayChange(directory, account, false))
        Warn(directory, "users other than " + owner + " can add job files to this directory",
             Expected("a directory that nobody else can write to"));
    for (const auto &[name, shown] : batch.files) {
        const std::string file = appliance_.Locate(batch.directory.path + "/" + name);
        if (MayChange(file, account, false))
            Warn(shown, "users other than " + owner + " can change this file",
                 Expected("a file that nobody else can write to"));
    }
}

} // namespace kest::ctl
