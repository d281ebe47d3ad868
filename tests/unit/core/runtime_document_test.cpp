#include "core/runtime_document.h"

#include "base/json_text.h"
#include "tests/unit/support/json_text.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace kest {

namespace {

CronJob Job(const std::string &name) {
    Json::Value document = FromText(R"({"config": {"user": "root", "cmd": "x", "period": "d"}})");
    document["config"]["name"] = name;
    return CronJob(std::move(document));
}

std::string TextOf(const std::vector<CronJob> &jobs, JobsShown shown) {
    std::string text;
    JobsToJson(jobs, shown, [&](std::string_view part) { text += part; });
    return text;
}

std::string Expected(const std::vector<CronJob> &jobs) {
    Json::Value expected;
    for (const CronJob &job : jobs)
        expected["jobs"][std::string(job.Name())] = job.Document();
    return JsonToString(expected);
}

TEST(RuntimeDocument, HasTheDocumentOfEachJobByItsName) {
    std::vector<CronJob> jobs{Job("a"), Job("b \"\n"), Job("c")};
    EXPECT_EQ(TextOf(jobs, JobsShown::Running), Expected(jobs));
    for (CronJob &job : jobs) {
        job.SetStaged(true);
        job.GenerateSchedule("hour");
        EXPECT_EQ(TextOf(jobs, JobsShown::All), Expected(jobs));
    }
}

TEST(RuntimeDocument, ShowsWaitingJobsOnRequest) {
    std::vector<CronJob> jobs{Job("a"), Job("b"), Job("c")};
    jobs[0].waitsForProgram = true;
    EXPECT_EQ(TextOf(jobs, JobsShown::All), Expected(jobs));
    EXPECT_EQ(TextOf(jobs, JobsShown::Running), Expected({jobs[1], jobs[2]}));
}

TEST(RuntimeDocument, IsAnEmptyObjectWithoutJobs) {
    EXPECT_EQ(TextOf({}, JobsShown::All), "{}");
    std::vector<CronJob> jobs{Job("a")};
    jobs[0].waitsForProgram = true;
    EXPECT_EQ(TextOf(jobs, JobsShown::Running), "{}");
}

TEST(RuntimeDocument, IsWrittenInSmallParts) {
    std::vector<CronJob> jobs;
    for (int i = 1000; i < 2000; ++i)
        jobs.push_back(Job(std::to_string(i)));
    std::size_t parts = 0;
    std::size_t largest = 0;
    std::string text;
    JobsToJson(jobs, JobsShown::All, [&](std::string_view part) {
        ++parts;
        largest = std::max(largest, part.size());
        text += part;
    });
    EXPECT_EQ(text, Expected(jobs));
    EXPECT_GT(parts, 2U);
    EXPECT_LT(largest, std::size_t{80} << 10);
}

} // namespace

} // namespace kest
