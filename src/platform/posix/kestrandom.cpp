#include "platform/kestrandom.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"
#include "base/random_mix.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <random>
#include <string>
#include <sys/random.h>
#include <unistd.h>

using kest::DescribeMachine;
using kest::Descriptor;
using kest::ErrnoGuard;
using kest::MixBits;

namespace {

// Both fill `bits` from the kernel's random source without blocking, which could last forever early
// in the boot of a board. Old kernels have the device but not the system call; a custom "/dev" may
// lack the device.
bool FromCall(std::uint32_t &bits) {
    ssize_t size = 0;
    do
        size = getrandom(&bits, sizeof bits, GRND_NONBLOCK);
    while (size == -1 && errno == EINTR);
    return size == sizeof bits;
}

bool FromDevice(std::uint32_t &bits) {
    const Descriptor device(open("/dev/urandom", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return device && read(device.Get(), &bits, sizeof bits) == sizeof bits;
}

std::uint64_t Nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// Derives a value from data that differs between machines, processes and draws, and from what the
// kernel's pool can already give.
std::uint32_t FromMachine() {
    static const std::string machine = DescribeMachine();
    static std::uint64_t draws = 0;
    std::uint64_t little = 0;
#ifdef GRND_INSECURE
    if (getrandom(&little, sizeof little, GRND_INSECURE) == -1)
        little = 0; // a kernel before 5.6
#endif
    return MixBits(machine, {Nanoseconds(CLOCK_REALTIME), Nanoseconds(CLOCK_MONOTONIC),
                             static_cast<std::uint64_t>(getpid()), ++draws, little});
}

// The random source as the standard distributions need it.
struct RandomBits {
    using result_type = std::uint32_t;
    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return std::numeric_limits<result_type>::max(); }
    result_type operator()() const {
        const ErrnoGuard errnoGuard;
        result_type bits = 0;
        if (FromCall(bits) || (errno == ENOSYS && FromDevice(bits)))
            return bits;
        return FromMachine();
    }
};

} // namespace

namespace KEST::RANDOM {

// Draws are independent, so there is no state. The class is the interface of the platform's
// library. NOLINTNEXTLINE(readability-convert-member-functions-to-static)
std::int32_t KESTRandom::random(std::int32_t low, std::int32_t high) {
    if (high <= low)
        return low;
    RandomBits bits;
    return std::uniform_int_distribution<std::int32_t>(low, high - 1)(bits);
}

} // namespace KEST::RANDOM
