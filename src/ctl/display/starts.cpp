#include "ctl/display/starts.h"

#include "base/json_members.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"
#include "job/schedule.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>

namespace kest::ctl {

namespace {

bool ComesBefore(const JobStart &a, const JobStart &b) {
    return std::tie(a.earliest, a.latest, a.job->name) <
           std::tie(b.earliest, b.latest, b.job->name);
}

// A time from a document, limited to the range of the calendar.
std::time_t Clamped(std::int64_t time) {
    constexpr std::int64_t yearTenThousand = 253402300800;
    return std::clamp(time, -yearTenThousand, yearTenThousand);
}

// Merges the scheduled starts of a job with its overdue starts. Starts before `wanted` are
// simulated, because overdue starts depend on them, but not returned.
class Simulation {
public:
    Simulation(const LiveJob &job, std::time_t from, std::time_t wanted, std::size_t most)
        : job_(job), hours_(job.job.assureExecute), wanted_(wanted), most_(most),
          last_(LastRunOf(job)), free_(from) {}

    void Add(const ComingStart &scheduled) {
        AddOverdueBefore(scheduled.earliest);
        // The job may become overdue before the drawn time.
        if (const auto overdue = OverdueBefore(scheduled.latest))
            Keep({*overdue, *overdue, scheduled.undrawn, 1, 1}, true);
        Keep(scheduled, false);
        last_ = scheduled.latest;
        free_ = scheduled.latest + kMinute;
    }

    void AddOverdueBefore(std::time_t end) {
        while (starts_.size() < most_) {
            const auto overdue = OverdueBefore(end);
            if (!overdue)
                return;
            // Overdue starts are `wait` apart. Skip those before `wanted`.
            const std::time_t wait = std::max(kMinute, kHour * hours_);
            const std::time_t ahead = std::min(wanted_, end - 1) - *overdue;
            last_ = *overdue + std::max(std::time_t{0}, ahead / wait * wait);
            free_ = last_ + kMinute;
            Keep({last_, last_, {}, 1, 1}, true);
        }
    }

    // The starts in chronological order.
    std::vector<JobStart> Take() {
        std::stable_sort(starts_.begin(), starts_.end(), ComesBefore);
        starts_.resize(std::min(starts_.size(), most_));
        return std::move(starts_);
    }

private:
    void Keep(const ComingStart &start, bool overdue) {
        if (start.latest >= wanted_)
            starts_.push_back({start, &job_, overdue, {}});
    }

    // The first free minute in which the job is overdue, if it is before `end`.
    std::optional<std::time_t> OverdueBefore(std::time_t end) const {
        if (hours_ == 0)
            return std::nullopt;
        std::time_t moment = free_;
        if (!IsOverdue(hours_, last_, moment + kMinute - 1)) {
            moment = last_ + kHour * hours_ + 1;
            moment -= (moment - free_) % kMinute;
        }
        return moment < end ? std::optional<std::time_t>(moment) : std::nullopt;
    }

