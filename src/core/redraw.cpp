#include "core/redraw.h"

namespace kest {

std::vector<std::string> FieldsToRedraw(const std::tm &local) {
    if (local.tm_min != 0)
        return {};
    std::vector<std::string> keys{"Minute"};
    if (local.tm_hour != 0)
        return keys;
    keys.emplace_back("hour");
    if (local.tm_mday == 1)
        keys.emplace_back("day");
    if (local.tm_mday == 1 && local.tm_mon == 0)
        keys.emplace_back("month");
    if (local.tm_wday == 1)
        keys.emplace_back("week");
    return keys;
}

} // namespace kest
