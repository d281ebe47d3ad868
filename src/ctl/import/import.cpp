#include "ctl/import/import.h"

#include "base/json_text.h"
#include "base/printable.h"
#include "core/job_files.h"
#include "ctl/display/utf8.h"
#include "ctl/import/classic_line.h"
#include "ctl/system/failure.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <set>
#include <utility>

namespace kest::ctl {

namespace {

// The first shell changes to the home directory and becomes the shell of the crontab, which takes
// the command as its one argument, as in a classic crontab: nothing has to be quoted again. It runs
// from its own path, so that it may be a link, unlike the program of a job. Many accounts of
// programs have a home directory that does not exist; their commands run all the same.
constexpr const char *kFirstShell = "/bin/sh";
constexpr const char *kRunCommand = R"(cd; exec "$SHELL" -c "$0")";
constexpr const char *kRunCommandWithInput = R"(cd; printf %s "$1" | "$SHELL" -c "$0")";

constexpr std::size_t kMostVariables = 256;

[[noreturn]] void ThrowTooLarge() {
    throw Failure("the job file has more than " + std::to_string(kJobFileLimits.bytes) +
                  " bytes; divide the crontab");
}

Diagnostic WarningOf(const LineRemark &remark) {
    Diagnostic diagnostic;
    diagnostic.severity = Severity::Warning;
    diagnostic.position.column = remark.column;
    diagnostic.message = remark.message;
    diagnostic.hint = remark.hint;
    return diagnostic;
}

// --- Names --------------------------------------------------------------------------------------

// Words that stand before the name of a program, or in place of one.
bool IsPrefixOfCommand(const std::string &word) {
    static const std::set<std::string> words{
        "[",     "]",      "test", "if",    "then", "else", "elif",  "fi",     "while",
        "until", "for",    "in",   "do",    "done", "case", "esac",  "!",      "command",
        "exec",  "eval",   "set",  "cd",    "env",  "nice", "sleep", "ionice", "chronic",
        "nohup", "setsid", "sudo", "umask", "type", "sh",   "bash",  "dash",   "timeout",
        "flock", "export", "true", "which", "null", "time", "perl",  "python3"};
    return words.count(word) != 0;
}

std::string LastComponent(const std::string &path) {
    return path.substr(path.find_last_of('/') + 1);
}

bool IsNameCharacter(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '.' ||
           character == '_' || character == '-';
}

// Whether the word can be a program: not a variable, an option, a number, a directory, or a file
// that a command looks for.
bool CanBeProgram(const std::string &word) {
    const std::string name = LastComponent(word);
    return word.find_first_of("=$*?:@") == std::string::npos && word.front() != '-' &&
           word.compare(0, 5, "/run/") != 0 &&
           name.find_first_not_of("0123456789.+-") != std::string::npos && !IsPrefixOfCommand(name);
}

std::vector<std::string> WordsOf(const std::string &command) {
    constexpr const char *separators = " \t;&|<>(){}'\"`,\\";
    std::vector<std::string> words;
    for (std::size_t start = command.find_first_not_of(separators); start != std::string::npos;) {
        const std::size_t end = command.find_first_of(separators, start);
        words.push_back(command.substr(start, end - start));
        start = command.find_first_not_of(separators, end);
    }
    return words;
}

// Numbers the jobs that would have the same name.
class UniqueNames {
public:
    std::string For(const std::string &command) {
        const std::string name = JobNameFor(command);
        std::string unique = name;
        for (std::size_t &last = last_[name]; !used_.insert(unique).second;)
            unique = name + "-" + std::to_string(++last + 1);
        return unique;
    }

private:
    std::map<std::string, std::size_t> last_;
    std::set<std::string> used_;
};

// --- Variables ----------------------------------------------------------------------------------

// The variables of a crontab so far, in the order of their first lines.
class Environ {
public:
    // Returns the warning if the variable has no or another effect.
    std::optional<LineRemark> Set(const ClassicVariable &variable);

