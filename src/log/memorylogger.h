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
// may flush to the same files: one flush waits for the other, and no line is lost, doubled or torn,
// also when the log is rotated meanwhile. They take turns by a lock on an empty file that stays,
// which is waited for five seconds at most. What cannot pass through the staging file, or has not
// got the lock by then, is appended to the log directly. A process that fork made works on its own
// copy.
class MemoryLogger {
public:
    // `capacity`, in KiB, is the size above which the staging file is moved to the log at once.
    // Touches no file.
    MemoryLogger(std::string logPath, std::string stagingPath, unsigned capacity,
                 std::string lockPath);

    // Where the caller writes. A line ends with its newline and is flushed by the process that
    // wrote it; foreign text goes through Printable().
    std::ostream &stream() { return _buffer; }

    // The present local time as a line starts with it: "2026-11-15T03:00:00+01:00 ".
    static std::string Timestamp();

    // AppendToStaging and MoveToLog, always both. Without the lock the text is appended to the log
    // directly, and on a full disk a part of it may stay there.
    void Flush();

    // Appends the buffered text to the staging file, made with mode 0600 when it is missing, and
    // empties the buffer. Nothing is written through a link, into a file of another owner or one
    // with a second name: what stands in the way is removed. After a failure, which is reported,
    // the text is appended to the log instead.
    void AppendToStaging();

    // Appends the staging file's content to the log, sets the log's mode to 0600 and removes the
    // staging file, which is removed after a failure too. A log that is no regular file keeps its
    // mode. A failure is reported; the log never keeps a part of a flush.
    void MoveToLog();

    // Keeps the log open from now on, so that later flushes of this process reach it even when the
    // process has given up the right to open it. Such a flush leaves the staging file out and waits
    // for nobody; on a full disk it may leave a part of its text. The descriptor does not outlive
    // an exec.
    void KeepLogOpen();

    // From now on failures are not reported.
    void BeSilent() { _isSilent = true; }
    // errno of the latest failure to open or write the log itself; 0: there was none.
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

// The process-wide log; each program that starts jobs defines it.
extern KEST::MemoryLogger executionLog;

} // namespace kest

#endif
