#ifndef CTL_SYSTEM_LOG_FILE_H
#define CTL_SYSTEM_LOG_FILE_H

#include "base/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace kest::ctl {

// Reads lines from a descriptor.
class LogReader {
public:
    LogReader() = default;
    explicit LogReader(Descriptor file) : file_(std::move(file)) {}

    const Descriptor &File() const { return file_; }

    // Reads the next complete line. Returns false if there is none yet. A line of more than 1 MiB
    // is returned in parts.
    bool ReadLine(std::string &line);

    // Removes and returns the incomplete line at the end.
    std::string TakePartialLine();

private:
    Descriptor file_;
    std::string rest_;
    std::size_t read_ = 0; // bytes of rest_ already returned
};

// Reads a log that may be rotated meanwhile.
class LogFile {
public:
    explicit LogFile(std::string path) : path_(std::move(path)) {}

    // Opens the file that is at the path now. Returns false with errno set on failure.
    bool Open();
    bool IsOpen() const { return static_cast<bool>(lines_.File()); }
    const Descriptor &File() const { return lines_.File(); }

    // Skips all but the complete lines in the last `most` bytes.
    void SkipToLast(std::uintmax_t most);

    // As those of LogReader.
    bool ReadLine(std::string &line) { return lines_.ReadLine(line); }
    std::string TakePartialLine() { return lines_.TakePartialLine(); }

    // Whether another file is at the path now, or this file was truncated.
    bool IsRotated() const;

private:
    std::string path_;
    LogReader lines_;
};

} // namespace kest::ctl

#endif
