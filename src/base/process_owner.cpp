#include "base/process_owner.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"

#include <cstddef>
#include <fcntl.h>
#include <string>

namespace kest {

bool IsProcessOfRoot(pid_t pid) {
    const ErrnoGuard errnoGuard;
    constexpr std::size_t most = 65536;
    const Descriptor file(
        open(("/proc/" + std::to_string(pid) + "/" + "status").c_str(), O_RDONLY | O_CLOEXEC));
    std::string status;
    if (!file || !ReadAll(file.Get(), most, status))
        return false;
    // The command name precedes this text but cannot contain it: its newlines are escaped.
    return status.find("\nUid:\t0\t0\t0\t") != std::string::npos;
}

} // namespace kest
