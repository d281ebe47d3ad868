#include "base/local_time.h"

#include <optional>

namespace kest {

const std::tm *LocalTimeOf(std::time_t now) {
    static std::time_t converted = 0;
    static std::optional<std::tm> local;
    if (!local || now != converted) {
        const std::tm *fresh = std::localtime(&now);
        local = fresh == nullptr ? std::nullopt : std::optional<std::tm>(*fresh);
        converted = now;
    }
    return local ? &*local : nullptr;
}

} // namespace kest
