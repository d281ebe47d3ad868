// The program kestcronctl: parses the command line and runs the chosen command.

#include "base/paths.h"
#include "ctl/check/nearest.h"
#include "ctl/commands/commands.h"
#include "ctl/display/job_status.h"
#include "ctl/display/phrases.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/limits.h"
#include "ctl/system/runtime.h"
#include "ctl/system/time_zone.h"
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

constexpr int kUsage = 2; // exit status for usage errors and failures

struct Options {
    std::string root;
    std::string timeZone;
    bool json = false;
    CheckOptions check;
    PlanOptions plan;
    ImportOptions import;
    ListOptions list;
    NextOptions next;
    ExplainOptions explain;
    LogOptions log;
    ShowOptions show;
    TimelineOptions timeline;
    RunOptions run;
    ReloadOptions reload;
};

// The chosen command. It runs after all options are parsed.
using Command = std::function<int(const Context &)>;

class Parser {
public:
    Parser() {
        app_.add_option("--root", options_.root, "Read another system, whose files are below DIR")
            ->type_name("DIR");
        app_.add_option("--tz", options_.timeZone,
                        "Use this time zone instead of that of kestcrond")
            ->type_name("ZONE");
        app_.add_flag("--json", options_.json, "Print JSON");
        app_.set_version_flag("--version", std::string("kestcronctl ") + KESTCROND_VERSION);
        app_.get_formatter()->column_width(24);
        app_.require_subcommand(1);
        app_.footer(
            "Exit status: 0 success, 1 problems found or no match, 2 usage or other error.\n"
            "import: 1 if a line has no exact equivalent.\n"
            "status: 3 if kestcrond is not running; run: the exit status of the job.\n"
            "See kestcronctl(1).");
        AddQueries();
        AddPredictions();
        AddImport();
        AddLog();
        AddActions();
    }

    // Returns an exit status if there is no command to run.
    std::optional<int> Parse(int argc, char *argv[]) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::RequiredError &) {
            throw Failure(UsageError());
        } catch (const CLI::ParseError &error) {
            if (error.get_exit_code() == 0) // help or version
                return app_.exit(error);
            throw Failure(InOneLine(error.what()) + "; see " + HelpOption());
        }
        return std::nullopt;
    }

    const Options &GetOptions() const { return options_; }
    const Command &GetCommand() const { return command_; }

