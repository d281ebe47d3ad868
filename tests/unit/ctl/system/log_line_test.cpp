#include "ctl/system/log_line.h"

#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

TEST(ParseLogLine, ParsesStarts) {
    const LogLine line = ParseLogLine(
        "2026-11-15T03:00:10+01:00 running job: pkg-a-b with command: /bin/x -y as user root "
        "(state[Ready], trig[15 03:00:00], tab[0 3 -1 -1 -1], job[2/3], delay[10])");
    EXPECT_EQ(line.time, 1794708010);
    EXPECT_EQ(line.stamp, "2026-11-15T03:00:10+01:00 ");
    EXPECT_EQ(line.text.substr(0, 21), "running job: pkg-a-b ");
    EXPECT_EQ(line.job, "pkg-a-b");
    EXPECT_TRUE(line.started);
    EXPECT_FALSE(line.failed);
    EXPECT_EQ(line.delay, 10);
    EXPECT_EQ(line.account, "root");
    EXPECT_EQ(line.state, "Ready");
}

TEST(ParseLogLine, IgnoresNotesInsideCommands) {
    const std::string start = "2026-11-15T03:00:10+01:00 running job: a with command: ";
    const LogLine started = ParseLogLine(
        start + "x (state[Manual], delay[77]) failed, return code: 1 as user root (state[Ready], "
                "trig[15 03:00:00], tab[0 3 -1 -1 -1], job[2/2], delay[10])");
    EXPECT_TRUE(started.started);
    EXPECT_FALSE(started.failed);
    EXPECT_FALSE(started.manual);
    EXPECT_EQ(started.account, "root");
    EXPECT_EQ(started.state, "Ready");
    EXPECT_EQ(started.delay, 10);
    const LogLine failed = ParseLogLine(
        start + "x (state[Ready], delay[77]) failed, return code: -1, error: No such file");
    EXPECT_TRUE(failed.failed);
    EXPECT_FALSE(failed.started);
    EXPECT_EQ(failed.delay, 0);
}

TEST(ParseLogLine, RecognisesManualRuns) {
    const LogLine line = ParseLogLine("2026-11-15T03:00:10+01:00 running job: a with command: x as "
                                      "user root (state[Manual], trig[15 03:00:10], by[bob])");
    EXPECT_TRUE(line.started);
    EXPECT_TRUE(line.manual);
}

TEST(ParseLogLine, ParsesFailures) {
    struct Row {
        const char *text;
        const char *reason;
        const char *account;
    };
    const Row rows[] = {
        {"running job: pkg-a-b with command: /bin/x failed, return code: -1, error: No such file",
         "No such file", ""},
        {"running job: pkg-a-b with command: /bin/x failed, return code: 1",
         "failed, return code: 1", ""},
        {"Failed to initgroups forpkg-a-b for user bob[Operation not permitted]",
         "initgroups: Operation not permitted", "bob"},
        {"Failed to setuid forpkg-a-b for user bob[Operation not permitted]",
         "setuid: Operation not permitted", "bob"},
    };
    for (const auto &[text, reason, account] : rows) {
        const LogLine line = ParseLogLine(std::string("2026-11-15T03:00:00+01:00 ") + text);
        EXPECT_EQ(line.job, "pkg-a-b") << text;
        EXPECT_TRUE(line.failed) << text;
        EXPECT_FALSE(line.started) << text;
        EXPECT_EQ(line.text, text);
        EXPECT_EQ(line.reason, reason);
        EXPECT_EQ(line.account, account);
    }
}

TEST(ParseLogLine, AppliesTheOffsetFromUtc) {
    EXPECT_EQ(ParseLogLine("2026-06-02T02:10:10+00:00 x").time, 1780366210);
    EXPECT_EQ(ParseLogLine("2026-06-02T07:40:10+05:30 x").time, 1780366210);
    EXPECT_EQ(ParseLogLine("2026-06-01T22:40:10-03:30 x").time, 1780366210);
}

TEST(ParseLogLine, AcceptsOtherLines) {
    for (const char *text :
         {"", "x", "2026-11-15", "2026-11-15T03:00:00+01:00", "2026-11-15T03:00:00+01:00running",
          "yyyy-mm-ddTHH:MM:SS+01:00 text", "2026-11-23T05:00:00\03303:00 text",
          "1-1-1T1:1:1\033[31mxxxxxxxxxx1:1 text", " 026-11-23T05:00:00+03:00 text", "running",
          "Failed to ", "\x80\xff"}) {
        const LogLine line = ParseLogLine(text);
        EXPECT_EQ(line.time, -1) << text;
        EXPECT_EQ(line.text, text);
        EXPECT_EQ(line.job, "") << text;
    }
    EXPECT_EQ(ParseLogLine("running job: a").job, "");
    EXPECT_EQ(ParseLogLine("running job:  with command: x").job, "");
}

} // namespace

} // namespace kest::ctl
