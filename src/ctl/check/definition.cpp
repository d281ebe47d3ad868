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
    const char *allowed;
};

constexpr std::array<KnownMember, 10> kMembers{{
    {"name", "a text"},
    {"user", R"("root", "system" or "package")"},
    {"package_username", "the name of the account"},
    {"period", R"("hourly", "daily", "weekly", "monthly" or "crontab")"},
    {"crontab", "five fields separated by one blank each: minute, hour, day, month, weekday"},
    {"cmd", "a command, or \"cmd_list\" with its arguments"},
    {"cmd_list", "at least one text: the program, then its arguments"},
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

std::string AllowedFor(const std::string &name) {
    const KnownMember *known = FindKnown(name);
    return known == nullptr ? "" : known->allowed;
}

std::string Named(const std::string &member) {
    return "\"" + member + "\"";
}

// Whether the schedule comes from "crontab"; nothing when "period" is none.
std::optional<bool> RunsByCrontab(const Json::Value &config) {
    const std::optional<std::string> expression = PeriodCrontab(TextMember(config, "period"), "");
    return expression ? std::optional<bool>(expression->empty()) : std::nullopt;
}

// --- Errors -------------------------------------------------------------------------------------

void AddUnusable(CheckedDefinition &checked, const std::string &member) {
    const Json::Value &value = Member(checked.Config(), member);
    const bool there = checked.Config().isMember(member);
    checked.Add(Severity::Error,
                {member, Named(member) + (there ? " cannot be " + Excerpt(value) : " is missing"),
                 AllowedFor(member)});
}

void AddArgument(CheckedDefinition &checked, std::size_t index) {
    const Json::Value &list = Member(checked.Written(), "cmd_list");
    const Json::Value &element = list[static_cast<Json::ArrayIndex>(index)];
    checked.Add(Severity::Error, {"cmd_list", "an argument cannot be " + Excerpt(element), "a text",
                                  checked.Places().Of(element), Excerpt(element)});
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
                    {"", "a definition cannot be " + Excerpt(checked.Config()), "an object"});
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

// --- Misreadings --------------------------------------------------------------------------------

namespace {

void WarnByName(CheckedDefinition &checked, const std::string &member, const std::string &text,
                const std::string &allowed = {}) {
    checked.Add(Severity::Warning, {member, Named(member) + " " + text, allowed});
}

void FindUnknownMembers(CheckedDefinition &checked) {
    std::vector<std::string> known;
    known.reserve(kMembers.size());
    for (const KnownMember &member : kMembers)
        known.emplace_back(member.name);
    const Json::Value &written = checked.Written();
    for (const std::string &name : written.getMemberNames()) {
        if (FindKnown(name) != nullptr)
            continue;
        const std::vector<std::string> near = NearestOf(name, known, 1);
        checked.Add(Severity::Warning,
                    {name, "nobody reads " + Quoted(name), near.empty() ? "" : Named(near.front()),
                     checked.Places().OfName(Member(written, name))});
    }
}

// Members that others go before.
void FindUnreadMembers(CheckedDefinition &checked, const JobDirectory &directory, bool alone) {
    const Json::Value &written = checked.Written();
    const Json::Value &config = checked.Config();
    if (alone && written.isMember("name") && TextMember(written, "name") != "default")
        WarnByName(checked, "name",
                   "is not read: the only job of a file without an array is \"default\"",
                   "an array with this definition, where the job may have a name");
    for (const char *member : {"user", "package_username"})
        if (!directory.account.empty() && written.isMember(member) &&
            Member(written, member) != Member(config, member))
            WarnByName(checked, member,
                       "is not read: every job of this directory runs as " +
                           Quoted(directory.account));
    if (written.isMember("cmd") && written.isMember("cmd_list"))
        WarnByName(checked, "cmd", "is not read: \"cmd_list\" goes before it", "one of the two");
    if (written.isMember("crontab") && !RunsByCrontab(config).value_or(true))
        WarnByName(checked, "crontab",
                   "is not read: \"period\" is " + Excerpt(Member(config, "period")),
                   R"("crontab" as "period")");
}

void FindPeriodWord(CheckedDefinition &checked) {
    // The words that mean what they say; the first of a row is the one to write.
    constexpr std::array<std::array<const char *, 3>, 5> words{{{"hourly", "hour", "h"},
                                                                {"daily", "day", "d"},
                                                                {"weekly", "week", "w"},
                                                                {"monthly", "month", "m"},
                                                                {"crontab", "cron", "c"}}};
    std::string period = TextMember(checked.Config(), "period");
    const std::string written = period;
    std::transform(period.begin(), period.end(), period.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const std::optional<std::string> expression = PeriodCrontab(period, "own");
    for (const auto &row : words)
        if (expression && PeriodCrontab(row.front(), "own") == expression &&
            std::find(row.begin(), row.end(), period) == row.end())
            WarnByName(checked, "period",
                       Quoted(written) + " is read as \"" + row.front() +
                           "\": only its first letter counts",
                       AllowedFor("period"));
}

} // namespace

void FindMisreadings(CheckedDefinition &checked, const JobDirectory &directory, bool alone) {
    if (!checked.Written().isObject())
        return;
    FindUnknownMembers(checked);
    FindUnreadMembers(checked, directory, alone);
    FindPeriodWord(checked);
}

// --- Settings -----------------------------------------------------------------------------------

void FindOddSettings(CheckedDefinition &checked, const CronJob &job) {
    const Json::Value &hours = Member(checked.Written(), "assure_execute");
    const Json::Value &action = Member(checked.Written(), "assure_execute_action");
    if (RunsByCrontab(checked.Config()).value_or(false))
        FindCrontabWarnings(checked, job.cronFields());
    if (!hours.isNull() && !hours.isInt())
        WarnByName(checked, "assure_execute",
                   Excerpt(hours) + " is read as " + std::to_string(job.assureExecute),
                   "a whole number of hours");
    if (job.assureExecute < 0)
        WarnByName(checked, "assure_execute", "is negative: the job is overdue in every cycle",
                   "hours, or 0 for never");
    if (action.isNull())
        return;
    if (job.assureExecute == 0)
        WarnByName(checked, "assure_execute_action",
                   "is not read without hours in \"assure_execute\"");
    else if (action != "run" && action != "wait")
        WarnByName(checked, "assure_execute_action", Excerpt(action) + " is read as \"wait\"",
                   AllowedFor("assure_execute_action"));
}

} // namespace kest::ctl
