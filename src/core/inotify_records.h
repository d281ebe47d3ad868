// Events of watched directories.

#ifndef CORE_INOTIFY_RECORDS_H
#define CORE_INOTIFY_RECORDS_H

#include <cstddef>

namespace kest {

// Whether any of the inotify records in the first `size` bytes of `records` reports a change. A
// record that only reports the removal of a watch is not a change: each reload removes all watches
// and would otherwise cause the next reload. A truncated record ends the loop.
bool ReportsChange(const char *records, std::size_t size);

} // namespace kest

#endif
