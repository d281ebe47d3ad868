#include "job/definition.h"

#include "base/json_members.h"
#include "job/account.h"
#include "platform/kestutils.h"

#include <algorithm>
#include <boost/algorithm/string/split.hpp>
#include <cctype>
#include <string_view>
#include <utility>
#include <vector>

namespace kest {

namespace {

using Kind = DefinitionFault::Kind;

// Collects the faults of a definition, up to a maximum.
class Faults {
public:
    Faults(std::vector<DefinitionFault> &faults, std::size_t most) : faults_(faults), most_(most) {}

    bool AreEnough() const { return faults_.size() >= most_; }

    void Add(DefinitionFault fault) {
        if (!AreEnough())
            faults_.push_back(std::move(fault));
    }

    // Whether the rule about `member` is violated, so that further faults of it are not added.
    bool HaveRule(std::string_view member) const {
        return std::any_of(faults_.begin(), faults_.end(), [&](const DefinitionFault &fault) {
            return fault.kind == Kind::Rule && fault.member == member;
        });
    }

private:
    std::vector<DefinitionFault> &faults_;
    std::size_t most_;
};

// --- Rules --------------------------------------------------------------------------------------

// A rule that a definition must satisfy.
struct DefinitionRule {
    bool (*broken)(const Json::Value &config);
    const char *member; // the one that it is about; empty: the definition as a whole
    const char *text;
};

bool HasText(const Json::Value &config, const char *name) {
    return Member(config, name).isString();
}

// A null member differs from an absent one: "package_username" only has to exist.
constexpr std::array<DefinitionRule, 7> kRules{{
    {[](const Json::Value &config) { return !config.isObject(); }, "",
     R"(!_jsJob.isMember("config") || !jsConf.isObject())"},
    {[](const Json::Value &config) { return TextMember(config, "period").empty(); }, "period",
     R"(!jsConf.isMember("period") || !jsConf["period"].isString() || )"
     R"(jsConf["period"].asString().empty())"},
    {[](const Json::Value &config) { return !HasText(config, "user"); }, "user",
     R"(!jsConf.isMember("user") || !jsConf["user"].isString())"},
    {[](const Json::Value &config) { return !HasText(config, "name"); }, "name",
     R"(!jsConf.isMember("name") || !jsConf["name"].isString())"},
    {[](const Json::Value &config) {
         return !HasText(config, "cmd") &&
                !(HasMember(config, "cmd_list") && Member(config, "cmd_list").isArray());
     },
     "cmd",
     R"((!jsConf.isMember("cmd") || !jsConf["cmd"].isString()) && )"
     R"((!jsConf.isMember("cmd_list") || !jsConf["cmd_list"].isArray()))"},
    {[](const Json::Value &config) {
         return TextMember(config, "user") == "package" && !HasMember(config, "package_username");
     },
     "package_username",
     R"("package" == jsConf["user"].asString() && !jsConf.isMember("package_username"))"},
    {[](const Json::Value &config) {
         return TextMember(config, "period").find("crontab") != std::string::npos &&
                !HasText(config, "crontab");
     },
     "crontab", R"(!jsConf.isMember("crontab") || !jsConf["crontab"].isString())"},
}};

void CheckRules(const Json::Value &config, Faults &faults) {
    for (const DefinitionRule &rule : kRules)
        if (rule.broken(config))
            faults.Add({Kind::Rule, rule.member, rule.text});
}

// --- Schedule -----------------------------------------------------------------------------------

// `offset` is that of the field in the expression.
void ParseField(std::size_t field, const std::string &text, std::size_t offset,
                std::vector<CronRange> &items, Faults &faults) {
    for (std::string &piece : KESTUtils::StringExplode(text, ",")) {
        if (faults.AreEnough())
            return;
        const std::size_t size = piece.size();
        CronItem item = ParseCronItem(FieldKeys().at(field), piece);
        if (item.fault == CronItemFault::None) {
            items.push_back(item.range);
        } else {
            faults.Add(
                {Kind::Item, "crontab", "", field, offset, std::move(piece), std::move(item)});
        }
        offset += size + 1;
    }
}

void ParseSchedule(const Json::Value &config, Definition &definition, Faults &faults) {
    const std::string period = TextMember(config, "period");
    const std::optional<std::string> expression =
        PeriodCrontab(period, TextMember(config, "crontab"));
    if (!expression) {
        if (!period.empty())
            faults.Add({Kind::Period, "period"});
        return;
    }
    if (faults.HaveRule("crontab"))
        return;
    const std::vector<std::string> fields = KESTUtils::StringExplode(*expression, " ");
    if (fields.size() != definition.items.size()) {
        faults.Add({Kind::FieldCount, "crontab", "", fields.size(), 0, *expression});
        return;
    }
    std::size_t offset = 0;
    for (std::size_t field = 0; field < fields.size(); ++field) {
        ParseField(field, fields[field], offset, definition.items.at(field), faults);
        offset += fields[field].size() + 1;
    }
}

// --- Settings and command -----------------------------------------------------------------------

// Whether the member exists and can be converted to `type`. Adds a fault when it cannot be
// converted.
bool HasSetting(const Json::Value &config, const char *member, Json::ValueType type,
                Faults &faults) {
    if (!HasMember(config, member))
        return false;
    if (Member(config, member).isConvertibleTo(type))
        return true;
    faults.Add({Kind::Setting, member});
    return false;
}

void ParseSettings(const Json::Value &config, Definition &definition, Faults &faults) {
    if (HasSetting(config, "assure_execute", Json::intValue, faults))
        definition.assureExecute = Member(config, "assure_execute").asInt();
    definition.assureRun = TextMember(config, "assure_execute_action") == "run";
    if (HasSetting(config, "run_on_passive", Json::booleanValue, faults))
        definition.runOnPassive = Member(config, "run_on_passive").asBool();
}

void FindUnusableArguments(const Json::Value &list, Faults &faults) {
    if (!list.isArray()) {
        faults.Add({Kind::List, "cmd_list"});
        return;
    }
    for (Json::ArrayIndex i = 0; i < list.size(); ++i)
        if (!list[i].isConvertibleTo(Json::stringValue))
            faults.Add({Kind::Argument, "cmd_list", "", i});
}

void ParseCommand(const Json::Value &config, Definition &definition, Faults &faults) {
    if (faults.HaveRule("cmd"))
        return;
    std::optional<Command> command = NormalizeCommand(config);
    if (!command)
        FindUnusableArguments(Member(config, "cmd_list"), faults);
    else if (command->list.empty())
        faults.Add({Kind::NoCommand, "cmd_list", R"(0 == _jsJob["cmd_list"].size())"});
    if (command)
        definition.command = std::move(*command);
}

void WriteWhenAbsent(Json::Value &object, Json::StaticString name, const Json::Value &value) {
    if (!HasMember(object, name.c_str()))
        object[name] = value;
}

std::optional<Command> FromList(const Json::Value &list) {
    if (!list.isArray()) {
        // It has no elements. An object that is not empty has no first one.
        if (list.isObject() && !list.empty())
            return std::nullopt;
        return Command{Json::Value(Json::arrayValue), {}};
    }
    Command command{list, {}};
    for (const Json::Value &element : list) {
        if (!element.isConvertibleTo(Json::stringValue))
            return std::nullopt;
        command.text += element.asString() + " ";
    }
    return command;
}

Command FromText(const std::string &text) {
    std::vector<std::string> pieces;
    boost::algorithm::split(
        pieces, text, [](char character) { return character == ' '; },
        boost::algorithm::token_compress_on);
    Command command{Json::Value(Json::arrayValue), text};
    for (const std::string &piece : pieces)
        command.list.append(piece);
    return command;
}

} // namespace

ParsedDefinition ParseDefinition(const Json::Value &config, std::size_t mostFaults) {
    ParsedDefinition parsed;
    Faults faults(parsed.faults, mostFaults);
    if (!config.isObject()) {
        faults.Add({Kind::Rule, kRules.front().member, kRules.front().text});
        return parsed;
    }
    CheckRules(config, faults);
    parsed.definition.name = TextMember(config, "name");
    if (faults.AreEnough())
        return parsed;
    parsed.definition.account = AccountOf(config);
    ParseSchedule(config, parsed.definition, faults);
    ParseSettings(config, parsed.definition, faults);
    ParseCommand(config, parsed.definition, faults);
    return parsed;
}

void WriteDefaults(Json::Value &document, std::int64_t now) {
    // Static names save memory: documents only point to them. Signed numbers equal the numbers that
    // are read back from a file: with an unsigned 0, every definition would count as changed after
    // a restart.
    WriteWhenAbsent(document, Json::StaticString("startup"), Json::Value(Json::Int64{now}));
    Json::Value &config = document["config"];
    WriteWhenAbsent(config, Json::StaticString("assure_execute"), 0);
    WriteWhenAbsent(config, Json::StaticString("assure_execute_action"), "wait");
    WriteWhenAbsent(config, Json::StaticString("run_on_passive"), false);
}

std::optional<Command> NormalizeCommand(const Json::Value &config) {
    if (HasMember(config, "cmd_list"))
        return FromList(Member(config, "cmd_list"));
    return FromText(TextMember(config, "cmd"));
}

std::optional<std::string> PeriodCrontab(const std::string &period, const std::string &ownCrontab) {
    switch (period.empty() ? '\0' : std::tolower(static_cast<unsigned char>(period.front()))) {
    case 'c':
        return ownCrontab;
    case 'h':
        return "~ * * * *";
    case 'd':
        return "~ ~ * * *";
    case 'w':
        return "~ ~ * * ~";
    case 'm':
        return "~ ~ ~ * *";
    default:
        return std::nullopt;
    }
}

} // namespace kest
