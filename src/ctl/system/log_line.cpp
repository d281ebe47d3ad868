#include "ctl/system/log_line.h"

#include "job/cron_field.h"

#include <cstdio>
#include <optional>

namespace kest::ctl {

namespace {

constexpr std::size_t kTimestampLength = 25; // "2026-11-15T03:00:00+01:00"

std::optional<std::time_t> ReadTimestamp(const std::string &text) {
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
    const std::string &text = parsed.text;
    if (StartsWith(text, "running job: ")) {
        parsed.job = Between(text, "running job: ", " with command: ");
        // The command may contain any text, so the note after it is searched for from the end.
        const auto note = text.rfind(" (state[");
        parsed.started = note != std::string::npos && text.back() == ')';
        const auto failed = text.rfind(" failed, return code: ");
        parsed.failed = !parsed.started && failed != std::string::npos;
        if (parsed.failed) {
            const auto error = text.find(", error: ", failed);
            parsed.reason =
                error == std::string::npos ? text.substr(failed + 1) : text.substr(error + 9);
        }
        if (parsed.started) {
            const std::string details = text.substr(note);
            const auto user = text.rfind(" as user ", note);
            if (user != std::string::npos)
                parsed.account = text.substr(user + 9, note - user - 9);
            parsed.state = Between(details, " (state[", "]");
            ReadNumber(Between(details, ", delay[", "]"), parsed.delay);
            ReadNumber(Between(details, ", job[", "/"), parsed.rank);
            ReadNumber(Between(Between(details, ", job[", "]") + "]", "/", "]"), parsed.launches);
            parsed.trigger = Between(details, ", trig[", "]");
            parsed.manual = parsed.state == kManualState;
        }
    } else if (StartsWith(text, "Failed to ")) {
        parsed.job = Between(text, " for", " for user ");
        parsed.account = Between(text, " for user ", "[");
        parsed.failed = true;
        const std::string step = Between(text, "Failed to ", " for");
        const std::string error = Between(text, parsed.account + "[", "]");
        parsed.reason = step.empty() || error.empty() ? text : step + ": " + error;
    }
    return parsed;
}

} // namespace kest::ctl
