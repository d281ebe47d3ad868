#include "job/cronjob.h"

#include "base/json_text.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/json_text.h"
#include "tests/unit/syslog_capture.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest {

namespace {

using testing::IsEmpty;

const char *const kFixed = R"({"config": {"name": "t", "user": "root", "cmd": "true",
    "period": "crontab", "crontab": "0 3 * * *", "assure_execute": 7,
    "assure_execute_action": "run", "run_on_passive": true}, "startup": 17,
    "schedule": {"Minute": [0], "hour": [3], "day": [-1], "month": [-1], "week": [-1]}})";

TEST(ScheduleTemplate, IsTheBuiltInTemplate) {
    const FixedClock clock(1700000000);
    const SyslogCapture log;
    const ScheduleTemplate scheduleTemplate;
    EXPECT_TRUE(scheduleTemplate.valid);
    EXPECT_EQ(scheduleTemplate.maxDelay, 300);
    Json::Value document = scheduleTemplate.Document();
    document.removeMember("schedule");
    EXPECT_EQ(document, FromText(R"({"config": {"name": "scheduleTemplate", "user": "root",
        "cmd": "true", "period": "crontab", "crontab": "~ ~ ~ ~ ~", "assure_execute": 0,
        "assure_execute_action": "wait", "run_on_passive": false}, "startup": 1700000000,
        "cmd_list": ["true"], "cmd_str": "true"})"));
    EXPECT_TRUE(log.Messages().empty());
}

TEST(ScheduleTemplate, DrawsEachFieldWithinItsRange) {
    struct Row {
        const char *key;
        std::int32_t from;
        std::int32_t to;
    };
    const Row rows[] = {
        {"Minute", 0, 59}, {"hour", 0, 23}, {"day", 1, 28}, {"month", 1, 12}, {"week", 0, 6},
    };
    ScheduleTemplate scheduleTemplate;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.key);
        std::vector<bool> seen(60, false);
        for (int i = 0; i < 1500; ++i) {
            MakeDefaultScheduleTemplate(scheduleTemplate);
            const std::int32_t value = scheduleTemplate.GetSingleScheduleValue(row.key);
            ASSERT_GE(value, row.from);
            ASSERT_LE(value, row.to);
            seen[static_cast<std::size_t>(value)] = true;
        }
        EXPECT_EQ(std::count(seen.begin(), seen.end(), true), row.to - row.from + 1);
    }
}

TEST(MakeDefaultScheduleTemplate, ReplacesALoadedOne) {
    const TemporaryDirectory directory;
    WriteText(directory.File("st"), kFixed);
    ScheduleTemplate scheduleTemplate;
    ASSERT_TRUE(LoadScheduleTemplate(scheduleTemplate, directory.File("st")));
    scheduleTemplate.maxDelay = 7;
    MakeDefaultScheduleTemplate(scheduleTemplate);
    EXPECT_EQ(scheduleTemplate.maxDelay, 300);
    EXPECT_EQ(scheduleTemplate.Name(), "scheduleTemplate");
    EXPECT_EQ(scheduleTemplate.cronFields().at("hour").size(), 1U);
    EXPECT_EQ(scheduleTemplate.cronFields().at("hour")[0].type, CronRange::Random);
}

class TemplateFileTest : public testing::Test {
protected:
    std::string Write(const std::string &text) {
        std::string path = directory_.File("st.config");
        WriteText(path, text);
        return path;
    }

    // Loads `path` and expects the template to stay what it was.
    void ExpectLoadFails(const std::string &path) {
        scheduleTemplate_.maxDelay = 1234;
        scheduleTemplate_.scheduleText = "text";
        const ScheduleTemplate before = scheduleTemplate_;
        EXPECT_FALSE(LoadScheduleTemplate(scheduleTemplate_, path));
        EXPECT_EQ(scheduleTemplate_.Document(), before.Document());
        EXPECT_EQ(scheduleTemplate_.maxDelay, 1234);
        EXPECT_EQ(scheduleTemplate_.scheduleText, "text");
        EXPECT_TRUE(scheduleTemplate_.valid);
        EXPECT_EQ(scheduleTemplate_.cronFields().size(), 5U);
    }

    TemporaryDirectory directory_;
    ScheduleTemplate scheduleTemplate_;
};

