#include "ctl/check/check.h"
#include "core/account_files.h"
#include "ctl/check/paths.h"
#include "ctl/check/rights.h"
#include "ctl/commands/commands.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "job/account.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <map>
#include <pwd.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

// --- What is asked of the system ----------------------------------------------------------------

class SystemFacts {
public:
    explicit SystemFacts(const Appliance &appliance) : appliance_(appliance) {}

    Account AccountOf(const Json::Value &config);
    const Program &ProgramAt(const std::string &path, const std::string &account);

private:
    Program LookAt(const std::string &path, const std::string &account);
    bool IsOpen(const std::string &directory, bool last, const std::string &account) const;

    const Appliance &appliance_;
    std::map<std::string, bool> accounts_;
    std::map<std::pair<std::string, std::string>, Program> programs_;
};

Account SystemFacts::AccountOf(const Json::Value &config) {
    Account account{kest::AccountOf(config).value_or(""), false};
    const auto [entry, isNew] = accounts_.try_emplace(account.name, false);
    if (isNew)
        entry->second = appliance_.HasAccount(account.name);
    account.exists = entry->second;
    return account;
}

const Program &SystemFacts::ProgramAt(const std::string &path, const std::string &account) {
    const auto [entry, isNew] = programs_.try_emplace({path, account});
    if (isNew)
        entry->second = LookAt(path, account);
    return entry->second;
}

Program SystemFacts::LookAt(const std::string &path, const std::string &account) {
    Program program;
    struct stat status {};
    if (stat(appliance_.Locate(path).c_str(), &status) == 0) {
        program.exists = true;
        program.regular = S_ISREG(status.st_mode);
        program.empty = status.st_size == 0;
    }
    const auto slash = path.rfind('/');
    const std::string itself = appliance_.Locate(path.substr(0, slash + 1)) + path.substr(slash);
    std::string target(PATH_MAX, '\0');
    const ssize_t size = readlink(itself.c_str(), target.data(), target.size());
    program.link = target.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
    for (auto end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string directory = path.substr(0, std::max<std::size_t>(end, 1));
        if (program.openDirectory.empty() && IsOpen(directory, end == slash, account))
            program.openDirectory = directory;
    }
    return program;
}

// Whether others than root and the account may put something else into a directory of a program's
// path, `last` the one that it lies in.
bool SystemFacts::IsOpen(const std::string &directory, bool last,
                         const std::string &account) const {
    struct stat status {};
    if (stat(appliance_.Locate(directory).c_str(), &status) == -1)
        return false;
    const bool own = appliance_.AccountName(status.st_uid) == account;
    if (status.st_uid != 0 && !own)
        return true;
    // In a sticky directory nobody takes away what is another's, but what is missing anybody adds.
    if ((status.st_mode & S_ISVTX) != 0 && !last)
        return false;
    // Whom an account lets into its own directory through the group is its own affair.
    return (status.st_mode & S_IWOTH) != 0 ||
           ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_uid == 0);
}

// --- The check ----------------------------------------------------------------------------------

struct Outcome {
    std::size_t files = 0;
    std::size_t jobs = 0;
    std::vector<Diagnostic> diagnostics;
    std::vector<std::string> unreadable;
    std::vector<JudgedJob> judged; // jobs of the sources
};

void Append(std::vector<Diagnostic> &diagnostics, std::vector<Diagnostic> more) {
    diagnostics.insert(diagnostics.end(), std::make_move_iterator(more.begin()),
                       std::make_move_iterator(more.end()));
}

// Reads and judges files one after the other, as far as they are asked for.
class Checker {
public:
    explicit Checker(const Appliance &appliance) : appliance_(appliance), facts_(appliance) {}

    void Check(const JobFileBatch &batch);
    Outcome Finish();

private:
    void Take(const JobFile &file, std::vector<JudgedJob> &jobs);
    void CheckAccount(const JobFileBatch &batch);
    void CheckUnread(const JobFileBatch &batch, const std::map<std::string, std::string> &unread);
    bool Read(const JobFileBatch &batch, const AccountQuota &quota, AccountFiles &files) const;

    const Appliance &appliance_;
    SystemFacts facts_;
    Outcome outcome_;
    std::vector<JudgedJob> jobs_;                // of the sources
    std::map<std::string, AccountQuota> quotas_; // by account
};

