#include "ctl/check/check.h"

#include "tests/unit/support/files.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A system with the accounts and programs that the tests use.
Environment TheSystem() {
    Environment environment;
    environment.account = [](const Json::Value &config) {
        const std::string user = config["user"].asString();
        const std::string package =
            config["package_username"].isString() ? config["package_username"].asString() : "";
        if (user == "root" || user == "rootless")
            return Account{user, user == "root"};
        return user.find("package") == std::string::npos ? Account{}
                                                         : Account{package, package == "alice"};
    };
    environment.program = [](const std::string &path, const std::string &account) {
        Program program;
        program.exists = path != "/missing";
        program.regular = program.exists && path != "/directory";
        program.empty = path == "/empty";
        if (path == "/relative")
            program.link = "p";
        if (path == "/absolute")
            program.link = "/p";
        if (path == "/open" || (path == "/home/alice/p" && account != "alice"))
            program.writableDirectory = "/writable";
        return program;
    };
    return environment;
}

JobFile Read(const std::string &text, const JobDirectory &directory = {"/jobs", "pkg", {}},
             const std::string &name = "f.conf") {
    const TemporaryDirectory place;
    JobFile file;
    file.path = name;
    file.name = name;
    file.directory = directory;
    WriteText(place.File(name), text);
    file.error =
        JsonFromFile(place.File(name), file.document, kJobFileLimits, &file.origin) ? 0 : errno;
    return file;
}

// "LINE:COLUMN error MEMBER: MESSAGE [FOUND] (LABEL: HINT)", empty parts left out.
std::string InText(const Diagnostic &diagnostic) {
    std::string text =
        std::to_string(diagnostic.position.line) + ":" + std::to_string(diagnostic.position.column);
    text += diagnostic.severity == Severity::Error ? " error" : " warning";
    text += diagnostic.member.empty() ? "" : " " + diagnostic.member;
    text += ": " + diagnostic.message;
    text += diagnostic.found.empty() ? "" : " [" + diagnostic.found + "]";
    if (diagnostic.hint.text.empty())
        return text;
    return text + " (" + diagnostic.hint.label + ": " + diagnostic.hint.text + ")";
}

std::vector<std::string> ProblemsOf(const JobFile &file) {
    std::vector<std::string> texts;
    for (const Diagnostic &diagnostic : CheckJobFile(file, TheSystem()).diagnostics)
        texts.push_back(InText(diagnostic));
    return texts;
}

// An array with one valid definition on a line of its own. `members` are added or replace others.
std::string DefinitionWith(const std::string &members) {
    std::string text = "[\n{" + members;
    const auto add = [&](const std::string &name, const std::string &value) {
        if (members.find("\"" + name + "\"") == std::string::npos)
            text += ", \"" + name + "\": " + value;
    };
    if (members.find("cmd_list") == std::string::npos)
        add("cmd", "\"/p -x\"");
    add("name", "\"n\"");
    add("user", "\"root\"");
    add("period", members.find("\"crontab\":") == std::string::npos ? "\"daily\"" : "\"crontab\"");
    return text + "}]";
}

struct ProblemRow {
    const char *members;    // of the definition
    const char *diagnostic; // the only one, or empty for none
};

void ExpectDiagnostics(const std::vector<ProblemRow> &rows,
                       const JobDirectory &directory = {"", "pkg", {}}) {
    for (const ProblemRow &row : rows) {
        SCOPED_TRACE(row.members);
        const JobFileReport report =
            CheckJobFile(Read(DefinitionWith(row.members), directory), TheSystem());
        ASSERT_EQ(report.jobs.size(), 1U);
        std::vector<std::string> texts;
        bool refused = false; // as a definition, not for what the system has
        for (const Diagnostic &diagnostic : report.diagnostics) {
            texts.push_back(InText(diagnostic));
            refused = refused || (diagnostic.severity == Severity::Error &&
                                  diagnostic.message.find("will not load") == std::string::npos);
            EXPECT_EQ(diagnostic.file, "f.conf");
            EXPECT_EQ(diagnostic.job, report.jobs.front().name);
        }
        EXPECT_NE(report.jobs.front().accepted, refused);
        if (*row.diagnostic == '\0')
            EXPECT_THAT(texts, IsEmpty());
        else
            EXPECT_THAT(texts, ElementsAre(row.diagnostic));
    }
}

