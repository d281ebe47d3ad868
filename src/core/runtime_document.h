// The runtime document: the jobs for other programs and for the next start.

#ifndef CORE_RUNTIME_DOCUMENT_H
#define CORE_RUNTIME_DOCUMENT_H

#include "job/cronjob.h"
#include "platform/json_file.h"

#include <cstddef>
#include <vector>

namespace kest {

// Which jobs a document shows.
enum class JobsShown : unsigned char {
    Running, // all except jobs that wait for their programs
    All
};

// Writes the documents of the jobs to `sink` as JSON text, keyed by name, in name order. The text
// is passed in parts, because all of it would take more memory than the jobs.
void JobsToJson(const std::vector<CronJob> &jobs, JobsShown shown, const JsonSink &sink);

// An upper bound of the bytes that the jobs take in the runtime document, including their later
// schedules and launches. Job names must be unique. Returns some number above `most` when the bound
// exceeds it.
std::size_t DocumentSize(const std::vector<CronJob> &jobs, std::size_t most);

} // namespace kest

#endif
