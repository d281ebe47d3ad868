#include "ctl/display/times.h"

#include "tests/unit/support/clock.h"

#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace kest::ctl {

namespace {

// For all tests of this program.
[[maybe_unused]] const auto forgetsLocalTimes = LocalZone::onChange = ForgetLocalTimes;

std::string Formatted(const std::tm &time) {
    std::array<char, 80> text{};
    std::strftime(text.data(), text.size(), "%F %T %j %w %z %Z", &time);
    return text.data();
}

TEST(LocalTime, IsThatOfTheLibrary) {
    for (const char *name : {"UTC0", "Europe/Berlin", "Australia/Lord_Howe", "America/St_Johns",
                             "Africa/Monrovia", "Pacific/Apia"}) {
        const LocalZone zone(name);
        for (unsigned i = 0; i < 20000; ++i) {
            std::mt19937_64 bits(i);
            // Around the present, where transitions are met, and anywhere in two centuries.
            const std::time_t time =
                i % 2 == 0 ? Utc(2026, 1, 1, 0, 0) + static_cast<std::time_t>(bits() % 31536000)
                           : static_cast<std::time_t>(bits() % 6311520000) - 3155760000;
            std::tm expected{};
            ASSERT_NE(localtime_r(&time, &expected), nullptr);
            const std::tm local = LocalTime(time).value_or(std::tm{});
            ASSERT_EQ(Formatted(local), Formatted(expected)) << name << " " << time;
        }
    }
    EXPECT_FALSE(LocalTime(std::numeric_limits<std::time_t>::max()).has_value());
    EXPECT_FALSE(LocalTime(std::numeric_limits<std::time_t>::min()).has_value());
}

TEST(WhenInWords, IsRelativeToNow) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30);
    struct {
        std::time_t time;
        const char *words;
        const char *inShort;
    } const rows[] = {
        {now, "today 02:10", "02:10"},
        {Utc(2026, 6, 2, 23, 59), "today 23:59", "23:59"},
        {Utc(2026, 6, 3, 0, 0), "tomorrow 00:00", "Wed 00:00"},
        {Utc(2026, 6, 1, 0, 5), "yesterday 00:05", "Mon 00:05"},
        {Utc(2026, 6, 8, 23, 59), "Mon 8 Jun 23:59", "Mon 23:59"},
        {Utc(2026, 6, 9, 3, 17), "Tue 9 Jun 03:17", "9 Jun 03:17"},
        {Utc(2026, 5, 27, 0, 0), "Wed 27 May 00:00", "Wed 00:00"},
        {Utc(2026, 5, 26, 23, 59), "Tue 26 May 23:59", "26 May 23:59"},
        {Utc(2027, 6, 9, 3, 17), "9 Jun 2027 03:17", "9 Jun 2027"},
        {Utc(1999, 12, 31, 3, 17), "31 Dec 1999 03:17", "31 Dec 1999"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(WhenInWords(row.time, now), row.words);
        EXPECT_EQ(WhenInShort(row.time, now), row.inShort);
    }
}

TEST(WhenInWords, AppendsAZoneWithAnotherOffset) {
    const LocalZone zone("Europe/Berlin");
    const std::time_t now = Utc(2026, 10, 24, 22, 0); // 00:00 on the day that has 25 hours
    EXPECT_EQ(WhenInWords(Utc(2026, 10, 25, 0, 30), now), "today 02:30");
    EXPECT_EQ(WhenInWords(Utc(2026, 10, 25, 1, 30), now), "today 02:30 CET");
    EXPECT_EQ(WhenInWords(Utc(2026, 10, 25, 23, 30), now), "tomorrow 00:30 CET");
}

TEST(ClockInWords, AppendsAZoneWithAnotherOffset) {
    const LocalZone zone("Europe/Berlin");
    const std::time_t now = Utc(2026, 10, 24, 22, 0);
    EXPECT_EQ(ClockInWords(Utc(2026, 10, 25, 0, 59), now), "02:59");
    EXPECT_EQ(ClockInWords(Utc(2026, 10, 25, 1, 0), now), "02:00 CET");
}

TEST(Iso, IncludesTheOffset) {
    const LocalZone zone("Asia/Kolkata");
    EXPECT_EQ(Iso(Utc(2026, 6, 2, 2, 10, 30)), "2026-06-02T07:40:30+05:30");
}

TEST(ReadTime, ParsesTimes) {
    const LocalZone zone("Europe/Berlin");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30); // 04:10:30
    struct {
        const char *text;
        std::time_t time;
    } const rows[] = {
        {"now", now},
        {"today", Utc(2026, 6, 1, 22, 0)},
        {"yesterday", Utc(2026, 5, 31, 22, 0)},
        {"tomorrow", Utc(2026, 6, 2, 22, 0)},
        {"03:00", Utc(2026, 6, 2, 1, 0)},
        {"23:59:58", Utc(2026, 6, 2, 21, 59, 58)},
        {"2026-11-15", Utc(2026, 11, 14, 23, 0)},
        {"2026-11-15 03:00", Utc(2026, 11, 15, 2, 0)},
        {"2026-11-15T03:00", Utc(2026, 11, 15, 2, 0)},
        {"2026-11-15T03:00:07", Utc(2026, 11, 15, 2, 0, 7)},
        {"2026-11-15T03:00Z", Utc(2026, 11, 15, 3, 0)},
        {"2026-11-15T03:00:00+05:30", Utc(2026, 11, 14, 21, 30)},
        {"2h", now - 7200},
        {"30min", now - 1800},
        {"30m", now - 1800},
        {"45s", now - 45},
        {"3d", now - 259200},
        {"1w", now - 604800},
        {"+2h", now + 7200},
        {"@0", 0},
        {"@1780366230", now},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ReadTime(row.text, now), row.time) << row.text;
}

TEST(ReadTime, RefusesOtherTexts) {
    const LocalZone zone("UTC0");
    for (const char *text : {"",
                             "x",
                             "2026",
                             "2026-13-01",
                             "25:00",
                             "2026-11-15 03:00 x",
                             "2026-11-15x",
                             "2026-02-30",
                             "2027-02-29 03:00",
                             "2x",
                             "h",
                             "-2h",
                             "+",
                             "+x",
                             "@",
                             "@x",
                             "@1x",
                             "99999999999999999999h",
                             "999999999999w",
                             "03:00:61x"})
        EXPECT_EQ(ReadTime(text, 0), std::nullopt) << text;
}

} // namespace

} // namespace kest::ctl