TEST_F(TemplateFileTest, LoadsTheCompleteJob) {
    scheduleTemplate_.scheduleText = "text";
    ASSERT_TRUE(LoadScheduleTemplate(scheduleTemplate_, Write(kFixed)));
    EXPECT_TRUE(scheduleTemplate_.valid);
    EXPECT_EQ(scheduleTemplate_.assureExecute, 7);
    EXPECT_EQ(scheduleTemplate_.assureRun, 1);
    EXPECT_TRUE(scheduleTemplate_.runOnPassive);
    EXPECT_EQ(scheduleTemplate_.scheduleText, "");
    EXPECT_EQ(scheduleTemplate_.Document()["startup"], 17);
    EXPECT_EQ(scheduleTemplate_.RenderSchedule(), "0 3 -1 -1 -1");
    EXPECT_EQ(scheduleTemplate_.cronFields().at("hour")[0].from, 3);
    EXPECT_EQ(scheduleTemplate_.maxDelay, 300);
}

TEST_F(TemplateFileTest, IsReadFromADocumentWithoutMessages) {
    const SyslogCapture log;
    std::vector<DefinitionFault> faults;
    EXPECT_FALSE(TakeScheduleTemplate(scheduleTemplate_, FromText(R"({"maxDelay": 5})"), faults));
    EXPECT_EQ(faults.size(), 1U);
    EXPECT_EQ(scheduleTemplate_.maxDelay, 300);
    EXPECT_TRUE(scheduleTemplate_.valid);
    Json::Value document = FromText(kFixed);
    document["maxDelay"] = 5;
    EXPECT_TRUE(TakeScheduleTemplate(scheduleTemplate_, document, faults));
    EXPECT_EQ(faults.size(), 1U);
    EXPECT_EQ(scheduleTemplate_.maxDelay, 5);
    EXPECT_EQ(scheduleTemplate_.RenderSchedule(), "0 3 -1 -1 -1");
    EXPECT_TRUE(log.Messages().empty());
}

// Loading the template does not draw: each field has its time of the redraw.
TEST_F(TemplateFileTest, DrawsNothingWhenLoading) {
    Json::Value document = FromText(kFixed);
    document["config"]["crontab"] = "~ ~ ~ ~ ~";
    document["schedule"] = FromText(R"({"Minute": [99], "hour": []})");
    ASSERT_TRUE(LoadScheduleTemplate(scheduleTemplate_, Write(JsonToString(document))));
    EXPECT_EQ(scheduleTemplate_.Document()["schedule"], document["schedule"]);
    document.removeMember("schedule");
    ASSERT_TRUE(LoadScheduleTemplate(scheduleTemplate_, Write(JsonToString(document))));
    EXPECT_FALSE(scheduleTemplate_.Document().isMember("schedule"));
}

TEST_F(TemplateFileTest, AcceptsAMaxDelayThatIsANumberOfSeconds) {
    struct Row {
        const char *text;
        std::int32_t maxDelay;
    };
    const Row rows[] = {
        {"0", 0},       {"200", 200},    {"300", 300},         {"2147483647", 2147483647},
        {"-5", 1234},   {"1e12", 1234},  {"\"5\"", 1234},      {"null", 1234},
        {"true", 1234}, {"[5]", 1234},   {"5.5", 1234},        {"2147483648", 1234},
        {"{}", 1234},   {"-1e12", 1234}, {"4294967301", 1234},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        const SyslogCapture log;
        scheduleTemplate_.maxDelay = 1234;
        std::string text = kFixed;
        text.insert(1, std::string(R"("maxDelay": )") + row.text + ", ");
        EXPECT_TRUE(LoadScheduleTemplate(scheduleTemplate_, Write(text)));
        EXPECT_EQ(scheduleTemplate_.maxDelay, row.maxDelay);
        EXPECT_TRUE(log.Messages().empty());
    }
    scheduleTemplate_.maxDelay = 1234;
    EXPECT_TRUE(LoadScheduleTemplate(scheduleTemplate_, Write(kFixed)));
    EXPECT_EQ(scheduleTemplate_.maxDelay, 1234);
}

