// Random numbers for the moments in which the kernel has none yet.

#ifndef BASE_RANDOM_MIX_H
#define BASE_RANDOM_MIX_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace kest {

// 32 bits in which every bit of what is given has its part: the same for the same, and without
// likeness for what differs in a single bit. Good for spreading load, not for secrets.
std::uint32_t MixBits(std::string_view machine, std::initializer_list<std::uint64_t> moment);

// What tells this machine from others that run the same image: its id, hardware addresses and
// serial numbers, as far as it has them.
std::string DescribeMachine();

} // namespace kest

#endif
