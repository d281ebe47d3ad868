// The commands and what they share. Each command prints its result to standard output and returns
// the exit status: 0 for success unless stated otherwise. Each throws Failure on errors.

#ifndef CTL_COMMANDS_COMMANDS_H
#define CTL_COMMANDS_COMMANDS_H

#include "ctl/check/diagnostic.h"
#include "ctl/display/screen.h"
#include "ctl/system/appliance.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <cstddef>
#include <ctime>
#include <iosfwd>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// The common input of all commands.
struct Context {
    Appliance appliance;
    Screen screen;
    bool json = false;
    std::time_t now = 0;
};

struct CheckOptions {
    std::vector<std::string> paths; // empty for the four sources
    bool errorsOnly = false;
    bool portable = false;              // apart from the accounts and programs of this system
    std::optional<std::string> account; // whose job files those at `paths` are
};
// Returns 1 if it found problems.
int Check(const Context &context, const CheckOptions &options);

struct PlanOptions {
    std::vector<std::string> paths; // files and directories to be installed; empty for none
    std::string source = "pkg";     // label of the source that they are for
    std::string account;            // in whose directory; empty for none
};
// Returns 1 if the daemon would not load all jobs of the files.
int Plan(const Context &context, const PlanOptions &options);

struct ImportOptions {
    std::string crontab; // "-" for standard input
    bool system = false; // with a user column
    std::string account; // empty for that of the caller
};
// Returns 1 if a line has no exact equivalent.
int Import(const Context &context, const ImportOptions &options);

struct ListOptions {
    std::vector<std::string> patterns; // of which one must match; empty for all jobs
    std::vector<std::string> states;   // as in JSON; empty for all
    std::string sort = "name";         // "name", "next", "last" or "state"
};
// Returns 1 if there are patterns or states and no job matches.
int List(const Context &context, const ListOptions &options);

struct NextOptions {
    std::string job; // empty for all jobs
    std::size_t count = 10;
    std::string at;
};
int Next(const Context &context, const NextOptions &options);

struct ExplainOptions {
    std::vector<std::string> expression; // of which only one is allowed
    std::string period;
};
int Explain(const Context &context, const ExplainOptions &options);

// Returns 3 if the daemon is not running.
int Status(const Context &context);

struct LogOptions {
    bool follow = false;
    std::optional<std::size_t> lines;
    std::string job;
    std::string since;
    std::string until;
    bool failed = false;
    bool raw = false;     // lines as they are, instead of a table on a terminal
    bool noPager = false; // on a terminal
};
int Log(const Context &context, const LogOptions &options);

struct ShowOptions {
    std::string job;
};
int Show(const Context &context, const ShowOptions &options);

struct TimelineOptions {
    std::vector<std::string> patterns; // of which one must match; empty for all jobs
    bool past = false;                 // the hours until now, by the execution log
    std::size_t hours = 24;
    std::string svg;  // output file; empty for text on standard output
    std::string html; // the same of a page
};
// Returns 1 if there are patterns and no job matches.
int Timeline(const Context &context, const TimelineOptions &options);

struct RunOptions {
    std::string job;
};
// Returns the exit status of the job, 128 plus the signal number if a signal killed it, 126 if it
// cannot be prepared, or 127 if its command cannot be run.
int Run(const Context &context, const RunOptions &options);

struct ReloadOptions {
    std::size_t timeout = 90; // seconds
};
// Returns 1 if the daemon did not load all jobs of the job files.
int Reload(const Context &context, const ReloadOptions &options);

int Metrics(const Context &context);

// The present state of the system. Prints the warnings about it to standard error.
struct Snapshot {
    Runtime runtime;
    Daemon daemon;
};
Snapshot TakeSnapshot(const Context &context);

// Whether the caller may not read the execution log.
bool IsLogDenied(const Context &context);

// Whether `name` matches `pattern`: a shell pattern if it contains one of "*?[", otherwise a
// substring. An empty pattern matches all names.
bool MatchesPattern(const std::string &pattern, const std::string &name);

// Whether one of the patterns matches, or there are none.
bool MatchesAny(const std::vector<std::string> &patterns, const std::string &name);

// MatchesPattern for a job of the log: without one of these characters, `pattern` is the full name
// or its end after a "-".
bool MatchesJob(const std::string &pattern, const std::string &name);

// The jobs of the daemon in their present state. Without a document there are no jobs, which is
// reported on standard error; a document that cannot be read is a Failure.
Runtime RuntimeOrNone(const Context &context, const Daemon &daemon);

// FindJob for a name from the command line. If there is no such job, prints what the job files
// contain about it to standard error first.
const LiveJob &JobArgument(const Context &context, const Runtime &runtime, const std::string &name);

// The errors of the four sources: what the daemon does not load. Files that the caller may not read
// are left out.
std::vector<Diagnostic> SourceErrors(const Context &context);

// Prints a diagnostic as "FILE:LINE:COLUMN: SEVERITY: TEXT".
void WriteDiagnostic(const Diagnostic &diagnostic, const Screen &screen, std::ostream &stream);
Json::Value DiagnosticToJson(const Diagnostic &diagnostic);

// Prints to standard error where a job of that full name is defined, and the diagnostics about it.
void PrintWhyNotLoaded(const Context &context, const std::string &name);

// Parses a time from the command line; an empty text is the present time. Throws Failure if it is
// invalid.
std::time_t TimeArgument(const Context &context, const std::string &text);

// Warns on standard error that the daemon is not running, so the data is not current, and of
// invalid entries in its document.
void WarnOfStaleData(const Runtime &runtime, const Daemon &daemon, const Context &context);

// Warns on standard error that the machine is held, and of launched jobs that wait out their delay.
void WarnOfWaitingStarts(const Daemon &daemon);

// Prints a JSON document, the second one in a single line.
void WriteJson(const Json::Value &document);
void WriteJsonLine(const Json::Value &document);

} // namespace kest::ctl

#endif
