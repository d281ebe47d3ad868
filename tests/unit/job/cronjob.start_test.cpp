#include "job/cronjob.h"

#include "tests/unit/support/child.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/execution_log.h"
#include "tests/unit/support/files.h"
#include "tests/unit/support/jobs.h"
#include "tests/unit/support/json_text.h"
#include "tests/unit/support/memory.h"
#include "tests/unit/syslog_capture.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>

namespace kest {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Texts = std::vector<std::string>;

// --- Account ------------------------------------------------------------------------------------

TEST(ResolveJobUser, FindsTheAccount) {
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    struct Row {
        const char *config;
        const char *name;
        uid_t uid;
        gid_t gid;
    };
    const Row rows[] = {
        {R"({"user": "root"})", "root", 0, 0},
        {R"({"user": "root", "package_username": "nobody"})", "root", 0, 0},
        {R"({"user": "package", "package_username": "nobody"})", "nobody", uid, gid},
        {R"({"user": "packager", "package_username": "nobody"})", "nobody", uid, gid},
        {R"({"user": "rootpackage", "package_username": "nobody"})", "nobody", uid, gid},
        {R"({"user": "package", "package_username": "root"})", "root", 0, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const SyslogCapture log;
        const JobUser user = ResolveJobUser(FromText(row.config));
        EXPECT_TRUE(user.valid);
        EXPECT_EQ(user.name, row.name);
        EXPECT_EQ(user.uid, row.uid);
        EXPECT_EQ(user.gid, row.gid);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST(ResolveJobUser, ReportsWhyTheLookUpFailed) {
    struct Row {
        const char *config;
        Texts texts;
    };
    const std::string undetermined = "Unable to determine user";
    const std::string noPackage = "you are not package! error user in config";
    const std::string only = "you can only specify root/system/package in config";
    const Row rows[] = {
        {R"({"user": "package"})", {noPackage, undetermined}},
        {R"({"user": "package", "package_username": 5})", {noPackage, undetermined}},
        {R"({"user": "package", "package_username": null})", {noPackage, undetermined}},
        {R"({"user": "packager"})", {noPackage, undetermined}},
        {R"({"user": "nobody", "name": "a"})",
         {"wrong user nobody! " + only + " [\"a\"]", undetermined}},
        {R"({"user": "Root", "name": "a b"})",
         {"wrong user Root! " + only + " [\"a b\"]", undetermined}},
        {R"({"user": "", "name": 5})", {"wrong user ! " + only + " [5]", undetermined}},
        {R"({"user": "x"})", {"wrong user x! " + only + " [null]", undetermined}},
        {"null", {"wrong user ! " + only + " [null]", undetermined}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const SyslogCapture log;
        EXPECT_FALSE(ResolveJobUser(FromText(row.config)).valid);
        EXPECT_EQ(log.Texts("cronjob"), row.texts);
    }
}

TEST(ResolveJobUser, ReportsTheMissingAccount) {
    struct Row {
        const char *config;
        const char *text;
    };
    const Row rows[] = {
        {R"({"user": "rootjob"})", "user rootjob not exist"},
        {R"({"user": "no-such-system"})", "user no-such-system not exist"},
        {R"({"user": "package", "package_username": "no-such-account"})",
         "user no-such-account not exist"},
        {R"({"user": "package", "package_username": ""})", "user  not exist"},
        {R"({"user": "root\u0000x"})", "user root not exist"},
        {R"({"user": "package", "package_username": "nobody\u0000"})", "user nobody not exist"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.config);
        const SyslogCapture log;
        EXPECT_FALSE(ResolveJobUser(FromText(row.config)).valid);
        // An error of the account database may follow.
        EXPECT_THAT(log.Texts("cronjob"), ElementsAre(StartsWith(row.text)));
    }
}

TEST(ResolveJobUser, LooksUpAnAccountOnce) {
    const SyslogCapture log;
    KnownAccounts accounts;
    const auto jobOf = [](const std::string &user) {
        return CronJob(
            Document(R"("name": "a", "period": "d", "cmd": "b", "user": ")" + user + "\""));
    };
    const CronJob root = jobOf("root");
    EXPECT_EQ(ResolveJobUser(root, accounts).uid, 0U);
    ASSERT_EQ(accounts.count("root"), 1U);
    accounts["root"].uid = 17; // the stored account is used
    EXPECT_EQ(ResolveJobUser(root, accounts).uid, 17U);
    EXPECT_EQ(ResolveJobUser(root.Config()).uid, 0U);
    const CronJob missing = jobOf("no-such-root");
    EXPECT_FALSE(ResolveJobUser(missing, accounts).valid);
    ASSERT_EQ(accounts.count("no-such-root"), 1U)
        << "failed look-ups, which may be slow, are stored too";
    accounts["no-such-root"].valid = true;
    EXPECT_TRUE(ResolveJobUser(missing, accounts).valid);
    accounts["no-such-root"].valid = false;
    EXPECT_FALSE(ResolveJobUser(missing, accounts).valid);
    EXPECT_EQ(log.Texts("cronjob").size(), 2U) << "each failure is reported";
}

// --- Launch -------------------------------------------------------------------------------------

class LaunchTest : public testing::Test {
protected:
    LaunchTest() {
        std::filesystem::remove(ExecutionLogPath());
        std::filesystem::permissions(directory_.Path(), std::filesystem::perms::all);
    }

    // A job that runs `command` in a shell.
    static CronJob ShellJob(const std::string &user, const std::string &command) {
        Json::Value document = Document(R"("name": "backup", "user": "package", "period": "d",
                                           "cmd_list": ["/bin/sh", "-c"])");
        document["config"]["package_username"] = user;
        document["config"]["cmd_list"].append(command);
        return CronJob(std::move(document));
    }

    // Launches the job and waits for its process. Returns the exit status of the process.
    static int RunToEnd(CronJob &job, std::int32_t delay, const std::string &note) {
        job.Launch(delay, note);
        return ExitStatusOf(-1);
    }

    TemporaryDirectory directory_;
    LocalZone zone_{"XXX-1"};
    FixedClock clock_{Utc(2026, 11, 15, 2, 0)};
    const std::string time_ = "2026-11-15T03:00:00+01:00 ";
};

TEST_F(LaunchTest, RecordsTheLaunchAndRunsTheCommand) {
    const std::string file = directory_.File("ran");
    const std::string command = "id -un > " + file;
    CronJob job = With(ShellJob("root", command), "expireTime", 42);
    job.scheduleText = "0 3 -1 -1 -1";
    ASSERT_TRUE(job.valid);
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    EXPECT_EQ(ReadText(file), "root\n");
    EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2026, 11, 15, 2, 0));
    EXPECT_EQ(job.Document()["expireTime"], 0);
    EXPECT_EQ(job.scheduleText, "");
    EXPECT_EQ(ReadText(ExecutionLogPath()), time_ +
                                                "running job: backup with command: /bin/sh -c " +
                                                command + "  as user root\n");
}

TEST_F(LaunchTest, WritesTheNoteAndTakesOnTheAccount) {
    const std::string file = directory_.File("ran");
    CronJob job = ShellJob("nobody", "id -u > " + file + "; id -G >> " + file);
    EXPECT_EQ(RunToEnd(job, -5, "state[Ready]"), 0);
    EXPECT_EQ(ReadText(file), "65534\n65534\n");
    EXPECT_THAT(ReadText(ExecutionLogPath()),
                testing::EndsWith(" as user nobody (state[Ready])\n"));
}

TEST_F(LaunchTest, LogsACommandThatDoesNotStart) {
    const std::string running = time_ + "running job: backup with command: /no/such/program x";
    for (const char *user : {"root", "nobody"}) {
        SCOPED_TRACE(user);
        std::filesystem::remove(ExecutionLogPath());
        CronJob job = ShellJob(user, "true");
        Json::Value config = job.Document()["config"];
        config.removeMember("cmd_list");
        config["cmd"] = "/no/such/program x";
        job = With(job, "config", config);
        EXPECT_EQ(RunToEnd(job, 0, ""), 0);
        std::string expected = running;
        expected.append(" as user ").append(user).append("\n").append(running);
        expected.append(" failed, return code: -1, error: No such file or directory\n");
        EXPECT_EQ(ReadText(ExecutionLogPath()), expected);
    }
}

TEST_F(LaunchTest, EscapesLineBreaksInCommands) {
    CronJob job = ShellJob("root", "true\n: 2026 running job: forged");
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    EXPECT_EQ(ReadText(ExecutionLogPath()),
              time_ + "running job: backup with command: /bin/sh -c true\\n: 2026 running job: "
                      "forged  as user root\n");
}

TEST_F(LaunchTest, EndsAChildWithoutAnAccount) {
    CronJob job = ShellJob("no-such-account", "touch " + directory_.File("ran"));
    const int status = RunToEnd(job, 0, "");
    EXPECT_GT(status, 0);
    EXPECT_NE(status, 99);
    EXPECT_THAT(directory_.Names(), IsEmpty());
    EXPECT_FALSE(PathExists(ExecutionLogPath()));
    EXPECT_EQ(job.scheduleText, "");
}

// A child that continued would be a second scheduler.
TEST_F(LaunchTest, EndsAChildWithoutAProgram) {
    const SyslogCapture log;
    CronJob job(Document(R"("name": "backup", "user": "root", "period": "never", "cmd": "true")"));
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    const std::string running = time_ + "running job: backup with command: ";
    EXPECT_EQ(ReadText(ExecutionLogPath()), running + " as user root\n" + running +
                                                " failed, return code: -1, error: Bad address\n");
}

TEST_F(LaunchTest, EndsAChildWithoutMemory) {
    using Kind = NoMemoryInChildren::Kind;
    const std::pair<Kind, const char *> rows[] = {
        {Kind::ReportingArray, "new pszCmd failed"},
        {Kind::Throwing, "caught a std::exception: std::bad_alloc"},
    };
    for (const auto &[kind, text] : rows) {
        const SharedSyslogCapture log;
        CronJob job = ShellJob("root", "true");
        const NoMemoryInChildren none(kind);
        EXPECT_EQ(RunToEnd(job, 0, ""), EXIT_FAILURE);
        EXPECT_THAT(log.Message(), testing::MatchesRegex(std::string("cronjob:[0-9]+ ") + text));
        EXPECT_FALSE(PathExists(ExecutionLogPath()));
    }
}

TEST_F(LaunchTest, RecordsALaunchWhoseForkFailed) {
    EXPECT_EQ(InChild([&] {
                  const SyslogCapture log;
                  CronJob job = With(ShellJob("root", "true"), "expireTime", 42);
                  job.scheduleText = "0 3 -1 -1 -1";
                  const rlimit limit{0, 0};
                  if (setrlimit(RLIMIT_NPROC, &limit) != 0 || setuid(kOtherAccount) != 0)
                      return 1;
                  job.Launch(0, "");
                  EXPECT_THAT(log.Texts("cronjob"),
                              ElementsAre("Failed to fork() (Resource temporarily unavailable)"));
                  EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2026, 11, 15, 2, 0));
                  EXPECT_EQ(job.Document()["expireTime"], 0);
                  EXPECT_EQ(job.scheduleText, "0 3 -1 -1 -1");
                  return HasFailure() ? 2 : 0;
              }),
              0);
}

TEST_F(LaunchTest, HandlesTimesOfAnyYear) {
    clock_.Set(Utc(2040, 1, 1, 0, 0));
    CronJob job = ShellJob("root", "true");
    EXPECT_EQ(RunToEnd(job, 0, ""), 0);
    EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2040, 1, 1, 0, 0));
    EXPECT_THAT(ReadText(ExecutionLogPath()), StartsWith("2040-01-01T01:00:00+01:00 "));
}

TEST_F(LaunchTest, StartsTheJobAfterItsDelay) {
    const std::string file = directory_.File("ran");
    CronJob job = With(ShellJob("root", "touch " + file), "expireTime", 42);
    job.Launch(1, "");
    EXPECT_EQ(job.Document()["lastExecution"].asInt64(), Utc(2026, 11, 15, 2, 0));
    EXPECT_EQ(job.Document()["expireTime"], 0);
    EXPECT_FALSE(PathExists(file));
    EXPECT_FALSE(PathExists(ExecutionLogPath()));
    EXPECT_EQ(ExitStatusOf(-1), 0);
    EXPECT_TRUE(PathExists(file));
}

} // namespace

} // namespace kest
