#include "job/schedule.h"

#include "tests/unit/support/clock.h"
#include "tests/unit/support/json_text.h"

#include <boost/multiprecision/cpp_int.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <set>

namespace kest {

namespace {

using testing::ElementsAre;

class DrawFieldTest : public testing::Test {
protected:
    // Draws the single number of an item.
    std::int32_t Draw(const std::string &key, const CronRange &item, std::int32_t templateValue) {
        const std::vector<std::int32_t> values = DrawField(key, {item}, templateValue, random_);
        EXPECT_EQ(values.size(), 1U);
        return values.at(0);
    }

    KEST::RANDOM::KESTRandom random_;
};

TEST_F(DrawFieldTest, ReturnsFixedItemsUnchanged) {
    for (const std::int32_t templateValue : {kAnyValue, 0, 17, 30}) {
        EXPECT_EQ(Draw("Minute", {CronRange::Exact, 30, -1}, templateValue), 30);
        EXPECT_EQ(Draw("Minute", {CronRange::Any, -1, -1}, templateValue), kAnyValue);
    }
}

TEST_F(DrawFieldTest, UsesTheTemplateValueIfItFits) {
    struct Row {
        const char *key;
        std::int32_t from;
        std::int32_t to;
        std::int32_t templateValue;
    };
    const Row rows[] = {
        {"Minute", 0, 59, 17},  {"Minute", 30, 40, 30}, {"Minute", 30, 40, 40},
        {"Minute", 30, 40, 35}, {"Minute", 0, 59, 0},   {"Minute", 0, 59, 59},
        {"day", 25, 31, 30},    {"month", 1, 12, 12},   {"week", 0, 6, 0},
        {"hour", 1, 4, 1},
    };
    for (const Row &row : rows)
        for (int i = 0; i < 20; ++i)
            EXPECT_EQ(Draw(row.key, {CronRange::Random, row.from, row.to}, row.templateValue),
                      row.templateValue)
                << row.key;
}

TEST_F(DrawFieldTest, DrawsWhenTheTemplateValueDoesNotFit) {
    struct Row {
        const char *key;
        std::int32_t from;
        std::int32_t to;
        std::int32_t templateValue;
    };
    const Row rows[] = {
        {"Minute", 30, 32, 29}, {"Minute", 30, 32, 33}, {"Minute", 30, 32, kAnyValue},
        {"hour", 1, 4, 17},     {"week", 5, 6, 4},      {"day", 1, 2, 28},
        {"day", 0, 3, 0}, // an impossible day is not used, although the item admits it
        {"week", 5, 8, 7},      {"Minute", 58, 61, 60}, {"x", -2, 1, kAnyValue},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.key);
        std::set<std::int32_t> seen;
        for (int i = 0; i < 400; ++i)
            seen.insert(Draw(row.key, {CronRange::Random, row.from, row.to}, row.templateValue));
        std::set<std::int32_t> all;
        for (std::int32_t value = row.from; value <= row.to; ++value)
            all.insert(value);
        EXPECT_EQ(seen, all);
    }
}

TEST_F(DrawFieldTest, ReturnsTheOnlyValueOfARangeOfOne) {
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Draw("Minute", {CronRange::Random, 5, 5}, kAnyValue), 5);
}

TEST_F(DrawFieldTest, ReturnsOneNumberPerItemInOrder) {
    const std::vector<CronRange> items{{CronRange::Exact, 30, -1},
                                       {CronRange::Exact, 5, -1},
                                       {CronRange::Random, 0, 59},
                                       {CronRange::Any, -1, -1},
                                       {CronRange::Exact, 5, -1}};
    EXPECT_THAT(DrawField("Minute", items, 17, random_), ElementsAre(30, 5, 17, -1, 5));
    EXPECT_THAT(DrawField("Minute", {}, 17, random_), ElementsAre());
}

TEST(FieldValues, AreTheIntegersOfAnArray) {
    struct Row {
        const char *array;
        std::vector<std::int32_t> values;
    };
    const Row rows[] = {
        {"[5, -1]", {5, -1}},
        {"[5, 5]", {5, 5}},
        {"[9, 3]", {9, 3}},
        {"[17.0]", {17}},
        {"[2147483647, -2147483648]", {INT32_MAX, INT32_MIN}},
        {"[]", {}},
        {"null", {}},
        {"5", {}},
        {"{}", {}},
        {R"({"0": 5})", {}},
        {R"("5")", {}},
        {R"([5, "x"])", {}},
        {R"(["x", 5])", {}},
        {R"(["5"])", {}},
        {"[5, null]", {}},
        {"[5, true]", {}},
        {"[5, [5]]", {}},
        {"[5, 17.5]", {}},
        {"[5, 99999999999]", {}},
        {"[2147483648]", {}},
        {"[1e300]", {}},
    };
    for (const Row &row : rows)
        EXPECT_EQ(FieldValues(FromText(row.array)), row.values) << row.array;
}

