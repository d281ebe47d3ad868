#include "base/paths.h"
#include "ctl/commands/commands.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/log_file.h"
#include "ctl/system/log_line.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <iostream>
#include <limits>
#include <thread>
#include <utility>

namespace kest::ctl {

// JSON output: one object for each line, with "time", "job" (null if the line names none), "failed"
// and "text".

namespace {

struct Filter {
    std::string job;
    std::time_t since = 0;
    bool failed = false;

    bool Admits(const LogLine &line) const {
        return line.time >= since && (!failed || line.failed) &&
               (job.empty() || (!line.job.empty() && MatchesJob(job, line.job)));
    }
};

void Write(const Context &context, const LogLine &line) {
    if (!context.json) {
        std::cout << line.stamp
                  << Coloured(context.screen, line.failed ? Colour::Red : Colour::None,
                              Shown(line.text))
                  << "\n";
        return;
    }
    Json::Value json;
    json["time"] = line.time >= 0 ? Json::Value(Iso(line.time)) : Json::Value();
    json["job"] = line.job.empty() ? Json::Value() : Json::Value(line.job);
    json["failed"] = line.failed;
    json["text"] = line.text;
    WriteJsonLine(json);
}

// Writes the existing lines that pass the filter: the last `most` of them, or all.
void WriteExisting(const Context &context, LogFile &file, const Filter &filter,
                   std::optional<std::size_t> most, bool follow) {
    std::deque<LogLine> kept;
    const auto take = [&](const std::string &line) {
        LogLine parsed = ParseLogLine(line);
        if (!filter.Admits(parsed))
            return;
        if (!most) {
            Write(context, parsed);
            return;
        }
        kept.push_back(std::move(parsed));
        if (kept.size() > *most)
            kept.pop_front();
    };
    for (std::string line; file.ReadLine(line);)
        take(line);
    if (const std::string partial = follow ? "" : file.TakePartialLine(); !partial.empty())
        take(partial);
    for (const LogLine &line : kept)
        Write(context, line);
}

[[noreturn]] void Follow(const Context &context, LogFile &file, const Filter &filter) {
    constexpr std::chrono::milliseconds pause(100);
    for (;;) {
        const bool rotated = !file.IsOpen() || file.IsRotated();
        for (std::string line; file.IsOpen() && file.ReadLine(line);)
            if (const LogLine parsed = ParseLogLine(line); filter.Admits(parsed))
                Write(context, parsed);
        if (!std::cout.flush())
            throw Failure(std::string("standard output: ") + std::strerror(errno));
        // The old file is read to its end; now read the new one from its beginning.
        if (!rotated || !file.Open())
            std::this_thread::sleep_for(pause);
    }
}

} // namespace

int Log(const Context &context, const LogOptions &options) {
    constexpr std::size_t linesBeforeFollow = 10; // by default
    const std::string path = context.appliance.Locate(kExecutionLogFile);
    Filter filter{options.job, 0, options.failed};
    filter.since = options.since.empty() ? std::numeric_limits<std::time_t>::min()
                                         : TimeArgument(context, options.since);
    LogFile file(path);
    if (!file.Open()) {
        if (errno != ENOENT)
            throw Failure(path + ": " + std::strerror(errno));
        std::cerr << "kestcronctl: " << path << " does not exist yet\n";
    } else {
        std::optional<std::size_t> most = options.lines;
        if (options.follow && options.since.empty() && !most)
            most = linesBeforeFollow;
        WriteExisting(context, file, filter, most, options.follow);
    }
    if (options.follow)
        Follow(context, file, filter);
    return 0;
}

} // namespace kest::ctl