    // Of a command, as NAME=VALUE.
    std::vector<std::string> For(const std::string &account, const std::string &home) const;

private:
    std::vector<std::pair<std::string, std::string>> variables_;
};

std::optional<LineRemark> Environ::Set(const ClassicVariable &variable) {
    const std::string &name = variable.name;
    if (name == "LOGNAME")
        return std::nullopt; // always that of the account
    if ((name == "HOME" || name == "SHELL") && variable.value.substr(0, 1) != "/")
        return LineRemark{variable.column, name + " " + Quoted(variable.value) + " has no effect",
                          Expected("an absolute path")};
    const auto known = std::find_if(variables_.begin(), variables_.end(),
                                    [&](const auto &entry) { return entry.first == name; });
    if (known == variables_.end() && variables_.size() == kMostVariables)
        throw Failure("more than " + std::to_string(kMostVariables) + " variables");
    if (known == variables_.end())
        variables_.emplace_back(name, variable.value);
    else
        known->second = variable.value;
    if (variable.value.empty())
        return std::nullopt;
    if (name == "MAILTO")
        return LineRemark{variable.column,
                          "MAILTO: the output of a job is dropped, not sent by mail"};
    if (name == "CRON_TZ")
        return LineRemark{variable.column,
                          "CRON_TZ: the jobs below start by the time zone of the system"};
    if (name == "RANDOM_DELAY")
        return LineRemark{variable.column, "RANDOM_DELAY: the jobs below start without it"};
    return std::nullopt;
}

std::vector<std::string> Environ::For(const std::string &account, const std::string &home) const {
    const std::array<std::pair<const char *, std::string>, 4> defaults{
        {{"HOME", home}, {"LOGNAME", account}, {"PATH", "/usr/bin:/bin"}, {"SHELL", kFirstShell}}};
    std::vector<std::string> texts;
    for (const auto &[name, value] : defaults)
        if (std::none_of(variables_.begin(), variables_.end(),
                         [&, sought = name](const auto &entry) { return entry.first == sought; }))
            texts.push_back(std::string(name).append("=").append(value));
    for (const auto &[name, value] : variables_)
        texts.push_back(std::string(name).append("=").append(value));
    return texts;
}

// --- Lines --------------------------------------------------------------------------------------

// Why the jobs of the line cannot have the account. Its home directory comes from the account
// database, which may be that of another system.
std::optional<LineRemark> FaultOfAccount(const ClassicEntry &entry, const std::string &account,
                                         const std::optional<std::string> &home) {
    if (!home)
        return LineRemark{entry.accountColumn, "account " + Quoted(account) + " does not exist",
                          Expected("an account of the system")};
    if (home->substr(0, 1) != "/" || Printable(*home) != *home || ValidUtf8(*home) != *home)
        return LineRemark{entry.accountColumn,
                          "account " + Quoted(account) + " has no valid home directory"};
    return std::nullopt;
}

class Importer {
public:
    explicit Importer(const ImportSettings &settings) : settings_(settings) {}

    // Nothing if the line has no effect.
    std::optional<ImportedLine> Import(std::size_t number, const std::string &text);

private:
    void Add(ImportedLine &line, const LineRemark &remark);
    void LeaveOut(ImportedLine &line, LineRemark fault);
    void Charge(std::size_t bytes);
    void AddJobs(ImportedLine &line, const ClassicEntry &entry);
    std::vector<std::string> CommandOf(const ClassicEntry &entry, const std::string &account,
                                       const std::string &home) const;

