#include "ctl/commands/timeline.h"

#include "base/json_text.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/timeline_svg.h"
#include "ctl/display/timeline_text.h"
#include "job/schedule.h"
#include "tests/unit/support/clock.h"
#include "tests/unit/support/json_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace kest::ctl {

namespace {

using testing::HasSubstr;
using testing::Not;

JobStart Known(std::time_t time) {
    return {{time, time, {}}, nullptr, false};
}

JobStart Overdue(std::time_t time) {
    return {{time, time, {}}, nullptr, true};
}

JobStart Band(std::time_t earliest, std::time_t latest) {
    return {{earliest, latest, {"Minute"}}, nullptr, false};
}

ComingHours Hours(std::time_t from, std::size_t hours, std::vector<JobRow> rows,
                  std::size_t idle = 0) {
    ComingHours coming;
    coming.from = from;
    coming.until = from + static_cast<std::time_t>(hours) * kHour;
    coming.rows = std::move(rows);
    coming.idle = idle;
    return coming;
}

LiveJob Job(const std::string &name, const std::string &crontab, const std::string &more = "{}") {
    Json::Value document = FromText(more);
    document["config"] = FromText(R"({"name": "x", "user": "root", "cmd": "x", "period": "c"})");
    document["config"]["crontab"] = crontab;
    document["config"]["assure_execute"] = document.get("hours", 0);
    LiveJob live;
    live.name = name;
    live.job = CronJob(document);
    EXPECT_TRUE(live.job.valid) << crontab;
    for (const std::string &key : FieldKeys())
        live.job.GenerateSchedule(key);
    return live;
}

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

std::size_t Count(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

// --- What there is to show ----------------------------------------------------------------------

TEST(LookAhead, TakesTheStartsOfTheHoursAndCountsTheOtherJobs) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10, 30);
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    const std::vector<LiveJob> jobs = {Job("minutely", "* * * * *"),
                                       Job("at the first minute", "10 2 * * *"),
                                       Job("at the last minute", "9 4 * * *"),
                                       Job("at the end", "10 4 * * *"), Job("never", "0 0 31 2 *")};
    const ComingHours hours = LookAhead(jobs, {}, now, 2);
    EXPECT_EQ(hours.from, from);
    EXPECT_EQ(hours.until, from + 2 * kHour);
    EXPECT_EQ(hours.idle, 2U);
    ASSERT_EQ(hours.rows.size(), 3U);
    EXPECT_EQ(hours.rows[0].name, "minutely");
    EXPECT_EQ(hours.rows[0].starts.size(), 120U);
    EXPECT_EQ(hours.rows[1].starts.front().earliest, from);
    EXPECT_EQ(hours.rows[2].starts.front().earliest, hours.until - kMinute);
}

TEST(LookAhead, KnowsWhatHoldsJobsBack) {
    const LocalZone zone("UTC0");
    Daemon daemon;
    daemon.pid = 1;
    daemon.passive = daemon.held = true;
    const ComingHours hours = LookAhead({Job("a", "* * * * *")}, daemon, Utc(2026, 6, 2, 2, 10), 1);
    EXPECT_TRUE(hours.held);
    EXPECT_TRUE(hours.rows.empty());
    EXPECT_EQ(hours.idle, 1U);
}

TEST(LookAhead, TellsOverdueStartsFromOthers) {
    const LocalZone zone("UTC0");
    const std::time_t now = Utc(2026, 6, 2, 2, 10);
    const std::string ran = std::to_string(now - 23 * kHour);
    const ComingHours hours = LookAhead(
        {Job("a", "0 6 1 * *", R"({"hours": 24, "lastExecution": )" + ran + "}")}, {}, now, 2);
    ASSERT_EQ(hours.rows.size(), 1U);
    ASSERT_EQ(hours.rows[0].starts.size(), 1U);
    EXPECT_TRUE(hours.rows[0].starts[0].overdue);
    EXPECT_EQ(hours.rows[0].starts[0].earliest, now + kHour);
}

TEST(LoadOf, CountsEachQuarterHourOfTheLocalClock) {
    const LocalZone zone("XXX-5:30");                // India
    const std::time_t from = Utc(2026, 6, 2, 2, 40); // 08:10 there
    const std::vector<QuarterHour> load =
        LoadOf(Hours(from, 1,
                     {{"a", {Known(from), Known(from + 4 * kMinute), Known(from + 5 * kMinute)}},
                      {"b", {Band(from + 5 * kMinute, from + 20 * kMinute)}},
                      {"c", {Overdue(from + 59 * kMinute)}},
                      {"d", {Band(from + 59 * kMinute, from + 48 * kHour)}}}));
    struct Row {
        std::time_t from;
        std::size_t starts;
        std::size_t possible;
    };
    const Row rows[] = {{from - 10 * kMinute, 2, 0},
                        {from + 5 * kMinute, 1, 1},
                        {from + 20 * kMinute, 0, 1},
                        {from + 35 * kMinute, 0, 0},
                        {from + 50 * kMinute, 1, 1}};
    ASSERT_EQ(load.size(), std::size(rows));
    for (std::size_t i = 0; i < load.size(); ++i) {
        EXPECT_EQ(load[i].from, rows[i].from) << i;
        EXPECT_EQ(load[i].starts, rows[i].starts) << i;
        EXPECT_EQ(load[i].possible, rows[i].possible) << i;
    }
    EXPECT_EQ(TallestOf(load), 2U);
    EXPECT_EQ(TallestOf({}), 0U);
}

