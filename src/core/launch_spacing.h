// How far apart the jobs of one cycle start.

#ifndef CORE_LAUNCH_SPACING_H
#define CORE_LAUNCH_SPACING_H

#include <cstddef>
#include <cstdint>

namespace kest {

// Seconds from one start to the next when `count` jobs are launched together: the last one starts
// at most an hour after the first, and neighbours are never more than `maxDelay` seconds apart.
std::int32_t LaunchSpacing(std::int32_t maxDelay, std::size_t count);

} // namespace kest

#endif