const char *const kPeriods = "\"hourly\", \"daily\", \"weekly\", \"monthly\" or \"crontab\"";

TEST(CheckJobFile, AcceptsValidDefinitions) {
    ExpectDiagnostics({
        {R"("name": "n")", ""},
        {R"("period": "h")", ""},
        {R"("period": "Weekly")", ""},
        {R"("period": "MONTH")", ""},
        {R"("period": "cron", "crontab": "* * * * *")", ""},
        {R"("crontab": "0,30 8~17 * * ~")", ""},
        {R"("crontab": "* * 31 * *")", ""},
        {R"("crontab": "* * 29 2 *")", ""},
        {R"("crontab": "* * 1 * 0,1,2,3,4,5,6")", ""},
        {R"("crontab": "* * *,31 2 *")", ""},
        {R"("crontab": "* * 31 *,2 *")", ""},
        {R"("crontab": "* * 25~31 1~1 *")", ""},
        {R"("user": "package", "package_username": "alice", "cmd": "/home/alice/p")", ""},
        {R"("cmd_list": ["/p", "a b", 5, true, null, "a|b > c"])", ""},
        {R"("cmd": "/p a=b *.c x-y http://h/?a=1&b=2 ~ [1]")", ""},
        {R"("assure_execute": 48.0, "assure_execute_action": "run", "run_on_passive": 1)", ""},
        {R"("assure_execute": null, "assure_execute_action": null, "run_on_passive": null)", ""},
    });
}

TEST(CheckJobFile, ReportsInvalidMembers) {
    const std::string periods = std::string(" (expected: ") + kPeriods + ")";
    const std::string period5 = "2:12 error period: \"period\" is invalid: 5 [5]" + periods;
    const std::string yearly =
        "2:12 error period: \"period\" is invalid: \"yearly\" [\"yearly\"]" + periods;
    const std::string noPeriod = "2:12 error period: \"period\" is invalid: \"\" [\"\"]" + periods;
    ExpectDiagnostics({
        {R"("period": 5)", period5.c_str()},
        {R"("period": "yearly")", yearly.c_str()},
        {R"("period": "")", noPeriod.c_str()},
        {R"("user": null)", "2:10 error user: \"user\" is invalid: null [null] (expected: "
                            "\"root\", \"system\" or \"package\")"},
        {R"("user": "package")", "2:1 error package_username: \"package_username\" is missing "
                                 "(expected: the name of the account)"},
        {R"("name": ["x"])",
         "2:10 error name: \"name\" is invalid: [\"x\"] [[\"x\"]] (expected: a string)"},
        {R"("cmd": 5)", "2:9 error cmd: \"cmd\" is invalid: 5 [5] (expected: a command, or "
                        "\"cmd_list\" with its arguments)"},
        {R"("period": "crontab")",
         "2:1 error crontab: \"crontab\" is missing (expected: five fields separated by one blank: "
         "minute, hour, day, month, weekday)"},
        {R"("period": "c")", "2:1 error crontab: \"crontab\" is missing (expected: five fields "
                             "separated by one blank: minute, hour, day, month, weekday)"},
        {R"("cmd_list": [])", "2:14 error cmd_list: \"cmd_list\" is invalid: [] [[]] (expected: a "
                              "list of at least one string: the program, then its arguments)"},
        {R"("cmd_list": ["/p", {"a": 1}])",
         "2:21 error cmd_list: invalid argument {\"a\":1} [{\"a\":1}] (expected: a string)"},
        {R"("assure_execute": "5")", "2:20 error assure_execute: \"assure_execute\" is invalid: "
                                     "\"5\" [\"5\"] (expected: a number of hours)"},
        {R"("run_on_passive": [])", "2:20 error run_on_passive: \"run_on_passive\" is invalid: [] "
                                    "[[]] (expected: true or false)"},
    });
}

TEST(CheckJobFile, ReportsAllErrors) {
    EXPECT_THAT(
        ProblemsOf(Read(R"([{"assure_execute": [], "run_on_passive": "x", "cmd_list": 5}])")),
        ElementsAre(testing::StartsWith("1:2 error period: \"period\" is missing"),
                    testing::StartsWith("1:2 error user: \"user\" is missing"),
                    testing::StartsWith("1:2 error name: \"name\" is missing"),
                    testing::StartsWith("1:2 error cmd: \"cmd\" is missing"),
                    testing::StartsWith("1:21 error assure_execute: "),
                    testing::StartsWith("1:43 error run_on_passive: ")));
    EXPECT_THAT(ProblemsOf(Read(R"([5, "x", null, [7], true])")),
                ElementsAre("1:2 error: invalid definition 5 [5] (expected: an object)",
                            "1:5 error: invalid definition \"x\" [\"x\"] (expected: an object)",
                            "1:10 error: invalid definition null [null] (expected: an object)",
                            "1:16 error: invalid definition [7] [[7]] (expected: an object)",
                            "1:21 error: invalid definition true [true] (expected: an object)"));
}

TEST(CheckJobFile, ReportsCrontabErrorsAtTheirItem) {
    const std::string minute = " (expected: 0 to 59, a random value such as 0~59, \"~\" or \"*\")";
    const auto row = [&](const char *text) { return "2:" + (text + minute); };
    const std::string letter = row("15 error crontab: minute \"x\" is not a number [\"x\"]");
    const std::string item = row("16 error crontab: minute \"60\" is out of range [\"60\"]");
    const std::string reversed = row("14 error crontab: minute \"9~3\" is reversed [\"9~3\"]");
    const std::string ends =
        row("14 error crontab: minute \"1~2~3\" has more than two bounds [\"1~2~3\"]");
    const std::string half = row("14 error crontab: minute \"5~\": \"\" is not a number [\"5~\"]");
    const std::string step =
        row("14 error crontab: minute \"0/5\": steps are not supported [\"0/5\"]");
    const std::string empty = row("16 error crontab: an item of the minute is empty: fields are "
                                  "separated by one blank, items by one comma [\"\"]");
    ExpectDiagnostics({
        {R"("crontab":  "x * * * *")", letter.c_str()},
        {R"("crontab": "1,60 * * * *")", item.c_str()},
        {R"("crontab": "9~3 * * * *")", reversed.c_str()},
        {R"("crontab": "1~2~3 * * * *")", ends.c_str()},
        {R"("crontab": "5~ * * * *")", half.c_str()},
        {R"("crontab": "0/5 * * * *")", step.c_str()},
        {R"("crontab": "5, * * * *")", empty.c_str()},
        {R"("crontab": "* * * * 7")",
         "2:22 error crontab: weekday \"7\" is out of range [\"7\"] "
         "(expected: 0 (Sunday) to 6, a random value such as 0~6, \"~\" or \"*\")"},
        {R"("crontab": "* 1-5 * * *")",
         "2:16 error crontab: hour \"1-5\": ranges with a dash are not supported [\"1-5\"] (write: "
         "1,2,3,4,5 for all values, 1~5 for one random value)"},
        {R"("crontab": "* * * * 0-6")",
         "2:22 error crontab: weekday \"0-6\": ranges with a dash are not supported [\"0-6\"] "
         "(write: * for all values, 0~6 for one random value)"},
        {R"("crontab": "* * * * 1-7")",
         "2:22 error crontab: weekday \"1-7\": ranges with a dash are not supported [\"1-7\"] "
         "(expected: 0 (Sunday) to 6, a random value such as 0~6, \"~\" or \"*\")"},
        // With an escape sequence in the string, positions within it are unknown.
        {R"("crontab": "* \u002a * * 7")",
         "2:13 error crontab: weekday \"7\" is out of range [\"7\"] (expected: 0 (Sunday) to 6, a "
         "random value such as 0~6, \"~\" or \"*\")"},
        {R"("crontab": "* * * *")",
         "2:13 error crontab: \"crontab\" has 4 fields [\"* * * *\"] (expected: five fields "
         "separated by one blank: minute, hour, day, month and weekday)"},
        {R"("crontab": "")",
         "2:13 error crontab: \"crontab\" has 1 field (each blank separates two fields) [\"\"] "
         "(expected: five fields separated by one blank: minute, hour, day, month and weekday)"},
    });
}

TEST(CheckJobFile, WarnsOfMisleadingCrontabs) {
    const std::string every5 =
        "2:14 warning crontab: minute \"*/5\" is read as \"*\", every minute [\"*/5\"] "
        "(write: 0,5,10,15,20,25,30,35,40,45,50,55)";
    ExpectDiagnostics({
        {R"("crontab": "*/5 * * * *")", every5.c_str()},
        {R"("crontab": "* * */10 * *")", "2:18 warning crontab: day \"*/10\" is read as \"*\", "
                                         "every day [\"*/10\"] (write: 1,11,21,31)"},
        {R"("crontab": "*/1 * * * *")", "2:14 warning crontab: minute \"*/1\" is read as \"*\", "
                                        "every minute [\"*/1\"] (write: *)"},
        {R"("crontab": "* *7 * * *")",
         "2:16 warning crontab: hour \"*7\" is read as \"*\", every hour [\"*7\"] (expected: 0 to "
         "23, a random value such as 0~23, \"~\" or \"*\")"},
        {R"("crontab": "* * ~5 * *")",
         "2:18 warning crontab: day \"~5\" is read as \"~\", a random value from 1 to 28 [\"~5\"] "
         "(write: 1~5)"},
        {R"("crontab": "* * 1 * 1")",
         "2:22 warning crontab: day \"1\" and weekday \"1\" must match on the same day [\"1\"] "
         "(write: \"*\" for one of the two)"},
        {R"("crontab": "* * ~ * ~")",
         "2:22 warning crontab: day \"~\" and weekday \"~\" must match on the same day [\"~\"] "
         "(write: \"*\" for one of the two)"},
        {R"("crontab": "* * 1,2,3,4,5,6,7,8,9,10,11,12,13 * 1")",
         "2:50 warning crontab: day \"1,2,3,4,5,6,7,8,9,10,11,12,13\" and weekday \"1\" must match "
         "on the same day [\"1\"] (write: \"*\" for one of the two)"},
        {R"("crontab": "* * 1,2,3,4,5,6,7,8,9,10,11,12,13,14 * 1")", ""},
        {R"("crontab": "* * 30 2 *")",
         "2:18 warning crontab: February never has day 30: the job never runs [\"30\"] (expected: "
         "days that every month of the expression has)"},
        {R"("crontab": "* * 1,31 2,3,4 *")",
         "2:18 warning crontab: February never has day 31; April never has day 31 [\"1,31\"] "
         "(expected: days that every month of the expression has)"},
        {R"("crontab": "* * 29~31 1~2 *")",
         "2:18 warning crontab: February never has day 30 and 31 [\"29~31\"] (expected: days that "
         "every month of the expression has)"},
        // An ignored expression is not checked.
        {R"("period": "daily", "crontab": "* * 31 2 1-5")",
         "2:32 warning crontab: \"crontab\" is ignored: \"period\" is \"daily\" [\"* * 31 2 1-5\"] "
         "(write: \"period\": \"crontab\")"},
    });
}

TEST(CheckJobFile, WarnsOfIgnoredMembersAndValues) {
    const std::string monday =
        std::string("2:12 warning period: \"period\" \"monday\" is read as \"monthly\": only its "
                    "first letter counts [\"monday\"] (expected: ") +
        kPeriods + ")";
    ExpectDiagnostics({
        {R"("period": "monday")", monday.c_str()},
        {R"("Name": "x")",
         "2:2 warning Name: unknown member \"Name\" is ignored [\"x\"] (write: \"name\")"},
        {R"("zzzzzzzz" : [1, 2])",
         "2:2 warning zzzzzzzz: unknown member \"zzzzzzzz\" is ignored [[1,2]]"},
        {R"("a\"b" : 1)", "2:2 warning a\"b: unknown member \"a\\\"b\" is ignored [1]"},
        {R"("cmd_list": ["/p"], "cmd": "/q")",
         "2:29 warning cmd: \"cmd\" is ignored: \"cmd_list\" takes precedence [\"/q\"] (expected: "
         "one of the two)"},
        {R"("assure_execute": -1)",
         "2:20 warning assure_execute: \"assure_execute\" is negative: the job is overdue in every "
         "cycle [-1] (expected: a number of hours, or 0 for no assurance)"},
        {R"("assure_execute": 1.5)", "2:20 warning assure_execute: \"assure_execute\" 1.5 is read "
                                     "as 1 [1.5] (expected: a whole number of hours)"},
        {R"("assure_execute": true)", "2:20 warning assure_execute: \"assure_execute\" true is "
                                      "read as 1 [true] (expected: a whole number of hours)"},
        {R"("assure_execute": 5, "assure_execute_action": "now")",
         "2:48 warning assure_execute_action: \"assure_execute_action\" \"now\" is read as "
         "\"wait\" [\"now\"] (expected: \"run\" or \"wait\")"},
        {R"("assure_execute_action": "run")",
         "2:27 warning assure_execute_action: \"assure_execute_action\" is ignored without hours "
         "in \"assure_execute\" [\"run\"]"},
    });
}

