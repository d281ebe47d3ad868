#include "job/cron_field.h"

#include <gtest/gtest.h>
#include <limits>
#include <sstream>

namespace kest {

namespace {

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

TEST(FieldKeys, AreInTheOrderOfAnExpression) {
    const std::array<std::string, 5> expected{"Minute", "hour", "day", "month", "week"};
    EXPECT_EQ(FieldKeys(), expected);
}

TEST(IsValidFieldValue, IsTrueFromTheLowestToTheHighestValueOfAField) {
    struct Row {
        const char *key;
        std::int32_t lowest;
        std::int32_t highest;
    };
    const Row rows[] = {
        {"Minute", 0, 59}, {"hour", 0, 23}, {"day", 1, 31}, {"month", 1, 12}, {"week", 0, 6},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.key);
        for (std::int32_t value = -3; value <= 100; ++value)
            EXPECT_EQ(IsValidFieldValue(row.key, value),
                      row.lowest <= value && value <= row.highest)
                << value;
        EXPECT_FALSE(IsValidFieldValue(row.key, kLowest));
        EXPECT_FALSE(IsValidFieldValue(row.key, kHighest));
    }
}

TEST(IsValidFieldValue, ChecksOnlyTheFirstCharacterOfTheKey) {
    EXPECT_TRUE(IsValidFieldValue("M", 59));
    EXPECT_FALSE(IsValidFieldValue("Month", 60));
    EXPECT_TRUE(IsValidFieldValue("Month", 0)); // a capital M is the minute
    EXPECT_FALSE(IsValidFieldValue("minute", 0));
    EXPECT_FALSE(IsValidFieldValue("minute", 13));
}

TEST(IsValidFieldValue, AcceptsEverythingForAnyOtherKey) {
    for (const char *key : {"", "x", "H", "D", "W", "~"})
        for (const std::int32_t value : {kLowest, -1, 0, 60, kHighest})
            EXPECT_TRUE(IsValidFieldValue(key, value)) << key << " " << value;
}

TEST(GetRandomFieldRange, CoversTheFieldButOnlyDaysOfEveryMonth) {
    struct Row {
        const char *key;
        std::int32_t from;
        std::int32_t to;
    };
    const Row rows[] = {
        {"Minute", 0, 59}, {"hour", 0, 23}, {"day", 1, 28}, {"month", 1, 12},
        {"week", 0, 6},    {"x", -1, -1},   {"", -1, -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.key);
        CronRange range;
        GetRandomFieldRange(row.key, range);
        EXPECT_EQ(range.type, CronRange::Random);
        EXPECT_EQ(range.from, row.from);
        EXPECT_EQ(range.to, row.to);
    }
}

TEST(ReadNumber, ReadsASignedDecimalNumber) {
    struct Row {
        const char *text;
        std::int32_t number;
    };
    const Row rows[] = {
        {"7", 7},
        {"+7", 7},
        {" 7 ", 7},
        {"\t7", 7},
        {"7\n", 7},
        {"\v\f\r7\r\f\v", 7},
        {"-1", -1},
        {" +7\t", 7},
        {"07", 7},
        {"0", 0},
        {"-0", 0},
        {"0000000000000000007", 7},
        {"2147483647", kHighest},
        {"-2147483648", kLowest},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        std::int32_t number = 12345;
        EXPECT_TRUE(ReadNumber(row.text, number));
        EXPECT_EQ(number, row.number);
    }
}

TEST(ReadNumber, RejectsEverythingElseAndKeepsTheNumber) {
    const std::string rows[] = {
        "",           " ",           "7a",
        "a7",         "1-5",         "+",
        "-",          "+-7",         "-+7",
        "--7",        "++7",         "99999999999",
        "0x7",        "7 7",         "7,",
        "7.0",        "1e1",         "+ 7",
        "2147483648", "-2147483649", "*",
        "~",          "\u00a07",     "7\u0660",
        "- 7",        "'7'",         std::string("7\0", 2),
    };
    for (const std::string &row : rows) {
        SCOPED_TRACE(row);
        std::int32_t number = 12345;
        EXPECT_FALSE(ReadNumber(row, number));
        EXPECT_EQ(number, 12345);
    }
}

// The slow and obvious way: a stream reads one number and is then at its end.
bool StreamReads(const std::string &text, std::int32_t &number) {
    std::istringstream stream(text);
    return stream >> number && (stream >> std::ws).eof();
}

TEST(ReadNumber, AgreesWithAStreamOnAllShortTexts) {
    const std::string alphabet = " \t+-019x~";
    std::vector<std::string> texts{""};
    for (std::size_t i = 0; i < texts.size(); ++i) {
        std::int32_t streamed = 0;
        std::int32_t read = 0;
        const bool expected = StreamReads(texts[i], streamed);
        ASSERT_EQ(ReadNumber(texts[i], read), expected) << "[" << texts[i] << "]";
        if (expected) {
            ASSERT_EQ(read, streamed) << "[" << texts[i] << "]";
        }
        if (texts[i].size() < 4)
            for (const char character : alphabet)
                texts.push_back(texts[i] + character);
    }
}

struct ItemRow {
    const char *key;
    const char *text;
    CronRange range;
    CronItemFault fault = CronItemFault::None;
    const char *offender = "";
};

void ExpectItem(const ItemRow &row) {
    SCOPED_TRACE(std::string(row.key) + " [" + row.text + "]");
    const CronItem item = ParseCronItem(row.key, row.text);
    EXPECT_EQ(item.fault, row.fault);
    EXPECT_EQ(item.offender, row.offender);
    EXPECT_EQ(item.range.type, row.range.type);
    EXPECT_EQ(item.range.from, row.range.from);
    EXPECT_EQ(item.range.to, row.range.to);
}

TEST(ParseCronItem, ParsesValidItems) {
    const ItemRow rows[] = {
        {"Minute", "~", {CronRange::Random, 0, 59}},
        {"hour", "~", {CronRange::Random, 0, 23}},
        {"day", "~", {CronRange::Random, 1, 28}},
        {"month", "~", {CronRange::Random, 1, 12}},
        {"week", "~", {CronRange::Random, 0, 6}},
        {"Minute", "~5", {CronRange::Random, 0, 59}},
        {"Minute", "~30", {CronRange::Random, 0, 59}},
        {"Minute", "~x", {CronRange::Random, 0, 59}},
        {"Minute", "~~", {CronRange::Random, 0, 59}},
        {"Minute", "~1~2", {CronRange::Random, 0, 59}},
        {"Minute", "*", {CronRange::Any, -1, -1}},
        {"Minute", "*5", {CronRange::Any, -1, -1}},
        {"Minute", "*/5", {CronRange::Any, -1, -1}},
        {"Minute", "*~5", {CronRange::Any, -1, -1}},
        {"day", "*nonsense", {CronRange::Any, -1, -1}},
        {"Minute", "0", {CronRange::Exact, 0, -1}},
        {"Minute", "59", {CronRange::Exact, 59, -1}},
        {"Minute", "+7", {CronRange::Exact, 7, -1}},
        {"Minute", "\t7", {CronRange::Exact, 7, -1}},
        {"hour", "23", {CronRange::Exact, 23, -1}},
        {"day", "31", {CronRange::Exact, 31, -1}},
        {"day", "1", {CronRange::Exact, 1, -1}},
        {"month", "12", {CronRange::Exact, 12, -1}},
        {"week", "6", {CronRange::Exact, 6, -1}},
        {"week", "0", {CronRange::Exact, 0, -1}},
        {"Minute", "5~5", {CronRange::Random, 5, 5}},
        {"hour", "1~4", {CronRange::Random, 1, 4}},
        {"Minute", "0~59", {CronRange::Random, 0, 59}},
        {"day", "25~31", {CronRange::Random, 25, 31}},
        {"Minute", "+1~\t4", {CronRange::Random, 1, 4}},
        {"x", "999", {CronRange::Exact, 999, -1}},
        {"x", "-5~1000", {CronRange::Random, -5, 1000}},
        {"x", "~", {CronRange::Random, -1, -1}},
    };
    for (const ItemRow &row : rows)
        ExpectItem(row);
}

TEST(ParseCronItem, ReturnsTheFault) {
    const CronRange none;
    const CronRange noRange{CronRange::Random, -1, -1};
    const auto notANumber = CronItemFault::NotANumber;
    const ItemRow rows[] = {
        {"Minute", "", none, notANumber, ""},
        {"Minute", "x", none, notANumber, "x"},
        {"Minute", "7a", none, notANumber, "7a"},
        {"Minute", "1-5", none, notANumber, "1-5"},
        {"Minute", "5/2", none, notANumber, "5/2"},
        {"Minute", " *", none, notANumber, " *"},
        {"Minute", "99999999999", none, notANumber, "99999999999"},
        {"Minute", "1~x", {CronRange::Random, 1, -1}, notANumber, "x"},
        {"Minute", "x~1", noRange, notANumber, "x"},
        {"Minute", "x~y", noRange, notANumber, "x"},
        {"Minute", "5~", {CronRange::Random, 5, -1}, notANumber, ""},
        {"Minute", " ~5", noRange, notANumber, " "},
        {"Minute", "1~*", {CronRange::Random, 1, -1}, notANumber, "*"},
        {"Minute", "1~2~3", noRange, CronItemFault::NotTwoEnds},
        {"Minute", "1~~3", noRange, CronItemFault::NotTwoEnds},
        {"Minute", "9~3", {CronRange::Random, 9, 3}, CronItemFault::Reversed},
        {"Minute", "99~3", {CronRange::Random, 99, 3}, CronItemFault::Reversed},
        {"Minute", "3~-1", {CronRange::Random, 3, -1}, CronItemFault::Reversed},
        {"Minute", "60", {CronRange::Exact, 60, -1}, CronItemFault::OutOfRange},
        {"hour", "24", {CronRange::Exact, 24, -1}, CronItemFault::OutOfRange},
        {"day", "0", {CronRange::Exact, 0, -1}, CronItemFault::OutOfRange},
        {"day", "32", {CronRange::Exact, 32, -1}, CronItemFault::OutOfRange},
        {"month", "0", {CronRange::Exact, 0, -1}, CronItemFault::OutOfRange},
        {"month", "13", {CronRange::Exact, 13, -1}, CronItemFault::OutOfRange},
        {"week", "7", {CronRange::Exact, 7, -1}, CronItemFault::OutOfRange},
        {"Minute", "-1", {CronRange::Exact, -1, -1}, CronItemFault::OutOfRange},
        {"Minute", "0~60", {CronRange::Random, 0, 60}, CronItemFault::OutOfRange},
        {"Minute", "-1~5", {CronRange::Random, -1, 5}, CronItemFault::OutOfRange},
        {"day", "0~3", {CronRange::Random, 0, 3}, CronItemFault::OutOfRange},
        {"week", "5~7", {CronRange::Random, 5, 7}, CronItemFault::OutOfRange},
    };
    for (const ItemRow &row : rows)
        ExpectItem(row);
}

} // namespace

} // namespace kest
