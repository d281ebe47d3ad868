#include "ctl/display/timeline.h"

#include "base/json_text.h"
#include "tests/unit/support/timelines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

TEST(CollectStarts, CollectsStartsAndCountsIdleJobs) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30);
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    const std::vector<LiveJob> jobs = {Job("minutely", "* * * * *"),
                                       Job("at the first minute", "10 2 * * *"),
                                       Job("at the last minute", "9 4 * * *"),
                                       Job("at the end", "10 4 * * *"), Job("never", "0 0 31 2 *")};
    const TimelineData hours = CollectStarts(jobs, {}, 0, now, 2);
    EXPECT_EQ(hours.from, from);
    EXPECT_EQ(hours.until, from + 2 * kHour);
    EXPECT_EQ(hours.idle, 2U);
    ASSERT_EQ(hours.rows.size(), 3U);
    EXPECT_EQ(hours.rows[0].name, "minutely");
    EXPECT_EQ(hours.rows[0].starts.size(), 120U);
    EXPECT_EQ(hours.rows[1].starts.front().earliest, from);
    EXPECT_EQ(hours.rows[2].starts.front().earliest, hours.until - kMinute);
}

TEST(CollectStarts, ConsidersPassiveAndHeldMachines) {
    const LocalZone zone("UTC0");
    Daemon daemon;
    daemon.pid = 1;
    daemon.passive = daemon.held = true;
    const TimelineData hours =
        CollectStarts({Job("a", "* * * * *")}, daemon, 300, Utc(2026, 6, 2, 2, 10), 1);
    EXPECT_TRUE(hours.held);
    EXPECT_TRUE(hours.rows.empty());
    EXPECT_EQ(hours.idle, 1U);
}

TEST(CollectStarts, MarksOverdueStarts) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10);
    const std::string ran = std::to_string(now - 23 * kHour);
    const TimelineData hours = CollectStarts(
        {Job("a", "0 6 1 * *", R"({"hours": 24, "lastExecution": )" + ran + "}")}, {}, 300, now, 2);
    ASSERT_EQ(hours.rows.size(), 1U);
    ASSERT_EQ(hours.rows[0].starts.size(), 1U);
    EXPECT_TRUE(hours.rows[0].starts[0].overdue);
    EXPECT_EQ(hours.rows[0].starts[0].earliest, now + kHour);
}

TEST(LoadOf, CountsStartsInQuarterHoursOfLocalTime) {
    const LocalZone zone("XXX-5:30");                // India
    const std::time_t from = Utc(2026, 6, 2, 2, 40); // 08:10 there
    const std::vector<QuarterHour> load = LoadOf(
        TimelineOf(from, 1,
                   {{"a", {Known(from), Known(from + 4 * kMinute), Known(from + 5 * kMinute)}},
                    {"b", {Band(from + 5 * kMinute, from + 20 * kMinute)}},
                    {"c", {Overdue(from + 59 * kMinute)}},
                    {"d", {Band(from + 59 * kMinute, from + 48 * kHour)}}}));
    struct Row {
        std::time_t from;
        std::size_t starts;
        std::size_t possible;
    };
    const Row rows[] = {{from - 10 * kMinute, 2, 0},
                        {from + 5 * kMinute, 1, 1},
                        {from + 20 * kMinute, 0, 1},
                        {from + 35 * kMinute, 0, 0},
                        {from + 50 * kMinute, 1, 1}};
    ASSERT_EQ(load.size(), std::size(rows));
    for (std::size_t i = 0; i < load.size(); ++i) {
        EXPECT_EQ(load[i].from, rows[i].from) << i;
        EXPECT_EQ(load[i].starts, rows[i].starts) << i;
        EXPECT_EQ(load[i].possible, rows[i].possible) << i;
    }
    EXPECT_EQ(MaximumOf(load), 2U);
    EXPECT_EQ(MaximumOf({}), 0U);
}

