// The starts in the coming or the past hours, with a row for each job and the total load.
//
// A start is that of the process, which may follow its launch by up to an hour. If its minute is
// known, it is drawn as a mark, otherwise as a band between its bounds. The
// scale is linear in real time and its labels are local times. When the clock is set forward, an
// hour is missing among the labels; when it is set back, one appears twice.
//
// Past starts are those of the execution log: as they took place, to the second.

#ifndef CTL_DISPLAY_TIMELINE_H
#define CTL_DISPLAY_TIMELINE_H

#include "ctl/display/starts.h"
#include "ctl/system/past_starts.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest::ctl {

struct JobRow {
    std::string name;
    std::vector<JobStart> starts;     // in chronological order
    std::vector<PastStart> past = {}; // the same; one of the two is not empty
};

struct TimelineData {
    std::time_t from = 0; // the beginning of the present minute
    std::time_t until = 0;
    bool held = false;         // the machine is held: scheduled jobs wait
    std::vector<JobRow> rows;  // by name
    std::size_t idle = 0;      // number of jobs that do not start
    bool past = false;         // the hours until now, by the log
    std::time_t logBegins = 0; // of the past hours: the first time in the log; 0 if it has none
};

// Whether a job is shown, by its name.
using JobFilter = std::function<bool(const std::string &)>;

// The coming hours of the jobs that `shown` admits. `maxDelay` is that of the schedule template.
TimelineData CollectStarts(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                           std::int32_t maxDelay, std::time_t now, std::size_t hours,
                           const JobFilter &shown = nullptr);

// The hours until `now`. `log` has the starts since then, also of jobs that no longer exist.
TimelineData CollectPastStarts(const std::vector<LiveJob> &jobs, const PastStarts &log,
                               std::time_t now, std::size_t hours,
                               const JobFilter &shown = nullptr);

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

// "2026-06-02 03:17", because a picture may be viewed on another day.
std::string Moment(std::time_t time);

// "1 start", "3 starts".
std::string Counted(std::size_t count, const char *one, const char *more);

// The times of the starts that are drawn as plain marks, in chronological order: those of known
// minutes, neither overdue nor by hand nor failed.
std::vector<std::time_t> TimesOfMarks(const JobRow &row);

// A start whose minute is not known: "one start between 2026-06-02 03:01 and 2026-06-02 04:00; not
// yet drawn: minute".
std::string BandInWords(const JobStart &start);

// "2026-06-02 03:15 to 03:30: 2 starts, up to 1 more".
std::string QuarterInWords(const QuarterHour &quarter);

// "1 job does not start in these hours", "3 jobs do not ...", "3 jobs did not ..." of past hours.
std::string IdleInWords(const TimelineData &data);

// Whether the log begins after the past hours, so that earlier starts are unknown.
bool IsLogTooShort(const TimelineData &data);

// Members "from" and "until"; "jobs", those that start in these hours, each with "name" and
// "starts" (as StartToJson); "load", the quarter hours, each with "from", "starts" and "possible";
// and "idle_jobs", the number of jobs that do not start. Of past hours, "starts" has objects with
// "time", "by_hand", "failed" and "reason" (null without), and "log_begins" is the first time in
// the log, or null.
Json::Value TimelineToJson(const TimelineData &data);

} // namespace kest::ctl

#endif
