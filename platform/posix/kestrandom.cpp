#include "platform/kestrandom.h"

#include "platform/descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <random>
#include <sys/random.h>
#include <system_error>
#include <unistd.h>

namespace {

// Both fill `bits` from the kernel's random source. The call came to Linux later than the device,
// and appliances live long; the device may be missing from a "/dev" of somebody's own making.
bool FromCall(std::uint32_t &bits) {
    ssize_t size = 0;
    do
        size = getrandom(&bits, sizeof bits, 0);
    while (size == -1 && errno == EINTR);
    return size == sizeof bits;
}

bool FromDevice(std::uint32_t &bits) {
    const Descriptor device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    return device && read(device.Get(), &bits, sizeof bits) == sizeof bits;
}

// The kernel's random source in the shape that the standard distributions draw from.
struct KernelRandomBits {
    using result_type = std::uint32_t;
    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return std::numeric_limits<result_type>::max(); }
    result_type operator()() const {
        result_type bits = 0;
        if (!FromCall(bits) && !FromDevice(bits))
            throw std::system_error(errno, std::generic_category(), "/dev/urandom");
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
