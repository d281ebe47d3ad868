#include "ctl/import/classic_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kest::ctl {

namespace {

std::string RemarkAsText(const LineRemark &remark) {
    return std::to_string(remark.column) + ": " + remark.message;
}

// "-" for no entry, "NAME=[VALUE]", "ACCOUNT [COMMAND] [INPUT] REMARKS", or "COLUMN: FAULT".
std::string LineAsText(const std::string &line, bool userColumn = false) {
    const ClassicLine parsed = ParseClassicLine(line, userColumn);
    if (const auto *variable = std::get_if<ClassicVariable>(&parsed))
        return variable->name + "=[" + variable->value + "]";
    if (const auto *fault = std::get_if<LineRemark>(&parsed))
        return RemarkAsText(*fault);
    const auto *entry = std::get_if<ClassicEntry>(&parsed);
    if (entry == nullptr)
        return "-";
    std::string text = entry->account + "[" + entry->command + "]";
    if (!entry->input.empty())
        text += " [" + entry->input + "]";
    for (const LineRemark &remark : entry->remarks)
        text += " " + RemarkAsText(remark);
    return text;
}

struct LineRow {
    std::string line;
    std::string expected;
};

TEST(ClassicLine, BlankLinesAndCommentsAreNoEntries) {
    for (const char *line : {"", "  \t ", "# 0 0 * * * x", "  # A=b", "#\x1b[31m"})
        EXPECT_EQ(LineAsText(line), "-") << line;
}

TEST(ClassicLine, VariablesMayBeQuoted) {
    const std::vector<LineRow> rows{
        {"A=b", "A=[b]"},
        {"  PATH = /usr/bin:/bin  ", "PATH=[/usr/bin:/bin]"},
        {"A=b c # d", "A=[b c # d]"},
        {"A= \" b \" ", "A=[ b ]"},
        {"\"A\" = 'b\"c'", "A=[b\"c]"},
        {"MAILTO=\"\"", "MAILTO=[]"},
        {"MAILTO=", "MAILTO=[]"},
        {"A=$B=%", "A=[$B=%]"},
        {"A-B=c", "1: \"A-B\" is not the name of a variable"},
        {"=c", "1: \"\" is not the name of a variable"},
        {"A=\"b\" c", "1: minute \"A=\\\"b\\\"\" is not a number"},
        {"A=\"b", "1: minute \"A=\\\"b\" is not a number"},
    };
    for (const LineRow &row : rows)
        EXPECT_EQ(LineAsText(row.line), row.expected) << row.line;
}

TEST(ClassicLine, CommandsAreTheRestOfTheLine) {
    const std::vector<LineRow> rows{
        {"* * * * * x", "[x]"},
        {"\t*\t* * *  *\tx  'y  z' # a ", "[x  'y  z' # a ]"},
        {"@daily x", "[x]"},
        {"* * * * * A=b x", "[A=b x]"},
        {"* * * * * 7z a", "[7z a]"},
        {"0 3 * * * mon", "[mon]"},
        {"* * * * * date +\\%d", "[date +%d]"},
        {"* * * * * x%a%b", "[x] [a\nb\n]"},
        {"* * * * * x%a\\%b%", "[x] [a%b\n]"},
        {"* * * * * x%", "[x]"},
        {R"(* * * * * x%a\\b)", "[x] [a\\\\b\n]"},
        {"* * * * * x \\\\ y", "[x \\\\ y] 13: two backslashes are kept; some programs make one of "
                               "them"},
        {"0 0 */2 * 1 x", "[x] 11: the job starts when day and weekday match, because one of them "
                          "begins with \"*\"; some programs start it when either matches"},
        {"0 0 2 * 1 x", "[x]"},
    };
    for (const LineRow &row : rows)
        EXPECT_EQ(LineAsText(row.line), row.expected) << row.line;
}

TEST(ClassicLine, AccountsStandBeforeTheCommand) {
    const std::vector<LineRow> rows{
        {"* * * * *\troot\tx y", "root[x y]"},
        {"@hourly www-data x", "www-data[x]"},
        {"@hourly root", "13: there is no command"},
        {"* * * * * root", "15: there is no command"},
        {"* * * * * * root x", "11: a sixth field \"*\": there are no fields for seconds or years"},
    };
    for (const LineRow &row : rows)
        EXPECT_EQ(LineAsText(row.line, true), row.expected) << row.line;
}

TEST(ClassicLine, LinesWithoutAnEquivalentAreReported) {
    const std::vector<LineRow> rows{
        {"@reboot x", "1: \"@reboot\": jobs do not start at boot"},
        {" @every 5m x", "2: \"@every\" is not the word for a time"},
        {"0 0 30,31 2 * x", "1: it would never start"},
        {"0 0 * *", "8: the line ends after 4 fields"},
        {"* * * * *", "10: there is no command"},
        {"* * * * * %x", "11: there is no command"},
        {"0 0 0 * * * x", "5: day \"0\" is out of range"},
        {"0 0 12 * * * x", "12: a sixth field \"*\": there are no fields for seconds or years"},
        {"0 0 12 * * ? x", "12: a sixth field \"?\": there are no fields for seconds or years"},
        {"0 0 12 1 * MON-FRI x",
         "12: a sixth field \"MON-FRI\": there are no fields for seconds or years"},
        {"0 1,60 * * * x", "5: hour \"60\" is out of range"},
        {"hello", "1: minute \"hello\" is not a number"},
        {"* * * * * x\r", "12: a control character \"\\x0d\""},
        {"* * * * * \x1b[2J", "11: a control character \"\\x1b\""},
        {std::string("* * * * * x\0y", 13), "12: a control character \"\\x00\""},
        {"* * * * * caf\xe9", "14: the line is not UTF-8"},
        {"* * * * * caf\xc3\xa9", "[caf\xc3\xa9]"},
        {"* * * * * " + std::string(8182, 'x'), "[" + std::string(8182, 'x') + "]"},
        {"* * * * * " + std::string(8183, 'x'), "8193: the line is too long"},
    };
    for (const LineRow &row : rows)
        EXPECT_EQ(LineAsText(row.line), row.expected) << row.line;
}

} // namespace

} // namespace kest::ctl