TEST(CheckJobFile, WarnsOfJobsThatWillNotBeLoaded) {
    ExpectDiagnostics({
        {R"("user": "nobody")",
         "2:10 error user: \"user\" \"nobody\" does not name an account: the daemon will not "
         "load this job [\"nobody\"] (expected: \"root\" or \"system\" as \"user\", or \"package\" "
         "with an account as \"package_username\")"},
        {R"("user": "package", "package_username": null)",
         "2:41 error package_username: \"package_username\" null does not name an account: the "
         "daemon will not load this job [null] (expected: \"root\" or \"system\" as \"user\", or "
         "\"package\" with an account as \"package_username\")"},
        {R"("user": "package", "package_username": "bob")",
         "2:41 error package_username: account \"bob\" does not exist: the daemon will not load "
         "this job [\"bob\"]"},
        {R"("user": "rootless")", "2:10 error user: account \"rootless\" does not exist: the "
                                  "daemon will not load this job [\"rootless\"]"},
        {R"("user": "packages", "package_username": "alice")",
         "2:10 warning user: \"user\" \"packages\" is read as \"package\" [\"packages\"]"},
        {R"("user": "root", "package_username": "alice")",
         "2:38 warning package_username: \"package_username\" is ignored: \"user\" is \"root\" "
         "[\"alice\"] (write: \"user\": \"package\")"},
        {R"("name": "a/b")",
         "2:10 error name: the full name \"pkg-f-a/b\" contains \"/\": the daemon will not load "
         "this job [\"a/b\"] (expected: a name without \"/\")"},
        {R"("name": "a\nb")", "2:10 warning name: the full name \"pkg-f-a\\nb\" contains control "
                              "characters [\"a\\nb\"] (expected: printable characters)"},
        {R"("name": "a\u0000b")", "2:10 error name: the full name \"pkg-f-a\\u0000b\" contains a "
                                  "zero byte: the daemon will not load this job [\"a\\u0000b\"]"},
        {R"("cmd": " /p")",
         "2:9 error cmd: the command does not begin with a program: the daemon will not load "
         "this job [\" /p\"] (expected: an absolute path without a leading blank)"},
        {R"("cmd": "/missing -x")", "2:9 error cmd: program \"/missing\" does not exist: the "
                                    "daemon will not load this job [\"/missing -x\"]"},
        {R"("cmd": "missing")",
         "2:9 error cmd: program \"missing\" is a relative path: the daemon resolves it from "
         "\"/\" and does not find it: the daemon will not load this job [\"missing\"] (expected: "
         "an absolute path)"},
        {R"("cmd": "p")", "2:9 warning cmd: program \"p\" is a relative path: the daemon resolves "
                          "it from \"/\" [\"p\"] (expected: an absolute path)"},
        {R"("cmd_list": ["/directory"])",
         "2:14 error cmd_list: program \"/directory\" is not a regular file: the daemon will not "
         "load this job [[\"/directory\"]]"},
        {R"("cmd": "/empty")", "2:9 warning cmd: program \"/empty\" is empty [\"/empty\"]"},
        {R"("cmd": "/relative")",
         "2:9 error cmd: program \"/relative\" is a link to \"p\", which does not resolve in the "
         "directory of staged programs: the daemon will not load this job [\"/relative\"] "
         "(expected: the path of the program itself)"},
        {R"("cmd": "/absolute")",
         "2:9 warning cmd: program \"/absolute\" is a link to \"/p\": the daemon runs the link "
         "target, not a copy [\"/absolute\"] (expected: the path of the program itself)"},
        {R"("cmd": "/open")", "2:9 warning cmd: program \"/open\" can be replaced: other users can "
                              "write to \"/writable\" [\"/open\"] (expected: a program in "
                              "directories that only root or the job's account can write to)"},
    });
}

