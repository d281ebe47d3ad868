#include "job/definition.h"

#include "job/json_members.h"

namespace {

bool HasText(const Json::Value &config, const char *name) {
    return Member(config, name).isString();
}

// A null member and an absent one differ: "package_username" need only be there.
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

void WriteWhenAbsent(Json::Value &object, Json::StaticString name, const Json::Value &value) {
    if (!HasMember(object, name.c_str()))
        object[name] = value;
}

} // namespace

const std::array<DefinitionRule, 7> &DefinitionRules() {
    return kRules;
}

const char *FirstBrokenRule(const Json::Value &document) {
    const Json::Value &config = Member(document, "config");
    for (const DefinitionRule &rule : kRules)
        if (rule.broken(config))
            return rule.text;
    return nullptr;
}

void WriteDefaults(Json::Value &document, std::int64_t now) {
    // Static names, because a document only points to them: in many jobs that adds up. Signed
    // numbers, because that is what they are when they are read back from a file: an unsigned 0
    // would not equal it, and every restart would take the definition for a changed one.
    WriteWhenAbsent(document, Json::StaticString("startup"), Json::Value(Json::Int64{now}));
    Json::Value &config = document["config"];
    WriteWhenAbsent(config, Json::StaticString("assure_execute"), 0);
    WriteWhenAbsent(config, Json::StaticString("assure_execute_action"), "wait");
    WriteWhenAbsent(config, Json::StaticString("run_on_passive"), false);
}

const char *FirstUnusableSetting(const Json::Value &config) {
    if (!Member(config, "assure_execute").isConvertibleTo(Json::intValue))
        return "assure_execute";
    return Member(config, "run_on_passive").isConvertibleTo(Json::booleanValue) ? nullptr
                                                                                : "run_on_passive";
}
