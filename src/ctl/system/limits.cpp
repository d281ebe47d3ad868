#include "ctl/system/limits.h"

#include <algorithm>
#include <csignal>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>

namespace kest::ctl {

namespace {

volatile std::sig_atomic_t exitStatus = 0;

void ExitOnTimeout(int /*number*/) {
    constexpr std::string_view text = "kestcronctl: processor time limit for another system "
                                      "exceeded\n";
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
    _exit(exitStatus);
}

// The address sanitizer needs memory of its own.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kMemoryIsLimited = false;
#else
constexpr bool kMemoryIsLimited = true;
#endif

} // namespace

void LimitTime(int status) {
    constexpr rlim_t seconds = 4;
    exitStatus = status;
    struct sigaction action {};
    action.sa_handler = ExitOnTimeout;
    sigaction(SIGXCPU, &action, nullptr);
    const rlimit limit{seconds, seconds + 1};
    setrlimit(RLIMIT_CPU, &limit);
}

void LimitMemory(std::size_t documentSize) {
    constexpr std::size_t times = 10;
    constexpr std::size_t least = std::size_t{64} << 20;
    const rlim_t most = std::max(least, times * documentSize);
    const rlimit limit{most, most};
    if (kMemoryIsLimited)
        setrlimit(RLIMIT_DATA, &limit);
}

} // namespace kest::ctl
