#include "ctl/check/check.h"

#include "base/json_members.h"
#include "core/job_files.h"
#include "core/runtime_document.h"
#include "ctl/check/definition.h"

#include <cerrno>
#include <cstring>
#include <json/reader.h>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

namespace kest::ctl {

namespace {

// --- The file -----------------------------------------------------------------------------------

Diagnostic FileDiagnostic(const JobFile &file, Severity severity, const std::string &message,
                          const Hint &hint = {}) {
    Diagnostic diagnostic;
    diagnostic.file = file.path;
    diagnostic.severity = severity;
    diagnostic.message = message;
    diagnostic.hint = hint;
    return diagnostic;
}

// Why the file has no document.
Diagnostic ReadDiagnostic(const JobFile &file, const JsonPositions &positions) {
    const auto error = [&](const std::string &message, const Hint &hint = {}) {
        return FileDiagnostic(file, Severity::Error, message, hint);
    };
    if (file.error == EBADMSG && !file.origin.fault.empty()) {
        const JsonPositions::Fault fault = positions.FirstOf(file.origin.fault);
        Diagnostic diagnostic = error("invalid JSON: " + fault.text);
        diagnostic.position = fault.position;
        return diagnostic;
    }
    switch (file.error) {
    case EBADMSG:
        return error("the file is empty", Expected("one JSON document"));
    case EFBIG:
        return error("the file is too large",
                     Expected("at most " + std::to_string(kJobFileLimits.bytes) + " bytes"));
    case EDQUOT: {
        Diagnostic diagnostic = QuotaDiagnostic(file.directory.account);
        diagnostic.file = file.path;
        return diagnostic;
    }
    case EISDIR:
        return error("is a directory", Expected("a regular file"));
    case EINVAL:
        return error("is neither a regular file nor a link to one", Expected("a regular file"));
    default:
        return error(std::string("cannot be read: ") + std::strerror(file.error));
    }
}

bool EndsWith(const std::string &text, const std::string &end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void CheckFileName(const JobFile &file, std::vector<Diagnostic> &diagnostics) {
    if (!IsJobFileName(file.name))
        diagnostics.push_back(FileDiagnostic(file, Severity::Error,
                                             "the daemon ignores hidden files",
                                             Expected("a name that does not begin with \".\"")));
    for (const char *end : {"~", ".bak", ".orig", ".old", ".save", ".swp", ".dpkg-old", ".dpkg-new",
                            ".dpkg-dist", ".rpmsave", ".rpmnew", ".rpmorig"})
        if (IsJobFileName(file.name) && EndsWith(file.name, end))
            diagnostics.push_back(
                FileDiagnostic(file, Severity::Warning,
                               "the name looks like a backup copy, but the daemon reads "
                               "all files except hidden ones"));
}

// By default the parser keeps the last of several members with the same name, without an error.
void CheckDuplicateMembers(const JobFile &file, const JsonPositions &positions,
                           std::vector<Diagnostic> &diagnostics) {
    const std::string &text = file.origin.text;
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["rejectDupKeys"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string faults;
    if (reader->parse(text.data(), text.data() + text.size(), &ignored, &faults))
        return;
    const JsonPositions::Fault fault = positions.FirstOf(faults);
    diagnostics.push_back(
        FileDiagnostic(file, Severity::Warning,
                       "only the last of several members with the same name counts: " + fault.text,
                       Expected("each member once")));
    diagnostics.back().position = fault.position;
}

// --- Its definitions ----------------------------------------------------------------------------

// Completes a definition as the daemon does: its full name, and in an account directory its
// account. Without a usable name the other members are still completed, so that they are not
// reported missing.
Json::Value ResolveNames(Json::Value definition, const JobFile &file) {
    const std::string base = FileBaseName(file.name);
    if (NameDefinition(definition, file.directory, base) || !definition.isObject())
        return definition;
    const Json::Value name = Member(definition, "name");
    const bool named = definition.isMember("name");
    definition["name"] = "";
    NameDefinition(definition, file.directory, base);
    if (named)
        definition["name"] = name;
    else
        definition.removeMember("name");
    return definition;
}

std::string ShownName(const Json::Value &config, const JobFile &file) {
    const std::string name = TextMember(config, "name");
    if (name.empty())
        return FileBaseName(file.name);
    return file.directory.label.empty() ? name.substr(1) : name;
}

void CheckDefinition(const Json::Value &written, Json::Value definition, const JobFile &file,
                     const JsonPositions &positions, const Environment &environment,
                     JobFileReport &report) {
    const bool alone = &written == &file.document;
    const Json::Value config = ResolveNames(std::move(definition), file);
    Json::Value document;
    document["config"] = config;
    std::vector<DefinitionFault> faults;
    const CronJob job(std::move(document), faults);
    CheckedDefinition checked(written, config, positions);
    AddErrors(checked, faults);
    CheckMembers(checked, file.directory, alone);
    if (job.valid) {
        CheckSettings(checked, job);
        CheckAdmission(checked, job, environment);
    }
    const std::string name = ShownName(config, file);
    for (Diagnostic &diagnostic : checked.TakeDiagnostics()) {
        diagnostic.file = file.path;
        diagnostic.job = name;
        report.diagnostics.push_back(std::move(diagnostic));
    }
    const Json::Value &nameValue = Member(written, "name");
    report.jobs.push_back({name, file.path,
                           positions.Of(alone || nameValue.isNull() ? written : nameValue),
                           job.valid, job.valid ? job.Config() : Json::Value()});
}

} // namespace

std::size_t DocumentSizeOf(const JobFile &file, std::size_t most) {
    std::vector<CronJob> jobs;
    for (Json::Value &definition : DefinitionsOf(file.document)) {
        NameDefinition(definition, file.directory, FileBaseName(file.name));
        Json::Value document;
        document["config"] = std::move(definition);
        std::vector<DefinitionFault> faults;
        CronJob job(std::move(document), faults, 1);
        if (job.valid)
            jobs.push_back(std::move(job));
    }
    SortByName(jobs);
    return DocumentSize(jobs, most);
}

Diagnostic QuotaDiagnostic(const std::string &account) {
    const AccountQuota whole;
    Diagnostic diagnostic;
    diagnostic.message = "exceeds the quota of account " + Quoted(account);
    diagnostic.hint = Expected(
        "at most " + std::to_string(whole.bytes) +
        " bytes in all job files of the account, where each file and each job counts as at least " +
        std::to_string(kLeastCharge) + ", and at most " + std::to_string(whole.documentBytes) +
        " bytes in the runtime document");
    return diagnostic;
}

JobFileReport CheckJobFile(const JobFile &file, const Environment &environment) {
    JobFileReport report;
    const JsonPositions positions(file.origin.text);
    CheckFileName(file, report.diagnostics);
    if (file.error != 0) {
        report.diagnostics.push_back(ReadDiagnostic(file, positions));
        return report;
    }
    if (!file.document.isArray() && !file.document.isObject()) {
        Diagnostic diagnostic =
            FileDiagnostic(file, Severity::Warning, "the file defines no jobs",
                           Expected("an array of definitions, or one definition"));
        diagnostic.position = positions.Of(file.document);
        diagnostic.found = Excerpt(file.document);
        report.diagnostics.push_back(std::move(diagnostic));
    }
    CheckDuplicateMembers(file, positions, report.diagnostics);
    Json::Value definitions = DefinitionsOf(file.document);
    for (Json::ArrayIndex i = 0; i < definitions.size(); ++i) {
        const Json::Value &written = file.document.isArray() ? file.document[i] : file.document;
        CheckDefinition(written, std::move(definitions[i]), file, positions, environment, report);
    }
    return report;
}

std::vector<Diagnostic> ReplacedJobs(const std::vector<CheckedJob> &jobs) {
    std::unordered_map<std::string, const CheckedJob *> last;
    for (const CheckedJob &job : jobs)
        if (job.accepted)
            last[job.name] = &job;
    std::vector<Diagnostic> diagnostics;
    for (const CheckedJob &job : jobs) {
        if (!job.accepted || last[job.name] == &job)
            continue;
        const CheckedJob &winner = *last[job.name];
        Diagnostic diagnostic;
        diagnostic.file = job.file;
        diagnostic.position = job.position;
        diagnostic.severity = Severity::Warning;
        diagnostic.job = job.name;
        diagnostic.member = "name";
        diagnostic.found = Quoted(job.name);
        diagnostic.message = "replaced by the job with the same full name in " + winner.file + ":" +
                             std::to_string(winner.position.line) + ", which is read later";
        diagnostic.hint = Expected("one job for each full name");
        diagnostics.push_back(std::move(diagnostic));
    }
    return diagnostics;
}

} // namespace kest::ctl
