#include "log/memorylogger.h"

#include "base/errno_guard.h"
#include "base/move_aside.h"
#include "log/call_deadline.h"
#include "log/error_log.h"
#include "log/timestamp.h"

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
using kest::CallDeadline;
using kest::Descriptor;
using kest::ErrnoGuard;
using kest::FormatTimestamp;
using kest::MoveAside;
using kest::OpenOwnFile;
using kest::ReadAll;
using kest::WriteAll;

Descriptor OpenToAppend(const std::string &path) {
    return Descriptor(
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600));
}

// Removes the object at `path`, or moves it aside when it is a directory that is not empty.
void ClearPath(const std::string &path) {
    const ErrnoGuard errnoGuard;
    if (std::remove(path.c_str()) == -1 && errno != ENOENT)
        MoveAside(path);
}

// Moves the file `fresh` to `path` in one step, so that nothing can be placed there in between.
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
        const ErrnoGuard errnoGuard; // most of the time there is none
        if (Descriptor file = OpenOwnFile(path, O_WRONLY | O_APPEND))
            return file;
    }
    std::string fresh = path + ".XXXXXX";
    Descriptor staging(mkostemp(fresh.data(), O_APPEND | O_CLOEXEC));
    if (!staging)
        return {};
    // The object at the path may change between a directory and a file meanwhile.
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
    const ErrnoGuard errnoGuard;
    [[maybe_unused]] const int cut = ftruncate(file.Get(), before.st_size);
    return false;
}

// Without the lock, a part cannot be truncated again: other processes may have written since.
bool WriteDirectly(const Descriptor &file, const std::string &text) {
    return WriteAll(file.Get(), text);
}

// The log may be a link to "/dev/null", whose mode must not change.
bool CloseToOthers(const Descriptor &log) {
    struct stat status {};
    return fstat(log.Get(), &status) == 0 &&
           (!S_ISREG(status.st_mode) || fchmod(log.Get(), 0600) == 0);
}

// Whether `path` still names the open file. It may have been removed while this process waited for
// the lock.
bool Names(const std::string &path, const Descriptor &file) {
    const ErrnoGuard errnoGuard;
    struct stat opened {};
    struct stat named {};
    return fstat(file.Get(), &opened) == 0 && stat(path.c_str(), &named) == 0 &&
           opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

// Waits for the lock for five seconds at most; returns whether it is ours.
bool Lock(const Descriptor &file) {
    const CallDeadline deadline({5, 0});
    while (flock(file.Get(), LOCK_EX) == -1)
        if (errno != EINTR || deadline.IsOver())
            return false;
    return true;
}

// Whether opening a file failed because another kind of object exists at its path.
bool IsObstructed(int error) {
    return error == ELOOP || error == EPERM || error == EISDIR || error == ENXIO;
}

// Other accounts can lock a file that they can open.
bool IsClosedToOthers(const Descriptor &file) {
    struct stat status {};
    return fstat(file.Get(), &status) == 0 && (status.st_mode & 077) == 0;
}

} // namespace

MemoryLogger::MemoryLogger(std::string logPath, std::string stagingPath, unsigned capacity,
                           std::string lockPath)
    : _strLogPath(std::move(logPath)), _stagingPath(std::move(stagingPath)),
      _capacity(static_cast<std::uintmax_t>(capacity) * 1024), _lockPath(std::move(lockPath)) {}

std::string MemoryLogger::Timestamp() {
    const std::time_t now = std::time(nullptr);
    const std::tm *local = std::localtime(&now);
    return local == nullptr ? std::string() : FormatTimestamp(*local);
}

void MemoryLogger::Flush() {
    if (_keptLog) {
        // Without the lock: an account can stop a process that runs as it, which would then block
        // all others. A single write appends a line in one piece anyway.
        AppendDirectly(_keptLog, TakeBuffer(), WriteDirectly);
        return;
    }
    // The lock covers the whole way through the staging file, because other processes use it too.
    const Descriptor lock = LockFlush();
    if (!lock) {
        AppendDirectly(OpenToAppend(_strLogPath), TakeBuffer(), WriteDirectly);
        return;
    }
    AppendToStaging();
    MoveToLog();
}

