// The view of the server: counts starts by the second and summarises them.

#ifndef BENCH_FLEET_COUNT_H
#define BENCH_FLEET_COUNT_H

#include "bench/fleet/machine.h"

#include <array>
#include <cstdint>
#include <json/value.h>
#include <vector>

namespace kest {

// The starts of a fleet under one "maxDelay", from `from` to `to` of the simulation.
class Server {
public:
    Server(std::int32_t maxDelay, Micros from, Micros to);

    // Counts the launches of a cycle, each start after its delay.
    void Take(const Launches &launches);
    void TakeOne(std::size_t job, Micros time);

    // Per job and for all jobs: "total"; "mean" per minute; "peak" and "peak_minute", the busiest
    // minute and its number; "second", the busiest second.
    Json::Value Figures(const Jobs &jobs) const;

    // The starts of each minute, all jobs together.
    Json::Value Minutes() const;

private:
    using Seconds = std::vector<std::uint32_t>;
    Seconds All() const;

    std::int32_t maxDelay_;
    Micros from_;
    std::array<Seconds, kJobs> starts_;
};

} // namespace kest

#endif
