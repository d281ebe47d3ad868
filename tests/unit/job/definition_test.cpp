#include "job/definition.h"

#include "base/json_members.h"
#include "base/json_text.h"
#include "platform/json_file.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/json_text.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace kest {

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Kind = DefinitionFault::Kind;
using Texts = std::vector<std::string>;

// --- Rules --------------------------------------------------------------------------------------

const std::string kNoConfig = R"(!_jsJob.isMember("config") || !jsConf.isObject())";
const std::string kNoPeriod = R"(!jsConf.isMember("period") || !jsConf["period"].isString() || )"
                              R"(jsConf["period"].asString().empty())";
const std::string kNoUser = R"(!jsConf.isMember("user") || !jsConf["user"].isString())";
const std::string kNoName = R"(!jsConf.isMember("name") || !jsConf["name"].isString())";
const std::string kNoCommand = R"((!jsConf.isMember("cmd") || !jsConf["cmd"].isString()) && )"
                               R"((!jsConf.isMember("cmd_list") || !jsConf["cmd_list"].isArray()))";
const std::string kNoAccount =
    R"("package" == jsConf["user"].asString() && !jsConf.isMember("package_username"))";
const std::string kNoCrontab = R"(!jsConf.isMember("crontab") || !jsConf["crontab"].isString())";

// The first rule that the "config" of a document violates, or an empty text.
std::string BrokenRule(const Json::Value &document) {
    const ParsedDefinition parsed = ParseDefinition(Member(document, "config"), 1);
    EXPECT_LE(parsed.faults.size(), 1U);
    if (parsed.faults.empty() || parsed.faults.front().kind != DefinitionFault::Kind::Rule)
        return "";
    return parsed.faults.front().rule;
}

std::string BrokenRuleOfConfig(const std::string &members) {
    return BrokenRule(FromText(R"({"config": {)" + members + "}}"));
}

TEST(ParseDefinition, AcceptsValidDefinitions) {
    const char *rows[] = {
        R"("period": "daily", "user": "root", "name": "a", "cmd": "b")",
        R"("period": "daily", "user": "root", "name": "a", "cmd_list": ["b"])",
        R"("period": "daily", "user": "root", "name": "a", "cmd_list": [])",
        R"("period": "daily", "user": "root", "name": "a", "cmd": "b", "cmd_list": 5)",
        R"("period": "daily", "user": "root", "name": "a", "cmd": 5, "cmd_list": [])",
        R"("period": "daily", "user": "root", "name": "", "cmd": "")",
        R"("period": "daily", "user": "", "name": "a", "cmd": "b")",
        R"("period": "yearly", "user": "nobody", "name": "a", "cmd": "b")",
        R"("period": "daily", "user": "package", "package_username": "p", "name": "a", "cmd": "b")",
        R"("period": "daily", "user": "package", "package_username": 5, "name": "a", "cmd": "b")",
        R"("period": "daily", "user": "package", "package_username": null, "name": "a", "cmd": "b")",
        R"("period": "daily", "user": "packager", "name": "a", "cmd": "b")",
        R"("period": "daily", "user": "Package", "name": "a", "cmd": "b")",
        R"("period": "crontab", "crontab": "", "user": "root", "name": "a", "cmd": "b")",
        R"("period": "Crontab", "user": "root", "name": "a", "cmd": "b")",
        R"("period": "c", "user": "root", "name": "a", "cmd": "b")",
    };
    for (const char *row : rows)
        EXPECT_EQ(BrokenRuleOfConfig(row), "") << row;
}

TEST(ParseDefinition, ReportsAMissingConfig) {
    for (const char *row : {"{}", "null", "[]", "5", R"("config")", R"({"config": null})",
                            R"({"config": []})", R"({"config": "x"})", R"({"Config": {}})"})
        EXPECT_EQ(BrokenRule(FromText(row)), kNoConfig) << row;
}

