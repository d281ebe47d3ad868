#include "core/launch.h"

#include <algorithm>
#include <array>

namespace kest {

std::string LaunchNote(const LaunchDetails &details) {
    std::string note = "state[" + details.state + "], trig[" + details.triggerTime + "]";
    if (!details.scheduleText.empty())
        note += ", tab[" + details.scheduleText + "]";
    if (details.launches != 1)
        note +=
            ", job[" + std::to_string(details.rank) + "/" + std::to_string(details.launches) + "]";
    if (details.delay > 0)
        note += ", delay[" + std::to_string(details.delay) + "]";
    return note;
}

std::string FormatTriggerTime(const std::tm &local) {
    std::array<char, 128> text{};
    std::strftime(text.data(), text.size(), "%d %H:%M:%S", &local);
    return text.data();
}

std::int32_t LaunchSpacing(std::int32_t maxDelay, std::size_t count) {
    constexpr std::size_t hour = 3600;
    const std::size_t gaps = count > 2 ? count - 1 : 1;
    return std::min(maxDelay, static_cast<std::int32_t>(hour / gaps));
}

} // namespace kest