void Checker::Take(const JobFile &file, std::vector<JudgedJob> &jobs) {
    // Root reads everything, so what another may not read is not refused.
    if ((file.error == EACCES || file.error == EPERM) && geteuid() != 0) {
        outcome_.unreadable.push_back(file.path + ": " + std::strerror(file.error));
        return;
    }
    const Environment environment{
        [this](const Json::Value &config) { return facts_.AccountOf(config); },
        [this](const std::string &path, const std::string &account) {
            return facts_.ProgramAt(path, account);
        }};
    JobFileReport report = CheckJobFile(file, environment);
    ++outcome_.files;
    outcome_.jobs += report.jobs.size();
    Append(outcome_.diagnostics, std::move(report.diagnostics));
    std::move(report.jobs.begin(), report.jobs.end(), std::back_inserter(jobs));
}

void Checker::Check(const JobFileBatch &batch) {
    if (batch.ofSource && !batch.directory.account.empty()) {
        CheckAccount(batch);
        return;
    }
    std::vector<JudgedJob> own;
    for (const auto &[name, shown] : batch.files) {
        JobFile file;
        const std::string path = batch.directory.path + "/" + name;
        file.path = shown;
        file.name = name;
        file.directory = batch.directory;
        const bool read = JsonFromFile(batch.ofSource ? appliance_.Locate(path) : path,
                                       file.document, kJobFileLimits, &file.origin);
        file.error = read ? 0 : errno;
        Take(file, batch.ofSource ? jobs_ : own);
    }
    Append(outcome_.diagnostics, ReplacedJobs(own));
}