TEST(ParseDefinition, ReportsTheRuleThatIsViolated) {
    struct Row {
        const char *config;
        const std::string &rule;
    };
    const Row rows[] = {
        {R"("user": "root", "name": "a", "cmd": "b")", kNoPeriod},
        {R"("period": "", "user": "root", "name": "a", "cmd": "b")", kNoPeriod},
        {R"("period": 5, "user": "root", "name": "a", "cmd": "b")", kNoPeriod},
        {R"("period": null, "user": "root", "name": "a", "cmd": "b")", kNoPeriod},
        {R"("period": ["daily"], "user": "root", "name": "a", "cmd": "b")", kNoPeriod},
        {R"("period": "daily", "name": "a", "cmd": "b")", kNoUser},
        {R"("period": "daily", "user": 0, "name": "a", "cmd": "b")", kNoUser},
        {R"("period": "daily", "user": null, "name": "a", "cmd": "b")", kNoUser},
        {R"("period": "daily", "user": "root", "cmd": "b")", kNoName},
        {R"("period": "daily", "user": "root", "name": 7, "cmd": "b")", kNoName},
        {R"("period": "daily", "user": "root", "name": {}, "cmd": "b")", kNoName},
        {R"("period": "daily", "user": "root", "name": "a")", kNoCommand},
        {R"("period": "daily", "user": "root", "name": "a", "cmd": 5)", kNoCommand},
        {R"("period": "daily", "user": "root", "name": "a", "cmd": ["b"])", kNoCommand},
        {R"("period": "daily", "user": "root", "name": "a", "cmd_list": "b")", kNoCommand},
        {R"("period": "daily", "user": "root", "name": "a", "cmd_list": {})", kNoCommand},
        {R"("period": "daily", "user": "root", "name": "a", "cmd": null, "cmd_list": null)",
         kNoCommand},
        {R"("period": "daily", "user": "package", "name": "a", "cmd": "b")", kNoAccount},
        {R"("period": "crontab", "user": "root", "name": "a", "cmd": "b")", kNoCrontab},
        {R"("period": "crontabs", "user": "root", "name": "a", "cmd": "b")", kNoCrontab},
        {R"("period": "my crontab", "user": "root", "name": "a", "cmd": "b")", kNoCrontab},
        {R"("period": "crontab", "crontab": 5, "user": "root", "name": "a", "cmd": "b")",
         kNoCrontab},
        {R"("period": "crontab", "crontab": null, "user": "root", "name": "a", "cmd": "b")",
         kNoCrontab},
    };
    for (const Row &row : rows)
        EXPECT_EQ(BrokenRuleOfConfig(row.config), row.rule) << row.config;
}

// Each line violates one rule. Of two lines together the rule of the upper one is reported first.
TEST(ParseDefinition, ReturnsViolatedRulesInOrder) {
    struct Break {
        const char *member;
        Json::Value value; // null: the member is removed
        const std::string &rule;
    };
    const Break breaks[] = {
        {"period", {}, kNoPeriod}, {"user", {}, kNoUser},           {"name", {}, kNoName},
        {"cmd", {}, kNoCommand},   {"user", "package", kNoAccount}, {"crontab", {}, kNoCrontab},
    };
    const Json::Value good = FromText(R"({"config": {"period": "crontab", "crontab": "* * * * *",
                                          "user": "root", "name": "a", "cmd": "b"}})");
    const auto breakRule = [](Json::Value &document, const Break &rule) {
        if (rule.value.isNull())
            document["config"].removeMember(rule.member);
        else if (document["config"].isMember(rule.member))
            document["config"][rule.member] = rule.value;
    };
    for (const Break &first : breaks) {
        for (const Break *second = &first + 1; second != std::end(breaks); ++second) {
            SCOPED_TRACE(first.rule + " and " + second->rule);
            Json::Value document = good;
            breakRule(document, first);
            breakRule(document, *second);
            EXPECT_EQ(BrokenRule(document), first.rule);
        }
    }
}

// --- Faults -------------------------------------------------------------------------------------

const char *NameOf(Kind kind) {
    switch (kind) {
    case Kind::Rule:
        return "rule";
    case Kind::Period:
        return "period";
    case Kind::FieldCount:
        return "field count";
    case Kind::Item:
        return "item";
    case Kind::Setting:
        return "setting";
    case Kind::List:
        return "list";
    case Kind::Argument:
        return "argument";
    case Kind::NoCommand:
        return "no command";
    }
    return "";
}

const char *NameOf(CronItemFault fault) {
    switch (fault) {
    case CronItemFault::None:
        return "none";
    case CronItemFault::NotANumber:
        return "not a number";
    case CronItemFault::Reversed:
        return "reversed";
    case CronItemFault::OutOfRange:
        return "out of range";
    case CronItemFault::NotTwoEnds:
        return "not two ends";
    }
    return "";
}

