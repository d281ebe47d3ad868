#include "job/definition.h"

#include "platform/json_file.h"
#include "platform/json_text.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace {

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

std::string BrokenRule(const std::string &document) {
    const char *rule = FirstBrokenRule(FromText(document));
    return rule == nullptr ? "" : rule;
}

std::string BrokenRuleOfConfig(const std::string &members) {
    return BrokenRule(R"({"config": {)" + members + "}}");
}

TEST(FirstBrokenRule, IsNoneForAGoodDefinition) {
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

TEST(FirstBrokenRule, NamesTheConfigThatIsMissing) {
    for (const char *row : {"{}", "null", "[]", "5", R"("config")", R"({"config": null})",
                            R"({"config": []})", R"({"config": "x"})", R"({"Config": {}})"})
        EXPECT_EQ(BrokenRule(row), kNoConfig) << row;
}

TEST(FirstBrokenRule, NamesTheOneRuleThatIsBroken) {
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

// Each line breaks one rule; of two lines together the upper one is told.
TEST(FirstBrokenRule, IsTheFirstOfSeveral) {
    struct Break {
        const char *member;
        Json::Value value; // null: the member is taken out
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
            const char *rule = FirstBrokenRule(document);
            ASSERT_NE(rule, nullptr);
            EXPECT_EQ(rule, first.rule);
        }
    }
}

TEST(WriteDefaults, FillsInWhatIsAbsent) {
    Json::Value document = FromText(R"({"config": {"name": "a"}})");
    WriteDefaults(document, 1700000000);
    EXPECT_EQ(document, FromText(R"({"config": {"name": "a", "assure_execute": 0,
        "assure_execute_action": "wait", "run_on_passive": false}, "startup": 1700000000})"));
}

TEST(WriteDefaults, LeavesWhatIsThereWhateverItsType) {
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

TEST(WriteDefaults, KnowsTimesOfAnyYear) {
    Json::Value document = FromText(R"({"config": {"name": "a"}})");
    WriteDefaults(document, 4102444800);
    EXPECT_EQ(document["startup"].asInt64(), 4102444800);
}

// A definition that changes its types on the way through a file would count as a changed one.
TEST(WriteDefaults, WritesWhatIsReadBackAsTheSame) {
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
