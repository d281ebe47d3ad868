#include "bench/fleet/reference.h"

#include "base/json_members.h"
#include "core/job_state.h"
#include "job/schedule.h"
#include "log/memorylogger.h"

#include <json/value.h>

namespace kest {

// Required by the job model. Nothing is launched here, so nothing is written.
KEST::MemoryLogger executionLog("/dev/null/log", "/dev/null/staging", 1024, "/dev/null/lock");

namespace {

class ReferenceMachine {
public:
    ReferenceMachine(const Start &start, const Jobs &jobs, std::time_t begin)
        : jobs_(jobs), begin_(begin), chance_(start.seed) {
        for (std::size_t i = 0; i < kJobs; ++i)
            lastRun_[i] = At(start.lastRun[i]);
        for (const std::string &key : FieldKeys())
            Redraw(key);
    }

    Launches Cycle(Micros now) {
        Launches launches{now, {}};
        for (std::size_t i = 0; i < kJobs; ++i) {
            StateInput input;
            input.expireTime = IsDue(schedules_[i], UtcOf(At(now))) ? At(now) : 0;
            input.overdue = IsOverdue(jobs_[i].assuredHours, lastRun_[i], At(now));
            if (!TraitsOf(StateOf(input))->launched)
                continue;
            launches.jobs.set(i);
            lastRun_[i] = At(now);
        }
        for (const std::string &key : FieldsToRedraw(UtcOf(At(now + kWork))))
            Redraw(key);
        return launches;
    }

private:
    // The time in seconds since the epoch, as in the daemon.
    std::time_t At(Micros time) const {
        return static_cast<std::time_t>((begin_ * kSecond + time) / kSecond);
    }

    static bool IsDue(const Json::Value &schedule, const std::tm &local) {
        for (std::size_t i = 0; i < kFields; ++i)
            if (!Admits(AdmittedBits(FieldValues(Member(schedule, FieldKeys()[i]))),
                        FieldsOf(local)[i]))
                return false;
        return true;
    }

    // A repeatable number replaces the random one of the kernel: it is passed as the shared value,
    // which the template then takes.
    void Redraw(const std::string &key) {
        const CronRange all = ParseCronItem(key, "~").range;
        const auto number = static_cast<std::int32_t>(chance_.Between(all.from, all.to));
        const std::int32_t drawn = DrawField(key, {all}, number, random_).at(0);
        for (std::size_t i = 0; i < kJobs; ++i) {
            const CronRange &item = jobs_[i].fields[Place(key)];
            Json::Value &array = schedules_[i][key];
            array = Json::Value(Json::arrayValue);
            array.append(DrawField(key, {item}, drawn, random_).at(0));
        }
    }
    static std::size_t Place(const std::string &key) {
        const auto *place = std::find(FieldKeys().begin(), FieldKeys().end(), key);
        return static_cast<std::size_t>(place - FieldKeys().begin());
    }

    const Jobs &jobs_;
    std::time_t begin_;
    Chance chance_;
    KEST::RANDOM::KESTRandom random_;
    std::array<Json::Value, kJobs> schedules_;
    std::array<std::time_t, kJobs> lastRun_{};
};

} // namespace

std::vector<Launches> SimulateByDaemon(const Start &start, const Jobs &jobs, std::time_t begin,
                                       Micros length) {
    ReferenceMachine machine(start, jobs, begin);
    std::vector<Launches> all;
    for (Micros now = start.firstCycle; now < length - kWork; now += start.cycle)
        if (const Launches launches = machine.Cycle(now); launches.jobs.any())
            all.push_back(launches);
    return all;
}

} // namespace kest