// "KIND MEMBER" and the details of the kind: "FIELD:OFFSET [TEXT] FAULT [OFFENDER]" of an item,
// the number of fields and the expression of a field count, the number of an argument.
std::string InText(const DefinitionFault &fault) {
    std::string text = std::string(NameOf(fault.kind)) + " " + fault.member;
    if (fault.kind == Kind::Item)
        text += " " + std::to_string(fault.number) + ":" + std::to_string(fault.offset) + " [" +
                fault.text + "] " + NameOf(fault.item.fault) +
                (fault.item.offender.empty() ? "" : " [" + fault.item.offender + "]");
    else
        EXPECT_EQ(fault.item.fault, CronItemFault::None);
    if (fault.kind == Kind::FieldCount)
        text += " " + std::to_string(fault.number) + " [" + fault.text + "]";
    if (fault.kind == Kind::Argument)
        text += " " + std::to_string(fault.number);
    EXPECT_EQ(*fault.rule == '\0', fault.kind != Kind::Rule && fault.kind != Kind::NoCommand);
    return text;
}

Texts FaultsOf(const Json::Value &config,
               std::size_t mostFaults = std::numeric_limits<std::size_t>::max()) {
    Texts texts;
    for (const DefinitionFault &fault : ParseDefinition(config, mostFaults).faults)
        texts.push_back(InText(fault));
    return texts;
}

// A definition with these members and the others that are required.
Json::Value ConfigWith(const std::string &members) {
    Json::Value config = FromText("{" + members + "}");
    for (const char *member : {"name", "user", "cmd"})
        if (!config.isMember(member))
            config[member] = "root";
    if (!config.isMember("period"))
        config["period"] = config.isMember("crontab") ? "crontab" : "daily";
    return config;
}

