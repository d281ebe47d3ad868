#include "platform/kestrandom.h"

#include <cerrno>
#include <limits>
#include <random>
#include <sys/random.h>
#include <system_error>

namespace {

// The kernel's random source in the shape that the standard distributions draw from.
struct KernelRandomBits {
    using result_type = std::uint32_t;
    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return std::numeric_limits<result_type>::max(); }
    result_type operator()() const {
        result_type bits = 0;
        while (getrandom(&bits, sizeof bits, 0) != sizeof bits)
            if (errno != EINTR)
                throw std::system_error(errno, std::generic_category(), "getrandom");
        return bits;
    }
};

} // namespace

namespace KEST::RANDOM {

// A draw may not depend on an earlier one, so there is no state; the class is what the platform's
// library looks like.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
std::int32_t KESTRandom::random(std::int32_t low, std::int32_t high) {
    if (high <= low)
        return low;
    KernelRandomBits bits;
    return std::uniform_int_distribution<std::int32_t>(low, high - 1)(bits);
}

} // namespace KEST::RANDOM
