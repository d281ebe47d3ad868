#include "core/launch_spacing.h"

#include <algorithm>

namespace kest {

std::int32_t LaunchSpacing(std::int32_t maxDelay, std::size_t count) {
    constexpr std::size_t hour = 3600;
    const std::size_t gaps = count > 2 ? count - 1 : 1;
    return std::min(maxDelay, static_cast<std::int32_t>(hour / gaps));
}

} // namespace kest
