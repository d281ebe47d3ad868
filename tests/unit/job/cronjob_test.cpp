#include "job/cronjob.h"

#include "base/json_members.h"
#include "tests/unit/support/child.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/execution_log.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"
#include "tests/unit/support/memory.h"
#include "tests/unit/syslog_capture.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kest {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Texts = std::vector<std::string>;

// A job document with these members of its definition.
Json::Value Document(const std::string &members) {
    return FromText(R"({"config": {)" + members + "}}");
}

CronJob CrontabJob(const std::string &crontab) {
    Json::Value document = Document(R"("name": "job", "user": "root", "cmd": "true",
                                       "period": "crontab")");
    document["config"]["crontab"] = crontab;
    return CronJob(std::move(document));
}

// The same with its schedule drawn.
CronJob ScheduledJob(const std::string &crontab) {
    CronJob job = CrontabJob(crontab);
    EXPECT_TRUE(job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        job.GenerateSchedule(key);
    return job;
}

// --- Document -----------------------------------------------------------------------------------

// The document as the runtime document has it.
std::string Saved(const CronJob &job) {
    JsonText text(std::string::npos, 2);
    job.AppendTo(text);
    return text.Take();
}

std::string AsValueOfJobs(const Json::Value &document) {
    JsonText text(std::string::npos, 2);
    text.Append(document);
    return text.Take();
}

TEST(CronJobDocument, IsSavedAsItIs) {
    const FixedClock clock(1700000000);
    const SyslogCapture log;
    const char *const config =
        R"("config": {"name": "a", "user": "root", "period": "crontab", "cmd": "b  c",)"
        R"( "crontab": "~,5 1~3,1~3 * * 0"})";
    for (
        const std::string more :
        {R"("x": null)", R"("expireTime": 5, "lastExecution": 7)",
         R"("expireTime": "x", "lastExecution": 7.0)", R"("expireTime": null)",
         R"("expireTime": 99999999999999999999, "lastExecution": -1)",
         R"("lastExecution": [{"a": [1, 2]}], "startup": "x")",
         R"("schedule": {"Minute": [1, 5], "hour": [2, 3], "day": [-1], "month": [-1], "week": [0]})",
         R"("schedule": {"Minute": [1], "hour": [2, 3], "day": [-1], "month": [-1], "week": [0]})",
         R"("schedule": {"Minute": [1, 5.0], "hour": [2, 300], "x": [1]})",
         R"("schedule": {"hour": [2, 3]})", R"("schedule": {})", R"("schedule": null)",
         R"("schedule": [[1, 5]])", R"("schedule": {"Minute": "x", "week": [0]})",
         R"("a": 1, "cmd_list": 5, "cmd_str": {}, "d": 1.5, "m": [[]], "t": {"u": {}}, "z": "\n\t")",
         "\"\u00e4\": \"\u20ac\"", "\"a\": \"\xff\", \"\xff\": 1"}) {
        SCOPED_TRACE(more);
        const CronJob fresh(FromText("{" + std::string(config) + ", " + more + "}"));
        ASSERT_TRUE(fresh.valid);
        const Json::Value members = FromText("{" + more + "}");
        for (const std::string &name : members.getMemberNames())
            if (name != "cmd_list" && name != "cmd_str") {
                EXPECT_EQ(fresh.Document()[name], members[name]) << name;
            }
        CronJob job = fresh;
        EXPECT_EQ(Saved(job), AsValueOfJobs(job.Document()));
        EXPECT_EQ(job.Document()["cmd_list"], FromText(R"(["b", "c"])"));
        job.SetStaged(true);
        EXPECT_EQ(job.Document()["cmd_list"], FromText(R"(["/tmp/kestcrond/a", "c"])"));
        EXPECT_EQ(Saved(job), AsValueOfJobs(job.Document()));
        for (const std::string &key : FieldKeys()) {
            job.GenerateSchedule(key);
            EXPECT_EQ(Saved(job), AsValueOfJobs(job.Document())) << key;
            EXPECT_EQ(job.GetScheduleValues(key), FieldValues(job.Document()["schedule"][key]));
        }
        job.NoteLaunch(1600000000);
        EXPECT_EQ(Saved(job), AsValueOfJobs(job.Document()));
        EXPECT_EQ(job.Document()["expireTime"], 0);
        EXPECT_EQ(job.Document()["lastExecution"], 1600000000);
        for (const std::string &name : members.getMemberNames())
            if (name == "x" || name == "a" || name == "startup") {
                EXPECT_EQ(job.Document()[name], members[name]) << name;
            }
    }
}

TEST(CronJobDocument, OfAnyNumberOfItemsIsSavedAsItIs) {
    const FixedClock clock(1700000000);
    for (const int count : {1, 2, 15, 16, 17, 18, 24, 25, 26, 60}) {
        SCOPED_TRACE(count);
        std::string items = "59";
        for (int i = 1; i < count; ++i)
            items += "," + std::to_string(i % 60);
        for (const std::string &crontab : {items + " * * * *", "* * * * " + std::string("~,0"),
                                           items + " 0 1 2 " + std::string("~,0")}) {
            CronJob job = ScheduledJob(crontab);
            job.SetStaged(true);
            EXPECT_EQ(Saved(job), AsValueOfJobs(job.Document()));
        }
    }
}

TEST(CronJobDocument, KnowsTheSameDefinition) {
    const FixedClock clock(1700000000);
    const char *const config = R"("name": "a", "user": "root", "period": "d", "cmd": "b")";
    CronJob job(Document(config));
    job.GenerateSchedule("hour");
    job.NoteLaunch(17);
    EXPECT_TRUE(job.HasConfigOf(CronJob(Document(config))));
    for (const char *more : {R"(, "x": 1)", R"(, "assure_execute": 1)", R"(, "cmd": "c")"})
        EXPECT_FALSE(job.HasConfigOf(CronJob(Document(std::string(config) + more)))) << more;
}

TEST(CronJobTexts, OfAListLieTogetherAndAreTheSame) {
    const FixedClock clock(1700000000);
    std::vector<CronJob> jobs;
    for (const char *name : {"a", "b", "a-job-with-quite-a-long-name"})
        jobs.emplace_back(Document(R"("name": ")" + std::string(name) +
                                   R"(", "user": "root", "period": "d", "cmd": "/bin/)" + name +
                                   "\""));
    jobs.emplace_back(); // an invalid one
    jobs.emplace_back(Document(R"("name": "kept as JSON", "user": "root", "period": "d",
                                  "cmd": "b", "x": ")" +
                               std::string(100000, 'x') + "\""));
    const std::vector<CronJob> before = jobs;
    ShareTexts(jobs);
    const std::vector<CronJob> copies = jobs;
    jobs.erase(jobs.begin()); // the others keep what they share
    ShareTexts(jobs);
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(copies[i].Name(), before[i].Name());
        EXPECT_EQ(copies[i].Program(), before[i].Program());
        EXPECT_EQ(copies[i].Document(), before[i].Document());
    }
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        EXPECT_EQ(jobs[i].Document(), before[i + 1].Document());
        EXPECT_EQ(jobs[i].HasConfigOf(before[i + 1]), !jobs[i].Name().empty() && i != 3);
    }
    jobs.clear();
    ShareTexts(jobs);
}

