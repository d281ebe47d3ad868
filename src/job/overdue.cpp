#include "job/overdue.h"

namespace kest {

bool IsOverdue(std::int32_t hours, std::int64_t last, std::int64_t now) {
    if (hours == 0)
        return false;
    std::int64_t due = 0;
    if (__builtin_add_overflow(last, std::int64_t{3600} * hours, &due))
        return last < 0; // before every time there is, or after
    return now > due;
}

} // namespace kest
