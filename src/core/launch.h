// The spacing of the launches of one cycle, and the note about a launch for the execution log.

#ifndef CORE_LAUNCH_H
#define CORE_LAUNCH_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace kest {

// Seconds from one start to the next when `count` jobs are launched together: the last one starts
// at most an hour after the first, and neighbours are never more than `maxDelay` seconds apart.
std::int32_t LaunchSpacing(std::int32_t maxDelay, std::size_t count);

// The details of a launch.
struct LaunchDetails {
    std::string state;        // the name of the job's state
    std::string triggerTime;  // as by FormatTriggerTime; may be empty
    std::string scheduleText; // what the job's schedule was; left out when empty
    std::size_t rank = 1;     // 1 for the first job launched in the cycle
    std::size_t launches = 1; // jobs launched in the cycle; 1 leaves the rank out
    std::int32_t delay = 0;   // seconds; left out unless positive
};

// "state[Ready], trig[07 03:00:12], tab[0 3 -1 -1 -1], job[2/3], delay[600]"
std::string LaunchNote(const LaunchDetails &details);

// Day of the month and time, "07 03:00:12".
std::string FormatTriggerTime(const std::tm &local);

} // namespace kest

#endif
