// The machine's state as the system's controller sees it.

#ifndef CORE_UTILS_H
#define CORE_UTILS_H

namespace kest {

// Asks whether the controller holds the machine back. Returns false when it cannot be asked: then
// what the attempt left in the status decides, which is that it does not.
bool AskWhetherHeld(bool &held);

// The same. That the controller cannot be asked is reported.
bool IsVorldHeld();

} // namespace kest

#endif