TEST(ParseDefinition, ReportsEachFault) {
    struct Row {
        const char *members;
        Texts faults;
    };
    const Row rows[] = {
        {"", {}},
        {R"("period": "yearly")", {"period period"}},
        {R"("period": " daily")", {"period period"}},
        {R"("period": "")", {"rule period"}},
        // The period decides whether there is an expression.
        {R"("period": "daily", "crontab": "x")", {}},
        {R"("period": "yearly", "crontab": "x")", {"period period"}},
        {R"("period": "c")", {"field count crontab 1 []"}},
        {R"("period": "c", "crontab": 5)", {"field count crontab 1 []"}},
        {R"("period": "crontab")", {"rule crontab"}},
        {R"("crontab": "* * * *")", {"field count crontab 4 [* * * *]"}},
        {R"("crontab": "* * * * *  ")", {"field count crontab 7 [* * * * *  ]"}},
        {R"("crontab": "x * * * *")", {"item crontab 0:0 [x] not a number [x]"}},
        {R"("crontab": "1~x * * * *")", {"item crontab 0:0 [1~x] not a number [x]"}},
        {R"("crontab": "5, * * * *")", {"item crontab 0:2 [] not a number"}},
        {R"("crontab": "* 9~3 * * *")", {"item crontab 1:2 [9~3] reversed"}},
        {R"("crontab": "* * 1,2,32 * *")", {"item crontab 2:8 [32] out of range"}},
        {R"("crontab": "* * * 1~2~3 *")", {"item crontab 3:6 [1~2~3] not two ends"}},
        {R"("crontab": "60,1,x 24 * * 7,6,5~4")",
         {"item crontab 0:0 [60] out of range", "item crontab 0:5 [x] not a number [x]",
          "item crontab 1:7 [24] out of range", "item crontab 4:14 [7] out of range",
          "item crontab 4:18 [5~4] reversed"}},
        {R"("assure_execute": "5")", {"setting assure_execute"}},
        {R"("assure_execute": 99999999999)", {"setting assure_execute"}},
        {R"("run_on_passive": [])", {"setting run_on_passive"}},
        {R"("run_on_passive": "true", "assure_execute": {})",
         {"setting assure_execute", "setting run_on_passive"}},
        {R"("assure_execute": null, "run_on_passive": null, "assure_execute_action": [])", {}},
        {R"("cmd": 5)", {"rule cmd"}},
        {R"("cmd_list": [])", {"no command cmd_list"}},
        {R"("cmd_list": null)", {"no command cmd_list"}},
        {R"("cmd_list": {})", {"no command cmd_list"}},
        {R"("cmd_list": {"a": 1})", {"list cmd_list"}},
        {R"("cmd_list": ["a", [], 5, {"b": 1}])", {"argument cmd_list 1", "argument cmd_list 3"}},
        {R"("user": "package")", {"rule package_username"}},
        {R"("name": 5, "crontab": "*", "run_on_passive": "x", "cmd_list": [])",
         {"rule name", "field count crontab 1 [*]", "setting run_on_passive",
          "no command cmd_list"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.members);
        EXPECT_THAT(FaultsOf(ConfigWith(row.members)), ElementsAreArray(row.faults));
    }
    EXPECT_THAT(FaultsOf(FromText("{}")),
                ElementsAre("rule period", "rule user", "rule name", "rule cmd"));
    EXPECT_THAT(FaultsOf(FromText(R"({"period": "crontab", "user": "package"})")),
                ElementsAre("rule name", "rule cmd", "rule package_username", "rule crontab"));
    for (const char *config : {"null", "5", "[]", R"("x")", "[{}]"})
        EXPECT_THAT(FaultsOf(FromText(config)), ElementsAre("rule ")) << config;
}

TEST(ParseDefinition, ReportsTheRuleOfAnEmptyCommand) {
    const ParsedDefinition parsed = ParseDefinition(ConfigWith(R"("cmd_list": [])"));
    ASSERT_EQ(parsed.faults.size(), 1U);
    EXPECT_STREQ(parsed.faults.front().rule, R"(0 == _jsJob["cmd_list"].size())");
}

TEST(ParseDefinition, ReturnsTheParsedPartOfAnItem) {
    const ParsedDefinition parsed = ParseDefinition(ConfigWith(R"("crontab": "* 9~3 * * *")"));
    ASSERT_EQ(parsed.faults.size(), 1U);
    EXPECT_EQ(parsed.faults.front().item.range.type, CronRange::Random);
    EXPECT_EQ(parsed.faults.front().item.range.from, 9);
    EXPECT_EQ(parsed.faults.front().item.range.to, 3);
}

// The author must not determine the length of the list.
TEST(ParseDefinition, StopsAtTheLimitOfFaults) {
    const Json::Value config =
        ConfigWith(R"("name": 5, "user": 5, "crontab": "x,y * * * 7", "assure_execute": "x",
                      "run_on_passive": "x", "cmd_list": [[], [], []])");
    const Texts all = FaultsOf(config);
    EXPECT_THAT(all, ElementsAre("rule user", "rule name", "item crontab 0:0 [x] not a number [x]",
                                 "item crontab 0:2 [y] not a number [y]",
                                 "item crontab 4:10 [7] out of range", "setting assure_execute",
                                 "setting run_on_passive", "argument cmd_list 0",
                                 "argument cmd_list 1", "argument cmd_list 2"));
    for (std::size_t most = 1; most <= all.size() + 1; ++most) {
        Texts first = all;
        first.resize(std::min(most, all.size()));
        EXPECT_EQ(FaultsOf(config, most), first);
    }
}

// --- Parsed members -----------------------------------------------------------------------------

// "FROM~TO" for a random item, "*" for every value, a number for an exact one.
std::string InText(const std::vector<CronRange> &items) {
    std::string text;
    for (const CronRange &item : items)
        text += (text.empty() ? "" : ",") +
                (item.type == CronRange::Any ? "*"
                 : item.type == CronRange::Exact
                     ? std::to_string(item.from)
                     : std::to_string(item.from) + "~" + std::to_string(item.to));
    return text;
}

TEST(ParseDefinition, ReturnsTheItemsOfEachField) {
    struct Row {
        const char *members;
        Texts fields;
    };
    const Row rows[] = {
        {R"("period": "h")", {"0~59", "*", "*", "*", "*"}},
        {R"("period": "Daily")", {"0~59", "0~23", "*", "*", "*"}},
        {R"("period": "w")", {"0~59", "0~23", "*", "*", "0~6"}},
        {R"("period": "month")", {"0~59", "0~23", "1~28", "*", "*"}},
        {R"("crontab": "0,30,~,* 8~17 31 2,1~12 0")", {"0,30,0~59,*", "8~17", "31", "2,1~12", "0"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.members);
        const ParsedDefinition parsed = ParseDefinition(ConfigWith(row.members));
        EXPECT_THAT(parsed.faults, IsEmpty());
        Texts fields;
        for (const std::vector<CronRange> &items : parsed.definition.items)
            fields.push_back(InText(items));
        EXPECT_EQ(fields, row.fields);
    }
}

TEST(ParseDefinition, ReturnsNoInvalidItem) {
    const ParsedDefinition parsed = ParseDefinition(ConfigWith(R"("crontab": "1,x,2 * 32 * *")"));
    EXPECT_EQ(InText(parsed.definition.items[0]), "1,2");
    EXPECT_EQ(InText(parsed.definition.items[2]), "");
}

TEST(ParseDefinition, ReturnsNameAccountCommandAndSettings) {
    const Definition whole =
        ParseDefinition(ConfigWith(R"("name": "n", "user": "package", "package_username": "alice",
                                      "cmd_list": ["/p", "a b", 5], "assure_execute": 48,
                                      "assure_execute_action": "run", "run_on_passive": true)"))
            .definition;
    EXPECT_EQ(whole.name, "n");
    EXPECT_EQ(whole.account, "alice");
    EXPECT_EQ(whole.command.list, FromText(R"(["/p", "a b", 5])"));
    EXPECT_EQ(whole.command.text, "/p a b 5 ");
    EXPECT_EQ(whole.assureExecute, 48);
    EXPECT_TRUE(whole.assureRun);
    EXPECT_TRUE(whole.runOnPassive);
    const Definition least =
        ParseDefinition(ConfigWith(R"("user": "x", "assure_execute_action": "Run")")).definition;
    EXPECT_EQ(least.account, std::nullopt);
    EXPECT_EQ(least.assureExecute, 0);
    EXPECT_FALSE(least.assureRun);
    EXPECT_FALSE(least.runOnPassive);
}

// --- Defaults -----------------------------------------------------------------------------------

TEST(WriteDefaults, AddsMissingMembers) {
    Json::Value document = FromText(R"({"config": {"name": "a"}})");
    WriteDefaults(document, 1700000000);
    EXPECT_EQ(document, FromText(R"({"config": {"name": "a", "assure_execute": 0,
        "assure_execute_action": "wait", "run_on_passive": false}, "startup": 1700000000})"));
}

TEST(WriteDefaults, KeepsMembersOfAnyType) {
    const char *rows[] = {
        R"({"config": {"assure_execute": 5, "assure_execute_action": "run",
            "run_on_passive": true}, "startup": 17})",
        R"({"config": {"assure_execute": null, "assure_execute_action": null,
            "run_on_passive": null}, "startup": null})",
        R"({"config": {"assure_execute": "x", "assure_execute_action": 5,
            "run_on_passive": []}, "startup": "x"})",
    };
    for (const char *row : rows) {
        Json::Value document = FromText(row);
        WriteDefaults(document, 1700000000);
        EXPECT_EQ(document, FromText(row));
    }
}

