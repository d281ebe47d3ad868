#include "log/timestamp.h"

#include "log/memorylogger.h"
#include "tests/unit/support/clock.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(FormatTimestamp, WritesTheOffset) {
    struct Row {
        long offset; // seconds
        const char *text;
    };
    const Row rows[] = {
        {3600, "2026-11-15T03:00:00+01:00 "},   {-12600, "2026-11-15T03:00:00-03:30 "},
        {-1800, "2026-11-15T03:00:00-00:30 "},  {20700, "2026-11-15T03:00:00+05:45 "},
        {0, "2026-11-15T03:00:00+00:00 "},      {50400, "2026-11-15T03:00:00+14:00 "},
        {-43200, "2026-11-15T03:00:00-12:00 "}, {1800, "2026-11-15T03:00:00+00:30 "},
        {-3600, "2026-11-15T03:00:00-01:00 "},  {3208, "2026-11-15T03:00:00+00:53 "},
        {3599, "2026-11-15T03:00:00+00:59 "},   {-2730, "2026-11-15T03:00:00-00:45 "},
    };
    for (const Row &row : rows) {
        std::tm local = BrokenDown(2026, 11, 15, 3, 0);
        local.tm_gmtoff = row.offset;
        EXPECT_EQ(FormatTimestamp(local), row.text);
    }
}

TEST(FormatTimestamp, PadsWithZeros) {
    EXPECT_EQ(FormatTimestamp(BrokenDown(2026, 1, 2, 3, 4, 5)), "2026-01-02T03:04:05+00:00 ");
}

TEST(Timestamp, IsThePresentLocalTime) {
    struct Row {
        const char *zone;
        const char *text;
    };
    const Row rows[] = {
        {"UTC0", "2026-11-15T02:00:00+00:00 "},
        {"XXX-1", "2026-11-15T03:00:00+01:00 "},
        {"XXX3:30", "2026-11-14T22:30:00-03:30 "},
        {"XXX-5:45", "2026-11-15T07:45:00+05:45 "},
    };
    const FixedClock clock(Utc(2026, 11, 15, 2, 0));
    for (const Row &row : rows) {
        const LocalZone zone(row.zone);
        EXPECT_EQ(KEST::MemoryLogger::Timestamp(), row.text);
    }
}

TEST(Timestamp, IsEmptyForATimeWithoutACalendar) {
    const FixedClock clock(INT64_MAX);
    EXPECT_EQ(KEST::MemoryLogger::Timestamp(), "");
}

} // namespace

} // namespace kest