TEST(CheckJobFile, WarnsOfLongNames) {
    const std::string longest(255 - std::string("pkg-f-").size(), 'x');
    EXPECT_THAT(ProblemsOf(Read(DefinitionWith("\"name\": \"" + longest + "\""))), IsEmpty());
    EXPECT_THAT(
        ProblemsOf(Read(DefinitionWith("\"name\": \"" + longest + "x\""))),
        ElementsAre(testing::HasSubstr("has 256 bytes: the daemon will not load this job")));
}

TEST(CheckJobFile, WarnsOfShellSyntax) {
    for (const char *word : {"'a'", "\\\"a", "`a`", "a|b", "$HOME", "&", "&&", "a;", "a\\\\", ">x",
                             "2>&1", "&>x", "<x"}) {
        const std::vector<std::string> texts =
            ProblemsOf(Read(DefinitionWith(std::string(R"("cmd": "/p )") + word + " b\"")));
        EXPECT_THAT(texts, ElementsAre(testing::HasSubstr("is passed to the program as it is")))
            << word;
    }
    EXPECT_THAT(ProblemsOf(Read(DefinitionWith(R"("cmd": "/p a | b > c")"))),
                ElementsAre(testing::StartsWith("2:15 warning cmd: \"|\" is passed to")));
    EXPECT_THAT(ProblemsOf(Read(DefinitionWith(R"("cmd": "/p x&y  &")"))),
                ElementsAre(testing::StartsWith("2:18 warning cmd: \"&\" is passed to")));
}

