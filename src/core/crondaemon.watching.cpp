#include "core/crondaemon.h"

#include "base/descriptor.h"
#include "base/errno_guard.h"
#include "core/inotify_records.h"
#include "log/error_log.h"

#include <cerrno>
#include <string>
#include <sys/inotify.h>
#include <sys/select.h>
#include <unistd.h>

namespace kest {

namespace {

// Watches by the descriptor if there is one. This needs "/proc"; without it, the path is used.
int AddInotifyWatch(int inotify, const std::string &path, int opened, std::uint32_t mask) {
    if (opened != -1) {
        const int error = errno;
        const std::string link = "/proc/self/fd/" + std::to_string(opened);
        const int watch = inotify_add_watch(inotify, link.c_str(), mask);
        if (watch != -1 || errno != ENOENT)
            return watch;
        errno = error;
    }
    return inotify_add_watch(inotify, path.c_str(), mask);
}

} // namespace

bool CronDaemon::AddWatch(const std::string &path, int opened) {
    constexpr std::uint32_t watchMask = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                        IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                                        IN_MOVE_SELF;
    if (inotifyFd == -1)
        return true; // jobs are loaded, but changes are not noticed
    std::int32_t watch = -1;
    if (watchCount < watches.size())
        watch = AddInotifyWatch(inotifyFd, path, opened, watchMask);
    else
        errno = ENOSPC;
    if (watch < 0) {
        LOG_ERROR("Failed to listen %s", path.c_str());
        return false;
    }
    watches[watchCount++] = watch;
    return true;
}

void CronDaemon::RemoveAllWatches() {
    const ErrnoGuard errnoGuard; // the watch of a removed directory no longer exists
    for (std::uint32_t i = 0; i < watchCount; ++i) {
        if (watches[i] > 0) {
            inotify_rm_watch(inotifyFd, watches[i]);
            watches[i] = -1;
        }
    }
    watchCount = 0;
}

namespace {

// Whether events can be read at once. A signal that interrupts the call is not a failure.
bool HasPendingEvents(int inotify) {
    const int error = errno;
    int ready = -1;
    do {
        fd_set readable = SelectSetOf(inotify);
        timeval noWait{0, 0};
        ready = select(inotify + 1, &readable, nullptr, nullptr, &noWait);
    } while (ready == -1 && errno == EINTR);
    if (ready == -1) {
        LOG_ERROR("Failed to select inotify");
        return false;
    }
    errno = error;
    return ready > 0;
}

} // namespace

void CronDaemon::ForgetChanges() const {
    const ErrnoGuard errnoGuard;
    alignas(inotify_event) std::array<char, 16384> records{};
    while (inotifyFd != -1 && HasPendingEvents(inotifyFd))
        if (read(inotifyFd, records.data(), records.size()) <= 0 && errno != EINTR)
            break;
}

void CronDaemon::PollChanges() {
    if (inotifyFd == -1 || !HasPendingEvents(inotifyFd))
        return;
    alignas(inotify_event) std::array<char, 1024> records{};
    ssize_t size = 0;
    do
        size = read(inotifyFd, records.data(), records.size());
    while (size == -1 && errno == EINTR);
    if (size > 0 && ReportsChange(records.data(), static_cast<std::size_t>(size))) {
        reloadRequested = true;
        sleepSeconds = 0;
    }
}

} // namespace kest
