// Checks one job file with the daemon's own rules.

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

// A job file, as read.
struct JobFile {
    std::string path;       // as printed
    std::string name;       // in its directory
    JobDirectory directory; // the label is empty outside the four sources
    int error = 0;          // errno, or 0 if the document was read
    Json::Value document;
    JsonOrigin origin;
};

// One definition of a job file.
struct CheckedJob {
    std::string name; // full name; without the label outside the four sources
    std::string file;
    Position position;
    bool accepted = false; // valid
    Json::Value config;    // the definition with its defaults, if it is valid
};

struct JobFileReport {
    std::vector<CheckedJob> jobs; // in the order of the file
    std::vector<Diagnostic> diagnostics;
};

// The bytes that the valid jobs of the file take in the runtime document. Counting stops above
// `most`, so the result is then some larger number.
std::size_t DocumentSizeOf(const JobFile &file, std::size_t most);

// The diagnostic for a file that exceeds the quota of its account. `file` is not set.
Diagnostic QuotaDiagnostic(const std::string &account);

JobFileReport CheckJobFile(const JobFile &file, const Environment &environment);

// A warning for each job that a later job of the same name replaces. `jobs` must be in the order in
// which the daemon reads them.
std::vector<Diagnostic> ReplacedJobs(const std::vector<CheckedJob> &jobs);

} // namespace kest::ctl

#endif