// --- Construction -------------------------------------------------------------------------------

TEST(CronJobConstruction, FillsInAWholeJob) {
    const FixedClock clock(1700000000);
    const SyslogCapture log;
    const CronJob job(Document(R"("name": "backup", "user": "root", "period": "Weekly",
        "cmd": "/usr/bin/backup.sh  -v", "assure_execute": 48, "assure_execute_action": "run",
        "run_on_passive": true)"));
    EXPECT_TRUE(job.valid);
    EXPECT_EQ(job.Name(), "backup");
    EXPECT_EQ(job.assureExecute, 48);
    EXPECT_EQ(job.assureRun, 1);
    EXPECT_TRUE(job.runOnPassive);
    EXPECT_EQ(job.scheduleText, "");
    EXPECT_EQ(job.Document(), FromText(R"({"config": {"name": "backup", "user": "root",
        "period": "Weekly", "cmd": "/usr/bin/backup.sh  -v", "assure_execute": 48,
        "assure_execute_action": "run", "run_on_passive": true}, "startup": 1700000000,
        "cmd_list": ["/usr/bin/backup.sh", "-v"], "cmd_str": "/usr/bin/backup.sh  -v"})"));
    EXPECT_EQ(job.cronFields().size(), 5U);
    EXPECT_TRUE(log.Messages().empty());
}

TEST(CronJobConstruction, WritesTheDefaults) {
    const FixedClock clock(1700000000);
    const CronJob job(Document(R"("name": "a", "user": "root", "period": "d", "cmd": "b")"));
    EXPECT_TRUE(job.valid);
    EXPECT_EQ(job.assureExecute, 0);
    EXPECT_EQ(job.assureRun, 0);
    EXPECT_FALSE(job.runOnPassive);
    EXPECT_EQ(job.Document()["config"],
              FromText(R"({"name": "a", "user": "root", "period": "d", "cmd": "b",
                           "assure_execute": 0, "assure_execute_action": "wait",
                           "run_on_passive": false})"));
}

TEST(CronJobConstruction, CarriesTheRuntimeMembersAlong) {
    const FixedClock clock(1700000000);
    Json::Value document =
        Document(R"("name": "a", "user": "root", "period": "d", "cmd_list": ["b", "c"])");
    document["startup"] = 17;
    document["lastExecution"] = 18;
    document["expireTime"] = 19;
    document["schedule"] = FromText(R"({"Minute": [5]})");
    document["cmd_list"] = FromText(R"(["/tmp/staged"])");
    document["cmd_str"] = "stale";
    document["other"] = "kept";
    const CronJob job(document);
    EXPECT_TRUE(job.valid);
    for (const char *name : {"startup", "lastExecution", "expireTime", "schedule", "other"})
        EXPECT_EQ(job.Document()[name], document[name]) << name;
    EXPECT_EQ(job.Document()["cmd_list"], FromText(R"(["b", "c"])"));
    EXPECT_EQ(job.Document()["cmd_str"], "b c ");
}

TEST(CronJobConstruction, ReadsTheSettings) {
    struct Row {
        const char *members;
        std::int32_t assureExecute;
        std::int32_t assureRun;
        bool runOnPassive;
    };
    const Row rows[] = {
        {R"("assure_execute": 2)", 2, 0, false},
        {R"("assure_execute": -3)", -3, 0, false},
        {R"("assure_execute": 2147483647)", 2147483647, 0, false},
        {R"("assure_execute": null)", 0, 0, false},
        {R"("assure_execute_action": "run")", 0, 1, false},
        {R"("assure_execute_action": "Run")", 0, 0, false},
        {R"("assure_execute_action": "run ")", 0, 0, false},
        {R"("assure_execute_action": "wait")", 0, 0, false},
        {R"("assure_execute_action": "")", 0, 0, false},
        {R"("assure_execute_action": true)", 0, 0, false},
        {R"("assure_execute_action": ["run"])", 0, 0, false},
        {R"("run_on_passive": true)", 0, 0, true},
        {R"("run_on_passive": 1)", 0, 0, true},
        {R"("run_on_passive": 0)", 0, 0, false},
        {R"("run_on_passive": null)", 0, 0, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.members);
        const CronJob job(Document(R"("name": "a", "user": "root", "period": "d", "cmd": "b", )" +
                                   std::string(row.members)));
        EXPECT_TRUE(job.valid);
        EXPECT_EQ(job.assureExecute, row.assureExecute);
        EXPECT_EQ(job.assureRun, row.assureRun);
        EXPECT_EQ(job.runOnPassive, row.runOnPassive);
    }
}

struct ParsedField {
    const char *key;
    std::vector<CronRange> items;
};

void ExpectFields(const CronJob &job, const std::vector<ParsedField> &fields) {
    EXPECT_EQ(job.cronFields().size(), fields.size());
    for (const ParsedField &field : fields) {
        SCOPED_TRACE(field.key);
        ASSERT_EQ(job.cronFields().count(field.key), 1U);
        const std::vector<CronRange> items = job.cronFields().at(field.key);
        ASSERT_EQ(items.size(), field.items.size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            EXPECT_EQ(items[i].type, field.items[i].type);
            EXPECT_EQ(items[i].from, field.items[i].from);
            EXPECT_EQ(items[i].to, field.items[i].to);
        }
    }
}