    const LiveJob &job_;
    std::int32_t hours_;
    std::time_t wanted_;
    std::size_t most_;
    std::time_t last_; // last run, known or simulated
    std::time_t free_; // first minute in which the job can start
    std::vector<JobStart> starts_;
};

// Simulates an assured job up to `wanted`. Its overdue starts from there depend on the start
// before, which lies at most the assured hours back.
void SimulateUntil(std::time_t wanted, const LiveJob &job, std::time_t now,
                   Simulation &simulation) {
    constexpr std::time_t longest = 9600 * kHour; // limits the work
    const std::time_t waits =
        std::clamp(kHour * (job.job.assureExecute + std::time_t{24}), std::time_t{0}, longest);
    const Outlook before{now, std::max(now, wanted - waits), wanted - 1};
    for (const ComingStart &start :
         ComingStarts(job.job.cronFields(), job.job.ScheduleDocument(), before,
                      static_cast<std::size_t>(longest / kMinute)))
        if (start.latest < wanted)
            simulation.Add(start);
}

} // namespace

std::time_t LastRunOf(const LiveJob &job) {
    return Clamped(job.job.LastRun());
}

namespace {

JobStart KeptStart(const LiveJob &job, const Outlook &outlook) {
    JobStart start;
    start.earliest = start.latest = outlook.now; // before all others
    start.job = &job;
    start.waits = start.kept = true;
    return start;
}

} // namespace

std::vector<JobStart> StartsOf(const LiveJob &job, const Daemon &daemon, const Outlook &outlook,
                               std::size_t count) {
    std::vector<JobStart> starts;
    if (job.kept)
        starts.push_back(KeptStart(job, outlook));
    if (daemon.passive && !job.job.runOnPassive)
        return starts;
    Outlook ahead = outlook;
    ahead.from -= ahead.from % kMinute;
    // A job starts at most once in a minute.
    if (LastRunOf(job) / kMinute == ahead.from / kMinute)
        ahead.from += kMinute;
    const bool later = outlook.from > outlook.now;
    Simulation simulation(job, later ? outlook.now - outlook.now % kMinute : ahead.from, ahead.from,
                          count);
    if (later && job.job.assureExecute != 0)
        SimulateUntil(ahead.from, job, outlook.now, simulation);
    for (const ComingStart &scheduled :
         ComingStarts(job.job.cronFields(), job.job.ScheduleDocument(), ahead, count))
        simulation.Add(scheduled);
    simulation.AddOverdueBefore(ahead.until);
    for (JobStart &start : simulation.Take()) {
        start.waits = daemon.held && !(start.overdue && job.job.assureRun == 1);
        starts.push_back(std::move(start));
    }
    starts.resize(std::min(starts.size(), count));
    return starts;
}

namespace {

// All starts of the jobs that may begin up to `horizon`, in chronological order, at most `count` of
// each job.
std::vector<JobStart> StartsUntil(std::time_t horizon, const std::vector<const LiveJob *> &jobs,
                                  const Daemon &daemon, const Outlook &outlook, std::size_t count) {
    // A start right after the horizon may take up one before it.
    const std::time_t until = std::min(outlook.until, horizon + kHour);
    std::vector<JobStart> merged;
    for (const LiveJob *job : jobs)
        for (JobStart &start : StartsOf(*job, daemon, {outlook.now, outlook.from, until}, count))
            if (start.earliest <= horizon)
                merged.push_back(std::move(start));
    std::stable_sort(merged.begin(), merged.end(), ComesBefore);
    return merged;
}

} // namespace

std::vector<JobStart> StartsOf(const std::vector<const LiveJob *> &jobs, const Daemon &daemon,
                               const Outlook &outlook, std::size_t count) {
    // Many jobs have enough starts in the next minutes, a single one perhaps only in years.
    constexpr std::time_t factor = 8;
    for (std::time_t span = kHour / 4;; span *= factor) {
        const std::time_t horizon = std::min(outlook.until, outlook.from + span);
        std::vector<JobStart> starts = StartsUntil(horizon, jobs, daemon, outlook, count);
        if (starts.size() < count && horizon < outlook.until)
            continue;
        starts.resize(std::min(starts.size(), count));
        return starts;
    }
}

std::optional<JobStart> NextStart(const LiveJob &job, const Daemon &daemon, std::time_t now) {
    const std::vector<JobStart> starts =
        StartsOf(job, daemon, {now, now, now + kCalendarRepeats}, 1);
    return starts.empty() ? std::nullopt : std::optional<JobStart>(starts.front());
}

namespace {

// What follows the time of a launch.
std::string DelayInWords(const JobStart &start, std::time_t now) {
    if (start.delay.most < kMinute)
        return "";
    if (start.earliest != start.latest || start.delay.least < kMinute)
        return " +" + std::to_string(start.delay.most / kMinute) + " min";
    const std::string first = ClockInWords(start.FirstStart(), now);
    const std::string last = ClockInWords(start.LastStart(), now);
    return ", starts " + first + (first == last ? "" : "-" + last);
}

} // namespace

std::string WaitInWords(const Daemon &daemon) {
    return daemon.held ? "the release of the machine" : "kestcrond without --passive-mode";
}

std::string LaunchInWords(const JobStart &start, std::time_t now) {
    return start.kept ? "as soon as it may" : StartInWords(start, now) + DelayInWords(start, now);
}

std::string LaunchInShort(const JobStart &start, std::time_t now) {
    return start.kept ? "kept" : StartInShort(start, now) + DelayInWords(start, now);
}

Json::Value StartToJson(const JobStart &start) {
    constexpr std::time_t lastSecond = 59;
    Json::Value json = StartToJson(start, start.overdue);
    json["start_earliest"] = Iso(start.FirstStart());
    json["start_latest"] = Iso(start.LastStart() + lastSecond);
    json["waits"] = start.waits;
    for (const char *time : {"earliest", "latest", "start_earliest", "start_latest"})
        if (start.kept)
            json[time] = Json::Value();
    return json;
}

Json::Value StartToJson(const ComingStart &start, bool overdue) {
    Json::Value json;
    json["earliest"] = Iso(start.earliest);
    json["latest"] = Iso(start.latest);
    json["undrawn"] = Json::Value(Json::arrayValue);
    for (const std::string &key : start.undrawn)
        json["undrawn"].append(key);
    json["at_most"] = Json::UInt64{start.most};
    json["overdue"] = overdue;
    return json;
}

} // namespace kest::ctl
