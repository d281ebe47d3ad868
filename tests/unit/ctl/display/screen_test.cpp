#include "ctl/display/screen.h"

#include <gtest/gtest.h>
#include <random>
#include <sstream>

namespace kest::ctl {

namespace {

constexpr Screen kPipe{0, false, true};

TEST(Coloured, NeedsAScreenWithColours) {
    EXPECT_EQ(Coloured({80, true, true}, Colour::Red, "x"), "\033[31mx\033[0m");
    EXPECT_EQ(Coloured({80, true, true}, Colour::None, "x"), "x");
    EXPECT_EQ(Coloured({80, false, true}, Colour::Red, "x"), "x");
}

TEST(WidthOf, CountsCharacters) {
    EXPECT_EQ(WidthOf("abc"), 3U);
    EXPECT_EQ(WidthOf("ä…b"), 3U);
    EXPECT_EQ(WidthOf(Coloured({80, true, true}, Colour::Red, "ab") + "c"), 3U);
    EXPECT_EQ(WidthOf("\033[3"), 0U);
    EXPECT_EQ(Padded("ä", 3), "ä  ");
    EXPECT_EQ(Padded("abcd", 3), "abcd");
}

TEST(Fitted, CutsLongTexts) {
    EXPECT_EQ(Fitted(kPipe, "abcd", 4), "abcd");
    EXPECT_EQ(Fitted(kPipe, "abcde", 4), "abc…");
    EXPECT_EQ(Fitted({0, false, false}, "abcde", 4), "abc~");
    EXPECT_EQ(Fitted(kPipe, "äöüäö", 4), "äöü…");
}

TEST(Wrapped, BreaksLinesAtBlanks) {
    EXPECT_EQ(Wrapped(kPipe, "one two three", 4), "one two three");
    EXPECT_EQ(Wrapped({12, false, true}, "one two three", 4), "one two\n    three");
    EXPECT_EQ(Wrapped({11, false, true}, "one two three", 4), "one two\n    three");
    EXPECT_EQ(Wrapped({10, false, true}, "one two three", 4), "one\n    two\n    three");
    EXPECT_EQ(Wrapped({12, false, true}, "one two-and-three", 4), "one\n    two-and-\n    three");
    EXPECT_EQ(Wrapped({8, false, true}, "äöüäöü", 4), "äöüä\n    öü");
    EXPECT_EQ(Wrapped({4, false, true}, "longer", 4), "\nlong\ner");
    EXPECT_EQ(Wrapped(kPipe, "a  b ", 0), "a  b");
    EXPECT_EQ(Wrapped(kPipe, "", 4), "");
}

TEST(Hanging, BeginsAtTheFirstColumn) {
    EXPECT_EQ(Hanging(kPipe, "one two", 2), "one two");
    EXPECT_EQ(Hanging({7, false, true}, "one two three", 2), "one two\n  three");
}

// Random words, some of them long.
std::string SomeText(std::mt19937 &random, std::size_t words) {
    std::string text;
    for (std::size_t i = 0; i < words; ++i) {
        text += i == 0 ? "" : " ";
        for (std::size_t left = random() % 8 == 0 ? 100 : random() % 10; left != 0; --left)
            text += random() % 5 == 0 ? "ä" : "x";
    }
    return text;
}

void ExpectFits(const std::string &text, std::size_t width) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(WidthOf(line), width) << text;
}

TEST(Wrapped, NeverExceedsTheScreen) {
    for (unsigned round = 0; round < 3000; ++round) {
        std::mt19937 random(round);
        const Screen screen{16 + random() % 120, random() % 2 == 0, true};
        const std::string text = SomeText(random, 1 + random() % 20);
        ExpectFits(std::string(15, ' ') + Wrapped(screen, text, 15), screen.width);
        ExpectFits(Hanging(screen, Coloured(screen, Colour::Red, text), 4), screen.width);
    }
}

TEST(Table, NeverExceedsTheScreen) {
    for (unsigned round = 0; round < 3000; ++round) {
        std::mt19937 random(round);
        const Screen screen{20 + random() % 120, random() % 2 == 0, random() % 2 == 0};
        Table table({"JOB", "ACCOUNT", "SCHEDULE", "LAST RUN", "NEXT RUN", "STATE"}, {1, 3, 2});
        for (std::size_t rows = random() % 4; rows != 0; --rows)
            table.Add({SomeText(random, 1), SomeText(random, 1), SomeText(random, 5),
                       SomeText(random, 3), SomeText(random, 3), SomeText(random, 2)},
                      Colour::Red);
        ExpectFits(table.Show(screen), screen.width);
    }
}

Table SomeJobs() {
    Table table({"JOB", "ACCOUNT", "STATE"}, {1});
    table.Add({"builtin-core-backup", "root", "waiting"});
    table.Add({"x", "operator", "overdue"}, Colour::Yellow);
    return table;
}

TEST(Table, AlignsColumns) {
    EXPECT_EQ(SomeJobs().Show(kPipe), "JOB                  ACCOUNT   STATE\n"
                                      "builtin-core-backup  root      waiting\n"
                                      "x                    operator  overdue\n");
}

TEST(Table, CutsAndOmitsColumns) {
    EXPECT_EQ(SomeJobs().Show({38, false, true}), SomeJobs().Show(kPipe));
    EXPECT_EQ(SomeJobs().Show({37, false, true}), "JOB                  STATE\n"
                                                  "builtin-core-backup  waiting\n"
                                                  "x                    overdue\n");
    EXPECT_EQ(SomeJobs().Show({20, false, true}), "JOB          STATE\n"
                                                  "bu…e-backup  waiting\n"
                                                  "x            overdue\n");
    // A wide column is cut before it is omitted.
    Table table({"JOB", "SCHEDULE"}, {1});
    table.Add({"backup", "monthly on the 17th at 03:17"});
    EXPECT_EQ(table.Show({20, false, true}), "JOB     SCHEDULE\n"
                                             "backup  monthly on …\n");
    EXPECT_EQ(table.Show({17, false, true}), "JOB\nbackup\n");
}

TEST(Table, ColoursTheHeaderAndTheLastColumn) {
    EXPECT_EQ(SomeJobs().Show({80, true, true}),
              "\033[1mJOB                  ACCOUNT   STATE\033[0m\n"
              "builtin-core-backup  root      waiting\n"
              "x                    operator  \033[33moverdue\033[0m\n");
}

TEST(Table, EscapesControlCharacters) {
    Table table({"JOB"});
    table.Add({"a\nb\033[2J"});
    EXPECT_EQ(table.Show(kPipe), "JOB\na\\nb\\x1b[2J\n");
}

} // namespace

} // namespace kest::ctl
