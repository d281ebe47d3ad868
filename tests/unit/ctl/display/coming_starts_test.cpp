#include "ctl/display/coming_starts.h"

#include "job/cronjob.h"
#include "job/schedule.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sstream>

namespace kest::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// A job with the crontab and a drawn schedule, with the values of the fields in `drawn`.
CronJob JobOf(const std::string &crontab, const std::string &drawn = "{}") {
    Json::Value document =
        FromText(R"({"config": {"name": "x", "user": "root", "cmd": "x", "period": "c"}})");
    document["config"]["crontab"] = crontab;
    CronJob job(document);
    EXPECT_TRUE(job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        job.GenerateSchedule(key);
    const Json::Value values = FromText(drawn);
    Json::Value schedule = job.Document()["schedule"];
    for (const std::string &key : values.getMemberNames())
        schedule[key] = values[key];
    return With(job, "schedule", schedule);
}

std::string TimeText(std::time_t moment) {
    std::array<char, 32> text{};
    std::tm local{};
    localtime_r(&moment, &local);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &local);
    return text.data();
}

// "2026-06-02 03:17", or "2026-06-03 00:01..2026-06-04 00:00 Minute,hour".
std::string Text(const ComingStart &start) {
    std::string text = TimeText(start.earliest);
    if (start.undrawn.empty())
        return text;
    text += ".." + TimeText(start.latest) + " ";
    for (const std::string &key : start.undrawn)
        text += (text.back() == ' ' ? "" : ",") + key;
    if (start.usual > 1)
        text += " x" + std::to_string(start.usual);
    return text;
}

std::vector<std::string> Starts(const CronJob &job, std::time_t from, std::size_t count,
                                std::optional<std::time_t> now = std::nullopt) {
    std::vector<std::string> texts;
    for (const ComingStart &start :
         ComingStarts(job.cronFields(), job.Document()["schedule"],
                      {now.value_or(from), from, from + kCalendarRepeats}, count))
        texts.push_back(Text(start));
    return texts;
}

struct StartsRow {
    const char *crontab;
    const char *drawn;
    std::vector<std::string> starts;
};

TEST(ComingStarts, AreExactWithoutRandomFields) {
    const LocalZone zone("UTC0");
    const std::int64_t from = Utc(2026, 6, 2, 2, 10, 30); // a Tuesday
    const StartsRow rows[] = {
        {"* * * * *", "{}", {"2026-06-02 02:10", "2026-06-02 02:11"}},
        {"10 2 * * *", "{}", {"2026-06-02 02:10", "2026-06-03 02:10"}},
        {"9 2 * * *", "{}", {"2026-06-03 02:09", "2026-06-04 02:09"}},
        {"0,30 * * * *", "{}", {"2026-06-02 02:30", "2026-06-02 03:00"}},
        {"59 23 31 12 *", "{}", {"2026-12-31 23:59", "2027-12-31 23:59"}},
        {"0 0 1 12 *", "{}", {"2026-12-01 00:00", "2027-12-01 00:00"}},
        {"0 0 29 2 *", "{}", {"2028-02-29 00:00", "2032-02-29 00:00"}},
        {"0 0 29 2 1", "{}", {"2044-02-29 00:00", "2072-02-29 00:00"}},
        {"0 12 1 * 1", "{}", {"2027-02-01 12:00", "2027-03-01 12:00"}},
        {"0 0 30 2 *", "{}", {}},
        {"0 0 31 4,6,9,11 *", "{}", {}},
    };
    for (const StartsRow &row : rows)
        EXPECT_EQ(Starts(JobOf(row.crontab, row.drawn), from, 2), row.starts) << row.crontab;
}

