#include "log/timestamp.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace kest {

std::string FormatTimestamp(const std::tm &local) {
    std::array<char, 128> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
    // Of -03:30 the sign belongs to the whole, so hours and minutes come from the absolute value.
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    std::array<char, 32> offset{};
    std::snprintf(offset.data(), offset.size(), "%c%02ld:%02ld", local.tm_gmtoff < 0 ? '-' : '+',
                  minutes / 60, minutes % 60);
    return std::string(date.data()) + offset.data() + " ";
}

} // namespace kest
