// The program: options, and which command they mean.

#include "base/paths.h"
#include "ctl/check/limits.h"
#include "ctl/check/nearest.h"
#include "ctl/commands/commands.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/runtime.h"
#include "log/memorylogger.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace kest {

KEST::MemoryLogger executionLog(kExecutionLogFile, kLogStagingFile, kLogStagingKiB, kLogLockFile);

} // namespace kest

namespace kest::ctl {

namespace {

constexpr int kUsage = 2; // exit status of wrong usage and of what cannot be read

struct Options {
    std::string root;
    bool json = false;
    CheckOptions check;
    ListOptions list;
    NextOptions next;
    ExplainOptions explain;
    LogOptions log;
    ShowOptions show;
    TimelineOptions timeline;
    RunOptions run;
    ReloadOptions reload;
};

// The command that was chosen; it runs after all options are read.
using Command = std::function<int(const Context &)>;

class Parser {
public:
    Parser() {
        app_.add_option("--root", options_.root, "Read another system's files below DIR")
            ->type_name("DIR");
        app_.add_flag("--json", options_.json, "Answer in JSON");
        app_.set_version_flag("--version", std::string("kestcronctl ") + KESTCROND_VERSION);
        app_.get_formatter()->column_width(24);
        app_.require_subcommand(1);
        app_.footer(
            "Exit status: 0 fine, 1 diagnostics found, 2 wrong usage or cannot read; status: "
            "3 when\nkestcrond does not run; run: that of the job. "
            "See kestcronctl(1).");
        AddReaders();
        AddLog();
        AddActors();
    }

    // Returns the exit status when there is nothing to be run.
    std::optional<int> Parse(int argc, char *argv[]) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::RequiredError &) {
            throw Failure(MissingCommand(argc > 1 ? argv[1] : ""));
        } catch (const CLI::ParseError &error) {
            return app_.exit(error) == 0 ? 0 : kUsage;
        }
        return std::nullopt;
    }

    // What to say when the command line goes on with `word` instead of a command; a command misses
    // an argument of its own otherwise.
    std::string MissingCommand(const std::string &word) const {
        std::vector<std::string> names;
        for (const CLI::App *command : app_.get_subcommands({}))
            names.push_back(command->get_name());
        if (std::find(names.begin(), names.end(), word) != names.end())
            return "something is missing; see kestcronctl " + word + " --help";
        const std::vector<std::string> near = NearestOf(word, names, 1);
        return (word.empty() ? "say a command" : "there is no command \"" + word + "\"") +
               (near.empty() ? "" : "; there is " + near.front()) + "; see kestcronctl --help";
    }

    const Options &GetOptions() const { return options_; }
    const Command &GetCommand() const { return command_; }

private:
    CLI::App *Add(const std::string &name, const std::string &text, const std::string &example,
                  const Command &command) {
        CLI::App *added = app_.add_subcommand(name, text);
        added->fallthrough();
        added->footer("Example: " + example);
        added->callback([this, command] { command_ = command; });
        return added;
    }

