// The starts in the coming hours, with a row for each job and the total load.
//
// A start is that of the process, which may follow its launch by up to an hour. If its minute is
// known, it is drawn as a mark, otherwise as a band between its bounds. The
// scale is linear in real time and its labels are local times. When the clock is set forward, an
// hour is missing among the labels; when it is set back, one appears twice.

#ifndef CTL_DISPLAY_TIMELINE_H
#define CTL_DISPLAY_TIMELINE_H

#include "ctl/display/starts.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest::ctl {

struct JobRow {
    std::string name;
    std::vector<JobStart> starts; // in chronological order; at least one
};

struct TimelineData {
    std::time_t from = 0; // the beginning of the present minute
    std::time_t until = 0;
    bool held = false;        // the machine is held: scheduled jobs wait
    std::vector<JobRow> rows; // by name
    std::size_t idle = 0;     // number of jobs that do not start
};

// `maxDelay` is that of the schedule template.
TimelineData CollectStarts(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                           std::int32_t maxDelay, std::time_t now, std::size_t hours);

// A quarter of an hour of the local clock. The first and the last may extend beyond the timeline.
struct QuarterHour {
    std::time_t from = 0;
    std::size_t starts = 0;   // certain
    std::size_t possible = 0; // at most, by the bands that overlap it
};
constexpr std::time_t kQuarterHour = std::time_t{15} * 60;

std::vector<QuarterHour> LoadOf(const TimelineData &data);

// The largest number of starts in a quarter of an hour, including possible ones.
std::size_t MaximumOf(const std::vector<QuarterHour> &load);

// A time at which a quarter of an hour begins on the local clock.
struct ClockMark {
    std::time_t time = 0;
    int minuteOfDay = 0;
    bool newDay = false; // the first of its day, which is midnight if the day has one
};

// All clock marks within the timeline.
std::vector<ClockMark> ClockMarksOf(const TimelineData &data);

// The interval between labels in minutes, at most a day, so that labels are at least `least` apart
// on a scale of `perMinute`.
int MinutesBetweenLabels(double perMinute, double least);

// The local day as "Wed 3".
std::string ShortDay(std::time_t time);

// "1 job does not start in these hours", "3 jobs do not ...".
std::string IdleInWords(std::size_t idle);

// Members "from" and "until"; "jobs", those that start in these hours, each with "name" and
// "starts" (as StartToJson); "load", the quarter hours, each with "from", "starts" and "possible";
// and "idle_jobs", the number of jobs that do not start.
Json::Value TimelineToJson(const TimelineData &data);

} // namespace kest::ctl

#endif
