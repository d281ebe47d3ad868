#include "core/redraw.h"

#include "tests/unit/support/clock.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

using Keys = std::vector<std::string>;

TEST(FieldsToRedraw, FollowTheRollOverOfEachField) {
    struct Row {
        const char *when;
        std::tm local;
        Keys keys;
    };
    const Row rows[] = {
        {"an ordinary minute", BrokenDown(2026, 3, 4, 5, 6), {}},
        {"minute 1", BrokenDown(2026, 3, 4, 5, 1), {}},
        {"minute 59", BrokenDown(2026, 3, 4, 5, 59), {}},
        {"minute 1 of a year that begins on a Monday", BrokenDown(2024, 1, 1, 0, 1), {}},
        {"an ordinary hour", BrokenDown(2026, 3, 4, 5, 0), {"Minute"}},
        {"the last second of minute 0", BrokenDown(2026, 3, 4, 5, 0, 59), {"Minute"}},
        {"10:00 on the 1st", BrokenDown(2026, 4, 1, 10, 0), {"Minute"}},
        {"10:00 on a Monday", BrokenDown(2026, 3, 2, 10, 0), {"Minute"}},
        {"10:00 on 1 January", BrokenDown(2024, 1, 1, 10, 0), {"Minute"}},
        {"an ordinary midnight", BrokenDown(2026, 3, 4, 0, 0), {"Minute", "hour"}},
        {"a Sunday midnight", BrokenDown(2026, 3, 8, 0, 0), {"Minute", "hour"}},
        {"a Monday midnight", BrokenDown(2026, 3, 2, 0, 0), {"Minute", "hour", "week"}},
        {"the 1st of a month", BrokenDown(2026, 4, 1, 0, 0), {"Minute", "hour", "day"}},
        {"the 2nd of January", BrokenDown(2026, 1, 2, 0, 0), {"Minute", "hour"}},
        {"a Monday that is a 1st", BrokenDown(2026, 6, 1, 0, 0), {"Minute", "hour", "day", "week"}},
        {"1 January", BrokenDown(2026, 1, 1, 0, 0), {"Minute", "hour", "day", "month"}},
        {"1 January, a Monday",
         BrokenDown(2024, 1, 1, 0, 0),
         {"Minute", "hour", "day", "month", "week"}},
        {"the 1st of December", BrokenDown(2026, 12, 1, 0, 0), {"Minute", "hour", "day"}},
        {"a January Monday that is no 1st",
         BrokenDown(2026, 1, 5, 0, 0),
         {"Minute", "hour", "week"}},
    };
    for (const Row &row : rows)
        EXPECT_EQ(FieldsToRedraw(row.local), row.keys) << row.when;
}

} // namespace

} // namespace kest
