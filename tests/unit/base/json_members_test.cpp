#include "base/json_members.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

const char *const kNoObjects[] = {"null", "[]", "[1]", "5", "1.5", "true", R"("text")"};

TEST(Member, IsNullWhenItIsMissing) {
    const Json::Value object = FromText(R"({"a": 1, "n": null})");
    EXPECT_EQ(Member(object, "a"), Json::Value(1));
    EXPECT_EQ(Member(object, std::string("a")), Json::Value(1));
    EXPECT_TRUE(Member(object, "b").isNull());
    EXPECT_TRUE(Member(object, std::string("b")).isNull());
    EXPECT_EQ(object, FromText(R"({"a": 1, "n": null})"));
    for (const char *text : kNoObjects) {
        EXPECT_TRUE(Member(FromText(text), "a").isNull()) << text;
        EXPECT_TRUE(Member(FromText(text), std::string("a")).isNull()) << text;
    }
}

TEST(HasMember, IsTrueForAMemberOfAnyType) {
    const Json::Value object = FromText(R"({"a": 1, "n": null})");
    EXPECT_TRUE(HasMember(object, "a"));
    EXPECT_TRUE(HasMember(object, "n"));
    EXPECT_FALSE(HasMember(object, "b"));
    for (const char *text : kNoObjects)
        EXPECT_FALSE(HasMember(FromText(text), "a")) << text;
}

TEST(TextMember, IsEmptyForAnythingButText) {
    const Json::Value object = FromText(R"({"t": "text", "i": 5, "n": null, "b": true, "l": []})");
    EXPECT_EQ(TextMember(object, "t"), "text");
    for (const char *name : {"i", "n", "b", "l", "absent"})
        EXPECT_EQ(TextMember(object, name), "") << name;
    for (const char *text : kNoObjects)
        EXPECT_EQ(TextMember(FromText(text), "a"), "") << text;
}

TEST(IntegerMember, ReturnsTheDefaultForAnythingButAnInteger) {
    const Json::Value object = FromText(
        R"({"i": 5, "neg": -5, "wide": 99999999999, "most": 9223372036854775807, "real": 17.0,
            "least": -9223372036854775808, "over": 9223372036854775808, "half": 1.5, "huge": 1e300,
            "t": "5", "n": null, "b": true, "l": [5]})");
    struct Row {
        const char *name;
        std::int64_t value;
    };
    const Row rows[] = {
        {"i", 5},
        {"neg", -5},
        {"wide", 99999999999},
        {"most", INT64_MAX},
        {"least", INT64_MIN},
        {"real", 17},
        {"over", 42},
        {"half", 42},
        {"huge", 42},
        {"t", 42},
        {"n", 42},
        {"b", 42},
        {"l", 42},
        {"absent", 42},
    };
    for (const Row &row : rows)
        EXPECT_EQ(IntegerMember(object, row.name, 42), row.value) << row.name;
    for (const char *text : kNoObjects)
        EXPECT_EQ(IntegerMember(FromText(text), "a", 42), 42) << text;
}

TEST(ObjectMember, ReplacesAnythingButAnObject) {
    for (const char *text : kNoObjects) {
        Json::Value value = FromText(text);
        ObjectMember(value, "a")["b"] = 1;
        EXPECT_EQ(value, FromText(R"({"a": {"b": 1}})")) << text;
    }
    Json::Value value = FromText(R"({"a": 5, "c": 1})");
    ObjectMember(value, "a")["b"] = 1;
    ObjectMember(value, "a")["d"] = 2;
    EXPECT_EQ(value, FromText(R"({"a": {"b": 1, "d": 2}, "c": 1})"));
}

} // namespace

namespace {

TEST(JsonContains, ComparesEverythingThatExistedBefore) {
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

TEST(JsonContains, ComparesNamesWithAnyCharacter) {
    Json::Value before;
    before[std::string("a\0b", 3)] = 1;
    Json::Value after;
    after["a"] = 1;
    EXPECT_FALSE(JsonContains(before, after));
    EXPECT_TRUE(JsonContains(before, before));
}

} // namespace

} // namespace kest
