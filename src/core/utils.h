// The state of the machine according to the system's controller.

#ifndef CORE_UTILS_H
#define CORE_UTILS_H

namespace kest {

// Queries whether the controller holds the machine. Returns false when the query fails; the status
// of the failed query then decides `held`, normally false.
bool QueryHeld(bool &held);

// The same, but reports a failed query.
bool IsVorldHeld();

} // namespace kest

#endif
