#include "ctl/system/log_line.h"

#include "job/cron_field.h"

#include <cstddef>
#include <cstdio>
#include <optional>

namespace kest::ctl {

namespace {

constexpr std::size_t kTimestampLength = 25; // "2026-11-15T03:00:00+01:00"

// Whether the text has the form of a timestamp. Nothing else must pass for one, because timestamps
// are printed as they are.
bool IsTimestamp(std::string_view text) {
    constexpr std::string_view form = "dddd-dd-ddTdd:dd:dd?dd:dd";
    static_assert(form.size() == kTimestampLength);
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool fits = form[i] == 'd'   ? text[i] >= '0' && text[i] <= '9'
                          : form[i] == '?' ? text[i] == '+' || text[i] == '-'
                                           : text[i] == form[i];
        if (!fits)
            return false;
    }
    return true;
}

std::optional<std::time_t> ReadTimestamp(const std::string &text) {
    if (!IsTimestamp(text))
        return std::nullopt;
    std::tm utc{};
    char sign = '+';
    int hours = 0;
    int minutes = 0;
    // NOLINTNEXTLINE(cert-err34-c): numbers out of range yield a wrong but harmless time.
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c%2d:%2d", &utc.tm_year, &utc.tm_mon,
                    &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &sign, &hours,
                    &minutes) != 9)
        return std::nullopt;
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    const std::time_t offset = (std::time_t{hours} * 60 + minutes) * 60;
    return timegm(&utc) - (sign == '-' ? -offset : offset);
}

// The text between the first `before` and the next `after`; empty if they are not found.
std::string Between(const std::string &text, const std::string &before, const std::string &after) {
    const auto start = text.find(before);
    if (start == std::string::npos)
        return {};
    const auto end = text.find(after, start + before.size());
    if (end == std::string::npos)
        return {};
    return text.substr(start + before.size(), end - start - before.size());
}

bool StartsWith(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}

// Reads the note after the command: "(state[Ready], trig[15 03:00:00], job[2/3], delay[10])".
void ReadStart(std::size_t note, LogLine &line) {
    const std::string &text = line.text;
    const std::string details = text.substr(note);
    const auto user = text.rfind(" as user ", note);
    if (user != std::string::npos)
        line.account = text.substr(user + 9, note - user - 9);
    line.started = true;
    line.state = Between(details, " (state[", "]");
    line.manual = line.state == kManualState;
    line.trigger = Between(details, ", trig[", "]");
    ReadNumber(Between(details, ", delay[", "]"), line.delay);
    ReadNumber(Between(details, ", job[", "/"), line.rank);
    ReadNumber(Between(Between(details, ", job[", "]") + "]", "/", "]"), line.launches);
}

// A line about a start, or about a program that could not be run.
void ReadRun(LogLine &line) {
    const std::string &text = line.text;
    line.job = Between(text, "running job: ", " with command: ");
    // The command may contain any text, so the note after it is searched for from the end.
    const auto note = text.rfind(" (state[");
    const auto failed = text.rfind(" failed, return code: ");
    if (note != std::string::npos && text.back() == ')') {
        ReadStart(note, line);
    } else if (failed != std::string::npos) {
        const auto error = text.find(", error: ", failed);
        line.failed = true;
        line.reason = error == std::string::npos ? text.substr(failed + 1) : text.substr(error + 9);
    }
}

// A line about a step of a start: "Failed to STEP forJOB for user ACCOUNT[ERROR]".
void ReadFailedStep(LogLine &line) {
    const std::string &text = line.text;
    line.job = Between(text, " for", " for user ");
    line.account = Between(text, " for user ", "[");
    line.failed = true;
    const std::string step = Between(text, "Failed to ", " for");
    const std::string error = Between(text, line.account + "[", "]");
    line.reason = step.empty() || error.empty() ? text : step + ": " + error;
}

} // namespace

LogLine ParseLogLine(std::string_view line) {
    LogLine parsed;
    parsed.text = std::string(line);
    if (line.size() > kTimestampLength && line[kTimestampLength] == ' ')
        if (const auto time = ReadTimestamp(parsed.text.substr(0, kTimestampLength))) {
            parsed.time = *time;
            parsed.stamp = parsed.text.substr(0, kTimestampLength + 1);
            parsed.text.erase(0, kTimestampLength + 1);
        }
    if (StartsWith(parsed.text, "running job: "))
        ReadRun(parsed);
    else if (StartsWith(parsed.text, "Failed to "))
        ReadFailedStep(parsed);
    return parsed;
}

} // namespace kest::ctl
