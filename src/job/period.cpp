#include "job/period.h"

#include <cctype>

namespace kest {

std::optional<std::string> PeriodCrontab(const std::string &period, const std::string &ownCrontab) {
    switch (period.empty() ? '\0' : std::tolower(static_cast<unsigned char>(period.front()))) {
    case 'c':
        return ownCrontab;
    case 'h':
        return "~ * * * *";
    case 'd':
        return "~ ~ * * *";
    case 'w':
        return "~ ~ * * ~";
    case 'm':
        return "~ ~ ~ * *";
    default:
        return std::nullopt;
    }
}

} // namespace kest
