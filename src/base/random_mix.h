// Random numbers for the time before the kernel's random pool is ready.

#ifndef BASE_RANDOM_MIX_H
#define BASE_RANDOM_MIX_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace kest {

// Hashes the arguments to 32 bits: equal arguments give equal results, and arguments that differ in
// one bit give unrelated results. Good for spreading load, not for secrets.
std::uint32_t MixBits(std::string_view machine, std::initializer_list<std::uint64_t> moment);

// Text that differs between machines that run the same image: machine id, hardware addresses and
// serial numbers, as far as they exist.
std::string DescribeMachine();

} // namespace kest

#endif
