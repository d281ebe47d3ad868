#include "ctl/check/definition.h"

#include "base/json_members.h"
#include "ctl/check/crontab.h"
#include "ctl/check/nearest.h"
#include "job/definition.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

namespace kest::ctl {

namespace {

struct KnownMember {
    const char *name;
    const char *expected;
};

constexpr std::array<KnownMember, 10> kMembers{{
    {"name", "a string"},
    {"user", R"("root", "system" or "package")"},
    {"package_username", "the name of the account"},
    {"period", R"("hourly", "daily", "weekly", "monthly" or "crontab")"},
    {"crontab", "five fields separated by one blank: minute, hour, day, month, weekday"},
    {"cmd", "a command, or \"cmd_list\" with its arguments"},
    {"cmd_list", "a list of at least one string: the program, then its arguments"},
    {"assure_execute", "a number of hours"},
    {"assure_execute_action", R"("run" or "wait")"},
    {"run_on_passive", "true or false"},
}};

const KnownMember *FindKnown(const std::string &name) {
    const auto *const found =
        std::find_if(kMembers.begin(), kMembers.end(),
                     [&](const KnownMember &member) { return member.name == name; });
    return found == kMembers.end() ? nullptr : found;
}

Hint ExpectedFor(const std::string &name) {
    const KnownMember *known = FindKnown(name);
    return known == nullptr ? Hint() : Expected(known->expected);
}

std::string Named(const std::string &member) {
    return "\"" + member + "\"";
}

// Whether the schedule comes from "crontab"; nothing if "period" is invalid.
std::optional<bool> RunsByCrontab(const Json::Value &config) {
    const std::optional<std::string> expression = PeriodCrontab(TextMember(config, "period"), "");
    return expression ? std::optional<bool>(expression->empty()) : std::nullopt;
}

// --- Errors -------------------------------------------------------------------------------------

void AddUnusable(CheckedDefinition &checked, const std::string &member) {
    const Json::Value &value = Member(checked.Config(), member);
    const bool there = checked.Config().isMember(member);
    checked.Add(Severity::Error,
                {member, Named(member) + (there ? " is invalid: " + Excerpt(value) : " is missing"),
                 ExpectedFor(member)});
}

void AddArgument(CheckedDefinition &checked, std::size_t index) {
    const Json::Value &list = Member(checked.Written(), "cmd_list");
    const Json::Value &element = list[static_cast<Json::ArrayIndex>(index)];
    checked.Add(Severity::Error,
                {"cmd_list", "invalid argument " + Excerpt(element), Expected("a string"),
                 checked.Positions().Of(element), Excerpt(element)});
}

void AddError(CheckedDefinition &checked, const DefinitionFault &fault,
              std::optional<std::size_t> startOfCrontab) {
    using Kind = DefinitionFault::Kind;
    const bool hasCrontab = Member(checked.Written(), "crontab").isString();
    if (fault.kind == Kind::Item)
        AddItemError(checked, fault, startOfCrontab);
    else if (fault.kind == Kind::FieldCount && hasCrontab)
        AddFieldCountError(checked, fault);
    else if (fault.kind == Kind::Argument)
        AddArgument(checked, fault.number);
    else if (*fault.member == '\0')
        checked.Add(Severity::Error,
                    {"", "invalid definition " + Excerpt(checked.Config()), Expected("an object")});
    else
        AddUnusable(checked, fault.member);
}

} // namespace

void AddErrors(CheckedDefinition &checked, const std::vector<DefinitionFault> &faults) {
    const std::optional<std::size_t> startOfCrontab =
        faults.empty() ? std::nullopt : StartOfCrontab(checked);
    for (const DefinitionFault &fault : faults)
        AddError(checked, fault, startOfCrontab);
}

// --- Members ------------------------------------------------------------------------------------

namespace {

void WarnOfMember(CheckedDefinition &checked, const std::string &member, const std::string &text,
                  const Hint &hint = {}) {
    checked.Add(Severity::Warning, {member, Named(member) + " " + text, hint});
}

void CheckUnknownMembers(CheckedDefinition &checked) {
    std::vector<std::string> known;
    known.reserve(kMembers.size());
    for (const KnownMember &member : kMembers)
        known.emplace_back(member.name);
    const Json::Value &written = checked.Written();
    for (const std::string &name : written.getMemberNames()) {
        if (FindKnown(name) != nullptr)
            continue;
        const std::vector<std::string> near = NearestOf(name, known, 1);
        checked.Add(Severity::Warning, {name, "unknown member " + Quoted(name) + " is ignored",
                                        near.empty() ? Hint() : Advice(Named(near.front())),
                                        checked.Positions().OfName(Member(written, name))});
    }
}

// Members that the daemon ignores because of other members or of the directory.
void CheckIgnoredMembers(CheckedDefinition &checked, const JobDirectory &directory, bool alone) {
    const Json::Value &written = checked.Written();
    const Json::Value &config = checked.Config();
    if (alone && written.isMember("name") && TextMember(written, "name") != "default")
        WarnOfMember(checked, "name",
                     "is ignored: the job of a file without an array is named \"default\"",
                     Advice("an array around the definition"));
    for (const char *member : {"user", "package_username"})
        if (!directory.account.empty() && written.isMember(member) &&
            Member(written, member) != Member(config, member))
            WarnOfMember(checked, member,
                         "is ignored: all jobs in this directory run as " +
                             Quoted(directory.account));
    if (written.isMember("cmd") && written.isMember("cmd_list"))
        WarnOfMember(checked, "cmd", "is ignored: \"cmd_list\" takes precedence",
                     Expected("one of the two"));
    if (written.isMember("crontab") && !RunsByCrontab(config).value_or(true))
        WarnOfMember(checked, "crontab",
                     "is ignored: \"period\" is " + Excerpt(Member(config, "period")),
                     Advice(R"("period": "crontab")"));
}

void CheckPeriod(CheckedDefinition &checked) {
    const std::string misread = MisreadPeriod(TextMember(checked.Config(), "period"));
    if (!misread.empty())
        WarnOfMember(checked, "period", misread, ExpectedFor("period"));
}

} // namespace

std::string MisreadPeriod(const std::string &written) {
    // Accepted spellings; the first of each row is the recommended one.
    constexpr std::array<std::array<const char *, 3>, 5> spellings{{{"hourly", "hour", "h"},
                                                                    {"daily", "day", "d"},
                                                                    {"weekly", "week", "w"},
                                                                    {"monthly", "month", "m"},
                                                                    {"crontab", "cron", "c"}}};
    std::string period = written;
    std::transform(period.begin(), period.end(), period.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const std::optional<std::string> expression = PeriodCrontab(period, "own");
    for (const auto &row : spellings)
        if (expression && PeriodCrontab(row.front(), "own") == expression &&
            std::find(row.begin(), row.end(), period) == row.end())
            return Quoted(written) + " is read as \"" + row.front() +
                   "\": only its first letter counts";
    return {};
}

void CheckMembers(CheckedDefinition &checked, const JobDirectory &directory, bool alone) {
    if (!checked.Written().isObject())
        return;
    CheckUnknownMembers(checked);
    CheckIgnoredMembers(checked, directory, alone);
    CheckPeriod(checked);
}

// --- Settings -----------------------------------------------------------------------------------

void CheckSettings(CheckedDefinition &checked, const CronJob &job) {
    const Json::Value &hours = Member(checked.Written(), "assure_execute");
    const Json::Value &action = Member(checked.Written(), "assure_execute_action");
    if (RunsByCrontab(checked.Config()).value_or(false))
        CheckCrontab(checked, job.cronFields());
    if (!hours.isNull() && !hours.isInt())
        WarnOfMember(checked, "assure_execute",
                     Excerpt(hours) + " is read as " + std::to_string(job.assureExecute),
                     Expected("a whole number of hours"));
    if (job.assureExecute < 0)
        WarnOfMember(checked, "assure_execute", "is negative: the job is overdue in every cycle",
                     Expected("a number of hours, or 0 for no assurance"));
    if (action.isNull())
        return;
    if (job.assureExecute == 0)
        WarnOfMember(checked, "assure_execute_action",
                     "is ignored without hours in \"assure_execute\"");
    else if (action != "run" && action != "wait")
        WarnOfMember(checked, "assure_execute_action", Excerpt(action) + " is read as \"wait\"",
                     ExpectedFor("assure_execute_action"));
}

} // namespace kest::ctl
