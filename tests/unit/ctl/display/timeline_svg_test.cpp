#include "ctl/display/timeline_svg.h"

#include "tests/unit/support/timelines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

using testing::HasSubstr;
using testing::Not;

TEST(TimelineInSvg, EscapesNames) {
    const LocalZone zone("UTC0");
    struct Row {
        std::string name;
        std::string shown;
    };
    const Row rows[] = {{"a<b>&\"'", "a&lt;b&gt;&amp;\"'"},
                        {"a\nb\x01", "a\\nb\\x01"},
                        {"a\xFFx", "a\\xffx"},
                        {"a\xEF\xBF\xBEx", "a\xEF\xBF\xBDx"}};
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    for (const Row &row : rows) {
        const std::string svg = TimelineInSvg(TimelineOf(from, 1, {{row.name, {Known(from)}}}));
        EXPECT_THAT(svg, HasSubstr("<title>" + row.shown + ": 2026-06-02 02:10</title>"));
        EXPECT_EQ(svg.find(row.name), std::string::npos);
    }
}

TEST(TimelineInSvg, DescribesEachMark) {
    const LocalZone zone("UTC0");
    const std::string svg = TimelineInSvg(Night());
    for (const char *text :
         {"exact: 2026-06-02 22:00<", "exact: 2026-06-02 23:00<", "exact: 2026-06-02 23:08<",
          "exact: 2026-06-03 01:59<", "hourly: one start between 2026-06-02 23:01 and ",
          " and 2026-06-03 00:00; not yet drawn: minute<",
          "late and long-named: 2026-06-02 22:35, overdue<", ">2026-06-02 22:00 to 22:15: 1 start<",
          ">2026-06-02 23:00 to 23:15: 2 starts, up to 1 more<", ">Wed 3<",
          ">3 jobs, 6 starts and 3 whose time is not yet drawn; 2 jobs do not start in "})
        EXPECT_THAT(svg, HasSubstr(text));
    EXPECT_THAT(svg, Not(HasSubstr("<script")));
    EXPECT_THAT(svg, HasSubstr("prefers-color-scheme:dark"));
}

TEST(TimelineInSvg, MergesMarksThatTouch) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    const TimelineData hours = CollectStarts({Job("a", "* * * * *")}, {}, 300, from, 24);
    const std::string svg = TimelineInSvg(hours);
    EXPECT_THAT(svg, HasSubstr("a: 2026-06-02 02:10 to 2026-06-03 02:09, 1440 starts<"));
    EXPECT_EQ(Count(svg, "class=\"mark\""), 2U); // the row's and the legend's
}

TEST(TimelineInSvg, WithoutStarts) {
    const LocalZone zone("UTC0");
    const std::string svg = TimelineInSvg(TimelineOf(Utc(2026, 6, 2, 2, 10), 1, {}, 1));
    EXPECT_THAT(svg, HasSubstr(">No job starts in these hours<"));
    EXPECT_THAT(svg, HasSubstr("0 jobs, 0 starts; 1 job does not start in these hours"));
}

} // namespace

} // namespace kest::ctl
