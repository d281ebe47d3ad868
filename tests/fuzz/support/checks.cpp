#include "tests/fuzz/support/checks.h"

#include "base/descriptor.h"
#include "base/json_members.h"
#include "base/json_text.h"
#include "job/schedule.h"
#include "tests/fuzz/support/machine.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace kest {

void Require(bool holds, const char *what) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

std::string_view StartInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view text =
        size == 0 ? std::string_view()
                  : std::string_view(reinterpret_cast<const char *>(data), size);
    ResetMachine(text);
    return text;
}

const std::string &WriteInput(std::string_view text) {
    static const Descriptor file(memfd_create("input", MFD_CLOEXEC));
    static const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
    Require(ftruncate(file.Get(), 0) == 0 && lseek(file.Get(), 0, SEEK_SET) == 0 &&
                WriteAll(file.Get(), text),
            "the input can be written");
    return path;
}

bool IsPlain(std::string_view text) {
    // A lone surrogate is not UTF-8 either.
    return std::all_of(
               text.begin(), text.end(),
               [](char character) { return static_cast<unsigned char>(character) < 0x80; }) &&
           text.find("\\ud") == std::string_view::npos &&
           text.find("\\uD") == std::string_view::npos;
}

namespace {

bool IsReadBackTheSame(const Json::Value &document) {
    Json::Value again;
    return JsonFromFile(WriteInput(JsonToString(document)), again, kOwnFileLimits) &&
           again == document;
}

} // namespace

bool ReadDocument(std::string_view text, const JsonLimits &limits, Json::Value &document) {
    if (!JsonFromFile(WriteInput(text), document, limits)) {
        Require(document.isNull(), "a failed read leaves the document empty");
        return false;
    }
    Json::Value again;
    Require(JsonFromFile(WriteInput(JsonToString(document)), again, kOwnFileLimits),
            "an accepted document can be written and read again");
    Require(IsPlain(text) ? again == document : IsReadBackTheSame(again),
            "an accepted document is read back unchanged");
    document = again;
    return true;
}

namespace {

bool IsIn(std::int32_t value, std::int32_t lowest, std::int32_t highest) {
    return lowest <= value && value <= highest;
}

void RequireInField(const CronRange &item, const Bounds &bounds) {
    if (item.type != CronRange::Any)
        Require(IsIn(item.from, bounds.lowest, bounds.highest),
                "an item begins within the bounds of its field");
    if (item.type == CronRange::Random)
        Require(IsIn(item.to, item.from, bounds.highest),
                "a range ends within the bounds of its field");
}

void RequireDrawn(const CronRange &item, std::int32_t value, std::int32_t shared) {
    if (item.type == CronRange::Exact)
        Require(value == item.from, "a number has its own value");
    if (item.type == CronRange::Any)
        Require(value == kAnyValue, "a star admits every value");
    if (item.type == CronRange::Random) {
        Require(IsIn(value, item.from, item.to), "a drawn value is in the range of its item");
        Require(!IsIn(shared, item.from, item.to) || value == shared,
                "the shared value is used if the item contains it");
    }
}

void TryDraws(CronJob &job, std::int32_t shared) {
    for (std::size_t i = 0; i < kFieldBounds.size(); ++i) {
        const std::string &key = FieldKeys()[i];
        job.GenerateFieldSchedule(key, shared);
        const std::vector<CronRange> items = job.cronFields()[key];
        const std::vector<std::int32_t> values = job.GetScheduleValues(key);
        Require(values.size() == items.size(), "each item has a value");
        Require(!items.empty(), "no field of a valid job is empty");
        for (std::size_t j = 0; j < items.size(); ++j) {
            RequireInField(items[j], kFieldBounds[i]);
            RequireDrawn(items[j], values[j], shared);
        }
        Require(job.GetSingleScheduleValue(key) == (values.size() == 1 ? values[0] : kAnyValue),
                "a field's single value is its only one");
    }
}

// A slow and obvious check whether a job is due.
bool IsDueAt(const CronJob &job, std::time_t when) {
    std::tm parts{};
    gmtime_r(&when, &parts);
    const std::array<std::int32_t, 5> moment{parts.tm_min, parts.tm_hour, parts.tm_mday,
                                             parts.tm_mon + 1, parts.tm_wday};
    for (std::size_t i = 0; i < moment.size(); ++i) {
        const std::vector<std::int32_t> values = job.GetScheduleValues(FieldKeys()[i]);
        if (std::count(values.begin(), values.end(), moment[i]) == 0 &&
            std::count(values.begin(), values.end(), kAnyValue) == 0)
            return false;
    }
    return true;
}

void TryDueCheck(CronJob &job, std::int64_t now) {
    SetClock(now);
    const Json::Value before = job.Document();
    const bool due = IsDueAt(job, now);
    Require(job.IsDueNow() == due, "a job is due in the minutes of its schedule");
    Require(job.CheckTrigger() == due, "the due check detects a due job");
    if (due)
        Require(IntegerMember(job.Document(), "expireTime", 0) == now &&
                    job.scheduleText == job.RenderSchedule(),
                "the due check records the time");
    else
        Require(job.Document() == before, "the due check does not change a job that is not due");
}

void TryOverdueCheck(const CronJob &job) {
    using Wide = __int128_t;
    const Wide last =
        IntegerMember(job.Document(), "lastExecution", IntegerMember(job.Document(), "startup", 0));
    const Wide due = last + Wide{3600} * job.assureExecute;
    Require(job.IsAssureOverdue() == (job.assureExecute != 0 && std::time(nullptr) > due),
            "an assured job is overdue after its hours");
}

} // namespace

void TryJob(CronJob &job) {
    constexpr std::array<std::int64_t, 3> moments{
        1767225600, // Thursday, 1 January 2026, 00:00:00
        1835481540, // Tuesday, 29 February 2028, 23:59:00
        1780366210, // Tuesday, 2 June 2026, 02:10:10
    };
    const std::string rendered = job.RenderSchedule();
    Require(std::count(rendered.begin(), rendered.end(), ' ') == 4,
            "a schedule is rendered as five fields");
    const JobUser user = ResolveJobUser(job.Config());
    Require(!user.valid || user.name == "root" || user.name == kAccount,
            "only existing accounts are resolved");
    if (!job.valid)
        return;
    // First with the schedule of the input, then with drawn ones.
    for (const std::int64_t moment : moments)
        TryDueCheck(job, moment);
    TryOverdueCheck(job);
    for (const std::int32_t shared : {31, 0, kAnyValue, 10}) {
        TryDraws(job, shared);
        TryDueCheck(job, moments.back());
    }
}

} // namespace kest
