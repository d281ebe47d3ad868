#include "ctl/display/utf8.h"

#include <gtest/gtest.h>
#include <string>

namespace kest::ctl {

namespace {

TEST(ValidUtf8, ReplacesInvalidBytes) {
    struct Row {
        std::string text;
        std::string valid; // "?" for a replacement
    };
    const Row rows[] = {
        {"", ""},
        {"aé€𐍈", "aé€𐍈"},
        {"\x80", "?"},
        {"\xC3", "?"},
        {"\xC3(", "?("},
        {"\xC1\x81", "??"},                       // overlong
        {"\xE0\x9F\xBF", "???"},                  // overlong
        {"\xF0\x8F\xBF\xBF", "????"},             // overlong
        {"\xED\xA0\x80", "???"},                  // a surrogate
        {"\xED\x9F\xBF", "\xED\x9F\xBF"},         // the last before them
        {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"}, // the last of all
        {"\xF4\x90\x80\x80", "????"},
        {"\xF5\x80\x80\x80", "????"},
        {"\xE2\x82", "??"},
        {"\xE2\x82x\xFF", "??x?"},
        {"a\xFF\x80z", "a??z"},
    };
    for (const Row &row : rows) {
        std::string valid;
        for (const char character : row.valid)
            valid += character == '?' ? "\xEF\xBF\xBD" : std::string(1, character);
        EXPECT_EQ(ValidUtf8(row.text), valid) << testing::PrintToString(row.text);
    }
}

TEST(Shown, EscapesUnsafeCharacters) {
    struct {
        const char *text;
        const char *shown;
    } const rows[] = {
        {"plain \u00e4\u20ac\U0001f600", "plain \u00e4\u20ac\U0001f600"},
        {"a\nb\t\x1b[2J\x7f", "a\\nb\\t\\x1b[2J\\x7f"},
        {"\x9b"
         "2J",
         "\\x9b2J"},
        {"a\xffz", "a\\xffz"},
        {"\u009b2J", "\\u009b2J"},
        {"a\u202eb\u202c", "a\\u202eb\\u202c"},
        {"\xe2\x81\xa6x\xe2\x81\xa9", "\\u2066x\\u2069"},
        {"\u200bx\ufeff", "\\u200bx\\ufeff"},
        {"", ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Shown(row.text), row.shown);
}

} // namespace

} // namespace kest::ctl
