#include "job/cronjob.h"

#include "base/json_members.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"
#include "tests/unit/syslog_capture.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest {

namespace {

using testing::ElementsAre;

using Texts = std::vector<std::string>;

// --- Document -----------------------------------------------------------------------------------

// The document of the job as it is written to the runtime document.
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

TEST(CronJobDocument, IsSavedUnchanged) {
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

TEST(CronJobDocument, RoundTripsWithAnyNumberOfItems) {
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

TEST(CronJobDocument, RecognisesAnEqualDefinition) {
    const FixedClock clock(1700000000);
    const char *const config = R"("name": "a", "user": "root", "period": "d", "cmd": "b")";
    CronJob job(Document(config));
    job.GenerateSchedule("hour");
    job.NoteLaunch(17);
    EXPECT_TRUE(job.HasConfigOf(CronJob(Document(config))));
    for (const char *more : {R"(, "x": 1)", R"(, "assure_execute": 1)", R"(, "cmd": "c")"})
        EXPECT_FALSE(job.HasConfigOf(CronJob(Document(std::string(config) + more)))) << more;
}

TEST(CronJobTexts, ShareOneBlockAndStayEqual) {
    const FixedClock clock(1700000000);
    std::vector<CronJob> jobs;
    for (const char *name : {"a", "b", "a-job-with-quite-a-long-name"})
        jobs.emplace_back(Document(R"("name": ")" + std::string(name) +
                                   R"(", "user": "root", "period": "d", "cmd": "/bin/)" + name +
                                   "\""));
    jobs.emplace_back(); // an invalid job
    jobs.emplace_back(Document(R"("name": "kept as JSON", "user": "root", "period": "d",
                                  "cmd": "b", "x": ")" +
                               std::string(100000, 'x') + "\""));
    const std::vector<CronJob> before = jobs;
    ShareTexts(jobs);
    const std::vector<CronJob> copies = jobs;
    jobs.erase(jobs.begin()); // the other jobs keep the shared block
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

TEST(CronJobConstruction, FillsInACompleteJob) {
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

TEST(CronJobConstruction, KeepsTheRuntimeMembers) {
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

TEST(CronJobConstruction, UsesTheCrontabOfThePeriod) {
    struct Row {
        const char *period;
        const char *schedule; // "R" for each random item
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

TEST(CronJobConstruction, ReportsTheViolatedRule) {
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

TEST(CronJobConstruction, IncludesAnEarlierErrno) {
    const SyslogCapture log;
    errno = ENOENT;
    const CronJob job(FromText("{}"));
    const std::string error = "No such file or directory";
    EXPECT_THAT(log.Texts("cronjob"),
                ElementsAre("Failed [!_jsJob.isMember(\"config\") || !jsConf.isObject()], err=" +
                                error + " (" + error + ")",
                            "crontab format error (" + error + ")"));
}

TEST(CronJobConstruction, ReportsWhatCannotBeParsed) {
    struct Row {
        const char *members; // in addition to name and user
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

TEST(CronJobConstruction, ReturnsTheFaultsInsteadOfMessages) {
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

TEST(CronJobConstruction, KeepsADocumentThatViolatesARule) {
    const SyslogCapture log;
    EXPECT_EQ(CronJob(FromText("{}")).Document(), FromText(R"({"config": null})"));
    const char *nameless = R"({"config": {"user": "root", "period": "d", "cmd": "b"}})";
    EXPECT_EQ(CronJob(FromText(nameless)).Document(), FromText(nameless));
    const char *commandless = R"({"config": {"name": "a", "user": "root", "period": "d"}})";
    EXPECT_EQ(CronJob(FromText(commandless)).Document(), FromText(commandless));
}

// A message may contain text of an author, and has one line.
TEST(CronJobConstruction, EscapesLineBreaksInMessages) {
    const SyslogCapture log;
    const CronJob job = CrontabJob("1\n2 * * * *");
    EXPECT_FALSE(job.valid);
    EXPECT_THAT(log.Texts("cronjob"), ElementsAre("1\\n2 is not a valid number", "parse error"));
}

TEST(CronJobConstruction, KeepsTheItemsBeforeAnInvalidOne) {
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

} // namespace

} // namespace kest
