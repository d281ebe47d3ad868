#include "ctl/display/job_status.h"

#include "job/schedule.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

// A job that never starts by its schedule, assured for `hours`, and last run a day ago.
LiveJob AssuredJob(int hours, std::time_t now) {
    Json::Value document = FromText(
        R"({"config": {"name": "a", "user": "root", "cmd": "x", "period": "c", "crontab": "0 0 30 2 *"}})");
    document["config"]["assure_execute"] = hours;
    document["lastExecution"] = Json::Int64{now - std::int64_t{24} * 3600};
    LiveJob live;
    live.job = CronJob(document);
    EXPECT_TRUE(live.job.valid);
    return live;
}

TEST(JobStatus, FollowsTheJobState) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30);
    const FixedClock clock(now);
    struct {
        int hours; // assured
        bool run;  // "assure_execute_action"
        bool due;
        bool passive;
        bool held;
        pid_t process;
        JobStatus jobStatus;
    } const rows[] = {
        {0, false, false, false, false, 0, JobStatus::Waiting},
        {0, false, true, false, false, 0, JobStatus::Due},
        {0, false, true, true, false, 0, JobStatus::HeldBack},
        {0, false, true, false, true, 0, JobStatus::Suspended},
        {5, false, false, false, false, 0, JobStatus::Overdue},
        {5, false, false, false, true, 0, JobStatus::Held},
        {5, true, false, false, true, 0, JobStatus::Overdue},
        {5, true, false, true, true, 77, JobStatus::Running},
    };
    for (const auto &row : rows) {
        LiveJob job = AssuredJob(row.hours, now);
        job.job = With(job.job, "expireTime", row.due ? 1 : 0);
        job.job.assureRun = row.run ? 1 : 0;
        if (row.process != 0)
            job.processes.push_back({row.process, 1, 0, 0, "", {}});
        Daemon daemon;
        daemon.passive = row.passive;
        daemon.held = row.held;
        EXPECT_EQ(JobStatusOf(job, daemon), row.jobStatus) << &row - rows;
    }
}

} // namespace

} // namespace kest::ctl