TEST(ClockMarksOf, FollowsLocalTime) {
    struct Row {
        const char *zone;
        std::time_t from;
        std::size_t hours;
        std::vector<std::string> whole; // hours, "!" before the first mark of a day
    };
    const Row rows[] = {
        {"UTC0", Utc(2026, 6, 2, 22, 10), 4, {"23:00", "!00:00", "01:00", "02:00"}},
        {"UTC0", Utc(2026, 6, 2, 0, 0), 2, {"!00:00", "01:00"}},
        // Set forward at 02:00, and set back at 03:00.
        {"CET-1CEST,M3.5.0,M10.5.0/3", Utc(2026, 3, 29, 0, 0), 3, {"01:00", "03:00", "04:00"}},
        {"CET-1CEST,M3.5.0,M10.5.0/3", Utc(2026, 10, 25, 0, 0), 3, {"02:00", "02:00", "03:00"}},
        // A day without a midnight.
        {"XXX-2YYY,M3.5.0/0,M10.5.0/0", Utc(2026, 3, 28, 21, 0), 3, {"23:00", "!01:00", "02:00"}},
        // The first minutes of a day.
        {"UTC0", Utc(2026, 6, 2, 0, 1), 1, {"01:00"}},
    };
    for (const Row &row : rows) {
        const LocalZone zone(row.zone);
        std::vector<std::string> whole;
        for (const ClockMark &mark : ClockMarksOf(TimelineOf(row.from, row.hours, {})))
            if (mark.minuteOfDay % 60 == 0) {
                std::string text = std::to_string(100 + mark.minuteOfDay / 60).substr(1) + ":00";
                whole.push_back((mark.newDay ? "!" : "") + text);
            }
        EXPECT_EQ(whole, row.whole) << row.zone << " " << row.from;
    }
}

TEST(MinutesBetweenLabels, DependsOnTheScale) {
    EXPECT_EQ(MinutesBetweenLabels(1, 7), 15);
    EXPECT_EQ(MinutesBetweenLabels(0.25, 7), 30);
    EXPECT_EQ(MinutesBetweenLabels(60.0 / 1440, 7), 180);
    EXPECT_EQ(MinutesBetweenLabels(0.001, 7), 1440);
}

TEST(TimelineToJson, WritesStartsAndLoad) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 0);
    const Json::Value json = TimelineToJson(TimelineOf(
        from, 1, {{"a", {Known(from + kMinute), Band(from + 16 * kMinute, from + kHour)}}}, 3));
    EXPECT_EQ(FromText(JsonToString(json)), FromText(R"({
        "from": "2026-06-02T02:00:00+00:00", "until": "2026-06-02T03:00:00+00:00", "idle_jobs": 3,
        "log_begins": null,
        "jobs": [{"name": "a", "starts": [
            {"earliest": "2026-06-02T02:01:00+00:00", "latest": "2026-06-02T02:01:00+00:00",
             "start_earliest": "2026-06-02T02:01:00+00:00",
             "start_latest": "2026-06-02T02:01:59+00:00",
             "undrawn": [], "at_most": 1, "overdue": false, "waits": false},
            {"earliest": "2026-06-02T02:16:00+00:00", "latest": "2026-06-02T03:00:00+00:00",
             "start_earliest": "2026-06-02T02:16:00+00:00",
             "start_latest": "2026-06-02T03:00:59+00:00",
             "undrawn": ["Minute"], "at_most": 1, "overdue": false, "waits": false}]}],
        "load": [{"from": "2026-06-02T02:00:00+00:00", "starts": 1, "possible": 0},
                 {"from": "2026-06-02T02:15:00+00:00", "starts": 0, "possible": 1},
                 {"from": "2026-06-02T02:30:00+00:00", "starts": 0, "possible": 1},
                 {"from": "2026-06-02T02:45:00+00:00", "starts": 0, "possible": 1}]})"));
    const Json::Value empty = TimelineToJson(TimelineOf(from, 1, {}));
    EXPECT_TRUE(empty["jobs"].isArray() && empty["jobs"].empty());
    EXPECT_EQ(empty["load"].size(), 4U);
}

} // namespace

} // namespace kest::ctl
