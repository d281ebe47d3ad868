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

Diagnostic OfFile(const JobFile &file, Severity severity, const std::string &message,
                  const std::string &allowed = {}) {
    Diagnostic diagnostic;
    diagnostic.file = file.path;
    diagnostic.severity = severity;
    diagnostic.message = message;
    diagnostic.allowed = allowed;
    return diagnostic;
}

// Why there is no document.
Diagnostic FaultOf(const JobFile &file, const JsonPlaces &places) {
    const auto error = [&](const std::string &message, const std::string &allowed = {}) {
        return OfFile(file, Severity::Error, message, allowed);
    };
    if (file.error == EBADMSG && !file.origin.fault.empty()) {
        const JsonPlaces::Fault fault = places.FirstOf(file.origin.fault);
        Diagnostic diagnostic = error("no JSON document: " + fault.text);
        diagnostic.place = fault.place;
        return diagnostic;
    }
    switch (file.error) {
    case EBADMSG:
        return error("the file is empty", "one JSON document");
    case EFBIG:
        return error("the file is too large",
                     "at most " + std::to_string(kJobFileLimits.bytes) + " bytes");
    case EDQUOT: {
        Diagnostic diagnostic = BeyondQuota(file.directory.account);
        diagnostic.file = file.path;
        return diagnostic;
    }
    case EISDIR:
        return error("a directory is no job file", "a regular file");
    case EINVAL:
        return error("neither a regular file nor a link to one", "a regular file");
    default:
        return error(std::string("cannot be read: ") + std::strerror(file.error));
    }
}

bool EndsWith(const std::string &text, const std::string &end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void FindOddName(const JobFile &file, std::vector<Diagnostic> &diagnostics) {
    if (!IsJobFileName(file.name))
        diagnostics.push_back(OfFile(file, Severity::Warning,
                                     "the daemon does not read hidden files",
                                     "a name that does not begin with \".\""));
    for (const char *end : {"~", ".bak", ".orig", ".old", ".save", ".swp", ".dpkg-old", ".dpkg-new",
                            ".dpkg-dist", ".rpmsave", ".rpmnew", ".rpmorig"})
        if (IsJobFileName(file.name) && EndsWith(file.name, end))
            diagnostics.push_back(OfFile(file, Severity::Warning,
                                         "the daemon reads every file that is not hidden, and this "
                                         "one looks like a copy of another"));
}

// Of two members of one name the parser keeps the last, and says nothing unless it is asked to.
void FindDuplicateMembers(const JobFile &file, const JsonPlaces &places,
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
    const JsonPlaces::Fault fault = places.FirstOf(faults);
    diagnostics.push_back(OfFile(file, Severity::Warning,
                                 "of members with one name only the last is read: " + fault.text,
                                 "each member once"));
    diagnostics.back().place = fault.place;
}

// --- Its definitions ----------------------------------------------------------------------------

// What becomes of a definition in its directory. Without a name it gets none, but what else the
// directory gives, so that this is not missed in it.
Json::Value InDirectory(Json::Value definition, const JobFile &file) {
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

void Judge(const Json::Value &written, Json::Value definition, const JobFile &file,
           const JsonPlaces &places, const Environment &environment, JobFileReport &report) {
    const bool alone = &written == &file.document;
    const Json::Value config = InDirectory(std::move(definition), file);
    Json::Value document;
    document["config"] = config;
    std::vector<DefinitionFault> faults;
    const CronJob job(std::move(document), faults);
    CheckedDefinition checked(written, config, places);
    AddErrors(checked, faults);
    FindMisreadings(checked, file.directory, alone);
    if (job.valid) {
        FindOddSettings(checked, job);
        FindObstacles(checked, job, environment);
    }
    const std::string name = ShownName(config, file);
    for (Diagnostic &diagnostic : checked.TakeDiagnostics()) {
        diagnostic.file = file.path;
        diagnostic.job = name;
        report.diagnostics.push_back(std::move(diagnostic));
    }
    const Json::Value &nameValue = Member(written, "name");
    report.jobs.push_back(
        {name, file.path, places.Of(alone || nameValue.isNull() ? written : nameValue), job.valid});
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

Diagnostic BeyondQuota(const std::string &account) {
    const AccountQuota whole;
    Diagnostic diagnostic;
    diagnostic.message = "the quota of " + Quoted(account) + " is used up before this file is read";
    diagnostic.allowed =
        std::to_string(whole.bytes) +
        " bytes for all files of the account, of which each and each job counts as " +
        std::to_string(kLeastCharge) + " at least, and " + std::to_string(whole.documentBytes) +
        " bytes of runtime document";
    return diagnostic;
}

JobFileReport CheckJobFile(const JobFile &file, const Environment &environment) {
    JobFileReport report;
    const JsonPlaces places(file.origin.text);
    FindOddName(file, report.diagnostics);
    if (file.error != 0) {
        report.diagnostics.push_back(FaultOf(file, places));
        return report;
    }
    if (!file.document.isArray() && !file.document.isObject()) {
        Diagnostic diagnostic = OfFile(file, Severity::Warning, "there is no job in it",
                                       "an array of definitions, or one definition");
        diagnostic.place = places.Of(file.document);
        diagnostic.found = Excerpt(file.document);
        report.diagnostics.push_back(std::move(diagnostic));
    }
    FindDuplicateMembers(file, places, report.diagnostics);
    Json::Value definitions = DefinitionsOf(file.document);
    for (Json::ArrayIndex i = 0; i < definitions.size(); ++i) {
        const Json::Value &written = file.document.isArray() ? file.document[i] : file.document;
        Judge(written, std::move(definitions[i]), file, places, environment, report);
    }
    return report;
}

std::vector<Diagnostic> ReplacedJobs(const std::vector<JudgedJob> &jobs) {
    std::unordered_map<std::string, const JudgedJob *> last;
    for (const JudgedJob &job : jobs)
        if (job.accepted)
            last[job.name] = &job;
    std::vector<Diagnostic> diagnostics;
    for (const JudgedJob &job : jobs) {
        if (!job.accepted || last[job.name] == &job)
            continue;
        const JudgedJob &winner = *last[job.name];
        Diagnostic diagnostic;
        diagnostic.file = job.file;
        diagnostic.place = job.place;
        diagnostic.severity = Severity::Warning;
        diagnostic.job = job.name;
        diagnostic.member = "name";
        diagnostic.found = Quoted(job.name);
        diagnostic.message = "replaced by the job of the same full name in " + winner.file + ":" +
                             std::to_string(winner.place.line) + ", which is read later";
        diagnostic.allowed = "one job of a full name";
        diagnostics.push_back(std::move(diagnostic));
    }
    return diagnostics;
}

} // namespace kest::ctl
