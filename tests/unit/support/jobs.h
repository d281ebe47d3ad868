// Jobs as tests need them.

#ifndef TESTS_UNIT_SUPPORT_JOBS_H
#define TESTS_UNIT_SUPPORT_JOBS_H

#include "job/cronjob.h"
#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <string>
#include <utility>

namespace kest {

// The job with `value` as the member `name` of its document.
inline CronJob With(const CronJob &job, const std::string &name, Json::Value value) {
    Json::Value document = job.Document();
    document[name] = std::move(value);
    return CronJob(std::move(document));
}

// A job document with these members of its definition.
inline Json::Value Document(const std::string &members) {
    return FromText(R"({"config": {)" + members + "}}");
}

inline CronJob CrontabJob(const std::string &crontab) {
    Json::Value document = Document(R"("name": "job", "user": "root", "cmd": "true",
                                       "period": "crontab")");
    document["config"]["crontab"] = crontab;
    return CronJob(std::move(document));
}

// The same with its schedule drawn.
inline CronJob ScheduledJob(const std::string &crontab) {
    CronJob job = CrontabJob(crontab);
    EXPECT_TRUE(job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        job.GenerateSchedule(key);
    return job;
}

} // namespace kest

#endif
