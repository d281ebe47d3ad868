#include "log/printable.h"

#include <gtest/gtest.h>

namespace {

TEST(Printable, EscapesControlCharactersAlone) {
    struct Row {
        std::string text;
        const char *printable;
    };
    const Row rows[] = {
        {"", ""},
        {"plain text 123", "plain text 123"},
        {"a\nb", "a\\nb"},
        {"a\tb", "a\\tb"},
        {"\x1b[31m", "\\x1b[31m"},
        {"\r", "\\x0d"},
        {"\x7f", "\\x7f"},
        {"\x1f\x20", "\\x1f "},
        {std::string("a\0b", 3), "a\\x00b"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"\x80\xff", "\x80\xff"},
        {"%m %s", "%m %s"},
        {"back\\slash", "back\\slash"},
        {"~", "~"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Printable(row.text), row.printable);
}

TEST(Printable, LeavesNoControlCharacter) {
    for (int code = 0; code < 256; ++code) {
        const std::string text(1, static_cast<char>(code));
        if (code < 0x20 || code == 0x7f)
            EXPECT_EQ(Printable(text).find(text), std::string::npos) << code;
        else
            EXPECT_EQ(Printable(text), text) << code;
    }
}

} // namespace
