#include "platform/kestutils.h"

#include <gtest/gtest.h>

namespace kest {

namespace {

TEST(StringExplode, ReturnsOnePieceMoreThanSeparators) {
    struct Row {
        const char *text;
        const char *separator;
        std::vector<std::string> pieces;
    };
    const Row rows[] = {
        {"", ",", {""}},
        {"a", ",", {"a"}},
        {"a,b", ",", {"a", "b"}},
        {"1,,2", ",", {"1", "", "2"}},
        {"5,", ",", {"5", ""}},
        {",5", ",", {"", "5"}},
        {",", ",", {"", ""}},
        {",,,", ",", {"", "", "", ""}},
        {"~ ~ * * *", " ", {"~", "~", "*", "*", "*"}},
        {"a  b", " ", {"a", "", "b"}},
        {" a ", " ", {"", "a", ""}},
        {"a\tb", " ", {"a\tb"}},
        {"1~2~3", "~", {"1", "2", "3"}},
        {"a<>b<>c", "<>", {"a", "b", "c"}},
        {"a<>", "<>", {"a", ""}},
        {"a<b>c", "<>", {"a<b>c"}},
        {"aaa", "aa", {"", "a"}},
        {"abc", "abcd", {"abc"}},
    };
    for (const Row &row : rows)
        EXPECT_EQ(KESTUtils::StringExplode(row.text, row.separator), row.pieces)
            << "[" << row.text << "] at [" << row.separator << "]";
}

} // namespace

} // namespace kest
