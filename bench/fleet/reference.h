// The same life as in machine.h, by the product's own functions on the product's own documents.

#ifndef BENCH_FLEET_REFERENCE_H
#define BENCH_FLEET_REFERENCE_H

#include "bench/fleet/machine.h"

namespace kest {

// As Live() does, but slowly: about a second for a week.
std::vector<Launches> LiveByTheProduct(const Start &start, const Jobs &jobs, std::time_t begin,
                                       Micros length);

} // namespace kest

#endif
