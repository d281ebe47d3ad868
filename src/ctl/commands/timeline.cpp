#include "ctl/commands/timeline.h"

#include "base/descriptor.h"
#include "ctl/commands/commands.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/timeline_svg.h"
#include "ctl/display/timeline_text.h"
#include "ctl/display/times.h"
#include "ctl/system/failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <limits>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

std::time_t BeginOfQuarter(std::time_t time) {
    const std::tm local = Local(time);
    return time - local.tm_min % 15 * kMinute - local.tm_sec;
}

} // namespace

// --- What there is to show ----------------------------------------------------------------------

ComingHours LookAhead(const std::vector<LiveJob> &jobs, const Daemon &daemon, std::time_t now,
                      std::size_t hours) {
    const std::size_t all = 120 * (hours + 1); // more than one a minute hardly are
    ComingHours coming;
    coming.from = now - Local(now).tm_sec;
    coming.until = coming.from + static_cast<std::time_t>(hours) * kHour;
    coming.held = daemon.held;
    for (const LiveJob &job : jobs) {
        std::vector<JobStart> starts =
            StartsOf(job, daemon, {coming.from, coming.from, coming.until}, all);
        while (!starts.empty() && starts.back().earliest >= coming.until)
            starts.pop_back();
        if (starts.empty())
            ++coming.idle;
        else
            coming.rows.push_back({job.name, std::move(starts)});
    }
    return coming;
}

std::vector<QuarterHour> LoadOf(const ComingHours &hours) {
    std::vector<QuarterHour> load;
    const std::time_t begin = BeginOfQuarter(hours.from);
    for (std::time_t from = begin; from < hours.until; from += kQuarterHour)
        load.push_back({from, 0, 0});
    const auto indexOf = [&](std::time_t time) {
        return std::min(static_cast<std::size_t>((time - begin) / kQuarterHour), load.size() - 1);
    };
    for (const JobRow &row : hours.rows)
        for (const JobStart &start : row.starts) {
            if (start.earliest == start.latest)
                ++load[indexOf(start.earliest)].starts;
            else
                for (std::size_t i = indexOf(start.earliest); i <= indexOf(start.latest); ++i)
                    ++load[i].possible;
        }
    return load;
}

std::size_t TallestOf(const std::vector<QuarterHour> &load) {
    std::size_t tallest = 0;
    for (const QuarterHour &quarter : load)
        tallest = std::max(tallest, quarter.starts + quarter.possible);
    return tallest;
}

std::vector<ClockMark> ClockMarksOf(const ComingHours &hours) {
    std::vector<ClockMark> marks;
    std::tm before = Local(hours.from - 1);
    for (std::time_t time = BeginOfQuarter(hours.from); time < hours.until; time += kQuarterHour) {
        if (time < hours.from)
            continue;
        const std::tm local = Local(time);
        marks.push_back({time, local.tm_hour * 60 + local.tm_min, local.tm_mday != before.tm_mday});
        before = local;
    }
    return marks;
}

int MinutesBetweenLabels(double perMinute, double least) {
    for (const int minutes : {15, 30, 60, 120, 180, 240, 360, 480, 720})
        if (minutes * perMinute >= least)
            return minutes;
    return 24 * 60;
}

std::string ShortDay(std::time_t time) {
    const std::tm local = Local(time);
    std::array<char, 32> weekday{};
    std::strftime(weekday.data(), weekday.size(), "%a ", &local);
    return weekday.data() + std::to_string(local.tm_mday);
}

std::string IdleInWords(std::size_t idle) {
    return std::to_string(idle) + (idle == 1 ? " job does" : " jobs do") +
           " not start in these hours";
}

Json::Value TimelineToJson(const ComingHours &hours) {
    Json::Value json;
    json["from"] = Iso(hours.from);
    json["until"] = Iso(hours.until);
    json["idle_jobs"] = Json::UInt64{hours.idle};
    json["jobs"] = Json::Value(Json::arrayValue);
    for (const JobRow &row : hours.rows) {
        Json::Value job;
        job["name"] = row.name;
        for (const JobStart &start : row.starts)
            job["starts"].append(StartToJson(start, start.overdue));
        json["jobs"].append(std::move(job));
    }
    for (const QuarterHour &quarter : LoadOf(hours)) {
        Json::Value entry;
        entry["from"] = Iso(quarter.from);
        entry["starts"] = Json::UInt64{quarter.starts};
        entry["possible"] = Json::UInt64{quarter.possible};
        json["load"].append(std::move(entry));
    }
    return json;
}

// --- The command --------------------------------------------------------------------------------

namespace {

// Whoever looks at the file finds the old picture or the new one, never a part. A link is replaced
// itself, and a mode is not taken over: both may be somebody else's trap.
bool WriteWhole(const std::string &path, const std::string &text) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    std::string fresh = path + ".XXXXXX";
    Descriptor file(mkostemp(fresh.data(), O_CLOEXEC));
    if (!file)
        return false;
    if (fchmod(file.Get(), 0644) == 0 && WriteAll(file.Get(), text) && close(file.Release()) == 0 &&
        rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

void WritePicture(const std::string &path, const std::string &picture) {
    if (path == "-")
        std::cout << picture;
    else if (!WriteWhole(path, picture))
        throw Failure(path + ": " + std::strerror(errno));
}

} // namespace

int Timeline(const Context &context, const TimelineOptions &options) {
    if (context.json && !options.svg.empty())
        throw Failure("--json and --svg are two answers: ask for one of them");
    const Runtime runtime = LoadRuntime(context.appliance);
    const Daemon daemon = FindDaemon(context.appliance);
    const ComingHours hours = LookAhead(runtime.jobs, daemon, context.now, options.hours);
    PrintCaveats(runtime, daemon, context);
    if (!options.svg.empty())
        WritePicture(options.svg, TimelineInSvg(hours));
    else if (context.json)
        WriteJson(TimelineToJson(hours));
    else
        std::cout << TimelineInText(hours, context.screen);
    return 0;
}

} // namespace kest::ctl