    void AddReaders() {
        CLI::App *check = Add("check", "Judge job files before or after they are installed",
                              "kestcronctl check build/etc/kestcron.d/backup.conf",
                              [this](const Context &c) { return Check(c, options_.check); });
        check
            ->add_option("PATH", options_.check.paths,
                         "Job files or directories; none: the four sources")
            ->type_name("");
        check->add_flag("--errors-only", options_.check.errorsOnly,
                        "Only what the daemon would refuse");
        CLI::App *list = Add("list", "The jobs, their schedules, last and next runs",
                             "kestcronctl list '*backup*'",
                             [this](const Context &c) { return List(c, options_.list); });
        list->add_option("PATTERN", options_.list.pattern, "Part of a name, or a shell pattern")
            ->type_name("");
        CLI::App *next = Add("next", "The coming starts of one job or of all",
                             "kestcronctl next -n 5 builtin-core-backup",
                             [this](const Context &c) { return Next(c, options_.next); });
        next->add_option("JOB", options_.next.job, "Full name of a job, or its last part")
            ->type_name("");
        next->add_option("-n", options_.next.count, "How many starts")
            ->capture_default_str()
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 10000).description(""));
        next->add_option("--at", options_.next.at, "Starts from this time on")->type_name("TIME");
        CLI::App *explain = Add("explain", "What a crontab expression or a period means",
                                "kestcronctl explain '0,30 8~17 * * ~'",
                                [this](const Context &c) { return Explain(c, options_.explain); });
        explain->add_option("EXPRESSION", options_.explain.expression, "Five fields, quoted")
            ->type_name("");
        explain->add_option("--period", options_.explain.period, "A period instead")
            ->type_name("WORD");
        Add("status", "Whether the daemon runs, and how", "kestcronctl status",
            [](const Context &c) { return Status(c); });
        CLI::App *show =
            Add("show", "Everything about one job", "kestcronctl show builtin-core-backup",
                [this](const Context &c) { return Show(c, options_.show); });
        show->add_option("JOB", options_.show.job, "Full name of a job, or its last part")
            ->type_name("")
            ->required();
        CLI::App *timeline =
            Add("timeline", "A picture of the coming hours", "kestcronctl timeline --hours 8",
                [this](const Context &c) { return Timeline(c, options_.timeline); });
        timeline->add_option("--hours", options_.timeline.hours, "How many")
            ->capture_default_str()
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 168).description(""));
        timeline->add_option("--svg", options_.timeline.svg, "Write it as a picture")
            ->type_name("FILE");
        Add("metrics", "The same facts for Prometheus",
            "kestcronctl metrics > /var/lib/node_exporter/kestcron.prom",
            [](const Context &c) { return Metrics(c); });
    }

    void AddLog() {
        CLI::App *log =
            Add("log", "The execution log", "kestcronctl log --since yesterday --failed",
                [this](const Context &c) { return Log(c, options_.log); });
        log->add_flag("-f,--follow", options_.log.follow, "Go on with what comes");
        log->add_option("-n", options_.log.lines, "Only the last so many lines")
            ->check(CLI::Range(0, 1000000000).description(""))
            ->type_name("NUMBER");
        log->add_option("--job", options_.log.job, "Only jobs that are meant by it")
            ->type_name("PATTERN");
        log->add_option("--since", options_.log.since, "Only from this time on")->type_name("TIME");
        log->add_flag("--failed", options_.log.failed, "Only what went wrong");
    }

    void AddActors() {
        CLI::App *run = Add("run", "Run a job now, as the daemon would, and wait for it",
                            "kestcronctl run builtin-core-backup",
                            [this](const Context &c) { return Run(c, options_.run); });
        run->add_option("JOB", options_.run.job, "Full name of a job, or its last part")
            ->type_name("")
            ->required();
        CLI::App *reload =
            Add("reload", "Let the daemon read all job files again", "kestcronctl reload",
                [this](const Context &c) { return Reload(c, options_.reload); });
        reload->add_option("--timeout", options_.reload.timeout, "Seconds to wait for it")
            ->type_name("SECONDS")
            ->check(CLI::Range(1, 86400).description(""))
            ->capture_default_str();
    }

    CLI::App app_{"Sees, checks, explains and tries the jobs of kestcrond", "kestcronctl"};
    Options options_;
    Command command_;
};

int Execute(const Parser &parser) {
    const Options &options = parser.GetOptions();
    // To follow a log has no end, and does nothing but print its lines.
    if (!options.root.empty() && !options.log.follow)
        LimitTime(kUsage);
    const Context context{Appliance(options.root), DetectScreen(), options.json,
                          std::time(nullptr)};
    if (!context.appliance.IsThisOne())
        LimitMemory(LargestDocument(context.appliance));
    const int status = parser.GetCommand()(context);
    if (!std::cout.flush())
        throw Failure(std::string("standard output: ") + std::strerror(errno));
    return status;
}

int RunTool(int argc, char *argv[]) {
    try {
        Parser parser;
        if (const std::optional<int> status = parser.Parse(argc, argv))
            return *status;
        return Execute(parser);
    } catch (const std::bad_alloc &) {
        std::cout.flush();
        std::cerr << "kestcronctl: this takes more memory than there is, or than the documents of "
                     "another system are worth\n";
        return kUsage;
    } catch (const std::exception &error) {
        std::cout.flush();
        std::cerr << "kestcronctl: " << Shown(error.what()) << "\n";
        return kUsage;
    }
}

} // namespace

} // namespace kest::ctl

int main(int argc, char *argv[]) {
    return kest::ctl::RunTool(argc, argv);
}
