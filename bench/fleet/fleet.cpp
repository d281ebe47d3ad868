// Simulates a fleet of machines whose jobs call one server. Each machine has its own schedule
// template and a daily, an hourly and a weekly job. Usage:
//
//     fleet [MACHINES [SEED]]    prints the figures of docs/fleet.md as JSON
//     fleet --check              checks that the simulation follows the rules of the daemon
//
// scripts/fleet runs it and writes the document.

#include "bench/fleet/count.h"
#include "bench/fleet/reference.h"

#include <exception>
#include <iostream>
#include <json/writer.h>
#include <map>
#include <string>
#include <utility>

namespace kest {

namespace {

constexpr std::array<std::int32_t, 3> kMaxDelays{0, 300, 3600};
constexpr std::time_t kSunday = 1780264800; // 31 May 2026, 22:00:00 UTC

struct Fleet {
    std::int64_t machines = 100'000;
    std::uint64_t seed = 1;
};

// Independent random streams of a machine.
enum Kind : std::uint64_t { kDraws, kCircumstances, kIdeal };

Chance ChanceOf(const Fleet &fleet, std::int64_t machine, Kind kind) {
    Chance mixed(fleet.seed);
    const std::uint64_t base = mixed.Next();
    return Chance(base ^ Chance(static_cast<std::uint64_t>(machine) * 3 + kind).Next());
}

// All machines are switched on together: their first cycles are within 20 seconds. A cycle is a
// minute, half a millisecond of work, and the lateness of the timer.
Start BootTogether(const Fleet &fleet, std::int64_t machine, Micros power) {
    Chance chance = ChanceOf(fleet, machine, kCircumstances);
    Start start;
    start.seed = ChanceOf(fleet, machine, kDraws).Next();
    start.firstCycle = power + chance.Between(5 * kSecond, 25 * kSecond);
    start.cycle = kMinute + kWork + chance.Between(60, 300);
    start.lastRun.fill(start.firstCycle);
    return start;
}

Json::Value FiguresOf(const std::vector<Server> &servers, const Jobs &jobs) {
    Json::Value figures;
    for (std::size_t i = 0; i < kMaxDelays.size(); ++i)
        figures[std::to_string(kMaxDelays[i])] = servers[i].Figures(jobs);
    return figures;
}

std::vector<Server> ServersFor(Micros from, Micros to) {
    std::vector<Server> servers;
    servers.reserve(kMaxDelays.size());
    for (const std::int32_t maxDelay : kMaxDelays)
        servers.emplace_back(maxDelay, from, to);
    return servers;
}

// --- A week -------------------------------------------------------------------------------------

constexpr Micros kLead = 2 * kHour;           // Sunday evening
constexpr Micros kPowerOn = 17 * kMinute;     // after the beginning
constexpr Micros kWeekEnd = kLead + 7 * kDay; // Monday to Sunday are counted
const std::array<std::string, kJobs> kFixedTimes{"0 3 * * *", "0 * * * *", "0 3 * * 0"};

// Counts how often a job runs in each of its periods.
class RunsPerPeriod {
public:
    void Take(const std::vector<Launches> &life, const Jobs &jobs) {
        for (std::size_t job = 0; job < kJobs; ++job) {
            const Micros period = PeriodOf(jobs[job].word);
            std::vector<std::size_t> runs(static_cast<std::size_t>((kWeekEnd - kLead) / period));
            for (const Launches &launches : life)
                if (launches.jobs[job] && launches.time >= kLead)
                    ++runs[static_cast<std::size_t>((launches.time - kLead) / period)];
            for (const std::size_t count : runs)
                ++periods_[jobs[job].word][std::to_string(count)];
        }
    }
    static Micros PeriodOf(const std::string &word) {
        return word == "hourly" ? kHour : word == "daily" ? kDay : kWeekEnd - kLead;
    }
    Json::Value AsJson() const {
        Json::Value all;
        for (const auto &[word, counts] : periods_)
            for (const auto &[count, periods] : counts)
                all[word][count] = Json::UInt64{periods};
        return all;
    }

private:
    std::map<std::string, std::map<std::string, std::uint64_t>> periods_;
};

Json::Value Week(const Fleet &fleet, const Jobs &jobs) {
    const Calendar calendar(kSunday, kWeekEnd);
    std::vector<Server> servers = ServersFor(kLead, kWeekEnd);
    RunsPerPeriod runs;
    for (std::int64_t machine = 0; machine < fleet.machines; ++machine) {
        const auto life = SimulateMachine(BootTogether(fleet, machine, kPowerOn), jobs, calendar);
        for (Server &server : servers)
            for (const Launches &launches : life)
                server.Take(launches);
        runs.Take(life, jobs);
    }
    Json::Value week;
    week["figures"] = FiguresOf(servers, jobs);
    week["runs"] = runs.AsJson();
    week["minutes"] = servers[1].Minutes();
    return week;
}

// Each job runs once in each of its periods, at a random time: the best that machines can do
// without communication.
Json::Value IdealWeek(const Fleet &fleet, const Jobs &jobs) {
    Server server(0, 0, kWeekEnd - kLead);
    for (std::int64_t machine = 0; machine < fleet.machines; ++machine) {
        Chance chance = ChanceOf(fleet, machine, kIdeal);
        for (std::size_t job = 0; job < kJobs; ++job) {
            const Micros period = RunsPerPeriod::PeriodOf(jobs[job].word);
            for (Micros begin = 0; begin < kWeekEnd - kLead; begin += period)
                server.TakeOne(job, begin + chance.Between(0, period - 1));
        }
    }
    return server.Figures(jobs);
}

// --- Power comes back ---------------------------------------------------------------------------

constexpr std::time_t kWednesday = 1780506000; // 3 June 2026, 17:00:00 UTC
constexpr Micros kPowerBack = 23 * kMinute;
constexpr Micros kWatched = 6 * kHour;
const std::map<std::string, std::int32_t> kAssuredHours{
    {"daily", 48}, {"hourly", 2}, {"weekly", 336}};

// The power failed without an orderly stop, so a machine has the last runs that its last orderly
// stop saved, one to sixty days ago.
void RememberLastStop(const Fleet &fleet, std::int64_t machine, const Jobs &jobs, Start &start) {
    Chance chance = ChanceOf(fleet, machine, kIdeal);
    const Micros stop = start.firstCycle - chance.Between(kDay, 60 * kDay);
    for (std::size_t job = 0; job < kJobs; ++job)
        start.lastRun[job] = stop - chance.Between(0, RunsPerPeriod::PeriodOf(jobs[job].word));
}

Json::Value PowerBack(const Fleet &fleet, bool assured, bool history) {
    Jobs jobs = JobsByPeriod();
    for (Job &job : jobs)
        job.assuredHours = assured ? kAssuredHours.at(job.word) : 0;
    const Calendar calendar(kWednesday, kPowerBack + kWatched);
    std::vector<Server> servers = ServersFor(kPowerBack, kPowerBack + kWatched);
    for (std::int64_t machine = 0; machine < fleet.machines; ++machine) {
        Start start = BootTogether(fleet, machine, kPowerBack);
        if (history)
            RememberLastStop(fleet, machine, jobs, start);
        const auto life = SimulateMachine(start, jobs, calendar);
        for (Server &server : servers)
            for (const Launches &launches : life)
                server.Take(launches);
    }
    Json::Value hours;
    hours["figures"] = FiguresOf(servers, jobs);
    for (std::size_t i = 0; i < kMaxDelays.size(); ++i)
        hours["minutes"][std::to_string(kMaxDelays[i])] = servers[i].Minutes();
    return hours;
}

// --- Check --------------------------------------------------------------------------------------

bool Same(const std::vector<Launches> &one, const std::vector<Launches> &other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](const Launches &left, const Launches &right) {
                          return left.time == right.time && left.jobs == right.jobs;
                      });
}

