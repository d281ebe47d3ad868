#include "job/schedule.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>
#include <set>

namespace {

class DrawFieldTest : public testing::Test {
protected:
    // The one number that an item gives.
    std::int32_t Draw(const std::string &key, const CronRange &item, std::int32_t templateValue) {
        const Json::Value array = DrawField(key, {item}, templateValue, random_);
        EXPECT_EQ(array.size(), 1U);
        EXPECT_EQ(array[0].type(), Json::intValue);
        return array[0].asInt();
    }

    KEST::RANDOM::KESTRandom random_;
};

TEST_F(DrawFieldTest, GivesFixedItemsAsTheyAre) {
    for (const std::int32_t templateValue : {kAnyValue, 0, 17, 30}) {
        EXPECT_EQ(Draw("Minute", {CronRange::Exact, 30, -1}, templateValue), 30);
        EXPECT_EQ(Draw("Minute", {CronRange::Any, -1, -1}, templateValue), kAnyValue);
    }
}

TEST_F(DrawFieldTest, TakesTheTemplateWhereItFits) {
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

TEST_F(DrawFieldTest, DrawsWhereTheTemplateDoesNotFit) {
    struct Row {
        const char *key;
        std::int32_t from;
        std::int32_t to;
        std::int32_t templateValue;
    };
    const Row rows[] = {
        {"Minute", 30, 32, 29}, {"Minute", 30, 32, 33}, {"Minute", 30, 32, kAnyValue},
        {"hour", 1, 4, 17},     {"week", 5, 6, 4},      {"day", 1, 2, 28},
        {"day", 0, 3, 0}, // a day that no month has is not taken, though the item admits it
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

TEST_F(DrawFieldTest, GivesARangeOfOneItsOnlyValue) {
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Draw("Minute", {CronRange::Random, 5, 5}, kAnyValue), 5);
}

TEST_F(DrawFieldTest, GivesOneNumberPerItemInTheirOrder) {
    const std::vector<CronRange> items{{CronRange::Exact, 30, -1},
                                       {CronRange::Exact, 5, -1},
                                       {CronRange::Random, 0, 59},
                                       {CronRange::Any, -1, -1},
                                       {CronRange::Exact, 5, -1}};
    EXPECT_EQ(DrawField("Minute", items, 17, random_), FromText("[30, 5, 17, -1, 5]"));
    EXPECT_EQ(DrawField("Minute", {}, 17, random_), FromText("[]"));
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

TEST(Admits, HoldsForAValueOfTheArrayOrForAnyValue) {
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
        {"[64]", 64, false}, // no minute has it
        {"[64]", 0, false},
        {"[-2, 7]", 7, true},
        {"[-2]", -2, false},
        {"[-1]", -1, false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Admits(AdmittedBits(FromText(row.array)), row.value), row.admits)
            << row.array << " " << row.value;
}

TEST(ScheduleAsText, JoinsTheFieldsInTheirOrder) {
    struct Row {
        const char *schedule;
        const char *text;
    };
    const Row rows[] = {
        {R"({"Minute": [17], "hour": [3], "day": [-1], "month": [-1], "week": [-1]})",
         "17 3 -1 -1 -1"},
        {R"({"week": [6], "month": [12], "day": [31], "hour": [23], "Minute": [59]})",
         "59 23 31 12 6"},
        {R"({"Minute": [0, 30, 0], "hour": [3, -1], "day": [1], "month": [2], "week": [4]})",
         "0,30,0 3,-1 1 2 4"},
        {R"({"Minute": [], "hour": [3], "day": 5, "week": ["x"]})", "X 3 X X X"},
        {R"({"minute": [5], "hour": [5, "x"], "day": [1], "month": [1], "week": [1]})",
         "X X 1 1 1"},
        {"{}", "X X X X X"},
        {"null", "X X X X X"},
        {"[1, 2, 3, 4, 5]", "X X X X X"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(ScheduleAsText(FromText(row.schedule)), row.text) << row.schedule;
}

} // namespace
