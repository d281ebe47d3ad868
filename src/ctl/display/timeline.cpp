#include "ctl/display/timeline.h"

#include "ctl/display/coming_starts.h"
#include "ctl/display/launch_forecast.h"
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

} // namespace

TimelineData CollectStarts(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                           std::int32_t maxDelay, std::time_t now, std::size_t hours) {
    const std::size_t most = 120 * (hours + 1); // one start in each minute, and a margin
    TimelineData data;
    data.from = now - Local(now).tm_sec;
    data.until = data.from + static_cast<std::time_t>(hours) * kHour;
    data.held = daemon.held;
    LaunchForecast forecast(jobs, daemon, maxDelay, now);
    for (const LiveJob &job : jobs) {
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
            data.rows.push_back({job.name, std::move(starts)});
    }
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
    for (const JobRow &row : data.rows)
        for (const JobStart &start : row.starts) {
            const std::size_t first = indexOf(start.FirstStart());
            const std::size_t last = indexOf(start.LastStart() + kMinute - 1);
            if (first == last && start.undrawn.empty())
                ++load[first].starts;
            else
                for (std::size_t i = first; i <= last; ++i)
                    load[i].possible += start.most;
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

std::string IdleInWords(std::size_t idle) {
    return std::to_string(idle) + (idle == 1 ? " job does" : " jobs do") +
           " not start in these hours";
}

Json::Value TimelineToJson(const TimelineData &data) {
    Json::Value json;
    json["from"] = Iso(data.from);
    json["until"] = Iso(data.until);
    json["idle_jobs"] = Json::UInt64{data.idle};
    json["jobs"] = Json::Value(Json::arrayValue);
    for (const JobRow &row : data.rows) {
        Json::Value job;
        job["name"] = row.name;
        for (const JobStart &start : row.starts)
            job["starts"].append(StartToJson(start));
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
