// The state of a system as one HTML page without references to other files.

#ifndef CTL_DISPLAY_HTML_PAGE_H
#define CTL_DISPLAY_HTML_PAGE_H

#include "ctl/check/diagnostic.h"
#include "ctl/display/starts.h"
#include "ctl/display/timeline.h"
#include "ctl/system/past_starts.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

struct PageJob {
    const LiveJob *job = nullptr;
    std::optional<JobStart> next;
};

struct PageData {
    std::string host; // name of the machine; empty if unknown
    bool local = true;
    std::time_t now = 0;
    std::string document; // that the jobs are read from
    std::time_t saved = 0;
    Daemon daemon;
    std::vector<Diagnostic> problems;  // of the job files
    std::vector<std::string> warnings; // other problems
    std::vector<PageJob> jobs;         // by name
    TimelineData coming;
    TimelineData past;
    bool isLogRead = true;             // otherwise the caller may not read it, and `past` is empty
    std::vector<PastFailure> failures; // the latest first
};

// A complete document. All texts of jobs, logs and files are escaped, and its content security
// policy admits its own style and script only. It can be read without the script, which adds a
// filter (also as "#filter=TEXT" in its address), a zoom and tooltips.
std::string PageInHtml(const PageData &data);

} // namespace kest::ctl

#endif
