#include "ctl/system/last_starts.h"

#include "base/descriptor.h"
#include "ctl/system/log_line.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace kest::ctl {

namespace {

void AddLine(const LogLine &line, std::unordered_map<std::string, LastStarts> &lastStarts) {
    if (!line.started)
        return;
    LastStarts &job = lastStarts[line.job];
    const std::time_t launched = line.time - line.delay;
    job.ran = std::max(job.ran, launched);
    if (!line.manual)
        job.launched = std::max(job.launched, launched);
}

} // namespace

std::unordered_map<std::string, LastStarts> ReadLastStarts(const std::string &log,
                                                           std::time_t since) {
    constexpr std::size_t step = std::size_t{1} << 20;
    constexpr int mostSteps = 64;
    std::unordered_map<std::string, LastStarts> lastStarts;
    struct stat status {};
    const Descriptor file = OpenRegularFile(log);
    if (!file || fstat(file.Get(), &status) == -1)
        return lastStarts;
    auto begin = static_cast<std::uintmax_t>(status.st_size);
    std::string rest; // end of the line that begins in the part before
    bool reached = false;
    for (int i = 0; i < mostSteps && begin > 0 && !reached; ++i) {
        const auto size = static_cast<std::size_t>(std::min<std::uintmax_t>(begin, step));
        begin -= size;
        std::string part(size, '\0');
        if (pread(file.Get(), part.data(), size, static_cast<off_t>(begin)) !=
            static_cast<ssize_t>(size))
            break;
        const auto whole = begin == 0 ? 0 : part.find('\n') + 1;
        std::istringstream lines((whole == 0 && begin != 0 ? "" : part.substr(whole)) + rest);
        rest = part.substr(0, whole);
        for (std::string text; std::getline(lines, text);) {
            const LogLine line = ParseLogLine(text);
            reached = reached || (line.time >= 0 && line.time < since);
            AddLine(line, lastStarts);
        }
    }
    return lastStarts;
}

} // namespace kest::ctl