TEST(CronJobConstruction, ParsesTheCrontab) {
    const CronRange any{CronRange::Any, -1, -1};
    struct Row {
        const char *crontab;
        std::vector<ParsedField> fields;
    };
    const Row rows[] = {
        {"~ ~ * * *",
         {{"Minute", {{CronRange::Random, 0, 59}}},
          {"hour", {{CronRange::Random, 0, 23}}},
          {"day", {any}},
          {"month", {any}},
          {"week", {any}}}},
        {"0 3 * * *",
         {{"Minute", {{CronRange::Exact, 0, -1}}},
          {"hour", {{CronRange::Exact, 3, -1}}},
          {"day", {any}},
          {"month", {any}},
          {"week", {any}}}},
        {"30 1~4 * * 0",
         {{"Minute", {{CronRange::Exact, 30, -1}}},
          {"hour", {{CronRange::Random, 1, 4}}},
          {"day", {any}},
          {"month", {any}},
          {"week", {{CronRange::Exact, 0, -1}}}}},
        {"0,30 * * * *",
         {{"Minute", {{CronRange::Exact, 0, -1}, {CronRange::Exact, 30, -1}}},
          {"hour", {any}},
          {"day", {any}},
          {"month", {any}},
          {"week", {any}}}},
        {"~ ~ ~ ~ ~",
         {{"Minute", {{CronRange::Random, 0, 59}}},
          {"hour", {{CronRange::Random, 0, 23}}},
          {"day", {{CronRange::Random, 1, 28}}},
          {"month", {{CronRange::Random, 1, 12}}},
          {"week", {{CronRange::Random, 0, 6}}}}},
        {"1,1 5,3,* 31,~5 12~12 */2,6",
         {{"Minute", {{CronRange::Exact, 1, -1}, {CronRange::Exact, 1, -1}}},
          {"hour", {{CronRange::Exact, 5, -1}, {CronRange::Exact, 3, -1}, any}},
          {"day", {{CronRange::Exact, 31, -1}, {CronRange::Random, 1, 28}}},
          {"month", {{CronRange::Random, 12, 12}}},
          {"week", {any, {CronRange::Exact, 6, -1}}}}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.crontab);
        const SyslogCapture log;
        const CronJob job = CrontabJob(row.crontab);
        EXPECT_TRUE(job.valid);
        ExpectFields(job, row.fields);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST(CronJobConstruction, TakesTheCrontabOfThePeriod) {
    struct Row {
        const char *period;
        const char *schedule; // with every random item at its only possible text
    };
    const Row rows[] = {
        {"Hourly", "R * * * *"}, {"daily", "R R * * *"},    {"w", "R R * * R"},
        {"Month", "R R R * *"},  {"crontabs", "R * 5 * *"}, {"C", "R * 5 * *"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.period);
        Json::Value document = Document(R"("name": "a", "user": "root", "cmd": "b")");
        document["config"]["period"] = row.period;
        document["config"]["crontab"] = "~ * 5 * *";
        const CronJob job(document);
        ASSERT_TRUE(job.valid);
        std::string text;
        for (const std::string &key : FieldKeys()) {
            const CronRange item = job.cronFields().at(key).at(0);
            text += text.empty() ? "" : " ";
            text += item.type == CronRange::Random ? "R"
                    : item.type == CronRange::Any  ? "*"
                                                   : std::to_string(item.from);
        }
        EXPECT_EQ(text, row.schedule);
    }
}

TEST(CronJobConstruction, TellsWhichRuleIsBroken) {
    struct Row {
        const char *document;
        const char *rule;
    };
    const Row rows[] = {
        {"{}", R"(!_jsJob.isMember("config") || !jsConf.isObject())"},
        {"null", R"(!_jsJob.isMember("config") || !jsConf.isObject())"},
        {"5", R"(!_jsJob.isMember("config") || !jsConf.isObject())"},
        {"[]", R"(!_jsJob.isMember("config") || !jsConf.isObject())"},
        {R"({"config": {"user": "root", "name": "a", "cmd": "b"}})",
         R"(!jsConf.isMember("period") || !jsConf["period"].isString() || jsConf["period"].asString().empty())"},
        {R"({"config": {"period": "d", "name": "a", "cmd": "b"}})",
         R"(!jsConf.isMember("user") || !jsConf["user"].isString())"},
        {R"({"config": {"period": "d", "user": "root", "cmd": "b"}})",
         R"(!jsConf.isMember("name") || !jsConf["name"].isString())"},
        {R"({"config": {"period": "d", "user": "root", "name": "a"}})",
         R"((!jsConf.isMember("cmd") || !jsConf["cmd"].isString()) && (!jsConf.isMember("cmd_list") || !jsConf["cmd_list"].isArray()))"},
        {R"({"config": {"period": "d", "user": "package", "name": "a", "cmd": "b"}})",
         R"("package" == jsConf["user"].asString() && !jsConf.isMember("package_username"))"},
        {R"({"config": {"period": "crontab", "user": "root", "name": "a", "cmd": "b"}})",
         R"(!jsConf.isMember("crontab") || !jsConf["crontab"].isString())"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.document);
        const SyslogCapture log;
        const CronJob job(FromText(row.document));
        EXPECT_FALSE(job.valid);
        EXPECT_THAT(log.Texts("cronjob"),
                    ElementsAre("Failed [" + std::string(row.rule) + "], err=Success",
                                "crontab format error"));
    }
}

TEST(CronJobConstruction, TellsAnEarlierErrorToo) {
    const SyslogCapture log;
    errno = ENOENT;
    const CronJob job(FromText("{}"));
    const std::string error = "No such file or directory";
    EXPECT_THAT(log.Texts("cronjob"),
                ElementsAre("Failed [!_jsJob.isMember(\"config\") || !jsConf.isObject()], err=" +
                                error + " (" + error + ")",
                            "crontab format error (" + error + ")"));
}

TEST(CronJobConstruction, TellsWhatCannotBeParsed) {
    struct Row {
        const char *members; // beside name and user
        Texts texts;         // before "parse error"
    };
    const std::string emptyList = R"(Failed [0 == _jsJob["cmd_list"].size()], err=Success)";
    const Row rows[] = {
        {R"("period": "yearly", "cmd": "b")", {"error period"}},
        {R"("period": " daily", "cmd": "b")", {"error period"}},
        {R"("period": "Crontab", "cmd": "b")", {}},
        {R"("period": "c", "cmd": "b", "crontab": 5)", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "* * * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "* * * * * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "*  * * * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "60 * * * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "* * 0 * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "* * * 0 *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "* * * * 7")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "* -1 * * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "1~2~3 * * * *")", {}},
        {R"("period": "crontab", "cmd": "b", "crontab": "9~3 * * * *")",
         {"range.from[9] cannot greater than range.to[3]"}},
        {R"("period": "crontab", "cmd": "b", "crontab": "1-5 * * * *")",
         {"1-5 is not a valid number"}},
        {R"("period": "crontab", "cmd": "b", "crontab": "1~x * * * *")",
         {"x is not a valid number"}},
        {R"("period": "crontab", "cmd": "b", "crontab": "1,,2 * * * *")",
         {" is not a valid number"}},
        {R"("period": "crontab", "cmd": "b", "crontab": "5, * * * *")", {" is not a valid number"}},
        {R"("period": "crontab", "cmd": "b", "crontab": "x y z * *")", {"x is not a valid number"}},
        {R"("period": "d", "cmd_list": [])", {emptyList}},
        {R"("period": "yearly", "cmd_list": [])", {"error period"}},
        {R"("period": "d", "assure_execute": "x", "cmd_list": [])", {}},
        {R"("period": "d", "cmd": "b", "cmd_list": [])", {emptyList}},
        {R"("period": "d", "cmd": "b", "cmd_list": {})", {emptyList}},
        {R"("period": "d", "cmd": "b", "cmd_list": null)", {emptyList}},
        {R"("period": "d", "cmd": "b", "cmd_list": "c")", {emptyList}},
        {R"("period": "d", "cmd": "b", "cmd_list": 5)", {emptyList}},
        {R"("period": "d", "cmd": "b", "cmd_list": true)", {emptyList}},
        {R"("period": "d", "cmd_list": [["b"]])", {}},
        {R"("period": "d", "cmd": "b", "assure_execute": "x")", {}},
        {R"("period": "d", "cmd": "b", "assure_execute": [])", {}},
        {R"("period": "d", "cmd": "b", "assure_execute": 99999999999)", {}},
        {R"("period": "d", "cmd": "b", "run_on_passive": "yes")", {}},
        {R"("period": "d", "cmd": "b", "run_on_passive": {"a": 1})", {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.members);
        const SyslogCapture log;
        const CronJob job(Document(R"("name": "a", "user": "root", )" + std::string(row.members)));
        EXPECT_FALSE(job.valid);
        Texts expected = row.texts;
        expected.emplace_back("parse error");
        EXPECT_EQ(log.Texts("cronjob"), expected);
        EXPECT_EQ(job.Document()["config"].isMember("assure_execute_action"), true);
    }
}

TEST(CronJobConstruction, GivesTheFaultsInsteadOfMessages) {
    const FixedClock clock(1700000000);
    const char *const rows[] = {
        "7",
        "{}",
        R"({"config": {"name": "a", "period": "yearly", "cmd": 5}})",
        R"({"config": {"name": "a", "user": "root", "period": "d", "cmd": "b"}})",
        R"({"config": {"name": "a", "user": "root", "period": "c", "cmd_list": [],
                       "crontab": "1,x,3,60 * * * *", "assure_execute": 5}})",
    };
    for (const char *row : rows) {
        SCOPED_TRACE(row);
        SyslogCapture log;
        const CronJob loud(FromText(row));
        log.Clear();
        const std::size_t all = ParseDefinition(Member(FromText(row), "config")).faults.size();
        std::vector<DefinitionFault> faults(1); // of another job
        const CronJob silent(FromText(row), faults);
        EXPECT_EQ(faults.size(), 1 + all);
        EXPECT_EQ(silent.valid, all == 0);
        EXPECT_EQ(silent.valid, loud.valid);
        EXPECT_EQ(silent.Document(), loud.Document());
        const CronJob bounded(FromText(row), faults, 1);
        EXPECT_EQ(faults.size(), 1 + all + std::min<std::size_t>(all, 1));
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST(CronJobConstruction, ParsesTheCommandLast) {
    const SyslogCapture log;
    const CronJob unscheduled(
        Document(R"("name": "a", "user": "root", "period": "yearly", "cmd": "b")"));
    EXPECT_FALSE(unscheduled.Document().isMember("cmd_list"));
    const CronJob empty(Document(R"("name": "a", "user": "root", "period": "d", "cmd_list": [],
                                    "assure_execute": 5)"));
    EXPECT_FALSE(empty.valid);
    EXPECT_EQ(empty.assureExecute, 5);
}

TEST(CronJobConstruction, LeavesADocumentThatBreaksARuleAsItIs) {
    const SyslogCapture log;
    EXPECT_EQ(CronJob(FromText("{}")).Document(), FromText(R"({"config": null})"));
    const char *nameless = R"({"config": {"user": "root", "period": "d", "cmd": "b"}})";
    EXPECT_EQ(CronJob(FromText(nameless)).Document(), FromText(nameless));
    const char *commandless = R"({"config": {"name": "a", "user": "root", "period": "d"}})";
    EXPECT_EQ(CronJob(FromText(commandless)).Document(), FromText(commandless));
}

// An author's text is part of a message, and a message is one line.
TEST(CronJobConstruction, LetsNoTextForgeAMessage) {
    const SyslogCapture log;
    const CronJob job = CrontabJob("1\n2 * * * *");
    EXPECT_FALSE(job.valid);
    EXPECT_THAT(log.Texts("cronjob"), ElementsAre("1\\n2 is not a valid number", "parse error"));
}

TEST(CronJobConstruction, KeepsTheItemsBeforeTheBadOne) {
    const SyslogCapture log;
    const CronJob job = CrontabJob("0 1,2,24,3 * * *");
    EXPECT_FALSE(job.valid);
    EXPECT_EQ(job.cronFields().size(), 2U);
    EXPECT_EQ(job.cronFields().at("hour").size(), 2U);
}

TEST(CronJobConstruction, WithoutADocumentIsAnInvalidJob) {
    const CronJob job;
    EXPECT_FALSE(job.valid);
    EXPECT_EQ(job.Name(), "");
    EXPECT_FALSE(job.IsAssureOverdue());
    EXPECT_EQ(job.RenderSchedule(), "X X X X X");
}

// --- Account ------------------------------------------------------------------------------------

TEST(ResolveJobUser, FindsTheAccount) {
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    struct Row {
        const char *config;
        const char *name;
        uid_t uid;
        gid_t gid;
    };
    const Row rows[] = {
        {R"({"user": "root"})", "root", 0, 0},
        {R"({"user": "root", "package_username": "nobody"})", "root", 0, 0},
        {R"({"user": "package", "package_username": "nobody"})", "nobody", uid, gid},
        {R"({"user": "packager", "package_username": "nobody"})", "nobody", uid, gid},
        {R"({"user": "rootpackage", "package_username": "nobody"})", "nobody", uid, gid},
        {R"({"user": "package", "package_username": "root"})", "root", 0, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const SyslogCapture log;
        const JobUser user = ResolveJobUser(FromText(row.config));
        EXPECT_TRUE(user.valid);
        EXPECT_EQ(user.name, row.name);
        EXPECT_EQ(user.uid, row.uid);
        EXPECT_EQ(user.gid, row.gid);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST(ResolveJobUser, TellsWhyThereIsNone) {
    struct Row {
        const char *config;
        Texts texts;
    };
    const std::string undetermined = "Unable to determine user";
    const std::string noPackage = "you are not package! error user in config";
    const std::string only = "you can only specify root/system/package in config";
    const Row rows[] = {
        {R"({"user": "package"})", {noPackage, undetermined}},
        {R"({"user": "package", "package_username": 5})", {noPackage, undetermined}},
        {R"({"user": "package", "package_username": null})", {noPackage, undetermined}},
        {R"({"user": "packager"})", {noPackage, undetermined}},
        {R"({"user": "nobody", "name": "a"})",
         {"wrong user nobody! " + only + " [\"a\"]", undetermined}},
        {R"({"user": "Root", "name": "a b"})",
         {"wrong user Root! " + only + " [\"a b\"]", undetermined}},
        {R"({"user": "", "name": 5})", {"wrong user ! " + only + " [5]", undetermined}},
        {R"({"user": "x"})", {"wrong user x! " + only + " [null]", undetermined}},
        {"null", {"wrong user ! " + only + " [null]", undetermined}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const SyslogCapture log;
        EXPECT_FALSE(ResolveJobUser(FromText(row.config)).valid);
        EXPECT_EQ(log.Texts("cronjob"), row.texts);
    }
}

TEST(ResolveJobUser, TellsWhichAccountIsMissing) {
    struct Row {
        const char *config;
        const char *text;
    };
    const Row rows[] = {
        {R"({"user": "rootjob"})", "user rootjob not exist"},
        {R"({"user": "no-such-system"})", "user no-such-system not exist"},
        {R"({"user": "package", "package_username": "no-such-account"})",
         "user no-such-account not exist"},
        {R"({"user": "package", "package_username": ""})", "user  not exist"},
        {R"({"user": "root\u0000x"})", "user root not exist"},
        {R"({"user": "package", "package_username": "nobody\u0000"})", "user nobody not exist"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const SyslogCapture log;
        EXPECT_FALSE(ResolveJobUser(FromText(row.config)).valid);
        // The account database may have left an error of its own, which then follows.
        EXPECT_THAT(log.Texts("cronjob"), ElementsAre(StartsWith(row.text)));
    }
}

TEST(ResolveJobUser, AsksForAnAccountOnce) {
    const SyslogCapture log;
    KnownAccounts accounts;
    const auto jobOf = [](const std::string &user) {
        return CronJob(
            Document(R"("name": "a", "period": "d", "cmd": "b", "user": ")" + user + "\""));
    };
    const CronJob root = jobOf("root");
    EXPECT_EQ(ResolveJobUser(root, accounts).uid, 0U);
    ASSERT_EQ(accounts.count("root"), 1U);
    accounts["root"].uid = 17; // is believed
    EXPECT_EQ(ResolveJobUser(root, accounts).uid, 17U);
    EXPECT_EQ(ResolveJobUser(root.Config()).uid, 0U);
    const CronJob missing = jobOf("no-such-root");
    EXPECT_FALSE(ResolveJobUser(missing, accounts).valid);
    ASSERT_EQ(accounts.count("no-such-root"), 1U) << "a failed look-up may have cost a time-out";
    accounts["no-such-root"].valid = true;
    EXPECT_TRUE(ResolveJobUser(missing, accounts).valid);
    accounts["no-such-root"].valid = false;
    EXPECT_FALSE(ResolveJobUser(missing, accounts).valid);
    EXPECT_EQ(log.Texts("cronjob").size(), 2U) << "each one is reported";
}

// --- Schedule -----------------------------------------------------------------------------------

TEST(GenerateFieldSchedule, TakesTheTemplatesValueWhereItFits) {
    CronJob job = CrontabJob("~,30~40,5,* ~ 25~31 * *");
    job.GenerateFieldSchedule("Minute", 17);
    const std::vector<std::int32_t> minutes = job.GetScheduleValues("Minute");
    ASSERT_EQ(minutes.size(), 4U);
    EXPECT_EQ(minutes[0], 17);
    EXPECT_GE(minutes[1], 30);
    EXPECT_LE(minutes[1], 40);
    EXPECT_EQ(minutes[2], 5);
    EXPECT_EQ(minutes[3], -1);
    job.GenerateFieldSchedule("day", 30);
    EXPECT_EQ(job.Document()["schedule"]["day"], FromText("[30]"));
    EXPECT_FALSE(job.Document()["schedule"].isMember("hour"));
}

TEST(GenerateFieldSchedule, ReplacesWhatStoodThere) {
    for (const char *schedule : {"null", "5", "[]", R"("x")", R"({"hour": "x"})",
                                 R"({"hour": [1, 2, 3]})", R"({"hour": {"a": 1}})"}) {
        SCOPED_TRACE(schedule);
        CronJob job = With(CrontabJob("* 7 * * *"), "schedule", FromText(schedule));
        job.GenerateSchedule("hour");
        EXPECT_EQ(job.Document()["schedule"], FromText(R"({"hour": [7]})"));
    }
}

TEST(GenerateFieldSchedule, KnowsNoOtherFields) {
    CronJob job = CrontabJob("* * * * *");
    const Json::Value before = job.Document();
    job.GenerateSchedule("fortnight");
    EXPECT_EQ(job.Document(), before);
    EXPECT_FALSE(job.MatchField("fortnight", 1));
}

TEST(GenerateSchedule, DrawsAfreshEachTime) {
    CronJob job = CrontabJob("~ * * * *");
    std::vector<bool> seen(60, false);
    for (int i = 0; i < 2000; ++i) {
        job.GenerateSchedule("Minute");
        const std::int32_t minute = job.GetSingleScheduleValue("Minute");
        ASSERT_GE(minute, 0);
        ASSERT_LE(minute, 59);
        seen[static_cast<std::size_t>(minute)] = true;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 60);
}

TEST(GetSingleScheduleValue, IsTheOnlyValueThereIs) {
    struct Row {
        const char *schedule;
        std::int32_t value;
    };
    const Row rows[] = {
        {R"({"hour": [5]})", 5},
        {R"({"hour": [0]})", 0},
        {R"({"hour": [-1]})", -1},
        {R"({"hour": [5, 6]})", -1},
        {R"({"hour": [5, 5]})", -1},
        {R"({"hour": []})", -1},
        {R"({"hour": 5})", -1},
        {R"({"hour": ["5"]})", -1},
        {R"({"day": [5]})", -1},
        {R"({"hour": [5, "x"]})", -1},
        {"{}", -1},
        {"null", -1},
        {R"({"hour": [1e12]})", -1},
        {"[5]", -1},
    };
    for (const Row &row : rows) {
        const CronJob job = With(CrontabJob("* * * * *"), "schedule", FromText(row.schedule));
        EXPECT_EQ(job.GetSingleScheduleValue("hour"), row.value) << row.schedule;
    }
}

TEST(MatchField, LooksIntoItsOwnField) {
    const CronJob job = With(CrontabJob("* * * * *"), "schedule",
                             FromText(R"({"Minute": [5], "hour": [6, -1], "day": [], "week": 5})"));
    EXPECT_TRUE(job.MatchField("Minute", 5));
    EXPECT_FALSE(job.MatchField("Minute", 6));
    EXPECT_TRUE(job.MatchField("hour", 5));
    EXPECT_FALSE(job.MatchField("day", 5));
    EXPECT_FALSE(job.MatchField("month", 5));
    EXPECT_FALSE(job.MatchField("week", 5));
    EXPECT_FALSE(job.MatchField("minute", 5));
}

TEST(IsDueNow, NeedsAllFiveFields) {
    const LocalZone zone("UTC0");
    struct Row {
        const char *crontab;
        std::int64_t now;
        bool due;
    };
    const Row rows[] = {
        {"* * * * *", Utc(2026, 3, 4, 5, 6), true},
        {"6 5 4 3 3", Utc(2026, 3, 4, 5, 6), true}, // a Wednesday
        {"6 5 4 3 3", Utc(2026, 3, 4, 5, 6, 59), true},
        {"7 5 4 3 3", Utc(2026, 3, 4, 5, 6), false},
        {"6 6 4 3 3", Utc(2026, 3, 4, 5, 6), false},
        {"6 5 5 3 3", Utc(2026, 3, 4, 5, 6), false},
        {"6 5 4 2 3", Utc(2026, 3, 4, 5, 6), false},
        {"6 5 4 3 4", Utc(2026, 3, 4, 5, 6), false},
        {"0,30 * * * *", Utc(2026, 3, 4, 5, 30), true},
        {"0,30 * * * *", Utc(2026, 3, 4, 5, 15), false},
        {"0 0 1 * 1", Utc(2026, 6, 1, 0, 0), true},  // a Monday that is a 1st
        {"0 0 1 * 1", Utc(2026, 4, 1, 0, 0), false}, // the 1st, no Monday
        {"0 0 1 * 1", Utc(2026, 3, 2, 0, 0), false}, // a Monday, not the 1st
        {"* * * * 0", Utc(2026, 3, 8, 0, 0), true},
        {"* * * * 6", Utc(2026, 3, 7, 0, 0), true},
        {"* * * 1 *", Utc(2026, 1, 1, 0, 0), true},
        {"* * * 12 *", Utc(2026, 12, 31, 23, 59), true},
        {"59 23 31 12 *", Utc(2026, 12, 31, 23, 59), true},
        {"* * 29 2 *", Utc(2024, 2, 29, 0, 0), true},
        {"* * * * *", Utc(2040, 1, 1, 0, 0), true},
    };
    for (const Row &row : rows) {
        const FixedClock clock(row.now);
        EXPECT_EQ(ScheduledJob(row.crontab).IsDueNow(), row.due) << row.crontab << " " << row.now;
    }
}

TEST(IsDueNow, GoesByLocalTime) {
    const LocalZone zone("XXX-1");
    const CronJob job = ScheduledJob("30 0 1 1 *");
    FixedClock clock(Utc(2025, 12, 31, 23, 30));
    EXPECT_TRUE(job.IsDueNow());
    const LocalZone otherZone("UTC0");
    clock.Set(Utc(2025, 12, 31, 23, 30, 1));
    EXPECT_FALSE(job.IsDueNow());
    clock.Set(Utc(2026, 1, 1, 0, 30));
    EXPECT_TRUE(job.IsDueNow());
}

TEST(IsDueNow, HoldsInNoOtherMinuteOfAMonth) {
    const LocalZone zone("UTC0");
    const CronJob job = ScheduledJob("15,45 10 * * 1");
    FixedClock clock(0);
    const std::int64_t start = Utc(2026, 6, 1, 0, 0);
    constexpr std::int64_t day = 1440; // minutes
    for (std::int64_t minute = 0; minute < 30 * day; ++minute) {
        clock.Set(start + minute * 60);
        const std::int64_t ofDay = minute % day;
        const bool monday = minute / day % 7 == 0; // the month begins with one
        ASSERT_EQ(job.IsDueNow(), monday && (ofDay == 615 || ofDay == 645)) << minute;
    }
}

TEST(IsDueNow, IsFalseWithoutAWholeSchedule) {
    const FixedClock clock(Utc(2026, 3, 4, 5, 6));
    for (const std::string &key : FieldKeys()) {
        const CronJob job = ScheduledJob("* * * * *");
        ASSERT_TRUE(job.IsDueNow());
        Json::Value schedule = job.Document()["schedule"];
        schedule.removeMember(key);
        EXPECT_FALSE(With(job, "schedule", schedule).IsDueNow()) << key;
    }
}

TEST(IsDueNow, ReportsATimeWithoutACalendar) {
    const FixedClock clock(INT64_MAX);
    CronJob job = ScheduledJob("* * * * *");
    const SyslogCapture log;
    EXPECT_FALSE(job.IsDueNow());
    EXPECT_THAT(log.Texts("cronjob"),
                ElementsAre("Failed to get localtime (Value too large for defined data type)"));
}

TEST(CheckTrigger, StampsAJobThatIsDue) {
    const LocalZone zone("UTC0");
    const std::int64_t now = Utc(2040, 3, 4, 3, 17, 5);
    const FixedClock clock(now);
    CronJob job = ScheduledJob("17 3 * * *");
    EXPECT_TRUE(job.CheckTrigger());
    EXPECT_EQ(job.Document()["expireTime"].asInt64(), now);
    EXPECT_EQ(job.scheduleText, "17 3 -1 -1 -1");
    EXPECT_EQ(job.RenderSchedule(), "17 3 -1 -1 -1");
}

TEST(CheckTrigger, TakesThePlaceOfAnEarlierMatch) {
    const LocalZone zone("UTC0");
    const std::int64_t now = Utc(2026, 3, 4, 3, 17);
    const FixedClock clock(now);
    CronJob job = With(ScheduledJob("17 3 * * *"), "expireTime", 42);
    job.scheduleText = "as before";
    EXPECT_TRUE(job.CheckTrigger());
    EXPECT_EQ(job.Document()["expireTime"].asInt64(), now);
    EXPECT_EQ(job.scheduleText, "17 3 -1 -1 -1");
}

// A cycle may come twice in a minute, or a minute twice when a clock is set back.
TEST(CheckTrigger, AsksForNoEarlierRun) {
    const LocalZone zone("UTC0");
    const std::int64_t now = Utc(2026, 3, 4, 3, 17);
    const FixedClock clock(now);
    CronJob job = ScheduledJob("17 3 * * *");
    for (const std::int64_t lastExecution : {now, now - 5, now + 3600}) {
        job.NoteLaunch(lastExecution);
        EXPECT_TRUE(job.CheckTrigger());
        EXPECT_EQ(job.Document()["expireTime"].asInt64(), now);
    }
}

TEST(CheckTrigger, ChangesNothingOtherwise) {
    const LocalZone zone("UTC0");
    const FixedClock clock(Utc(2026, 3, 4, 3, 18));
    CronJob job = With(ScheduledJob("17 3 * * *"), "expireTime", 42);
    job.scheduleText = "as before";
    const Json::Value before = job.Document();
    EXPECT_FALSE(job.CheckTrigger());
    EXPECT_EQ(job.Document(), before);
    EXPECT_EQ(job.scheduleText, "as before");
}

TEST(IsAssureOverdue, CountsFromTheLastRunOrTheStart) {
    constexpr std::int64_t now = 1700000000;
    const FixedClock clock(now);
    struct Row {
        std::int32_t hours;
        const char *members;
        bool overdue;
    };
    const Row rows[] = {
        {2, R"({"lastExecution": 1699992800})", false}, // 7200 seconds ago
        {2, R"({"lastExecution": 1699992799})", true},  // 7201 seconds ago
        {2, R"({"startup": 1699992800})", false},
        {2, R"({"startup": 1699992799})", true},
        {2, R"({"lastExecution": 1699992800, "startup": 0})", false},
        {2, R"({"lastExecution": 1699992799, "startup": 1700000000})", true},
        {2, R"({"lastExecution": 0, "startup": 1700000000})", true},
        {2, R"({"lastExecution": "x", "startup": 1700000000})", false},
        {2, R"({"lastExecution": "x", "startup": 1699992799})", true},
        {2, R"({"lastExecution": 9e30, "startup": "x"})", true}, // no time at all, and never known
        {1, R"({"startup": "x"})", true},
        {0, "{}", false},
        {0, R"({"lastExecution": 0})", false},
        {1, R"({"lastExecution": 9223372036854775807})", false},
        {-1, R"({"lastExecution": 1700000000})", true},
    };
    for (const Row &row : rows) {
        Json::Value document = FromText(row.members);
        document["config"] =
            FromText(R"({"name": "a", "user": "root", "period": "d", "cmd": "b"})");
        document["config"]["assure_execute"] = row.hours;
        const CronJob job(document);
        ASSERT_TRUE(job.valid);
        EXPECT_EQ(job.IsAssureOverdue(), row.overdue) << row.hours << " " << row.members;
    }
}

// --- Launch -------------------------------------------------------------------------------------

class LaunchTest : public testing::Test {
protected:
    LaunchTest() {
        std::filesystem::remove(ExecutionLogPath());
        std::filesystem::permissions(directory_.Path(), std::filesystem::perms::all);
    }

    // A job that runs `command` in a shell.
    static CronJob ShellJob(const std::string &user, const std::string &command) {
        Json::Value document = Document(R"("name": "backup", "user": "package", "period": "d",
                                           "cmd_list": ["/bin/sh", "-c"])");
        document["config"]["package_username"] = user;
        document["config"]["cmd_list"].append(command);
        return CronJob(std::move(document));
    }

    // Launches the job and waits for its process; that one's exit status.
    static int RunToEnd(CronJob &job, std::int32_t delay, const std::string &note) {
        job.Launch(delay, note);
        return ExitStatusOf(-1);
    }

    TemporaryDirectory directory_;
    LocalZone zone_{"XXX-1"};
    FixedClock clock_{Utc(2026, 11, 15, 2, 0)};
    const std::string time_ = "2026-11-15T03:00:00+01:00 ";
};

TEST_F(LaunchTest, StampsTheJobAndRunsItsCommand) {
    const std::string file = directory_.File("ran");
    const std::string command = "id -un > " + file;
    CronJob job = With(ShellJob("root", command), "expireTime", 42);
    job.scheduleText = "0 3 -1 -1 -1";
    ASSERT_TRUE(job.valid);
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    EXPECT_EQ(ReadText(file), "root\n");
    EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2026, 11, 15, 2, 0));
    EXPECT_EQ(job.Document()["expireTime"], 0);
    EXPECT_EQ(job.scheduleText, "");
    EXPECT_EQ(ReadText(ExecutionLogPath()), time_ +
                                                "running job: backup with command: /bin/sh -c " +
                                                command + "  as user root\n");
}

TEST_F(LaunchTest, TellsTheNoteAndTakesOnTheAccount) {
    const std::string file = directory_.File("ran");
    CronJob job = ShellJob("nobody", "id -u > " + file + "; id -G >> " + file);
    EXPECT_EQ(RunToEnd(job, -5, "state[Ready]"), 0);
    EXPECT_EQ(ReadText(file), "65534\n65534\n");
    EXPECT_THAT(ReadText(ExecutionLogPath()),
                testing::EndsWith(" as user nobody (state[Ready])\n"));
}

TEST_F(LaunchTest, LogsACommandThatDoesNotStart) {
    const std::string running = time_ + "running job: backup with command: /no/such/program x";
    for (const char *user : {"root", "nobody"}) {
        SCOPED_TRACE(user);
        std::filesystem::remove(ExecutionLogPath());
        CronJob job = ShellJob(user, "true");
        Json::Value config = job.Document()["config"];
        config.removeMember("cmd_list");
        config["cmd"] = "/no/such/program x";
        job = With(job, "config", config);
        EXPECT_EQ(RunToEnd(job, 0, ""), 0);
        std::string expected = running;
        expected.append(" as user ").append(user).append("\n").append(running);
        expected.append(" failed, return code: -1, error: No such file or directory\n");
        EXPECT_EQ(ReadText(ExecutionLogPath()), expected);
    }
}

TEST_F(LaunchTest, KeepsForeignTextInsideItsLine) {
    CronJob job = ShellJob("root", "true\n: 2026 running job: forged");
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    EXPECT_EQ(ReadText(ExecutionLogPath()),
              time_ + "running job: backup with command: /bin/sh -c true\\n: 2026 running job: "
                      "forged  as user root\n");
}

TEST_F(LaunchTest, EndsAChildThatHasNoAccount) {
    CronJob job = ShellJob("no-such-account", "touch " + directory_.File("ran"));
    const int status = RunToEnd(job, 0, "");
    EXPECT_GT(status, 0);
    EXPECT_NE(status, 99);
    EXPECT_THAT(directory_.Names(), IsEmpty());
    EXPECT_FALSE(Stands(ExecutionLogPath()));
    EXPECT_EQ(job.scheduleText, "");
}

// A second scheduler would be worse than a job that did not run.
TEST_F(LaunchTest, EndsAChildWhoseJobHasNoProgram) {
    const SyslogCapture log;
    CronJob job(Document(R"("name": "backup", "user": "root", "period": "never", "cmd": "true")"));
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    const std::string running = time_ + "running job: backup with command: ";
    EXPECT_EQ(ReadText(ExecutionLogPath()), running + " as user root\n" + running +
                                                " failed, return code: -1, error: Bad address\n");
}

TEST_F(LaunchTest, EndsAChildThatHasNoMemory) {
    using Kind = NoMemoryInChildren::Kind;
    const std::pair<Kind, const char *> rows[] = {
        {Kind::ReportingArray, "new pszCmd failed"},
        {Kind::Throwing, "caught a std::exception: std::bad_alloc"},
    };
    for (const auto &[kind, text] : rows) {
        const SharedSyslogCapture log;
        CronJob job = ShellJob("root", "true");
        const NoMemoryInChildren none(kind);
        EXPECT_EQ(RunToEnd(job, 0, ""), EXIT_FAILURE);
        EXPECT_THAT(log.Message(), testing::MatchesRegex(std::string("cronjob:[0-9]+ ") + text));
        EXPECT_FALSE(Stands(ExecutionLogPath()));
    }
}

TEST_F(LaunchTest, HasStampedAJobThatCannotBeForked) {
    EXPECT_EQ(InChild([&] {
                  const SyslogCapture log;
                  CronJob job = With(ShellJob("root", "true"), "expireTime", 42);
                  job.scheduleText = "0 3 -1 -1 -1";
                  const rlimit limit{0, 0};
                  if (setrlimit(RLIMIT_NPROC, &limit) != 0 || setuid(kOtherAccount) != 0)
                      return 1;
                  job.Launch(0, "");
                  EXPECT_THAT(log.Texts("cronjob"),
                              ElementsAre("Failed to fork() (Resource temporarily unavailable)"));
                  EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2026, 11, 15, 2, 0));
                  EXPECT_EQ(job.Document()["expireTime"], 0);
                  EXPECT_EQ(job.scheduleText, "0 3 -1 -1 -1");
                  return HasFailure() ? 2 : 0;
              }),
              0);
}

TEST_F(LaunchTest, KnowsTimesOfAnyYear) {
    clock_.Set(Utc(2040, 1, 1, 0, 0));
    CronJob job = ShellJob("root", "true");
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2040, 1, 1, 0, 0));
    EXPECT_THAT(ReadText(ExecutionLogPath()), StartsWith("2040-01-01T01:00:00+01:00 "));
}

TEST_F(LaunchTest, WaitsOutItsDelay) {
    const std::string file = directory_.File("ran");
    CronJob job = With(ShellJob("root", "touch " + file), "expireTime", 42);
    job.Launch(1, "");
    EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2026, 11, 15, 2, 0));
    EXPECT_EQ(job.Document()["expireTime"], 0);
    EXPECT_FALSE(Stands(file));
    EXPECT_FALSE(Stands(ExecutionLogPath()));
    EXPECT_EQ(ExitStatusOf(-1), 0);
    EXPECT_TRUE(Stands(file));
}

} // namespace

} // namespace kest