TEST(ComingStarts, HaveBoundsAfterTheNextRedraw) {
    const LocalZone zone("UTC0");
    const std::int64_t from = Utc(2026, 6, 2, 2, 10, 30); // a Tuesday
    const StartsRow rows[] = {
        // Hourly: the minute is drawn for this hour and valid up to the minute of the next redraw.
        {"~ * * * *",
         R"({"Minute": [17]})",
         {"2026-06-02 02:17", "2026-06-02 03:01..2026-06-02 04:00 Minute"}},
        {"~ * * * *",
         R"({"Minute": [5]})",
         {"2026-06-02 03:01..2026-06-02 04:00 Minute",
          "2026-06-02 04:01..2026-06-02 05:00 Minute"}},
        {"~ * * * *",
         R"({"Minute": [0]})",
         {"2026-06-02 03:00", "2026-06-02 03:01..2026-06-02 04:00 Minute"}},
        {"10~20 5 * * *",
         R"({"Minute": [10]})",
         {"2026-06-02 05:10..2026-06-02 05:20 Minute",
          "2026-06-03 05:10..2026-06-03 05:20 Minute"}},
        // Daily: the hour is valid today, the minute in this hour.
        {"~ ~ * * *",
         R"({"Minute": [17], "hour": [2]})",
         {"2026-06-02 02:17", "2026-06-03 00:01..2026-06-04 00:00 Minute,hour"}},
        {"~ ~ * * *",
         R"({"Minute": [17], "hour": [5]})",
         {"2026-06-02 05:00..2026-06-02 05:59 Minute",
          "2026-06-03 00:01..2026-06-04 00:00 Minute,hour"}},
        {"30 ~ * * *",
         R"({"hour": [1]})",
         {"2026-06-03 00:30..2026-06-03 23:30 hour", "2026-06-04 00:30..2026-06-04 23:30 hour"}},
        // Monthly: the day is valid in this month.
        {"0 0 ~ * *",
         R"({"day": [20]})",
         {"2026-06-20 00:00", "2026-07-02 00:00..2026-08-01 00:00 day"}},
        {"0 12 10~12 * *",
         R"({"day": [1]})",
         {"2026-07-10 12:00..2026-07-12 12:00 day", "2026-08-10 12:00..2026-08-12 12:00 day"}},
        // Weekly: the weekday is valid until Monday.
        {"0 12 * * ~",
         R"({"week": [0]})",
         {"2026-06-07 12:00", "2026-06-08 12:00..2026-06-14 12:00 week"}},
        // A single remaining minute of a draw is merged into the next start.
        {"~ ~ * * ~",
         R"({"Minute": [32], "hour": [2], "week": [1]})",
         {"2026-06-08 00:00..2026-06-15 00:00 Minute,hour,week",
          "2026-06-15 00:01..2026-06-22 00:00 Minute,hour,week"}},
        {"0 12 * ~ *", R"({"month": [6]})", {"2026-06-02 12:00", "2026-06-03 12:00"}},
        {"0 12 1 ~ *",
         R"({"month": [3]})",
         {"2027-01-01 12:00..2027-12-01 12:00 month", "2028-01-01 12:00..2028-12-01 12:00 month"}},
        // Fixed values next to random ones are exact.
        {"5,~ 3 * * *",
         R"({"Minute": [5, 7]})",
         {"2026-06-02 03:01..2026-06-02 03:59 Minute", "2026-06-02 03:05"}},
        {"0 0 30~31 2 *", R"({"day": [30]})", {}},
        // Each random item has a start of its own, and so has each value within a draw. A minute
        // that is drawn as 0 matches in the next hour.
        {"0~29,30~59 * * * *",
         R"({"Minute": [5, 45]})",
         {"2026-06-02 02:45", "2026-06-02 03:01..2026-06-02 04:00 Minute"}},
        {"1~29,30~59 * * * *",
         R"({"Minute": [5, 8]})",
         {"2026-06-02 03:01..2026-06-02 03:29 Minute",
          "2026-06-02 03:30..2026-06-02 03:59 Minute"}},
        {"0,30 8~17 * * *",
         R"({"hour": [1]})",
         {"2026-06-03 08:00..2026-06-03 17:00 hour", "2026-06-03 08:30..2026-06-03 17:30 hour"}},
        {"* ~ * * *",
         R"({"hour": [1]})",
         {"2026-06-03 00:01..2026-06-04 00:00 hour x60",
          "2026-06-04 00:01..2026-06-05 00:00 hour x60"}},
        {"0 12 * ~ 1",
         R"({"month": [5]})",
         {"2027-01-04 12:00..2027-12-27 12:00 month x5",
          "2028-01-03 12:00..2028-12-25 12:00 month x5"}},
    };
    for (const StartsRow &row : rows)
        EXPECT_EQ(Starts(JobOf(row.crontab, row.drawn), from, 2), row.starts) << row.crontab;
}

