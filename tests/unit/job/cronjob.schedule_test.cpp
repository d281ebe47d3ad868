#include "job/cronjob.h"

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

TEST(GenerateFieldSchedule, UsesTheTemplateValueIfItFits) {
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

TEST(GenerateFieldSchedule, ReplacesThePreviousValue) {
    for (const char *schedule : {"null", "5", "[]", R"("x")", R"({"hour": "x"})",
                                 R"({"hour": [1, 2, 3]})", R"({"hour": {"a": 1}})"}) {
        SCOPED_TRACE(schedule);
        CronJob job = With(CrontabJob("* 7 * * *"), "schedule", FromText(schedule));
        job.GenerateSchedule("hour");
        EXPECT_EQ(job.Document()["schedule"], FromText(R"({"hour": [7]})"));
    }
}

TEST(GenerateFieldSchedule, IgnoresOtherKeys) {
    CronJob job = CrontabJob("* * * * *");
    const Json::Value before = job.Document();
    job.GenerateSchedule("fortnight");
    EXPECT_EQ(job.Document(), before);
    EXPECT_FALSE(job.MatchField("fortnight", 1));
}

TEST(GenerateSchedule, RedrawsOnEachCall) {
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

TEST(GetSingleScheduleValue, ReturnsASingleValueOnly) {
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

TEST(MatchField, ChecksItsOwnField) {
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
        {"0 0 1 * 1", Utc(2026, 4, 1, 0, 0), false}, // the 1st, not a Monday
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

TEST(IsDueNow, UsesLocalTime) {
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

TEST(IsDueNow, IsFalseInAllOtherMinutesOfAMonth) {
    const LocalZone zone("UTC0");
    const CronJob job = ScheduledJob("15,45 10 * * 1");
    FixedClock clock(0);
    const std::int64_t start = Utc(2026, 6, 1, 0, 0);
    constexpr std::int64_t day = 1440; // minutes
    for (std::int64_t minute = 0; minute < 30 * day; ++minute) {
        clock.Set(start + minute * 60);
        const std::int64_t ofDay = minute % day;
        const bool monday = minute / day % 7 == 0; // the month begins on a Monday
        ASSERT_EQ(job.IsDueNow(), monday && (ofDay == 615 || ofDay == 645)) << minute;
    }
}

TEST(IsDueNow, IsFalseWithoutACompleteSchedule) {
    const FixedClock clock(Utc(2026, 3, 4, 5, 6));
    for (const std::string &key : FieldKeys()) {
        const CronJob job = ScheduledJob("* * * * *");
        ASSERT_TRUE(job.IsDueNow());
        Json::Value schedule = job.Document()["schedule"];
        schedule.removeMember(key);
        EXPECT_FALSE(With(job, "schedule", schedule).IsDueNow()) << key;
    }
}

TEST(IsDueNow, ReportsATimeThatCannotBeConverted) {
    const FixedClock clock(INT64_MAX);
    CronJob job = ScheduledJob("* * * * *");
    const SyslogCapture log;
    EXPECT_FALSE(job.IsDueNow());
    EXPECT_THAT(log.Texts("cronjob"),
                ElementsAre("Failed to get localtime (Value too large for defined data type)"));
}

TEST(CheckTrigger, SetsTheTimeOfADueJob) {
    const LocalZone zone("UTC0");
    const std::int64_t now = Utc(2040, 3, 4, 3, 17, 5);
    const FixedClock clock(now);
    CronJob job = ScheduledJob("17 3 * * *");
    EXPECT_TRUE(job.CheckTrigger());
    EXPECT_EQ(job.Document()["expireTime"].asInt64(), now);
    EXPECT_EQ(job.scheduleText, "17 3 -1 -1 -1");
    EXPECT_EQ(job.RenderSchedule(), "17 3 -1 -1 -1");
}

TEST(CheckTrigger, ReplacesAnEarlierMatch) {
    const LocalZone zone("UTC0");
    const std::int64_t now = Utc(2026, 3, 4, 3, 17);
    const FixedClock clock(now);
    CronJob job = With(ScheduledJob("17 3 * * *"), "expireTime", 42);
    job.scheduleText = "as before";
    EXPECT_TRUE(job.CheckTrigger());
    EXPECT_EQ(job.Document()["expireTime"].asInt64(), now);
    EXPECT_EQ(job.scheduleText, "17 3 -1 -1 -1");
}

// A minute may have two cycles, and it occurs twice if the clock is set back.
TEST(CheckTrigger, DoesNotNeedAnEarlierRun) {
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
        {2, R"({"lastExecution": 9e30, "startup": "x"})", true}, // not a valid time, and no startup
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

} // namespace

} // namespace kest