TEST(WriteDefaults, HandlesTimesOfAnyYear) {
    Json::Value document = FromText(R"({"config": {"name": "a"}})");
    WriteDefaults(document, 4102444800);
    EXPECT_EQ(document["startup"].asInt64(), 4102444800);
}

// A definition whose types change when it is saved and read would count as modified.
TEST(WriteDefaults, RoundTripsDocuments) {
    Json::Value document = FromText(R"({"config": {"name": "a"}})");
    WriteDefaults(document, 1700000000);
    const TemporaryDirectory directory;
    const std::string path = directory.File("document");
    WriteText(path, JsonToString(document));
    Json::Value readBack;
    ASSERT_TRUE(JsonFromFile(path, readBack, kOwnFileLimits));
    EXPECT_EQ(readBack, document);
    EXPECT_EQ(readBack["config"]["assure_execute"].type(), Json::intValue);
    EXPECT_EQ(document["config"]["assure_execute"].type(), Json::intValue);
    EXPECT_EQ(readBack["startup"].type(), Json::intValue);
    EXPECT_EQ(document["startup"].type(), Json::intValue);
}

} // namespace

namespace {

TEST(NormalizeCommand, ReturnsAListAndALine) {
    struct Row {
        const char *config;
        const char *list;
        const char *text;
    };
    const Row rows[] = {
        {R"({"cmd": "/bin/a"})", R"(["/bin/a"])", "/bin/a"},
        {R"({"cmd": "/bin/a b c"})", R"(["/bin/a", "b", "c"])", "/bin/a b c"},
        {R"({"cmd": "/bin/a  b   c"})", R"(["/bin/a", "b", "c"])", "/bin/a  b   c"},
        {R"({"cmd": "/bin/a\tb"})", R"(["/bin/a\tb"])", "/bin/a\tb"},
        {R"({"cmd": "/bin/a \"b c\""})", R"(["/bin/a", "\"b", "c\""])", "/bin/a \"b c\""},
        {R"({"cmd": " /bin/a "})", R"(["", "/bin/a", ""])", " /bin/a "},
        {R"({"cmd": ""})", R"([""])", ""},
        {R"({"cmd_list": ["/bin/a", "b"]})", R"(["/bin/a", "b"])", "/bin/a b "},
        {R"({"cmd_list": ["/bin/a"]})", R"(["/bin/a"])", "/bin/a "},
        {R"({"cmd_list": ["/bin/a", "b c", ""]})", R"(["/bin/a", "b c", ""])", "/bin/a b c  "},
        {R"({"cmd_list": []})", "[]", ""},
        {R"({"cmd": "x", "cmd_list": ["/bin/a"]})", R"(["/bin/a"])", "/bin/a "},
        {R"({"cmd": "x", "cmd_list": []})", "[]", ""},
        {R"({"cmd_list": ["/bin/a", 5, true, null]})", R"(["/bin/a", 5, true, null])",
         "/bin/a 5 true  "},
        {R"({"cmd": 5})", R"([""])", ""},
        {R"({})", R"([""])", ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const std::optional<Command> command = NormalizeCommand(FromText(row.config));
        ASSERT_TRUE(command);
        EXPECT_EQ(command->list, FromText(row.list));
        EXPECT_EQ(command->text, row.text);
    }
}

