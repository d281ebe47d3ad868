// What the kernel reports of watched directories.

#ifndef CORE_INOTIFY_RECORDS_H
#define CORE_INOTIFY_RECORDS_H

#include <cstddef>

namespace kest {

// Whether any of the inotify records in the first `size` bytes of `records` reports a change. A
// record that only says that a watch is gone is none: each reload removes all watches, and would
// otherwise cause the next one. A record that is cut off ends the walk.
bool ReportsChange(const char *records, std::size_t size);

} // namespace kest

#endif
