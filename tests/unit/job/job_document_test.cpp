#include "job/job_document.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>
#include <string>

namespace kest {

namespace {

Json::Value Ordinary() {
    return FromText(R"({
        "cmd_list": ["/tmp/kestcrond/builtin-f-x", "-a"],
        "cmd_str": "/usr/bin/x -a",
        "config": {"assure_execute": 0, "assure_execute_action": "wait", "cmd": "/usr/bin/x -a",
                   "crontab": "* * * * *", "name": "builtin-f-x", "period": "crontab",
                   "run_on_passive": false, "user": "root"},
        "startup": 1780366210})");
}

// A runtime document with this document as its only job. The member `changing` has the value
// "here".
std::string TextInRuntimeDocument(const JobDocument &document, std::string_view changing = "") {
    JsonText text;
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    text.Name("x");
    document.AppendTo(text, [&](ChangingMember member, JsonText &to) {
        if (kChangingMembers.at(static_cast<std::size_t>(member)) != changing)
            return;
        to.Name(changing);
        to.Append(Json::Value("here"));
    });
    text.EndObject();
    text.EndObject();
    return text.Take();
}

std::string Expected(const Json::Value &document) {
    Json::Value whole;
    whole["jobs"]["x"] = document;
    return JsonToString(whole);
}

TEST(JobDocument, RoundTrips) {
    for (
        const char *member : {
            R"({"x": null})",
            R"({"cmd": "/usr/bin/x", "user": "root"})",
            R"({"crontab": "1,2 ~ * * *", "name": "a", "package_username": "b", "period": "crontab", "user": "package"})",
            R"({"assure_execute": 0, "assure_execute_action": "run", "run_on_passive": true})",
            R"({"assure_execute": 24, "assure_execute_action": "wait"})",
            R"({"user": "root", "zzz": 1})",
            R"({"aaa": {"user": "root"}, "user": "root"})",
            R"({"list": [{"user": "root"}, [], {}, [1, "a", null, true]], "user": "root"})",
            R"({"x": ",\n\t\t\t\"schedule\" : null"})",
            R"({",\n\t\t\t\t\"cmd\" : \"": "\n\t\t\t}"})",
            R"({"x": "\"\\\b\f\n\r\t/"})",
            R"({"x": "\u0001\u0004\u001f\u007f", "\u0002": "\u0003"})",
            R"({"x": "\u00e4\u20ac\ud83d\ude00", "\u00e4": "\\u00e4"})",
            R"({"x": "a\u0000b", "a\u0000b": 1})",
            R"({"x": [-1, 0, 1.0, -0.5, 1e300, 4294967296, 18446744073709551615]})",
        }) {
        for (const char *place : {"config", "cmd_str", "aaa", "zzz"}) {
            Json::Value expected = Ordinary();
            expected[place] = FromText(member);
            const JobDocument document(expected);
            SCOPED_TRACE(place + std::string(member));
            EXPECT_EQ(document.ToJson(), expected);
            EXPECT_EQ(document.Config(), expected["config"]);
            EXPECT_EQ(JsonToString(document.ToJson()), JsonToString(expected));
            if (document.IsText()) {
                EXPECT_EQ(TextInRuntimeDocument(document), Expected(expected));
            }
        }
    }
}

TEST(JobDocument, PacksText) {
    const JobDocument document(Ordinary());
    EXPECT_TRUE(document.IsText());
    EXPECT_EQ(JobDocument().ToJson(), Json::Value());
}

TEST(JobDocument, InsertsEachChangingMember) {
    for (const char *changing : kChangingMembers) {
        const JobDocument document(Ordinary());
        Json::Value expected = Ordinary();
        expected[changing] = "here";
        EXPECT_EQ(TextInRuntimeDocument(document, changing), Expected(expected));
    }
    const JobDocument onlyConfig(FromText(R"({"config": {"a": 1}})"));
    EXPECT_EQ(TextInRuntimeDocument(onlyConfig, "expireTime"),
              Expected(FromText(R"({"config": {"a": 1}, "expireTime": "here"})")));
}

TEST(JobDocument, KeepsJsonThatTextCannotPreserve) {
    Json::Value notUtf8 = Ordinary();
    notUtf8["config"]["cmd"] = "\xff";
    Json::Value withSchedule = Ordinary();
    withSchedule["schedule"] = "odd";
    Json::Value deep(1);
    for (int i = 0; i < 50; ++i) {
        Json::Value list(Json::arrayValue);
        for (int k = 0; k < 50; ++k)
            list.append(k);
        list.append(std::move(deep));
        deep = std::move(list);
    }
    Json::Value deepInside = Ordinary();
    deepInside["config"]["x"] = deep;
    for (const Json::Value &odd : {notUtf8, withSchedule, deepInside, FromText("[]"),
                                   FromText("{}"), FromText("null"), FromText("1")}) {
        const JobDocument document(odd);
        EXPECT_FALSE(document.IsText());
        EXPECT_EQ(document.ToJson(), odd);
        EXPECT_FALSE(document.HasConfigOf(document)) << "only texts are compared";
    }
}

TEST(JobDocument, ComparesConfigsOnly) {
    const JobDocument document(Ordinary());
    Json::Value otherStart = Ordinary();
    otherStart["startup"] = 1;
    otherStart["aaa"] = "a member in front";
    EXPECT_TRUE(document.HasConfigOf(JobDocument(otherStart)));
    Json::Value otherConfig = Ordinary();
    otherConfig["config"]["user"] = "package";
    EXPECT_FALSE(document.HasConfigOf(JobDocument(otherConfig)));
}

} // namespace

} // namespace kest