void MemoryLogger::AppendToStaging() {
    std::string text = TakeBuffer();
    {
        const scoped_lock<interprocess_sharable_mutex> lock(_stagingLock);
        const Descriptor staging = OpenStaging(_stagingPath);
        if (!staging)
            Fail(Step::OpenStaging);
        else if (!AppendWhole(staging, text))
            Fail(Step::WriteStaging);
        else
            text.clear();
    }
    if (!text.empty())
        AppendDirectly(OpenToAppend(_strLogPath), text, AppendWhole);
    if (StagingIsFull())
        MoveToLog();
}

void MemoryLogger::MoveToLog() {
    const scoped_lock<interprocess_sharable_mutex> logLock(_logLock);
    const sharable_lock<interprocess_sharable_mutex> stagingLock(_stagingLock);
    const Descriptor fs = OpenToAppend(_strLogPath);
    std::string text;
    if (!fs)
        Fail(Step::OpenLog);
    else if (const Descriptor fsMem = OpenOwnFile(_stagingPath, O_RDONLY); !fsMem)
        Fail(Step::ReopenStaging);
    else if (!ReadAll(fsMem.Get(), std::numeric_limits<std::size_t>::max(), text))
        Fail(Step::ReadStaging);
    else if (!AppendWhole(fs, text))
        Fail(Step::WriteLog);
    else if (!CloseToOthers(fs))
        Fail(Step::Close);
    ClearPath(_stagingPath);
}

void MemoryLogger::KeepLogOpen() {
    _keptLog = OpenToAppend(_strLogPath);
}

// Appends the text and bypasses the staging file.
void MemoryLogger::AppendDirectly(const Descriptor &log, const std::string &text,
                                  bool (*append)(const Descriptor &, const std::string &)) {
    if (!log)
        Fail(Step::OpenLog);
    else if (!append(log, text))
        Fail(Step::WriteLog);
}

// The message reports errno.
void MemoryLogger::Fail(Step step) {
    if (step == Step::OpenLog || step == Step::WriteLog)
        _logError = errno;
    if (_isSilent)
        return;
    switch (step) {
    case Step::OpenStaging:
        LOG_ERROR("open memory logger failed");
        break;
    case Step::WriteStaging:
        LOG_ERROR("Failed to write [%s]", _stagingPath.c_str());
        break;
    case Step::OpenLog:
        LOG_ERROR("Failed [%s], err=%m", "!fs");
        break;
    case Step::ReopenStaging:
        LOG_ERROR("Failed [%s], err=%m", "!fsMem");
        break;
    case Step::ReadStaging:
        LOG_ERROR("Failed to read [%s]", _stagingPath.c_str());
        break;
    case Step::WriteLog:
        LOG_ERROR("Failed to write [%s]", _strLogPath.c_str());
        break;
    case Step::Close:
        LOG_ERROR("Failed [%s], err=%m", "chmod(_strLogPath.c_str(), 0600)");
        break;
    }
}

// The lock is held as long as the descriptor is open; an empty descriptor means that it is not
// held. The lock has its own file: when the log is rotated during a flush, the next flush would not
// see a lock on the old log.
Descriptor MemoryLogger::LockFlush() const {
    const ErrnoGuard errnoGuard;
    constexpr int tries = 64; // more often than anybody removes it
    for (int i = 0; i < tries; ++i) {
        Descriptor lock = OpenOwnFile(_lockPath, O_RDWR | O_CREAT);
        if (lock ? !IsClosedToOthers(lock) : IsObstructed(errno))
            ClearPath(_lockPath);
        else if (!lock || !Lock(lock))
            return {};
        else if (Names(_lockPath, lock))
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