TEST(CheckJobFile, CompletesDefinitionsInAccountDirectories) {
    const JobDirectory directory{"/jobs", "pkg_nonroot", "alice"};
    ExpectDiagnostics(
        {
            {R"("user": "package", "package_username": "alice")", ""},
            {R"("user": "root")", "2:10 warning user: \"user\" is ignored: all jobs in this "
                                  "directory run as \"alice\" [\"root\"]"},
            {R"("user": "package", "package_username": 5)",
             "2:41 warning package_username: \"package_username\" is ignored: all jobs in this "
             "directory run as \"alice\" [5]"},
        },
        directory);
    EXPECT_THAT(ProblemsOf(Read(R"([{"name": "x", "period": "daily", "cmd": "/p"}])", directory)),
                IsEmpty());
    // The user is not reported missing in a definition without a name either.
    EXPECT_THAT(ProblemsOf(Read(R"([{"period": "daily", "cmd": "/p"}])", directory)),
                ElementsAre("1:2 error name: \"name\" is missing (expected: a string)"));
}

TEST(CheckJobFile, UsesFullJobNames) {
    struct NameRow {
        JobDirectory directory;
        const char *text;
        const char *name;
        std::size_t column;
    };
    const NameRow rows[] = {
        {{"", "builtin", {}}, R"([{"name": "x"}])", "builtin-f-x", 11},
        {{"", "pkg_nonroot", "bob"}, R"([{"name": "x"}])", "pkg_nonroot-bob-f-x", 11},
        {{"", "", {}}, R"([{"name": "x"}])", "f-x", 11},
        {{"", "pkg", {}}, R"( {"name": "x"})", "pkg-f-default", 2},
        {{"", "pkg", {}}, R"([{"name": 5}])", "f", 11},
        {{"", "pkg", {}}, R"([{}])", "f", 2},
        {{"", "pkg", {}}, R"([7])", "f", 2},
    };
    for (const NameRow &row : rows) {
        SCOPED_TRACE(row.text);
        const JobFileReport report = CheckJobFile(Read(row.text, row.directory), TheSystem());
        ASSERT_EQ(report.jobs.size(), 1U);
        EXPECT_EQ(report.jobs.front().name, row.name);
        EXPECT_EQ(report.jobs.front().position.column, row.column);
        EXPECT_FALSE(report.jobs.front().accepted);
    }
}