TEST(ComingStarts, FromALaterTimeConsiderRedrawsBefore) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30); // a Tuesday
    const CronJob hourly = JobOf("~ * * * *", R"({"Minute": [17]})");
    EXPECT_THAT(Starts(hourly, now + 60, 1, now), ElementsAre("2026-06-02 02:17"));
    EXPECT_THAT(Starts(hourly, Utc(2026, 6, 2, 22, 0), 2, now),
                ElementsAre("2026-06-02 22:00..2026-06-02 23:00 Minute",
                            "2026-06-02 23:01..2026-06-03 00:00 Minute"));
    const CronJob daily = JobOf("~ ~ * * *", R"({"Minute": [17], "hour": [22]})");
    EXPECT_THAT(Starts(daily, Utc(2026, 6, 2, 22, 0), 1, now),
                ElementsAre("2026-06-02 22:00..2026-06-02 22:59 Minute"));
    EXPECT_THAT(Starts(daily, Utc(2026, 6, 10, 12, 0), 1, now),
                ElementsAre("2026-06-10 12:00..2026-06-11 00:00 Minute,hour"));
}

TEST(ComingStarts, FollowLocalTime) {
    const LocalZone zone("Europe/Berlin");
    // 02:00 becomes 03:00 on 29 March, and 03:00 becomes 02:00 on 25 October.
    EXPECT_THAT(Starts(JobOf("30 2 * * *"), Utc(2026, 3, 28, 12, 0), 2),
                ElementsAre("2026-03-30 02:30", "2026-03-31 02:30"));
    const std::vector<ComingStart> twice = ComingStarts(
        JobOf("30 2 * * *").cronFields(), JobOf("30 2 * * *").Document()["schedule"],
        {Utc(2026, 10, 24, 12, 0), Utc(2026, 10, 24, 12, 0), Utc(2027, 1, 1, 0, 0)}, 3);
    ASSERT_THAT(twice, SizeIs(3));
    EXPECT_EQ(twice[0].earliest, Utc(2026, 10, 25, 0, 30));
    EXPECT_EQ(twice[1].earliest, Utc(2026, 10, 25, 1, 30));
    EXPECT_EQ(twice[2].earliest, Utc(2026, 10, 26, 1, 30));
}

TEST(NextRedraw, HandlesZoneChangesOfHalfAnHour) {
    const LocalZone zone("Australia/Lord_Howe");
    // At 02:00 on 5 April 2026 the clock is set back to 01:30.
    EXPECT_EQ(NextRedraw("Minute", Utc(2026, 4, 4, 14, 10)), Utc(2026, 4, 4, 15, 30));
    EXPECT_EQ(NextRedraw("Minute", Utc(2026, 4, 4, 15, 30)), Utc(2026, 4, 4, 16, 30));
    // And on 4 October from 02:00 forward to 02:30.
    EXPECT_EQ(NextRedraw("Minute", Utc(2026, 10, 3, 15, 10)), Utc(2026, 10, 3, 16, 0));
}

TEST(NextRedraw, IsAtTheMidnightOfEachField) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30); // a Tuesday
    EXPECT_EQ(NextRedraw("Minute", now), Utc(2026, 6, 2, 3, 0));
    EXPECT_EQ(NextRedraw("hour", now), Utc(2026, 6, 3, 0, 0));
    EXPECT_EQ(NextRedraw("day", now), Utc(2026, 7, 1, 0, 0));
    EXPECT_EQ(NextRedraw("month", now), Utc(2027, 1, 1, 0, 0));
    EXPECT_EQ(NextRedraw("week", now), Utc(2026, 6, 8, 0, 0));
    const std::time_t monday = Utc(2024, 1, 1, 0, 0); // redraws all fields
    for (const std::string &key : FieldKeys())
        EXPECT_EQ(NextRedraw(key, monday - 1), monday) << key;
    EXPECT_EQ(NextRedraw("week", monday), Utc(2024, 1, 8, 0, 0));
    EXPECT_EQ(NextRedraw("month", monday), Utc(2025, 1, 1, 0, 0));
    EXPECT_EQ(NextRedraw("day", monday), Utc(2024, 2, 1, 0, 0));
}

