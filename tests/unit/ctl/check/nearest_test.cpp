#include "ctl/check/nearest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<std::string> kKnown{"name", "user",     "period",        "crontab",
                                      "cmd",  "cmd_list", "assure_execute"};

TEST(NearestOf, FindsSimilarWords) {
    EXPECT_THAT(NearestOf("nmae", kKnown, 1), ElementsAre("name"));
    EXPECT_THAT(NearestOf("Period", kKnown, 1), ElementsAre("period"));
    EXPECT_THAT(NearestOf("cron_tab", kKnown, 1), ElementsAre("crontab"));
    EXPECT_THAT(NearestOf("assure_exec", kKnown, 1), ElementsAre("assure_execute"));
    EXPECT_THAT(NearestOf("cmd-list", kKnown, 1), ElementsAre("cmd_list"));
}

TEST(NearestOf, ReturnsTheMostSimilarFirst) {
    EXPECT_THAT(NearestOf("abc", {"abd", "abcd", "abc", "xyz"}, 2), ElementsAre("abcd", "abc"));
    EXPECT_THAT(NearestOf("abXd", {"aXYd", "abd"}, 5), ElementsAre("abd", "aXYd"));
}

TEST(NearestOf, IgnoresDissimilarWords) {
    EXPECT_THAT(NearestOf("schedule", kKnown, 3), IsEmpty());
    EXPECT_THAT(NearestOf("", kKnown, 3), IsEmpty());
    EXPECT_THAT(NearestOf("name", {}, 3), IsEmpty());
    EXPECT_THAT(NearestOf("xyz", {"a", "bc", "q"}, 3), IsEmpty());
    EXPECT_THAT(NearestOf("foo", {"log"}, 1), IsEmpty());
}

} // namespace

} // namespace kest::ctl
