#include "core/inotify_records.h"

#include <cstring>
#include <sys/inotify.h>

namespace kest {

bool ReportsChange(const char *records, std::size_t size) {
    while (size >= sizeof(inotify_event)) {
        inotify_event record{};
        std::memcpy(&record, records, sizeof record);
        if (record.mask != IN_IGNORED)
            return true;
        if (record.len > size - sizeof record)
            return false;
        records += sizeof record + record.len;
        size -= sizeof record + record.len;
    }
    return false;
}

} // namespace kest
