#include "ctl/import/import.h"

#include "core/job_files.h"
#include "ctl/check/check.h"
#include "ctl/system/failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kest::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

ImportSettings SettingsOf(bool userColumn) {
    ImportSettings settings;
    settings.file = "tab";
    settings.userColumn = userColumn;
    settings.account = userColumn ? "" : "alice";
    settings.env = "/usr/bin/env";
    settings.home = [](const std::string &account) -> std::optional<std::string> {
        if (account.empty() || account == "nobody")
            return std::nullopt;
        if (account == "homeless")
            return "";
        return account == "root" ? "/root" : "/home/" + account;
    };
    return settings;
}

std::vector<ImportedLine> ImportedFrom(const std::string &text, bool userColumn = false) {
    return ImportCrontab(text, SettingsOf(userColumn));
}

std::vector<Json::Value> JobsFrom(const std::vector<ImportedLine> &lines) {
    std::vector<Json::Value> jobs;
    for (const ImportedLine &line : lines)
        jobs.insert(jobs.end(), line.jobs.begin(), line.jobs.end());
    return jobs;
}

// "LINE:COLUMN: MESSAGE" of each warning.
std::vector<std::string> WarningsFrom(const std::vector<ImportedLine> &lines) {
    std::vector<std::string> texts;
    for (const ImportedLine &line : lines)
        for (const Diagnostic &warning : line.warnings)
            texts.push_back(std::to_string(warning.position.line) + ":" +
                            std::to_string(warning.position.column) + ": " + warning.message);
    return texts;
}

std::vector<std::string> ArgumentsOf(const Json::Value &job) {
    std::vector<std::string> arguments;
    for (const Json::Value &argument : job["cmd_list"])
        arguments.push_back(argument.asString());
    return arguments;
}

// What `check` reports of the job file, on a system with all accounts.
std::vector<std::string> ProblemsOf(const std::string &text, std::size_t &jobs) {
    JobFile file;
    file.path = "f.conf";
    file.name = "f.conf";
    file.directory = {"/jobs", "pkg", {}};
    file.origin.text = text;
    if (!JsonFromText(file.origin, kJobFileLimits.depth, file.document))
        return {"invalid JSON: " + file.origin.fault};
    Environment environment;
    environment.account = [](const Json::Value &config) {
        return Account{config["user"] == "package" ? config["package_username"].asString()
                                                   : config["user"].asString(),
                       true};
    };
    environment.program = [](const std::string & /*path*/, const std::string & /*account*/) {
        Program program;
        program.exists = program.regular = true;
        return program;
    };
    const JobFileReport report = CheckJobFile(file, environment);
    jobs = report.jobs.size();
    std::vector<std::string> texts;
    for (const Diagnostic &diagnostic : report.diagnostics)
        texts.push_back(MessageWithHint(diagnostic));
    return texts;
}

TEST(Import, CommandsHaveTheEnvironmentOfTheClassicLine) {
    const auto jobs = JobsFrom(ImportedFrom("* * * * * a\n"
                                            "SHELL=/bin/bash\nX=\" y \"\n"
                                            "* * * * * b\n"
                                            "X=z\nHOME=/srv\nLOGNAME=eve\nPATH=/opt\n"
                                            "* * * * * c%d%e\n"));
    ASSERT_EQ(jobs.size(), 3U);
    EXPECT_THAT(ArgumentsOf(jobs[0]),
                ElementsAre("/usr/bin/env", "-i", "HOME=/home/alice", "LOGNAME=alice",
                            "PATH=/usr/bin:/bin", "SHELL=/bin/sh", "/bin/sh", "-c",
                            R"(cd; exec "$SHELL" -c "$0")", "a"));
    EXPECT_THAT(ArgumentsOf(jobs[1]),
                ElementsAre("/usr/bin/env", "-i", "HOME=/home/alice", "LOGNAME=alice",
                            "PATH=/usr/bin:/bin", "SHELL=/bin/bash", "X= y ", "/bin/sh", "-c",
                            R"(cd; exec "$SHELL" -c "$0")", "b"));
    EXPECT_THAT(ArgumentsOf(jobs[2]),
                ElementsAre("/usr/bin/env", "-i", "LOGNAME=alice", "SHELL=/bin/bash", "X=z",
                            "HOME=/srv", "PATH=/opt", "/bin/sh", "-c",
                            R"(cd; printf %s "$1" | "$SHELL" -c "$0")", "c", "d\ne\n"));
}

