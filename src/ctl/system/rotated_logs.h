// The rotated files of the execution log.

#ifndef CTL_SYSTEM_ROTATED_LOGS_H
#define CTL_SYSTEM_ROTATED_LOGS_H

#include "base/descriptor.h"
#include "ctl/system/appliance.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kest::ctl {

// The parts of the name of a rotated file, as logrotate forms it: "log.2.gz", "log-20261115".
struct RotatedName {
    std::string rotation;          // ".2", "-20261115"
    std::string compression;       // ".gz"; empty for a plain file
    const char *program = nullptr; // that decompresses it with -dc; null for a plain file

    // Whether this file has older lines than `other`.
    bool IsOlderThan(const RotatedName &other) const;
};

// Reads what follows the name of the log in the name of a rotated file; nothing for other files.
std::optional<RotatedName> ReadRotatedName(std::string_view suffix);

// A file that is open for reading. It stays the same if it is renamed or removed meanwhile.
class RotatedLog {
public:
    RotatedLog(std::string path, const char *program, Descriptor file);

    const std::string &Path() const { return path_; }
    const Descriptor &File() const { return file_; }
    bool IsCompressed() const { return program_ != nullptr; }

    // Calls `take` for each line from the first to the last. Returns nothing, or why lines may be
    // missing. Of a compressed file, at most 1 GiB of text is read.
    std::optional<std::string>
    ForEachLine(const std::function<void(const std::string &line)> &take);

private:
    std::optional<std::string>
    ForEachCompressedLine(const std::function<void(const std::string &line)> &take);

    std::string path_;
    const char *program_; // null for a plain file
    Descriptor file_;
};

struct RotatedLogs {
    std::vector<RotatedLog> files;   // the newest first, at most the newest 500
    std::vector<std::string> errors; // one for each file that cannot be opened
};

// Opens the rotated files. A file that is also `present`, the log that was opened before, is left
// out, so that a rotation meanwhile doubles no line.
RotatedLogs OpenRotatedLogs(const Appliance &appliance, const Descriptor &present);

} // namespace kest::ctl

#endif
