// A log as it is read from a file.

#ifndef CTL_SYSTEM_LOG_FILE_H
#define CTL_SYSTEM_LOG_FILE_H

#include "base/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace kest::ctl {

// A log that may be rotated while it is read.
class LogFile {
public:
    explicit LogFile(std::string path) : path_(std::move(path)) {}

    // Opens the file that the path names now. Returns false with errno set when it cannot.
    bool Open();
    bool IsOpen() const { return static_cast<bool>(file_); }

    // Passes over all but the last `most` bytes, and the line that begins before them.
    void SkipToLast(std::uintmax_t most);

    // The next whole line; false at the end of what there is. One without end comes in parts.
    bool ReadLine(std::string &line);

    // What stands behind the last whole line.
    std::string TakeTorn();

    // Whether the path names another file by now, or this one begins anew.
    bool IsRotated() const;

private:
    std::string path_;
    Descriptor file_;
    std::string rest_;
    std::size_t read_ = 0; // of it
};

} // namespace kest::ctl

#endif
