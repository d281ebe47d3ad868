#include "ctl/check/admission.h"

#include "base/json_members.h"
#include "base/printable.h"

#include <climits>
#include <optional>

namespace {

constexpr const char *kNotAdmitted = ": the job is not admitted";

void Warn(Subject &subject, const std::string &member, const std::string &message,
          const std::string &allowed = {}) {
    subject.Add(Severity::Warning, {member, message, allowed});
}

// The name is that of the staged program too.
void FindNameObstacles(Subject &subject, const std::string &name) {
    const std::string shown = "the full name " + Quoted(name);
    if (name.find('/') != std::string::npos)
        Warn(subject, "name", shown + " has a \"/\"" + kNotAdmitted, "a name without \"/\"");
    if (name.find('\0') != std::string::npos)
        Warn(subject, "name", shown + " has a zero byte" + kNotAdmitted);
    else if (Printable(name) != name)
        Warn(subject, "name", shown + " has control characters", "a name that can be printed");
    if (name.size() > NAME_MAX)
        Warn(subject, "name",
             shown + " has " + std::to_string(name.size()) + " bytes" + kNotAdmitted,
             "at most " + std::to_string(NAME_MAX) + " bytes");
}

void FindAccountObstacles(Subject &subject, const Account &account) {
    const Json::Value &config = subject.Config();
    const std::string user = TextMember(config, "user");
    const std::string package = TextMember(config, "package_username");
    if (account.name.empty()) {
        const std::string member = user == "package" ? "package_username" : "user";
        Warn(subject, member,
             "\"" + member + "\" " + Excerpt(Member(config, member)) + " names no account" +
                 kNotAdmitted,
             "\"root\" or \"system\" as \"user\", or \"package\" and an account as "
             "\"package_username\"");
        return;
    }
    const bool byPackage = HasMember(config, "package_username") && account.name == package;
    if (!account.exists)
        Warn(subject, byPackage ? "package_username" : "user",
             "there is no account " + Quoted(account.name) + kNotAdmitted);
    if (byPackage && user != account.name && user != "package")
        Warn(subject, "user", "\"user\" " + Quoted(user) + " is read as \"package\"");
    if (HasMember(config, "package_username") && !byPackage)
        Warn(subject, "package_username",
             R"("package_username" is not read: "user" is )" + Quoted(user),
             R"("package" as "user")");
}

// A path that does not begin at the root; the daemon works there.
void FindRelative(Subject &subject, const std::string &member, const std::string &path,
                  const Program &program) {
    Warn(subject, member,
         "program " + Quoted(path) + " is looked for in \"/\" alone" +
             (program.exists && program.regular ? ""
                                                : ", where it is not" + std::string(kNotAdmitted)),
         "an absolute path");
}

void FindLink(Subject &subject, const std::string &member, const std::string &path,
              const Program &program) {
    // The link is copied as it is, to where the staged programs are.
    const bool relative = program.link.front() != '/';
    Warn(subject, member,
         "program " + Quoted(path) + " is a link to " + Quoted(program.link) +
             (relative ? ", which leads nowhere from where programs are staged" +
                             std::string(kNotAdmitted)
                       : ", which runs as it is found there"),
         "the program itself");
}

void FindProgramObstacles(Subject &subject, const std::string &member, const std::string &path,
                          const Program &program) {
    const std::string shown = "program " + Quoted(path);
    if (path.front() != '/')
        FindRelative(subject, member, path, program);
    else if (!program.exists)
        Warn(subject, member, shown + " does not exist" + kNotAdmitted);
    else if (!program.regular)
        Warn(subject, member, shown + " is no regular file" + kNotAdmitted);
    else if (program.empty)
        Warn(subject, member, shown + " is empty");
    if (program.exists && program.regular && !program.link.empty())
        FindLink(subject, member, path, program);
    if (!program.openDirectory.empty())
        Warn(subject, member,
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

void FindShellSyntax(Subject &subject, const Json::Value &words) {
    const Json::Value &command = Member(subject.Written(), "cmd");
    const std::string text = command.asString();
    std::size_t index = 0;
    for (const Json::Value &element : words) {
        const std::string word = element.asString();
        index = text.find(word, index);
        if (!IsForShell(word)) {
            index += word.size();
            continue;
        }
        const std::optional<std::size_t> offset = subject.Places().OffsetOfText(command);
        subject.Add(Severity::Warning,
                    {"cmd",
                     Quoted(word) + " is passed on as it is: there is no shell and no quoting, "
                                    "\"cmd\" is split at blanks",
                     "\"cmd_list\" for arguments with blanks, a script for what a shell does",
                     offset ? subject.Places().At(*offset + index) : subject.Places().Of(command)});
        return;
    }
}

} // namespace

void FindObstacles(Subject &subject, const CronJob &job, const Environment &environment) {
    const Account account = environment.account(subject.Config());
    const Json::Value words = Member(job.Document(), "cmd_list");
    const std::string member = HasMember(subject.Config(), "cmd_list") ? "cmd_list" : "cmd";
    FindNameObstacles(subject, std::string(job.Name()));
    FindAccountObstacles(subject, account);
    if (member == "cmd")
        FindShellSyntax(subject, words);
    const std::string path = words[0U].asString();
    if (path.empty() || path.find('\0') != std::string::npos)
        Warn(subject, member, "the command begins with no program" + std::string(kNotAdmitted),
             "an absolute path, at the very beginning");
    else
        FindProgramObstacles(
            subject, member, path,
            environment.program(path.front() == '/' ? path : "/" + path, account.name));
}