TEST(ClockMarks, FollowTheLocalClockThroughItsChanges) {
    struct Row {
        const char *zone;
        std::time_t from;
        std::size_t hours;
        std::vector<std::string> whole; // hours, "!" before the first mark of a day
    };
    const Row rows[] = {
        {"UTC0", Utc(2026, 6, 2, 22, 10), 4, {"23:00", "!00:00", "01:00", "02:00"}},
        {"UTC0", Utc(2026, 6, 2, 0, 0), 2, {"!00:00", "01:00"}},
        // Set forward at 02:00, and set back at 03:00.
        {"CET-1CEST,M3.5.0,M10.5.0/3", Utc(2026, 3, 29, 0, 0), 3, {"01:00", "03:00", "04:00"}},
        {"CET-1CEST,M3.5.0,M10.5.0/3", Utc(2026, 10, 25, 0, 0), 3, {"02:00", "02:00", "03:00"}},
        // There is no midnight.
        {"XXX-2YYY,M3.5.0/0,M10.5.0/0", Utc(2026, 3, 28, 21, 0), 3, {"23:00", "!01:00", "02:00"}},
        // The first minutes of a day.
        {"UTC0", Utc(2026, 6, 2, 0, 1), 1, {"01:00"}},
    };
    for (const Row &row : rows) {
        const LocalZone zone(row.zone);
        std::vector<std::string> whole;
        for (const ClockMark &mark : ClockMarksOf(Hours(row.from, row.hours, {})))
            if (mark.minuteOfDay % 60 == 0) {
                std::string text = std::to_string(100 + mark.minuteOfDay / 60).substr(1) + ":00";
                whole.push_back((mark.newDay ? "!" : "") + text);
            }
        EXPECT_EQ(whole, row.whole) << row.zone << " " << row.from;
    }
}

TEST(MinutesBetweenLabels, LeaveRoomForALabel) {
    EXPECT_EQ(MinutesBetweenLabels(1, 7), 15);
    EXPECT_EQ(MinutesBetweenLabels(0.25, 7), 30);
    EXPECT_EQ(MinutesBetweenLabels(60.0 / 1440, 7), 180);
    EXPECT_EQ(MinutesBetweenLabels(0.001, 7), 1440);
}

TEST(TimelineToJson, HoldsTheStartsAndTheLoad) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 0);
    const Json::Value json = TimelineToJson(Hours(
        from, 1, {{"a", {Known(from + kMinute), Band(from + 16 * kMinute, from + kHour)}}}, 3));
    EXPECT_EQ(FromText(JsonToString(json)), FromText(R"({
        "from": "2026-06-02T02:00:00+00:00", "until": "2026-06-02T03:00:00+00:00", "idle_jobs": 3,
        "jobs": [{"name": "a", "starts": [
            {"earliest": "2026-06-02T02:01:00+00:00", "latest": "2026-06-02T02:01:00+00:00",
             "undrawn": [], "overdue": false},
            {"earliest": "2026-06-02T02:16:00+00:00", "latest": "2026-06-02T03:00:00+00:00",
             "undrawn": ["Minute"], "overdue": false}]}],
        "load": [{"from": "2026-06-02T02:00:00+00:00", "starts": 1, "possible": 0},
                 {"from": "2026-06-02T02:15:00+00:00", "starts": 0, "possible": 1},
                 {"from": "2026-06-02T02:30:00+00:00", "starts": 0, "possible": 1},
                 {"from": "2026-06-02T02:45:00+00:00", "starts": 0, "possible": 1}]})"));
    const Json::Value empty = TimelineToJson(Hours(from, 1, {}));
    EXPECT_TRUE(empty["jobs"].isArray() && empty["jobs"].empty());
    EXPECT_EQ(empty["load"].size(), 4U);
}

// --- The picture in text ------------------------------------------------------------------------

// Four hours over midnight, four columns an hour.
ComingHours Night() {
    const std::time_t from = Utc(2026, 6, 2, 22, 0);
    const auto at = [from](int hours, int minutes) {
        return from + hours * kHour + minutes * kMinute;
    };
    return Hours(
        from, 4,
        {{"exact", {Known(at(0, 0)), Known(at(1, 0)), Known(at(1, 8)), Known(at(3, 59))}},
         {"hourly", {Known(at(0, 20)), Band(at(1, 1), at(2, 0)), Band(at(2, 1), at(3, 0))}},
         {"late and long-named", {Overdue(at(0, 35)), Band(at(3, 30), at(9, 0))}}},
        2);
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
█ start  ░▒ one start in each band  ▲ overdue
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
# start  ., one start in each band  ! overdue
load: at most 3 starts in a quarter hour
2 jobs do not start in these hours
)");
}

