#include "job/cronjob.h"
#include "base/json_members.h"
#include "base/local_time.h"
#include "job/schedule.h"
#include "log/error_log.h"
#include "platform/kestrandom.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <utility>

namespace kest {

static_assert(sizeof(std::time_t) >= 8, "schedules go on after 2038");

namespace {

KEST::RANDOM::KESTRandom &TheRandomSource() {
    static KEST::RANDOM::KESTRandom source;
    return source;
}

// The number of the field; nothing for any other key.
std::optional<std::size_t> FieldOf(const std::string &key) {
    const auto &keys = FieldKeys();
    const auto *const known = std::find(keys.begin(), keys.end(), key);
    return known == keys.end()
               ? std::nullopt
               : std::optional<std::size_t>(static_cast<std::size_t>(known - keys.begin()));
}

} // namespace

CronFields CronJob::cronFields() const {
    CronFields fields;
    for (std::size_t field = 0; field < FieldKeys().size(); ++field)
        if (std::vector<CronRange> items = schedule_.Items(field); !items.empty())
            fields[FieldKeys()[field]] = std::move(items);
    return fields;
}

void CronJob::GenerateFieldSchedule(const std::string &key, std::int32_t templateValue) {
    if (const std::optional<std::size_t> field = FieldOf(key))
        schedule_.Draw(*field, templateValue, TheRandomSource());
}

void CronJob::GenerateSchedule(const std::string &key) {
    GenerateFieldSchedule(key, kAnyValue);
}

std::vector<std::int32_t> CronJob::GetScheduleValues(const std::string &key) const {
    const std::optional<std::size_t> field = FieldOf(key);
    if (field && schedule_.IsDrawn(*field))
        return schedule_.Drawn(*field);
    return FieldValues(Member(Member(_jsJob.ToJson(), "schedule"), key));
}

std::int32_t CronJob::GetSingleScheduleValue(const std::string &key) const {
    const std::vector<std::int32_t> values = GetScheduleValues(key);
    return values.size() == 1 ? values.front() : kAnyValue;
}

bool CronJob::MatchField(const std::string &key, std::int32_t value) const {
    const std::optional<std::size_t> field = FieldOf(key);
    return field && schedule_.Admits(*field, value);
}

bool CronJob::IsDueNow() const {
    const std::tm *local = LocalTimeOf(std::time(nullptr));
    if (local == nullptr) {
        LOG_ERROR("Failed to get localtime");
        return false;
    }
    const std::array<std::int32_t, 5> values = FieldsOf(*local);
    for (std::size_t field = 0; field < values.size(); ++field)
        if (!schedule_.Admits(field, values[field]))
            return false;
    return true;
}

bool CronJob::CheckTrigger() {
    if (!IsDueNow())
        return false;
    expireTime_ = std::time(nullptr);
    hasExpireTime_ = true;
    scheduleText = RenderSchedule();
    return true;
}

std::string CronJob::RenderSchedule() const {
    std::array<std::vector<std::int32_t>, 5> values;
    for (std::size_t field = 0; field < values.size(); ++field)
        values[field] = GetScheduleValues(FieldKeys()[field]);
    return ScheduleAsText(values);
}

bool CronJob::IsAssureOverdue() const {
    // Called for every job in every cycle. Most jobs are not assured, so the clock is not read for
    // them.
    return assureExecute != 0 && IsOverdue(assureExecute, lastRun_, std::time(nullptr));
}

} // namespace kest
