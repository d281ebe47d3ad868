#include "ctl/display/starts.h"

#include "base/json_text.h"
#include "ctl/display/coming_starts.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <tuple>

namespace kest::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::time_t kDayLength = 24 * kHour;
const std::time_t kNow = Utc(2026, 6, 2, 2, 10, 30);
const std::time_t kMinuteOfNow = Utc(2026, 6, 2, 2, 10);

LiveJob LiveJobOf(const std::string &crontab, int hours = 0,
                  std::time_t lastRun = kNow - kDayLength) {
    Json::Value document =
        FromText(R"({"config": {"name": "pkg-a-b", "user": "root", "cmd": "x", "period": "c"}})");
    document["config"]["crontab"] = crontab;
    document["config"]["assure_execute"] = hours;
    document["lastExecution"] = Json::Int64{lastRun};
    LiveJob live;
    live.job = CronJob(document);
    EXPECT_TRUE(live.job.valid);
    for (const std::string &key : FieldKeys())
        live.job.GenerateSchedule(key);
    live.name = "pkg-a-b";
    live.lastRun = lastRun;
    return live;
}

// Hours from the present minute to each start, and whether the job is overdue then.
std::vector<std::pair<double, bool>> Starts(const LiveJob &job, std::size_t count,
                                            const Daemon &daemon = {}) {
    std::vector<std::pair<double, bool>> starts;
    for (const JobStart &start :
         StartsOf(job, daemon, {kNow, kNow, kNow + 400 * kDayLength}, count))
        starts.emplace_back(static_cast<double>(start.earliest - kMinuteOfNow) / kHour,
                            start.overdue);
    return starts;
}

using S = std::pair<double, bool>;

class StartsTest : public testing::Test {
    const LocalZone zone{"UTC0"};
};

TEST_F(StartsTest, FollowTheSchedule) {
    EXPECT_THAT(Starts(LiveJobOf("10 * * * *"), 3),
                ElementsAre(S{0, false}, S{1, false}, S{2, false}));
    EXPECT_THAT(Starts(LiveJobOf("0 0 30 2 *"), 3), IsEmpty());
}

TEST_F(StartsTest, ExcludeTheMinuteOfTheLastRun) {
    EXPECT_THAT(Starts(LiveJobOf("10 * * * *", 0, kMinuteOfNow + 2), 2),
                ElementsAre(S{1, false}, S{2, false}));
    EXPECT_THAT(Starts(LiveJobOf("10 * * * *", 0, kMinuteOfNow - 1), 2),
                ElementsAre(S{0, false}, S{1, false}));
}

TEST_F(StartsTest, AreEmptyOnPassiveMachines) {
    Daemon passive;
    passive.passive = true;
    LiveJob job = LiveJobOf("10 * * * *");
    EXPECT_THAT(Starts(job, 3, passive), IsEmpty());
    job.job.runOnPassive = true;
    EXPECT_THAT(Starts(job, 1, passive), ElementsAre(S{0, false}));
}

TEST_F(StartsTest, IncludeOverdueStarts) {
    // Never by its schedule: whenever it has not run for more than 5 hours.
    EXPECT_THAT(Starts(LiveJobOf("0 0 30 2 *", 5, kMinuteOfNow - 2 * kHour), 2),
                ElementsAre(S{3, true}, S{8, true}));
    // Overdue now.
    EXPECT_THAT(Starts(LiveJobOf("0 0 30 2 *", 5, kNow - 6 * kHour), 1), ElementsAre(S{0, true}));
    // Its schedule is earlier.
    EXPECT_THAT(Starts(LiveJobOf("10 * * * *", 5), 1), ElementsAre(S{0, false}));
    EXPECT_THAT(Starts(LiveJobOf("10 5 * * *", 5, kMinuteOfNow), 2),
                ElementsAre(S{3, false}, S{8, true}));
}

TEST_F(StartsTest, IncludeOverdueStartsWithinBounds) {
    // Redrawn at midnight. If the new time is after the job becomes overdue, it starts when
    // overdue.
    const LiveJob job = LiveJobOf("30 ~ * * *", 24, kMinuteOfNow - 5);
    LiveJob drawn = job;
    Json::Value schedule = drawn.job.Document()["schedule"];
    schedule["hour"] = FromText("[1]");
    drawn.job = With(drawn.job, "schedule", schedule);
    const std::vector<JobStart> starts =
        StartsOf(drawn, {}, {kNow, kNow, kNow + 2 * kDayLength}, 2);
    ASSERT_EQ(starts.size(), 2U);
    EXPECT_EQ(starts[0].earliest, Utc(2026, 6, 3, 0, 30));
    EXPECT_EQ(starts[0].latest, Utc(2026, 6, 3, 23, 30));
    EXPECT_EQ(starts[1].earliest, Utc(2026, 6, 3, 2, 9));
    EXPECT_TRUE(starts[1].overdue);
    EXPECT_THAT(starts[1].undrawn, ElementsAre("hour"));
}

TEST_F(StartsTest, FromALaterTimeDependOnEarlierOnes) {
    const LiveJob job = LiveJobOf("0 0 30 2 *", 5, kMinuteOfNow - 2 * kHour);
    const std::vector<JobStart> starts =
        StartsOf(job, {}, {kNow, kNow + 4 * kHour, kNow + kDayLength}, 2);
    ASSERT_EQ(starts.size(), 2U);
    EXPECT_EQ(starts[0].earliest, kMinuteOfNow + 8 * kHour);
    EXPECT_EQ(starts[1].earliest, kMinuteOfNow + 13 * kHour);
}

