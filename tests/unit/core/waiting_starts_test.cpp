#include "core/waiting_starts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace kest {

namespace {

using testing::ElementsAre;

TEST(WaitingStarts, AreLimitedForEachAccount) {
    WaitingStarts starts;
    for (std::size_t i = 0; i < WaitingStarts::kMostOfAccount; ++i) {
        ASSERT_TRUE(starts.MayWait("alice", 100)) << i;
        starts.Add("alice", "job" + std::to_string(i), 200 + static_cast<std::int64_t>(i));
    }
    EXPECT_FALSE(starts.MayWait("alice", 100));
    EXPECT_TRUE(starts.MayWait("bob", 100));
    EXPECT_FALSE(starts.MayWait("alice", 199));
    EXPECT_TRUE(starts.MayWait("alice", 200)) << "the first one has started";
    starts.Add("alice", "one more", 300);
    EXPECT_FALSE(starts.MayWait("alice", 200));
}

TEST(WaitingStarts, ListTheWaitingJobs) {
    WaitingStarts starts;
    starts.Add("alice", "b", 10);
    starts.Add("alice", "a", 20);
    starts.Add("bob", "a", 15);
    EXPECT_THAT(starts.Jobs(9), ElementsAre("a", "b"));
    EXPECT_THAT(starts.Jobs(10), ElementsAre("a"));
    EXPECT_THAT(starts.Jobs(19), ElementsAre("a"));
    EXPECT_THAT(starts.Jobs(20), ElementsAre());
}

} // namespace

} // namespace kest
