#include "core/launch.h"

#include "tests/unit/support/clock.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(LaunchNote, ContainsTheDetailsThatApply) {
    struct Row {
        LaunchDetails details;
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
        EXPECT_EQ(LaunchNote(row.details), row.note);
}

TEST(FormatTriggerTime, IsDayOfTheMonthAndTime) {
    EXPECT_EQ(FormatTriggerTime(BrokenDown(2026, 11, 7, 3, 0, 12)), "07 03:00:12");
    EXPECT_EQ(FormatTriggerTime(BrokenDown(2026, 1, 31, 23, 59, 59)), "31 23:59:59");
    EXPECT_EQ(FormatTriggerTime(BrokenDown(2024, 2, 29, 0, 0, 0)), "29 00:00:00");
}

} // namespace

namespace {

TEST(LaunchSpacing, SpreadsTheStartsOverAnHour) {
    struct Row {
        std::int32_t maxDelay;
        std::size_t count;
        std::int32_t spacing;
    };
    const Row rows[] = {
        {300, 1, 300},     {300, 2, 300},     {300, 3, 300},     {300, 7, 300},
        {300, 100, 36},    {300, 3601, 1},    {300, 5000, 0},    {3600, 1, 3600},
        {3600, 2, 3600},   {3600, 3, 1800},   {3600, 7, 600},    {3600, 8, 514},
        {3600, 100, 36},   {3600, 3601, 1},   {3600, 3602, 0},   {3600, 5000, 0},
        {100000, 1, 3600}, {100000, 2, 3600}, {100000, 3, 1800}, {100000, 7, 600},
        {100000, 100, 36}, {100000, 3601, 1}, {100000, 5000, 0}, {36, 1, 36},
        {36, 3, 36},       {36, 100, 36},     {36, 102, 35},     {36, 3601, 1},
        {36, 5000, 0},     {600, 3, 600},     {0, 1, 0},         {0, 2, 0},
        {0, 7, 0},         {0, 100, 0},       {0, 5000, 0},      {2147483647, 2, 3600},
    };
    for (const Row &row : rows)
        EXPECT_EQ(LaunchSpacing(row.maxDelay, row.count), row.spacing)
            << "maxDelay " << row.maxDelay << ", " << row.count << " jobs";
}

TEST(LaunchSpacing, StaysWithinBothBounds) {
    for (const std::int32_t maxDelay : {0, 1, 36, 300, 3600, 100000})
        for (std::size_t count = 1; count <= 5000; ++count) {
            const std::int64_t spacing = LaunchSpacing(maxDelay, count);
            ASSERT_LE(spacing, maxDelay) << count;
            ASSERT_LE(spacing * (static_cast<std::int64_t>(count) - 1), 3600) << count;
            // A longer spacing would exceed one of the bounds.
            const auto gaps = count > 2 ? static_cast<std::int64_t>(count) - 1 : 1;
            ASSERT_TRUE(spacing == maxDelay || (spacing + 1) * gaps > 3600) << count;
        }
}

} // namespace

} // namespace kest