TEST_F(StartsTest, FromAMuchLaterTime) {
    const std::time_t later = kMinuteOfNow + 1000 * kDayLength;
    const auto first = [&](const LiveJob &job) {
        const std::vector<JobStart> starts =
            StartsOf(job, {}, {kNow, later, later + kDayLength}, 2);
        return starts.empty() ? JobStart() : starts.front();
    };
    // Every 5 hours: 1000 days are 4800 times 5 hours.
    EXPECT_EQ(first(LiveJobOf("0 0 30 2 *", 5, kMinuteOfNow)).earliest, later);
    EXPECT_TRUE(first(LiveJobOf("0 0 30 2 *", 5, kMinuteOfNow)).overdue);
    EXPECT_EQ(first(LiveJobOf("0 0 30 2 *", 7, kMinuteOfNow)).earliest, later + 3 * kHour);
    EXPECT_EQ(first(LiveJobOf("0 0 30 2 *", -1)).earliest, later);
    // A job that starts every minute is never overdue.
    EXPECT_EQ(first(LiveJobOf("* * * * *", 5)).earliest, later);
    EXPECT_FALSE(first(LiveJobOf("* * * * *", 5)).overdue);
    EXPECT_EQ(first(LiveJobOf("0 3 * * *", 5)).earliest, later + 3000);
}

TEST_F(StartsTest, AcceptTimesOutOfRange) {
    for (const std::int64_t time : {std::int64_t{0}, INT64_MAX, INT64_MIN}) {
        const std::vector<JobStart> starts =
            StartsOf(LiveJobOf("0 0 30 2 *", 5, time), {}, {kNow, kNow, kNow + kDayLength}, 100);
        EXPECT_LE(starts.size(), 5U);
        for (const JobStart &start : starts)
            EXPECT_GE(start.earliest, kMinuteOfNow);
    }
    EXPECT_EQ(Starts(LiveJobOf("0 0 30 2 *", -5), 3),
              (std::vector<S>{{0, true}, {1 / 60.0, true}, {2 / 60.0, true}}));
}

TEST_F(StartsTest, OfSeveralJobsAreSorted) {
    const LiveJob early = LiveJobOf("30 * * * *");
    LiveJob late = LiveJobOf("40 * * * *");
    late.name = "pkg-a-a";
    const std::vector<JobStart> starts =
        StartsOf({&late, &early}, {}, {kNow, kNow, kNow + kDayLength}, 3);
    ASSERT_EQ(starts.size(), 3U);
    EXPECT_EQ(starts[0].job, &early);
    EXPECT_EQ(starts[1].job, &late);
    EXPECT_EQ(starts[2].job, &early);
    EXPECT_EQ(starts[2].earliest, starts[0].earliest + kHour);
}

// The search ends as soon as there are enough starts. The result is that of a complete search.
TEST_F(StartsTest, OfSeveralJobsAreComplete) {
    constexpr std::array<const char *, 12> crontabs{
        "~ * * * *",          "~ ~ * * *",       "~ ~ ~ * *",     "* * * * *",
        "7 3 * * *",          "0,30 8~17 * * ~", "~ 0 1 1 *",     "0 0 29 2 1",
        "0~29,30~59 * * * *", "5 4 * * 1",       "59,~ 23 * * *", "0 0 31 2 *"};
    for (unsigned round = 0; round < 60; ++round) {
        std::mt19937 bits(round);
        std::vector<LiveJob> jobs;
        for (auto i = bits() % 6 + 1; i != 0; --i) {
            const int hours = bits() % 3 == 0 ? static_cast<int>(bits() % 50) : 0;
            jobs.push_back(LiveJobOf(crontabs.at(bits() % crontabs.size()), hours,
                                     kNow - static_cast<std::time_t>(bits() % (60 * kHour))));
            jobs.back().name += std::to_string(i);
        }
        std::vector<const LiveJob *> pointers;
        std::vector<JobStart> all;
        const std::time_t from =
            bits() % 2 == 0 ? kNow : kNow + kHour * static_cast<std::time_t>(bits() % 300);
        const Outlook outlook{kNow, from, from + 500 * kDayLength};
        const std::size_t count = std::size_t{1} << bits() % 9;
        for (const LiveJob &job : jobs) {
            pointers.push_back(&job);
            for (const JobStart &start : StartsOf(job, {}, outlook, count))
                all.push_back(start);
        }
        const auto order = [](const JobStart &start) {
            return std::make_tuple(start.earliest, start.latest, start.job->name);
        };
        std::stable_sort(all.begin(), all.end(),
                         [&](const JobStart &a, const JobStart &b) { return order(a) < order(b); });
        all.resize(std::min(all.size(), count));
        const std::vector<JobStart> found = StartsOf(pointers, {}, outlook, count);
        ASSERT_EQ(found.size(), all.size()) << round;
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_EQ(order(found[i]), order(all[i])) << round << " " << i;
            EXPECT_EQ(found[i].most, all[i].most) << round << " " << i;
        }
    }
}

TEST_F(StartsTest, AreWrittenAsJson) {
    const Json::Value json = StartToJson({kMinuteOfNow, kMinuteOfNow + 60, {"hour"}, 1, 3}, true);
    EXPECT_EQ(FromText(JsonToString(json)), FromText(R"({"earliest": "2026-06-02T02:10:00+00:00",
                           "latest": "2026-06-02T02:11:00+00:00",
                           "undrawn": ["hour"], "at_most": 3, "overdue": true})"));
}

} // namespace

} // namespace kest::ctl