TEST_F(TemplateFileTest, KeepsTheTemplateWithoutAFile) {
    std::filesystem::create_directory(directory_.File("directory"));
    const std::string paths[] = {
        directory_.File("absent"),
        directory_.File("directory"),
        Write("{"),
        "/dev/null",
    };
    for (const std::string &path : paths) {
        SCOPED_TRACE(path);
        const SyslogCapture log;
        ExpectLoadFails(path);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST_F(TemplateFileTest, KeepsTheTemplateWhenTheJobIsInvalid) {
    struct Row {
        const char *text;
        std::vector<std::string> texts;
    };
    const std::string noConfig = R"(Failed [!_jsJob.isMember("config") || )"
                                 R"(!jsConf.isObject()], err=Success)";
    const Row rows[] = {
        {R"({"maxDelay": 5})", {noConfig, "crontab format error"}},
        {"[]", {noConfig, "crontab format error"}},
        {"null", {noConfig, "crontab format error"}},
        {"5", {noConfig, "crontab format error"}},
        {R"({"config": {"name": "t", "user": "root", "cmd": "true", "period": "yearly"},
             "maxDelay": 5})",
         {"error period", "parse error"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        const SyslogCapture log;
        const std::string path = Write(row.text);
        errno = 0;
        ExpectLoadFails(path);
        std::vector<std::string> expected = row.texts;
        expected.push_back("Failed to parse schedule template from [" + path + "]");
        EXPECT_EQ(log.Texts("cronjob"), expected);
    }
}

TEST_F(TemplateFileTest, SavesTheMaxDelayOnlyWhenItIsNotTheDefault) {
    const std::string path = directory_.File("saved");
    for (const std::int32_t maxDelay : {0, 200, 299, 301}) {
        scheduleTemplate_.maxDelay = maxDelay;
        EXPECT_TRUE(SaveScheduleTemplate(scheduleTemplate_, path, Durability::Process));
        EXPECT_EQ(FromText(ReadText(path))["maxDelay"], maxDelay);
    }
    scheduleTemplate_.maxDelay = 300;
    EXPECT_TRUE(SaveScheduleTemplate(scheduleTemplate_, path, Durability::Reboot));
    EXPECT_EQ(FromText(ReadText(path)), scheduleTemplate_.Document());
    EXPECT_FALSE(FromText(ReadText(path)).isMember("maxDelay"));
}

TEST_F(TemplateFileTest, DropsADefaultMaxDelayThatWasInTheFile) {
    std::string text = kFixed;
    text.insert(1, R"("maxDelay": 300, )");
    const std::string path = Write(text);
    ASSERT_TRUE(LoadScheduleTemplate(scheduleTemplate_, path));
    ASSERT_TRUE(SaveScheduleTemplate(scheduleTemplate_, path, Durability::Process));
    EXPECT_FALSE(FromText(ReadText(path)).isMember("maxDelay"));
}

TEST_F(TemplateFileTest, SavesWhatWasLoadedUnchanged) {
    const std::string path = directory_.File("saved");
    for (const std::int32_t maxDelay : {300, 200, 0}) {
        scheduleTemplate_.maxDelay = maxDelay;
        ASSERT_TRUE(SaveScheduleTemplate(scheduleTemplate_, path, Durability::Process));
        ScheduleTemplate loaded;
        ASSERT_TRUE(LoadScheduleTemplate(loaded, path));
        EXPECT_EQ(loaded.maxDelay, maxDelay);
        Json::Value document = loaded.Document();
        document.removeMember("maxDelay");
        EXPECT_EQ(document, scheduleTemplate_.Document());
        EXPECT_EQ(loaded.RenderSchedule(), scheduleTemplate_.RenderSchedule());
    }
}

TEST_F(TemplateFileTest, ReportsAFailedSave) {
    const SyslogCapture log;
    const Json::Value before = scheduleTemplate_.Document();
    EXPECT_FALSE(
        SaveScheduleTemplate(scheduleTemplate_, directory_.File("absent/st"), Durability::Process));
    EXPECT_FALSE(SaveScheduleTemplate(scheduleTemplate_, directory_.Path(), Durability::Process));
    EXPECT_EQ(scheduleTemplate_.Document(), before);
    EXPECT_THAT(directory_.Names(), IsEmpty());
}

} // namespace

} // namespace kest
