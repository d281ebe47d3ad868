// The same simulation as in machine.h, with the daemon's own functions and documents.

#ifndef BENCH_FLEET_REFERENCE_H
#define BENCH_FLEET_REFERENCE_H

#include "bench/fleet/machine.h"

namespace kest {

// The same as SimulateMachine(), but slower: a week takes about a second.
std::vector<Launches> SimulateByDaemon(const Start &start, const Jobs &jobs, std::time_t begin,
                                       Micros length);

} // namespace kest

#endif
