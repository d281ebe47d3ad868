// The runtime document: what is told of the jobs, and remembered of them.

#ifndef CORE_RUNTIME_DOCUMENT_H
#define CORE_RUNTIME_DOCUMENT_H

#include "job/cronjob.h"
#include "platform/json_file.h"

#include <cstddef>
#include <vector>

namespace kest {

// Which jobs a document shows.
enum class JobsShown : unsigned char {
    Running, // all but those that wait for their programs
    All
};

// Hands the documents of the jobs, in the order of their names, to `sink` as JSON text keyed by
// these, a part after the other, for the whole would take more memory than the jobs.
void JobsToJson(const std::vector<CronJob> &jobs, JobsShown shown, const JsonSink &sink);

// How many bytes the jobs, no two of a name, take in that document at most, now and later, when
// they have schedules and have been launched; some number above `most` when that is more.
std::size_t DocumentSize(const std::vector<CronJob> &jobs, std::size_t most);

} // namespace kest

#endif
