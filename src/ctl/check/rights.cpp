#include "ctl/check/rights.h"

#include "ctl/system/files.h"

#include <sys/stat.h>
#include <utility>

namespace kest::ctl {

void CheckRights::Warn(const std::string &shown, const std::string &message,
                       const std::string &allowed) {
    Diagnostic diagnostic;
    diagnostic.file = shown;
    diagnostic.severity = Severity::Warning;
    diagnostic.message = message;
    diagnostic.allowed = allowed;
    diagnostics_.push_back(std::move(diagnostic));
}

// Whether others than root and `account` may change what `path` leads to here. On the way to a
// file, nobody takes away what is another's from a sticky directory.
bool CheckRights::MayChange(const std::string &path, const std::string &account, bool isWay) const {
    struct stat status {};
    if (stat(path.c_str(), &status) == -1)
        return false;
    const bool own = !account.empty() && appliance_.AccountName(status.st_uid) == account;
    if (status.st_uid != 0 && !own)
        return true;
    if (isWay && (status.st_mode & S_ISVTX) != 0)
        return false;
    // Whom an account lets in through its own group is its own affair.
    return (status.st_mode & S_IWOTH) != 0 ||
           ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_uid == 0);
}

// Looks at each directory above `path`, which is one on the appliance, once.
void CheckRights::CheckWay(const std::string &path) {
    for (auto end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string directory = path.substr(0, end);
        if (seen_.insert(directory).second && MayChange(appliance_.Locate(directory), {}, true))
            Warn(appliance_.Locate(directory),
                 "others than root may change this directory, and with it the job files below it",
                 "owner root, and nobody else who may write");
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
                 ": whoever may change what is there decides "
                 "whose jobs it holds",
             "a directory");
}

void CheckRights::Check(const JobFileBatch &batch) {
    if (!batch.ofSource || batch.files.empty())
        return;
    const std::string &account = batch.directory.account;
    const std::string owner = account.empty() ? "root" : "root and " + Quoted(account);
    const std::string directory = appliance_.Locate(batch.directory.path);
    CheckWay(batch.directory.path);
    if (!account.empty())
        CheckLink(batch);
    if (MayChange(directory, account, false))
        Warn(directory, "others than " + owner + " may put job files into this directory",
             "a directory that nobody else may write to");
    for (const auto &[name, shown] : batch.files) {
        const std::string file = appliance_.Locate(batch.directory.path + "/" + name);
        if (MayChange(file, account, false))
            Warn(shown, "others than " + owner + " may change this file",
                 "a file that nobody else may write to");
    }
}

} // namespace kest::ctl
