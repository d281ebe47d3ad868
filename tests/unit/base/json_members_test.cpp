#include "base/json_members.h"

#include "tests/unit/support/json_text.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

const char *const kNoObjects[] = {"null", "[]", "[1]", "5", "1.5", "true", R"("text")"};

TEST(Member, IsNullWhereThereIsNone) {
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

TEST(HasMember, HoldsForAMemberOfAnyType) {
    const Json::Value object = FromText(R"({"a": 1, "n": null})");
    EXPECT_TRUE(HasMember(object, "a"));
    EXPECT_TRUE(HasMember(object, "n"));
    EXPECT_FALSE(HasMember(object, "b"));
    for (const char *text : kNoObjects)
        EXPECT_FALSE(HasMember(FromText(text), "a")) << text;
}

TEST(TextMember, IsEmptyForWhatIsNoText) {
    const Json::Value object = FromText(R"({"t": "text", "i": 5, "n": null, "b": true, "l": []})");
    EXPECT_EQ(TextMember(object, "t"), "text");
    for (const char *name : {"i", "n", "b", "l", "absent"})
        EXPECT_EQ(TextMember(object, name), "") << name;
    for (const char *text : kNoObjects)
        EXPECT_EQ(TextMember(FromText(text), "a"), "") << text;
}

TEST(IntegerMember, IsTheOtherValueForWhatIsNoInteger) {
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

TEST(ObjectMember, MakesObjectsOnTheWay) {
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

} // namespace kest
