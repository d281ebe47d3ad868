#include "ctl/display/timeline.h"

#include "base/printable.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kest::ctl {

namespace {

std::time_t BeginOfQuarter(std::time_t time) {
    const std::tm local = Local(time);
    return time - local.tm_min % 15 * kMinute - local.tm_sec;
}

Json::Value PastStartToJson(const PastStart &start) {
    Json::Value json;
    json["time"] = Iso(start.time);
    json["by_hand"] = start.manual;
    json["failed"] = start.failed;
    json["reason"] = start.failed ? Json::Value(start.reason) : Json::Value();
    return json;
}

} // namespace

TimelineData CollectStarts(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                           std::int32_t maxDelay, std::time_t now, std::size_t hours,
                           const JobFilter &shown) {
    const std::size_t most = 120 * (hours + 1); // one start in each minute, and a margin
    TimelineData data;
    data.from = now - Local(now).tm_sec;
    data.until = data.from + static_cast<std::time_t>(hours) * kHour;
    data.held = daemon.held;
    LaunchForecast forecast(jobs, daemon, maxDelay, now);
    for (const LiveJob &job : jobs) {
        if (shown && !shown(job.name))
            continue;
        std::vector<JobStart> starts =
            StartsOf(job, daemon, {data.from, data.from, data.until}, most);
        forecast.SetDelays(starts);
        starts.erase(std::remove_if(starts.begin(), starts.end(),
                                    [&](const JobStart &start) {
                                        return start.kept || start.FirstStart() >= data.until;
                                    }),
                     starts.end());
        if (starts.empty())
            ++data.idle;
        else
            data.rows.push_back({job.name, std::move(starts), {}});
    }
    return data;
}

TimelineData CollectPastStarts(const std::vector<LiveJob> &jobs, const PastStarts &log,
                               std::time_t now, std::size_t hours, const JobFilter &shown) {
    TimelineData data;
    data.until = now;
    data.from = now - static_cast<std::time_t>(hours) * kHour;
    data.past = true;
    data.logBegins = log.begins;
    for (const auto &[name, starts] : log.jobs)
        if (!shown || shown(name))
            data.rows.push_back({name, {}, starts});
    for (const LiveJob &job : jobs)
        if ((!shown || shown(job.name)) && log.jobs.count(Printable(job.name)) == 0)
            ++data.idle;
    return data;
}

std::vector<QuarterHour> LoadOf(const TimelineData &data) {
    std::vector<QuarterHour> load;
    const std::time_t begin = BeginOfQuarter(data.from);
    for (std::time_t from = begin; from < data.until; from += kQuarterHour)
        load.push_back({from, 0, 0});
    const auto indexOf = [&](std::time_t time) {
        return std::min(static_cast<std::size_t>((time - begin) / kQuarterHour), load.size() - 1);
    };
    for (const JobRow &row : data.rows) {
        for (const PastStart &start : row.past)
            ++load[indexOf(start.time)].starts;
        for (const JobStart &start : row.starts) {
            const std::size_t first = indexOf(start.FirstStart());
            const std::size_t last = indexOf(start.LastStart() + kMinute - 1);
            if (first == last && start.undrawn.empty())
                ++load[first].starts;
            else
                for (std::size_t i = first; i <= last; ++i)
                    load[i].possible += start.most;
        }
    }
    return load;
}

std::size_t MaximumOf(const std::vector<QuarterHour> &load) {
    std::size_t maximum = 0;
    for (const QuarterHour &quarter : load)
        maximum = std::max(maximum, quarter.starts + quarter.possible);
    return maximum;
}

std::vector<ClockMark> ClockMarksOf(const TimelineData &data) {
    std::vector<ClockMark> marks;
    std::tm before = Local(data.from - 1);
    for (std::time_t time = BeginOfQuarter(data.from); time < data.until; time += kQuarterHour) {
        if (time < data.from)
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

std::string Moment(std::time_t time) {
    const std::string iso = Iso(time);
    return iso.substr(0, 10) + " " + iso.substr(11, 5);
}

std::string Counted(std::size_t count, const char *one, const char *more) {
    return std::to_string(count) + " " + (count == 1 ? one : more);
}

std::vector<std::time_t> TimesOfMarks(const JobRow &row) {
    std::vector<std::time_t> times;
    for (const JobStart &start : row.starts)
        if (!start.overdue && start.IsExact())
            times.push_back(start.FirstStart());
    for (const PastStart &start : row.past)
        if (!start.manual && !start.failed)
            times.push_back(start.time);
    std::sort(times.begin(), times.end()); // delays differ from launch to launch
    return times;
}

std::string BandInWords(const JobStart &start) {
    const std::string number =
        start.most == 1 ? "one start" : "up to " + std::to_string(start.most) + " starts";
    return number + " between " + Moment(start.FirstStart()) + " and " + Moment(start.LastStart()) +
           (start.undrawn.empty() ? "; launched at " + Moment(start.earliest)
                                  : "; not yet drawn: " + FieldsInWords(start.undrawn));
}

std::string QuarterInWords(const QuarterHour &quarter) {
    std::string text = Moment(quarter.from) + " to " +
                       ClockInWords(quarter.from + kQuarterHour, quarter.from + kQuarterHour) +
                       ": " + Counted(quarter.starts, "start", "starts");
    if (quarter.possible != 0)
        text += ", up to " + std::to_string(quarter.possible) + " more";
    return text;
}

std::string IdleInWords(const TimelineData &data) {
    const bool one = data.idle == 1;
    const char *verb = data.past ? " did" : one ? " does" : " do";
    return std::to_string(data.idle) + (one ? " job" : " jobs") + verb +
           " not start in these hours";
}

bool IsLogTooShort(const TimelineData &data) {
    return data.past && (data.logBegins == 0 || data.logBegins > data.from);
}

Json::Value TimelineToJson(const TimelineData &data) {
    Json::Value json;
    json["from"] = Iso(data.from);
    json["until"] = Iso(data.until);
    json["idle_jobs"] = Json::UInt64{data.idle};
    json["log_begins"] = data.logBegins != 0 ? Json::Value(Iso(data.logBegins)) : Json::Value();
    json["jobs"] = Json::Value(Json::arrayValue);
    for (const JobRow &row : data.rows) {
        Json::Value job;
        job["name"] = row.name;
        for (const JobStart &start : row.starts)
            job["starts"].append(StartToJson(start));
        for (const PastStart &start : row.past)
            job["starts"].append(PastStartToJson(start));
        json["jobs"].append(std::move(job));
    }
    for (const QuarterHour &quarter : LoadOf(data)) {
        Json::Value entry;
        entry["from"] = Iso(quarter.from);
        entry["starts"] = Json::UInt64{quarter.starts};
        entry["possible"] = Json::UInt64{quarter.possible};
        json["load"].append(std::move(entry));
    }
    return json;
}

} // namespace kest::ctl
