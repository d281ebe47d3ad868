#include "ctl/display/launch_forecast.h"

#include "core/launch.h"
#include "ctl/display/times.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/timelines.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

namespace kest::ctl {

namespace {

using testing::ElementsAre;

const std::time_t kPresent = Utc(2026, 6, 2, 2, 10, 30); // a Tuesday

std::vector<LiveJob> JobsOf(const std::vector<std::string> &crontabs) {
    std::vector<LiveJob> jobs;
    for (std::size_t i = 0; i < crontabs.size(); ++i)
        jobs.push_back(Job("job" + std::to_string(i), crontabs[i]));
    return jobs;
}

// "least-most" seconds of the delay of each job's next start; "never" without one.
std::vector<std::string> Delays(const std::vector<LiveJob> &jobs, const Daemon &daemon = {},
                                std::int32_t maxDelay = 300) {
    std::vector<std::string> texts;
    for (const std::optional<JobStart> &next : NextStarts(jobs, daemon, maxDelay, kPresent))
        texts.push_back(next ? std::to_string(next->delay.least) + "-" +
                                   std::to_string(next->delay.most)
                             : "never");
    return texts;
}

class LaunchForecastTest : public testing::Test {
    const LocalZone zone{"UTC0"};
};

TEST_F(LaunchForecastTest, SpacesTheJobsOfAMinuteInTheOrderOfTheirNames) {
    EXPECT_THAT(Delays(JobsOf({"15 3 * * *", "15 3 * * *", "16 3 * * *", "15 * * * *"})),
                ElementsAre("0-0", "300-300", "0-0", "0-0"));
    EXPECT_THAT(Delays(JobsOf({"15 3 * * *", "15 3 * * *", "0 0 31 2 *", "15 3 2 6 *"})),
                ElementsAre("0-0", "300-300", "never", "600-600"));
}

TEST_F(LaunchForecastTest, DividesAnHourAmongManyJobs) {
    const std::vector<std::string> delays =
        Delays(JobsOf(std::vector<std::string>(101, "15 3 * * *")));
    EXPECT_EQ(delays[1], "36-36");
    EXPECT_EQ(delays[100], "3600-3600");
}

TEST_F(LaunchForecastTest, GivesBoundsWhereAnotherJobMayBeDrawn) {
    // The other job is in the same minute or not. Before its redraw it is known.
    const std::vector<LiveJob> jobs = JobsOf({"~ 5 * * *", "30 5 * * *", "40 5 2 6 *"});
    EXPECT_THAT(Delays(jobs), ElementsAre("0-0", "0-300", "0-300"));
    // A job behind does not delay the ones before, but narrows their spacing.
    EXPECT_THAT(Delays(JobsOf({"30 5 * * *", "30 5 * * *", "~ 5 * * *"}), {}, 3600),
                ElementsAre("0-0", "1800-3600", "0-3600"));
}

TEST_F(LaunchForecastTest, CountsJobsThatMayBeOverdue) {
    std::vector<LiveJob> jobs = JobsOf({"0 0 31 2 *", "15 3 * * *"});
    const std::string ran = std::to_string(Utc(2026, 6, 1, 3, 14, 30));
    jobs[0] = Job("job0", "0 0 31 2 *", R"({"hours": 24, "lastExecution": )" + ran + "}");
    EXPECT_THAT(Delays(jobs), ElementsAre("0-0", "0-300"));
    // A job that runs each hour is not overdue after a day.
    jobs[0] = Job("job0", "5 * * * *",
                  R"({"hours": 24, "lastExecution": )" + std::to_string(kPresent - 60) + "}");
    EXPECT_THAT(Delays(jobs), ElementsAre("0-0", "0-0"));
}

TEST_F(LaunchForecastTest, LeavesOutJobsThatAreNotLaunched) {
    Daemon passive;
    passive.passive = true;
    std::vector<LiveJob> jobs = JobsOf({"15 3 * * *", "15 3 * * *", "15 3 * * *"});
    jobs[1].job.runOnPassive = jobs[2].job.runOnPassive = true;
    EXPECT_THAT(Delays(jobs, passive), ElementsAre("never", "0-0", "300-300"));
}

// The delays of the daemon: by rank among all jobs of the minute, whatever the others have drawn.
TEST_F(LaunchForecastTest, MatchesASimulation) {
    const char *const crontabs[] = {"0 * * * *", "~ * * * *", "0 ~ * * *", "0 5,7 * * *",
                                    "0,~ 4~6 * * *"};
    for (unsigned round = 0; round < 200; ++round) {
        std::mt19937 bits(round);
        std::vector<std::string> chosen;
        for (std::size_t i = 0; i < 12; ++i)
            chosen.emplace_back(crontabs[bits() % std::size(crontabs)]);
        std::vector<LiveJob> jobs = JobsOf(chosen);
        std::vector<JobStart> starts;
        const std::time_t minute = Utc(2026, 6, 2, 3 + static_cast<int>(bits() % 5), 0);
        for (const LiveJob &job : jobs)
            for (JobStart &start : StartsOf(job, {}, {kPresent, minute, minute + 59}, 9))
                if (start.earliest == minute && start.undrawn.empty())
                    starts.push_back(std::move(start));
        LaunchForecast(jobs, {}, 300, kPresent).SetDelays(starts);
        // The daemon in that minute, after the redraws before it.
        std::vector<LiveJob> later = jobs;
        for (std::time_t moment = Utc(2026, 6, 2, 2, 11); moment < minute; moment += kMinute)
            for (const std::string &key : FieldsToRedraw(Local(moment)))
                for (LiveJob &job : later)
                    job.job.GenerateSchedule(key);
        const FixedClock clock(minute);
        std::vector<std::string> due;
        for (const LiveJob &job : later)
            if (job.job.IsDueNow())
                due.push_back(job.name);
        const std::int32_t spacing = LaunchSpacing(300, due.size());
        for (const JobStart &start : starts) {
            const auto rank = std::find(due.begin(), due.end(), start.job->name) - due.begin();
            ASSERT_LT(rank, static_cast<std::ptrdiff_t>(due.size()));
            EXPECT_LE(start.delay.least, rank * spacing) << start.job->name;
            EXPECT_GE(start.delay.most, rank * spacing) << start.job->name;
        }
    }
}

} // namespace

} // namespace kest::ctl
