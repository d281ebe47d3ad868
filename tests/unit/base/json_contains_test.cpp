#include "base/json_contains.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(JsonContains, AsksWhetherEverythingBeforeIsStillTheSame) {
    struct Row {
        const char *before;
        const char *after;
        bool contains;
    };
    const Row rows[] = {
        // Plain values: type and value.
        {"5", "5", true},
        {"5", "6", false},
        {"5", "5.0", false},
        {"5", R"("5")", false},
        {"0", "false", false},
        {"0", "null", false},
        {"null", "null", true},
        {"null", "{}", false},
        {"null", "[]", false},
        {"null", "0", false},
        {"true", "true", true},
        {"true", "false", false},
        {"true", "1", false},
        {R"("a")", R"("a")", true},
        {R"("a")", R"("A")", false},
        {R"("")", "null", false},
        {"1.5", "1.5", true},
        // Objects: only the old members count.
        {"{}", "{}", true},
        {"{}", R"({"a": 1})", true},
        {R"({"a": 1})", "{}", false},
        {R"({"a": 1})", R"({"a": 1, "b": 2})", true},
        {R"({"a": 1, "b": 2})", R"({"a": 1})", false},
        {R"({"a": 1, "b": 2})", R"({"b": 2, "a": 1})", true},
        {R"({"a": 1})", R"({"a": 2})", false},
        {R"({"a": 1})", R"({"A": 1})", false},
        {"{}", "[]", false},
        {"{}", "null", false},
        {R"({"a": 1})", "[1]", false},
        {R"({"a": 1})", R"("a")", false},
        // A missing member reads as null.
        {R"({"a": null})", "{}", true},
        {R"({"a": null})", R"({"a": null})", true},
        {R"({"a": null})", R"({"a": 0})", false},
        {"{}", R"({"a": null})", true},
        {R"({"a": {}})", "{}", false},
        {R"({"a": []})", "{}", false},
        // At any depth.
        {R"({"a": {"b": 1}})", R"({"a": {"b": 1, "c": 2}})", true},
        {R"({"a": {"b": 1, "c": 2}})", R"({"a": {"b": 1}})", false},
        {R"({"a": {"b": {"c": null}}})", R"({"a": {"b": {}}})", true},
        // Arrays: same length, element by element.
        {"[]", "[]", true},
        {"[]", "{}", false},
        {"[]", "null", false},
        {"[]", "[1]", false},
        {"[1]", "[]", false},
        {"[1, 2]", "[1, 2]", true},
        {"[1, 2]", "[2, 1]", false},
        {"[1, 2]", "[1, 2, 3]", false},
        {"[1, 2, 3]", "[1, 2]", false},
        {"[null]", "[]", false},
        {R"([{"a": 1}])", R"([{"a": 1, "b": 2}])", true},
        {R"([{"a": 1, "b": 2}])", R"([{"a": 1}])", false},
        {R"([[1], [2]])", R"([[1], [2]])", true},
        {R"([[1], [2]])", R"([[1], [3]])", false},
        {R"([1])", R"({"0": 1})", false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(JsonContains(FromText(row.before), FromText(row.after)), row.contains)
            << row.before << " in " << row.after;
}

TEST(JsonContains, InsertsIntoNeitherSide) {
    const char *const beforeText = R"({"a": null, "b": {"c": null}, "d": [{"e": null}]})";
    const char *const afterText = R"({"b": {}, "d": [{}], "f": 1})";
    const Json::Value before = FromText(beforeText);
    const Json::Value after = FromText(afterText);
    EXPECT_TRUE(JsonContains(before, after));
    EXPECT_EQ(before, FromText(beforeText));
    EXPECT_EQ(after, FromText(afterText));
}

TEST(JsonContains, LooksAtNamesWithAnyCharacter) {
    Json::Value before;
    before[std::string("a\0b", 3)] = 1;
    Json::Value after;
    after["a"] = 1;
    EXPECT_FALSE(JsonContains(before, after));
    EXPECT_TRUE(JsonContains(before, before));
}

} // namespace

} // namespace kest
