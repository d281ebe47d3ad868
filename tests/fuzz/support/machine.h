// What the code under test sees of the machine. It neither speaks to the system log nor asks for
// accounts, and an input does the same whenever and wherever it is run.

#ifndef TESTS_FUZZ_SUPPORT_MACHINE_H
#define TESTS_FUZZ_SUPPORT_MACHINE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kest {

// The account that every file belongs to. It and root are all the accounts there are.
constexpr const char *kAccount = "reports";

// Puts errno, clock and random source into the state in which every run of `input` starts.
void ResetMachine(std::string_view input);

// Lets time() stand still at `now`, in seconds since the epoch; local time is UTC.
void SetClock(std::int64_t now);

// A directory of this process, removed at its end.
const std::string &ScratchDirectory();

} // namespace kest

#endif
