#include "ctl/system/start_counts.h"

#include "base/json_members.h"
#include "base/json_text.h"
#include "base/paths.h"
#include "base/random_mix.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"
#include "ctl/system/log_file.h"
#include "ctl/system/log_line.h"
#include "ctl/system/rotated_logs.h"
#include "platform/json_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <json/value.h>
#include <limits>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

using Counts = std::map<std::string, StartCount>;

// A place in a file of the log. The number of a removed file may be that of a new one, so the first
// line identifies it too.
struct Place {
    std::int64_t inode = 0;
    std::int64_t offset = 0;
    std::int64_t begin = 0; // checksum of the first line; 0 for an empty file
};

struct CountsSoFar {
    Counts counts;
    Place place;
    std::time_t latest = std::numeric_limits<std::time_t>::min(); // time of a counted line
};

// The checksum of the first line, as far as it is in the first bytes of the file.
std::int64_t ChecksumOfBegin(const Descriptor &file) {
    std::array<char, 120> bytes{};
    const ssize_t size = pread(file.Get(), bytes.data(), bytes.size(), 0);
    const std::string_view begin(bytes.data(),
                                 static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return MixBits(begin.substr(0, begin.find('\n')), {});
}

// The place at an offset of a file, or at its end.
Place PlaceIn(const Descriptor &file, std::optional<std::int64_t> offset = {}) {
    struct stat status {};
    fstat(file.Get(), &status);
    return {static_cast<std::int64_t>(status.st_ino), offset.value_or(status.st_size),
            ChecksumOfBegin(file)};
}

bool Contains(const Descriptor &file, const Place &place) {
    const Place end = PlaceIn(file);
    return end.inode == place.inode && end.begin == place.begin && end.offset >= place.offset;
}

// --- The file -----------------------------------------------------------------------------------

Json::Value ToJson(const CountsSoFar &known) {
    Json::Value json;
    json["inode"] = Json::Int64{known.place.inode};
    json["offset"] = Json::Int64{known.place.offset};
    json["begin"] = Json::Int64{known.place.begin};
    json["latest"] = Json::Int64{known.latest};
    json["jobs"] = Json::Value(Json::objectValue);
    for (const auto &[name, count] : known.counts) {
        Json::Value &job = json["jobs"][name];
        job["starts"] = Json::UInt64{count.starts};
        job["failures"] = Json::UInt64{count.failures};
    }
    return json;
}

std::optional<CountsSoFar> ReadCounts() {
    constexpr JsonLimits limits{std::size_t{64} << 20, 8};
    Json::Value json;
    if (!JsonFromFile(kCountsFile, json, limits) || !json.isObject())
        return std::nullopt;
    CountsSoFar known;
    known.place = {IntegerMember(json, "inode", 0), IntegerMember(json, "offset", 0),
                   IntegerMember(json, "begin", 0)};
    known.latest = IntegerMember(json, "latest", known.latest);
    const Json::Value &jobs = Member(json, "jobs");
    for (auto job = jobs.begin(); job != jobs.end(); ++job) {
        const auto number = [&](const char *name) {
            return static_cast<std::uint64_t>(
                std::max(std::int64_t{0}, IntegerMember(*job, name, 0)));
        };
        known.counts[job.name()] = {number("starts"), number("failures")};
    }
    return known;
}

// --- Counting -----------------------------------------------------------------------------------

class Counter {
public:
    // Only lines that are later than `after` count.
    Counter(CountsSoFar &known, std::time_t after) : known_(known), after_(after) {}

    void Count(const std::string &text) {
        const LogLine line = ParseLogLine(text);
        if (line.time <= after_)
            return;
        known_.latest = std::max(known_.latest, line.time);
        const auto count = known_.counts.find(line.job);
        if (count == known_.counts.end())
            return;
        count->second.starts += line.started ? 1 : 0;
        count->second.failures += line.failed ? 1 : 0;
    }

private:
    CountsSoFar &known_;
    std::time_t after_;
};

// The present file is read last, and the next call goes on at its end.
void CountPresent(LogReader &present, Counter &counter, Place &place) {
    for (std::string text; present.ReadLine(text);)
        counter.Count(text);
    const off_t read = lseek(present.File().Get(), 0, SEEK_CUR);
    const auto partial = static_cast<off_t>(present.TakePartialLine().size());
    if (read != 0)
        place = PlaceIn(present.File(), read - partial);
}

// Counts what is not counted yet. `after` is set at the first call: only later lines count then.
void CountNewLines(const Appliance &appliance, Descriptor present, CountsSoFar &known,
                   std::optional<std::time_t> after) {
    std::vector<RotatedLog> rotated = OpenRotatedLogs(appliance, present).files;
    std::size_t unread = rotated.size(); // of the newest rotated files
    const Descriptor *counted = nullptr; // the file that contains the place
    if (!after && Contains(present, known.place)) {
        counted = &present;
        unread = 0;
    }
    for (std::size_t i = 0; i < rotated.size() && !after && counted == nullptr; ++i)
        if (!rotated[i].IsCompressed() && Contains(rotated[i].File(), known.place)) {
            counted = &rotated[i].File();
            unread = i + 1;
        }
    if (counted != nullptr) {
        lseek(counted->Get(), known.place.offset, SEEK_SET);
        after = std::numeric_limits<std::time_t>::min();
    }
    Counter counter(known, after.value_or(known.latest));
    while (unread > 0)
        rotated[--unread].ForEachLine([&](const std::string &text) { counter.Count(text); });
    LogReader reader(std::move(present));
    CountPresent(reader, counter, known.place);
}

} // namespace

std::map<std::string, StartCount>
CountStarts(const Appliance &appliance, const std::vector<std::string> &names, std::time_t since) {
    const std::optional<CountsSoFar> before = ReadCounts();
    CountsSoFar known;
    if (before) {
        known.place = before->place;
        known.latest = before->latest;
    }
    for (const std::string &name : names) {
        const auto count = before ? before->counts.find(name) : known.counts.end();
        known.counts[name] = before && count != before->counts.end() ? count->second : StartCount{};
    }
    const std::string path = appliance.Locate(kExecutionLogFile);
    Descriptor present = OpenRegularFile(path);
    if (!present && errno != ENOENT)
        throw Failure(path + ": " + std::strerror(errno));
    // Right after a rotation there is no file, and the next call counts what is left of the old
    // one.
    if (!present)
        return known.counts;
    CountNewLines(appliance, std::move(present), known,
                  before ? std::nullopt : std::optional<std::time_t>(since - 1));
    if (!ReplaceFile(kCountsFile, JsonToString(ToJson(known)) + "\n", 0600))
        throw Failure(std::string(kCountsFile) + ": " + std::strerror(errno));
    return known.counts;
}

} // namespace kest::ctl
