#include "ctl/check/checker.h"

#include "core/account_files.h"
#include "ctl/check/paths.h"
#include "ctl/check/rights.h"
#include "ctl/check/system_state.h"
#include "job/account.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <pwd.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

void Append(std::vector<Diagnostic> &diagnostics, std::vector<Diagnostic> more) {
    diagnostics.insert(diagnostics.end(), std::make_move_iterator(more.begin()),
                       std::make_move_iterator(more.end()));
}

// Reads and checks the files of one batch after another.
class Checker {
public:
    Checker(const Appliance &appliance, CheckScope scope)
        : appliance_(appliance), scope_(scope), system_(appliance) {}

    void Check(const JobFileBatch &batch);
    CheckResult Finish();

private:
    Environment EnvironmentOf(CheckScope scope);
    void CheckFile(const JobFile &file, std::vector<CheckedJob> &jobs);
    void CheckAccount(const JobFileBatch &batch);
    void CheckUnlisted(const JobFileBatch &batch,
                       const std::map<std::string, std::string> &unlisted);
    bool ReadFiles(const JobFileBatch &batch, const AccountQuota &quota, AccountFiles &files) const;

    const Appliance &appliance_;
    CheckScope scope_;
    SystemState system_;
    CheckResult result_;
    std::vector<CheckedJob> jobs_;               // of the sources
    std::map<std::string, AccountQuota> quotas_; // by account
};

Environment Checker::EnvironmentOf(CheckScope scope) {
    if (scope == CheckScope::Portable)
        return {[](const Json::Value &config) {
                    return Account{kest::AccountOf(config).value_or(""), true};
                },
                [](const std::string &, const std::string &) {
                    Program program;
                    program.exists = program.regular = true;
                    return program;
                }};
    return {[this](const Json::Value &config) { return system_.AccountOf(config); },
            [this](const std::string &path, const std::string &account) {
                return system_.ProgramAt(path, account);
            }};
}

void Checker::CheckFile(const JobFile &file, std::vector<CheckedJob> &jobs) {
    // Root can read the file, so for other users this is not an error of the file.
    if ((file.error == EACCES || file.error == EPERM) && geteuid() != 0) {
        result_.unreadable.push_back(file.path + ": " + std::strerror(file.error));
        return;
    }
    JobFileReport report = CheckJobFile(file, EnvironmentOf(scope_));
    ++result_.files;
    result_.jobs += report.jobs.size();
    Append(result_.diagnostics, std::move(report.diagnostics));
    std::move(report.jobs.begin(), report.jobs.end(), std::back_inserter(jobs));
}

void Checker::Check(const JobFileBatch &batch) {
    if (batch.ofSource && !batch.directory.account.empty()) {
        CheckAccount(batch);
        return;
    }
    std::vector<CheckedJob> batchJobs;
    for (const auto &[name, shown] : batch.files) {
        JobFile file;
        const std::string path = batch.directory.path + "/" + name;
        file.path = shown;
        file.name = name;
        file.directory = batch.directory;
        const bool read = JsonFromFile(batch.ofSource ? appliance_.Locate(path) : path,
                                       file.document, kJobFileLimits, &file.origin);
        file.error = read ? 0 : errno;
        CheckFile(file, batch.ofSource ? jobs_ : batchJobs);
    }
    Append(result_.diagnostics, ReplacedJobs(batchJobs));
}

// On this appliance root reads the files as the daemon does, with the rights of the account. In all
// other cases they are read with the caller's rights, and links are resolved on the appliance.
bool Checker::ReadFiles(const JobFileBatch &batch, const AccountQuota &quota,
                        AccountFiles &files) const {
    const std::string path = appliance_.Locate(batch.directory.path);
    const Descriptor directory = OpenPath(path);
    if (!directory)
        return false;
    struct stat status {};
    if (appliance_.IsLocal() && geteuid() == 0 && fstat(directory.Get(), &status) == 0)
        if (const passwd *owner = getpwuid(status.st_uid))
            return ReadAsAccount(directory.Get(),
                                 {true, owner->pw_name, owner->pw_uid, owner->pw_gid}, quota,
                                 files) == AccountReading::Done;
    if (!ListAccountFiles(directory.Get(), quota, files))
        return false;
    AccountQuota left = quota;
    for (AccountFile &file : files.files)
        ReadAccountFile(AT_FDCWD, appliance_.Locate(batch.directory.path + "/" + file.name), left,
                        file);
    return true;
}