// Starts at any second of the minute; every other machine is so slow that it skips a minute each
// day. A cycle of the first one extends from minute 59 into the next hour.
Start OddStart(const Fleet &fleet, std::int64_t machine, const Jobs &jobs) {
    Start start = BootTogether(fleet, machine, kPowerOn);
    start.firstCycle += ChanceOf(fleet, machine, kIdeal).Between(0, kMinute);
    start.cycle += machine % 2 * 60 * kWork;
    if (machine == 0)
        start.firstCycle = kHour - kWork / 2 - 42 * start.cycle;
    RememberLastStop(fleet, machine, jobs, start);
    return start;
}

// Simulates `machines` machines in both ways. Returns the number of launches compared; throws if
// any differ.
std::size_t Compare(const Fleet &fleet, Jobs jobs, std::int64_t machines, bool assured) {
    const Calendar calendar(kSunday, kWeekEnd);
    if (assured) // so few hours that jobs are sometimes overdue
        for (std::size_t job = 0; job < kJobs; ++job)
            jobs[job].assuredHours = static_cast<std::int32_t>(job) + 1;
    std::size_t compared = 0;
    for (std::int64_t machine = 0; machine < machines; ++machine) {
        const Start start = OddStart(fleet, machine, jobs);
        const auto fast = SimulateMachine(start, jobs, calendar);
        if (!Same(fast, SimulateByDaemon(start, jobs, calendar.Begin(), calendar.Length())))
            throw std::runtime_error("machine " + std::to_string(machine) +
                                     " differs from the daemon's own functions");
        compared += fast.size();
    }
    return compared;
}

std::size_t CheckAll(const Fleet &fleet, std::int64_t machines) {
    return Compare(fleet, JobsByPeriod(), machines, false) +
           Compare(fleet, JobsByPeriod(), machines, true) +
           Compare(fleet, JobsByCrontab(kFixedTimes), machines, false);
}

// --- All of it ----------------------------------------------------------------------------------

Json::Value Simulate(const Fleet &fleet) {
    Json::Value result;
    result["machines"] = Json::Int64{fleet.machines};
    result["seed"] = Json::UInt64{fleet.seed};
    result["compared"] = Json::UInt64{CheckAll(fleet, 20)};
    result["template"] = Week(fleet, JobsByPeriod());
    result["fixed"] = Week(fleet, JobsByCrontab(kFixedTimes));
    result["random"] = IdealWeek(fleet, JobsByPeriod());
    result["assured"] = PowerBack(fleet, true, true);
    result["plain"] = PowerBack(fleet, false, true);
    result["first"] = PowerBack(fleet, true, false);
    return result;
}

int Run(const std::vector<std::string> &arguments) {
    Fleet fleet;
    if (arguments == std::vector<std::string>{"--check"}) {
        std::cout << CheckAll(fleet, 100) << " cycles with launches are the same in both\n";
        return EXIT_SUCCESS;
    }
    if (!arguments.empty())
        fleet.machines = std::stoll(arguments[0]);
    if (arguments.size() > 1)
        fleet.seed = std::stoull(arguments[1]);
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    std::cout << Json::writeString(compact, Simulate(fleet)) << "\n";
    return EXIT_SUCCESS;
}

} // namespace

} // namespace kest

int main(int argc, char *argv[]) {
    try {
        return kest::Run({argv + 1, argv + argc});
    } catch (const std::exception &error) {
        std::cerr << "fleet: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
}
