#include "ctl/system/past_starts.h"

#include "base/paths.h"
#include "ctl/system/failure.h"
#include "ctl/system/log_file.h"
#include "ctl/system/log_line.h"
#include "ctl/system/rotated_logs.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <utility>

namespace kest::ctl {

namespace {

constexpr std::size_t kMostFailures = 50;

// A program that cannot be run has the line of its start and soon after one of its failure.
void AddFailedStart(const LogLine &line, std::vector<PastStart> &starts) {
    constexpr std::size_t mostBetween = 16;
    constexpr std::time_t soon = 60;
    const auto end =
        starts.rbegin() + static_cast<std::ptrdiff_t>(std::min(starts.size(), mostBetween));
    const auto sameStart = std::find_if(starts.rbegin(), end, [&](const PastStart &start) {
        return start.time <= line.time && line.time - start.time <= soon;
    });
    if (sameStart == end) {
        starts.push_back({line.time, false, true, line.reason});
        return;
    }
    // Several steps of a start may fail; the first one is shown.
    if (std::exchange(sameStart->failed, true))
        return;
    sameStart->reason = line.reason;
}

// Collects the starts of one file.
class Collector {
public:
    Collector(std::time_t from, std::time_t until) : from_(from), until_(until) {}

    void Add(const std::string &text) {
        const LogLine line = ParseLogLine(text);
        if (line.time >= 0 && past_.begins == 0)
            past_.begins = line.time;
        if (line.time < 0 || line.job.empty() || !(line.started || line.failed))
            return;
        if (line.failed)
            AddToFailures(line);
        if (line.time >= from_ && line.time <= until_)
            AddToStarts(line);
    }

    PastStarts Take() { return std::move(past_); }

private:
    void AddToStarts(const LogLine &line) {
        std::vector<PastStart> &starts = past_.jobs[line.job];
        if (line.failed)
            AddFailedStart(line, starts);
        else
            starts.push_back({line.time, line.manual, false, {}});
    }

    void AddToFailures(const LogLine &line) {
        past_.failures.push_back({line.time, line.job, line.reason});
        if (past_.failures.size() > kMostFailures)
            past_.failures.pop_front();
    }

    std::time_t from_;
    std::time_t until_;
    PastStarts past_;
};

// Puts an older file in front.
void Prepend(PastStarts older, PastStarts &past) {
    for (auto &[job, starts] : older.jobs) {
        std::vector<PastStart> &all = past.jobs[job];
        all.insert(all.begin(), std::make_move_iterator(starts.begin()),
                   std::make_move_iterator(starts.end()));
    }
    while (!older.failures.empty() && past.failures.size() < kMostFailures) {
        past.failures.push_front(std::move(older.failures.back()));
        older.failures.pop_back();
    }
    if (older.begins != 0)
        past.begins = older.begins;
}

} // namespace

PastStarts ReadPastStarts(const Appliance &appliance, std::time_t from, std::time_t until) {
    const std::string path = appliance.Locate(kExecutionLogFile);
    LogFile file(path);
    if (!file.Open() && errno != ENOENT)
        throw Failure(path + ": " + std::strerror(errno));
    RotatedLogs rotated = OpenRotatedLogs(appliance, file.File());
    Collector present(from, until);
    if (file.IsOpen()) {
        for (std::string text; file.ReadLine(text);)
            present.Add(text);
        present.Add(file.TakePartialLine());
    }
    PastStarts past = present.Take();
    past.errors = std::move(rotated.errors);
    for (RotatedLog &log : rotated.files) {
        if (past.begins != 0 && past.begins <= from)
            break;
        Collector older(from, until);
        if (auto error = log.ForEachLine([&](const std::string &line) { older.Add(line); }))
            past.errors.push_back(log.Path() + ": " + *error);
        Prepend(older.Take(), past);
    }
    for (auto &[job, starts] : past.jobs) // the clock may have been set back
        std::stable_sort(starts.begin(), starts.end(),
                         [](const PastStart &a, const PastStart &b) { return a.time < b.time; });
    return past;
}

} // namespace kest::ctl