// Reads all files of the account, not only the requested ones, because each uses up its quota.
void Checker::CheckAccount(const JobFileBatch &batch) {
    AccountQuota &quota = quotas_[batch.directory.account];
    AccountFiles files;
    if (!ReadFiles(batch, quota, files)) {
        if (!batch.files.empty())
            result_.unreadable.push_back(batch.directory.path + ": " + std::strerror(errno));
        return;
    }
    std::map<std::string, std::string> requested = batch.files;
    for (AccountFile &found : files.files) {
        JobFile file;
        file.name = found.name;
        file.directory = batch.directory;
        file.error = ParseAccountFile(found, quota, file.origin, file.document);
        if (file.error == 0 && !ChargeDocument(quota, DocumentSizeOf(file, quota.documentBytes)))
            file.error = EDQUOT;
        const auto one = requested.find(file.name);
        if (one == requested.end())
            continue;
        file.path = one->second;
        requested.erase(one);
        CheckFile(file, jobs_);
    }
    CheckUnlisted(batch, requested);
}

// Checks files that ListAccountFiles leaves out: hidden files, and the last names of a directory
// with too many files.
void Checker::CheckUnlisted(const JobFileBatch &batch,
                            const std::map<std::string, std::string> &unlisted) {
    std::string first;
    std::size_t count = 0;
    for (const auto &[name, shown] : unlisted) {
        JobFile file;
        file.path = shown;
        file.name = name;
        file.directory = batch.directory;
        if (IsJobFileName(name)) {
            first = count++ == 0 ? shown : first;
            continue;
        }
        const std::string path = appliance_.Locate(batch.directory.path + "/" + name);
        const bool read = JsonFromFile(path, file.document, kJobFileLimits, &file.origin);
        file.error = read ? 0 : errno;
        CheckFile(file, jobs_);
    }
    if (count == 0)
        return;
    Diagnostic diagnostic = QuotaDiagnostic(batch.directory.account);
    diagnostic.file = first;
    if (count > 1)
        diagnostic.message += ", and " + std::to_string(count - 1) + " more";
    result_.diagnostics.push_back(std::move(diagnostic));
    result_.files += count;
}

CheckResult Checker::Finish() {
    Append(result_.diagnostics, ReplacedJobs(jobs_));
    result_.sourceJobs = std::move(jobs_);
    return std::move(result_);
}

} // namespace

CheckResult CheckPathsOn(const Appliance &appliance, const std::vector<std::string> &paths,
                         CheckScope scope) {
    CheckPaths selected(appliance);
    if (paths.empty())
        selected.AddSources();
    for (const std::string &path : paths)
        selected.AddPath(path);
    selected.AddOtherAccountDirectories();
    Checker checker(appliance, scope);
    CheckRights rights(appliance);
    for (const JobFileBatch &batch : selected.Batches()) {
        checker.Check(batch);
        if (scope == CheckScope::System)
            rights.Check(batch);
    }
    CheckResult result = checker.Finish();
    Append(result.diagnostics, rights.Diagnostics());
    Append(result.diagnostics, selected.Diagnostics());
    result.unreadable.insert(result.unreadable.begin(), selected.Unreadable().begin(),
                             selected.Unreadable().end());
    std::stable_sort(result.diagnostics.begin(), result.diagnostics.end(),
                     [](const Diagnostic &a, const Diagnostic &b) {
                         return std::tie(a.file, a.position.line, a.position.column) <
                                std::tie(b.file, b.position.line, b.position.column);
                     });
    return result;
}

} // namespace kest::ctl
