// One machine of the fleet: its cycles, its draws, and the resulting launches.

#ifndef BENCH_FLEET_MACHINE_H
#define BENCH_FLEET_MACHINE_H

#include "bench/fleet/calendar.h"
#include "job/cron_field.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kest {

constexpr std::size_t kJobs = 3;

// A job of every machine. Its crontab has one item in each field.
struct Job {
    std::string word; // "daily", ...
    std::string name; // the full job name
    std::array<CronRange, kFields> fields;
    std::int32_t assuredHours = 0; // 0: not assured
};

// The jobs in the order of their full names, in which a cycle launches them.
using Jobs = std::array<Job, kJobs>;

// By period words, or by the crontabs given in the order daily, hourly, weekly.
Jobs JobsByPeriod();
Jobs JobsByCrontab(const std::array<std::string, kJobs> &crontabs);

// Pseudo-random numbers that depend on the seed only.
class Chance {
public:
    explicit Chance(std::uint64_t seed) : state_(seed) {}
    std::uint64_t Next();
    // Each number from `from` to `to` is equally likely.
    std::int64_t Between(std::int64_t from, std::int64_t to);

private:
    std::uint64_t state_;
};

// The state of a machine before its first cycle.
struct Start {
    std::uint64_t seed = 0;
    Micros firstCycle = 0;                  // since the simulation's beginning
    Micros cycle = kMinute;                 // the interval of cycles: a minute and its work
    std::array<Micros, kJobs> lastRun = {}; // of each job; negative before the beginning
};

// The time from the start of a cycle to its check for redraws.
constexpr Micros kWork = 500;

// The jobs launched by one cycle.
struct Launches {
    Micros time = 0;
    std::bitset<kJobs> jobs;
};

// Simulates a machine until the end of the calendar; returns all of its launches.
std::vector<Launches> SimulateMachine(const Start &start, const Jobs &jobs,
                                      const Calendar &calendar);

} // namespace kest

#endif
