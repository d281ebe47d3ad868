// The commands. Each writes to standard output what it was asked for and returns the exit status: 0
// when all is well, 1 when it found problems. Each throws Failure when it cannot do its work.

#ifndef CTL_COMMANDS_COMMANDS_H
#define CTL_COMMANDS_COMMANDS_H

#include "ctl/display/screen.h"
#include "ctl/system/appliance.h"
#include "ctl/system/processes.h"
#include "ctl/system/runtime.h"

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kest::ctl {

// What every command works with.
struct Context {
    Appliance appliance;
    Screen screen;
    bool json = false;
    std::time_t now = 0;
};

struct CheckOptions {
    std::vector<std::string> paths; // none: the four sources
    bool errorsOnly = false;
};
int Check(const Context &context, const CheckOptions &options);

struct ListOptions {
    std::string pattern;
};
int List(const Context &context, const ListOptions &options);

struct NextOptions {
    std::string job; // empty: all
    std::size_t count = 10;
    std::string at;
};
int Next(const Context &context, const NextOptions &options);

struct ExplainOptions {
    std::string expression;
    std::string period;
};
int Explain(const Context &context, const ExplainOptions &options);

// Returns 3 when the daemon does not run.
int Status(const Context &context);

struct LogOptions {
    bool follow = false;
    std::optional<std::size_t> lines;
    std::string job;
    std::string since;
    bool failed = false;
};
int Log(const Context &context, const LogOptions &options);

struct ShowOptions {
    std::string job;
};
int Show(const Context &context, const ShowOptions &options);

struct TimelineOptions {
    std::size_t hours = 24;
    std::string svg; // file to write; empty: the terminal
};
int Timeline(const Context &context, const TimelineOptions &options);

struct RunOptions {
    std::string job;
};
// Returns the job's own exit status, 128 and the signal's number when one ended it, 126 when it
// cannot be prepared and 127 when its command cannot be run.
int Run(const Context &context, const RunOptions &options);

struct ReloadOptions {
    std::size_t timeout = 90; // seconds
};
int Reload(const Context &context, const ReloadOptions &options);

int Metrics(const Context &context);

// Whether a name is meant by `pattern`: a shell pattern when it holds one of "*?[", otherwise any
// part of a name. An empty one means all.
bool MatchesPattern(const std::string &pattern, const std::string &name);

// The job that the command line names; as FindJob, and where there is none, what job files have to
// say of it goes to standard error first.
const LiveJob &JobArgument(const Context &context, const Runtime &runtime, const std::string &name);

// Writes to standard error where a job of that full name is defined and what there is to say of it;
// nothing when it is nowhere.
void TellWhyNotLoaded(const Context &context, const std::string &name);

// Reads a time of the command line, empty for now. Throws Failure when it is none.
std::time_t TimeArgument(const Context &context, const std::string &text);

// Says on standard error what keeps the answer from being the whole truth: that the daemon does not
// run, that a document is an old one, that an entry is corrupt.
void PrintCaveats(const Runtime &runtime, const Daemon &daemon, const Context &context);

// Says on standard error what keeps jobs from starting in their time: that the machine is held, and
// that launched jobs wait for their turn.
void TellWhatWaits(const Daemon &daemon);

// Writes a document as the answer; in one line when it is one of many.
void WriteJson(const Json::Value &document);
void WriteJsonLine(const Json::Value &document);

} // namespace kest::ctl

#endif