private:
    // The first line of a message of the parser, without a capital letter.
    static std::string InOneLine(std::string text) {
        text.resize(std::min(text.find('\n'), text.size()));
        if (text.compare(0, 4, "The ") == 0)
            text.front() = 't';
        return text;
    }

    // The option that describes the chosen command, or all of them.
    std::string HelpOption() const {
        const std::vector<CLI::App *> chosen = app_.get_subcommands();
        return "kestcronctl " + (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help";
    }

    std::vector<std::string> CommandNames() const {
        std::vector<std::string> names;
        for (const CLI::App *command : app_.get_subcommands({}))
            names.push_back(command->get_name());
        return names;
    }

    // The error if a command or a required argument is missing.
    std::string UsageError() const {
        if (!app_.get_subcommands().empty())
            return "missing argument; see " + HelpOption();
        const std::vector<std::string> remaining = app_.remaining();
        if (remaining.empty())
            return "no command given; the commands are " + Enumerated(CommandNames()) + "; see " +
                   HelpOption();
        const std::string &word = remaining.front();
        if (word.compare(0, 1, "-") == 0)
            return "unknown option \"" + word + "\"; see kestcronctl --help";
        const std::vector<std::string> near = NearestOf(word, CommandNames(), 1);
        return "unknown command \"" + word + "\"; " +
               (near.empty() ? "see kestcronctl --help" : "did you mean \"" + near.front() + "\"?");
    }

    CLI::App *Add(const std::string &name, const std::string &text, const std::string &example,
                  const Command &command) {
        CLI::App *added = app_.add_subcommand(name, text);
        added->fallthrough();
        added->footer("Example: " + example);
        added->callback([this, command] { command_ = command; });
        return added;
    }

    void AddQueries() {
        CLI::App *check = Add("check", "Check job files, installed or not",
                              "kestcronctl check build/etc/kestcron.d/backup.conf",
                              [this](const Context &c) { return Check(c, options_.check); });
        check
            ->add_option("PATH", options_.check.paths,
                         "Job files or directories (default: the four sources)")
            ->type_name("");
        check->add_flag("--errors-only", options_.check.errorsOnly,
                        "Show errors only, no warnings");
        check->add_flag("--portable", options_.check.portable,
                        "Do not check the accounts and programs of this system");
        check
            ->add_option("--account", options_.check.account, "Check PATH as files of this account")
            ->type_name("NAME");
        CLI::App *plan = Add("plan", "Show what a reload with these job files would change",
                             "kestcronctl plan build/etc/kestcron.d/backup.conf",
                             [this](const Context &c) { return Plan(c, options_.plan); });
        plan->add_option("PATH", options_.plan.paths, "Job files or directories to be installed")
            ->type_name("");
        CLI::Option *source =
            plan->add_option("--source", options_.plan.source, "Source that they are for")
                ->capture_default_str()
                ->type_name("LABEL")
                ->check(CLI::IsMember({"builtin", "builtin-dyn", "pkg"}).description(""));
        plan->add_option("--account", options_.plan.account, "Account that they are for")
            ->type_name("NAME")
            ->excludes(source);
        CLI::App *list = Add("list", "List jobs with their schedules, last and next runs",
                             "kestcronctl list '*backup*'",
                             [this](const Context &c) { return List(c, options_.list); });
        list->add_option("PATTERN", options_.list.patterns, "Parts of job names, or shell patterns")
            ->type_name("");
        list->add_option("--state", options_.list.states, "Only jobs in this state")
            ->type_name("STATE")
            ->allow_extra_args(false)
            ->check(CLI::IsMember(StatesInJson()).description(""));
        list->add_option("--sort", options_.list.sort, "Sort by name, next, last or state")
            ->capture_default_str()
            ->type_name("ORDER")
            ->check(CLI::IsMember({"name", "next", "last", "state"}).description(""));
    }

    void AddPredictions() {
        CLI::App *next = Add("next", "Show the next starts of one job or of all jobs",
                             "kestcronctl next -n 5 builtin-core-backup",
                             [this](const Context &c) { return Next(c, options_.next); });
        next->add_option("JOB", options_.next.job, "Full name of a job, or its end after a \"-\"")
            ->type_name("");
        next->add_option("-n", options_.next.count, "Number of starts")
            ->capture_default_str()
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 10000).description(""));
        next->add_option("--at", options_.next.at, "Only starts from TIME on")->type_name("TIME");
        CLI::App *explain = Add("explain", "Explain a crontab expression or a period",
                                "kestcronctl explain '0,30 8~17 * * ~'",
                                [this](const Context &c) { return Explain(c, options_.explain); });
        explain->add_option("EXPRESSION", options_.explain.expression, "Five fields, in quotes")
            ->type_name("");
        explain->add_option("--period", options_.explain.period, "Explain a period instead")
            ->type_name("WORD");
        Add("status", "Show the state of the daemon", "kestcronctl status",
            [](const Context &c) { return Status(c); });
        CLI::App *show =
            Add("show", "Show everything about one job", "kestcronctl show builtin-core-backup",
                [this](const Context &c) { return Show(c, options_.show); });
        show->add_option("JOB", options_.show.job, "Full name of a job, or its end after a \"-\"")
            ->type_name("")
            ->required();
        CLI::App *timeline =
            Add("timeline", "Show the starts of the coming or past hours as a timeline",
                "kestcronctl timeline --hours 8",
                [this](const Context &c) { return Timeline(c, options_.timeline); });
        timeline
            ->add_option("PATTERN", options_.timeline.patterns,
                         "Parts of job names, or shell patterns")
            ->type_name("");
        timeline->add_flag("--past", options_.timeline.past,
                           "Show the hours until now, by the execution log");
        timeline->add_option("--hours", options_.timeline.hours, "Number of hours")
            ->capture_default_str()
            ->type_name("NUMBER")
            ->check(CLI::Range(1, 168).description(""));
        CLI::Option *svg =
            timeline->add_option("--svg", options_.timeline.svg, "Write an SVG image instead")
                ->type_name("FILE");
        timeline->add_option("--html", options_.timeline.html, "Write a page about all jobs")
            ->type_name("FILE")
            ->excludes(svg);
        Add("metrics", "Print metrics for Prometheus",
            "kestcronctl metrics > /var/lib/node_exporter/kestcron.prom",
            [](const Context &c) { return Metrics(c); });
    }

    void AddImport() {
        CLI::App *import = Add("import", "Turn a classic crontab into a job file",
                               "kestcronctl import --system /etc/crontab > system.conf",
                               [this](const Context &c) { return Import(c, options_.import); });
        import->add_option("CRONTAB", options_.import.crontab, "File, or - for standard input")
            ->type_name("")
            ->required();
        CLI::Option *system = import->add_flag("--system", options_.import.system,
                                               "The account stands before each command");
        import->add_option("--account", options_.import.account, "Account of the jobs")
            ->type_name("NAME")
            ->excludes(system);
    }

    void AddLog() {
        CLI::App *log =
            Add("log", "Show the execution log", "kestcronctl log --since yesterday --failed",
                [this](const Context &c) { return Log(c, options_.log); });
        log->add_flag("-f,--follow", options_.log.follow, "Keep printing new lines");
        log->add_option("-n", options_.log.lines, "Only the last NUMBER lines")
            ->check(CLI::Range(0, 1000000000).description(""))
            ->type_name("NUMBER");
        log->add_option("--job", options_.log.job, "Only jobs matching PATTERN")
            ->type_name("PATTERN");
        log->add_option("--since", options_.log.since, "Only lines from TIME on")
            ->type_name("TIME");
        log->add_option("--until", options_.log.until, "Only lines up to TIME")->type_name("TIME");
        log->add_flag("--failed", options_.log.failed, "Only failures");
        log->add_flag("--raw", options_.log.raw, "Lines as they are, also on a terminal");
        log->add_flag("--no-pager", options_.log.noPager, "Do not show long output page by page");
    }

    void AddActions() {
        CLI::App *run = Add("run", "Run a job now as the daemon would, and wait for it",
                            "kestcronctl run builtin-core-backup",
                            [this](const Context &c) { return Run(c, options_.run); });
        run->add_option("JOB", options_.run.job, "Full name of a job, or its end after a \"-\"")
            ->type_name("")
            ->required();
        CLI::App *reload =
            Add("reload", "Make the daemon re-read all job files", "kestcronctl reload",
                [this](const Context &c) { return Reload(c, options_.reload); });
        reload->add_option("--timeout", options_.reload.timeout, "Maximum time to wait")
            ->type_name("SECONDS")
            ->check(CLI::Range(1, 86400).description(""))
            ->capture_default_str();
    }

    CLI::App app_{"Inspect, check, explain and run the jobs of kestcrond", "kestcronctl"};
    Options options_;
    Command command_;
};

int Execute(const Parser &parser) {
    const Options &options = parser.GetOptions();
    // The time of log --follow is not limited, because it has no end.
    if (!options.root.empty() && !options.log.follow)
        LimitTime(kUsage);
    const Appliance appliance(options.root);
    UseTimeZoneOf(appliance, options.timeZone);
    const Context context{appliance, DetectScreen(), options.json, std::time(nullptr)};
    if (!context.appliance.IsLocal())
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
        std::cerr << "kestcronctl: out of memory; the memory for --root is limited\n";
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
