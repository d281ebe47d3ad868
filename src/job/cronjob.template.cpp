#include "job/cronjob.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "log/error_log.h"

#include <utility>

namespace kest {

ScheduleTemplate::ScheduleTemplate() {
    MakeDefaultScheduleTemplate(*this);
}

void MakeDefaultScheduleTemplate(ScheduleTemplate &scheduleTemplate) {
    Json::Value document;
    Json::Value &config = document["config"];
    config["name"] = "scheduleTemplate";
    config["user"] = "root";
    config["cmd"] = "true";
    config["period"] = "crontab";
    config["crontab"] = "~ ~ ~ ~ ~";
    static_cast<CronJob &>(scheduleTemplate) = CronJob(std::move(document));
    scheduleTemplate.maxDelay = ScheduleTemplate::kDefaultMaxDelay;
    if (!scheduleTemplate.valid) {
        LOG_ERROR("Default scheduled template config format invalid");
        return;
    }
    for (const std::string &key : FieldKeys())
        scheduleTemplate.GenerateSchedule(key);
}

bool TakeScheduleTemplate(ScheduleTemplate &scheduleTemplate, Json::Value document,
                          std::vector<DefinitionFault> &faults) {
    CronJob loaded(std::move(document), faults, 1);
    if (!loaded.valid)
        return false;
    static_cast<CronJob &>(scheduleTemplate) = std::move(loaded);
    const Json::Value maxDelay = Member(scheduleTemplate.Document(), "maxDelay");
    if (maxDelay.isInt() && maxDelay.asInt() >= 0)
        scheduleTemplate.maxDelay = maxDelay.asInt();
    return true;
}

bool LoadScheduleTemplate(ScheduleTemplate &scheduleTemplate, const std::string &path) {
    Json::Value document;
    std::vector<DefinitionFault> faults;
    if (!JsonFromFile(path, document, kOwnFileLimits))
        return false;
    if (TakeScheduleTemplate(scheduleTemplate, std::move(document), faults))
        return true;
    LogFault(faults.front());
    LOG_ERROR("Failed to parse schedule template from [%s]", path.c_str());
    return false;
}

bool SaveScheduleTemplate(const ScheduleTemplate &scheduleTemplate, const std::string &path,
                          Durability durability) {
    Json::Value document = scheduleTemplate.Document();
    if (scheduleTemplate.maxDelay == ScheduleTemplate::kDefaultMaxDelay)
        document.removeMember("maxDelay");
    else
        document["maxDelay"] = scheduleTemplate.maxDelay;
    return JsonToFile(JsonToString(document), path, durability);
}

} // namespace kest
