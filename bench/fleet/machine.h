// One machine of the fleet: its cycles, its draws, and the starts they lead to.

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

// Numbers that are the same for each seed, unlike those of a real machine.
class Chance {
public:
    explicit Chance(std::uint64_t seed) : state_(seed) {}
    std::uint64_t Next();
    // Each number from `from` to `to` is equally likely.
    std::int64_t Between(std::int64_t from, std::int64_t to);

private:
    std::uint64_t state_;
};

// What a machine is before its first cycle.
struct Start {
    std::uint64_t seed = 0;
    Micros firstCycle = 0;                  // since the simulation's beginning
    Micros cycle = kMinute;                 // from one cycle to the next: a minute and its work
    std::array<Micros, kJobs> lastRun = {}; // of each job, may be negative: before the beginning
};

// A cycle's work up to the moment at which it looks whether fields are to be drawn.
constexpr Micros kWork = 500;

// The jobs launched by one cycle.
struct Launches {
    Micros time = 0;
    std::bitset<kJobs> jobs;
};

// Everything a machine launches until the end of the calendar.
std::vector<Launches> Live(const Start &start, const Jobs &jobs, const Calendar &calendar);

} // namespace kest

#endif
