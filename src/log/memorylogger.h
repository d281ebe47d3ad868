// The execution log: one line for each start of a job and for each failure on the way to it.

#ifndef LOG_MEMORYLOGGER_H
#define LOG_MEMORYLOGGER_H

#include "base/descriptor.h"

#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <cstdint>
#include <iosfwd>
#include <sstream>
#include <string>

namespace KEST {

// Collects text in memory and appends it to the log file in whole lines. A flush passes through a
// staging file in memory-backed storage, which exists only while it lasts. Any number of processes
// may flush to the same files: flushes are serialised, and no line is lost, duplicated or torn,
// even when the log is rotated meanwhile. A lock on an empty file that is never removed serialises
// them; a process waits for it for five seconds at most. Text that cannot pass through the staging
// file, or whose process did not get the lock, is appended to the log directly. A forked process
// has its own copy of the buffer.
class MemoryLogger {
public:
    // `capacity`, in KiB, is the size above which the staging file is moved to the log at once.
    // Touches no file.
    MemoryLogger(std::string logPath, std::string stagingPath, unsigned capacity,
                 std::string lockPath);

    // The stream to write to. Lines end with a newline and are flushed by the process that wrote
    // them. Pass foreign text through Printable().
    std::ostream &stream() { return _buffer; }

    // The present local time as the beginning of a line: "2026-11-15T03:00:00+01:00 ".
    static std::string Timestamp();

    // Calls AppendToStaging and MoveToLog. Without the lock, the text is appended to the log
    // directly; on a full disk a part of it may remain there.
    void Flush();

    // Appends the buffered text to the staging file, made with mode 0600 when it is missing, and
    // empties the buffer. Never writes through a link, into a file of another owner or into a file
    // with a second name: such an object is removed. After a failure, which is reported, the text
    // is appended to the log instead.
    void AppendToStaging();

    // Appends the staging file's content to the log, sets the log's mode to 0600 and removes the
    // staging file, which is removed after a failure too. A log that is not a regular file keeps
    // its mode. A failure is reported; the log never contains a part of a flush.
    void MoveToLog();

    // Keeps the log open from now on, so that this process can write to it after it has given up
    // the right to open it. Flushes then bypass the staging file and the lock; on a full disk a
    // part of the text may remain. The descriptor is closed by an exec.
    void KeepLogOpen();

    // Stops reporting failures.
    void BeSilent() { _isSilent = true; }
    // errno of the latest failure to open or write the log itself; 0 when there was none.
    int LogError() const { return _logError; }

private:
    enum class Step {
        OpenStaging,
        WriteStaging,
        OpenLog,
        ReopenStaging,
        ReadStaging,
        WriteLog,
        Close
    };
    void AppendDirectly(const kest::Descriptor &log, const std::string &text,
                        bool (*append)(const kest::Descriptor &, const std::string &));
    void Fail(Step step);
    kest::Descriptor LockFlush() const;
    std::string TakeBuffer();
    bool StagingIsFull() const;

    std::ostringstream _buffer;
    std::string _strLogPath;
    std::string _stagingPath;
    std::uintmax_t _capacity; // bytes
    std::string _lockPath;
    boost::interprocess::interprocess_sharable_mutex _stagingLock;
    boost::interprocess::interprocess_sharable_mutex _logLock;
    kest::Descriptor _keptLog;
    bool _isSilent = false;
    int _logError = 0;
};

} // namespace KEST

namespace kest {

// The process-wide execution log. Each program that starts jobs defines it.
extern KEST::MemoryLogger executionLog;

} // namespace kest

#endif
