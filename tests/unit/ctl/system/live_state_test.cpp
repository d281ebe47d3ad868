#include "ctl/system/live_state.h"

#include "tests/unit/support/clock.h"
#include "tests/unit/support/timelines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::time_t kLaunched = Utc(2026, 6, 2, 3, 15, 20);

Daemon RunningDaemon(unsigned delayed) {
    Daemon daemon;
    daemon.pid = 7;
    daemon.delayed = delayed;
    return daemon;
}

// Three jobs are due at 03:15, and a fourth is not. The first has started.
Runtime RuntimeAfterLaunch(const std::string &crontab = "15 3 * * *") {
    Runtime runtime;
    runtime.saved = Utc(2026, 6, 2, 3, 0);
    runtime.jobs = {Job("a", crontab), Job("b", crontab), Job("c", "16 3 * * *"),
                    Job("d", crontab)};
    runtime.cycles["02 03:15:20"] = {kLaunched, 3, {{1, "a"}}};
    return runtime;
}

// The names of the delayed jobs, and the seconds from the launch to their starts.
std::vector<std::string> Delayed(Runtime runtime, unsigned processes, std::time_t now) {
    CompleteState(runtime, RunningDaemon(processes), now);
    std::vector<std::string> texts;
    for (const LiveJob &job : runtime.jobs)
        if (job.launched != 0) {
            EXPECT_EQ(job.launched, kLaunched);
            EXPECT_EQ(job.job.LastRun(), kLaunched);
            texts.push_back(job.name + " " + std::to_string(job.starts - job.launched));
        }
    return texts;
}

class CompleteStateTest : public testing::Test {
    const LocalZone zone{"UTC0"};
};

TEST_F(CompleteStateTest, NamesTheJobsThatWaitOutTheirDelay) {
    EXPECT_THAT(Delayed(RuntimeAfterLaunch(), 2, kLaunched + 60), ElementsAre("b 300", "d 600"));
    EXPECT_THAT(Delayed(RuntimeAfterLaunch(), 1, kLaunched + 400), ElementsAre("d 600"));
    EXPECT_THAT(Delayed(RuntimeAfterLaunch(), 0, kLaunched + 700), IsEmpty());
}

TEST_F(CompleteStateTest, LeavesOutWhatItCannotName) {
    // Fewer processes wait: the machine was restarted.
    EXPECT_THAT(Delayed(RuntimeAfterLaunch(), 0, kLaunched + 60), IsEmpty());
    // The schedules name two jobs, the cycle launched three.
    Runtime changed = RuntimeAfterLaunch();
    changed.jobs.pop_back();
    EXPECT_THAT(Delayed(std::move(changed), 2, kLaunched + 60), IsEmpty());
}

TEST_F(CompleteStateTest, UsesTheTimesOfLaunchesInANewerDocument) {
    // The minutes were redrawn, so the schedules no longer admit 03:15.
    Runtime runtime = RuntimeAfterLaunch("20 * * * *");
    for (const std::size_t job : {0U, 1U, 3U})
        runtime.jobs[job].job.NoteLaunch(kLaunched);
    runtime.maxDelay = 3600; // 1,800 seconds between two of three jobs
    EXPECT_THAT(Delayed(runtime, 1, Utc(2026, 6, 2, 4, 1)), ElementsAre("d 3600"));
}

TEST_F(CompleteStateTest, ShowsThePreviousRunOfALaunchedJob) {
    Runtime runtime = RuntimeAfterLaunch();
    runtime.jobs[1].lastRun = kLaunched;
    runtime.jobs[1].started = kLaunched - kHour;
    runtime.jobs[3].lastRun = kLaunched;
    CompleteState(runtime, RunningDaemon(2), kLaunched + 60);
    EXPECT_EQ(runtime.jobs[1].lastRun, kLaunched - kHour);
    EXPECT_TRUE(runtime.jobs[1].isLogged);
    EXPECT_EQ(runtime.jobs[3].lastRun, 0);
}

TEST_F(CompleteStateTest, FindsRunsThatAreKept) {
    struct Row {
        bool held;
        bool passive;
        bool runOnPassive;
        int minutes; // since the document was written
        bool kept;
    };
    const Row rows[] = {
        {true, false, false, 14, false},  {true, false, false, 15, true},
        {false, false, false, 30, false}, {false, true, false, 15, true},
        {false, true, true, 15, false},   {true, true, true, 15, true},
    };
    for (const Row &row : rows) {
        Runtime runtime;
        runtime.saved = Utc(2026, 6, 2, 3, 0);
        runtime.jobs = {Job("a", "15 3 * * *", R"({"lastExecution": 1})")};
        runtime.jobs[0].job.runOnPassive = row.runOnPassive;
        Daemon daemon = RunningDaemon(0);
        daemon.held = row.held;
        daemon.passive = row.passive;
        CompleteState(runtime, daemon, runtime.saved + row.minutes * kMinute + 10);
        EXPECT_EQ(runtime.jobs[0].kept, row.kept) << &row - rows;
    }
    Runtime ran;
    ran.saved = Utc(2026, 6, 2, 3, 0);
    ran.jobs = {Job("a", "15 3 * * *", R"({"lastExecution": 1})")};
    ran.jobs[0].job.NoteLaunch(Utc(2026, 6, 2, 3, 15, 40));
    Daemon daemon = RunningDaemon(0);
    daemon.held = true;
    CompleteState(ran, daemon, Utc(2026, 6, 2, 3, 30));
    EXPECT_FALSE(ran.jobs[0].kept) << "it was launched before the machine was held";
}

} // namespace

} // namespace kest::ctl
