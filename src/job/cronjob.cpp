#include "job/cronjob.h"

#include "base/json_members.h"
#include "job/runtime_directory.h"
#include "log/error_log.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <string>
#include <utility>

namespace kest {

// --- Definition ---------------------------------------------------------------------------------

namespace {

constexpr std::size_t IndexOf(ChangingMember member) {
    return static_cast<std::size_t>(member);
}

const char *NameOf(ChangingMember member) {
    return kChangingMembers.at(IndexOf(member));
}

void LogItemFault(const CronItem &item) {
    if (item.fault == CronItemFault::NotANumber)
        LOG_ERROR("%s is not a valid number", item.offender.c_str());
    if (item.fault == CronItemFault::Reversed)
        LOG_ERROR("range.from[%d] cannot greater than range.to[%d]", item.range.from,
                  item.range.to);
}

} // namespace

void LogFault(const DefinitionFault &fault) {
    using Kind = DefinitionFault::Kind;
    if (fault.kind == Kind::Rule || fault.kind == Kind::NoCommand)
        LOG_ERROR("Failed [%s], err=%m", fault.rule);
    else if (fault.kind == Kind::Period)
        LOG_ERROR("error period");
    else if (fault.kind == Kind::Item)
        LogItemFault(fault.item);
    if (fault.kind == Kind::Rule)
        LOG_ERROR("crontab format error");
    else
        LOG_ERROR("parse error");
}

CronJob::CronJob(Json::Value document) {
    std::vector<DefinitionFault> faults;
    *this = CronJob(std::move(document), faults, 1);
    for (const DefinitionFault &fault : faults)
        LogFault(fault);
}

CronJob::CronJob(Json::Value document, std::vector<DefinitionFault> &faults,
                 std::size_t mostFaults) {
    if (document.isObject() && !document.isMember("config"))
        document["config"] = Json::Value();
    ParsedDefinition parsed =
        ParseDefinition(Member(std::as_const(document), "config"), mostFaults);
    if (parsed.faults.empty() || parsed.faults.front().kind != DefinitionFault::Kind::Rule)
        WriteDefaults(document, std::time(nullptr));
    valid = parsed.faults.empty();
    TakeDefinition(document, std::move(parsed.definition));
    _jsJob = JobDocument(std::move(document));
    const auto block = std::make_shared<std::string>();
    block->reserve(TextSize());
    MoveTexts(block);
    std::move(parsed.faults.begin(), parsed.faults.end(), std::back_inserter(faults));
}

void CronJob::TakeDefinition(Json::Value &document, Definition definition) {
    name_ = SharedText(definition.name);
    account_ = std::move(definition.account);
    assureExecute = definition.assureExecute;
    assureRun = definition.assureRun ? 1 : 0;
    runOnPassive = definition.runOnPassive;
    schedule_ = Schedule(definition.items);
    if (!valid) // the document stays unchanged for diagnosis
        return;
    Json::Value &list = document["cmd_list"];
    list = std::move(definition.command.list);
    program_ = SharedText(list[0U].asString());
    // As for a staged job, which is the usual case.
    list[0U] = StagedPath(definition.name);
    document["cmd_str"] = definition.command.text;
    TakeRuntimeMembers(document);
}

void SortByName(std::vector<CronJob> &jobs) {
    std::stable_sort(jobs.begin(), jobs.end(), [](const CronJob &one, const CronJob &other) {
        return one.Name() < other.Name();
    });
    const auto first =
        std::unique(jobs.rbegin(), jobs.rend(), [](const CronJob &one, const CronJob &other) {
            return one.Name() == other.Name();
        });
    jobs.erase(jobs.begin(), first.base());
}

void ShareTexts(std::vector<CronJob> &jobs) {
    std::size_t size = 0;
    for (CronJob &job : jobs)
        size += job.TextSize();
    try {
        const auto block = std::make_shared<std::string>();
        block->reserve(size);
        for (CronJob &job : jobs)
            job.MoveTexts(block);
    } catch (const std::exception &) {
        return;
    }
}

std::size_t CronJob::TextSize() {
    std::size_t size = 0;
    for (const SharedText *text : Texts())
        size += text->View().size();
    return size;
}

void CronJob::MoveTexts(const std::shared_ptr<std::string> &block) {
    for (SharedText *text : Texts())
        text->MoveTo(block);
}

// --- Document -----------------------------------------------------------------------------------

namespace {

// Removes a number from the document. Returns whether it was an integer in the form that the daemon
// writes.
bool TakeTime(Json::Value &document, ChangingMember which) {
    const char *const member = NameOf(which);
    const bool isOurs = Member(std::as_const(document), member).type() == Json::intValue;
    if (isOurs)
        document.removeMember(member);
    return isOurs;
}

} // namespace

// Removes the members that are kept beside the document. Values in any other form than the daemon's
// stay in it.
void CronJob::TakeRuntimeMembers(Json::Value &document) {
    expireTime_ = IntegerMember(document, "expireTime", 0);
    lastRun_ = IntegerMember(document, "lastExecution", IntegerMember(document, "startup", 0));
    hasExpireTime_ = TakeTime(document, ChangingMember::ExpireTime);
    hasLastExecution_ = TakeTime(document, ChangingMember::LastExecution);
    if (!document.isMember("schedule"))
        return;
    Json::Value &schedule = document["schedule"];
    for (std::size_t field = 0; field < FieldKeys().size(); ++field) {
        const std::string &key = FieldKeys()[field];
        if (schedule_.Take(field, Member(std::as_const(schedule), key)))
            schedule.removeMember(key);
    }
    if (schedule.isObject() && schedule.empty() && schedule_.IsAnyDrawn())
        document.removeMember("schedule");
}

Json::Value CronJob::Document() const {
    Json::Value document = _jsJob.ToJson();
    if (!valid)
        return document;
    if (!isStaged_)
        document["cmd_list"] = NormalizeCommand(Member(std::as_const(document), "config"))->list;
    if (hasExpireTime_)
        document["expireTime"] = Json::Int64{expireTime_};
    if (hasLastExecution_)
        document["lastExecution"] = Json::Int64{lastRun_};
    if (schedule_.IsAnyDrawn())
        AddDrawn(document["schedule"]);
    return document;
}

Json::Value CronJob::ScheduleDocument() const {
    Json::Value schedule = _jsJob.IsText() ? Json::Value() : Member(_jsJob.ToJson(), "schedule");
    if (schedule_.IsAnyDrawn())
        AddDrawn(schedule);
    return schedule;
}

void CronJob::AddDrawn(Json::Value &schedule) const {
    if (!schedule.isObject())
        schedule = Json::Value(Json::objectValue);
    for (std::size_t field = 0; field < FieldKeys().size(); ++field) {
        if (!schedule_.IsDrawn(field))
            continue;
        Json::Value &array = schedule[FieldKeys()[field]];
        array = Json::Value(Json::arrayValue);
        for (const std::int32_t value : schedule_.Drawn(field))
            array.append(value);
    }
}

// The schedule is half of the text of a document.
void CronJob::AppendSchedule(JsonText &text) const {
    struct FieldText {
        std::size_t field;
        std::string_view name;
    };
    constexpr std::array<FieldText, 5> fields{{
        {0, ",\n\t\t\t\t\"Minute\" : "},
        {2, ",\n\t\t\t\t\"day\" : "},
        {1, ",\n\t\t\t\t\"hour\" : "},
        {3, ",\n\t\t\t\t\"month\" : "},
        {4, ",\n\t\t\t\t\"week\" : "},
    }};
    std::vector<std::int32_t> drawn;
    text.AppendMembers(BeginningOf(ChangingMember::Schedule));
    text.BeginObject();
    bool isFirst = true;
    for (const auto &[field, name] : fields) {
        if (!schedule_.IsDrawn(field))
            continue;
        text.AppendMembers(name.substr(std::exchange(isFirst, false) ? 1 : 0));
        schedule_.GetDrawn(field, drawn);
        text.Append(drawn);
    }
    text.EndObject();
}

void CronJob::AppendTo(JsonText &text) const {
    if (!isStaged_ || !_jsJob.IsText()) {
        text.Append(Document());
        return;
    }
    _jsJob.AppendTo(text, [this](ChangingMember member, JsonText &to) {
        if (member == ChangingMember::Schedule && schedule_.IsAnyDrawn())
            AppendSchedule(to);
        const bool isExpireTime = member == ChangingMember::ExpireTime;
        if (isExpireTime ? !hasExpireTime_
                         : member != ChangingMember::LastExecution || !hasLastExecution_)
            return;
        to.AppendMembers(BeginningOf(member));
        to.Append(isExpireTime ? expireTime_ : lastRun_);
    });
}

} // namespace kest
