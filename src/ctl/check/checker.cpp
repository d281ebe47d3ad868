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
    std::string PathOf(const JobFileBatch &batch, const std::string &name) const;
    void ReadFile(const JobFileBatch &batch, JobFile &file) const;
    void CheckFile(const JobFile &file, std::vector<CheckedJob> &jobs);
    void CheckAccount(const JobFileBatch &batch, std::vector<CheckedJob> &jobs);
    void CheckUnlisted(const JobFileBatch &batch,
                       const std::map<std::string, std::string> &unlisted,
                       std::vector<CheckedJob> &jobs);
    bool ListFiles(const JobFileBatch &batch, const AccountQuota &quota, AccountFiles &files) const;
    bool ReadFiles(const JobFileBatch &batch, const AccountQuota &quota, AccountFiles &files) const;
    static void ReadPlanned(const JobFileBatch &batch, const AccountQuota &quota,
                            AccountFiles &files);

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

// Where the file `name` of the batch can be read.
std::string Checker::PathOf(const JobFileBatch &batch, const std::string &name) const {
    const auto planned = batch.planned.find(name);
    if (planned != batch.planned.end())
        return planned->second;
    const std::string path = batch.directory.path + "/" + name;
    return batch.ofSource ? appliance_.Locate(path) : path;
}

// Reads the document of a file, whose other members are set.
void Checker::ReadFile(const JobFileBatch &batch, JobFile &file) const {
    const bool read =
        JsonFromFile(PathOf(batch, file.name), file.document, kJobFileLimits, &file.origin);
    file.error = read ? 0 : errno;
}

void Checker::Check(const JobFileBatch &batch) {
    std::vector<CheckedJob> batchJobs;
    std::vector<CheckedJob> &jobs = batch.ofSource ? jobs_ : batchJobs;
    if (!batch.directory.account.empty()) {
        CheckAccount(batch, jobs);
    } else {
        for (const auto &[name, shown] : batch.files) {
            JobFile file;
            file.path = shown;
            file.name = name;
            file.directory = batch.directory;
            ReadFile(batch, file);
            CheckFile(file, jobs);
        }
    }
    Append(result_.diagnostics, ReplacedJobs(batchJobs));
}

// Lists the entries of an account directory. Outside the sources, the files of the batch are all
// that there are.
bool Checker::ListFiles(const JobFileBatch &batch, const AccountQuota &quota,
                        AccountFiles &files) const {
    if (batch.ofSource) {
        const Descriptor directory = OpenPath(appliance_.Locate(batch.directory.path));
        return directory && ListAccountFiles(directory.Get(), quota, files);
    }
    for (const auto &[name, shown] : batch.files)
        if (IsJobFileName(name))
            files.files.push_back({name, 0, {}});
    return true;
}

// In an account directory of this appliance root reads the files as the daemon does, with the
// rights of the account. In all other cases they are read with the caller's rights, and links in a
// source are resolved on the appliance.
bool Checker::ReadFiles(const JobFileBatch &batch, const AccountQuota &quota,
                        AccountFiles &files) const {
    if (batch.ofSource && appliance_.IsLocal() && geteuid() == 0) {
        struct stat status {};
        const Descriptor directory = OpenPath(batch.directory.path);
        if (!directory)
            return false;
        if (fstat(directory.Get(), &status) == 0)
            if (const passwd *owner = getpwuid(status.st_uid))
                return ReadAsAccount(directory.Get(),
                                     {true, owner->pw_name, owner->pw_uid, owner->pw_gid}, quota,
                                     files) == AccountReading::Done;
    }
    if (!ListFiles(batch, quota, files))
        return false;
    AccountQuota left = quota;
    for (AccountFile &file : files.files)
        ReadAccountFile(AT_FDCWD, PathOf(batch, file.name), left, file);
    return true;
}

// Adds the files that are to be installed to those of the directory, which need not exist yet.
void Checker::ReadPlanned(const JobFileBatch &batch, const AccountQuota &quota,
                          AccountFiles &files) {
    std::map<std::string, AccountFile> byName;
    for (AccountFile &file : files.files)
        byName[file.name] = std::move(file);
    AccountQuota left = quota;
    for (const auto &[name, path] : batch.planned) {
        AccountFile file{name, 0, {}};
        ReadAccountFile(AT_FDCWD, path, left, file);
        if (IsJobFileName(name))
            byName[name] = std::move(file);
    }
    files.files.clear();
    for (auto &[name, file] : byName)
        files.files.push_back(std::move(file));
}

// Reads all files of the account, not only the requested ones, because each uses up its quota.
void Checker::CheckAccount(const JobFileBatch &batch, std::vector<CheckedJob> &jobs) {
    AccountQuota &quota = quotas_[batch.directory.account];
    AccountFiles files;
    const bool isNew = !batch.planned.empty() &&
                       access(appliance_.Locate(batch.directory.path).c_str(), F_OK) == -1;
    if (!isNew && !ReadFiles(batch, quota, files)) {
        if (!batch.files.empty())
            result_.unreadable.push_back(batch.directory.path + ": " + std::strerror(errno));
        return;
    }
    if (!batch.planned.empty())
        ReadPlanned(batch, quota, files);
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
        CheckFile(file, jobs);
    }
    CheckUnlisted(batch, requested, jobs);
}

// Checks files that ListAccountFiles leaves out: hidden files, and the last names of a directory
// with too many files.
void Checker::CheckUnlisted(const JobFileBatch &batch,
                            const std::map<std::string, std::string> &unlisted,
                            std::vector<CheckedJob> &jobs) {
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
        ReadFile(batch, file);
        CheckFile(file, jobs);
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

namespace {

// The files of the batch that are installed.
JobFileBatch WithoutPlanned(JobFileBatch batch) {
    for (const auto &[name, path] : batch.planned)
        batch.files.erase(name);
    return batch;
}

CheckResult CheckBatches(const Appliance &appliance, const CheckPaths &selected, CheckScope scope) {
    Checker checker(appliance, scope);
    CheckRights rights(appliance);
    for (const JobFileBatch &batch : selected.Batches()) {
        checker.Check(batch);
        // Without an account database owners mean nothing.
        if (scope == CheckScope::System && appliance.HasAccounts())
            rights.Check(WithoutPlanned(batch));
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

} // namespace

CheckResult CheckPathsOn(const Appliance &appliance, const std::vector<std::string> &paths,
                         CheckScope scope, const std::string &account) {
    CheckPaths selected(appliance, account);
    if (paths.empty())
        selected.AddSources();
    for (const std::string &path : paths)
        selected.AddPath(path);
    selected.AddOtherAccountDirectories();
    return CheckBatches(appliance, selected, scope);
}

CheckResult CheckPlannedOn(const Appliance &appliance, const std::vector<std::string> &paths,
                           const std::string &label, const std::string &account) {
    CheckPaths selected(appliance);
    selected.AddSources();
    for (const std::string &path : paths)
        selected.AddPlanned(path, label, account);
    return CheckBatches(appliance, selected, CheckScope::System);
}

} // namespace kest::ctl
