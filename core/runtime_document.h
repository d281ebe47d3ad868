// The runtime document: what is told of the jobs, and remembered of them.

#ifndef CORE_RUNTIME_DOCUMENT_H
#define CORE_RUNTIME_DOCUMENT_H

#include "job/cronjob.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// The documents of the jobs in both lists, each in the order of its names, as JSON text keyed by
// these. Put together without a copy of them, which would take as much memory again.
std::string RuntimeDocument(const std::vector<CronJob> &jobs,
                            const std::vector<CronJob> &more = {});

// How many bytes the jobs, by their names, take in that document at most, now and later, when they
// have schedules and have been launched; some number above `most` when that is more.
std::size_t DocumentSize(const std::map<std::string, CronJob> &jobs, std::size_t most);

#endif