TEST(CheckJobFile, WarnsOfNamesWithoutAnArray) {
    const std::string rest = R"("user": "root", "period": "daily", "cmd": "/p"})";
    EXPECT_THAT(ProblemsOf(Read("{" + rest)), IsEmpty());
    EXPECT_THAT(ProblemsOf(Read(R"({"name": "default", )" + rest)), IsEmpty());
    EXPECT_THAT(
        ProblemsOf(Read(R"({"name": "x", )" + rest)),
        ElementsAre("1:10 warning name: \"name\" is ignored: the job of a file without an array is "
                    "named \"default\" [\"x\"] (write: an array around the definition)"));
}

TEST(CheckJobFile, ReportsInvalidFiles) {
    struct FileRow {
        std::string text;
        const char *diagnostic;
    };
    const FileRow rows[] = {
        {"", "1:1 error: the file is empty (expected: one JSON document)"},
        {"[{\"a\": 1\n  \"b\": 2}]",
         "2:3 error: invalid JSON: Missing ',' or '}' in object declaration"},
        {"\xEF\xBB\xBF[1,]", "1:7 error: invalid JSON: value, object or array expected."},
        {"[]\r\n[]", "2:1 error: invalid JSON: Extra non-whitespace after JSON value."},
        {std::string("[]\n a\0b", 7), "2:3 error: invalid JSON: There is a zero byte in the text."},
        {std::string(70, '[') + std::string(70, ']'),
         "1:1 error: invalid JSON: Values are nested deeper than 64 levels."},
        {"[" + std::string(std::size_t{1} << 20, ' ') + "]",
         "1:1 error: the file is too large (expected: at most 1048576 bytes)"},
        {"5", "1:1 warning: the file defines no jobs [5] (expected: an array of definitions, or "
              "one definition)"},
        {"[]", ""},
        {R"([{"a": {"b": 1, "b": 2}}])",
         "1:17 warning: only the last of several members with the same name counts: Duplicate key: "
         "'b' (expected: each member once)"},
    };
    for (const FileRow &row : rows) {
        std::vector<std::string> texts = ProblemsOf(Read(row.text));
        texts.resize(std::min<std::size_t>(texts.size(), 1));
        if (*row.diagnostic == '\0')
            EXPECT_THAT(texts, IsEmpty());
        else
            EXPECT_THAT(texts, ElementsAre(row.diagnostic));
    }
}

