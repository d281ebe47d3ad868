#include "base/printable.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(Printable, EscapesOnlyControlCharacters) {
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

TEST(WithoutMiddle, LeavesShortTextsAlone) {
    for (const std::string &text : {std::string(), std::string(100, 'x')})
        EXPECT_EQ(WithoutMiddle(text, 100), text);
}

TEST(WithoutMiddle, KeepsTheBeginningAndTheEnd) {
    const std::string text = "begin" + std::string(1000, 'x') + "end";
    EXPECT_EQ(WithoutMiddle(text, 100), text.substr(0, 26) + " [... 956 bytes left out ...] " +
                                            text.substr(text.size() - 26));
    for (std::size_t most = 64; most < text.size(); ++most)
        EXPECT_LE(WithoutMiddle(text, most).size(), most);
}

TEST(WithoutMiddle, DoesNotSplitCharacters) {
    for (const char *character : {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
        const std::string one = character;
        for (std::size_t offset = 0; offset < one.size(); ++offset) {
            std::string text(offset, 'x');
            for (int i = 0; i < 100; ++i)
                text += one;
            const std::string cut = WithoutMiddle(text, 80);
            const std::size_t start = cut.find(" [... ");
            const std::size_t end = cut.find(" bytes left out ...] ") + 21;
            EXPECT_EQ((start - offset) % one.size(), 0U);
            EXPECT_EQ((cut.size() - end) % one.size(), 0U);
        }
    }
    EXPECT_LE(WithoutMiddle(std::string(1000, '\x80'), 80).size(), 80U);
}

} // namespace

} // namespace kest
