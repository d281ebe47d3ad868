// What is wrong or hardly meant in a job file, judged as the daemon judges it.
//
// In JSON a check is one object: "files", "jobs", "errors" and "warnings", all numbers, and
// "problems", an array of objects with these members:
//
//   "file", "line", "column"   where it is; both numbers begin with 1, columns are bytes
//   "severity"                 "error" or "warning"
//   "job"                      the full name, null when it is about the file
//   "member"                   the definition's member, null when it is about all of it
//   "found"                    JSON text of what is there, long ones cut; null for nothing
//   "allowed"                  what may be there, null when there is nothing to be told
//   "message"                  a sentence

#ifndef CTL_CHECK_CHECK_H
#define CTL_CHECK_CHECK_H

#include "core/job_files.h"
#include "ctl/check/admission.h"
#include "ctl/check/diagnostic.h"
#include "platform/json_file.h"

#include <cstddef>
#include <json/value.h>
#include <string>
#include <vector>

namespace kest::ctl {

// A job file as it was read.
struct JobFile {
    std::string path;       // as it is printed
    std::string name;       // in its directory
    JobDirectory directory; // without a label: none that the daemon reads
    int error = 0;          // errno, 0 when there is a document
    Json::Value document;
    JsonOrigin origin;
};

// A definition in it.
struct JudgedJob {
    std::string name; // full; without what comes from the source when there is none
    std::string file;
    Place place;
    bool accepted = false;
};

struct JobFileReport {
    std::vector<JudgedJob> jobs; // in their order
    std::vector<Diagnostic> diagnostics;
};

// How many bytes the jobs that the daemon accepts of the file take in the runtime document; some
// number above `most` when that is more.
std::size_t DocumentSizeOf(const JobFile &file, std::size_t most);

// What there is to be said of a file that the quota of its account does not admit.
Diagnostic BeyondQuota(const std::string &account);

JobFileReport CheckJobFile(const JobFile &file, const Environment &environment);

// A warning for each of `jobs`, which are in the order in which the daemon reads them, that a later
// one of the same name replaces.
std::vector<Diagnostic> ReplacedJobs(const std::vector<JudgedJob> &jobs);

} // namespace kest::ctl

#endif
