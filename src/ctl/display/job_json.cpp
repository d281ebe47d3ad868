#include "ctl/display/job_json.h"

#include "base/json_members.h"
#include "ctl/display/job_status.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"

#include <vector>

namespace kest::ctl {

std::optional<JobStart> NextStart(const LiveJob &job, const Daemon &daemon, std::time_t now) {
    const std::vector<JobStart> starts =
        StartsOf(job, daemon, {now, now, now + kCalendarRepeats}, 1);
    return starts.empty() ? std::nullopt : std::optional<JobStart>(starts.front());
}

std::string NextInWords(const std::optional<JobStart> &start, std::time_t now) {
    if (!start)
        return "never";
    return StartInWords(*start, now) + (start->overdue ? ", overdue" : "");
}

Json::Value JobToJson(const LiveJob &job, const Daemon &daemon, std::time_t now) {
    const std::optional<JobStart> next = NextStart(job, daemon, now);
    Json::Value json;
    json["name"] = job.name;
    json["account"] = job.account;
    json["schedule"] = job.job.RenderSchedule();
    json["schedule_text"] = ScheduleInWords(job.job.ScheduleDocument());
    json["state"] = InWords(JobStatusOf(job, daemon)).json;
    json["last_run"] = TimeToJson(job.lastRun);
    json["next"] = next ? StartToJson(*next, next->overdue) : Json::Value();
    json["pid"] = job.process != 0 ? Json::Value(job.process) : Json::Value();
    return json;
}

Json::Value TimeToJson(std::time_t time) {
    return time != 0 ? Json::Value(Iso(time)) : Json::Value();
}

} // namespace kest::ctl
