#include "ctl/display/metrics.h"

#include "base/printable.h"
#include "ctl/display/coming_starts.h"
#include "job/schedule.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/json_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

using testing::HasSubstr;
using testing::Not;

const std::time_t kTenPastTwo = Utc(2026, 6, 2, 2, 10);

// A job with the crontab, assured for a day; `more` are members of its document.
LiveJob AssuredJob(const std::string &name, const std::string &crontab,
                   const std::string &more = "{}") {
    Json::Value document = FromText(more);
    document["config"] = FromText(
        R"({"name": "x", "user": "root", "cmd": "x", "period": "c", "assure_execute": 24})");
    document["config"]["crontab"] = crontab;
    LiveJob live;
    live.name = name;
    live.account = "root";
    live.job = CronJob(document);
    EXPECT_TRUE(live.job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        live.job.GenerateFieldSchedule(key, 7);
    return live;
}

// The value of a sample with its labels; empty if there is none.
std::string ValueOf(const std::string &text, const std::string &sample) {
    const auto at = ("\n" + text).find("\n" + sample + " ");
    if (at == std::string::npos)
        return "";
    const auto begin = at + sample.size() + 1;
    return text.substr(begin, text.find('\n', begin) - begin);
}

std::string JobSample(const std::string &fact) {
    return "kestcron_job_" + fact + "{name=\"a\",user=\"root\"}";
}

SystemFigures WithMaxDelay(std::int32_t seconds) {
    SystemFigures system;
    system.maxDelay = seconds;
    return system;
}

TEST(Metrics, WithoutADaemonAndJobs) {
    EXPECT_EQ(
        MetricsInText({}, {}, {}, kTenPastTwo),
        "# HELP kestcron_up Whether kestcrond is running.\n"
        "# TYPE kestcron_up gauge\n"
        "kestcron_up 0\n"
        "# HELP kestcron_passive Whether kestcrond is running in passive mode.\n"
        "# TYPE kestcron_passive gauge\n"
        "kestcron_passive 0\n"
        "# HELP kestcron_held Whether the machine is held.\n"
        "# TYPE kestcron_held gauge\n"
        "kestcron_held 0\n"
        "# HELP kestcron_jobs Number of jobs.\n"
        "# TYPE kestcron_jobs gauge\n"
        "kestcron_jobs 0\n"
        "# HELP kestcron_delayed_starts Number of launched jobs that wait out their delay.\n"
        "# TYPE kestcron_delayed_starts gauge\n"
        "kestcron_delayed_starts 0\n"
        "# HELP kestcron_metrics_timestamp_seconds Time at which these metrics were printed.\n"
        "# TYPE kestcron_metrics_timestamp_seconds gauge\n"
        "kestcron_metrics_timestamp_seconds 1780366200\n"
        "# HELP kestcron_build_info Version of kestcronctl, which printed these metrics.\n"
        "# TYPE kestcron_build_info gauge\n"
        "kestcron_build_info{version=\"" KESTCROND_VERSION "\"} 1\n");
}

TEST(Metrics, OfTheDaemon) {
    Daemon daemon;
    daemon.pid = 7;
    daemon.since = 1780000000;
    daemon.passive = daemon.held = true;
    daemon.delayed = 3;
    const std::string text = MetricsInText({}, daemon, WithMaxDelay(120), kTenPastTwo);
    EXPECT_EQ(ValueOf(text, "kestcron_up"), "1");
    EXPECT_EQ(ValueOf(text, "kestcron_passive"), "1");
    EXPECT_EQ(ValueOf(text, "kestcron_held"), "1");
    EXPECT_EQ(ValueOf(text, "kestcron_start_time_seconds"), "1780000000");
    EXPECT_EQ(ValueOf(text, "kestcron_delayed_starts"), "3");
    EXPECT_EQ(ValueOf(text, "kestcron_max_delay_seconds"), "120");
}

TEST(Metrics, OfAJob) {
    const LocalZone zone("UTC0");
    const FixedClock clock(kTenPastTwo);
    const auto number = [](std::time_t value) { return std::to_string(value); };
    struct Row {
        const char *what;
        const char *crontab;
        std::string document;
        std::time_t lastRun;
        pid_t process;
        bool passive;
        std::string last, next, latest, overdue, pending, running;
    };
    const std::time_t hour = Utc(2026, 6, 2, 2, 0);
    const std::time_t recent = kTenPastTwo - kHour;
    const std::string ran = R"({"lastExecution": )" + number(recent) + "}";
    const std::string late = R"({"lastExecution": )" + number(kTenPastTwo - 25 * kHour) + "}";
    const std::string due = R"({"expireTime": 1, "lastExecution": )" + number(recent) + "}";
    const std::string at = number(hour + kHour);
    const std::string now = number(hour + 10 * kMinute);
    const Row rows[] = {
        {"waiting", "0 3 * * *", ran, recent, 0, false, number(recent), at, at, "0", "0", "0"},
        {"never run, redrawn before", "~ 3 * * *", ran, 0, 0, false, "",
         number(hour + kHour + kMinute), number(hour + kHour + 59 * kMinute), "0", "0", "0"},
        {"running", "0 3 * * *", ran, recent, 9, false, number(recent), at, at, "0", "0", "1"},
        {"overdue", "0 3 * * *", late, 0, 0, false, "", now, now, "1", "0", "0"},
        {"pending", "0 3 * * *", due, 0, 0, false, "", at, at, "0", "1", "0"},
        {"passive", "0 3 * * *", R"({"expireTime": 1, "lastExecution": 1})", 0, 0, true, "", "", "",
         "0", "1", "0"},
    };
    for (const Row &row : rows) {
        LiveJob job = AssuredJob("a", row.crontab, row.document);
        job.lastRun = row.lastRun;
        if (row.process != 0)
            job.processes.push_back({row.process, 1, 0, 0, "", {}});
        Daemon daemon;
        daemon.pid = 7;
        daemon.passive = row.passive;
        const std::string text = MetricsInText({job}, daemon, WithMaxDelay(300), kTenPastTwo);
        EXPECT_EQ(ValueOf(text, "kestcron_jobs"), "1") << row.what;
        EXPECT_EQ(ValueOf(text, JobSample("last_run_timestamp_seconds")), row.last) << row.what;
        EXPECT_EQ(ValueOf(text, JobSample("next_run_timestamp_seconds")), row.next) << row.what;
        EXPECT_EQ(ValueOf(text, JobSample("next_run_latest_timestamp_seconds")), row.latest)
            << row.what;
        EXPECT_EQ(ValueOf(text, JobSample("overdue")), row.overdue) << row.what;
        EXPECT_EQ(ValueOf(text, JobSample("pending")), row.pending) << row.what;
        EXPECT_EQ(ValueOf(text, JobSample("running")), row.running) << row.what;
        const bool known = !row.last.empty();
        EXPECT_EQ(text.find("TYPE kestcron_job_last_run") != std::string::npos, known) << row.what;
    }
}

TEST(Metrics, CountsOfTheLog) {
    const LocalZone zone("UTC0");
    const std::vector<LiveJob> jobs{AssuredJob("a", "0 3 * * *"), AssuredJob("b\n", "0 3 * * *"),
                                    AssuredJob("c", "0 3 * * *")};
    EXPECT_THAT(MetricsInText(jobs, {}, {}, kTenPastTwo), Not(HasSubstr("_total")));
    SystemFigures system;
    system.saved = 1780000000;
    system.refused = Refused{3, 2};
    system.counts = {{"a", {7, 1}}, {Printable("b\n"), {5, 0}}, {"gone", {9, 9}}};
    const std::string text = MetricsInText(jobs, {}, system, kTenPastTwo);
    EXPECT_THAT(text, HasSubstr("# TYPE kestcron_job_starts_total counter\n"
                                "kestcron_job_starts_total{name=\"a\",user=\"root\"} 7\n"
                                "kestcron_job_starts_total{name=\"b\\n\",user=\"root\"} 5\n"
                                "# HELP kestcron_job_start_failures_total"));
    EXPECT_EQ(ValueOf(text, JobSample("start_failures_total")), "1");
    EXPECT_EQ(ValueOf(text, "kestcron_document_timestamp_seconds"), "1780000000");
    EXPECT_EQ(ValueOf(text, "kestcron_refused_jobs"), "3");
    EXPECT_EQ(ValueOf(text, "kestcron_refused_files"), "2");
    EXPECT_THAT(text, Not(HasSubstr("gone")));
}

TEST(Metrics, EscapeLabels) {
    const LocalZone zone("UTC0");
    const auto named = [](const std::string &name) { return AssuredJob(name, "0 3 * * *"); };
    const std::string text = MetricsInText(
        {named("a\"b\\c\nd"), named("x\xFE"), named("x\xFF"), named("é")}, {}, {}, kTenPastTwo);
    for (const char *label : {R"(name="a\"b\\c\nd",)", "name=\"x\xEF\xBF\xBD\",",
                              "name=\"x\xEF\xBF\xBD'\",", "name=\"é\","})
        EXPECT_THAT(text, HasSubstr(std::string("kestcron_job_running{") + label));
    EXPECT_THAT(text, Not(HasSubstr("\xFE")));
}

TEST(Metrics, GroupSamplesByFamily) {
    const LocalZone zone("UTC0");
    const std::string text = MetricsInText(
        {AssuredJob("a", "0 3 * * *"), AssuredJob("b", "0 3 * * *")}, {}, {}, kTenPastTwo);
    EXPECT_THAT(text, HasSubstr("# TYPE kestcron_job_running gauge\n"
                                "kestcron_job_running{name=\"a\",user=\"root\"} 0\n"
                                "kestcron_job_running{name=\"b\",user=\"root\"} 0\n"));
}

} // namespace

} // namespace kest::ctl
