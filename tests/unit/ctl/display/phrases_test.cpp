#include "ctl/display/phrases.h"

#include "job/cron_field.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"

#include <array>
#include <gtest/gtest.h>
#include <sstream>

namespace kest::ctl {

namespace {

// A schedule from five arrays without their brackets, separated by blanks.
Json::Value Schedule(const std::string &fields) {
    std::istringstream stream(fields);
    Json::Value schedule;
    for (const std::string &key : FieldKeys()) {
        std::string values;
        stream >> values;
        schedule[key] = FromText("[" + values + "]");
    }
    return schedule;
}

TEST(ScheduleInWords, DescribesSchedules) {
    struct {
        const char *schedule;
        const char *words;
    } const rows[] = {
        {"-1 -1 -1 -1 -1", "every minute"},
        {"5 -1 -1 -1 -1", "hourly at minute 5"},
        {"0,30 -1 -1 -1 -1", "hourly at minutes 0 and 30"},
        {"0,20,40 -1 -1 -1 -1", "every 20 minutes"},
        {"0,5,10,15,20,25,30,35,40,45,50,55 -1 -1 -1 0", "every 5 minutes, on Sundays"},
        {"1,21,41 -1 -1 -1 -1", "hourly at minutes 1, 21 and 41"},
        {"0,20,41 -1 -1 -1 -1", "hourly at minutes 0, 20 and 41"},
        {"0,10,20 -1 -1 -1 -1", "hourly at minutes 0, 10 and 20"},
        {"-1 3 -1 -1 -1", "every minute of hour 3"},
        {"-1 3,5 -1 -1 -1", "every minute of hours 3 and 5"},
        {"17 3 -1 -1 -1", "daily at 03:17"},
        {"17,47 3 -1 -1 -1", "daily at 03:17 and 03:47"},
        {"47,17,17 3 -1 -1 -1", "daily at 03:17 and 03:47"},
        {"0 1,2,3,4 -1 -1 -1", "daily at 01:00, 02:00, 03:00 and 04:00"},
        {"0 1,2,3,4,5 -1 -1 -1", "daily at minute 0 of hours 1 to 5"},
        {"0,15,30,45 8,9,10,17 -1 -1 -1",
         "daily at minutes 0, 15, 30 and 45 of hours 8 to 10 and 17"},
        {"30 0 -1 -1 2", "on Tuesdays at 00:30"},
        {"30 0 -1 -1 1,2,3,4,5", "on Mondays to Fridays at 00:30"},
        {"30 0 -1 -1 0,6", "on Sundays and Saturdays at 00:30"},
        {"30 0 -1 7 2", "on Tuesdays in July at 00:30"},
        {"17 3 17 -1 -1", "monthly on the 17th at 03:17"},
        {"17 3 1,2,3,11,12,13,21,22,23 -1 -1",
         "monthly on the 1st to 3rd, 11th to 13th and 21st to 23rd at 03:17"},
        {"17 3 1 3 -1", "yearly on the 1st of March at 03:17"},
        {"17 3 13 -1 5", "on Fridays that are the 13th at 03:17"},
        {"17 3 29 2 0", "on Sundays that are the 29th of February at 03:17"},
        {"17 3 -1 1,2 -1", "daily in January and February at 03:17"},
        {"-1 -1 -1 12 -1", "every minute, daily in December"},
        {"-1 4 1 -1 -1", "monthly on the 1st, every minute of hour 4"},
        {"5 -1 -1 -1 0", "hourly at minute 5, on Sundays"},
        {"-1,5 -1 -1 -1 -1", "every minute"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ScheduleInWords(Schedule(row.schedule)), row.words) << row.schedule;
}

TEST(ScheduleInWords, MarksDrawnValues) {
    struct {
        const char *crontab;
        const char *schedule;
        const char *words;
    } const rows[] = {
        {"17 3 * * *", "17 3 -1 -1 -1", "daily at 03:17"},
        {"~ 3 * * *", "17 3 -1 -1 -1", "daily at 03:~17"},
        {"~ ~ * * ~", "14 4 -1 -1 5", "on ~Fridays at ~04:~14"},
        {"5,~ * * * *", "5,17 -1 -1 -1 -1", "hourly at minutes 5 and ~17"},
        {"5,~ * * * *", "5,5 -1 -1 -1 -1", "hourly at minute 5"},
        {"0 1,2,~,4 * * *", "0 1,2,3,4 -1 -1 -1", "daily at 01:00, 02:00, ~03:00 and 04:00"},
        {"0 8,9,10,11,~ * * *", "0 8,9,10,11,12 -1 -1 -1",
         "daily at minute 0 of hours 8 to 11 and ~12"},
        {"0 0 ~ 3 *", "0 0 9 3 -1", "yearly on the ~9th of March at 00:00"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ScheduleInWords(Schedule(row.schedule), CrontabJob(row.crontab).cronFields()),
                  row.words)
            << row.crontab;
}

TEST(ScheduleInWords, IsNeverForInvalidSchedules) {
    EXPECT_EQ(ScheduleInWords(Json::Value()), "never");
    EXPECT_EQ(ScheduleInWords(FromText(R"({"Minute": [1]})")), "never");
    EXPECT_EQ(ScheduleInWords(FromText("[1]")), "never");
}

TEST(ScheduleInWords, AcceptsNumbersOutOfRange) {
    EXPECT_EQ(ScheduleInWords(Schedule("99 -5 77 13 9")),
              "on 9s that are the 77th of 13 at 0-5:99");
}

TEST(Enumerated, JoinsTexts) {
    EXPECT_EQ(Enumerated({}), "");
    EXPECT_EQ(Enumerated({"a"}), "a");
    EXPECT_EQ(Enumerated({"a", "b"}), "a and b");
    EXPECT_EQ(Enumerated({"a", "b", "c"}), "a, b and c");
}

TEST(FieldsInWords, JoinsNames) {
    EXPECT_EQ(FieldsInWords({"Minute", "hour", "week"}), "minute, hour and weekday");
}

TEST(StartInWords, ShowsATimeOrItsBounds) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10);
    const std::time_t tomorrow = Utc(2026, 6, 3, 0, 0);
    struct {
        ComingStart start;
        const char *words;
        const char *inShort;
    } const rows[] = {
        {{now, now, {}}, "today 02:10", "02:10"},
        {{tomorrow, tomorrow + 86340, {"hour"}},
         "tomorrow between 00:00 and 23:59",
         "Wed 00:00-23:59"},
        {{Utc(2026, 6, 8, 0, 1), Utc(2026, 6, 15, 0, 0), {"week"}},
         "between Mon 8 Jun 00:01 and Mon 15 Jun 00:00",
         "Mon - 14 Jun"},
        {{tomorrow + 60, tomorrow + 86400, {"hour"}},
         "tomorrow between 00:01 and 24:00",
         "Wed 00:01-24:00"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(StartInWords(row.start, now), row.words);
        EXPECT_EQ(StartInShort(row.start, now), row.inShort);
    }
}

TEST(UndrawnInWords, RemarksOnDaysThatAMonthMayNotHave) {
    const LocalZone zone("UTC0");
    const std::string remark = ", no start if the month has no such day";
    const struct {
        const char *crontab;
        int month;
        std::vector<std::string> undrawn;
        std::string words;
    } rows[] = {
        {"0 0 ~ * *", 2, {"day"}, "day not yet drawn"},
        {"0 0 28~31 * *", 4, {"day"}, "day not yet drawn" + remark},
        {"0 0 28~31 * *", 5, {"day"}, "day not yet drawn"},
        {"0 0 28~30 * *", 4, {"day"}, "day not yet drawn"},
        {"0 0 28~30 * *", 2, {"day"}, "day not yet drawn" + remark},
        {"0 0 31 ~ *", 1, {"month"}, "month not yet drawn" + remark},
        {"0 0 30 3~12 *", 3, {"month"}, "month not yet drawn"},
        {"0 0 1,31 ~ *", 1, {"month"}, "month not yet drawn"},
        {"0 0 * ~ *", 1, {"month"}, "month not yet drawn"},
        {"0 0 29~30 2~3 *", 2, {"day", "month"}, "day and month not yet drawn" + remark},
        {"~ 0 31 * *", 5, {"Minute"}, "minute not yet drawn"},
    };
    for (const auto &row : rows) {
        ComingStart start;
        start.earliest = start.latest = Utc(2026, row.month, 28, 0, 0);
        start.undrawn = row.undrawn;
        EXPECT_EQ(UndrawnInWords(start, CrontabJob(row.crontab).cronFields()), row.words)
            << row.crontab;
    }
}

} // namespace

} // namespace kest::ctl
