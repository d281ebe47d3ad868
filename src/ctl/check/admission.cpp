#include "ctl/check/admission.h"

#include "base/json_members.h"
#include "base/printable.h"

#include <climits>
#include <optional>

namespace kest::ctl {

namespace {

constexpr const char *kNotAdmitted = ": the job is not admitted";

void Warn(CheckedDefinition &checked, const std::string &member, const std::string &message,
          const std::string &allowed = {}) {
    checked.Add(Severity::Warning, {member, message, allowed});
}

// The name is that of the staged program too.
void FindNameObstacles(CheckedDefinition &checked, const std::string &name) {
    const std::string shown = "the full name " + Quoted(name);
    if (name.find('/') != std::string::npos)
        Warn(checked, "name", shown + " has a \"/\"" + kNotAdmitted, "a name without \"/\"");
    if (name.find('\0') != std::string::npos)
        Warn(checked, "name", shown + " has a zero byte" + kNotAdmitted);
    else if (Printable(name) != name)
        Warn(checked, "name", shown + " has control characters", "a name that can be printed");
    if (name.size() > NAME_MAX)
        Warn(checked, "name",
             shown + " has " + std::to_string(name.size()) + " bytes" + kNotAdmitted,
             "at most " + std::to_string(NAME_MAX) + " bytes");
}

void FindAccountObstacles(CheckedDefinition &checked, const Account &account) {
    const Json::Value &config = checked.Config();
    const std::string user = TextMember(config, "user");
    const std::string package = TextMember(config, "package_username");
    if (account.name.empty()) {
        const std::string member = user == "package" ? "package_username" : "user";
        Warn(checked, member,
             "\"" + member + "\" " + Excerpt(Member(config, member)) + " names no account" +
                 kNotAdmitted,
             "\"root\" or \"system\" as \"user\", or \"package\" and an account as "
             "\"package_username\"");
        return;
    }
    const bool byPackage = HasMember(config, "package_username") && account.name == package;
    if (!account.exists)
        Warn(checked, byPackage ? "package_username" : "user",
             "there is no account " + Quoted(account.name) + kNotAdmitted);
    if (byPackage && user != account.name && user != "package")
        Warn(checked, "user", "\"user\" " + Quoted(user) + " is read as \"package\"");
    if (HasMember(config, "package_username") && !byPackage)
        Warn(checked, "package_username",
             R"("package_username" is not read: "user" is )" + Quoted(user),
             R"("package" as "user")");
}

// A path that does not begin at the root; the daemon works there.
void FindRelative(CheckedDefinition &checked, const std::string &member, const std::string &path,
                  const Program &program) {
    Warn(checked, member,
         "program " + Quoted(path) + " is looked for in \"/\" alone" +
             (program.exists && program.regular ? ""
                                                : ", where it is not" + std::string(kNotAdmitted)),
         "an absolute path");
}

void FindLink(CheckedDefinition &checked, const std::string &member, const std::string &path,
              const Program &program) {
    // The link is copied as it is, to where the staged programs are.
    const bool relative = program.link.front() != '/';
    Warn(checked, member,
         "program " + Quoted(path) + " is a link to " + Quoted(program.link) +
             (relative ? ", which leads nowhere from where programs are staged" +
                             std::string(kNotAdmitted)
                       : ", which runs as it is found there"),
         "the program itself");
}

void FindProgramObstacles(CheckedDefinition &checked, const std::string &member,
                          const std::string &path, const Program &program) {
    const std::string shown = "program " + Quoted(path);
    if (path.front() != '/')
        FindRelative(checked, member, path, program);
    else if (!program.exists)
        Warn(checked, member, shown + " does not exist" + kNotAdmitted);
    else if (!program.regular)
        Warn(checked, member, shown + " is no regular file" + kNotAdmitted);
    else if (program.empty)
        Warn(checked, member, shown + " is empty");
    if (program.exists && program.regular && !program.link.empty())
        FindLink(checked, member, path, program);
    if (!program.openDirectory.empty())
        Warn(checked, member,
             shown + " can be replaced: others may write " + Quoted(program.openDirectory),
             "a program in directories that only root, or the job's account, may write");
}

// --- Shell --------------------------------------------------------------------------------------

// Whether a word would mean something else to a shell than it says.
bool IsForShell(const std::string &word) {
    if (word.empty())
        return false;
    const auto redirection = word.find_first_not_of("0123456789&");
    return word.find_first_of("'\"`|$") != std::string::npos || word == "&" || word == "&&" ||
           word.back() == ';' || word.back() == '\\' ||
           (redirection != std::string::npos &&
            (word[redirection] == '>' || word[redirection] == '<'));
}

void FindShellSyntax(CheckedDefinition &checked, const Json::Value &words) {
    const Json::Value &command = Member(checked.Written(), "cmd");
    const std::string text = command.asString();
    std::size_t index = 0;
    for (const Json::Value &element : words) {
        const std::string word = element.asString();
        index = text.find(word, index);
        if (!IsForShell(word)) {
            index += word.size();
            continue;
        }
        const std::optional<std::size_t> offset = checked.Places().OffsetOfText(command);
        checked.Add(Severity::Warning,
                    {"cmd",
                     Quoted(word) + " is passed on as it is: there is no shell and no quoting, "
                                    "\"cmd\" is split at blanks",
                     "\"cmd_list\" for arguments with blanks, a script for what a shell does",
                     offset ? checked.Places().At(*offset + index) : checked.Places().Of(command)});
        return;
    }
}

} // namespace

void FindObstacles(CheckedDefinition &checked, const CronJob &job, const Environment &environment) {
    const Account account = environment.account(checked.Config());
    const Json::Value words = Member(job.Document(), "cmd_list");
    const std::string member = HasMember(checked.Config(), "cmd_list") ? "cmd_list" : "cmd";
    FindNameObstacles(checked, std::string(job.Name()));
    FindAccountObstacles(checked, account);
    if (member == "cmd")
        FindShellSyntax(checked, words);
    const std::string path = words[0U].asString();
    if (path.empty() || path.find('\0') != std::string::npos)
        Warn(checked, member, "the command begins with no program" + std::string(kNotAdmitted),
             "an absolute path, at the very beginning");
    else
        FindProgramObstacles(
            checked, member, path,
            environment.program(path.front() == '/' ? path : "/" + path, account.name));
}

} // namespace kest::ctl
