#include "core/job_state.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

// The rules as a table. Exactly one row applies to each input. Both matches either value.
enum Condition { No, Yes, Both };

struct Rule {
    Condition keptFromPassive; // a passive machine, and a job that does not run on such
    Condition held;
    Condition scheduleCame;
    Condition overdue;
    Condition actionIsRun;
    JobState state;
};

constexpr Rule kRules[] = {
    {Yes, Both, Both, Both, Both, JobState::NotRunOnPassive},
    {No, No, Yes, Both, Both, JobState::Ready},
    {No, No, No, Yes, Both, JobState::AssureExecute},
    {No, No, No, No, Both, JobState::NotReady},
    {No, Yes, Both, Yes, Yes, JobState::AssureExecuteRun},
    {No, Yes, Both, Yes, No, JobState::AssureExecuteWait},
    {No, Yes, Both, No, Both, JobState::NotReady},
};

bool Holds(Condition condition, bool fact) {
    return condition == Both || (condition == Yes) == fact;
}

bool Applies(const Rule &rule, const StateInput &input) {
    return Holds(rule.keptFromPassive, input.passiveMode && !input.runOnPassive) &&
           Holds(rule.held, input.held) && Holds(rule.scheduleCame, input.expireTime != 0) &&
           Holds(rule.overdue, input.overdue) && Holds(rule.actionIsRun, input.assureRun == 1);
}

void ExpectState(const StateInput &input) {
    int applying = 0;
    for (const Rule &rule : kRules) {
        if (!Applies(rule, input))
            continue;
        ++applying;
        EXPECT_EQ(StateOf(input), rule.state)
            << "passive " << input.passiveMode << " runOnPassive " << input.runOnPassive << " held "
            << input.held << " expireTime " << input.expireTime << " overdue " << input.overdue
            << " assureRun " << input.assureRun;
    }
    EXPECT_EQ(applying, 1);
}

TEST(StateOf, FollowsTheTableForAllInputs) {
    int count = 0;
    for (const bool passive : {false, true})
        for (const bool runOnPassive : {false, true})
            for (const bool held : {false, true})
                for (const std::int64_t expireTime :
                     {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{1} << 32})
                    for (const bool overdue : {false, true})
                        for (const std::int32_t assureRun : {0, 1, 2}) {
                            ExpectState(
                                {passive, runOnPassive, held, expireTime, overdue, assureRun});
                            ++count;
                        }
    EXPECT_EQ(count, 192);
}

TEST(JobState, HasItsNumbers) {
    EXPECT_EQ(static_cast<int>(JobState::NotReady), 0);
    EXPECT_EQ(static_cast<int>(JobState::NotRunOnPassive), 1);
    EXPECT_EQ(static_cast<int>(JobState::AssureExecuteWait), 2);
    EXPECT_EQ(static_cast<int>(JobState::Ready), 3);
    EXPECT_EQ(static_cast<int>(JobState::AssureExecute), 4);
    EXPECT_EQ(static_cast<int>(JobState::AssureExecuteRun), 5);
}

TEST(TraitsOf, DescribesEachState) {
    struct Row {
        int number;
        const char *name;
        bool launched;
    };
    const Row rows[] = {
        {0, "NotReady", false}, {1, "NotRunOnPassive", false}, {2, "AssureExecuteWait", false},
        {3, "Ready", true},     {4, "AssureExecute", true},    {5, "AssureExecuteRun", true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.number);
        const JobStateTraits *traits = TraitsOf(static_cast<JobState>(row.number));
        ASSERT_NE(traits, nullptr);
        EXPECT_STREQ(traits->name, row.name);
        EXPECT_EQ(traits->launched, row.launched);
    }
}

TEST(TraitsOf, IsNullForANumberThatIsNotAState) {
    for (const int number : {6, 7, -1, INT32_MAX, INT32_MIN})
        EXPECT_EQ(TraitsOf(static_cast<JobState>(number)), nullptr) << number;
}

} // namespace

} // namespace kest
