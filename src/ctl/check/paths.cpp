#include "ctl/check/paths.h"

#include "core/account_files.h"
#include "ctl/system/failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <unistd.h>

namespace kest::ctl {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kNoSource = kJobSources.size();

std::size_t AccountSource() {
    return static_cast<std::size_t>(
        std::find_if(kJobSources.begin(), kJobSources.end(),
                     [](const JobSource &source) { return source.perAccount; }) -
        kJobSources.begin());
}

// Without links; empty when there is nothing.
std::string Canonical(const fs::path &path) {
    std::error_code ignored;
    return fs::canonical(path, ignored).string();
}

// `path` as it can be taken apart: absolute, without "." and ".." at its end.
fs::path Whole(const std::string &path) {
    fs::path whole = fs::absolute(path);
    if (!whole.has_filename())
        whole = whole.parent_path();
    return whole.filename() == "." || whole.filename() == ".." ? fs::path(Canonical(whole)) : whole;
}

// `path` without slashes at its end.
std::string Trimmed(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string PathIn(const std::string &directory, const std::string &name) {
    return directory + (directory == "/" ? "" : "/") + name;
}

} // namespace

CheckPaths::CheckPaths(const Appliance &appliance) : appliance_(appliance) {}

std::vector<JobFileBatch> CheckPaths::Batches() const {
    std::vector<JobFileBatch> batches;
    for (const auto &[rank, batch] : batches_)
        batches.push_back(batch);
    return batches;
}

void CheckPaths::Refuse(const std::string &shown, const std::string &message,
                        const std::string &allowed) {
    const bool known =
        std::any_of(diagnostics_.begin(), diagnostics_.end(),
                    [&](const Diagnostic &diagnostic) { return diagnostic.file == shown; });
    Diagnostic diagnostic;
    diagnostic.file = shown;
    diagnostic.message = message;
    diagnostic.allowed = allowed;
    if (!known)
        diagnostics_.push_back(std::move(diagnostic));
}

bool CheckPaths::LookAt(const std::string &path, const std::string &shown, struct stat &status) {
    if (stat(path.c_str(), &status) == 0)
        return true;
    const std::string reason = std::strerror(errno);
    if (errno == EACCES && geteuid() != 0) // root may all the same
        unreadable_.push_back(shown + ": " + reason);
    else
        Refuse(shown, "cannot be looked at: " + reason, "a directory");
    return false;
}

std::vector<std::string> CheckPaths::NamesOf(const std::string &directory) {
    try {
        return NamesIn(directory);
    } catch (const Failure &failure) {
        unreadable_.emplace_back(failure.what());
        return {};
    }
}

bool CheckPaths::IsSource(std::size_t source, const std::string &path) const {
    const std::string place = Canonical(appliance_.Locate(kJobSources.at(source).directory));
    return !place.empty() && place == Canonical(path);
}

// The batch of a source, of an account's directory `name` where it has those; null, and a problem,
// when the daemon refuses the directory.
JobFileBatch *CheckPaths::BatchOf(std::size_t source, const std::string &name,
                                  const std::string &shown) {
    JobDirectory directory{kJobSources.at(source).directory, kJobSources.at(source).label, {}};
    if (kJobSources.at(source).perAccount)
        directory.path = PathIn(directory.path, name);
    struct stat status {};
    if (!LookAt(appliance_.Locate(directory.path), shown, status))
        return nullptr;
    if (kJobSources.at(source).perAccount) {
        const std::optional<std::string> owner = appliance_.AccountName(status.st_uid);
        if (!owner || owner->empty()) {
            Refuse(shown, "its owner, number " + std::to_string(status.st_uid) + ", is no account",
                   "a directory that belongs to the account of its jobs");
            return nullptr;
        }
        directory.account = *owner;
        const bool isLink = IsLink(appliance_.Locate(directory.path));
        if (!MayBeAccountDirectory(status, isLink)) {
            Refuse(shown,
                   isLink ? "is a link to a directory of root's, or to one that others may write to"
                          : "belongs to root, and others may write to it",
                   "a directory that only the account of its jobs may write to");
            return nullptr;
        }
    }
    if (!S_ISDIR(status.st_mode)) {
        Refuse(shown, "is no directory", "a directory");
        return nullptr;
    }
    JobFileBatch &batch = batches_[{source, name}];
    batch.directory = directory;
    batch.ofSource = true;
    return &batch;
}

// The batch of the directory at `path`, whether it is one of a source or not.
JobFileBatch *CheckPaths::BatchAt(const std::string &path, const std::string &shown) {
    for (std::size_t source = 0; source < kJobSources.size(); ++source)
        if (!kJobSources.at(source).perAccount && IsSource(source, path))
            return BatchOf(source, {}, shown);
    // A link among the accounts' directories is known by its own place, not by where it leads.
    for (const fs::path &way : {Whole(path), fs::path(Canonical(path))})
        if (IsSource(AccountSource(), way.parent_path().string()))
            return BatchOf(AccountSource(), way.filename().string(), shown);
    JobFileBatch &batch = batches_[{kNoSource, Canonical(path)}];
    if (batch.directory.path.empty())
        batch.directory.path = path;
    return &batch;
}

void CheckPaths::AddFiles(JobFileBatch *batch, const std::string &directory,
                          const std::string &shown) {
    if (batch == nullptr)
        return;
    for (const std::string &name : NamesOf(directory))
        batch->files.emplace(name, PathIn(shown, name));
}

void CheckPaths::AddAccounts(const std::string &directory, const std::string &shown) {
    for (const std::string &name : NamesOf(directory)) {
        const std::string inside = PathIn(kJobSources.at(AccountSource()).directory, name);
        const std::string shownPath = PathIn(shown, name);
        AddFiles(BatchOf(AccountSource(), name, shownPath), appliance_.Locate(inside), shownPath);
    }
}

void CheckPaths::AddSources() {
    for (std::size_t source = 0; source < kJobSources.size(); ++source) {
        const std::string path = appliance_.Locate(kJobSources.at(source).directory);
        struct stat status {};
        if ((stat(path.c_str(), &status) == -1 && errno == ENOENT) || !LookAt(path, path, status))
            continue;
        if (!S_ISDIR(status.st_mode))
            Refuse(path, "is no directory", "a directory");
        else if (kJobSources.at(source).perAccount)
            AddAccounts(path, path);
        else
            AddFiles(BatchOf(source, {}, path), path, path);
    }
}

void CheckPaths::AddPath(const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == -1)
        throw Failure(path + ": " + std::strerror(errno));
    const std::string shown = Trimmed(path);
    if (S_ISDIR(status.st_mode) && IsSource(AccountSource(), path)) {
        AddAccounts(path, shown);
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        AddFiles(BatchAt(path, shown), path, shown);
        return;
    }
    const fs::path whole = Whole(path);
    const std::string parent = whole.parent_path().string();
    if (IsSource(AccountSource(), parent)) {
        BatchOf(AccountSource(), whole.filename().string(), shown);
        return;
    }
    if (JobFileBatch *batch = BatchAt(parent, parent))
        batch->files.emplace(whole.filename().string(), shown);
}

void CheckPaths::AddTheirOtherDirectories() {
    std::set<std::string> accounts;
    for (const auto &[rank, batch] : batches_)
        if (!batch.directory.account.empty())
            accounts.insert(batch.directory.account);
    if (accounts.empty())
        return;
    const std::string top = kJobSources.at(AccountSource()).directory;
    for (const std::string &name : NamesOf(appliance_.Locate(top))) {
        JobFileBatch batch;
        batch.directory = {PathIn(top, name), kJobSources.at(AccountSource()).label, {}};
        batch.ofSource = true;
        struct stat status {};
        if (stat(appliance_.Locate(batch.directory.path).c_str(), &status) == -1 ||
            !S_ISDIR(status.st_mode) ||
            !MayBeAccountDirectory(status, IsLink(appliance_.Locate(batch.directory.path))))
            continue;
        batch.directory.account = appliance_.AccountName(status.st_uid).value_or("");
        if (accounts.count(batch.directory.account) != 0)
            batches_.try_emplace({AccountSource(), name}, std::move(batch));
    }
}

} // namespace kest::ctl
