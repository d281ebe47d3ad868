// Why and how a job was launched, in one line of the execution log.

#ifndef CORE_LAUNCH_NOTE_H
#define CORE_LAUNCH_NOTE_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace kest {

struct LaunchFacts {
    std::string state;        // the name of the job's state
    std::string triggerTime;  // as by FormatTriggerTime; may be empty
    std::string scheduleText; // what the job's schedule was; left out when empty
    std::size_t rank = 1;     // 1 for the first job launched in the cycle
    std::size_t launches = 1; // jobs launched in the cycle; 1 leaves the rank out
    std::int32_t delay = 0;   // seconds; left out unless positive
};

// "state[Ready], trig[07 03:00:12], tab[0 3 -1 -1 -1], job[2/3], delay[600]"
std::string LaunchNote(const LaunchFacts &facts);

// Day of the month and time, "07 03:00:12".
std::string FormatTriggerTime(const std::tm &local);

} // namespace kest

#endif