TEST(Admits, IsTrueForValuesOfTheArrayOrAnyValue) {
    struct Row {
        const char *array;
        std::int32_t value;
        bool admits;
    };
    const Row rows[] = {
        {"[5, -1]", 5, true},
        {"[5, -1]", 6, true},
        {"[-1, 5]", 6, true},
        {"[-1]", 0, true},
        {"[5]", 5, true},
        {"[5]", 6, false},
        {"[5, 6]", 6, true},
        {"[0]", 0, true},
        {"[17.0]", 17, true},
        {"[]", 5, false},
        {"null", 0, false},
        {"5", 5, false},
        {"-1", 5, false},
        {"{}", 0, false},
        {R"([5, "x"])", 5, false},
        {R"(["x", 5])", 5, false},
        {R"([-1, "x"])", 5, false},
        {"[5, null]", 5, false},
        {"[5, 99999999999]", 5, false},
        {"[5, 17.5]", 5, false},
        {"[4294967301]", 5, false}, // 5 in the lower half
        {"[59, 0, 30, 30]", 59, true},
        {"[63]", 63, true},
        {"[64]", 64, false}, // an impossible minute
        {"[64]", 0, false},
        {"[-2, 7]", 7, true},
        {"[-2]", -2, false},
        {"[-1]", -1, false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Admits(AdmittedBits(FieldValues(FromText(row.array))), row.value), row.admits)
            << row.array << " " << row.value;
}

TEST(ScheduleAsText, JoinsTheFieldsInTheirOrder) {
    EXPECT_EQ(ScheduleAsText({{{17}, {3}, {-1}, {-1}, {-1}}}), "17 3 -1 -1 -1");
    EXPECT_EQ(ScheduleAsText({{{59}, {23}, {31}, {12}, {6}}}), "59 23 31 12 6");
    EXPECT_EQ(ScheduleAsText({{{0, 30, 0}, {3, -1}, {1}, {2}, {4}}}), "0,30,0 3,-1 1 2 4");
    EXPECT_EQ(ScheduleAsText({{{}, {3}, {}, {}, {}}}), "X 3 X X X");
}

class ScheduleTest : public testing::Test {
protected:
    KEST::RANDOM::KESTRandom random_;
    Schedule schedule_{{{{{CronRange::Random, 0, 59}, {CronRange::Exact, 5, -1}},
                         {{CronRange::Any, -1, -1}},
                         {{CronRange::Exact, 31, -1}},
                         {{CronRange::Any, -1, -1}},
                         {}}}};
};

TEST_F(ScheduleTest, AdmitsNothingBeforeItIsDrawn) {
    EXPECT_FALSE(schedule_.IsAnyDrawn());
    EXPECT_FALSE(schedule_.Admits(1, 5));
    EXPECT_EQ(schedule_.ItemCount(), 5U);
}

TEST_F(ScheduleTest, DrawsEachFieldAlone) {
    schedule_.Draw(0, 17, random_);
    EXPECT_TRUE(schedule_.IsDrawn(0));
    EXPECT_FALSE(schedule_.IsDrawn(1));
    EXPECT_THAT(schedule_.Drawn(0), ElementsAre(17, 5));
    EXPECT_TRUE(schedule_.Admits(0, 17));
    EXPECT_TRUE(schedule_.Admits(0, 5));
    EXPECT_FALSE(schedule_.Admits(0, 6));
    schedule_.Draw(0, 18, random_);
    EXPECT_FALSE(schedule_.Admits(0, 17));
    schedule_.Draw(1, 18, random_);
    EXPECT_THAT(schedule_.Drawn(1), ElementsAre(kAnyValue));
    EXPECT_TRUE(schedule_.Admits(1, 23));
    schedule_.Draw(4, 3, random_);
    EXPECT_TRUE(schedule_.IsDrawn(4));
    EXPECT_THAT(schedule_.Drawn(4), ElementsAre());
}

TEST_F(ScheduleTest, AcceptsOnlyPossibleDraws) {
    struct Row {
        const char *array;
        bool taken;
        bool admitsFive;
    };
    const Row rows[] = {
        {"[7, 5]", true, true},        {"[70, -1]", true, true},  {"[7]", false, false},
        {"[7, 5, 5]", false, true},    {"[7, 5.0]", false, true}, {"[7, 300]", false, false},
        {R"([5, "x"])", false, false}, {"null", false, false},    {"[]", false, false},
        {"{}", false, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.array);
        const Json::Value array = FromText(row.array);
        EXPECT_EQ(schedule_.Take(0, array), row.taken);
        EXPECT_EQ(schedule_.IsDrawn(0), row.taken);
        EXPECT_EQ(schedule_.Admits(0, 5), row.admitsFive);
        if (row.taken) {
            EXPECT_EQ(schedule_.Drawn(0), FieldValues(array));
        }
    }
}

TEST_F(ScheduleTest, KeepsTheItems) {
    const std::vector<CronRange> items = schedule_.Items(0);
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[0].type, CronRange::Random);
    EXPECT_EQ(items[0].from, 0);
    EXPECT_EQ(items[0].to, 59);
    EXPECT_EQ(items[1].type, CronRange::Exact);
    EXPECT_EQ(items[1].from, 5);
    EXPECT_EQ(items[1].to, -1);
    EXPECT_TRUE(schedule_.Items(4).empty());
}