TEST(ComingStarts, AreEmptyWithoutASchedule) {
    const LocalZone zone("UTC0");
    EXPECT_THAT(ComingStarts({}, Json::Value(), {0, 0, kCalendarRepeats}, 3), IsEmpty());
    EXPECT_THAT(ComingStarts({}, Json::Value(), {INT64_MAX, INT64_MAX, INT64_MAX}, 3), IsEmpty());
    // A job with an invalid stored draw is not due until the next redraw.
    EXPECT_THAT(Starts(JobOf("5 3 * * *", R"({"hour": "x"})"), Utc(2026, 6, 2, 2, 10), 1),
                ElementsAre("2026-06-03 03:05"));
}

// --- Against a simulation of the daemon, minute by minute ---------------------------------------

constexpr std::time_t kDay = 86400;

std::string RandomField(std::mt19937 &bits, int low, int high) {
    const auto number = [&bits](int from, int to) {
        return std::uniform_int_distribution<int>(from, to)(bits);
    };
    const auto range = [&] {
        const int from = number(low, high);
        return std::to_string(from) + "~" + std::to_string(number(from, high));
    };
    switch (number(0, 5)) {
    case 0:
    case 1:
        return "*";
    case 2:
        return "~";
    case 3:
        return std::to_string(number(low, high)) + "," + std::to_string(number(low, high));
    case 4:
        return range() + "," + range() + "," + std::to_string(number(low, high));
    default:
        return range();
    }
}

// The minutes in which the job starts in `days`, with redraws.
std::vector<std::time_t> Simulate(CronJob job, std::time_t from, std::time_t days,
                                  FixedClock &clock) {
    std::vector<std::time_t> starts;
    for (std::time_t moment = from; moment < from + days * kDay; moment += 60) {
        clock.Set(moment);
        if (job.IsDueNow())
            starts.push_back(moment);
        std::tm local{};
        localtime_r(&moment, &local);
        if (moment > from)
            for (const std::string &key : FieldsToRedraw(local))
                job.GenerateSchedule(key);
    }
    return starts;
}

// The number of simulated starts, and the predicted upper bound of it.
std::size_t CountIn(const std::vector<std::time_t> &starts, std::time_t begin, std::time_t end) {
    return static_cast<std::size_t>(std::lower_bound(starts.begin(), starts.end(), end) -
                                    std::lower_bound(starts.begin(), starts.end(), begin));
}
std::size_t MostIn(const std::vector<ComingStart> &coming, std::time_t begin, std::time_t end) {
    std::size_t most = 0;
    for (const ComingStart &start : coming)
        if (start.earliest < end && start.latest >= begin)
            most += start.most;
    return most;
}

TEST(ComingStarts, MatchASimulation) {
    const LocalZone zone("Europe/Berlin");
    FixedClock clock(0);
    for (unsigned round = 0; round < 120; ++round) {
        std::mt19937 bits(round);
        const CronJob job = JobOf(RandomField(bits, 0, 59) + " " + RandomField(bits, 0, 23) + " " +
                                  RandomField(bits, 1, 31) + " * " + RandomField(bits, 0, 6));
        SCOPED_TRACE(job.Document()["config"]["crontab"].asString());
        constexpr std::time_t days = 9;
        const std::time_t from =
            Utc(2026, 3, 25, static_cast<int>(round % 24), static_cast<int>(round));
        const std::vector<std::time_t> simulated = Simulate(job, from, days, clock);
        const std::vector<ComingStart> coming = ComingStarts(
            job.cronFields(), job.Document()["schedule"], {from, from, from + days * kDay}, 20000);
        for (const std::time_t moment : simulated)
            ASSERT_TRUE(std::any_of(coming.begin(), coming.end(),
                                    [moment](const ComingStart &start) {
                                        return start.earliest <= moment && moment <= start.latest;
                                    }))
                << TimeText(moment);
        for (const ComingStart &start : coming) {
            const bool certain = start.undrawn.empty() && start.earliest < from + days * kDay;
            ASSERT_TRUE(!certain ||
                        std::binary_search(simulated.begin(), simulated.end(), start.earliest))
                << TimeText(start.earliest);
        }
        for (std::time_t begin = from; begin < from + days * kDay; begin += kDay / 4)
            ASSERT_LE(CountIn(simulated, begin, begin + kDay / 4),
                      MostIn(coming, begin, begin + kDay / 4))
                << TimeText(begin);
    }
}

} // namespace

} // namespace kest::ctl
