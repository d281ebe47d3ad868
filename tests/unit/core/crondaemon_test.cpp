#include "core/crondaemon.h"

#include "tests/unit/syslog_capture.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(IsLaunchState, IsTrueForTheLastThree) {
    const SyslogCapture log;
    for (int number = 0; number <= 5; ++number)
        EXPECT_EQ(IsLaunchState(static_cast<JobState>(number)), number >= 3) << number;
    EXPECT_TRUE(log.Messages().empty());
}

TEST(JobStateName, IsTheNameOfTheState) {
    const SyslogCapture log;
    const char *names[] = {"NotReady", "NotRunOnPassive", "AssureExecuteWait",
                           "Ready",    "AssureExecute",   "AssureExecuteRun"};
    for (int number = 0; number <= 5; ++number)
        EXPECT_STREQ(JobStateName(static_cast<JobState>(number)), names[number]);
    EXPECT_TRUE(log.Messages().empty());
}

TEST(JobStateName, ReportsANumberThatIsNotAState) {
    for (const int number : {6, -1}) {
        const SyslogCapture log;
        EXPECT_FALSE(IsLaunchState(static_cast<JobState>(number)));
        EXPECT_STREQ(JobStateName(static_cast<JobState>(number)), "Unknown");
        const std::vector<std::string> twice(2, "Unreachable switch case value");
        EXPECT_EQ(log.Texts("crondaemon"), twice);
    }
}

} // namespace

} // namespace kest
