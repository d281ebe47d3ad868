#include "base/json_text.h"

#include "tests/unit/support/json_text.h"

#include <cmath>
#include <gtest/gtest.h>
#include <json/writer.h>
#include <limits>
#include <vector>

namespace kest {

namespace {

std::string Elements(int count, const std::string &element) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += (text.empty() ? "" : ", ") + element;
    return "[" + text + "]";
}

TEST(JsonToString, FormatsTextAsTheLibraryDoes) {
    const std::string rows[] = {
        "null",
        "true",
        "false",
        "0",
        "-1",
        "9223372036854775807",
        "-9223372036854775808",
        "18446744073709551615",
        "0.1",
        "1e300",
        "-2.5e-7",
        "100.0",
        R"("")",
        R"("a b")",
        R"("\"\\/\b\f\n\r\t\u0000\u0001\u001f\u007f")",
        "\"caf\xc3\xa9 \xff\"",
        "\"\xf0\x9f\x98\x80 \xe2\x80\xa8 \x7f\"",
        "\"\xc0\xaf \xed\xa0\x80 \xf7\xbf\xbf\xbf \xe2\x82\"",
        "{\"caf\xc3\xa9\": \"\", \"\xff\": 1, \"\xfe\\u0000\": 2}",
        "[]",
        "{}",
        "[1]",
        "[[]]",
        "[{}]",
        "[[], {}, null]",
        "[[1]]",
        R"([{"a": 1}])",
        R"([1, [2, [3, {"a": [4, {"b": []}]}]], 5])",
        R"({"a": 1})",
        R"({"b": {}, "a": [], "c": {"d": {"e": [1, 2]}}})",
        R"({"a": [{"b": 1}, {"c": 2}], "d": [[], [1]]})",
        R"({"": "", "a\"\n": "\u0000", "caf\u00e9": 1})",
        Elements(24, "1"), // one element more does not fit into one line
        Elements(25, "1"),
        Elements(24, "10"), // 94 characters, and one less than 74 and that many
        Elements(2, '"' + std::string(31, 'x') + '"'),
        Elements(2, '"' + std::string(32, 'x') + '"'),
        Elements(1, '"' + std::string(68, 'x') + '"'),
        R"({"a": {"b": )" + Elements(30, "[]") + "}}",
        R"({"a": {"b": )" + Elements(9, "1000000") + "}}",
    };
    Json::StreamWriterBuilder library;
    library["commentStyle"] = "None";
    for (const std::string &row : rows) {
        const Json::Value value = FromText(row);
        EXPECT_EQ(JsonToString(value), Json::writeString(library, value)) << row;
    }
    for (const double odd : {std::numeric_limits<double>::infinity(), std::nan(""), -0.0}) {
        Json::Value value;
        value["odd"] = odd;
        EXPECT_EQ(JsonToString(value), Json::writeString(library, value)) << odd;
    }
}

// Every strict reader accepts the text, whatever bytes it contains.
TEST(JsonToString, IsPlainAscii) {
    for (unsigned first = 0x80; first < 0x100; ++first)
        for (const char *rest : {"", "x", "\"", "\\", "\x80", "\xbf\xbf", "\xbf\xbf\xbf", "\xff"}) {
            Json::Value value(std::string(1, static_cast<char>(first)) + rest);
            const std::string text = JsonToString(value);
            EXPECT_EQ(text, Json::writeString(Json::StreamWriterBuilder(), value));
            for (const char character : text)
                EXPECT_TRUE(character >= 0x20 && character < 0x7f) << text;
            FromText(text);
        }
}

TEST(JsonToString, StopsSoonAfterTheLimit) {
    const Json::Value value = FromText(Elements(1000, R"({"a": [1, 2, 3]})"));
    const std::string whole = JsonToString(value);
    for (const std::size_t most : {std::size_t{0}, std::size_t{1000}, whole.size() - 1}) {
        const std::string part = JsonToString(value, most);
        EXPECT_GT(part.size(), most);
        EXPECT_LE(part.size(), whole.size());
    }
    EXPECT_LT(JsonToString(value, 1000).size(), whole.size() / 3); // closing brackets still follow
    EXPECT_EQ(JsonToString(value, whole.size()), whole);
}

TEST(JsonText, BuildsTheSameTextInParts) {
    const Json::Value value = FromText(R"({"jobs": {"a": {"b": [1]}, "c": [], "d": {"e": 5}}})");
    JsonText text;
    text.BeginObject();
    text.Name("jobs");
    text.BeginObject();
    for (const char *name : {"a", "c", "d"}) {
        text.Name(name);
        text.Append(value["jobs"][name]);
    }
    text.EndObject();
    text.EndObject();
    EXPECT_EQ(text.Take(), JsonToString(value));
}

} // namespace

} // namespace kest
