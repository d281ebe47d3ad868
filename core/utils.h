// The machine's state as the system's controller sees it.

#ifndef CORE_UTILS_H
#define CORE_UTILS_H

// Whether the controller holds the machine back. A controller that cannot be asked does not.
bool IsVorldHeld();

#endif