TEST(Import, AccountsAreThoseOfTheLines) {
    const auto lines = ImportedFrom("@daily root a\n@daily system b\n@daily www-data c\n"
                                    "@daily nobody d\n  @daily homeless e\n",
                                    true);
    const auto jobs = JobsFrom(lines);
    ASSERT_EQ(jobs.size(), 3U);
    EXPECT_EQ(jobs[0]["user"], "root");
    EXPECT_FALSE(jobs[0].isMember("package_username"));
    EXPECT_EQ(jobs[1]["user"], "system");
    EXPECT_EQ(jobs[2]["user"], "package");
    EXPECT_EQ(jobs[2]["package_username"], "www-data");
    EXPECT_THAT(WarningsFrom(lines),
                ElementsAre("4:8: no job: account \"nobody\" does not exist",
                            "5:10: no job: account \"homeless\" has no valid home directory"));
}

TEST(Import, WhatIsNotExactIsReported) {
    EXPECT_THAT(
        WarningsFrom(ImportedFrom("MAILTO=\"\"\nMAILTO=ops\nCRON_TZ=UTC\nRANDOM_DELAY=5\n"
                                  "HOME=here\nSHELL=\n@reboot a\n@daily root b\n0 0 1 * 1 c\n")),
        ElementsAre("2:1: MAILTO: the output of a job is dropped, not sent by mail",
                    "3:1: CRON_TZ: the jobs below start by the time zone of the system",
                    "4:1: RANDOM_DELAY: the jobs below start without it",
                    "5:1: HOME \"here\" has no effect", "6:1: SHELL \"\" has no effect",
                    "7:1: no job: \"@reboot\": jobs do not start at boot",
                    "8:8: the command begins with an account"));
}