TEST(NormalizeCommand, FailsForElementsThatAreNotText) {
    for (const char *row :
         {R"({"cmd_list": ["/bin/a", {"x": 1}]})", R"({"cmd_list": [["/bin/a"]]})",
          R"({"cmd": "x", "cmd_list": {"a": "b"}})"})
        EXPECT_FALSE(NormalizeCommand(FromText(row))) << row;
}

} // namespace

namespace {

TEST(PeriodCrontab, DependsOnTheFirstLetterInEitherCase) {
    struct Row {
        const char *period;
        const char *crontab;
    };
    const Row rows[] = {
        {"hourly", "~ * * * *"},   {"Hourly", "~ * * * *"},  {"h", "~ * * * *"},
        {"H", "~ * * * *"},        {"hx", "~ * * * *"},      {"h crontab", "~ * * * *"},
        {"daily", "~ ~ * * *"},    {"D", "~ ~ * * *"},       {"dx", "~ ~ * * *"},
        {"weekly", "~ ~ * * ~"},   {"W", "~ ~ * * ~"},       {"whenever", "~ ~ * * ~"},
        {"monthly", "~ ~ ~ * *"},  {"M", "~ ~ ~ * *"},       {"minutely", "~ ~ ~ * *"},
        {"crontab", "1 2 3 4 5"},  {"Crontab", "1 2 3 4 5"}, {"c", "1 2 3 4 5"},
        {"crontabs", "1 2 3 4 5"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(PeriodCrontab(row.period, "1 2 3 4 5"), std::string(row.crontab)) << row.period;
}

TEST(PeriodCrontab, ReturnsTheOwnCrontabUnchanged) {
    EXPECT_EQ(PeriodCrontab("c", ""), std::string());
    EXPECT_EQ(PeriodCrontab("c", " no crontab "), std::string(" no crontab "));
}

TEST(PeriodCrontab, RejectsAnyOtherPeriod) {
    for (const char *period :
         {"", "yearly", "Yearly", " hourly", "@daily", "1", "\xc8", "~ * * * *"})
        EXPECT_EQ(PeriodCrontab(period, "1 2 3 4 5"), std::nullopt) << period;
}

} // namespace

} // namespace kest
