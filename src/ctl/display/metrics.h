// The state of the daemon and of all jobs in the Prometheus text format. The manual of kestcronctl
// lists the metrics. Metrics whose value is unknown are left out.

#ifndef CTL_DISPLAY_METRICS_H
#define CTL_DISPLAY_METRICS_H

#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"
#include "ctl/system/start_counts.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// What the daemon did not load.
struct Refused {
    std::size_t jobs = 0;
    std::size_t files = 0;
};

// Nothing for what is unknown.
struct SystemFigures {
    std::optional<std::int32_t> maxDelay; // of the schedule template, if there is one
    std::optional<std::time_t> saved;     // time of the document that the jobs are from
    std::optional<Refused> refused;
    std::optional<std::map<std::string, StartCount>> counts; // by the names as printed in the log
};

// A job that does not run on a passive machine is not overdue. A run that is kept while the machine
// is held or passive is pending, and not a next run.
std::string MetricsInText(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                          const SystemFigures &system, std::time_t now);

} // namespace kest::ctl

#endif
