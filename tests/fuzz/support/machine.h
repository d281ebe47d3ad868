// The simulated machine of the code under test: without a system log and an account database, so
// that each run of an input has the same results.

#ifndef TESTS_FUZZ_SUPPORT_MACHINE_H
#define TESTS_FUZZ_SUPPORT_MACHINE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kest {

// The owner of every file. There are no accounts but this one and root.
constexpr const char *kAccount = "reports";

// Resets errno, clock and random source to the initial state of a run of `input`.
void ResetMachine(std::string_view input);

// Stops time() at `now`, in seconds since the epoch; local time is UTC.
void SetClock(std::int64_t now);

// A directory of this process, removed at its end.
const std::string &ScratchDirectory();

} // namespace kest

#endif
