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

// `path` with all links resolved; empty if it does not exist.
std::string Canonical(const fs::path &path) {
    std::error_code ignored;
    return fs::canonical(path, ignored).string();
}

// The absolute path, with a last component other than "." and "..".
fs::path Absolute(const std::string &path) {
    fs::path absolute = fs::absolute(path);
    if (!absolute.has_filename())
        absolute = absolute.parent_path();
    return absolute.filename() == "." || absolute.filename() == ".." ? fs::path(Canonical(absolute))
                                                                     : absolute;
}

// `path` without trailing slashes.
std::string Trimmed(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string PathIn(const std::string &directory, const std::string &name) {
    return directory + (directory == "/" ? "" : "/") + name;
}

} // namespace

CheckPaths::CheckPaths(const Appliance &appliance, std::string account)
    : appliance_(appliance), account_(std::move(account)) {}

std::vector<JobFileBatch> CheckPaths::Batches() const {
    std::vector<JobFileBatch> batches;
    for (const auto &[rank, batch] : batches_)
        batches.push_back(batch);
    return batches;
}

void CheckPaths::Add(Severity severity, const std::string &shown, const std::string &message,
                     const Hint &hint) {
    const bool known =
        std::any_of(diagnostics_.begin(), diagnostics_.end(),
                    [&](const Diagnostic &diagnostic) { return diagnostic.file == shown; });
    Diagnostic diagnostic;
    diagnostic.file = shown;
    diagnostic.severity = severity;
    diagnostic.message = message;
    diagnostic.hint = hint;
    if (!known)
        diagnostics_.push_back(std::move(diagnostic));
}

void CheckPaths::AddError(const std::string &shown, const std::string &message, const Hint &hint) {
    Add(Severity::Error, shown, message, hint);
}

bool CheckPaths::GetStatus(const std::string &path, const std::string &shown, struct stat &status) {
    if (stat(path.c_str(), &status) == 0)
        return true;
    const std::string reason = std::strerror(errno);
    if (errno == EACCES && geteuid() != 0) // the daemon, as root, may
        unreadable_.push_back(shown + ": " + reason);
    else
        AddError(shown, "cannot be read: " + reason, Expected("a directory"));
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
    const std::string sourcePath = Canonical(appliance_.Locate(kJobSources.at(source).directory));
    return !sourcePath.empty() && sourcePath == Canonical(path);
}

// The batch of a source, or of the account directory `name` in the source of account directories.
// Null, with a diagnostic added, if the daemon refuses the directory or its account is unknown.
JobFileBatch *CheckPaths::BatchOf(std::size_t source, const std::string &name,
                                  const std::string &shown) {
    JobDirectory directory{kJobSources.at(source).directory, kJobSources.at(source).label, {}};
    if (kJobSources.at(source).perAccount)
        directory.path = PathIn(directory.path, name);
    struct stat status {};
    if (!GetStatus(appliance_.Locate(directory.path), shown, status))
        return nullptr;
    if (kJobSources.at(source).perAccount && !appliance_.HasAccounts()) {
        Add(Severity::Warning, shown,
            "is not checked: there is no account database, so the account of its jobs is unknown",
            Advice("check --account NAME " + shown));
        return nullptr;
    }
    if (kJobSources.at(source).perAccount) {
        const std::optional<std::string> owner = appliance_.AccountName(status.st_uid);
        if (!owner || owner->empty()) {
            AddError(shown,
                     "is owned by user ID " + std::to_string(status.st_uid) +
                         ", which has no account",
                     Expected("a directory owned by the account of its jobs"));
            return nullptr;
        }
        directory.account = *owner;
        const bool isLink = IsLink(appliance_.Locate(directory.path));
        if (!MayBeAccountDirectory(status, isLink)) {
            AddError(shown,
                     isLink ? "is a link to a directory that root owns or that others can write to"
                            : "is owned by root, and others can write to it",
                     Expected("a directory that only the account of its jobs can write to"));
            return nullptr;
        }
    }
    if (!S_ISDIR(status.st_mode)) {
        AddError(shown, "is not a directory", Expected("a directory"));
        return nullptr;
    }
    JobFileBatch &batch = batches_[{source, name}];
    batch.directory = directory;
    batch.ofSource = true;
    return &batch;
}

// The batch of the directory at `path`, in a source or elsewhere.
JobFileBatch *CheckPaths::BatchAt(const std::string &path, const std::string &shown) {
    for (std::size_t source = 0; source < kJobSources.size(); ++source)
        if (!kJobSources.at(source).perAccount && IsSource(source, path))
            return BatchOf(source, {}, shown);
    // A link in the directory of account directories counts by its own path, not by its target.
    for (const fs::path &candidate : {Absolute(path), fs::path(Canonical(path))})
        if (IsSource(AccountSource(), candidate.parent_path().string()))
            return BatchOf(AccountSource(), candidate.filename().string(), shown);
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
        if ((stat(path.c_str(), &status) == -1 && errno == ENOENT) ||
            !GetStatus(path, path, status))
            continue;
        if (!S_ISDIR(status.st_mode))
            AddError(path, "is not a directory", Expected("a directory"));
        else if (kJobSources.at(source).perAccount)
            AddAccounts(path, path);
        else
            AddFiles(BatchOf(source, {}, path), path, path);
    }
}

