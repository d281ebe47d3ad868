// The rules of the daemon on plain integers: with its JSON schedules, a fleet would take minutes.
// reference.cpp simulates a machine with the daemon's own functions, and the program compares the
// two before each simulation.

#include "bench/fleet/machine.h"

#include "core/job_files.h"
#include "job/definition.h"
#include "platform/kestutils.h"

#include <stdexcept>
#include <utility>

namespace kest {

namespace {

const std::array<std::string, kJobs> kWords{"daily", "hourly", "weekly"};

std::array<CronRange, kFields> ParseFields(const std::string &crontab) {
    const std::vector<std::string> texts = KESTUtils::StringExplode(crontab, " ");
    std::array<CronRange, kFields> fields;
    for (std::size_t i = 0; i < kFields; ++i) {
        const CronItem item = ParseCronItem(FieldKeys().at(i), texts.at(i));
        if (item.fault != CronItemFault::None)
            throw std::invalid_argument(crontab);
        fields[i] = item.range;
    }
    return fields;
}

Job MakeJob(const std::string &word, const std::string &crontab) {
    return {word, FullJobName("pkg", "", FileBaseName("backup.conf"), word), ParseFields(crontab)};
}

} // namespace

Jobs JobsByPeriod() {
    std::array<std::string, kJobs> crontabs;
    for (std::size_t i = 0; i < kJobs; ++i)
        crontabs[i] = PeriodCrontab(kWords[i], "").value();
    return JobsByCrontab(crontabs);
}

Jobs JobsByCrontab(const std::array<std::string, kJobs> &crontabs) {
    Jobs jobs;
    for (std::size_t i = 0; i < kJobs; ++i)
        jobs[i] = MakeJob(kWords[i], crontabs[i]);
    std::sort(jobs.begin(), jobs.end(),
              [](const Job &one, const Job &other) { return one.name < other.name; });
    return jobs;
}

// --- Chance -------------------------------------------------------------------------------------

// SplitMix64: small, and all of its bits are random enough.
std::uint64_t Chance::Next() {
    std::uint64_t bits = state_ += 0x9e3779b97f4a7c15;
    bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9;
    bits = (bits ^ (bits >> 27)) * 0x94d049bb133111eb;
    return bits ^ (bits >> 31);
}

std::int64_t Chance::Between(std::int64_t from, std::int64_t to) {
    // For a range this small the bias of the remainder is below 1 in 10^8.
    return from + static_cast<std::int64_t>(Next() % static_cast<std::uint64_t>(to - from + 1));
}

// --- A machine ----------------------------------------------------------------------------------

namespace {

using Values = std::array<std::int32_t, kFields>;

class Machine {
public:
    Machine(const Start &start, const Jobs &jobs, const Calendar &calendar)
        : jobs_(jobs), calendar_(calendar), chance_(start.seed), lastRun_(start.lastRun) {
        Redraw(FieldSet().set());
    }

    Launches Cycle(Micros now) {
        Launches launches{now, {}};
        for (std::size_t i = 0; i < kJobs; ++i)
            if (IsDue(values_[i], calendar_.At(now).fields) || IsOverdue(i, now)) {
                launches.jobs.set(i);
                lastRun_[i] = now;
            }
        // After the due check: a value drawn in minute 0 cannot become due in the same cycle.
        if (const FieldSet &redrawn = calendar_.At(now + kWork).redrawn; redrawn.any())
            Redraw(redrawn);
        return launches;
    }

private:
    static bool IsDue(const Values &values, const Values &minute) {
        for (std::size_t field = 0; field < kFields; ++field)
            if (values[field] != minute[field] && values[field] != kAnyValue)
                return false;
        return true;
    }

    // In whole seconds, like the daemon.
    bool IsOverdue(std::size_t job, Micros now) const {
        const std::int64_t hours = jobs_[job].assuredHours;
        return hours != 0 && Seconds(now) > Seconds(lastRun_[job]) + 3600 * hours;
    }
    static std::int64_t Seconds(Micros time) {
        return time >= 0 ? time / kSecond : -((-time + kSecond - 1) / kSecond);
    }

    // Draws the values of the template, which each random item that contains them takes.
    void Redraw(const FieldSet &fields) {
        for (std::size_t field = 0; field < kFields; ++field) {
            if (!fields[field])
                continue;
            CronRange all;
            GetRandomFieldRange(FieldKeys()[field], all);
            const auto drawn = static_cast<std::int32_t>(chance_.Between(all.from, all.to));
            for (std::size_t job = 0; job < kJobs; ++job)
                values_[job][field] = Pin(jobs_[job].fields[field], drawn);
        }
    }
    static std::int32_t Pin(const CronRange &item, std::int32_t drawn) {
        if (item.type == CronRange::Any)
            return kAnyValue;
        return item.type == CronRange::Random ? drawn : item.from;
    }

    const Jobs &jobs_;
    const Calendar &calendar_;
    Chance chance_;
    std::array<Values, kJobs> values_{};
    std::array<Micros, kJobs> lastRun_;
};

} // namespace

std::vector<Launches> SimulateMachine(const Start &start, const Jobs &jobs,
                                      const Calendar &calendar) {
    Machine machine(start, jobs, calendar);
    std::vector<Launches> all;
    for (Micros now = start.firstCycle; now < calendar.Length() - kWork; now += start.cycle)
        if (const Launches launches = machine.Cycle(now); launches.jobs.any())
            all.push_back(launches);
    return all;
}

} // namespace kest
