// The runtime document: what is told of the jobs, and remembered of them.

#ifndef CORE_RUNTIME_DOCUMENT_H
#define CORE_RUNTIME_DOCUMENT_H

#include "job/cronjob.h"

#include <string>
#include <vector>

// The documents of the jobs in both lists, each in the order of its names, as JSON text keyed by
// these. Put together without a copy of them, which would take as much memory again.
std::string RuntimeDocument(const std::vector<CronJob> &jobs,
                            const std::vector<CronJob> &more = {});

#endif