// What the files will be is given, so sources and owners do not matter.
void CheckPaths::AddAccountPath(const std::string &path, const std::string &shown,
                                bool isDirectory) {
    const fs::path absolute = Absolute(path);
    const std::string directory = isDirectory ? path : absolute.parent_path().string();
    JobFileBatch &batch = batches_[{kNoSource, Canonical(directory)}];
    batch.directory = {directory, kJobSources.at(AccountSource()).label, account_};
    if (isDirectory)
        AddFiles(&batch, path, shown);
    else
        batch.files.emplace(absolute.filename().string(), shown);
}

void CheckPaths::AddPath(const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == -1)
        throw Failure(path + ": " + std::strerror(errno));
    const std::string shown = Trimmed(path);
    if (!account_.empty()) {
        AddAccountPath(path, shown, S_ISDIR(status.st_mode));
        return;
    }
    if (S_ISDIR(status.st_mode) && IsSource(AccountSource(), path)) {
        AddAccounts(path, shown);
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        AddFiles(BatchAt(path, shown), path, shown);
        return;
    }
    const fs::path absolute = Absolute(path);
    const std::string parent = absolute.parent_path().string();
    if (IsSource(AccountSource(), parent)) {
        BatchOf(AccountSource(), absolute.filename().string(), shown);
        return;
    }
    if (JobFileBatch *batch = BatchAt(parent, parent))
        batch->files.emplace(absolute.filename().string(), shown);
}

// The batch of the source that `directory` is, or of the account directory; null for others.
JobFileBatch *CheckPaths::InstalledBatch(const std::string &directory) {
    const fs::path absolute = Absolute(directory);
    for (auto &[rank, batch] : batches_)
        if (kJobSources.at(rank.first).perAccount
                ? IsSource(rank.first, absolute.parent_path().string()) &&
                      rank.second == absolute.filename().string()
                : IsSource(rank.first, directory))
            return &batch;
    return nullptr;
}

// The directory of an account: one that has the file, or else its first one, or else a new one.
JobFileBatch &CheckPaths::PlannedAccountBatch(const std::string &account, const std::string &name) {
    JobFileBatch *found = nullptr;
    for (auto &[rank, batch] : batches_)
        if (batch.directory.account == account &&
            (found == nullptr || batch.files.count(name) > found->files.count(name)))
            found = &batch;
    if (found != nullptr)
        return *found;
    JobFileBatch &batch = batches_[{AccountSource(), account}];
    if (batch.ofSource)
        throw Failure(batch.directory.path + " belongs to account " + batch.directory.account);
    const JobSource &source = kJobSources.at(AccountSource());
    batch.directory = {PathIn(source.directory, account), source.label, account};
    batch.ofSource = true;
    return batch;
}

JobFileBatch &CheckPaths::PlannedBatch(const std::string &label) {
    const auto *const source =
        std::find_if(kJobSources.begin(), kJobSources.end(),
                     [&](const JobSource &candidate) { return label == candidate.label; });
    JobFileBatch &batch = batches_[{static_cast<std::size_t>(source - kJobSources.begin()), {}}];
    batch.directory = {source->directory, source->label, {}};
    batch.ofSource = true;
    return batch;
}

void CheckPaths::AddPlanned(const std::string &path, const std::string &label,
                            const std::string &account) {
    struct stat status {};
    if (stat(path.c_str(), &status) == -1)
        throw Failure(path + ": " + std::strerror(errno));
    const std::string shown = Trimmed(path);
    std::map<std::string, std::string> files;
    if (!S_ISDIR(status.st_mode))
        files[Absolute(path).filename().string()] = shown;
    else
        for (const std::string &name : NamesOf(path))
            files[name] = PathIn(shown, name);
    const std::string directory =
        S_ISDIR(status.st_mode) ? path : Absolute(path).parent_path().string();
    JobFileBatch *const installed = InstalledBatch(directory);
    for (const auto &[name, file] : files) {
        JobFileBatch &batch = installed != nullptr ? *installed
                              : account.empty()    ? PlannedBatch(label)
                                                   : PlannedAccountBatch(account, name);
        batch.files[name] = file;
        if (installed == nullptr)
            batch.planned[name] = file;
    }
}

void CheckPaths::AddOtherAccountDirectories() {
    std::set<std::string> accounts;
    for (const auto &[rank, batch] : batches_)
        if (batch.ofSource && !batch.directory.account.empty())
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
