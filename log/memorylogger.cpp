#include "log/memorylogger.h"

#include "log/error_log.h"
#include "log/timestamp.h"
#include "platform/errno_kept.h"
#include "platform/move_aside.h"

#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace KEST {

namespace {

using boost::interprocess::interprocess_sharable_mutex;
using boost::interprocess::scoped_lock;
using boost::interprocess::sharable_lock;

Descriptor OpenToAppend(const std::string &path) {
    return Descriptor(
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600));
}

// Anybody may put something at the staging path: only a regular file of our own with this one name
// is taken for the staging file.
Descriptor OpenOwnFile(const std::string &path, int mode) {
    Descriptor file(open(path.c_str(), mode | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) == -1)
        return {};
    if (S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1)
        return file;
    errno = EPERM;
    return {};
}

// Clears the path of whatever stands there, a directory with something in it too.
void ClearPath(const std::string &path) {
    const ErrnoKept kept;
    if (std::remove(path.c_str()) == -1 && errno != ENOENT)
        MoveAside(path);
}

// Puts the file `fresh` at `path`, in one step, so that nobody can plant anything in between.
bool PutInPlace(const std::string &fresh, const std::string &path) {
    if (std::rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    // A directory is not replaced; the two change places.
    if (renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == -1)
        return false;
    ClearPath(fresh);
    return true;
}

Descriptor OpenStaging(const std::string &path) {
    {
        const ErrnoKept kept; // most of the time there is none
        if (Descriptor file = OpenOwnFile(path, O_WRONLY | O_APPEND))
            return file;
    }
    std::string fresh = path + ".XXXXXX";
    Descriptor staging(mkostemp(fresh.data(), O_APPEND | O_CLOEXEC));
    if (!staging)
        return {};
    // What stands there may become a directory and a file again meanwhile.
    constexpr int tries = 64;
    for (int i = 0; i < tries; ++i)
        if (PutInPlace(fresh, path))
            return staging;
    ClearPath(fresh);
    return {};
}

// Appends all of `text`, or nothing when a part does not fit.
bool AppendWhole(const Descriptor &file, const std::string &text) {
    struct stat before {};
    if (fstat(file.Get(), &before) == -1)
        return false;
    if (WriteAll(file.Get(), text))
        return true;
    const ErrnoKept kept;
    [[maybe_unused]] const int cut = ftruncate(file.Get(), before.st_size);
    return false;
}

// Whether `path` still names the open file; somebody may tidy up while we wait for the lock.
bool Names(const std::string &path, const Descriptor &file) {
    const ErrnoKept kept;
    struct stat opened {};
    struct stat named {};
    return fstat(file.Get(), &opened) == 0 && stat(path.c_str(), &named) == 0 &&
           opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

// Where there are no locks, the log is written all the same.
void Lock(const Descriptor &file) {
    while (flock(file.Get(), LOCK_EX) == -1 && errno == EINTR)
        continue;
}

} // namespace

MemoryLogger::MemoryLogger(std::string logPath, std::string stagingPath, unsigned capacity)
    : _strLogPath(std::move(logPath)), _stagingPath(std::move(stagingPath)),
      _capacity(static_cast<std::uintmax_t>(capacity) * 1024) {}

std::string MemoryLogger::Timestamp() {
    const std::time_t now = std::time(nullptr);
    const std::tm *local = std::localtime(&now);
    return local == nullptr ? std::string() : FormatTimestamp(*local);
}

void MemoryLogger::Flush() {
    if (_keptLog) {
        FlushToKeptLog();
        return;
    }
    // The files are shared with other processes, so the whole way through the staging file is one
    // step. Where no log can be made there is nothing to wait for.
    const Descriptor lock = LockFlush();
    AppendToStaging();
    MoveToLog();
}

void MemoryLogger::AppendToStaging() {
    {
        const scoped_lock<interprocess_sharable_mutex> lock(_stagingLock);
        const Descriptor staging = OpenStaging(_stagingPath);
        const std::string text = TakeBuffer();
        if (!staging || !AppendWhole(staging, text))
            LOG_ERROR("open memory logger failed");
    }
    if (StagingIsFull())
        MoveToLog();
}

void MemoryLogger::MoveToLog() {
    const scoped_lock<interprocess_sharable_mutex> logLock(_logLock);
    const sharable_lock<interprocess_sharable_mutex> stagingLock(_stagingLock);
    const Descriptor fs = OpenToAppend(_strLogPath);
    std::string text;
    if (!fs) {
        LOG_ERROR("Failed [%s], err=%m", "!fs");
    } else if (const Descriptor fsMem = OpenOwnFile(_stagingPath, O_RDONLY);
               !fsMem || !ReadAll(fsMem.Get(), std::numeric_limits<std::size_t>::max(), text)) {
        LOG_ERROR("Failed [%s], err=%m", "!fsMem");
    } else {
        if (!AppendWhole(fs, text))
            LOG_ERROR("Failed [%s], err=%m", "!fs");
        if (fchmod(fs.Get(), 0600) == -1)
            LOG_ERROR("Failed [%s], err=%m", "chmod(_strLogPath.c_str(), 0600)");
    }
    ClearPath(_stagingPath);
}

void MemoryLogger::KeepLogOpen() {
    _keptLog = OpenToAppend(_strLogPath);
}

void MemoryLogger::FlushToKeptLog() {
    // Without the lock: a process that runs as another account can be stopped by it, and would let
    // all others wait. A single write appends a line whole all the same.
    if (!WriteAll(_keptLog.Get(), TakeBuffer()))
        LOG_ERROR("Failed [%s], err=%m", "!fs");
}

// Waits for the flushes of other processes; the lock is held as long as the descriptor. It lies on
// a file of its own: the log may be rotated in the middle of a flush, and the next one would not
// meet a lock on the old log.
Descriptor MemoryLogger::LockFlush() const {
    const ErrnoKept kept;
    const std::string path = _strLogPath + ".lock";
    constexpr int tries = 64; // nobody removes it as often
    for (int i = 0; i < tries; ++i) {
        Descriptor lock = OpenToAppend(path);
        if (!lock)
            return {};
        Lock(lock);
        if (Names(path, lock))
            return lock;
    }
    return {};
}

std::string MemoryLogger::TakeBuffer() {
    std::string text = _buffer.str();
    _buffer.str({});
    _buffer.clear();
    return text;
}

bool MemoryLogger::StagingIsFull() const {
    struct stat status {};
    return stat(_stagingPath.c_str(), &status) == 0 &&
           static_cast<std::uintmax_t>(status.st_size) > _capacity;
}

} // namespace KEST
