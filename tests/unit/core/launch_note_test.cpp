#include "core/launch_note.h"

#include "tests/unit/support/clock.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(LaunchNote, TellsWhatIsWorthTelling) {
    struct Row {
        LaunchFacts facts;
        const char *note;
    };
    const std::string time = "07 03:00:12";
    const Row rows[] = {
        {{"Ready", time, "", 1, 1, 0}, "state[Ready], trig[07 03:00:12]"},
        {{"Ready", time, "", 2, 3, 600}, "state[Ready], trig[07 03:00:12], job[2/3], delay[600]"},
        {{"Ready", time, "0 3 -1 -1 -1", 2, 3, 600},
         "state[Ready], trig[07 03:00:12], tab[0 3 -1 -1 -1], job[2/3], delay[600]"},
        {{"Ready", time, "", 1, 3, 0}, "state[Ready], trig[07 03:00:12], job[1/3]"},
        {{"Ready", time, "", 3, 3, 1200}, "state[Ready], trig[07 03:00:12], job[3/3], delay[1200]"},
        {{"AssureExecute", time, "", 1, 1, 0}, "state[AssureExecute], trig[07 03:00:12]"},
        {{"AssureExecuteRun", time, "", 1, 2, 0},
         "state[AssureExecuteRun], trig[07 03:00:12], job[1/2]"},
        {{"Ready", "", "", 1, 1, 0}, "state[Ready], trig[]"},
        {{"Ready", time, "X X X X X", 1, 1, 0}, "state[Ready], trig[07 03:00:12], tab[X X X X X]"},
        {{"Ready", time, "", 1, 1, 5}, "state[Ready], trig[07 03:00:12], delay[5]"},
        {{"Ready", time, "", 1, 1, -5}, "state[Ready], trig[07 03:00:12]"},
        {{"Ready", time, "", 100, 100, 3564},
         "state[Ready], trig[07 03:00:12], job[100/100], delay[3564]"},
        {{"", "", "", 1, 0, 0}, "state[], trig[], job[1/0]"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(LaunchNote(row.facts), row.note);
}

TEST(FormatTriggerTime, IsDayOfTheMonthAndTime) {
    EXPECT_EQ(FormatTriggerTime(BrokenDown(2026, 11, 7, 3, 0, 12)), "07 03:00:12");
    EXPECT_EQ(FormatTriggerTime(BrokenDown(2026, 1, 31, 23, 59, 59)), "31 23:59:59");
    EXPECT_EQ(FormatTriggerTime(BrokenDown(2024, 2, 29, 0, 0, 0)), "29 00:00:00");
}

} // namespace

} // namespace kest
