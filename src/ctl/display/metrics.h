// The state of the daemon and of all jobs in the Prometheus text format.
//
// For the daemon: kestcron_up, kestcron_passive, kestcron_held, kestcron_jobs,
// kestcron_delayed_starts; kestcron_start_time_seconds only while the daemon runs, and
// kestcron_max_delay_seconds only if there is a schedule template. For each job, with the labels
// "job" and "user": kestcron_job_last_run_timestamp_seconds, if a run is known;
// if there is a next run that does not wait for the machine,
// kestcron_job_next_launch_timestamp_seconds, the earliest time of its launch, and
// kestcron_job_next_run_timestamp_seconds and kestcron_job_next_run_latest_timestamp_seconds, the
// bounds of the start of its process, equal if its minute is known; kestcron_job_overdue,
// kestcron_job_pending and kestcron_job_running. A job that does not run on a passive machine is
// not overdue. A run that is kept while the machine is held or passive is pending.

#ifndef CTL_DISPLAY_METRICS_H
#define CTL_DISPLAY_METRICS_H

#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

std::string MetricsInText(const std::vector<LiveJob> &jobs, const Daemon &daemon,
                          std::optional<std::int32_t> maxDelay, std::time_t now);

} // namespace kest::ctl

#endif