TEST(CheckJobFile, ReportsReadErrors) {
    struct ErrorRow {
        int error;
        const char *account;
        const char *diagnostic;
    };
    const ErrorRow rows[] = {
        {EISDIR, "", "1:1 error: is a directory (expected: a regular file)"},
        {EINVAL, "",
         "1:1 error: is neither a regular file nor a link to one (expected: a regular file)"},
        {ENOENT, "", "1:1 error: cannot be read: No such file or directory"},
        {EFBIG, "", "1:1 error: the file is too large (expected: at most 1048576 bytes)"},
        {EFBIG, "alice", "1:1 error: the file is too large (expected: at most 1048576 bytes)"},
        {EDQUOT, "alice",
         "1:1 error: exceeds the quota of account \"alice\" (expected: at most 1048576 bytes in "
         "all job files of the account, where each file and each job counts as at least 1024, and "
         "at most 4194304 bytes in the runtime document)"},
    };
    for (const ErrorRow &row : rows) {
        JobFile file;
        file.name = "f";
        file.directory = {"", "pkg", row.account};
        file.error = row.error;
        EXPECT_THAT(ProblemsOf(file), ElementsAre(row.diagnostic));
    }
}

TEST(CheckJobFile, WarnsOfHiddenFilesAndBackupCopies) {
    const JobDirectory directory{"", "pkg", {}};
    for (const char *name : {"a.conf", "a", "~a", "bak"})
        EXPECT_THAT(ProblemsOf(Read("[]", directory, name)), IsEmpty()) << name;
    for (const char *name : {"a.conf~", "a.conf.bak", "a.dpkg-old"})
        EXPECT_THAT(ProblemsOf(Read("[]", directory, name)),
                    ElementsAre(testing::HasSubstr("looks like a backup copy")))
            << name;
    for (const char *name : {".a.conf", ".a~"})
        EXPECT_THAT(ProblemsOf(Read("[]", directory, name)),
                    ElementsAre("1:1 error: the daemon ignores hidden files (expected: a name "
                                "that does not begin with \".\")"))
            << name;
}

