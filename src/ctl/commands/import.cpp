#include "ctl/import/import.h"
#include "base/descriptor.h"
#include "core/job_files.h"
#include "ctl/commands/commands.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

// JSON output: "jobs", an array of definitions, and "problems", an array of objects as for check.

namespace {

constexpr const char *kStandardInput = "-";
constexpr const char *kEnv = "/usr/bin/env";

std::string ReadCrontab(const std::string &path) {
    std::string text;
    const std::size_t most = kJobFileLimits.bytes;
    if (path == kStandardInput) {
        if (!ReadAll(STDIN_FILENO, most, text))
            throw Failure(std::string("standard input: ") + std::strerror(errno));
        return text;
    }
    const Descriptor file = OpenRegularFile(path, {0, most});
    if (!file || !ReadAll(file.Get(), most, text))
        throw Failure(path + ": " +
                      (errno == EINVAL ? "not a regular file; - reads standard input"
                                       : std::strerror(errno)));
    return text;
}

// Without a user column, the account that runs the command, like crontab(1).
std::string AccountOfJobs(const Context &context, const ImportOptions &options) {
    if (options.system || !options.account.empty())
        return options.account;
    const std::optional<std::string> caller = context.appliance.AccountName(geteuid());
    if (!caller)
        throw Failure("user ID " + std::to_string(geteuid()) + " has no account; use --account");
    return *caller;
}

// The daemon runs a copy of the program of a job, and a program with several names does not
// recognize itself in the copy.
std::optional<Diagnostic> WarningAboutEnv(const Context &context) {
    const std::string path = kEnv;
    const auto slash = path.rfind('/');
    const std::string target =
        ReadLink(context.appliance.Locate(path.substr(0, slash)) + path.substr(slash));
    if (target.empty())
        return std::nullopt;
    Diagnostic warning;
    warning.file = path;
    warning.severity = Severity::Warning;
    warning.message = "is a link to " + Quoted(target) + ": the jobs cannot run a copy of it";
    return warning;
}

// What cannot be exact, in the order of the lines.
std::vector<Diagnostic> WarningsOf(const Context &context, const std::vector<ImportedLine> &lines) {
    std::vector<Diagnostic> warnings;
    if (auto warning = WarningAboutEnv(context))
        warnings.push_back(std::move(*warning));
    for (const ImportedLine &line : lines)
        warnings.insert(warnings.end(), line.warnings.begin(), line.warnings.end());
    return warnings;
}

Json::Value ToJson(const std::vector<ImportedLine> &lines,
                   const std::vector<Diagnostic> &warnings) {
    Json::Value json;
    json["jobs"] = Json::Value(Json::arrayValue);
    json["problems"] = Json::Value(Json::arrayValue);
    for (const ImportedLine &line : lines)
        for (const Json::Value &job : line.jobs)
            json["jobs"].append(job);
    for (const Diagnostic &warning : warnings)
        json["problems"].append(DiagnosticToJson(warning));
    return json;
}

} // namespace

int Import(const Context &context, const ImportOptions &options) {
    const std::string text = ReadCrontab(options.crontab);
    const ImportSettings settings{
        options.crontab == kStandardInput ? "<stdin>" : options.crontab, options.system,
        AccountOfJobs(context, options), kEnv,
        [&](const std::string &account) { return context.appliance.HomeOf(account); }};
    const std::vector<ImportedLine> lines = ImportCrontab(text, settings);
    const std::vector<Diagnostic> warnings = WarningsOf(context, lines);
    if (context.json) {
        WriteJson(ToJson(lines, warnings));
    } else {
        std::cout << JobFileText(lines, settings);
        std::cout.flush();
        for (const Diagnostic &warning : warnings)
            WriteDiagnostic(warning, Screen(), std::cerr);
    }
    return warnings.empty() ? 0 : 1;
}

} // namespace kest::ctl