TEST(TimelineInText, TellsTheHalvesOfAPlace) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 0); // a place takes ten minutes
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
        const ComingHours hours = Hours(from, 8, {{"a", row.starts}});
        EXPECT_EQ(Lines(TimelineInText(hours, ScreenOf(57)))[3],
                  std::string("a        ") + row.shown);
    }
}

TEST(TimelineInText, ShowsTheSmallestLoad) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 0);
    std::vector<JobRow> rows(100, JobRow{"a", {Known(from)}});
    rows.push_back({"b", {Known(from + 7 * kHour)}});
    const std::string text = TimelineInText(Hours(from, 8, rows), ScreenOf(57));
    EXPECT_EQ(Count(text, "▁"), 2U) << text; // a quarter of an hour lies in two places
}

TEST(TimelineInText, ColoursOnlyWhereItMay) {
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
                const ComingHours coming = LookAhead(
                    {Job("pkg-a-with-a-rather-long-name", "~ * * * *"), Job("b", "~ ~ * * ~"),
                     Job("c", "* * * * *"), Job("d\n", "0 0 31 2 *")},
                    {}, from, hours);
                for (const std::string &line : Lines(TimelineInText(coming, ScreenOf(width))))
                    ASSERT_LE(WidthOf(line), width) << line;
            }
    for (const std::string &line : Lines(TimelineInText(Night(), ScreenOf(0))))
        EXPECT_LE(WidthOf(line), 100U) << line;
}

TEST(TimelineInText, TellsSeveralBandsInOnePlace) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 0, 0);
    JobRow row{"hourly", {}};
    for (std::time_t hour = from; hour < from + 96 * kHour; hour += kHour)
        row.starts.push_back(Band(hour + kMinute, hour + kHour - kMinute));
    const std::string text = TimelineInText(Hours(from, 96, {row}), ScreenOf(57));
    EXPECT_EQ(Count(text, "▓"), 48U + 1U) << text; // the places, and the legend
}

TEST(TimelineInText, SaysSoWhenThereIsNothing) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    EXPECT_EQ(TimelineInText(Hours(from, 1, {}, 1), ScreenOf(80)),
              "today 02:10 to today 03:10\n"
              "No job starts in these hours\n"
              "1 job does not start in these hours\n");
    ComingHours held = Hours(from, 1, {});
    held.held = true;
    EXPECT_EQ(TimelineInText(held, ScreenOf(80)), "today 02:10 to today 03:10\n"
                                                  "The machine is held: scheduled starts wait\n"
                                                  "No job starts in these hours\n");
}

// --- The picture for a page ---------------------------------------------------------------------

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
        const std::string svg = TimelineInSvg(Hours(from, 1, {{row.name, {Known(from)}}}));
        EXPECT_THAT(svg, HasSubstr("<title>" + row.shown + ": 2026-06-02 02:10</title>"));
        EXPECT_EQ(svg.find(row.name), std::string::npos);
    }
}

TEST(TimelineInSvg, TellsEachMark) {
    const LocalZone zone("UTC0");
    const std::string svg = TimelineInSvg(Night());
    for (const char *text :
         {"exact: 2026-06-02 22:00<", "exact: 2026-06-02 23:00<", "exact: 2026-06-02 23:08<",
          "exact: 2026-06-03 01:59<", "hourly: one start between 2026-06-02 23:01 and ",
          " and 2026-06-03 00:00; yet to be drawn: minute<",
          "late and long-named: 2026-06-02 22:35, overdue<", ">2026-06-02 22:00 to 22:15: 1 start<",
          ">2026-06-02 23:00 to 23:15: 2 starts, up to 1 more<", ">Wed 3<",
          ">3 jobs, 6 starts and 3 whose time is yet to be drawn; 2 jobs do not start in "})
        EXPECT_THAT(svg, HasSubstr(text));
    EXPECT_THAT(svg, Not(HasSubstr("<script")));
    EXPECT_THAT(svg, HasSubstr("prefers-color-scheme:dark"));
}

TEST(TimelineInSvg, DrawsStartsThatWouldTouchAsOne) {
    const LocalZone zone("UTC0");
    const std::time_t from = Utc(2026, 6, 2, 2, 10);
    const ComingHours hours = LookAhead({Job("a", "* * * * *")}, {}, from, 24);
    const std::string svg = TimelineInSvg(hours);
    EXPECT_THAT(svg, HasSubstr("a: 2026-06-02 02:10 to 2026-06-03 02:09, 1440 starts<"));
    EXPECT_EQ(Count(svg, "class=\"mark\""), 2U); // the row's and the legend's
}

TEST(TimelineInSvg, SaysSoWhenThereIsNothing) {
    const LocalZone zone("UTC0");
    const std::string svg = TimelineInSvg(Hours(Utc(2026, 6, 2, 2, 10), 1, {}, 1));
    EXPECT_THAT(svg, HasSubstr(">No job starts in these hours<"));
    EXPECT_THAT(svg, HasSubstr("0 jobs, 0 starts; 1 job does not start in these hours"));
}

} // namespace

} // namespace kest::ctl
