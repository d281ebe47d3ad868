#include "ctl/system/last_starts.h"

#include "base/descriptor.h"
#include "base/paths.h"
#include "ctl/system/log_line.h"
#include "ctl/system/rotated_logs.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace kest::ctl {

namespace {

// Seconds within which all jobs of a cycle are launched.
constexpr std::time_t kSameCycle = 3600;

void AddFailure(const LogLine &line, LastStarts &job) {
    if (line.time < std::max(job.failed, job.started))
        return;
    job.failed = line.time;
    job.reason = line.reason;
}

void AddToCycle(const LogLine &line, RecentStarts &starts) {
    constexpr int most = 1'000'000; // more than a daemon has jobs
    if (line.launches < 2 || line.launches > most || line.rank < 1 || line.rank > line.launches)
        return;
    LaunchCycle &cycle = starts.cycles[line.trigger];
    const std::time_t launched = line.time - line.delay;
    if (launched < cycle.launched - kSameCycle)
        return;
    if (launched > cycle.launched + kSameCycle)
        cycle = {launched, static_cast<std::size_t>(line.launches), {}}; // a month later
    cycle.ranks[static_cast<std::size_t>(line.rank)] = line.job;
}

// The parts of the log are read from its end, so a line may be older than what is known.
void AddLine(const LogLine &line, RecentStarts &starts) {
    if (line.job.empty() || !(line.started || line.failed))
        return;
    LastStarts &job = starts.jobs[line.job];
    if (line.failed) {
        AddFailure(line, job);
        return;
    }
    const std::time_t launched = line.time - line.delay;
    job.ran = std::max(job.ran, launched);
    if (line.time > job.started) {
        job.started = line.time;
        if (job.failed < line.time)
            job.failed = 0;
    }
    if (line.manual)
        return;
    job.launched = std::max(job.launched, launched);
    AddToCycle(line, starts);
}

constexpr std::size_t kPart = std::size_t{1} << 20; // of a file, in bytes

// How far the log is read, from its end on.
struct Reach {
    std::time_t since = 0;
    std::uintmax_t read = 0;  // bytes
    bool isOlderSeen = false; // a line older than `since`

    bool IsEnough() const {
        constexpr std::uintmax_t most = 64 * kPart;
        return read >= most || (isOlderSeen && read >= kPart);
    }
};

void AddFile(const Descriptor &file, Reach &reach, RecentStarts &starts) {
    struct stat status {};
    if (fstat(file.Get(), &status) == -1)
        return;
    auto begin = static_cast<std::uintmax_t>(status.st_size);
    std::string rest; // end of the line that begins in the part before
    while (begin > 0 && !reach.IsEnough()) {
        const auto size = static_cast<std::size_t>(std::min<std::uintmax_t>(begin, kPart));
        begin -= size;
        reach.read += size;
        std::string part(size, '\0');
        if (pread(file.Get(), part.data(), size, static_cast<off_t>(begin)) !=
            static_cast<ssize_t>(size))
            break;
        const auto whole = begin == 0 ? 0 : part.find('\n') + 1;
        std::istringstream lines((whole == 0 && begin != 0 ? "" : part.substr(whole)) + rest);
        rest = part.substr(0, whole);
        for (std::string text; std::getline(lines, text);) {
            const LogLine line = ParseLogLine(text);
            reach.isOlderSeen = reach.isOlderSeen || (line.time >= 0 && line.time < reach.since);
            AddLine(line, starts);
        }
    }
}

} // namespace

RecentStarts ReadRecentStarts(const Appliance &appliance, std::time_t since) {
    Reach reach{since};
    RecentStarts starts;
    const Descriptor present = OpenRegularFile(appliance.Locate(kExecutionLogFile));
    if (!present && errno != ENOENT)
        return starts;
    AddFile(present, reach, starts);
    if (reach.IsEnough())
        return starts;
    for (const RotatedLog &log : OpenRotatedLogs(appliance, present).files) {
        if (log.IsCompressed() || reach.IsEnough())
            break;
        AddFile(log.File(), reach, starts);
    }
    return starts;
}

} // namespace kest::ctl
