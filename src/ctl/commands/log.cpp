#include "base/paths.h"
#include "ctl/commands/commands.h"
#include "ctl/display/pager.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/log_file.h"
#include "ctl/system/log_line.h"
#include "ctl/system/rotated_logs.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <iostream>
#include <iterator>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

namespace kest::ctl {

// JSON output: one object for each line, with "time", "job" and "account" (null if the line has
// none), "event" ("start", "failure" or "other"), "state" and "delay" (in seconds) of a start,
// "by_hand", "failed", "reason" of a failure, and "text".

namespace {

constexpr std::time_t kNoLimit = std::numeric_limits<std::time_t>::max();

struct Filter {
    std::string job;
    std::time_t since = -kNoLimit;
    std::time_t until = kNoLimit;
    bool failed = false;

    bool Admits(const LogLine &line) const {
        const bool isLimited = since != -kNoLimit || until != kNoLimit;
        const bool isInTime = line.time >= 0 && line.time >= since && line.time <= until;
        return (!isLimited || isInTime) && (!failed || line.failed) &&
               (job.empty() || (!line.job.empty() && MatchesJob(job, line.job)));
    }
};

Json::Value TextOrNull(const std::string &text) {
    return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value LineToJson(const LogLine &line) {
    Json::Value json;
    json["time"] = line.time >= 0 ? Json::Value(Iso(line.time)) : Json::Value();
    json["job"] = TextOrNull(line.job);
    json["account"] = TextOrNull(line.account);
    json["event"] = line.started ? "start" : line.failed ? "failure" : "other";
    json["state"] = TextOrNull(line.state);
    json["delay"] = line.started ? Json::Value(line.delay) : Json::Value();
    json["by_hand"] = line.manual;
    json["failed"] = line.failed;
    json["reason"] = TextOrNull(line.reason);
    json["text"] = line.text;
    return json;
}

// "overdue" and "by hand" are starts.
std::string EventInWords(const LogLine &line) {
    if (line.failed)
        return "failed";
    if (!line.started)
        return "-";
    if (line.manual)
        return "by hand";
    return line.state.compare(0, 6, "Assure") == 0 ? "overdue" : "started";
}

// The account and the delay. On a narrow screen also the state: the reason shows what failed, and
// times must not be cut.
std::vector<std::size_t> DispensableOn(const Screen &screen) {
    constexpr std::size_t narrow = 60;
    return screen.width < narrow ? std::vector<std::size_t>{2, 4, 3}
                                 : std::vector<std::size_t>{2, 4};
}

// Prints lines in the form that the caller wants: JSON, a table on a terminal, or as they are.
class LogPrinter {
public:
    LogPrinter(const Context &context, const LogOptions &options)
        : context_(context), isTable_(context.screen.width != 0 && !context.json && !options.raw),
          pager_(context.screen, !options.follow && !options.noPager && !context.json &&
                                     context.appliance.IsLocal()),
          table_({"TIME", "JOB", "ACCOUNT", "STATE", "DELAY", "REASON"},
                 DispensableOn(context.screen)) {}

    void Print(const LogLine &line);
    // Prints the rows that are collected. A table is printed in parts, because a log may be long.
    void Flush();
    bool HasPrinted() const { return hasPrinted_; }

private:
    void AddRow(const LogLine &line);

    const Context &context_;
    bool isTable_;
    Pager pager_;
    Table table_;
    std::size_t rows_ = 0; // collected
    bool hasPrinted_ = false;
};

void LogPrinter::Print(const LogLine &line) {
    constexpr std::size_t mostRows = 1000;
    hasPrinted_ = true;
    if (context_.json) {
        WriteJsonLine(LineToJson(line));
    } else if (isTable_) {
        AddRow(line);
        if (++rows_ == mostRows)
            Flush();
    } else {
        const Colour colour = line.failed ? Colour::Red : Colour::None;
        pager_.Write(line.stamp + Coloured(context_.screen, colour, Shown(line.text)) + "\n");
    }
}

void LogPrinter::AddRow(const LogLine &line) {
    const bool isKnown = line.started || line.failed;
    table_.Add({line.time >= 0 ? MomentInShort(line.time, context_.now) : "-",
                line.job.empty() ? "-" : line.job, line.account.empty() ? "-" : line.account,
                EventInWords(line), line.delay == 0 ? "" : SpanInWords(line.delay),
                isKnown ? line.reason : line.text},
               line.failed ? Colour::Red : Colour::None);
}

void LogPrinter::Flush() {
    if (rows_ != 0)
        pager_.Write(table_.TakeRows(context_.screen));
    rows_ = 0;
}

// The rotated files and the present one.
class LogHistory {
public:
    LogHistory(const Context &context, LogFile &present)
        : rotated_(OpenRotatedLogs(context.appliance, present.File())), present_(present) {
        for (const std::string &error : rotated_.errors)
            Warn(error);
    }

    bool IsEmpty() const { return !present_.IsOpen() && rotated_.files.empty(); }

    // Prints the lines that pass the filter, the oldest first. The incomplete last line of the
    // present file is left in it if it is followed.
    void PrintAll(LogPrinter &printer, const Filter &filter, bool follow);
    // The same for the last `most` of them. Reads no more of the rotated files than needed.
    void PrintLast(LogPrinter &printer, const Filter &filter, std::size_t most, bool follow);

private:
    using Take = std::function<void(const LogLine &line)>;
    void ReadPresent(const Filter &filter, bool follow, const Take &take);
    static void ReadRotated(RotatedLog &log, const Filter &filter, const Take &take);
    static void Warn(const std::string &text) {
        std::cerr << "kestcronctl: " << Shown(text) << "\n";
    }

    RotatedLogs rotated_;
    LogFile &present_;
};

void LogHistory::ReadPresent(const Filter &filter, bool follow, const Take &take) {
    const auto takeIfAdmitted = [&](const std::string &text) {
        if (LogLine line = ParseLogLine(text); filter.Admits(line))
            take(line);
    };
    for (std::string text; present_.IsOpen() && present_.ReadLine(text);)
        takeIfAdmitted(text);
    if (const std::string partial = follow ? "" : present_.TakePartialLine(); !partial.empty())
        takeIfAdmitted(partial);
}

void LogHistory::ReadRotated(RotatedLog &log, const Filter &filter, const Take &take) {
    const auto error = log.ForEachLine([&](const std::string &text) {
        if (LogLine line = ParseLogLine(text); filter.Admits(line))
            take(line);
    });
    if (error)
        Warn(log.Path() + ": " + *error);
}

void LogHistory::PrintAll(LogPrinter &printer, const Filter &filter, bool follow) {
    const auto print = [&](const LogLine &line) { printer.Print(line); };
    for (auto log = rotated_.files.rbegin(); log != rotated_.files.rend(); ++log)
        ReadRotated(*log, filter, print);
    ReadPresent(filter, follow, print);
}

void LogHistory::PrintLast(LogPrinter &printer, const Filter &filter, std::size_t most,
                           bool follow) {
    std::deque<LogLine> last;
    std::deque<LogLine> older; // of one file
    const auto keep = [&](const LogLine &line) {
        older.push_back(line);
        if (older.size() > most - last.size())
            older.pop_front();
    };
    const auto join = [&] {
        last.insert(last.begin(), std::make_move_iterator(older.begin()),
                    std::make_move_iterator(older.end()));
        older.clear();
    };
    ReadPresent(filter, follow, keep);
    join();
    for (auto log = rotated_.files.begin(); log != rotated_.files.end() && last.size() < most;
         ++log) {
        ReadRotated(*log, filter, keep);
        join();
    }
    for (const LogLine &line : last)
        printer.Print(line);
}

[[noreturn]] void Follow(LogPrinter &printer, LogFile &file, const Filter &filter) {
    constexpr std::chrono::milliseconds pause(100);
    for (;;) {
        const bool rotated = !file.IsOpen() || file.IsRotated();
        for (std::string line; file.IsOpen() && file.ReadLine(line);)
            if (const LogLine parsed = ParseLogLine(line); filter.Admits(parsed))
                printer.Print(parsed);
        printer.Flush();
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
    Filter filter;
    filter.job = options.job;
    filter.failed = options.failed;
    if (!options.since.empty())
        filter.since = TimeArgument(context, options.since);
    if (!options.until.empty())
        filter.until = TimeArgument(context, options.until);
    LogFile file(path);
    if (!file.Open() && errno != ENOENT)
        throw Failure(path + ": " + std::strerror(errno));
    std::optional<LogHistory> history(std::in_place, context, file);
    const bool isEmpty = history->IsEmpty();
    if (isEmpty)
        std::cerr << "kestcronctl: " << path << " does not exist yet\n";
    LogPrinter printer(context, options);
    std::optional<std::size_t> most = options.lines;
    if (options.follow && options.since.empty() && !most)
        most = linesBeforeFollow;
    if (most)
        history->PrintLast(printer, filter, *most, options.follow);
    else
        history->PrintAll(printer, filter, options.follow);
    history.reset(); // open files would keep their space after a rotation
    printer.Flush();
    if (options.follow)
        Follow(printer, file, filter);
    if (context.screen.width != 0 && !printer.HasPrinted() && !isEmpty)
        std::cerr << "kestcronctl: no line matches\n";
    return 0;
}

} // namespace kest::ctl
