#include "base/json_members.h"
#include "ctl/commands/commands.h"
#include "ctl/display/job_status.h"
#include "ctl/display/launch_forecast.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"

#include <algorithm>
#include <iostream>
#include <limits>

namespace kest::ctl {

namespace {

struct ListedJob {
    const LiveJob *job;
    JobStatus status;
    std::optional<JobStart> next;
};

bool IsListed(const ListOptions &options, const ListedJob &listed) {
    const auto &states = options.states;
    return MatchesAny(options.patterns, listed.job->name) &&
           (states.empty() ||
            std::find(states.begin(), states.end(), InWords(listed.status).json) != states.end());
}

// By the earliest start of its process. A run that is kept comes first, and a job that never starts
// last.
std::time_t OrderOfNext(const ListedJob &listed) {
    if (!listed.next)
        return std::numeric_limits<std::time_t>::max();
    return listed.next->kept ? 0 : listed.next->FirstStart();
}

// The jobs are sorted by name before, and stay so among equals.
void Sort(std::vector<ListedJob> &jobs, const std::string &order) {
    const auto by = [&](const auto &isBefore) {
        std::stable_sort(jobs.begin(), jobs.end(), isBefore);
    };
    if (order == "next")
        by([](const ListedJob &a, const ListedJob &b) { return OrderOfNext(a) < OrderOfNext(b); });
    else if (order == "last") // the latest first
        by([](const ListedJob &a, const ListedJob &b) { return a.job->lastRun > b.job->lastRun; });
    else if (order == "state")
        by([](const ListedJob &a, const ListedJob &b) { return a.status > b.status; });
}

std::vector<ListedJob> JobsToList(const Context &context, const Snapshot &snapshot,
                                  const ListOptions &options) {
    const Runtime &runtime = snapshot.runtime;
    auto nexts = NextStarts(runtime.jobs, snapshot.daemon, runtime.maxDelay, context.now);
    std::vector<ListedJob> jobs;
    for (std::size_t i = 0; i < nexts.size(); ++i) {
        const LiveJob &job = runtime.jobs[i];
        jobs.push_back({&job, JobStatusOf(job, snapshot.daemon), std::move(nexts[i])});
        if (!IsListed(options, jobs.back()))
            jobs.pop_back();
    }
    Sort(jobs, options.sort);
    return jobs;
}

std::string LastRunInShort(const LiveJob &job, std::time_t now) {
    if (job.lastRun == 0)
        return "-";
    return (job.isLogged ? "" : "launched ") + WhenInShort(job.lastRun, now);
}

void WriteTable(const Context &context, const std::vector<ListedJob> &jobs, const Daemon &daemon) {
    Table table({"JOB", "ACCOUNT", "SCHEDULE", "LAST RUN", "NEXT RUN", "STATE"}, {1, 3, 2});
    for (const ListedJob &listed : jobs) {
        const LiveJob &job = *listed.job;
        table.Add({job.name, job.account,
                   ScheduleInWords(job.job.ScheduleDocument(), job.job.cronFields()),
                   LastRunInShort(job, context.now),
                   listed.next ? LaunchInShort(*listed.next, context.now) : "never",
                   StatusInWords(job, daemon, context.now)},
                  InWords(listed.status).colour);
    }
    std::cout << table.Show(context.screen);
}

} // namespace

int List(const Context &context, const ListOptions &options) {
    constexpr int noMatch = 1;
    const Snapshot snapshot = TakeSnapshot(context);
    const std::vector<ListedJob> jobs = JobsToList(context, snapshot, options);
    const bool isEmpty = jobs.empty() && !(options.patterns.empty() && options.states.empty());
    if (context.json) {
        Json::Value json(Json::arrayValue);
        for (const ListedJob &listed : jobs)
            json.append(JobToJson(*listed.job, snapshot.daemon, listed.next));
        WriteJson(json);
    } else if (!isEmpty) {
        WriteTable(context, jobs, snapshot.daemon);
    }
    if (isEmpty)
        std::cerr << "kestcronctl: no job matches\n";
    return isEmpty ? noMatch : 0;
}

} // namespace kest::ctl
