// Random numbers of the platform's random library (libkestrandom).

#ifndef PLATFORM_KESTRANDOM_H
#define PLATFORM_KESTRANDOM_H

#include <cstdint>

namespace KEST::RANDOM {

// Draws from the kernel's random source, so that two machines with the same image that start in the
// same second draw different values. Never blocks: while the kernel's pool is not ready, the values
// are derived from the identity of the machine and the time.
class KESTRandom {
public:
    // A number from `low` to `high` - 1, each equally likely; `low` when there is no other.
    std::int32_t random(std::int32_t low, std::int32_t high);
};

} // namespace KEST::RANDOM

#endif
