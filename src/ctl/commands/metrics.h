// The facts about daemon and jobs in the Prometheus text format.
//
// Of the whole: kestcron_up, kestcron_passive, kestcron_held, kestcron_jobs,
// kestcron_delayed_starts; kestcron_start_time_seconds only while the daemon runs, and
// kestcron_max_delay_seconds only where there is a template. Of each job, with the labels "job" and
// "user": kestcron_job_last_run_timestamp_seconds, where a run is known;
// kestcron_job_next_run_timestamp_seconds and kestcron_job_next_run_latest_timestamp_seconds, where
// there is one, equal when it is known to the minute; kestcron_job_overdue, kestcron_job_pending
// and kestcron_job_running. What a passive machine holds back is neither overdue nor pending.

#ifndef CTL_COMMANDS_METRICS_H
#define CTL_COMMANDS_METRICS_H

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
