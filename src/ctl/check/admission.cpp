#include "ctl/check/admission.h"

#include "base/json_members.h"
#include "base/printable.h"

#include <climits>
#include <optional>

namespace kest::ctl {

namespace {

void Warn(CheckedDefinition &checked, const std::string &member, const std::string &message,
          const Hint &hint = {}) {
    checked.Add(Severity::Warning, {member, message, hint});
}

// The daemon reads the definition and then leaves the job out.
void Refuse(CheckedDefinition &checked, const std::string &member, const std::string &message,
            const Hint &hint = {}) {
    checked.Add(Severity::Error, {member, message + ": the daemon will not load this job", hint});
}

// The staged program has the same name.
void CheckName(CheckedDefinition &checked, const std::string &name) {
    const std::string shown = "the full name " + Quoted(name);
    if (name.find('/') != std::string::npos)
        Refuse(checked, "name", shown + " contains \"/\"", Expected("a name without \"/\""));
    if (name.find('\0') != std::string::npos)
        Refuse(checked, "name", shown + " contains a zero byte");
    else if (Printable(name) != name)
        Warn(checked, "name", shown + " contains control characters",
             Expected("printable characters"));
    if (name.size() > NAME_MAX)
        Refuse(checked, "name", shown + " has " + std::to_string(name.size()) + " bytes",
               Expected("at most " + std::to_string(NAME_MAX) + " bytes"));
}

void CheckAccount(CheckedDefinition &checked, const Account &account) {
    const Json::Value &config = checked.Config();
    const std::string user = TextMember(config, "user");
    const std::string package = TextMember(config, "package_username");
    if (account.name.empty()) {
        const std::string member = user == "package" ? "package_username" : "user";
        Refuse(checked, member,
               "\"" + member + "\" " + Excerpt(Member(config, member)) +
                   " does not name an account",
               Expected("\"root\" or \"system\" as \"user\", or \"package\" with an account as "
                        "\"package_username\""));
        return;
    }
    const bool byPackage = HasMember(config, "package_username") && account.name == package;
    if (!account.exists)
        Refuse(checked, byPackage ? "package_username" : "user",
               "account " + Quoted(account.name) + " does not exist");
    if (byPackage && user != account.name && user != "package")
        Warn(checked, "user", "\"user\" " + Quoted(user) + " is read as \"package\"");
    if (HasMember(config, "package_username") && !byPackage)
        Warn(checked, "package_username",
             R"("package_username" is ignored: "user" is )" + Quoted(user),
             Advice(R"("user": "package")"));
}

// The working directory of the daemon is "/".
void CheckRelativePath(CheckedDefinition &checked, const std::string &member,
                       const std::string &path, const Program &program) {
    const std::string message =
        "program " + Quoted(path) + " is a relative path: the daemon resolves it from \"/\"";
    if (program.exists && program.regular)
        Warn(checked, member, message, Expected("an absolute path"));
    else
        Refuse(checked, member, message + " and does not find it", Expected("an absolute path"));
}

void CheckLink(CheckedDefinition &checked, const std::string &member, const std::string &path,
               const Program &program) {
    const std::string message = "program " + Quoted(path) + " is a link to " + Quoted(program.link);
    const Hint hint = Expected("the path of the program itself");
    // The daemon copies the link itself, so a relative target does not resolve in the runtime
    // directory.
    if (program.link.front() != '/')
        Refuse(checked, member,
               message + ", which does not resolve in the directory of staged programs", hint);
    else
        Warn(checked, member, message + ": the daemon runs the link target, not a copy", hint);
}

void CheckProgram(CheckedDefinition &checked, const std::string &member, const std::string &path,
                  const Program &program) {
    const std::string shown = "program " + Quoted(path);
    if (path.front() != '/')
        CheckRelativePath(checked, member, path, program);
    else if (!program.exists)
        Refuse(checked, member, shown + " does not exist");
    else if (!program.regular)
        Refuse(checked, member, shown + " is not a regular file");
    else if (program.empty)
        Warn(checked, member, shown + " is empty");
    if (program.exists && program.regular && !program.link.empty())
        CheckLink(checked, member, path, program);
    if (program.startFault)
        Warn(checked, member, shown + " cannot be started: " + program.startFault->text,
             program.startFault->hint);
    if (!program.writableDirectory.empty())
        Warn(checked, member,
             shown + " can be replaced: other users can write to " +
                 Quoted(program.writableDirectory),
             Expected("a program in directories that only root or the job's account can write to"));
}

// --- Shell --------------------------------------------------------------------------------------

// Whether a shell would interpret the word.
bool HasShellSyntax(const std::string &word) {
    if (word.empty())
        return false;
    const auto redirection = word.find_first_not_of("0123456789&");
    return word.find_first_of("'\"`|$") != std::string::npos || word == "&" || word == "&&" ||
           word.back() == ';' || word.back() == '\\' ||
           (redirection != std::string::npos &&
            (word[redirection] == '>' || word[redirection] == '<'));
}

void CheckShellSyntax(CheckedDefinition &checked, const Json::Value &commandList) {
    const Json::Value &command = Member(checked.Written(), "cmd");
    const std::string text = command.asString();
    std::size_t index = 0;
    for (const Json::Value &element : commandList) {
        const std::string word = element.asString();
        index = text.find(word, index);
        if (!HasShellSyntax(word)) {
            index += word.size();
            continue;
        }
        const std::optional<std::size_t> offset = checked.Positions().OffsetOfText(command);
        checked.Add(
            Severity::Warning,
            {"cmd",
             Quoted(word) + " is passed to the program as it is: \"cmd\" is split at "
                            "blanks, without a shell and without quoting",
             Advice("\"cmd_list\" for arguments with blanks, a script for shell syntax"),
             offset ? checked.Positions().At(*offset + index) : checked.Positions().Of(command)});
        return;
    }
}

} // namespace

void CheckAdmission(CheckedDefinition &checked, const CronJob &job,
                    const Environment &environment) {
    const Account account = environment.account(checked.Config());
    const Json::Value commandList = Member(job.Document(), "cmd_list");
    const std::string member = HasMember(checked.Config(), "cmd_list") ? "cmd_list" : "cmd";
    CheckName(checked, std::string(job.Name()));
    CheckAccount(checked, account);
    if (member == "cmd")
        CheckShellSyntax(checked, commandList);
    const std::string path = commandList[0U].asString();
    if (path.empty() || path.find('\0') != std::string::npos)
        Refuse(checked, member, "the command does not begin with a program",
               Expected("an absolute path without a leading blank"));
    else
        CheckProgram(checked, member, path,
                     environment.program(path.front() == '/' ? path : "/" + path, account.name));
}

} // namespace kest::ctl
