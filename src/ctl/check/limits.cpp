#include "ctl/check/limits.h"

#include <algorithm>
#include <csignal>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>

namespace kest::ctl {

namespace {

volatile std::sig_atomic_t statusAtEnd = 0;

void EndInTime(int /*number*/) {
    constexpr std::string_view text = "kestcronctl: this takes too long: the files of this system "
                                      "keep the program busy\n";
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
    _exit(statusAtEnd);
}

// Where the address sanitizer is at work, it takes memory of its own.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kMemoryIsCounted = false;
#else
constexpr bool kMemoryIsCounted = true;
#endif

} // namespace

void LimitTime(int status) {
    constexpr rlim_t seconds = 4;
    statusAtEnd = status;
    struct sigaction action {};
    action.sa_handler = EndInTime;
    sigaction(SIGXCPU, &action, nullptr);
    const rlimit limit{seconds, seconds + 1};
    setrlimit(RLIMIT_CPU, &limit);
}

void LimitMemory(std::size_t documentSize) {
    constexpr std::size_t times = 10;
    constexpr std::size_t least = std::size_t{64} << 20;
    const rlim_t most = std::max(least, times * documentSize);
    const rlimit limit{most, most};
    if (kMemoryIsCounted)
        setrlimit(RLIMIT_DATA, &limit);
}

} // namespace kest::ctl
