#include "ctl/display/timeline_text.h"

#include "tests/unit/support/timelines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace kest::ctl {

namespace {

using testing::HasSubstr;
using testing::Not;

Screen ScreenOf(std::size_t width, bool utf8 = true) {
    Screen screen;
    screen.width = width;
    screen.utf8 = utf8;
    return screen;
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

TEST(TimelineInText, DrawsMarksBandsAndLoad) {
    const LocalZone zone("UTC0");
    EXPECT_EQ(TimelineInText(Night(), ScreenOf(68)), R"(today 22:00 to tomorrow 02:00
                    22:00       23:00       Wed 3       01:00
                    ┬───────────┬───────────┬───────────┬───────────
exact               ▌           ▌▐          │                      ▐
hourly                  ▌       ░░░░░░░░░░░░▒▒▒▒▒▒▒▒▒▒▒▒▒
late and long-named        ▲                │                 ░░░░░░
                  3             ░░░
load                            ███         ░░░                  ░░░
                  0 █████████   ███░░░░░░░░░░░░░░░░░░░░░░░░   ░░░███
█ start  ░▒ possible starts  ▲ overdue
load: at most 3 starts in a quarter hour
2 jobs do not start in these hours
)");
    EXPECT_EQ(TimelineInText(Night(), ScreenOf(68, false)), R"(today 22:00 to tomorrow 02:00
                    22:00       23:00       Wed 3       01:00
                    +-----------+-----------+-----------+-----------
exact               #           ##          |                      #
hourly                  #       ............,,,,,,,,,,,,,
late and long-named        !                |                 ......
                  3             ...
load                            ###         ...                  ...
                  0 #########   ###........................   ...###
# start  ., possible starts  ! overdue
load: at most 3 starts in a quarter hour
2 jobs do not start in these hours
)");
}

TEST(TimelineInText, ShowsHalfCells) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 0); // a cell is ten minutes wide
    struct Row {
        std::vector<JobStart> starts;
        const char *shown;
    };
    const Row rows[] = {
        {{Known(from + 4 * kMinute)}, "▌"},
        {{Known(from + 5 * kMinute)}, "▐"},
        {{Known(from), Known(from + 4 * kMinute)}, "▌"},
        {{Known(from + 4 * kMinute), Known(from + 5 * kMinute)}, "█"},
        {{Known(from + 5 * kMinute), Overdue(from + 6 * kMinute)}, "▲"},
        {{Band(from, from + 9 * kMinute), Known(from + 9 * kMinute)}, "▐"},
    };
    for (const Row &row : rows) {
        const TimelineData hours = TimelineOf(from, 8, {{"a", row.starts}});
        EXPECT_EQ(Lines(TimelineInText(hours, ScreenOf(57)))[3],
                  std::string("a        ") + row.shown);
    }
}

TEST(TimelineInText, ShowsTheSmallestLoad) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 0);
    std::vector<JobRow> rows(100, JobRow{"a", {Known(from)}});
    rows.push_back({"b", {Known(from + 7 * kHour)}});
    const std::string text = TimelineInText(TimelineOf(from, 8, rows), ScreenOf(57));
    EXPECT_EQ(Count(text, "▁"), 2U) << text; // a quarter of an hour spans two cells
}

TEST(TimelineInText, UsesColoursOnlyOnScreensWithColours) {
    const LocalZone zone("UTC0");
    Screen screen = ScreenOf(68);
    const std::string plain = TimelineInText(Night(), screen);
    EXPECT_THAT(plain, Not(HasSubstr("\033")));
    screen.colour = true;
    std::string coloured = TimelineInText(Night(), screen);
    EXPECT_THAT(coloured, HasSubstr("\033[33m▲\033[0m"));
    for (auto at = coloured.find('\033'); at != std::string::npos; at = coloured.find('\033'))
        coloured.erase(at, coloured.find('m', at) + 1 - at);
    EXPECT_EQ(coloured, plain);
}

TEST(TimelineInText, FitsEveryScreen) {
    const LocalZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    for (const std::time_t from : {Utc(2026, 6, 2, 2, 10), Utc(2026, 10, 24, 23, 0)})
        for (const std::size_t hours : {1U, 24U, 168U})
            for (std::size_t width = 30; width < 250; width += 7) {
                const TimelineData timeline = CollectStarts(
                    {Job("pkg-a-with-a-rather-long-name", "~ * * * *"), Job("b", "~ ~ * * ~"),
                     Job("c", "* * * * *"), Job("d\n", "0 0 31 2 *")},
                    {}, 300, from, hours);
                for (const std::string &line : Lines(TimelineInText(timeline, ScreenOf(width))))
                    ASSERT_LE(WidthOf(line), width) << line;
            }
    for (const std::string &line : Lines(TimelineInText(Night(), ScreenOf(0))))
        EXPECT_LE(WidthOf(line), 100U) << line;
}

TEST(TimelineInText, ShowsSeveralBandsInOneCell) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 0, 0);
    JobRow row{"hourly", {}};
    for (std::time_t hour = from; hour < from + 96 * kHour; hour += kHour)
        row.starts.push_back(Band(hour + kMinute, hour + kHour - kMinute));
    const std::string text = TimelineInText(TimelineOf(from, 96, {row}), ScreenOf(57));
    EXPECT_EQ(Count(text, "▓"), 48U + 1U) << text; // the cells and the legend
}

TEST(TimelineInText, WithoutStarts) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    EXPECT_EQ(TimelineInText(TimelineOf(from, 1, {}, 1), ScreenOf(80)),
              "today 02:10 to today 03:10\n"
              "No job starts in these hours\n"
              "1 job does not start in these hours\n");
    TimelineData held = TimelineOf(from, 1, {});
    held.held = true;
    EXPECT_EQ(TimelineInText(held, ScreenOf(80)), "today 02:10 to today 03:10\n"
                                                  "The machine is held: scheduled starts wait\n"
                                                  "No job starts in these hours\n");
}

} // namespace

} // namespace kest::ctl
