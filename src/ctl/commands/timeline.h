// The coming hours as a picture: a row for each job, and the load beneath.
//
// A start that is known is drawn where it is; of any other there is a band, in which it lies. The
// picture runs in real time and its labels are those of the local clock, so where the clock is set
// forward an hour is missing among the labels, and where it is set back one comes twice.

#ifndef CTL_COMMANDS_TIMELINE_H
#define CTL_COMMANDS_TIMELINE_H

#include "ctl/display/starts.h"

#include <cstddef>
#include <ctime>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest::ctl {

struct JobRow {
    std::string name;
    std::vector<JobStart> starts; // in their order; at least one
};

struct ComingHours {
    std::time_t from = 0; // the beginning of the present minute
    std::time_t until = 0;
    bool held = false;        // the machine is: what is scheduled waits
    std::vector<JobRow> rows; // by name
    std::size_t idle = 0;     // jobs that do not start in this time
};

ComingHours LookAhead(const std::vector<LiveJob> &jobs, const Daemon &daemon, std::time_t now,
                      std::size_t hours);

// A quarter of an hour on the local clock; the first and the last may reach out of the picture.
struct QuarterHour {
    std::time_t from = 0;
    std::size_t starts = 0;   // known to take place in it
    std::size_t possible = 0; // those that may: their bands reach into it
};
constexpr std::time_t kQuarterHour = std::time_t{15} * 60;

std::vector<QuarterHour> LoadOf(const ComingHours &hours);

// The most starts, the possible ones included, of a quarter hour.
std::size_t TallestOf(const std::vector<QuarterHour> &load);

// A moment at which the local clock shows a whole quarter of an hour.
struct ClockMark {
    std::time_t time = 0;
    int minuteOfDay = 0;
    bool newDay = false; // the first one of its day: midnight, if the day has one
};

// All marks within these hours.
std::vector<ClockMark> ClockMarksOf(const ComingHours &hours);

// The minutes between two labels of the clock, so that they are at least `least` apart where a
// minute takes `perMinute`; a whole day at most.
int MinutesBetweenLabels(double perMinute, double least);

// "Wed 3", of a local day.
std::string ShortDay(std::time_t time);

// "1 job does not start in these hours", "3 jobs do not ...".
std::string IdleInWords(std::size_t idle);

// Members "from" and "until"; "jobs", those that start in that time, each with "name" and "starts"
// (as StartToJson writes them); "load", the quarter hours, each with "from", "starts" and
// "possible"; and "idle_jobs", the number of the others.
Json::Value TimelineToJson(const ComingHours &hours);

} // namespace kest::ctl

#endif
