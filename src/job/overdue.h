// When an assured job has waited too long.

#ifndef JOB_OVERDUE_H
#define JOB_OVERDUE_H

#include <cstdint>

namespace kest {

// Whether more than `hours` hours lie between `last` and `now`, both in seconds since the epoch, of
// any value. Never for 0 hours: the job is not assured.
bool IsOverdue(std::int32_t hours, std::int64_t last, std::int64_t now);

} // namespace kest

#endif
