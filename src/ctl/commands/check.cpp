#include "ctl/check/checker.h"
#include "ctl/commands/commands.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"

#include <algorithm>
#include <iostream>

namespace kest::ctl {

// JSON output: "files", "jobs", "errors" and "warnings", all numbers, and "problems", an array of
// objects with these members:
//
//   "file", "line", "column"   the position; both numbers count from 1, columns count bytes
//   "severity"                 "error" or "warning"
//   "job"                      the full name; null for the whole file
//   "member"                   the member; null for the whole definition
//   "found"                    the present value as JSON text, shortened; null if missing
//   "allowed"                  the text of the hint; null without a hint
//   "message"                  the message without the hint

namespace {

std::size_t CountOf(const CheckResult &result, Severity severity) {
    return static_cast<std::size_t>(std::count_if(
        result.diagnostics.begin(), result.diagnostics.end(),
        [&](const Diagnostic &diagnostic) { return diagnostic.severity == severity; }));
}

const char *NameOf(Severity severity) {
    return severity == Severity::Error ? "error" : "warning";
}

Json::Value TextOrNull(const std::string &text) {
    return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value ToJson(const CheckResult &result) {
    Json::Value json;
    json["files"] = Json::UInt64{result.files};
    json["jobs"] = Json::UInt64{result.jobs};
    json["errors"] = Json::UInt64{CountOf(result, Severity::Error)};
    json["warnings"] = Json::UInt64{CountOf(result, Severity::Warning)};
    json["problems"] = Json::Value(Json::arrayValue);
    for (const Diagnostic &diagnostic : result.diagnostics)
        json["problems"].append(DiagnosticToJson(diagnostic));
    return json;
}

std::string Counted(std::size_t count, const std::string &noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// "3 files, 5 jobs: 1 error, 2 warnings"
std::string Summary(const CheckResult &result) {
    std::string diagnostics;
    for (const Severity severity : {Severity::Error, Severity::Warning})
        if (const std::size_t count = CountOf(result, severity))
            diagnostics += (diagnostics.empty() ? "" : ", ") + Counted(count, NameOf(severity));
    return Counted(result.files, "file") + ", " + Counted(result.jobs, "job") + ": " +
           (diagnostics.empty() ? "no problems" : diagnostics);
}

void KeepErrors(std::vector<Diagnostic> &diagnostics) {
    diagnostics.erase(
        std::remove_if(diagnostics.begin(), diagnostics.end(),
                       [](const Diagnostic &d) { return d.severity != Severity::Error; }),
        diagnostics.end());
}

} // namespace

Json::Value DiagnosticToJson(const Diagnostic &diagnostic) {
    Json::Value problem;
    problem["file"] = diagnostic.file;
    problem["line"] = Json::UInt64{diagnostic.position.line};
    problem["column"] = Json::UInt64{diagnostic.position.column};
    problem["severity"] = NameOf(diagnostic.severity);
    problem["job"] = TextOrNull(diagnostic.job);
    problem["member"] = TextOrNull(diagnostic.member);
    problem["found"] = TextOrNull(diagnostic.found);
    problem["allowed"] = TextOrNull(diagnostic.hint.text);
    problem["message"] = diagnostic.message;
    return problem;
}

void WriteDiagnostic(const Diagnostic &diagnostic, const Screen &screen, std::ostream &stream) {
    const Colour colour = diagnostic.severity == Severity::Error ? Colour::Red : Colour::Yellow;
    std::string text = diagnostic.job.empty() ? "" : diagnostic.job + ": ";
    text += MessageWithHint(diagnostic);
    constexpr std::size_t indent = 4; // of the part that does not fit into the first line
    const std::string line =
        Shown(diagnostic.file) + ":" + std::to_string(diagnostic.position.line) + ":" +
        std::to_string(diagnostic.position.column) + ": " +
        Coloured(screen, colour, std::string(NameOf(diagnostic.severity)) + ":") + " " +
        Shown(text);
    stream << Hanging(screen, line, indent) << "\n";
}

std::vector<Diagnostic> SourceErrors(const Context &context) {
    CheckResult result = CheckPathsOn(context.appliance, {});
    KeepErrors(result.diagnostics);
    return std::move(result.diagnostics);
}

int Check(const Context &context, const CheckOptions &options) {
    if (options.account && options.account->empty())
        throw Failure("--account requires the name of an account");
    if (options.account && options.paths.empty())
        throw Failure("--account requires the files or directories of the account");
    CheckResult result = CheckPathsOn(context.appliance, options.paths,
                                      options.portable ? CheckScope::Portable : CheckScope::System,
                                      options.account.value_or(""));
    if (options.errorsOnly)
        KeepErrors(result.diagnostics);
    if (context.json) {
        WriteJson(ToJson(result));
    } else {
        for (const Diagnostic &diagnostic : result.diagnostics)
            WriteDiagnostic(diagnostic, context.screen, std::cout);
        std::cout.flush();
        std::cerr << "kestcronctl: " << Summary(result) << "\n";
    }
    if (!result.unreadable.empty())
        throw Failure(result.unreadable.front() +
                      (result.unreadable.size() == 1
                           ? ""
                           : ", and " + std::to_string(result.unreadable.size() - 1) + " more"));
    return result.diagnostics.empty() ? 0 : 1;
}

void PrintWhyNotLoaded(const Context &context, const std::string &name) {
    const CheckResult result = CheckPathsOn(context.appliance, {});
    for (const CheckedJob &job : result.sourceJobs)
        if (job.name == name)
            std::cerr << Shown(job.file) << ":" << job.position.line << ":" << job.position.column
                      << ": the job is defined here"
                      << (job.accepted ? ", and the next reload tries to load it" : "") << "\n";
    for (const Diagnostic &diagnostic : result.diagnostics)
        if (diagnostic.job == name)
            WriteDiagnostic(diagnostic, Screen(), std::cerr);
}

} // namespace kest::ctl
