#include "ctl/utf8.h"

#include <gtest/gtest.h>

namespace {

TEST(ValidUtf8, ReplacesWhatIsNoCharacter) {
    EXPECT_EQ(ValidUtf8("a\u00e4\u20ac\U0001f600"), "a\u00e4\u20ac\U0001f600");
    EXPECT_EQ(ValidUtf8("a\xff\x80z"), "a\ufffd\ufffdz");
    EXPECT_EQ(ValidUtf8("\xc0\xaf"), "\ufffd\ufffd");
    EXPECT_EQ(ValidUtf8("\xe2\x82"), "\ufffd\ufffd");
}

TEST(Shown, HasNothingThatATerminalObeys) {
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
