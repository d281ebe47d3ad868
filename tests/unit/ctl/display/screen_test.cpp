#include "ctl/display/screen.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(Wrapped({4, false, true}, "longer", 4), "longer");
    EXPECT_EQ(Wrapped(kPipe, "a  b ", 0), "a  b");
    EXPECT_EQ(Wrapped(kPipe, "", 4), "");
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
