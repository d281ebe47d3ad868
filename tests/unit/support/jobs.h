// Jobs as tests need them.

#ifndef TESTS_UNIT_SUPPORT_JOBS_H
#define TESTS_UNIT_SUPPORT_JOBS_H

#include "job/cronjob.h"

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

} // namespace kest

#endif