    const ImportSettings &settings_;
    Environ environ_;
    UniqueNames names_;
    std::size_t size_ = 0; // what all lines so far need at least in the job file
};

// A small crontab can become a large job file: each job contains all variables.
void Importer::Charge(std::size_t bytes) {
    size_ += bytes;
    if (size_ > kJobFileLimits.bytes)
        ThrowTooLarge();
}

void Importer::Add(ImportedLine &line, const LineRemark &remark) {
    Charge(remark.message.size());
    Diagnostic warning = WarningOf(remark);
    warning.file = settings_.file;
    warning.position.line = line.number;
    line.warnings.push_back(std::move(warning));
}

void Importer::LeaveOut(ImportedLine &line, LineRemark fault) {
    fault.message = "no job: " + fault.message;
    Add(line, fault);
}

std::vector<std::string> Importer::CommandOf(const ClassicEntry &entry, const std::string &account,
                                             const std::string &home) const {
    std::vector<std::string> command{settings_.env, "-i"};
    for (std::string &variable : environ_.For(account, home))
        command.push_back(std::move(variable));
    for (const char *argument :
         {kFirstShell, "-c", entry.input.empty() ? kRunCommand : kRunCommandWithInput})
        command.emplace_back(argument);
    command.push_back(entry.command);
    if (!entry.input.empty())
        command.push_back(entry.input);
    return command;
}

void Importer::AddJobs(ImportedLine &line, const ClassicEntry &entry) {
    const std::string account = settings_.userColumn ? entry.account : settings_.account;
    const std::optional<std::string> home = settings_.home(account);
    if (const auto fault = FaultOfAccount(entry, account, home)) {
        LeaveOut(line, *fault);
        return;
    }
    for (const LineRemark &remark : entry.remarks)
        Add(line, remark);
    if (!settings_.userColumn && entry.command.compare(0, 5, "root ") == 0)
        Add(line, {entry.commandColumn, "the command begins with an account",
                   Expected("--system for a crontab with accounts")});
    Json::Value list(Json::arrayValue);
    std::size_t size = 0;
    for (const std::string &argument : CommandOf(entry, account, *home)) {
        list.append(argument);
        size += argument.size();
    }
    for (const std::string &expression : ExpressionsOf(entry.schedule)) {
        Charge(size);
        Json::Value job;
        job["name"] = names_.For(entry.command);
        const bool isKnown = account == "root" || account == "system";
        job["user"] = isKnown ? account : "package";
        if (!isKnown)
            job["package_username"] = account;
        job["period"] = "crontab";
        job["crontab"] = expression;
        job["cmd_list"] = list;
        line.jobs.push_back(std::move(job));
    }
}

std::optional<ImportedLine> Importer::Import(std::size_t number, const std::string &text) {
    const ClassicLine parsed = ParseClassicLine(text, settings_.userColumn);
    ImportedLine line;
    line.number = number;
    line.text = text;
    if (const auto *variable = std::get_if<ClassicVariable>(&parsed)) {
        if (const auto remark = environ_.Set(*variable))
            Add(line, *remark);
    } else if (const auto *entry = std::get_if<ClassicEntry>(&parsed)) {
        AddJobs(line, *entry);
    } else if (const auto *fault = std::get_if<LineRemark>(&parsed)) {
        LeaveOut(line, *fault);
    }
    return line.warnings.empty() && line.jobs.empty() ? std::nullopt
                                                      : std::optional<ImportedLine>(line);
}

// --- Text ---------------------------------------------------------------------------------------

void AppendMember(std::string &text, const Json::Value &job, const char *name) {
    if (job.isMember(name))
        text += std::string("        \"") + name + "\": " + JsonToString(job[name]) + ",\n";
}

// The arguments in three lines: the environment, the shell, and the command.
void AppendArguments(std::string &text, const Json::Value &list) {
    Json::ArrayIndex shell = 0;
    while (shell < list.size() && list[shell].asString() != kFirstShell)
        ++shell;
    const std::string indent(21, ' ');
    text += "        \"cmd_list\": [";
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const bool startsLine = i == shell || i == shell + 3;
        text += i == 0 ? "" : startsLine ? ",\n" + indent : ", ";
        text += JsonToString(list[i]);
    }
    text += "]\n";
}

void AppendJob(std::string &text, const Json::Value &job) {
    text += "    {\n";
    for (const char *member : {"name", "user", "package_username", "period", "crontab"})
        AppendMember(text, job, member);
    AppendArguments(text, job["cmd_list"]);
    text += "    }";
}

void AppendComments(std::string &text, const ImportedLine &line) {
    constexpr std::size_t longest = 200;
    text += "    // line " + std::to_string(line.number) + ": " +
            Shown(WithoutMiddle(line.text, longest)) + "\n";
    for (const Diagnostic &warning : line.warnings)
        text += "    // warning: " + Shown(MessageWithHint(warning)) + "\n";
    if (line.jobs.size() > 1)
        text += "    // Jobs that never start in the same minute:\n";
}

} // namespace

std::string JobNameFor(const std::string &command) {
    constexpr std::size_t longest = 64;
    std::string name;
    std::string previous;
    for (const std::string &word : WordsOf(command)) {
        if (name.empty() && CanBeProgram(word) && previous != "-d") // followed by a directory
            name = LastComponent(word).substr(0, longest);
        previous = word;
    }
    std::replace_if(
        name.begin(), name.end(), [](char character) { return !IsNameCharacter(character); }, '_');
    return name.empty() || name.front() == '.' ? "job" + name : name;
}

std::vector<ImportedLine> ImportCrontab(const std::string &text, const ImportSettings &settings) {
    Importer importer(settings);
    std::vector<ImportedLine> lines;
    std::size_t number = 0;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        if (auto line = importer.Import(++number, text.substr(start, end - start)))
            lines.push_back(std::move(*line));
        start = end + 1;
    }
    return lines;
}

std::string JobFileText(const std::vector<ImportedLine> &lines, const ImportSettings &settings) {
    std::size_t remaining = 0;
    for (const ImportedLine &line : lines)
        remaining += line.jobs.size();
    // The parser refuses comments in an array without values.
    const bool isEmpty = remaining == 0;
    std::string text = "// Imported from " + Shown(settings.file) + (isEmpty ? "\n" : "\n[\n");
    for (const ImportedLine &line : lines) {
        AppendComments(text, line);
        for (const Json::Value &job : line.jobs) {
            AppendJob(text, job);
            text += --remaining == 0 ? "\n" : ",\n";
        }
        if (text.size() > kJobFileLimits.bytes)
            ThrowTooLarge();
    }
    return text + (isEmpty ? "[]\n" : "]\n");
}

} // namespace kest::ctl