TEST(ScheduleOfAnySize, IsKeptCompletely) {
    for (const std::int32_t count : {1, 8, 9, 1000}) {
        SCOPED_TRACE(count);
        std::array<std::vector<CronRange>, 5> items;
        for (std::int32_t i = 0; i < count; ++i)
            items[i % 2 == 0 ? 1 : 3].push_back({CronRange::Exact, i % 12, -1});
        Schedule schedule(items);
        KEST::RANDOM::KESTRandom random;
        for (std::size_t field = 0; field < items.size(); ++field)
            schedule.Draw(field, kAnyValue, random);
        const Schedule moved = std::move(schedule);
        Schedule copy;
        copy = moved;
        EXPECT_EQ(copy.ItemCount(), static_cast<std::size_t>(count));
        for (std::size_t field = 0; field < items.size(); ++field) {
            const std::vector<CronRange> kept = copy.Items(field);
            const std::vector<std::int32_t> drawn = copy.Drawn(field);
            ASSERT_EQ(kept.size(), items.at(field).size());
            ASSERT_EQ(drawn.size(), kept.size());
            for (std::size_t i = 0; i < kept.size(); ++i) {
                EXPECT_EQ(kept[i].from, items.at(field)[i].from);
                EXPECT_EQ(drawn[i], kept[i].from);
            }
        }
    }
}

} // namespace

namespace {

constexpr std::int64_t kFirst = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLeastHours = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMostHours = std::numeric_limits<std::int32_t>::max();

TEST(IsOverdue, IsTrueAfterMoreThanItsHours) {
    struct Row {
        std::int32_t hours;
        std::int64_t last;
        std::int64_t now;
        bool overdue;
    };
    constexpr std::int64_t start = 1700000000;
    const Row rows[] = {
        {2, start, start + 7199, false},
        {2, start, start + 7200, false},
        {2, start, start + 7201, true},
        {1, start, start + 3600, false},
        {1, start, start + 3601, true},
        {1, start, start - 100000, false}, // the clock was set back
        {1, 0, start, true},               // neither a run nor a startup
        {0, 0, start, false},
        {0, kFirst, kLast, false},
        {-1, start, start - 3600, false},
        {-1, start, start - 3599, true},
        {kMostHours, 0, 3600LL * kMostHours, false},
        {kMostHours, 0, 3600LL * kMostHours + 1, true},
        {kLeastHours, 0, 3600LL * kLeastHours, false},
        {kLeastHours, 0, 3600LL * kLeastHours + 1, true},
        {1, kLast, kLast, false},
        {1, kLast - 3600, kLast, false},
        {1, kLast - 3601, kLast, true},
        {kMostHours, kLast, kLast, false},
        {kMostHours, kLast, kFirst, false},
        {-1, kFirst, kFirst, true},
        {-1, kFirst + 3600, kFirst, false},
        {-1, kFirst + 3600, kFirst + 1, true},
        {kLeastHours, kFirst, kFirst, true},
        {kLeastHours, kFirst, kLast, true},
        {1, kFirst, kFirst, false},
        {1, kFirst, kLast, true},
    };
    for (const Row &row : rows)
        EXPECT_EQ(IsOverdue(row.hours, row.last, row.now), row.overdue)
            << row.hours << " hours, last " << row.last << ", now " << row.now;
}

TEST(IsOverdue, AgreesWithWiderArithmetic) {
    using Wide = boost::multiprecision::int128_t;
    const std::int32_t allHours[] = {kLeastHours, -2, -1, 0, 1, 2, 24, 596523, kMostHours};
    const std::int64_t allTimes[] = {kFirst,     kFirst + 3600, -3601,        -3600, -1,   0,
                                     1,          3599,          3600,         3601,  7200, 7201,
                                     4294967296, kLast - 3601,  kLast - 3600, kLast};
    for (const std::int32_t hours : allHours)
        for (const std::int64_t last : allTimes)
            for (const std::int64_t now : allTimes)
                EXPECT_EQ(IsOverdue(hours, last, now),
                          hours != 0 && Wide{now} > Wide{last} + Wide{3600} * hours)
                    << hours << " hours, last " << last << ", now " << now;
}

} // namespace

namespace {

using Keys = std::vector<std::string>;

TEST(FieldsToRedraw, FollowsTheRollOverOfEachField) {
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
