// Timelines for tests.

#ifndef TESTS_SUPPORT_TIMELINES_H
#define TESTS_SUPPORT_TIMELINES_H

#include "ctl/display/coming_starts.h"
#include "ctl/display/timeline.h"
#include "job/schedule.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/json_text.h"

#include <cstddef>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace kest::ctl {

inline JobStart Known(std::time_t time) {
    return {{time, time, {}, 1, 1}, nullptr, false, {}};
}

inline JobStart Overdue(std::time_t time) {
    return {{time, time, {}, 1, 1}, nullptr, true, {}};
}

inline JobStart Band(std::time_t earliest, std::time_t latest) {
    return {{earliest, latest, {"Minute"}, 1, 1}, nullptr, false, {}};
}

inline TimelineData TimelineOf(std::time_t from, std::size_t hours, std::vector<JobRow> rows,
                               std::size_t idle = 0) {
    TimelineData timeline;
    timeline.from = from;
    timeline.until = from + static_cast<std::time_t>(hours) * kHour;
    timeline.rows = std::move(rows);
    timeline.idle = idle;
    return timeline;
}

inline LiveJob Job(const std::string &name, const std::string &crontab,
                   const std::string &more = "{}") {
    Json::Value document = FromText(more);
    document["config"] = FromText(R"({"name": "x", "user": "root", "cmd": "x", "period": "c"})");
    document["config"]["crontab"] = crontab;
    document["config"]["assure_execute"] = document.get("hours", 0);
    LiveJob live;
    live.name = name;
    live.job = CronJob(document);
    EXPECT_TRUE(live.job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        live.job.GenerateSchedule(key);
    return live;
}

// Four hours over midnight, four columns an hour.
inline TimelineData Night() {
    const std::time_t from = Utc(2026, 6, 2, 22, 0);
    const auto at = [from](int hours, int minutes) {
        return from + hours * kHour + minutes * kMinute;
    };
    return TimelineOf(
        from, 4,
        {{"exact", {Known(at(0, 0)), Known(at(1, 0)), Known(at(1, 8)), Known(at(3, 59))}},
         {"hourly", {Known(at(0, 20)), Band(at(1, 1), at(2, 0)), Band(at(2, 1), at(3, 0))}},
         {"late and long-named", {Overdue(at(0, 35)), Band(at(3, 30), at(9, 0))}}},
        2);
}

// The number of occurrences of `part`.
inline std::size_t Count(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

} // namespace kest::ctl

#endif