TEST(CheckJobFile, CountsBytesAfterAByteOrderMark) {
    EXPECT_THAT(ProblemsOf(Read("\xEF\xBB\xBF[5,\n\"\xC3\xA4\", 6]")),
                ElementsAre(testing::StartsWith("1:5 error"), testing::StartsWith("2:1 error"),
                            testing::StartsWith("2:7 error")));
}

TEST(CheckJobFile, ShortensValuesBetweenCharacters) {
    std::string umlauts;
    for (int i = 0; i < 100; ++i)
        umlauts += "\xC3\xA4";
    for (const std::string &text : {umlauts, "x" + umlauts}) {
        const JobFileReport report = CheckJobFile(Read("[\"" + text + "\"]"), TheSystem());
        ASSERT_EQ(report.diagnostics.size(), 1U);
        const std::string &found = report.diagnostics.front().found;
        const std::string kept = found.substr(1, found.size() - 4);
        EXPECT_LE(found.size(), 60U);
        EXPECT_GE(found.size(), 57U);
        EXPECT_EQ(found.substr(found.size() - 3), "...");
        EXPECT_EQ(text.compare(0, kept.size(), kept), 0);
        EXPECT_EQ((kept.size() - (text.front() == 'x' ? 1 : 0)) % 2, 0U);
    }
}

TEST(ReplacedJobs, ReportsJobsBeforeAValidDuplicate) {
    const auto job = [](const char *name, const char *file, bool accepted) {
        return CheckedJob{name, file, {3, 7}, accepted, {}};
    };
    const std::vector<Diagnostic> diagnostics =
        ReplacedJobs({job("a", "first", true), job("b", "first", true), job("a", "second", true),
                      job("a", "third", false), job("b", "third", false), job("c", "x", false),
                      job("c", "x", true)});
    ASSERT_EQ(diagnostics.size(), 1U);
    EXPECT_EQ(diagnostics.front().file, "first");
    EXPECT_EQ(diagnostics.front().job, "a");
    EXPECT_EQ(InText(diagnostics.front()),
              "3:7 warning name: replaced by the job with the same full name in second:3, which is "
              "read later [\"a\"] (expected: one job for each full name)");
}

} // namespace

} // namespace kest::ctl
