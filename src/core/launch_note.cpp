#include "core/launch_note.h"

#include <array>

namespace kest {

std::string LaunchNote(const LaunchFacts &facts) {
    std::string note = "state[" + facts.state + "], trig[" + facts.triggerTime + "]";
    if (!facts.scheduleText.empty())
        note += ", tab[" + facts.scheduleText + "]";
    if (facts.launches != 1)
        note += ", job[" + std::to_string(facts.rank) + "/" + std::to_string(facts.launches) + "]";
    if (facts.delay > 0)
        note += ", delay[" + std::to_string(facts.delay) + "]";
    return note;
}

std::string FormatTriggerTime(const std::tm &local) {
    std::array<char, 128> text{};
    std::strftime(text.data(), text.size(), "%d %H:%M:%S", &local);
    return text.data();
}

} // namespace kest