TEST(Import, NamesAreThoseOfTheProgramsAndUnique) {
    struct Row {
        const char *command;
        const char *name;
    };
    const std::vector<Row> rows{
        {"/usr/local/bin/backup.sh --all", "backup.sh"},
        {"cd / && run-parts --report /etc/cron.hourly", "run-parts"},
        {"test -x /usr/sbin/anacron || { cd / && run-parts /etc; }", "anacron"},
        {"[ -d \"/run/systemd/system\" ] || /usr/share/atop/atop.daily&", "atop.daily"},
        {"A=1 nice -n 10 perl -w /opt/x.pl", "x.pl"},
        {"command -v y > /dev/null && y", "y"},
        {"\"$HOME/bin/z\" 5", "job"},
        {"caf\xc3\xa9", "caf__"},
        {".hidden", "job.hidden"},
        {"5", "job"},
        {" ;;", "job"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(JobNameFor(row.command), row.name) << row.command;
    EXPECT_EQ(JobNameFor(std::string(5000, 'x')), std::string(64, 'x'));

    std::vector<std::string> names;
    for (const Json::Value &job :
         JobsFrom(ImportedFrom("@daily a\n@daily a\n@daily a-2\n@daily a\n0 0 1 * 1 b\n")))
        names.push_back(job["name"].asString());
    EXPECT_THAT(names, ElementsAre("a", "a-2", "a-2-2", "a-3", "b", "b-2"));
}

TEST(Import, JobFilesHaveTheLinesAsComments) {
    const std::string text = "MAILTO=ops\n"
                             "30 3 * * * date +\\%d > \"x\"%caf\xc3\xa9 \xe2\x80\xae\n"
                             "* * * * * y\x1b[2J\n"
                             "@reboot z\n";
    EXPECT_EQ(JobFileText(ImportedFrom(text), SettingsOf(false)), R"(// Imported from tab
[
    // line 1: MAILTO=ops
    // warning: MAILTO: the output of a job is dropped, not sent by mail
    // line 2: 30 3 * * * date +\%d > "x"%café \u202e
    {
        "name": "date",
        "user": "package",
        "package_username": "alice",
        "period": "crontab",
        "crontab": "30 3 * * *",
        "cmd_list": ["/usr/bin/env", "-i", "HOME=/home/alice", "LOGNAME=alice", "PATH=/usr/bin:/bin", "SHELL=/bin/sh", "MAILTO=ops",
                     "/bin/sh", "-c", "cd; printf %s \"$1\" | \"$SHELL\" -c \"$0\"",
                     "date +%d > \"x\"", "caf\u00e9 \u202e\n"]
    }
    // line 3: * * * * * y\x1b[2J
    // warning: no job: a control character "\x1b"; expected: printable characters
    // line 4: @reboot z
    // warning: no job: "@reboot": jobs do not start at boot; expected: a unit of the service manager
]
)");
    EXPECT_EQ(JobFileText(ImportedFrom("# nothing\n"), SettingsOf(false)),
              "// Imported from tab\n[]\n");
}

TEST(Import, SmallCrontabsCannotBecomeLargeJobFiles) {
    const std::string long_value(8000, 'x');
    std::string faults;
    for (int i = 0; i < 100000; ++i)
        faults += "x\n";
    EXPECT_THROW(ImportedFrom(faults), Failure);
    std::string variables;
    for (int i = 0; i < 250; ++i)
        variables += "V" + std::to_string(i) + "=" + long_value.substr(0, 400) + "\n";
    EXPECT_THAT(JobsFrom(ImportedFrom(variables + "@daily x\n")).size(), 1U);
    std::string jobs;
    for (int i = 0; i < 50000; ++i)
        jobs += "@daily x\n";
    EXPECT_THROW(ImportedFrom(variables + jobs), Failure);
    EXPECT_THROW(ImportedFrom(jobs), Failure);
    for (int i = 0; i < 10; ++i)
        variables += "W" + std::to_string(i) + "=1\n";
    EXPECT_THROW(ImportedFrom(variables), Failure);
}

// --- Crontabs of Debian packages ----------------------------------------------------------------

struct DebianLine {
    const char *line;
    const char *crontab; // empty if there is no job
    const char *name;
};

// The lines of Debian 12.
const std::vector<DebianLine> &DebianLines() {
    static const std::vector<DebianLine> lines{
        // cron-daemon-common
        {"17 *\t* * *\troot\tcd / && run-parts --report /etc/cron.hourly", "17 * * * *",
         "run-parts"},
        {"25 6\t* * *\troot\ttest -x /usr/sbin/anacron || { cd / && run-parts --report "
         "/etc/cron.daily; }",
         "25 6 * * *", "anacron"},
        {"47 6\t* * 7\troot\ttest -x /usr/sbin/anacron || { cd / && run-parts --report "
         "/etc/cron.weekly; }",
         "47 6 * * 0", "anacron-2"},
        {"52 6\t1 * *\troot\ttest -x /usr/sbin/anacron || { cd / && run-parts --report "
         "/etc/cron.monthly; }",
         "52 6 1 * *", "anacron-3"},
        // anacron
        {"30 7-23 * * *   root\t[ -x /etc/init.d/anacron ] && if [ ! -d /run/systemd/system ]; "
         "then /usr/sbin/invoke-rc.d anacron start >/dev/null; fi",
         "30 7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23 * * *", "anacron-4"},
        // amavisd-new
        {"18 */3\t* * *\tamavis\ttest -e /usr/sbin/amavisd-new-cronjob && "
         "/usr/sbin/amavisd-new-cronjob sa-sync",
         "18 0,3,6,9,12,15,18,21 * * *", "amavisd-new-cronjob"},
        {"24 1  * * *   amavis  test -e /usr/sbin/amavisd-new-cronjob && "
         "/usr/sbin/amavisd-new-cronjob sa-clean",
         "24 1 * * *", "amavisd-new-cronjob-2"},
        // atop
        {R"(0 0 * * * root [ -d "/run/systemd/system" ] || /usr/share/atop/atop.daily&)",
         "0 0 * * *", "atop.daily"},
        // awstats
        {"*/10 * * * * www-data [ -x /usr/share/awstats/tools/update.sh ] && "
         "/usr/share/awstats/tools/update.sh",
         "0,10,20,30,40,50 * * * *", "update.sh"},
        {"10 03 * * * www-data [ -x /usr/share/awstats/tools/buildstatic.sh ] && "
         "/usr/share/awstats/tools/buildstatic.sh",
         "10 3 * * *", "buildstatic.sh"},
        // certbot
        {R"(0 */12 * * * root test -x /usr/bin/certbot -a \! -d /run/systemd/system && perl -e )"
         R"('sleep int(rand(43200))' && certbot -q renew --no-random-sleep-on-renew)",
         "0 0,12 * * *", "certbot"},
        // cron-apt
        {"0 4\t* * *\troot\ttest -x /usr/sbin/cron-apt && /usr/sbin/cron-apt", "0 4 * * *",
         "cron-apt"},
        // e2fsprogs
        {"30 3 * * 0 root test -e /run/systemd/system || SERVICE_MODE=1 "
         "/usr/lib/x86_64-linux-gnu/e2fsprogs/e2scrub_all_cron",
         "30 3 * * 0", "e2scrub_all_cron"},
        {"10 3 * * * root test -e /run/systemd/system || SERVICE_MODE=1 /sbin/e2scrub_all -A -r",
         "10 3 * * *", "e2scrub_all"},
        // ganeti
        {"@reboot root [ -x /usr/sbin/gnt-cluster ] && /usr/sbin/gnt-cluster upgrade --resume", "",
         ""},
        {"*/5 * * * * root [ -x /usr/sbin/ganeti-watcher ] && /usr/sbin/ganeti-watcher",
         "0,5,10,15,20,25,30,35,40,45,50,55 * * * *", "ganeti-watcher"},
        {"45 1 * * * gnt-masterd [ -x /usr/sbin/ganeti-cleaner ] && /usr/sbin/ganeti-cleaner "
         "master",
         "45 1 * * *", "ganeti-cleaner"},
        {"45 2 * * * root [ -x /usr/sbin/ganeti-cleaner ] && /usr/sbin/ganeti-cleaner node",
         "45 2 * * *", "ganeti-cleaner-2"},
        // inn2
        {"15 4\t* * * \tnews\ttest -x /usr/lib/news/bin/news.daily && news.daily expireover "
         "lowmark delayrm",
         "15 4 * * *", "news.daily"},
        {"2 3\t* * *\tnews\t[ -x /usr/sbin/ctlinnd ] && ctlinnd -t 300 -s reload incoming.conf "
         "\"flush cache\"",
         "2 3 * * *", "ctlinnd"},
        {"10 *\t* * *\tnews\t[ -x /usr/bin/rnews ] && rnews -U", "10 * * * *", "rnews"},
        // logcheck
        {"@reboot         logcheck    if [ -x /usr/sbin/logcheck ]; then nice -n10 "
         "/usr/sbin/logcheck -R; fi",
         "", ""},
        {"2 * * * *       logcheck    if [ -x /usr/sbin/logcheck ]; then nice -n10 "
         "/usr/sbin/logcheck; fi",
         "2 * * * *", "logcheck"},
        // mailman3
        {"0  8 * * *  list\tif [ -x /usr/bin/mailman ]; then /usr/bin/mailman notify; fi",
         "0 8 * * *", "mailman"},
        {"0 12 * * *  list\tif [ -x /usr/bin/mailman ]; then /usr/bin/mailman digests --periodic; "
         "fi",
         "0 12 * * *", "mailman-2"},
        // mailman3-web
        {"* *     * * *      www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.minutely /usr/share/mailman3-web/manage.py runjobs minutely",
         "* * * * *", "django-admin"},
        {"2,17,32,47 * * * * www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.quarter_hourly /usr/share/mailman3-web/manage.py runjobs "
         "quarter_hourly",
         "2,17,32,47 * * * *", "django-admin-2"},
        {"@hourly            www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.hourly /usr/share/mailman3-web/manage.py runjobs hourly",
         "0 * * * *", "django-admin-3"},
        {"@daily             www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.daily /usr/share/mailman3-web/manage.py runjobs daily",
         "0 0 * * *", "django-admin-4"},
        {"@weekly            www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.weekly /usr/share/mailman3-web/manage.py runjobs weekly",
         "0 0 * * 0", "django-admin-5"},
        {"@monthly           www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.monthly /usr/share/mailman3-web/manage.py runjobs monthly",
         "0 0 1 * *", "django-admin-6"},
        {"@yearly            www-data     [ -f /usr/bin/django-admin ] && flock -n "
         "/var/run/mailman3-web/cron.yearly /usr/share/mailman3-web/manage.py runjobs yearly",
         "0 0 1 1 *", "django-admin-7"},
        // mdadm
        {R"(57 0 * * 0 root if [ -x /usr/share/mdadm/checkarray ] && [ $(date +\%d) -le 7 ]; then )"
         "/usr/share/mdadm/checkarray --cron --all --idle --quiet; fi",
         "57 0 * * 0", "checkarray"},
        // munin
        {"*/5 * * * *     munin if [ -x /usr/bin/munin-cron ]; then /usr/bin/munin-cron; fi",
         "0,5,10,15,20,25,30,35,40,45,50,55 * * * *", "munin-cron"},
        {"14 10 * * *     munin if [ -x /usr/share/munin/munin-limits ]; then "
         "/usr/share/munin/munin-limits --force --contact nagios --contact old-nagios; fi",
         "14 10 * * *", "munin-limits"},
        {R"(27 03 * * *     munin htmldir=$({ cat /etc/munin/munin.conf /etc/munin/munin-conf.d/* )"
         R"(2>/dev/null || true; } | sed -nE 's/^\s*htmldir\s+(\S.*)$/\1/p' | tail -1); )"
         R"(htmldir=${htmldir:-/var/cache/munin/www}; if [ -d "$htmldir" ]; then find "$htmldir/" )"
         R"(-type f -name "*.html" -mtime +30 -delete; find "$htmldir/" -mindepth 1 -type d )"
         "-empty -delete; fi",
         "27 3 * * *", "cat"},
        {R"(32 03 * * *     www-data cgitmpdir=$({ cat /etc/munin/munin.conf )"
         R"(/etc/munin/munin-conf.d/* 2>/dev/null || true; } | sed -nE )"
         R"('s/^\s*cgitmpdir\s+(\S.*)$/\1/p' | tail -1); )"
         R"(cgitmpdir=${cgitmpdir:-/var/lib/munin/cgi-tmp}; if [ -d "$cgitmpdir" ]; then find )"
         R"("$cgitmpdir/" -type f -mtime +1 -delete; find "$cgitmpdir/" -mindepth 1 -type d )"
         "-empty -delete; fi",
         "32 3 * * *", "cat-2"},
        // munin-node
        {"*/5 * * * *\troot if [ -x /etc/munin/plugins/apt_all ]; then /etc/munin/plugins/apt_all "
         "update 7200 12 >/dev/null; elif [ -x /etc/munin/plugins/apt ]; then "
         "/etc/munin/plugins/apt update 7200 12 >/dev/null; fi",
         "0,5,10,15,20,25,30,35,40,45,50,55 * * * *", "apt_all"},
        // ntpsec
        {"25 6     * * * root if [ ! -d /run/systemd/system ] && [ -x "
         "/usr/libexec/ntpsec/rotate-stats ] ; then /usr/libexec/ntpsec/rotate-stats ; fi",
         "25 6 * * *", "rotate-stats"},
        // php-common
        {"09,39 *     * * *     root   [ -x /usr/lib/php/sessionclean ] && if [ ! -d "
         "/run/systemd/system ]; then /usr/lib/php/sessionclean; fi",
         "9,39 * * * *", "sessionclean"},
        // sysstat
        {"5-55/10 * * * * root command -v debian-sa1 > /dev/null && debian-sa1 1 1",
         "5,15,25,35,45,55 * * * *", "debian-sa1"},
        {"59 23 * * * root command -v debian-sa1 > /dev/null && debian-sa1 60 2", "59 23 * * *",
         "debian-sa1-2"},
        // tiger
        {R"(0 * * * *      root    test -x /usr/sbin/tigercron && { [ -r "$DEFAULT" ] && . )"
         R"("$DEFAULT" ; nice -n$NICETIGER /usr/sbin/tigercron -q ; })",
         "0 * * * *", "tigercron"},
    };
    return lines;
}

TEST(Import, CrontabsOfDebianPackagesAreExact) {
    std::string text;
    std::size_t expectedJobs = 0;
    for (const DebianLine &line : DebianLines())
        text += std::string(line.line) + "\n";
    const std::vector<ImportedLine> lines = ImportedFrom(text, true);
    ASSERT_EQ(lines.size(), DebianLines().size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const DebianLine &expected = DebianLines()[i];
        const bool hasJob = *expected.crontab != '\0';
        EXPECT_EQ(lines[i].jobs.size(), hasJob ? 1U : 0U) << expected.line;
        EXPECT_EQ(lines[i].warnings.empty(), hasJob) << expected.line;
        for (const Json::Value &job : lines[i].jobs) {
            EXPECT_EQ(job["crontab"], expected.crontab) << expected.line;
            EXPECT_EQ(job["name"], expected.name) << expected.line;
        }
        expectedJobs += hasJob ? 1 : 0;
    }
    std::size_t jobs = 0;
    EXPECT_THAT(ProblemsOf(JobFileText(lines, SettingsOf(true)), jobs), IsEmpty());
    EXPECT_EQ(jobs, expectedJobs);
}

// Days, months and weekdays that `check` has remarks on elsewhere.
TEST(Import, CheckHasNoRemarks) {
    std::string text;
    std::size_t lines = 0;
    for (const char *days : {"*", "1", "31", "1-15", "1-16", "1-30", "30,31", "*/2", "2-29"})
        for (const char *months : {"*", "1", "2", "4", "1-6", "2,4", "feb-dec/2"})
            for (const char *weekdays : {"*", "0", "mon-fri", "1-7", "6,7"}) {
                text += std::string("5 4 ") + days + " " + months + " " + weekdays + " x\n";
                ++lines;
            }
    std::size_t jobs = 0;
    EXPECT_THAT(ProblemsOf(JobFileText(ImportedFrom(text), SettingsOf(false)), jobs), IsEmpty());
    EXPECT_GT(jobs, lines);
}

} // namespace

} // namespace kest::ctl
