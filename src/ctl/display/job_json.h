// What several commands tell of a job, in JSON.

#ifndef CTL_DISPLAY_JOB_JSON_H
#define CTL_DISPLAY_JOB_JSON_H

#include "ctl/display/starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <ctime>
#include <json/value.h>
#include <optional>
#include <string>

namespace kest::ctl {

// The next start of a job; nothing when it never starts.
std::optional<JobStart> NextStart(const LiveJob &job, const Daemon &daemon, std::time_t now);

// That start as text, "never" when there is none.
std::string NextInWords(const std::optional<JobStart> &start, std::time_t now);

// Members "name", "account", "schedule" (its drawn values as text), "schedule_text" (in words),
// "state" ("waiting", "due", "running", "overdue", "held", "passive"), "last_run" (null: none is
// known), "next" (as StartToJson) and "pid" (null unless it runs).
Json::Value JobToJson(const LiveJob &job, const Daemon &daemon, std::time_t now);

// A time as text, null for 0.
Json::Value TimeToJson(std::time_t time);

} // namespace kest::ctl

#endif