// As the daemon reads them, which only root can do, and only on its own system: elsewhere with the
// rights there are, and links lead to files of that system.
bool Checker::Read(const JobFileBatch &batch, const AccountQuota &quota,
                   AccountFiles &files) const {
    const std::string path = appliance_.Locate(batch.directory.path);
    const Descriptor directory = OpenForNaming(path);
    if (!directory)
        return false;
    struct stat status {};
    if (appliance_.IsThisOne() && geteuid() == 0 && fstat(directory.Get(), &status) == 0)
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

// All files of the account are read, whatever was asked for, because each takes of its quota.
void Checker::CheckAccount(const JobFileBatch &batch) {
    AccountQuota &quota = quotas_[batch.directory.account];
    AccountFiles files;
    if (!Read(batch, quota, files)) {
        if (!batch.files.empty())
            outcome_.unreadable.push_back(batch.directory.path + ": " + std::strerror(errno));
        return;
    }
    std::map<std::string, std::string> asked = batch.files;
    for (AccountFile &found : files.files) {
        JobFile file;
        file.name = found.name;
        file.directory = batch.directory;
        file.error = ParseAccountFile(found, quota, file.origin, file.document);
        if (file.error == 0 && !ChargeDocument(quota, DocumentSizeOf(file, quota.documentBytes)))
            file.error = EDQUOT;
        const auto one = asked.find(file.name);
        if (one == asked.end())
            continue;
        file.path = one->second;
        asked.erase(one);
        Take(file, jobs_);
    }
    CheckUnread(batch, asked);
}

// Hidden files, and those of the latest names in a directory with too many.
void Checker::CheckUnread(const JobFileBatch &batch,
                          const std::map<std::string, std::string> &unread) {
    std::string first;
    std::size_t count = 0;
    for (const auto &[name, shown] : unread) {
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
        Take(file, jobs_);
    }
    if (count == 0)
        return;
    Diagnostic diagnostic = BeyondQuota(batch.directory.account);
    diagnostic.file = first;
    if (count > 1)
        diagnostic.message += ", and " + std::to_string(count - 1) + " more";
    outcome_.diagnostics.push_back(std::move(diagnostic));
    outcome_.files += count;
}

Outcome Checker::Finish() {
    Append(outcome_.diagnostics, ReplacedJobs(jobs_));
    outcome_.judged = std::move(jobs_);
    return std::move(outcome_);
}

Outcome CheckAll(const Context &context, const CheckOptions &options) {
    CheckPaths paths(context.appliance);
    if (options.paths.empty())
        paths.AddSources();
    for (const std::string &path : options.paths)
        paths.AddPath(path);
    paths.AddTheirOtherDirectories();
    Checker checker(context.appliance);
    CheckRights rights(context.appliance);
    for (const JobFileBatch &batch : paths.Batches()) {
        checker.Check(batch);
        rights.Check(batch);
    }
    Outcome outcome = checker.Finish();
    Append(outcome.diagnostics, rights.Diagnostics());
    Append(outcome.diagnostics, paths.Diagnostics());
    outcome.unreadable.insert(outcome.unreadable.begin(), paths.Unreadable().begin(),
                              paths.Unreadable().end());
    if (options.errorsOnly)
        outcome.diagnostics.erase(
            std::remove_if(outcome.diagnostics.begin(), outcome.diagnostics.end(),
                           [](const Diagnostic &p) { return p.severity != Severity::Error; }),
            outcome.diagnostics.end());
    std::stable_sort(outcome.diagnostics.begin(), outcome.diagnostics.end(),
                     [](const Diagnostic &a, const Diagnostic &b) {
                         return std::tie(a.file, a.place.line, a.place.column) <
                                std::tie(b.file, b.place.line, b.place.column);
                     });
    return outcome;
}

// --- The answer ---------------------------------------------------------------------------------

std::size_t CountOf(const Outcome &outcome, Severity severity) {
    return static_cast<std::size_t>(std::count_if(
        outcome.diagnostics.begin(), outcome.diagnostics.end(),
        [&](const Diagnostic &diagnostic) { return diagnostic.severity == severity; }));
}

const char *NameOf(Severity severity) {
    return severity == Severity::Error ? "error" : "warning";
}

Json::Value TextOrNull(const std::string &text) {
    return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value ToJson(const Outcome &outcome) {
    Json::Value json;
    json["files"] = Json::UInt64{outcome.files};
    json["jobs"] = Json::UInt64{outcome.jobs};
    json["errors"] = Json::UInt64{CountOf(outcome, Severity::Error)};
    json["warnings"] = Json::UInt64{CountOf(outcome, Severity::Warning)};
    json["problems"] = Json::Value(Json::arrayValue);
    for (const Diagnostic &diagnostic : outcome.diagnostics) {
        Json::Value one;
        one["file"] = diagnostic.file;
        one["line"] = Json::UInt64{diagnostic.place.line};
        one["column"] = Json::UInt64{diagnostic.place.column};
        one["severity"] = NameOf(diagnostic.severity);
        one["job"] = TextOrNull(diagnostic.job);
        one["member"] = TextOrNull(diagnostic.member);
        one["found"] = TextOrNull(diagnostic.found);
        one["allowed"] = TextOrNull(diagnostic.allowed);
        one["message"] = diagnostic.message;
        json["problems"].append(std::move(one));
    }
    return json;
}

void WriteText(const Diagnostic &diagnostic, const Screen &screen, std::ostream &stream) {
    const Colour colour = diagnostic.severity == Severity::Error ? Colour::Red : Colour::Yellow;
    std::string text = diagnostic.job.empty() ? "" : diagnostic.job + ": ";
    text += diagnostic.message;
    if (!diagnostic.allowed.empty())
        text += "; allowed: " + diagnostic.allowed;
    stream << Shown(diagnostic.file) << ":" << diagnostic.place.line << ":"
           << diagnostic.place.column << ": "
           << Coloured(screen, colour, std::string(NameOf(diagnostic.severity)) + ":") << " "
           << Shown(text) << "\n";
}

std::string Counted(std::size_t count, const std::string &noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// "3 files, 5 jobs: 1 error, 2 warnings"
std::string Summary(const Outcome &outcome) {
    std::string diagnostics;
    for (const Severity severity : {Severity::Error, Severity::Warning})
        if (const std::size_t count = CountOf(outcome, severity))
            diagnostics += (diagnostics.empty() ? "" : ", ") + Counted(count, NameOf(severity));
    return Counted(outcome.files, "file") + ", " + Counted(outcome.jobs, "job") + ": " +
           (diagnostics.empty() ? "no problems" : diagnostics);
}

} // namespace

int Check(const Context &context, const CheckOptions &options) {
    const Outcome outcome = CheckAll(context, options);
    if (context.json) {
        WriteJson(ToJson(outcome));
    } else {
        for (const Diagnostic &diagnostic : outcome.diagnostics)
            WriteText(diagnostic, context.screen, std::cout);
        std::cout.flush();
        std::cerr << Summary(outcome) << "\n";
    }
    if (!outcome.unreadable.empty())
        throw Failure(outcome.unreadable.front() +
                      (outcome.unreadable.size() == 1
                           ? ""
                           : ", and " + std::to_string(outcome.unreadable.size() - 1) + " more"));
    return outcome.diagnostics.empty() ? 0 : 1;
}

void TellWhyNotLoaded(const Context &context, const std::string &name) {
    const Outcome outcome = CheckAll(context, {});
    for (const JudgedJob &job : outcome.judged)
        if (job.name == name)
            std::cerr << Shown(job.file) << ":" << job.place.line << ":" << job.place.column
                      << ": it is defined here"
                      << (job.accepted ? ", and would be loaded at a reload" : "") << "\n";
    for (const Diagnostic &diagnostic : outcome.diagnostics)
        if (diagnostic.job == name)
            WriteText(diagnostic, Screen(), std::cerr);
}

} // namespace kest::ctl
